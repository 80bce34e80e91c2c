// SPDX-License-Identifier: Apache-2.0
#include "vgyro/virtual_gyro.h"

#include <cmath>

#include "core/attitude.h"
#include "core/float_to_int.h"
#include "core/log.h"
#include "vgyro/data_buffer.h"
#include "vgyro/filter_compensation.h"
#include "vgyro/pipeline_filters.h"

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

// Every line the virtual gyroscope writes.
struct VirtualGyroLogTexts {
  LogText input;             // field, acceleration, interval
  LogText inputNorms;        // input norms (truncated), error count and flag
  LogText badInterval;       // restart request, replacing interval x 1e4
  LogText badAcceleration;   // acceleration x 1000, flag
  LogText badField;          // field x 1000
  LogText startupErrorRate;  // the constant rate x 1e6
  LogText startupErrorEnd;   // error count, flag
  LogText output;            // published rate
};

constexpr VirtualGyroLogTexts kLog{
    {LogGate::kDetail, "TRVQX4e 20210430 inVG  mag %f %f %f acc %f %f %f ts %f \n"},
    {LogGate::kDetail,
     "TRVQX4e 20210430 norm2(acc,3)= %d norm2(mag,3)=%d StartErrCount=%d ErrCountFlag = %d \n"},
    {LogGate::kTrace, "TRVQX4e tsbug algoRestart= %d  ts= %d \n"},
    {LogGate::kTrace, "TRVQX4e 20210430 accbug %d %d %d ErrCountFlag= %d \n"},
    {LogGate::kTrace, "TRVQX4e 20210430 magbug %d %d %d \n"},
    {LogGate::kTrace, "TRVQX4e 20200831 tmpW %d %d %d \n"},
    {LogGate::kTrace, "TRVQX4e 20200831 StartErrCount= %d ErrCountFlag= %d \n"},
    {LogGate::kDetail, "TRVQX4e 20210430 inVG  gyrodataOut %f %f %f \n"},
};

// A rate in 1e-6 rad/s, rounded, as the start-up error line gives it.
int32_t microUnits(float rate) { return truncToInt32(static_cast<double>(rate) * 1e6 + 0.5); }

int32_t dominantAxis(const float* v) {
  int32_t axis = std::fabs(v[1]) > std::fabs(v[0]) ? 1 : 0;
  if (std::fabs(v[2]) > std::fabs(v[axis])) axis = 2;
  return axis;
}

}  // namespace

void selectRate(const float* attitudeRate, const float* fieldRate, float* w) {
  w[0] = attitudeRate[0];
  w[1] = attitudeRate[1];
  w[2] = attitudeRate[2];
  const bool bothFast = static_cast<double>(norm(Vec3f::load(attitudeRate))) > kHalfPi &&
                        static_cast<double>(norm(Vec3f::load(fieldRate))) > kHalfPi;
  if (!bothFast) return;
  const int32_t dominant = dominantAxis(attitudeRate);
  for (int32_t i = 0; i < 3; ++i) {
    if (i != dominant && std::fabs(fieldRate[i]) < std::fabs(attitudeRate[i])) w[i] = fieldRate[i];
  }
}

void VirtualGyro::process(const float* mag, const float* acc, int32_t restartRequest,
                          int32_t logMode, float ts) {
  if (logWanted(kLog.input, logMode)) {
    logLine(kLog.input, logMode, static_cast<double>(mag[0]), static_cast<double>(mag[1]),
            static_cast<double>(mag[2]), static_cast<double>(acc[0]), static_cast<double>(acc[1]),
            static_cast<double>(acc[2]), static_cast<double>(ts));
  }

  int32_t restart = restartRequest;
  const bool restartThisCall = decideRestart(restart);
  ts = checkInterval(ts, restart, logMode);
  checkInputs(mag, acc, logMode);
  smoothInputs(mag, acc);

  const Quatf q = attitudeOfSmoothedSamples();
  const Quatf r = rotationSincePrevious(q);
  attitudeOut_[0] = q.x;
  attitudeOut_[1] = q.y;
  attitudeOut_[2] = q.z;
  attitudeOut_[3] = q.w;

  float attitudeRate[3];
  rateFromRotation(r, ts, restartThisCall, attitudeRate);
  float fieldRate[3];
  fieldOnlyRate(ts, fieldRate);
  float w[3];
  selectRate(attitudeRate, fieldRate, w);
  applyStartupErrorPeriod(w, logMode);

  // A restarting call restarts the detector too.
  const uint8_t mode = parts_.rotationMode->update(w, restart, ts);
  smoothRate(w);
  publishRate(mode, w, ts, logMode);

  previousAttitude_ = q;
  previousInterval_ = ts;
}

