#include <cmath>

#include "magcal/calibration_trace.h"
#include "magcal/calibrator.h"

namespace quelta {

namespace {

// Population variance per axis of all 30 entries, about their mean.
void historyVariance(const History30& history, float* variance) {
  float mean[3];
  MeanOf30(history, mean);
  for (int32_t axis = 0; axis < 3; ++axis) {
    float sum = 0.0f;
    for (int32_t k = 0; k < History30::kLength; ++k) {
      const float d = history.at(k)[axis] - mean[axis];
      sum = sum + d * d;
    }
    variance[axis] = sum / 30.0f;
  }
}

constexpr int32_t kSaturationCount = 11;  // moving samples with a frozen probe axis
constexpr int32_t kQualitySeconds = 5;    // out-of-sphere time before a downgrade

}  // namespace

int32_t Calibrator::process(const float* acc, const float* mag, const float* satMag,
                            int32_t iReStart, int32_t iCalLogMode) {
  state.iCalLogMode = iCalLogMode;
  if (iReStart == 1) {
    traceLine(iCalLogMode, "QUELTA6a20180530 ReStart=%d \n", 1);
    state.iCalBufferCount = 0;
  }

  if (intake(acc, mag, satMag)) {
    float probeVariance[3];
    updateVariances(probeVariance);
    watchSaturation(probeVariance);
  }

  if (state.iMagAccuracy == 0) {
    CalBufferUpdate();
    return 1;
  }
  if (state.iHistoryCount == History30::kLength && watchQuality()) return 1;
  if (state.iMagAccuracy == 1 || state.iMagAccuracy == 2) {
    CalBufferUpdate();
  } else if (state.iMagAccuracy == 3) {
    refine();
  }
  return 1;
}

bool Calibrator::intake(const float* acc, const float* mag, const float* satMag) {
  if (state.bHistoryInit == 0) {
    // Until real samples arrive, gravity is assumed straight along z.
    const float up[3] = {0.0f, 0.0f, 1.0f};
    for (int32_t k = 0; k < History30::kLength; ++k) state.dAccHistory.store(k, up);
    state.bHistoryInit = 1;
  }

  // The sample as a row vector times the axis matrix.
  const float(&m)[3][3] = state.config.dMagAxisMatrix;
  for (int32_t c = 0; c < 3; ++c) {
    state.dMagdata[c] = (mag[0] * m[0][c] + mag[1] * m[1][c]) + mag[2] * m[2][c];
  }
  for (int32_t k = 0; k < 3; ++k) {
    state.dAccData[k] = acc[k];
    state.dSatMagData[k] = satMag[k];
  }

  const int32_t n = state.iHistoryCount;
  if (n < History30::kLength) {
    state.dAccHistory.store(n, state.dAccData);
    state.dMagHistory.store(n, state.dMagdata);
    state.dSatMagHistory.store(n, state.dSatMagData);
    state.iHistoryCount = n + 1;
    return false;
  }
  state.dAccHistory.shiftIn(state.dAccData);
  state.dMagHistory.shiftIn(state.dMagdata);
  state.dSatMagHistory.shiftIn(state.dSatMagData);
  return true;
}

void Calibrator::updateVariances(float probeVariance[3]) {
  historyVariance(state.dAccHistory, state.dAccVariance);
  historyVariance(state.dSatMagHistory, probeVariance);
}

void Calibrator::watchSaturation(const float probeVariance[3]) {
  const float* accVar = state.dAccVariance;
  const float moving = state.config.dAccVarThd;
  if (accVar[0] <= moving && accVar[1] <= moving && accVar[2] <= moving) {
    state.iSatCount = 0;
    return;
  }
  // A saturated axis stops following the motion: its variance collapses.
  const float frozen = state.config.dMagVarThd;
  if (probeVariance[0] < frozen || probeVariance[1] < frozen || probeVariance[2] < frozen) {
    state.iSatCount = state.iSatCount + 1;
  } else {
    state.iSatCount = 0;
  }
  if (state.iSatCount >= kSaturationCount) {
    state.bMagSaturation = 1;
    state.iSatCount = 0;
  }
}

bool Calibrator::watchQuality() {
  // The middle history entry, against the sphere in force.
  const float* m = state.dMagHistory.at(15);
  const float dx = m[0] - state.dSphereOffset[0];
  const float dy = m[1] - state.dSphereOffset[1];
  const float dz = m[2] - state.dSphereOffset[2];
  const float ratio = std::sqrt((dx * dx + dy * dy) + dz * dz) / state.dSphereRadius;
  // The lower bound is a double constant; a NaN ratio counts as in range.
  if (static_cast<double>(ratio) < 0.2 || ratio > 3.0f) {
    if (state.iQualityDownCount < INT32_MAX) state.iQualityDownCount = state.iQualityDownCount + 1;
  } else {
    state.iQualityDownCount = 0;
  }

  const int64_t limit = int64_t{kQualitySeconds} * state.config.iSampleRate;
  if (state.iQualityDownCount < limit) return false;
  logLine("TRVQX4e20171117 qualitydown %d\n", state.iQualityDownCount);
  state.iMagAccuracy = 0;
  state.iCalBufferCount = 0;
  traceLine(state.iCalLogMode, "TRVQX4e needcali quality 444 %d califlag= %d\n", 0, 1);
  return true;
}

void Calibrator::refine() {
  const int32_t count = state.iCalBufferCount;
  if (count == 0) {
    appendToPool(0);
    return;
  }
  if (count >= fullPoolCount()) {
    // A rejected refit keeps the calibration in force; either way the
    // refinement pool starts over.
    const SpherePara fit = SphereFit(count);
    if (fit.iMagCalisOK == 1) adoptFullFit(fit);
    state.iCalBufferCount = 0;
    return;
  }
  const PoolScan scan = scanPool(count);
  if (scan.verdict == PoolScan::kTooClose) return;
  if (scan.verdict == PoolScan::kTooFar) {
    state.iCalBufferCount = 0;
    if (scan.index == 0) appendToPool(0);
    return;
  }
  appendToPool(count);
}

}  // namespace quelta
