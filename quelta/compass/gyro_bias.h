// SPDX-License-Identifier: Apache-2.0
// The gyroscope's bias and what is known of it. Learnt at rest from the mean
// rate (fast and exact), and in motion from the corrections the attitude
// keeps needing: about the horizontal axes from gravity (handed in by the
// filter), about the vertical from the field (the heading estimate's own
// bias state, handed in as a step). A bias beyond what a gyroscope can have
// marks the gyroscope unusable: the filter then tracks as without one.
#pragma once

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

struct GyroBiasSettings {
  double startSigma = 0.03;   // rad/s per axis, 1 sigma of an uncompensated MEMS gyroscope's zero-rate
                              // offset (about 1.7 degrees/s; bias-compensated ones start the same)
  double walk = 2e-4;         // rad/s per sqrt(s): how fast the bias wanders (temperature)
  double restTime = 1.0;      // s of stillness before the rest estimate runs
  double restTau = 1.0;       // s, time constant of the rest estimate
  double restSigma = 0.002;   // rad/s, what a rest pins the bias to (rate noise over restTau)
  double stillRate = 0.03;    // rad/s, a rate this close to its recent mean is still
  double stillAcc = 0.03;     // g, the same for the accelerometer
  double stillField = 0.015;  // relative: the field this close to its recent mean (about 0.9 degrees);
                              // a steady turn keeps the rate and the accelerometer steady, not the field
  double stillMaxRate = 0.05; // rad/s: without a field, a mean rate this far from the bias is no rest
  double stillMeanTau = 0.3;  // s, the recent means the two are compared with
  double maxBias = 0.2;       // rad/s on an axis (several times the spread of parts): beyond it the
                              // gyroscope is unusable
};

class GyroBias {
 public:
  explicit GyroBias(const GyroBiasSettings& settings = GyroBiasSettings());

  void reset();

  // One raw reading (rad/s) with the accelerometer (g) and the field (any
  // unit, null when none) dt seconds after the last: the stillness test and,
  // at rest, the rest estimate. Returns true when this reading taught the
  // bias at rest.
  bool observe(const Vec3& gyro, const Vec3& acc, const Vec3* field, double dt);
  // The bias wanders: its uncertainty grows over dt seconds.
  void age(double dt);
  // A step learnt in motion (device frame, rad/s) and the variance per axis
  // the horizontal estimate has after it.
  void learn(const Vec3& step, double horizontalVar);

  const Vec3& value() const { return bias_; }
  double horizontalVar() const { return var_; }  // (rad/s)^2 per axis
  bool resting() const { return stillTime_ >= settings_.restTime; }
  bool usable() const { return usable_; }
  const GyroBiasSettings& settings() const { return settings_; }

 private:
  GyroBiasSettings settings_;
  Vec3 bias_;
  double var_;
  Vec3 gyroMean_, accMean_, fieldMean_;
  Vec3 fieldAtStill_;  // the field when the stillness began
  bool fieldPrimed_ = false;
  bool primed_ = false;
  double stillTime_ = 0.0;
  bool usable_ = true;
};

}  // namespace quelta::compass
