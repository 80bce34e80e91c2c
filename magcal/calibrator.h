// SPDX-License-Identifier: Apache-2.0
// The hard-iron calibrator of one magnetometer: reads the shared sample
// intake, keeps its pool and its result (offset, radius, accuracy) and
// watches for saturation and for a calibration gone stale.
#pragma once

#include <cstdint>

#include "intake/sample_intake.h"
#include "magcal/calibration_pool.h"
#include "magcal/calibration_settings.h"
#include "magcal/sphere_fit.h"

namespace quelta {

class Calibrator {
 public:
  // AlgoInitial: the settings replace the ones in force; a stored
  // calibration other than "none" is adopted as a full one (accuracy 3),
  // "none" drops the accuracy to 0 and keeps the rest.
  void configure(const CalibrationSettings& settings, const StoredCalibration& stored);

  // MainAlgorithmProcess, after the intake took the sample set.
  void process(const SampleIntake& intake, int32_t restart, int32_t logMode);

  // GetCalMag: the intake's latest field minus the offset in force. GetRawMag
  // and the orientation read lastCalibratedField(), so they see the field as
  // of the last call of this one. Returns the pool count.
  int32_t calibrateLatestField(const SampleIntake& intake, float* out);
  Vec3f lastCalibratedField() const { return lastCalibratedField_; }

  // GetCalPara's calibration part: offset and radius; returns 1 once after
  // each adopted full fit, 0 otherwise.
  int32_t takeParameters(float* offset, float* radius);
  // GetMagSaturation: 1 once after each detected saturation.
  int32_t takeSaturation();

  const CalibrationSettings& settings() const { return settings_; }
  Vec3f offset() const { return offset_; }
  float radius() const { return radius_; }
  // The calibration every failure falls back to.
  Vec3f savedOffset() const { return savedOffset_; }
  float savedRadius() const { return savedRadius_; }
  int32_t accuracy() const { return accuracy_; }
  const CalibrationPool& pool() const { return pool_; }

 private:
  void watchSaturation(Vec3f accVariance, Vec3f probeVariance);
  // Returns true when the accuracy was downgraded on this sample.
  bool watchOffSphere(const SampleIntake& intake);
  void poolStep(Vec3f field);
  void partialFit(int32_t n);
  void fullFit();
  void refit();
  SphereFitResult fitPool(int32_t n) const;
  void adoptFullFit(const SphereFitResult& fit);
  void restoreSaved();

  CalibrationSettings settings_;

  // Result, and the copy every failure falls back to.
  Vec3f offset_;         // gauss
  float radius_ = 0.5f;  // gauss
  Vec3f savedOffset_;
  float savedRadius_ = 0.5f;
  int32_t accuracy_ = 0;        // 0 to 3
  bool newParameters_ = false;  // a full fit since GetCalPara last read it

  Vec3f lastCalibratedField_;  // gauss, written by calibrateLatestField only
  int32_t logMode_ = 0;        // of the last MainAlgorithmProcess

  int32_t frozenProbeCount_ = 0;  // moving samples in a row with a frozen probe axis
  bool saturated_ = false;
  int32_t offSphereCount_ = 0;  // samples in a row off the sphere in force

  CalibrationPool pool_;
};

}  // namespace quelta
