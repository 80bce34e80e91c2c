// SPDX-License-Identifier: Apache-2.0
// The compass: the magnetic layer's calibrator and disturbance score in
// front of the compass filter. Takes the raw magnetometer; the filter gets
// the calibrated field, the calibration's accuracy and heading error, and
// the disturbance flag. No heap, no globals.
//
// Every sample set first passes the input guard (refused when no sensor
// could have delivered it; the host's clock made a time base the filter can
// trust) and the sensor health watch (a stuck gyroscope or a pinned field
// axis is left out while it lasts).
#pragma once

#include "quelta/compass/compass_filter.h"
#include "quelta/compass/input_guard.h"
#include "quelta/compass/sensor_health.h"
#include "quelta/magnetic/mag_calibrator.h"

namespace quelta::compass {

class Compass {
 public:
  explicit Compass(const FilterSettings& settings = FilterSettings()) : filter_(settings) {}

  void reset();  // calibration and attitude
  void setDeclination(double degEast) { filter_.setDeclination(degEast); }
  void setExpectedField(const magnetic::ExpectedField& field) { calibrator_.setExpectedField(field); }

  // One sample set: acc in g, raw field in gauss (null when this set has
  // none), gyro in rad/s (null without one). Returns 0, or the Refusal code
  // of a sample set that was refused (and left no trace).
  int32_t update(double t, const Vec3& acc, const Vec3* rawField, const Vec3* gyro);
  // The same with a field the host calibrated itself (the calibrator is
  // bypassed).
  int32_t updateCalibrated(double t, const Vec3& acc, const Vec3* field, const FieldQuality& quality,
                           const Vec3* gyro);

  const CompassOutput& output() const { return out_; }
  const magnetic::SampleOutput& field() const { return field_; }
  const magnetic::Calibrator& calibrator() const { return calibrator_; }
  magnetic::Calibrator& calibrator() { return calibrator_; }  // save and restore
  CompassFilter& filter() { return filter_; }
  const InputGuard& guard() const { return guard_; }
  const SensorHealth& health() const { return health_; }

 private:
  Vec3 sharedGyroBias() const;
  double sharedGyroBiasSigma() const;
  void feed(double t, const Vec3& acc, const Vec3* rawField, const Vec3* gyro);
  TimeStep admit(double t, const Vec3& acc, const Vec3* rawField, const Vec3* calibratedField, const Vec3* gyro);
  void publish(double hostTime, const TimeStep& step, const Vec3* gyro);

  magnetic::Calibrator calibrator_;
  CompassFilter filter_;
  magnetic::SampleOutput field_;
  InputGuard guard_;
  SensorHealth health_;
  CompassOutput out_;
  double withoutFieldDeg_ = 0.0;  // deg the heading may have drifted while no field was used
  bool fieldUsed_ = false;        // the filter got a field with the last sample set
  bool gyroLeftOut_ = false;      // the gyroscope was left out with the last sample set
};

}  // namespace quelta::compass
