// The compass filter core: attitude and heading from timestamped samples of
// the accelerometer, an already calibrated magnetic field and, when the
// device has one, the gyroscope. Any rate from about 10 to 400 Hz, irregular
// intervals; every tuning value is in seconds, none counts calls.
//
// With a gyroscope the attitude is integrated from the rate and pulled
// towards gravity (tilt) and towards magnetic north (heading) with time
// constants of a few seconds; the gyroscope bias is learnt from those pulls
// and, faster, while the device rests. Without one, a second-order tracker
// follows the attitude that gravity and field give, with an angular rate
// of its own and smoothing that shortens as the device turns faster.
//
// Acceleration gating: a sample whose specific force is far from 1 g or
// whose tilt disagrees with the integrated one is weighted down or
// skipped; sustained disagreement is accepted after a while. Magnetic
// disturbance: the host's indication or the filter's own check of field
// strength and dip against their running references; while disturbed the
// gyroscope alone carries the heading.
//
// No heap, no globals: the whole state lives in the object.
#pragma once

#include <cstdint>

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

struct FilterSettings {
  // With a gyroscope.
  double tiltTau = 1.5;            // s, pull towards gravity
  double accMeanTau = 1.5;         // s, mean of the accelerometer in the earth frame
  double headingTau = 6.0;         // s, pull towards magnetic north
  double biasTiltTau = 8.0;        // s, bias learning from the tilt pull, when settled
  double biasHeadingTau = 20.0;    // s, bias learning from the heading pull, when settled
  double biasTiltTauStart = 4.0;   // s, the same at first
  double biasHeadingTauStart = 4.0;
  double biasSettleTime = 120.0;   // s of learning from a clean field until settled
  double biasCleanTime = 5.0;      // s a field must stay clean before it teaches the bias
  double restTime = 1.0;           // s of stillness before the rest bias estimate runs
  double restBiasTau = 1.0;        // s, rest bias estimate
  double warmUp = 2.0;             // s of short time constants after the start
  double readingDelay = 0.5;       // accelerometer and field: fraction of the interval they lag the gyroscope
  // Without a gyroscope: smoothing of gravity's and the field's attitude,
  // shortened as the disagreement grows past what noise explains (a turn).
  double trackTiltTau = 0.2;          // s
  double trackTiltAngleDeg = 12;    // disagreement that halves it... and more
  double trackHeadingTau = 0.15;       // s
  double trackHeadingAngleDeg = 4;
  double trackPredict = 0.5;
  double trackDipToleranceScale = 2.5;
  double trackInnovationWeight = 1.0;   // heading accuracy: of the innovation's running RMS
  double trackLagTime = 0.3;            // s: heading accuracy grows with the turn rate
  double trackDisturbedErrorDeg = 30.0; // heading accuracy while the field is disturbed  // the dip check's tolerance, relative to the gyroscope's          // share of the derived rate used to predict
  // Acceleration gating.
  double accNormTolerance = 3.0;   // g, weight halves at this deviation from 1 g
  double accStepLimit = 1.5;       // g, largest pull of one sample on the earth-frame mean
  double accRejectAngleDeg = 30.0; // tilt disagreement skipped (with gyroscope)
  double accFlagAngleDeg = 10.0;   // tilt disagreement flagged as accelerating
  double accRejectMaxTime = 3.0;   // s of skipping before a sustained tilt is accepted
  // Magnetic disturbance (own check).
  double fieldStrengthTolerance = 0.12;  // relative
  double fieldDipToleranceDeg = 4.0;
  double fieldReferenceTau = 20.0;       // s, reference learning when undisturbed
  double fieldRelearnTime = 30.0;        // s disturbed before the references follow anyway
  double fieldTiltTau = 3.0;             // s, tilt pull from a trusted field's dip (0: off)
  // Heading accuracy estimate.
  double headingNoiseFloorDeg = 1.0;
  double headingDriftRate = 0.004;       // rad/sqrt(s), growth while the field is not used
  double headingScaleError = 0.01;       // fraction of each rotation
  double innovationWeight = 0.15;        // of the heading innovation's running RMS
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

 private:
  void initialise(double t, const Vec3& acc, const Vec3* field);
  void restBias(const Vec3& gyro, const Vec3& acc, double dt);
  double tiltCorrection(const Vec3& acc, double dt, bool withGyro, Vec3& applied);
  double headingCorrection(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro,
                           double& applied);
  bool fieldDisturbed(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro);
  void finish(double t, const Vec3& acc, const FieldQuality& quality, bool withGyro, bool haveField);

  FilterSettings settings_;
  bool started_ = false;
  bool seenFirst_ = false;
  double tFirst_ = 0.0;
  bool headingKnown_ = false;
  double tStart_ = 0.0;
  double tLast_ = 0.0;
  Quat q_;
  Quat qMeas_;           // the attitude the accelerometer and field readings belong to
  Vec3 bias_;
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
  Vec3 fieldTiltApplied_;
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
