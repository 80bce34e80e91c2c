// SPDX-License-Identifier: Apache-2.0
// The compass filter core: attitude and heading from timestamped samples of
// the accelerometer, an already calibrated magnetic field and, when the
// device has one, the gyroscope. Any rate from about 10 to 400 Hz, irregular
// intervals; every tuning value is in seconds, none counts calls.
//
// With a gyroscope the attitude is integrated from the rate; each concern
// has its own part: the tilt from the accelerometer's earth-frame mean
// (tilt_correction), the heading and the bias about the vertical as a small
// Kalman filter corrected by the field (heading_estimate), whether the field
// is clean (field_check: strength, dip, and a heading that turns only as the
// gyroscope says), and the bias with its uncertainty (gyro_bias: at rest,
// from the tilt pulls in motion, and whether the gyroscope is usable at
// all). The accelerometer and field readings are taken to belong to the
// middle of their interval, as the means that anti-aliased sensors report.
//
// Magnetic disturbance: the host's flag or the field check. A disturbed
// field is not followed (the gyroscope carries the heading and the heading's
// accuracy grows with the time carried and the bias's uncertainty); a clean
// one is followed again once it has been clean for a while; one that is
// clean by every test but keeps disagreeing steadily is taken as the new
// reference.
//
// Without a gyroscope gravity's and the field's attitude are followed with
// smoothing that shortens as their disagreement with the estimate grows past
// what noise explains (a turn), partly predicted from the derived rate; a
// disturbed field, the only sign of a turn, is still followed and flagged.
//
// No heap, no globals: the whole state lives in the object.
#pragma once

#include <cstdint>

#include "quelta/compass/compass_math.h"
#include "quelta/compass/field_check.h"
#include "quelta/compass/gyro_bias.h"
#include "quelta/compass/heading_estimate.h"
#include "quelta/compass/tilt_correction.h"

namespace quelta::compass {

// One set of settings serves every device, motion and rate; every value is
// a physical quantity with its unit, none counts calls.
struct FilterSettings {
  TiltSettings tilt;
  HeadingSettings heading;
  GyroBiasSettings bias;
  FieldCheckSettings field;
  // With a gyroscope.
  double disturbedHold = 5.0;       // s a disturbed field is not followed at all (then only as far as its score,
                                    // the heading's gate and the references allow)
  double fieldTiltTau = 3.0;        // s, tilt pull from a followed field's dip (0: off)
  double biasTiltTau = 4.0;         // s, bias learning from the tilt pulls once the bias is known ...
  double biasTiltTauStart = 2.0;    // s ... and while nothing is known of it (the loop with the tilt pull's
                                    // 1.5 s then settles within about 3 s, slightly underdamped)
  double biasSettleTime = 30.0;     // s of slow motion until the bias about the horizontal axes is known
  double biasTiltSigma = 0.005;     // rad/s, what learning from the tilt pulls pins the bias to
  double slowRate = 0.5;            // rad/s: turns this fast teach the bias half as much (scale errors are no bias)
  double settleTimes = 3.0;         // tilt time constants after a start before the field's dip and turning are
                                    // judged (the start's tilt error down to 5 %)
  double startTiltSigma = 0.5;      // rad: the tilt of the first reading after a start, when the device may be
                                    // accelerating (half a g sideways); settles with the tilt pull
  double coning = 1.0;              // share of the two-interval coning term in the integration
  double readingDelay = 0.5;        // accelerometer and field lag the gyroscope, fraction of the interval
  // Without a gyroscope.
  double trackHeadingTau = 0.15;        // s, smoothing of the field's heading ...
  double trackHeadingAngleDeg = 4.0;    // ... shortened past this disagreement
  double trackPredict = 0.5;            // share of the derived rate used to predict
  double trackDisturbedWeight = 1.0;    // weight of a disturbed field: the only sign of a turn
  double trackDriftRate = 0.008;        // rad/sqrt(s), growth of the heading's error while the field is not used
  // Heading accuracy estimate.
  double headingNoiseFloorDeg = 1.0;     // degrees always reported on top
  double innovationWeight = 0.05;        // share of the heading disagreement's running mean square
  double trackInnovationWeight = 0.5;    // the same without a gyroscope
  double trackLagTime = 0.45;            // s: without a gyroscope, the lag behind a turn (its error grows
                                         // with the rate, without bound: a fast tumble is not followed)
  double trackDisturbedErrorDeg = 40.0;  // degrees without a gyroscope while the field is disturbed
                                         // (indoor disturbances turn the field by tens of degrees)
  double warmUp = 2.0;                   // s of short time constants after the start
  // True north: declination added to magnetic north, degrees east.
  double declinationDeg = 0.0;
};

// What the magnetic layer knows of the field it passes on.
struct FieldQuality {
  bool disturbed = false;               // the host's or the detector's flag
  double disturbanceScore = 0.0;        // 0 clean, >= 1 disturbed
  int calibrationAccuracy = 3;          // 0..3
  double calibrationHeadingErrorDeg = 0.0;  // heading error the calibration leaves
  bool newCalibration = false;          // the calibration changed with this sample
};

enum CompassFlags : uint32_t {
  kFlagCalibrating = 1u << 0,
  kFlagMagneticDisturbance = 1u << 1,
  kFlagAccelerating = 1u << 2,
  kFlagNoHeading = 1u << 3,   // no field seen yet: the heading is arbitrary
  kFlagGyroscope = 1u << 4,   // the last sample had a gyroscope reading
  kFlagResting = 1u << 5,
};

struct CompassOutput {
  Quat attitude;              // device to east-north-up (magnetic or true north)
  double azimuthDeg = 0.0;    // [0, 360) clockwise from north to the levelled top edge
  double pitchDeg = 0.0;      // (-180, 180], positive when the top edge dips
  double rollDeg = 0.0;       // [-90, 90], positive when the right edge rises
  Vec3 gravity;               // g, device frame, +1 g along up (what the accelerometer reads at rest)
  Vec3 linearAcc;             // g, device frame: accelerometer less gravity
  Vec3 rate;                  // rad/s, device frame
  Vec3 gyroBias;              // rad/s, the estimate subtracted from the gyroscope
  double headingAccuracyDeg = 180.0;
  int accuracy = 0;           // 0..3 as phones report it
  uint32_t flags = kFlagNoHeading;
  double t = 0.0;             // time of the sample
};

class CompassFilter {
 public:
  explicit CompassFilter(const FilterSettings& settings = FilterSettings());