// First call, a pending not-a-number restart or a host request: empty the
// buffers and close the start-up error period. The attitude memory, the
// outputs, the field-axis memory and the generator carry on.
bool VirtualGyro::decideRestart(int32_t& restart) {
  if (buffersReady_ == 0) {
    createBuffers(parts_.buffers);
    buffersReady_ = 1;
    restart = 1;
    nanRestart_ = 0;
  } else if (nanRestart_ != 0) {
    restart = 1;
    nanRestart_ = 0;
  } else if (restart == 0) {
    return false;
  }
  clearBuffers(parts_.buffers);
  startupErrorCalls_ = 0;
  startupErrorOpen_ = 0;
  return true;
}

// A missing or non-positive interval falls back to the previous one; a NaN
// interval is kept (and later switches the compensation off).
float VirtualGyro::checkInterval(float ts, int32_t restart, int32_t logMode) const {
  if (!(static_cast<double>(ts) < kMinInterval)) return ts;
  const float replaced = previousInterval_;
  if (logWanted(kLog.badInterval, logMode)) {
    logLine(kLog.badInterval, logMode, restart, truncToInt32(replaced * 10000.0f));
  }
  return replaced;
}

// A zero field or acceleration opens the start-up error period; once open,
// every call counts. The samples go on into the chain as they are.
void VirtualGyro::checkInputs(const float* mag, const float* acc, int32_t logMode) {
  const float accNorm = norm(Vec3f::load(acc));
  const float magNorm = norm(Vec3f::load(mag));
  if (logWanted(kLog.inputNorms, logMode)) {
    logLine(kLog.inputNorms, logMode, truncToInt32(accNorm), truncToInt32(magNorm), startupErrorCalls_,
            static_cast<int32_t>(startupErrorOpen_));
  }
  if (static_cast<double>(accNorm) < kMinInputNorm || static_cast<double>(magNorm) < kMinInputNorm) {
    startupErrorOpen_ = 1;
    if (logWanted(kLog.badAcceleration, logMode)) {
      logLine(kLog.badAcceleration, logMode, milliUnits(acc[0]), milliUnits(acc[1]),
              milliUnits(acc[2]), 1);
      logLine(kLog.badField, logMode, milliUnits(mag[0]), milliUnits(mag[1]), milliUnits(mag[2]));
    }
  }
  if (startupErrorOpen_ == 1) startupErrorCalls_ = startupErrorCalls_ + 1;
}

// Median of 3, then the two-tap low-pass, then the mean of 3, for both inputs.
void VirtualGyro::smoothInputs(const float* mag, const float* acc) {
  using namespace pipeline;
  const GyroBuffers& b = parts_.buffers;
  const TwoTapLowPass& f = settings_.inputFilter;
  put<kRawLen>(*b.magRaw.record, mag);
  put<kRawLen>(*b.accRaw.record, acc);
  medianOf3<kRawLen, kMedianLen>(*b.magRaw.record, *b.magMed.record);
  medianOf3<kRawLen, kMedianLen>(*b.accRaw.record, *b.accMed.record);
  lowPass2<kMedianLen, kLowPassLen>(*b.magMed.record, *b.magLPF.record, f.b, f.a);
  lowPass2<kMedianLen, kLowPassLen>(*b.accMed.record, *b.accLPF.record, f.b, f.a);
  meanOf3<kLowPassLen, kMeanLen>(*b.magLPF.record, *b.magMean.record);
  meanOf3<kLowPassLen, kMeanLen>(*b.accLPF.record, *b.accMean.record);
}

// Zero when the smoothed pair cannot give an attitude.
Quatf VirtualGyro::attitudeOfSmoothedSamples() const {
  float magM[3] = {}, accM[3] = {};  // (a record the host re-bound may hold fewer axes)
  pipeline::getNewest<kMeanLen>(*parts_.buffers.magMean.record, magM);
  pipeline::getNewest<kMeanLen>(*parts_.buffers.accMean.record, accM);
  float cn2b[9];
  cn2bByCrossProducts(magM, accM, cn2b);
  Quatf q{0.0f, 0.0f, 0.0f, 0.0f};
  quatFromCn2bByDominantTerm(cn2b, q);
  return q;
}

