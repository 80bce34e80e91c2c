// The compass filter core: attitude and heading from timestamped samples of
// the accelerometer, an already calibrated magnetic field and, when the
// device has one, the gyroscope. Any rate from about 10 to 400 Hz, irregular
// intervals; every tuning value is in seconds, none counts calls.
//
// With a gyroscope the attitude is integrated from the rate. Tilt: the
// accelerometer is averaged in the earth frame (the linear accelerations of
// a device that goes nowhere average out, gravity stays; each sample's pull
// on the mean is limited, so shocks move it little) and the attitude is
// pulled towards that mean. Heading: pulled towards the field's horizontal
// direction, and a trusted field's dip steadies the tilt as well. The
// gyroscope bias is learnt from the pulls that remain on average (quickly at
// first, then more slowly; only from slow motion and a field clean for a
// while) and, faster, while the device rests. The accelerometer and field
// readings are taken to belong to the middle of their interval, as the
// means that anti-aliased sensors report.
//
// Magnetic disturbance: the host's flag, or the filter's own check of the
// field's strength and dip against running references. A fresh disturbance
// is not followed at all (the gyroscope carries the heading), the heading
// re-converges smoothly when it ends, and references follow a change that
// lasts.
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

namespace quelta::compass {

// One set of settings serves every device and rate (tuned on the recordings
// of the accuracy tool).
struct FilterSettings {
  // With a gyroscope.
  double tiltTau = 1.5;              // s, pull towards the accelerometer's mean
  double accMeanTau = 1.5;           // s, mean of the accelerometer in the earth frame
  double accStepLimit = 1.5;         // g, largest pull of one sample on that mean
  double accNormTolerance = 3.0;     // g, a sample's weight halves at this deviation from 1 g
  double accRejectAngleDeg = 30.0;   // tilt disagreement that is skipped ...
  double accRejectMaxTime = 3.0;     // s ... for at most this long (then sustained: accepted)
  double accFlagAngleDeg = 10.0;     // tilt disagreement flagged as accelerating
  double headingTau = 6.0;           // s, pull towards magnetic north
  double fieldTiltTau = 3.0;         // s, tilt pull from a trusted field's dip (0: off)
  double biasTiltTau = 8.0;          // s, bias learning from the tilt pull, when settled
  double biasHeadingTau = 20.0;      // s, bias learning from the heading pull, when settled
  double biasTiltTauStart = 4.0;     // s, the same at first
  double biasHeadingTauStart = 4.0;  // s
  double biasSettleTime = 120.0;     // s of learning from a clean field until settled
  double biasCleanTime = 5.0;        // s a field must stay clean before it teaches the bias
  double restTime = 1.0;             // s of stillness before the rest bias estimate runs
  double restBiasTau = 1.0;          // s, rest bias estimate
  double warmUp = 2.0;               // s of short time constants after the start
  double coning = 1.0;               // share of the two-interval coning term in the integration
  double readingDelay = 0.5;         // accelerometer and field lag the gyroscope, fraction of the interval
  // Without a gyroscope.
  double trackTiltTau = 0.2;            // s, smoothing of gravity's tilt when it agrees ...
  double trackTiltAngleDeg = 12.0;      // ... shortened past this disagreement
  double trackHeadingTau = 0.15;        // s, smoothing of the field's heading ...
  double trackHeadingAngleDeg = 4.0;    // ... shortened past this disagreement
  double trackPredict = 0.5;            // share of the derived rate used to predict
  double trackDipToleranceScale = 2.5;  // the dip check's tolerance, relative to the gyroscope's
  double trackDisturbedWeight = 1.0;    // weight of a disturbed field: the only sign of a turn (holding
                                        // it back measured worse on every disturbed recording)
  // Magnetic disturbance (own check).
  double fieldStrengthTolerance = 0.12;  // relative
  double fieldDipToleranceDeg = 4.0;
  double fieldReferenceTau = 20.0;       // s, reference learning when undisturbed
  double fieldRelearnTime = 30.0;        // s disturbed before the references follow anyway
  // Heading accuracy estimate.
  double headingNoiseFloorDeg = 1.0;
  double headingDriftRate = 0.004;       // rad/sqrt(s), growth while the field is not used
  double headingScaleError = 0.01;       // fraction of each rotation
  double innovationWeight = 0.15;        // of the heading innovation's running RMS
  double trackInnovationWeight = 0.5;    // the same without a gyroscope
  double trackLagTime = 0.35;             // s: without a gyroscope, grows with the turn rate
  double trackDisturbedErrorDeg = 30.0;  // without a gyroscope, while the field is disturbed
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
  Vec3 gyroBias() const { return bias_; }
  double gyroBiasSigma() const { return std::sqrt(biasVar_); }
  bool gyroUsable() const { return gyroUsable_; }

 private:
  void initialise(double t, const Vec3& acc, const Vec3* field);
  void restBias(const Vec3& gyro, const Vec3& acc, double dt);
  double tiltCorrection(const Vec3& acc, double dt, bool withGyro, Vec3& applied);
  double headingCorrection(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro,
                           double& applied);
  bool fieldDisturbed(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro);
  void finish(double t, const Vec3& acc, const FieldQuality& quality, bool withGyro);

  FilterSettings settings_;
  bool started_ = false;
  bool seenFirst_ = false;
  double tFirst_ = 0.0;
  bool headingKnown_ = false;
  double tStart_ = 0.0;
  double tLast_ = 0.0;
  Quat q_;
  Quat qMeas_;
  Vec3 prevGyro_;        // previous bias-corrected gyroscope reading
  double prevDt_ = 0.0;           // the attitude the accelerometer and field readings belong to
  Vec3 bias_;
  double biasVar_ = 0.1 * 0.1;  // (rad/s)^2 per axis, the bias estimate's variance
  bool gyroUsable_ = true;
  Vec3 accWorld_;        // mean specific force in the earth frame, g
  Vec3 rateWorld_;       // tracker's rate without a gyroscope, east-north-up frame
  Vec3 lastRate_;        // device frame
  // Rest detection.
  Vec3 gyroLp_, accLp_;
  double stillTime_ = 0.0;
  // Acceleration gating.
  double rejectTime_ = 0.0;
  bool accelerating_ = false;
  // Field references and disturbance.
  double strengthRef_ = 0.0;
  double dipRef_ = 0.0;
  double referenceAge_ = 0.0;   // s of learning so far
  double fastHeadingUntil_ = -1e300;  // a new calibration: heading re-converges quickly
  double disturbedTime_ = 0.0;
  double score_ = 0.0;
  double cleanTime_ = 0.0;      // s since the field was last suspect
  double biasLearnt_ = 0.0;     // s of bias learning from a clean field
  bool disturbed_ = false;
  // Heading accuracy.
  double driftVar_ = 0.0;       // rad^2
  double innovationSq_ = 0.0;   // running mean of heading innovation^2, rad^2
  double sinceField_ = 0.0;     // s since the field last corrected the heading
  CompassOutput out_;
};

// Azimuth, pitch and roll of an attitude in the conventions above.
void anglesOf(const Quat& deviceToEnu, double& azimuthDeg, double& pitchDeg, double& rollDeg);

// TRIAD: the attitude whose up is the accelerometer's and whose north lies
// in the plane of up and the field. Returns false for degenerate input.
bool attitudeFromVectors(const Vec3& acc, const Vec3& field, Quat& out);

}  // namespace quelta::compass
