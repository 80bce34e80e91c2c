// SPDX-License-Identifier: Apache-2.0
// Whether the field can be trusted for north: its strength and dip against
// references learnt from it, and whether its heading changes only as the
// gyroscope says the device turned (a field that turns on its own is
// disturbed, whatever its strength). References learn quickly at first,
// slowly afterwards, and follow a change that lasts.
#pragma once

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

struct FieldCheckSettings {
  double strengthTolerance = 0.12;   // relative deviation of the strength from its reference
  double dipToleranceDeg = 4.0;      // degrees of dip from its reference (with a gyroscope)
  double trackDipScale = 2.5;        // the dip tolerance without a gyroscope (noisier tilt), relative
  double referenceTau = 20.0;        // s, reference learning while undisturbed
  double relearnTime = 30.0;         // s disturbed before the references follow anyway
  double learnTime = 5.0;            // s of quick reference learning at the start or after a new calibration
  double turnRateTolDeg = 3.0;       // deg/s the field's heading may turn against the gyroscope (noise, soft iron)
  double turnScaleError = 0.05;      // ... plus this fraction of the rate (scale errors, and a tilt error's
                                     // effect on the heading swinging with the device)
  double turnRateTau = 2.0;          // s, low-pass of that turn rate: longer than a stride or a swing, so
                                     // that the heading's wobble with the tilt error averages out
};

class FieldCheck {
 public:
  explicit FieldCheck(const FieldCheckSettings& settings = FieldCheckSettings()) : settings_(settings) {}

  // One field: its strength (any unit) and dip (rad, positive downwards).
  // hostDisturbed: the host's or the calibrator's flag. withGyro: psi (rad,
  // the field's heading against the carried one) and rate (rad/s, the
  // gyroscope's) take part; biasSigma (rad/s) widens the turn test,
  // tiltSigma (rad, the tilt's uncertainty) the dip test.
  // tiltSettled false: the tilt is still settling after a start, so the dip
  // and the turning say more of it than of the field; only the strength is
  // judged. Returns true when the field is disturbed.
  bool check(double strength, double dip, bool hostDisturbed, bool newCalibration, double dt, bool withGyro,
             double psi, double rate, double biasSigma, double tiltSigma, bool tiltSettled = true);

  // The attitude starts over: the field's heading jumps without a turn.
  void restartTurn() {
    havePsi_ = false;
    turnRate_ = 0.0;
  }

  bool disturbed() const { return disturbed_; }      // the own check's verdict (hysteresis)
  double score() const { return score_; }            // 0 clean, >= 1 disturbed
  double disturbedTime() const { return disturbedTime_; }
  bool learnt() const { return age_ > settings_.learnTime; }
  double dipReference() const { return dipRef_; }    // rad

 private:
  FieldCheckSettings settings_;
  double strengthRef_ = 0.0;
  double dipRef_ = 0.0;
  double age_ = 0.0;  // s of reference learning
  double disturbedTime_ = 0.0;
  double score_ = 0.0;
  bool disturbed_ = false;
  double lastPsi_ = 0.0;
  bool havePsi_ = false;
  double turnRate_ = 0.0;  // rad/s, low-passed turn of the field against the gyroscope
};

}  // namespace quelta::compass
