// SPDX-License-Identifier: Apache-2.0
// Online hard- and soft-iron calibration of a magnetometer, its quality
// report and a per-sample magnetic disturbance score.
//
// Every state is caller-owned; nothing allocates. All tuning is in seconds,
// so the calibrator works at any sample rate and with irregular timestamps.
//
// How it works
//  * With a gyroscope, every pair of readings about half a second apart adds
//    a row of the rotation's evidence (RotationEvidence): the field must turn
//    as the device turns, which is linear in the offset and says which of
//    its components are known and how well.
//  * Samples are averaged over short blocks (kBlockSeconds) together with the
//    accelerometer; a block becomes a candidate for a store of kSlots samples
//    chosen for diversity of direction (a candidate close to a stored sample
//    refreshes it, a new direction takes the most crowded slot when full),
//    but only after a turn: a field that changes while the device does not
//    turn is the environment.
//  * The fit (Gauss-Newton, robust weights) finds the offset c, a symmetric
//    soft-iron matrix W (det 1), the field strength R and its vertical
//    component V so that |W (m - c)| = R and (W (m - c)) . up = V. The second
//    equation uses gravity: in an undisturbed place the field's angle to the
//    vertical is constant, which pins the offset along the vertical as soon
//    as the device tilts a little. A known expected field (strength and dip)
//    adds priors on R and V. W is fitted only when the stored directions
//    cover the sphere well enough (ellipsoid model), else it is kept (sphere
//    model, offset only).
//  * Never worse than none: until a fit is adopted the raw field is used as
//    it comes while its strength is the Earth's. A fit replaces the
//    calibration in use only when it explains the evidence clearly better
//    (the rotations' chi-square; without a gyroscope the stored strengths),
//    moves it along directions the rotations leave open by no more than a
//    sensor's own uncertainty, and is rolled back when the rotations later
//    prefer the one before.
//  * The heading error that the calibration leaves is propagated from the
//    fit's covariance (the rotations' information included) over the
//    orientations seen, plus the offset difference the rotations see and a
//    restored calibration's possible drift; it sets the accuracy.
//  * A new hard iron (a magnet fixed to the device) keeps the field's
//    strength and dip but moves every sample off the fitted sphere; a passing
//    disturbance changes strength or dip. While the stored model is
//    contradicted, a second fit over the last few seconds with the strength
//    and dip held tells the two apart and adopts the new offset quickly
//    (with a gyroscope only when the turns since the change pin it).
//  * Per sample, the disturbance score compares the smoothed strength and
//    dip with the fitted ones (which an expected field pulls towards the
//    model's values through the fit's priors).
#pragma once

#include <cstddef>
#include <cstdint>

#include "quelta/magnetic/rotation_evidence.h"
#include "quelta/math/qmath.h"

namespace quelta::magnetic {

enum class Model : uint8_t { None = 0, Sphere = 1, Ellipsoid = 2 };

// Why the calibration is not (yet) at accuracy 3.
enum class Reason : uint8_t {
  None = 0,            // good enough for a heading
  Collecting = 1,      // too few distinct directions yet: keep moving the device
  TurnOtherAxis = 2,   // directions seen leave the offset undetermined: turn about another axis
  FieldUnstable = 3,   // the field changes (disturbance, new magnet nearby)
  StrengthMismatch = 4,  // fitted strength far from the expected one: magnetic environment
  NoSamples = 5,       // no valid magnetometer sample
};
const char* reasonText(Reason r);

// The expected field at the device's location (e.g. from the field model).
struct ExpectedField {
  double strengthGauss = 0.0;
  double dipDeg = 0.0;  // inclination, positive when the field points below the horizon
  bool known = false;
};

struct Calibration {
  Vec3d offset;        // gauss, raw frame
  M3 softIron;         // calibrated = softIron * (raw - offset), det 1, symmetric
  double strength = 0.0;   // fitted field strength, gauss
  double vertical = 0.0;   // fitted vertical component (along up), gauss
  Model model = Model::None;
};

struct Quality {
  int accuracy = 0;           // 0..3 (3: good enough for a heading)
  double coverage = 0.0;      // share of 26 direction cells holding a sample, 0..1
  double residualGauss = 0.0; // robust rms of the fit's strength residuals
  double fittedStrength = 0.0;
  double expectedStrength = 0.0;  // 0 when not known
  double headingErrorDeg = 180.0; // estimate of the heading error the calibration leaves
  Reason reason = Reason::NoSamples;
  int samples = 0;            // stored samples used by the fit
  int newHardIron = 0;        // times a new offset was adopted after a change
  int restarts = 0;           // times the calibration started again after a lasting change
};

// What one sample gives.
struct SampleOutput {
  Vec3d calibrated;           // gauss, device frame
  double strength = 0.0;      // |calibrated|
  double dipDeg = 0.0;        // angle below the horizon (needs gravity), 0 without
  double strengthDeviation = 0.0;  // smoothed |calibrated| / fitted strength - 1
  double dipDeviationDeg = 0.0;    // smoothed dip minus the fitted dip
  double disturbance = 0.0;   // 0 when undisturbed; 1 at the flag's threshold
  bool disturbed = false;
  bool newCalibration = false;  // the calibration changed with this sample
  bool valid = false;         // the sample was usable (finite, not dead)
  int accuracy = 0;
};

// Save/restore record: fixed size, little-endian, versioned, CRC-32 checked.
inline constexpr std::size_t kRecordSize = 128;
inline constexpr uint16_t kRecordVersion = 1;
enum class RecordStatus : int {
  Ok = 0,
  Truncated = 1,      // fewer bytes than a record
  BadMagic = 2,       // not a calibration record
  OtherVersion = 3,   // written by another version of the layout
  BadChecksum = 4,    // corrupted
  BadValues = 5,      // checksum right but values out of range
  NoCalibration = 6,  // nothing to save yet
};
const char* recordStatusText(RecordStatus s);

class Calibrator {
 public:
  static constexpr int kSlots = 128;
  static constexpr int kRecent = 64;

