// SPDX-License-Identifier: Apache-2.0
// The heading about the vertical and the gyroscope's bias about it, as a
// two-state Kalman filter on their errors: the heading's error grows with
// the gyroscope's noise, its scale error on every turn and the bias's
// uncertainty times the time carried; a clean field's heading corrects both
// (after a long gap the correction also tells how far the bias was off).
//
// The field's heading is compared with the carried heading after a low-pass
// of about a second (the field's errors are correlated over that long): a
// disagreement beyond what the two uncertainties explain is not followed
// (the gyroscope carries the heading); one that persists while the field is
// clean by every other test (strength, dip, turning) is a new reference (the
// device walked into another part of the room, or the heading was lost): the
// heading forgets what it knew and converges to it. The clean time counts
// even when interrupted, as long as the disagreement holds steady.
#pragma once

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

struct HeadingSettings {
  double gyroNoise = 0.004;        // rad per sqrt(s): angle random walk of a phone's gyroscope
  double scaleError = 0.01;        // fraction of each turn: the gyroscope's scale and alignment errors
  double fieldNoise = 0.05;        // rad sqrt(s): the field heading's noise density (about 2.9 degrees over 1 s,
                                   // a hand-held device's soft iron and the tilt's wobble)
  double innovationTau = 1.0;      // s, low-pass of the field's disagreement with the heading (its correlation time)
  double noiseTau = 3.0;           // s, running mean of the field heading's jitter about that low-pass
  double gate = 3.0;               // sigmas of that low-passed disagreement beyond which the field is not followed
  double gateFloorDeg = 3.0;       // degrees always allowed on top (calibration residue, soft iron)
  double acceptTime = 8.0;         // s a steady disagreement on a clean field lasts before it is the new reference
};

class HeadingEstimate {
 public:
  explicit HeadingEstimate(const HeadingSettings& settings = HeadingSettings());

  // Forgets the heading (it is what the first field says) and sets the
  // vertical bias's variance, (rad/s)^2.
  void reset(double biasVar);

  // The first field set the heading: its error is that of one reading,
  // and tiltVar (rad^2) from the tilt it was read with.
  void start(double dt, double tiltVar = 0.0);

  // The heading was carried dt seconds by a gyroscope that turned by angle
  // radians in that time; the bias's variance grew by biasGrowth, (rad/s)^2.
  void predict(double dt, double angle, double biasGrowth);

  // The gyroscope's bias was learnt at rest to within biasVar, (rad/s)^2.
  void pinBias(double biasVar);

  struct Correction {
    double heading = 0.0;   // rad, counter-clockwise seen from above, to add
    double bias = 0.0;      // rad/s about up (earth frame), to add to the bias estimate
    bool followed = false;  // the field was followed
  };
  // The field's heading disagrees with the carried one by psi radians
  // (positive: the field lies counter-clockwise); follow: the field may be
  // followed at all; clean: it passed every test of the field check (only
  // a clean field can become the new reference); weight 0..1 scales its
  // information;
  // tiltNoise (rad^2 s) is the noise density the tilt's uncertainty adds to
  // the field's heading; biasShare (0..1) how much of what the disagreement
  // says of the bias is taken (during fast turns it is the gyroscope's scale
  // and alignment errors, which are no bias). settleNoise (rad^2 s) is the
  // noise density of a tilt still settling after a start: unlike tiltNoise
  // it makes the heading itself less certain, so it is reported as well.
  Correction correct(double psi, double dt, bool follow, bool clean, double weight, double tiltNoise,
                     double settleNoise = 0.0, double biasShare = 1.0);

  double headingVar() const { return hh_; }  // rad^2, the filter's own
  // rad^2, what is reported: the same without the tilt's share of the
  // field's noise (which makes the field count less, not the heading worse)
  double reportedVar() const { return hhSeen_; }
  double biasVar() const { return bb_; }     // (rad/s)^2, about up
  double carried() const { return carried_; }  // s since the field was last followed

 private:
  HeadingSettings settings_;
  double hh_ = 0.0, hb_ = 0.0, bb_ = 0.0;  // covariance of the heading and bias errors
  double hhSeen_ = 0.0;
  double startBiasVar_ = 0.0;              // (rad/s)^2, what was known of the bias at the start
  double psiLp_ = 0.0;                     // rad, low-passed disagreement
  double jitterSq_ = 0.0;                  // rad^2, mean square of the readings about it
  bool psiPrimed_ = false;
  bool trackSteadiness(double dt, double fieldDensity);

  double steadyTime_ = 0.0;                // s the field has disagreed steadily while clean by every other test
  bool anchored_ = false;                  // a steady disagreement is being watched
  double anchor_ = 0.0;                    // rad, the low-passed disagreement when it began
  double anchorAge_ = 0.0;                 // s since
  double carried_ = 0.0;
};

}  // namespace quelta::compass
