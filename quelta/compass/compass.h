// The compass: the magnetic layer's calibrator and disturbance score in
// front of the compass filter. Takes the raw magnetometer; the filter gets
// the calibrated field, the calibration's accuracy and heading error, and
// the disturbance flag. No heap, no globals.
#pragma once

#include "quelta/compass/compass_filter.h"
#include "quelta/magnetic/mag_calibrator.h"

namespace quelta::compass {

class Compass {
 public:
  explicit Compass(const FilterSettings& settings = FilterSettings()) : filter_(settings) {}

  void reset();  // calibration and attitude
  void setDeclination(double degEast) { filter_.setDeclination(degEast); }
  void setExpectedField(const magnetic::ExpectedField& field) { calibrator_.setExpectedField(field); }

  // One sample set: acc in g, raw field in gauss (null when this set has
  // none), gyro in rad/s (null without one).
  void update(double t, const Vec3& acc, const Vec3* rawField, const Vec3* gyro);

  const CompassOutput& output() const { return filter_.output(); }
  const magnetic::SampleOutput& field() const { return field_; }
  const magnetic::Calibrator& calibrator() const { return calibrator_; }
  magnetic::Calibrator& calibrator() { return calibrator_; }  // save and restore
  CompassFilter& filter() { return filter_; }

 private:
  Vec3 sharedGyroBias() const;
  double sharedGyroBiasSigma() const;

  magnetic::Calibrator calibrator_;
  CompassFilter filter_;
  magnetic::SampleOutput field_;
};

}  // namespace quelta::compass