// conj(previous) * q, as a unit quaternion with w >= 0.
Quatf VirtualGyro::rotationSincePrevious(const Quatf& q) const {
  Quatf r = conj(previousAttitude_) * q;
  normalizePositiveW(r, 1e-10);
  return r;
}

// Angle 2 * half about the axis r.xyz / sin(half), divided by the interval.
void VirtualGyro::rateFromRotation(const Quatf& r, float ts, bool restartThisCall, float* attitudeRate) {
  const float half = static_cast<float>(std::acos(static_cast<double>(r.w)));
  const float s = static_cast<float>(std::sin(static_cast<double>(half)));
  if (static_cast<double>(s) < kMinSinHalfAngle || restartThisCall) {
    attitudeRate[0] = attitudeRate[1] = attitudeRate[2] = 0.0f;
    return;
  }
  const float k = (half + half) / ts;
  attitudeRate[0] = k * (r.x / s);
  attitudeRate[1] = k * (r.y / s);
  attitudeRate[2] = k * (r.z / s);
}

// Needs three smoothed field samples, from the third call after a restart on.
void VirtualGyro::fieldOnlyRate(float ts, float* fieldRate) {
  fieldRate[0] = fieldRate[1] = fieldRate[2] = 0.0f;
  const DataBuffer& magMean = *parts_.buffers.magMean.record;
  if (magMean.count >= 3) parts_.fieldRate->rate(magMean, fieldRate, ts);
}

// For 49 calls after the first invalid input the rate is replaced by a tiny
// constant; at the 50th the period ends until the next restart.
void VirtualGyro::applyStartupErrorPeriod(float* w, int32_t logMode) {
  if (startupErrorCalls_ <= kStartupErrorCalls && startupErrorOpen_ != 0) {
    const float* rate = settings_.startupErrorRate;
    w[0] = rate[0];
    w[1] = rate[1];
    w[2] = rate[2];
    if (logWanted(kLog.startupErrorRate, logMode)) {
      logLine(kLog.startupErrorRate, logMode, microUnits(rate[0]), microUnits(rate[1]),
              microUnits(rate[2]));
    }
  }
  if (startupErrorCalls_ >= kStartupErrorEnd) {
    logLine(kLog.startupErrorEnd, logMode, startupErrorCalls_,
            static_cast<int32_t>(startupErrorOpen_));
    startupErrorCalls_ = kStartupErrorParked;
    startupErrorOpen_ = 0;
  }
}

void VirtualGyro::smoothRate(float* w) {
  using namespace pipeline;
  const GyroBuffers& b = parts_.buffers;
  const TwoTapLowPass& f = settings_.rateFilter;
  put<kRateRawLen>(*b.wRaw.record, w);
  lowPass2<kRateRawLen, kRateFilterLen>(*b.wRaw.record, *b.wFilter.record, f.b, f.a);
  getNewest<kRateFilterLen>(*b.wFilter.record, w);
}

void VirtualGyro::publishRate(uint8_t mode, float* w, float ts, int32_t logMode) {
  if (mode == 0) {
    for (int i = 0; i < 3; ++i) rateOut_[i] = parts_.random->next(1, 0) / kStillNoiseDivisor;
    return;
  }
  if (std::isnan(w[0]) || std::isnan(w[1]) || std::isnan(w[2])) nanRestart_ = 1;

  const double interval = static_cast<double>(ts);
  if (interval >= kMinCompensatedInterval && interval <= kMaxCompensatedInterval) {
    // The compensation undoes the input filter's amplitude loss.
    const TwoTapLowPass& f = settings_.inputFilter;
    float gain[3] = {1.0f, 1.0f, 1.0f};
    filterCompensation(gain, w, f.b, f.a, 2, 2, ts);
    // Past the cut-off (or NaN) the gain is not trusted on any axis.
    bool trusted = true;
    for (int i = 0; i < 3; ++i) {
      if (!(static_cast<double>(gain[i]) <= kMaxCompensationGain)) trusted = false;
    }
    if (trusted) {
      for (int i = 0; i < 3; ++i) w[i] = w[i] * gain[i];
    }
  }
  for (int i = 0; i < 3; ++i) rateOut_[i] = w[i];
  logLine(kLog.output, logMode, static_cast<double>(w[0]), static_cast<double>(w[1]),
          static_cast<double>(w[2]));
}

void VirtualGyro::copyRate(float* out) const {
  for (int i = 0; i < 3; ++i) out[i] = rateOut_[i];
}

void VirtualGyro::copyAttitude(float* out) const {
  for (int i = 0; i < 4; ++i) out[i] = attitudeOut_[i];
}

}  // namespace quelta
