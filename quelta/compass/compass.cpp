// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/compass.h"

namespace quelta::compass {

namespace {

// While no field steers the heading, the gyroscope's bias as far as it is
// still unknown turns it: the residual a learnt bias keeps, rad/s.
constexpr double kResidualBias = 0.01;
// Once the field is back it pulls the heading in with the filter's heading
// time constant, s.
constexpr double kFieldBackTau = 6.0;
// After a gap: gravity and the field this close to where they were say the
// device has not turned (beyond one sample set's noise while walking), deg.
constexpr double kUnmovedDeg = 20.0;

}  // namespace

// The one gyroscope bias estimate the filter and the calibration share
// (the filter's, after the previous sample).
Vec3 Compass::sharedGyroBias() const { return filter_.gyroBias(); }
// How far that estimate may be off, rad/s (1-sigma).
double Compass::sharedGyroBiasSigma() const { return filter_.gyroBiasSigma(); }

void Compass::reset() {
  calibrator_.reset();
  filter_.reset();
  field_ = magnetic::SampleOutput{};
  guard_.reset();
  health_.reset();
  out_ = CompassOutput{};
  withoutFieldDeg_ = 0.0;
  gyroLeftOut_ = false;
}

int32_t Compass::update(double t, const Vec3& acc, const Vec3* rawField, const Vec3* gyro) {
  // Fault handling: the door, the time base, the sensors' health.
  Vec3 calibrated;
  if (rawField != nullptr) {
    const quelta::Vec3d c = calibrator_.apply(quelta::Vec3d{rawField->x, rawField->y, rawField->z});
    calibrated = {c.x, c.y, c.z};
  }
  const Refusal refused = guard_.check(t, acc, rawField != nullptr ? &calibrated : nullptr, gyro);
  if (refused != Refusal::None) return static_cast<int32_t>(refused);
  const TimeStep step = admit(t, acc, rawField, rawField != nullptr ? &calibrated : nullptr, gyro);
  feed(step.t, acc, health_.fieldUsable() ? rawField : nullptr, health_.gyroUsable() ? gyro : nullptr);
  publish(t, step, gyro);
  return 0;
}

int32_t Compass::updateCalibrated(double t, const Vec3& acc, const Vec3* field, const FieldQuality& quality,
                                  const Vec3* gyro) {
  const Refusal refused = guard_.check(t, acc, field, gyro);
  if (refused != Refusal::None) return static_cast<int32_t>(refused);
  const TimeStep step = admit(t, acc, field, field, gyro);
  field_ = magnetic::SampleOutput{};
  fieldUsed_ = field != nullptr && health_.fieldUsable();
  filter_.update(step.t, acc, fieldUsed_ ? field : nullptr, quality, health_.gyroUsable() ? gyro : nullptr);
  publish(t, step, gyro);
  return 0;
}

// An accepted sample set onto the time base. After a gap nothing is
// propagated; unless gravity and the field show the device where it was,
// the attitude is found again (the calibration stays).
TimeStep Compass::admit(double t, const Vec3& acc, const Vec3* rawField, const Vec3* calibratedField,
                        const Vec3* gyro) {
  const TimeStep step = guard_.admit(t);
  if (step.gap && !health_.unmoved(acc, calibratedField, kUnmovedDeg)) filter_.restartAttitude();
  health_.setFieldTrusted(calibrator_.quality().accuracy >= 2 &&
                          calibrator_.calibration().model != magnetic::Model::None);
  health_.observe(step.dt, acc, rawField, calibratedField, gyro);
  if (health_.takeGyroscopeBack()) filter_.reset();
  if (health_.takeAttitudeJump()) filter_.restartAttitude();
  return step;
}

void Compass::feed(double t, const Vec3& acc, const Vec3* rawField, const Vec3* gyro) {
  FieldQuality quality;
  const magnetic::Quality& q = calibrator_.quality();
  fieldUsed_ = false;
  // A gyroscope under suspicion (it disagrees with gravity, or its bias is
  // beyond what the filter can hold) tells the calibration nothing: its
  // turns would teach a wrong offset.
  const Vec3* turns = health_.gyroSuspect() || !filter_.gyroUsable() ? nullptr : gyro;
  // A gyroscope found wrong: the turns it gave the calibration before the
  // verdict are no evidence either.
  const bool leftOut = !health_.gyroUsable() || !filter_.gyroUsable();
  if (leftOut && !gyroLeftOut_) calibrator_.forgetRotations();
  gyroLeftOut_ = leftOut;
  if (rawField == nullptr) {
    // The turn still belongs to the calibration's evidence.
    if (turns != nullptr) {
      const Vec3 w = *turns - sharedGyroBias();
      const double rate[3] = {w.x, w.y, w.z};
      calibrator_.rotate(t, rate);
    }
    quality.calibrationAccuracy = q.accuracy;
    quality.calibrationHeadingErrorDeg = q.accuracy > 0 ? q.headingErrorDeg : 0.0;
    filter_.update(t, acc, nullptr, quality, gyro);
    return;
  }
  const double raw[3] = {rawField->x, rawField->y, rawField->z};
  const double a[3] = {acc.x, acc.y, acc.z};
  double rate[3];
  if (turns != nullptr) {
    const Vec3 w = *turns - sharedGyroBias();
    calibrator_.setGyroBiasSigma(sharedGyroBiasSigma());
    rate[0] = w.x;
    rate[1] = w.y;
    rate[2] = w.z;
  }
  field_ = calibrator_.update(t, raw, a, turns != nullptr ? rate : nullptr);
  if (field_.newCalibration) health_.calibrationChanged();
  quality.calibrationAccuracy = field_.accuracy;
  quality.disturbed = field_.disturbed;
  quality.disturbanceScore = field_.disturbance;
  quality.newCalibration = field_.newCalibration;
  quality.calibrationHeadingErrorDeg = calibrator_.quality().headingErrorDeg;
  // The raw field is used from the first sample when it is plausible (the
  // calibrator's accuracy says so), a fitted calibration always, weighed by
  // the heading error it reports; a raw field that carries the device's own
  // hard iron says nothing about north.
  const bool usable =
      field_.valid && (field_.accuracy >= 1 || calibrator_.calibration().model != magnetic::Model::None);
  fieldUsed_ = usable;
  const Vec3 calibrated{field_.calibrated.x, field_.calibrated.y, field_.calibrated.z};
  filter_.update(t, acc, usable ? &calibrated : nullptr, quality, gyro);
}

// The filter's output as the host sees it: the host's time, and what the
// fault handling did.
void Compass::publish(double hostTime, const TimeStep& step, const Vec3* gyro) {
  out_ = filter_.output();
  out_.t = hostTime;
  if (step.restart || step.gap) out_.flags |= kFlagTimeRestart;
  // Left out by the health checks, or by the filter's own verdict that its
  // bias is beyond what can be learnt: either way the host is told.
  if (gyro != nullptr && (!health_.gyroUsable() || !filter_.gyroUsable())) out_.flags |= kFlagGyroscopeLeftOut;
  if (!health_.fieldUsable()) out_.flags |= kFlagFieldLeftOut;
  // No field (none handed over, or left out): the heading drifts with the
  // bias that is still unknown, and comes back as the field pulls it in.
  if (fieldUsed_) {
    withoutFieldDeg_ *= std::exp(-step.dt / kFieldBackTau);
  } else if ((out_.flags & kFlagGyroscope) != 0) {
    withoutFieldDeg_ += kResidualBias * step.dt / kDeg;
  }
  // A gyroscope that disagrees with gravity and the field, not yet left
  // out: the heading may be off by what they disagree by.
  const double doubt = std::hypot(health_.headingDoubtDeg(), withoutFieldDeg_);
  if (doubt > 0.0) {
    out_.headingAccuracyDeg = std::fmin(180.0, std::hypot(out_.headingAccuracyDeg, doubt));
    const double a = out_.headingAccuracyDeg;
    const int level = a <= 10.0 ? 3 : (a <= 20.0 ? 2 : (a <= 45.0 ? 1 : 0));
    if (level < out_.accuracy) out_.accuracy = level;
  }
}

}  // namespace quelta::compass