  Calibrator() { reset(); }
  // Forgets everything but the expected field.
  void reset();
  void setExpectedField(const ExpectedField& f) { expected_ = f; }
  // How far the gyroscope bias removed from the rates may still be off
  // (rad/s, 1-sigma; 0.01 unless told).
  void setGyroBiasSigma(double radPerS) {
    rotation_.setRateError(radPerS);
    sinceChange_.setRateError(radPerS);
  }
  const ExpectedField& expectedField() const { return expected_; }

  // One sample: t in seconds (any origin, may be irregular), the raw field in
  // gauss, the accelerometer (any unit, up at rest) or nullptr, and the
  // gyroscope (rad/s, its bias already removed) or nullptr.
  SampleOutput update(double t, const double mag[3], const double acc[3], const double gyro[3] = nullptr);

  // The gyroscope that gave the rates so far was wrong (stuck, or a bias
  // beyond reach): what its turns said of the offset is forgotten; the
  // calibration itself stays.
  void forgetRotations();

  // A gyroscope sample (rad/s, bias removed) at t without a field sample:
  // the turn counts towards the next field sample's evidence.
  void rotate(double t, const double gyro[3]);

  const Calibration& calibration() const { return cal_; }
  const Quality& quality() const { return quality_; }
  // What the gyroscope has said about the offset so far.
  const RotationEvidence& rotationEvidence() const { return rotation_; }
  // Applies the current calibration to a raw sample.
  Vec3d apply(Vec3d raw) const { return cal_.softIron * (raw - cal_.offset); }

  RecordStatus save(uint8_t (&record)[kRecordSize]) const;
  // Validates the record fully before adopting it; on any error nothing
  // changes.
  RecordStatus restore(const uint8_t* data, std::size_t size);

 private:
  struct Slot {
    Vec3d m;       // raw field, block mean
    Vec3d up;      // unit gravity (up), zero when unknown
    double t;      // internal clock at the block
    double nnDist; // distance to the nearest other slot
    int16_t nn;    // that slot
  };
  struct FitResult {
    Calibration cal;
    double residual = 0.0;
    double headingErrorDeg = 180.0;
    double coverage = 0.0;
    bool ok = false;
  };

  void endBlock();
  void offerCandidate(Vec3d m, Vec3d up);
  void insertSlot(int index, Vec3d m, Vec3d up);
  void removeNearestLinks(int index);
  void refreshNearest(int index);
  void refit();
  // Advances the clock to t; returns the clamped step, interval the true one.
  double advanceClock(double t, double& interval);
  void turn(double interval, double dt, const Vec3d* field, const double gyro[3]);
  // Whether a fit explains the evidence clearly better than the calibration
  // in use (never worse than none: the raw field until then).
  bool clearlyBetter(const FitResult& r) const;
  // A turn since the last offered block: a field change without one is the
  // environment, not calibration evidence.
  bool turnedSinceOffer(Vec3d up) const;
  // The heading error (degrees) that an offset uncertainty of sigma gauss
  // leaves across the horizontal field of the last block.
  double headingErrorOf(double sigma) const;
  // The heading error of the calibration in use, from the fit's and the
  // rotation's evidence, for the last block.
  double currentHeadingError() const;
  bool fit(const Slot* slots, int n, const Calibration& start, bool allowEllipsoid,
           bool holdShape, double priorStrength, double priorStrengthSigma,
           double priorVertical, double priorVerticalSigma, FitResult& out) const;
  bool initialSphere(const Slot* slots, int n, Calibration& out) const;
  int inliers(const Calibration& c, const Slot* s, int n) const;
  int recentBlocks(Slot* out, double since) const;
  bool checkChange(Vec3d m, Vec3d up);  // false: keep the block out of the store
  bool rotationKnowsChange() const;
  void updateQuality(const FitResult* r);
  // Forgets the stored samples, the restored prior and the contradiction,
  // then offers the recent blocks (newest first, as recentBlocks gives them)
  // to the store again, oldest first.
  void restartStore(const Slot* recent, int n);
  void adopt(const Calibration& c, const Slot* recent, int n, const FitResult* r);
  void disturbance(double strength, bool dipUsable, double accAngleSq, double dt, SampleOutput& out);

