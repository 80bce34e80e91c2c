#include <cmath>

#include "magcal/calibration_trace.h"
#include "magcal/calibrator.h"

namespace quelta {

// The pool grows in three phases: early (spaced samples, no fit), late (a
// partial fit after every admitted sample, graded 1 or 2 by the count) and
// full (one fit that grades 3 or falls back, then the pool starts over).
void Calibrator::CalBufferUpdate() {
  const int32_t count = state.iCalBufferCount;
  traceLine(state.iCalLogMode, "QUELTA6a2018 iCalBufferCount=%d \n", count);
  if (count == 0) {
    appendToPool(0);
    traceLine(state.iCalLogMode, "queltagbp 000 i=%d %f %f %f\n", 0,
              static_cast<double>(state.dMagdata[0]), static_cast<double>(state.dMagdata[1]),
              static_cast<double>(state.dMagdata[2]));
    return;
  }
  // Written as count + 1 < iMinCalCount so that no configured value can
  // overflow; the early phase also stops at the pool's capacity.
  if (count + 1 < state.config.iMinCalCount && count < kCalPoolCapacity) {
    poolEarly();
  } else if (count < fullPoolCount()) {
    poolLate();
  } else {
    poolFull();
  }
}

void Calibrator::poolEarly() {
  state.dMinDist = state.config.dMinDistEarly;
  const PoolScan scan = scanPool(state.iCalBufferCount);
  if (scan.verdict == PoolScan::kTooClose) {
    traceLine(state.iCalLogMode, "QUELTA6a20180725 dTempDistance small =%f \n",
              static_cast<double>(scan.distance));
    return;
  }
  if (scan.verdict == PoolScan::kTooFar) {
    traceLine(state.iCalLogMode, "QUELTA6a20180725 dTempDistance big =%f \n",
              static_cast<double>(scan.distance));
    state.iCalBufferCount = 0;
    // Far from the first sample: the new one opens a fresh pool.
    if (scan.index != 0) return;
  }
  const int32_t position = state.iCalBufferCount;
  appendToPool(position);
  traceLine(state.iCalLogMode, "queltagbp 111 i=%d %f %f %f\n", position,
            static_cast<double>(state.dMagdata[0]), static_cast<double>(state.dMagdata[1]),
            static_cast<double>(state.dMagdata[2]));
}

void Calibrator::poolLate() {
  state.dMinDist = state.config.dMinDistLate;
  const PoolScan scan = scanPool(state.iCalBufferCount);
  if (scan.verdict == PoolScan::kTooClose) return;
  if (scan.verdict == PoolScan::kTooFar) {
    state.iCalBufferCount = 0;
    state.iMagAccuracy = 0;
    traceLine(state.iCalLogMode, "TRVQX4e  quality down111 %d", 0);
    restoreSaved();
    if (scan.index != 0) return;
  }

  const int32_t position = state.iCalBufferCount;
  appendToPool(position);
  traceLine(state.iCalLogMode, "queltagbp 222 i=%d %f %f %f\n", position,
            static_cast<double>(state.dMagdata[0]), static_cast<double>(state.dMagdata[1]),
            static_cast<double>(state.dMagdata[2]));
  const int32_t n = position + 1;
  const SpherePara fit = SphereFit(n);
  traceLine(state.iCalLogMode, "QUELTA6a objSP.iMagCalisOK = %d", fit.iMagCalisOK);
  if (fit.iMagCalisOK != 1) {
    // The partially fitted offset in force stays; only the grade drops.
    state.iCalBufferCount = 0;
    state.iMagAccuracy = 0;
    traceLine(state.iCalLogMode, "TRVQX4e quality 222 %d\n", 0);
    return;
  }

  if (n >= state.config.iMidCalCount) {
    state.iMagAccuracy = 2;
  } else if (n >= state.config.iMinCalCount) {
    state.iMagAccuracy = 1;
  }
  for (int32_t k = 0; k < 3; ++k) state.dSphereOffset[k] = fit.dSphereOffset[k];
  state.dSphereRadius = fit.dSphereRadius;
  traceLine(state.iCalLogMode, "QUELTA6a accu=%d calioffset =%f %f %f dSphereRadius=%f \n",
            state.iMagAccuracy, static_cast<double>(state.dSphereOffset[0]),
            static_cast<double>(state.dSphereOffset[1]),
            static_cast<double>(state.dSphereOffset[2]),
            static_cast<double>(state.dSphereRadius));
}

void Calibrator::poolFull() {
  // The current sample only triggers the fit; it is not pooled.
  const SpherePara fit = SphereFit(state.iCalBufferCount);
  if (fit.iMagCalisOK == 1) {
    adoptFullFit(fit);
    traceLine(state.iCalLogMode, "TRVQX4e quality 4 %d\n", 3);
  } else {
    state.iMagAccuracy = 0;
    restoreSaved();
  }
  traceLine(state.iCalLogMode,
            "queltagbp SphereOffset %lf %lf %lf Radius= %lf Accuracy= %d iMagCalisOK= %d\n\n",
            static_cast<double>(state.dSphereOffset[0]),
            static_cast<double>(state.dSphereOffset[1]),
            static_cast<double>(state.dSphereOffset[2]),
            static_cast<double>(state.dSphereRadius), state.iMagAccuracy, fit.iMagCalisOK);
  state.iCalBufferCount = 0;
}

void Calibrator::appendToPool(int32_t position) {
  for (int32_t k = 0; k < 3; ++k) state.dCalBuffer[position][k] = state.dMagdata[k];
  state.iCalBufferCount = position + 1;
}

// Pooled samples in order; the first one too close (checked first) or too
// far from the current sample decides.
Calibrator::PoolScan Calibrator::scanPool(int32_t count) const {
  const float* m = state.dMagdata;
  for (int32_t i = 0; i < count; ++i) {
    const float* p = state.dCalBuffer[i];
    const float dx = p[0] - m[0];
    const float dy = p[1] - m[1];
    const float dz = p[2] - m[2];
    const float distance = std::sqrt((dx * dx + dy * dy) + dz * dz);
    if (distance < state.dMinDist) return {PoolScan::kTooClose, i, distance};
    if (distance > state.config.dMaxDist) return {PoolScan::kTooFar, i, distance};
  }
  return {PoolScan::kAdmitted, count, 0.0f};
}

// The configured full-pool count, capped at the pool's capacity so that no
// configuration can make the pool grow past its last entry. Counts below 1
// need no bound: the full fit then follows the early phase directly.
int32_t Calibrator::fullPoolCount() const {
  const int32_t full = state.config.iFullCalCount;
  return full > kCalPoolCapacity ? kCalPoolCapacity : full;
}

SpherePara Calibrator::SphereFit(int32_t n) const {
  return quelta::SphereFit(state.dCalBuffer, n, state.config.dRatioLow, state.config.dRatioHigh,
                           state.iCalLogMode);
}

void Calibrator::adoptFullFit(const SpherePara& fit) {
  state.iMagAccuracy = 3;
  state.bNewCalPara = 1;
  for (int32_t k = 0; k < 3; ++k) {
    state.dSphereOffset[k] = fit.dSphereOffset[k];
    state.dSavedOffset[k] = fit.dSphereOffset[k];
  }
  state.dSphereRadius = fit.dSphereRadius;
  state.dSavedRadius = fit.dSphereRadius;
}

void Calibrator::restoreSaved() {
  for (int32_t k = 0; k < 3; ++k) state.dSphereOffset[k] = state.dSavedOffset[k];
  state.dSphereRadius = state.dSavedRadius;
}

}  // namespace quelta
