#include "vgyro/virtual_gyro.h"

#include <cmath>

#include "core/float_to_int.h"
#include "core/log.h"
#include "core/quaternion.h"
#include "core/vector_math.h"
#include "vgyro/attitude.h"
#include "vgyro/data_buffer.h"
#include "vgyro/filter_compensation.h"
#include "vgyro/smoothing_filters.h"

namespace quelta {

namespace {

constexpr double kHalfPi = 1.5707963267948966;
constexpr double kMinInterval = 1e-7;  // s; below this the previous interval is used
constexpr double kMinInputNorm = 1e-7;
constexpr int32_t kStartupErrorCalls = 49;  // calls whose rate the error period replaces
constexpr int32_t kStartupErrorEnd = 50;
constexpr int32_t kStartupErrorParked = 51;
constexpr double kMinSinHalfAngle = 1e-5;
constexpr double kMinCompensatedInterval = 0.005;  // s
constexpr double kMaxCompensatedInterval = 0.03;   // s
constexpr double kMaxCompensationGain = 1.05;
constexpr float kStillNoiseDivisor = 200.0f;  // noise of at most 0.005 rad/s

int32_t dominantAxis(const float* v) {
  int32_t axis = std::fabs(v[1]) > std::fabs(v[0]) ? 1 : 0;
  if (std::fabs(v[2]) > std::fabs(v[axis])) axis = 2;
  return axis;
}

}  // namespace

void selectRate(const float* tmpW, const float* wMag, float* w) {
  w[0] = tmpW[0];
  w[1] = tmpW[1];
  w[2] = tmpW[2];
  const bool bothFast = static_cast<double>(norm2(tmpW, 3)) > kHalfPi &&
                        static_cast<double>(norm2(wMag, 3)) > kHalfPi;
  if (!bothFast) return;
  const int32_t dominant = dominantAxis(tmpW);
  for (int32_t i = 0; i < 3; ++i) {
    if (i != dominant && std::fabs(wMag[i]) < std::fabs(tmpW[i])) w[i] = wMag[i];
  }
}

void VirtualGyro::process(const float* mag, const float* acc, int32_t algoRestart,
                          int32_t iGyroLogMode, float ts) {
  const LogModes log{iGyroLogMode == 1, logModeAtMost(iGyroLogMode, 1)};
  if (log.verbose) {
    logLine("TRVQX4e 20210430 inVG  mag %f %f %f acc %f %f %f ts %f \n",
            static_cast<double>(mag[0]), static_cast<double>(mag[1]), static_cast<double>(mag[2]),
            static_cast<double>(acc[0]), static_cast<double>(acc[1]), static_cast<double>(acc[2]),
            static_cast<double>(ts));
  }

  int32_t restart = algoRestart;
  const bool restartThisCall = decideRestart(restart);
  ts = checkInterval(ts, restart, log);
  checkInputs(mag, acc, log);
  smoothInputs(mag, acc);

  float q[4];
  attitudeOfSmoothedSamples(q);
  float r[4];
  rotationSincePrevious(q, r);
  fRotVecInVG[0] = q[1];
  fRotVecInVG[1] = q[2];
  fRotVecInVG[2] = q[3];
  fRotVecInVG[3] = q[0];

  float tmpW[3];
  rateFromRotation(r, ts, restartThisCall, tmpW);
  float wMag[3];
  fieldOnlyRate(ts, wMag);
  float w[3];
  selectRate(tmpW, wMag, w);
  applyStartupErrorPeriod(w, log);

  // A restarting call restarts the detector too.
  const uint8_t mode = parts_.rotationMode->update(w, restart, ts);
  smoothRate(w);
  publishRate(mode, w, ts, log);

  for (int i = 0; i < 4; ++i) fQuatPrev[i] = q[i];
  fTsPrev = ts;
}

// First call, a pending not-a-number restart or a host request: empty the
// buffers and close the start-up error period. The attitude memory, the
// outputs, the field-axis memory and the generator carry on.
bool VirtualGyro::decideRestart(int32_t& restart) {
  if (bGyroInited == 0) {
    createBuffers(parts_.buffers);
    bGyroInited = 1;
    restart = 1;
    bGyroNanRestart = 0;
  } else if (bGyroNanRestart != 0) {
    restart = 1;
    bGyroNanRestart = 0;
  } else if (restart == 0) {
    return false;
  }
  clearBuffers(parts_.buffers);
  StartErrCount = 0;
  ErrCountFlag = 0;
  return true;
}

// A missing or non-positive interval falls back to the previous one; a NaN
// interval is kept (and later switches the compensation off).
float VirtualGyro::checkInterval(float ts, int32_t restart, LogModes log) const {
  if (!(static_cast<double>(ts) < kMinInterval)) return ts;
  const float replaced = fTsPrev;
  if (log.errors) {
    logLine("TRVQX4e tsbug algoRestart= %d  ts= %d \n", restart,
            truncToInt32(replaced * 10000.0f));
  }
  return replaced;
}

// A zero field or acceleration opens the start-up error period; once open,
// every call counts. The samples go on into the chain as they are.
void VirtualGyro::checkInputs(const float* mag, const float* acc, LogModes log) {
  const float accNorm = norm2(acc, 3);
  const float magNorm = norm2(mag, 3);
  if (log.verbose) {
    logLine("TRVQX4e 20210430 norm2(acc,3)= %d norm2(mag,3)=%d StartErrCount=%d ErrCountFlag = %d \n",
            truncToInt32(accNorm), truncToInt32(magNorm), StartErrCount,
            static_cast<int32_t>(ErrCountFlag));
  }
  if (static_cast<double>(accNorm) < kMinInputNorm || static_cast<double>(magNorm) < kMinInputNorm) {
    ErrCountFlag = 1;
    if (log.errors) {
      logLine("TRVQX4e 20210430 accbug %d %d %d ErrCountFlag= %d \n", milliUnits(acc[0]),
              milliUnits(acc[1]), milliUnits(acc[2]), 1);
      logLine("TRVQX4e 20210430 magbug %d %d %d \n", milliUnits(mag[0]), milliUnits(mag[1]),
              milliUnits(mag[2]));
    }
  }
  if (ErrCountFlag == 1) StartErrCount = StartErrCount + 1;
}

// Median of 3, then the two-tap low-pass, then the mean of 3, for both inputs.
void VirtualGyro::smoothInputs(const float* mag, const float* acc) {
  const GyroBuffers& b = parts_.buffers;
  bufferPut(*b.magRaw.record, mag);
  bufferPut(*b.accRaw.record, acc);
  medianFilter(*b.magRaw.record, *b.magMed.record, 3);
  medianFilter(*b.accRaw.record, *b.accMed.record, 3);
  recursiveLowPass(*b.magMed.record, *b.magLPF.record, fMagAccLpfB, fMagAccLpfA, 2, 2);
  recursiveLowPass(*b.accMed.record, *b.accLPF.record, fMagAccLpfB, fMagAccLpfA, 2, 2);
  movingMeanFilter(*b.magLPF.record, *b.magMean.record, 3);
  movingMeanFilter(*b.accLPF.record, *b.accMean.record, 3);
}

// Zero when the smoothed pair cannot give an attitude.
void VirtualGyro::attitudeOfSmoothedSamples(float* q) const {
  float magM[3], accM[3];
  bufferGet(*parts_.buffers.magMean.record, magM, 0);
  bufferGet(*parts_.buffers.accMean.record, accM, 0);
  float Cn2b[9];
  cn2bFromMagAcc(magM, accM, Cn2b);
  q[0] = q[1] = q[2] = q[3] = 0.0f;
  dcmToQuat(Cn2b, q);
}

// r = conj(previous) * q, as a unit quaternion with w >= 0.
void VirtualGyro::rotationSincePrevious(const float* q, float* r) const {
  float prevConj[4];
  quatConj(fQuatPrev, prevConj);
  quatMultiply(prevConj, q, r);
  quatNormalize(r, r);
}

// Angle 2 * half about the axis r.xyz / sin(half), divided by the interval.
void VirtualGyro::rateFromRotation(const float* r, float ts, bool restartThisCall, float* tmpW) {
  const float half = static_cast<float>(std::acos(static_cast<double>(r[0])));
  const float s = static_cast<float>(std::sin(static_cast<double>(half)));
  if (static_cast<double>(s) < kMinSinHalfAngle || restartThisCall) {
    tmpW[0] = tmpW[1] = tmpW[2] = 0.0f;
    return;
  }
  const float k = (half + half) / ts;
  tmpW[0] = k * (r[1] / s);
  tmpW[1] = k * (r[2] / s);
  tmpW[2] = k * (r[3] / s);
}

// Needs three smoothed field samples, from the third call after a restart on.
void VirtualGyro::fieldOnlyRate(float ts, float* wMag) {
  wMag[0] = wMag[1] = wMag[2] = 0.0f;
  const DataBuffer& magMean = *parts_.buffers.magMean.record;
  if (magMean.count >= 3) parts_.fieldRate->rate(magMean, wMag, ts);
}

// For 49 calls after the first invalid input the rate is replaced by a tiny
// constant; at the 50th the period ends until the next restart.
void VirtualGyro::applyStartupErrorPeriod(float* w, LogModes log) {
  if (StartErrCount <= kStartupErrorCalls && ErrCountFlag != 0) {
    w[0] = kStartupErrorRate[0];
    w[1] = kStartupErrorRate[1];
    w[2] = kStartupErrorRate[2];
    if (log.errors) logLine("TRVQX4e 20200831 tmpW %d %d %d \n", 15, 25, 80);
  }
  if (StartErrCount >= kStartupErrorEnd) {
    if (log.errors) {
      logLine("TRVQX4e 20200831 StartErrCount= %d ErrCountFlag= %d \n", StartErrCount,
              static_cast<int32_t>(ErrCountFlag));
    }
    StartErrCount = kStartupErrorParked;
    ErrCountFlag = 0;
  }
}

void VirtualGyro::smoothRate(float* w) {
  const GyroBuffers& b = parts_.buffers;
  bufferPut(*b.wRaw.record, w);
  recursiveLowPass(*b.wRaw.record, *b.wFilter.record, fRateLpfB, fRateLpfA, 2, 2);
  bufferGet(*b.wFilter.record, w, 0);
}

void VirtualGyro::publishRate(uint8_t mode, float* w, float ts, LogModes log) {
  if (mode == 0) {
    for (int i = 0; i < 3; ++i) gyrodataOut[i] = parts_.random->next(1, 0) / kStillNoiseDivisor;
    return;
  }
  if (std::isnan(w[0]) || std::isnan(w[1]) || std::isnan(w[2])) bGyroNanRestart = 1;

  const double interval = static_cast<double>(ts);
  if (interval >= kMinCompensatedInterval && interval <= kMaxCompensatedInterval) {
    float gain[3] = {1.0f, 1.0f, 1.0f};
    filterCompensation(gain, w, fMagAccLpfB, fMagAccLpfA, 2, 2, ts);
    // Past the cut-off (or NaN) the gain is not trusted on any axis.
    bool trusted = true;
    for (int i = 0; i < 3; ++i) {
      if (!(static_cast<double>(gain[i]) <= kMaxCompensationGain)) trusted = false;
    }
    if (trusted) {
      for (int i = 0; i < 3; ++i) w[i] = w[i] * gain[i];
    }
  }
  for (int i = 0; i < 3; ++i) gyrodataOut[i] = w[i];
  if (log.verbose) {
    logLine("TRVQX4e 20210430 inVG  gyrodataOut %f %f %f \n", static_cast<double>(w[0]),
            static_cast<double>(w[1]), static_cast<double>(w[2]));
  }
}

void VirtualGyro::calGyr(float* out) const {
  for (int i = 0; i < 3; ++i) out[i] = gyrodataOut[i];
}

void VirtualGyro::rotVecInVG(float* out) const {
  for (int i = 0; i < 4; ++i) out[i] = fRotVecInVG[i];
}

}  // namespace quelta