  void reset();                      // forget everything but the settings
  // Forget the attitude (found again from the next samples: after a gap
  // over which the device turned) but keep what is known of the sensors
  // and the place: the gyroscope's bias and the field's references.
  void restartAttitude();
  void setDeclination(double degEast) { settings_.declinationDeg = degEast; }
  const FilterSettings& settings() const { return settings_; }

  // One sample set at time t (s). acc in g (specific force, +1 along up at
  // rest); field calibrated (any unit, gauss expected) or null when this
  // set has none; gyro in rad/s or null. Non-finite readings are ignored.
  void update(double t, const Vec3& acc, const Vec3* field, const FieldQuality& quality, const Vec3* gyro);

  const CompassOutput& output() const { return out_; }

  // The gyroscope bias the filter subtracts (rad/s, device frame), its
  // 1-sigma uncertainty per axis (rad/s; large before anything is learnt),
  // and whether the gyroscope is used at all (false: judged unusable, the
  // attitude is tracked as without one).
  Vec3 gyroBias() const { return bias_.value(); }
  double gyroBiasSigma() const { return std::sqrt(std::fmax(bias_.horizontalVar(), heading_.biasVar())); }
  bool gyroUsable() const { return bias_.usable(); }

 private:
  void initialise(double t, const Vec3& acc, const Vec3* field);
  double startHeadingVar(const Vec3& acc, const Vec3& field) const;
  void propagate(const Vec3& gyro, double dt);
  void track(double dt);
  double fieldCorrection(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro, double& applied);
  void learnBiasFromTilt(const TiltCorrection::Pull& pull, double dt);
  void finish(double t, const Vec3& acc, const FieldQuality& quality, bool withGyro);

  FilterSettings settings_;
  TiltCorrection tilt_;
  HeadingEstimate heading_;
  GyroBias bias_;
  FieldCheck field_;
  bool started_ = false;
  bool seenFirst_ = false;
  double tFirst_ = 0.0;
  bool headingKnown_ = false;
  double startBiasVar_ = 0.0;  // (rad/s)^2 about up at the start (0: the gyroscope's spread of parts)
  double tStart_ = 0.0;
  double tLast_ = 0.0;
  AttitudePair att_;
  Vec3 prevGyro_;          // previous bias-corrected gyroscope reading, rad/s
  double prevDt_ = 0.0;    // s
  Vec3 rateWorld_;         // rad/s, the tracker's rate without a gyroscope, east-north-up
  Vec3 lastRate_;          // rad/s, device frame
  bool disturbed_ = false; // the field was judged disturbed
  double driftVar_ = 0.0;     // rad^2, heading error grown without a gyroscope
  double innovationSq_ = 0.0; // rad^2, running mean square of the heading disagreement
  double biasLearnt_ = 0.0;   // s of learning the bias from the tilt pulls
  Vec3 biasStep_;             // rad/s, earth frame: what this sample teaches the bias
  double biasHorizontalVar_ = 0.0;  // (rad/s)^2, the horizontal variance after it
  CompassOutput out_;
};

// Azimuth, pitch and roll of an attitude in the conventions above.
void anglesOf(const Quat& deviceToEnu, double& azimuthDeg, double& pitchDeg, double& rollDeg);

// TRIAD: the attitude whose up is the accelerometer's and whose north lies
// in the plane of up and the field. Returns false for degenerate input.
bool attitudeFromVectors(const Vec3& acc, const Vec3& field, Quat& out);

}  // namespace quelta::compass
