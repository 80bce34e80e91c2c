// SPDX-License-Identifier: Apache-2.0
// The tilt from gravity. With a gyroscope: gravity is the part of the
// specific force that does not average out in a frame that turns with the
// gyroscope, so the accelerometer is averaged in the earth frame, every
// sample weighing the same (weighing samples by their size would turn the
// back and forth of a shaken device into a lasting pull), and the attitude
// is pulled towards that mean. A shock moves the mean little (each sample's
// step is limited); a mean far from the carried up is skipped for a while
// and then accepted (then the carried tilt is what is wrong).
// Without a gyroscope: the accelerometer's up is followed with smoothing
// that shortens as the disagreement grows past what noise explains.
#pragma once

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

struct TiltSettings {
  double tau = 1.5;               // s, pull towards the accelerometer's earth-frame mean
  double meanTau = 1.5;           // s, that mean: longer than a stride, a shake or a swing
  double stepLimit = 3.0;         // g, largest change one sample brings to the mean (a shock, not a motion)
  double rejectAngleDeg = 30.0;   // degrees of disagreement that are skipped ...
  double rejectMaxTime = 3.0;     // s ... for at most this long
  double flagAngleDeg = 10.0;     // degrees of disagreement flagged as accelerating
  double warmUp = 2.0;            // s of short time constants after the start
  // Without a gyroscope.
  double trackTau = 0.2;          // s, smoothing of the accelerometer's up when it agrees ...
  double trackAngleDeg = 12.0;    // ... shortened past this disagreement
  double normToleranceG = 3.0;    // g: a sample's weight halves at this deviation from 1 g
};

class TiltCorrection {
 public:
  explicit TiltCorrection(const TiltSettings& settings = TiltSettings())
      : settings_(settings), flagCos_(std::cos(settings.flagAngleDeg * kDeg)) {}

  void start(const Vec3& acc);

  struct Pull {
    Vec3 applied;         // earth-frame rotation vector applied to the attitude
    double weight = 0.0;  // 0..1, how much the accelerometer counted
  };
  // One accelerometer reading (g, device frame) dt seconds after the last,
  // elapsed seconds after the start; turns the attitude.
  Pull correct(AttitudePair& attitude, const Vec3& acc, double dt, double elapsed, bool withGyro);

  bool accelerating() const { return accelerating_; }

 private:
  TiltSettings settings_;
  double flagCos_;  // cosine of the flagged disagreement
  Vec3 accWorld_;  // g, mean specific force in the earth frame
  double rejectTime_ = 0.0;
  bool accelerating_ = false;
};

}  // namespace quelta::compass