  ExpectedField expected_;
  Calibration cal_;
  // The gyroscope's evidence about the offset, and the turn since the last
  // block offered to the store (rad; with a gyroscope) or the up then.
  RotationEvidence rotation_;
  // The rotations since the stored model was last contradicted: a new hard
  // iron must explain them.
  RotationEvidence sinceChange_;
  bool haveGyro_ = false;
  double turnSinceOffer_ = 0.0;
  Vec3d upAtOffer_;
  // The last block: its raw field and up, for the heading error.
  Vec3d lastBlockM_, lastBlockUp_;
  // The calibration a fit replaced: brought back if the rotation evidence
  // says it was better.
  Calibration replaced_;
  bool haveReplaced_ = false;
  bool restored_ = false;  // the calibration in use is a restored one, not yet refitted
  Quality quality_;
  // The restored calibration's offset uncertainty (gauss) acts as a prior
  // until the data replace it; 0 when none.
  double priorOffsetSigma_ = 0.0;
  Vec3d priorOffset_;

  // Clock: advances by the sample intervals, clamped (repeats and jumps back
  // do not move it, gaps count as kMaxGap).
  double clock_ = 0.0;
  double lastT_ = 0.0;
  bool haveT_ = false;

  // Gravity (low-passed accelerometer) and the accelerometer's usual size.
  Vec3d gravity_;
  double accNorm_ = 0.0;
  bool haveGravity_ = false;

  // The last blocks, so that a candidate's gravity is the accelerometer's
  // mean over a window centred on it (walking steps average out).
  struct Block {
    Vec3d m, acc;
    bool hasAcc;
  };
  static constexpr int kHistory = 16;
  Block history_[kHistory];
  int historyHead_ = 0;
  int historyCount_ = 0;

  // The block being averaged.
  Vec3d blockMag_, blockAcc_;
  int blockCount_ = 0;
  int blockAccCount_ = 0;
  double blockStart_ = 0.0;
  double blockAccDev_ = 0.0;

  Slot slots_[kSlots];
  int count_ = 0;
  double lastFit_ = -1e9;
  double fitInterval_ = 0.75;  // s between fits while not settled
  double lastOffer_ = -1e9;    // clock of the last block offered to the store
  int newSinceFit_ = 0;

  // The last seconds of blocks, for telling a new hard iron from a
  // disturbance.
  Slot recent_[kRecent];
  int recentHead_ = 0;
  int recentCount_ = 0;
  double inconsistentSince_ = -1.0;  // clock when the model began to be contradicted
  double inconsistentShare_ = 0.0;   // low-passed share of contradicted blocks
  double lastChangeTry_ = -1e9;
  bool unstable_ = false;
  // The calibration before the last adoption: a magnet that goes away
  // brings it back at once.
  Calibration previous_;
  // After an adoption the store restarts; until it is full again the fit
  // holds the strength and vertical component found before.
  double heldStrength_ = 0.0;
  double heldVertical_ = 0.0;
  bool restart_ = false;  // the next fit starts from scratch

  // Disturbance memory.
  double devStrength_ = 0.0;  // low-passed relative strength deviation
  double devDip_ = 0.0;       // low-passed dip deviation, degrees
  double gravityNoise_ = 0.0; // low-passed squared angle between accelerometer and gravity, deg^2
  double refDipDeg_ = 0.0;    // the fitted dip, for the calibration in refDipFor_ (vertical, strength)
  double refDipFor_[2] = {0.0, 0.0};
  bool flag_ = false;
  bool calChanged_ = false;
  double headingErrorRaw_ = 180.0;  // from the last adopted fit's covariance
  double lastBlockAccDev_ = 0.0;    // the last block's mean accelerometer deviation, share of g
};

}  // namespace quelta::magnetic
