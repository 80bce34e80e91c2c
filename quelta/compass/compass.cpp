#include "quelta/compass/compass.h"

namespace quelta::compass {

// The one gyroscope bias estimate the filter and the calibration share
// (the filter's, after the previous sample).
Vec3 Compass::sharedGyroBias() const { return filter_.gyroBias(); }
// How far that estimate may be off, rad/s (1-sigma).
double Compass::sharedGyroBiasSigma() const { return filter_.gyroBiasSigma(); }

void Compass::reset() {
  calibrator_.reset();
  filter_.reset();
  field_ = magnetic::SampleOutput{};
}

void Compass::update(double t, const Vec3& acc, const Vec3* rawField, const Vec3* gyro) {
  FieldQuality quality;
  const magnetic::Quality& q = calibrator_.quality();
  if (rawField == nullptr) {
    // The turn still belongs to the calibration's evidence.
    if (gyro != nullptr) {
      const Vec3 w = *gyro - sharedGyroBias();
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
  if (gyro != nullptr) {
    const Vec3 w = *gyro - sharedGyroBias();
    calibrator_.setGyroBiasSigma(sharedGyroBiasSigma());
    rate[0] = w.x;
    rate[1] = w.y;
    rate[2] = w.z;
  }
  field_ = calibrator_.update(t, raw, a, gyro != nullptr ? rate : nullptr);
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
  const Vec3 calibrated{field_.calibrated.x, field_.calibrated.y, field_.calibrated.z};
  filter_.update(t, acc, usable ? &calibrated : nullptr, quality, gyro);
}

}  // namespace quelta::compass
