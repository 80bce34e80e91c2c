// SPDX-License-Identifier: Apache-2.0
// Sensor health: a gyroscope or magnetometer that has stopped telling the
// truth, judged from the data alone, is left out while the fault lasts and
// taken back when it recovers.
//
// - A stuck or dead gyroscope repeats one reading exactly (zeros included)
//   while the attitude of gravity and the field turns otherwise than that
//   reading explains.
//   Noise makes two real readings differ; the other sensors say whether a
//   repeated one is still right (a still device reads the same either way).
// - A pinned field axis holds one magnitude exactly (stuck, or clipped at the
//   sensor's full scale) while the device turns: another axis moves, or the
//   gyroscope or gravity turns. The field comes back once no axis has been
//   pinned for a while, so a clipping sensor that dips in and out of its
//   range stays out.
// - A gyroscope whose bias no filter could learn: gravity and the earth's
//   field, fixed on earth, stay put in the frame the gyroscope carries if it
//   is right; over blocks of a few seconds their means at the two ends of the
//   block turn apart by more than the largest plausible bias and the
//   accelerations (or a calibration's residue) explain, whatever the device
//   does meanwhile. It is left out (the compass
//   tracks without it) until the blocks agree again; it is then taken back
//   and the filter, whose bias estimate is stale, starts over.
//
// No heap; the whole state lives in the object.
#pragma once

#include <cstdint>

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

// Output flags (next to the filter's CompassFlags).
constexpr uint32_t kFlagGyroscopeLeftOut = 1u << 6;  // the host's gyroscope is not used
constexpr uint32_t kFlagFieldLeftOut = 1u << 7;      // the host's field is not used

struct HealthSettings {
  double repeatTimeS = 0.15;         // s a gyroscope reading must repeat before it can be condemned
  double turnEvidenceDeg = 3.0;      // deg the field and gravity's attitude must differ from what the reading
                                     // explains: beyond their noise while walking (gravity low-passed)
  double pinnedTimeS = 0.3;          // s a field axis must hold one magnitude ...
  double pinnedSpreadGauss = 0.05;   // gauss ... while another axis moves this far (or the device turns)
  double fieldRecoveryS = 2.0;       // s without a pinned axis before the field is taken back
  double gravityTauS = 0.25;         // s, low-pass of the accelerometer for gravity's direction
  double blockS = 3.0;               // s, block over which the gyroscope and the other sensors' attitude are compared
  double windowS = 1.0;              // s at each end of a block over which gravity and the field are averaged in
                                     // the frame the gyroscope carries (a stride's or a swing's accelerations
                                     // average out)
  double maxBias = 0.2;              // rad/s, the largest bias the filter learns
  double attitudeNoiseDeg = 25.0;    // deg, how far a window's mean gravity strays from up under sustained
                                     // accelerations (0.4 g sideways: 22 degrees), or a calibrated field's
                                     // direction under a calibration's residue and soft iron
  double jumpDeg = 20.0;             // deg the field must turn in one sample set beyond what the gyroscope says
                                     // to be a jump of the attitude (a hand turns a phone by at most about
                                     // 20 rad/s: 12 degrees at 100 Hz, and the gyroscope sees that)
  double jumpDipDeg = 5.0;           // deg its angle to gravity may change meanwhile (a disturbance changes it)
  double jumpTurnShare = 1.0;        // ... plus this share of what it turned by in the interval (the field's
                                     // and the gyroscope's readings may be an interval apart in time)
  double jumpWithinS = 0.025;        // s: only consecutive sample sets this close are compared (40 Hz and up:
                                     // at lower rates a swinging device's rate changes too much within one
                                     // interval for the gyroscope's reading to say where it went)
  double jumpCalmG = 0.5;            // g: both accelerometer readings this close to 1 g (no shock)
  double fieldSteady = 0.1;          // relative: the field's strength at both ends of a block within this
                                     // for its direction to count (a disturbance changes the strength too)
  double quietAccG = 0.2;            // g: blocks whose mean specific force at either end is this far from 1 g
                                     // (a sustained acceleration: a vehicle turning) are not judged
  double blockNoiseDeg = 10.0;       // deg, 1 sigma of a block's turn between its ends as gravity or the field
                                     // show it (a window's mean under a walk's accelerations)
  double turnScaleError = 0.05;      // fraction of what a block turned through that the gyroscope's scale and
                                     // alignment errors and its integration at the sample rate may leave
  double biasMemoryS = 30.0;         // s over which what the blocks said of the bias is remembered (a gyroscope
                                     // that recovers is taken back within a few times this)
  int badBlocksToDrop = 2;           // blocks in a row that disagree before the gyroscope is left out
  double verdictSigmas = 2.0;        // how sure the estimate must be that the bias is beyond maxBias (or within
                                     // it) before the gyroscope is left out (or taken back)
};

class SensorHealth {
 public:
  explicit SensorHealth(const HealthSettings& settings = HealthSettings()) : settings_(settings) {}

  void reset() { *this = SensorHealth(settings_); }

  // One accepted sample set: dt in s on the compass's time base, acc in g,
  // the raw and the calibrated field in gauss (both null when the set has
  // none) and the gyroscope in rad/s (null without one).
  void observe(double dt, const Vec3& acc, const Vec3* rawField, const Vec3* calibratedField, const Vec3* gyro);
  // Whether a sample set (acc in g, calibrated field in gauss or null) shows
  // the device where the last one left it: gravity's and the field's
  // directions within toleranceDeg of the last ones.
  bool unmoved(const Vec3& acc, const Vec3* calibratedField, double toleranceDeg) const;
  // The calibration changed: the calibrated field jumps without a turn, so
  // it is no evidence across the change.
  void calibrationChanged() {
    haveCalibratedField_ = false;
    repeatFieldKnown_ = false;
    blockFieldValid_ = false;
  }
  // Whether the calibrated field is calibrated well enough that its
  // direction is the earth's (a field still carrying the device's hard iron
  // turns with the device, not against it).
  void setFieldTrusted(bool trusted) { fieldTrusted_ = trusted; }
  // True once, when gravity and the field have just jumped together beyond
  // what the gyroscope turned: the attitude must be found again.
  bool takeAttitudeJump() {
    const bool j = jumped_;
    jumped_ = false;
    return j;
  }
  // True once, when the gyroscope has just been taken back after a bias no
  // filter could learn: the filter's bias estimate is stale.
  bool takeGyroscopeBack() {
    const bool back = takenBack_;
    takenBack_ = false;
    return back;
  }

  bool gyroUsable() const { return !gyroStuck_ && !biasUnlearnable_; }
  bool fieldUsable() const { return fieldHealthyTime_ >= settings_.fieldRecoveryS; }
  bool gyroStuck() const { return gyroStuck_; }
  bool biasUnlearnable() const { return biasUnlearnable_; }
  // What gravity and the field say of the gyroscope's bias, rad/s (device
  // frame), and its 1-sigma along itself.
  const Vec3& biasSeen() const { return biasSeen_; }
  double biasSeenSigma() const { return biasSeenSigma_; }
  bool fieldPinned() const { return pinnedAxes_ != 0; }
  // Degrees the heading may be off because the gyroscope disagrees with
  // the other sensors and has not been left out yet (0 when they agree).
  double headingDoubtDeg() const {
    return biasUnlearnable_ || gyroStuck_ ? 0.0 : std::fmax(std::fmax(doubtDeg_, repeatDoubtDeg_), departedDoubtDeg_);
  }
  // Whether the gyroscope is under suspicion (it disagrees with the other
  // sensors, or a repeated reading turned the attitude): its turns then
  // teach nothing. A reading that merely departed from the recent rate for
  // a moment (a device stopped short) is doubted, not suspected.
  bool gyroSuspect() const { return !biasUnlearnable_ && !gyroStuck_ && std::fmax(doubtDeg_, repeatDoubtDeg_) > 0.0; }

 private:
  void watchGyroscope(double dt, const Vec3& gyro);
  void watchJump(double dt, const Vec3& acc, const Vec3* calibratedField, const Vec3* gyro);
  void watchField(double dt, const Vec3& raw);
  void compareBlocks(double dt, const Vec3& gyro, const Vec3& acc, const Vec3* calibratedField);
  double turnSeenDeg() const;

  HealthSettings settings_;
  Vec3 gravity_;           // g, low-passed accelerometer
  bool haveGravity_ = false;
  Vec3 lastField_;         // gauss, raw
  bool haveField_ = false;
  Vec3 field_;             // gauss, calibrated, low-passed as gravity is
  bool haveCalibratedField_ = false;
  Vec3 lastAcc_;           // g, the last sample set's
  Vec3 lastCalibrated_;    // gauss, the last calibrated field
  // Gyroscope repeats.
  bool haveGyro_ = false;
  Vec3 lastGyro_;
  double repeatTime_ = 0.0;   // s the current reading has repeated
  Vec3 repeatGravity_;        // gravity and ...
  Vec3 repeatField_;          // ... the calibrated field when the repeat began
  bool repeatFieldKnown_ = false;
  double repeatDoubtDeg_ = 0.0;
  Vec3 repeatRateBefore_;        // rad/s, the low-passed rate when the repeat began
  double departedDoubtDeg_ = 0.0;  // deg that rate would have turned since, while the others cannot tell yet
  double repeatLagRad_ = 0.0;    // rad the low-passed directions lagged when the repeat began  // deg the other sensors' turn differs from the repeated reading's
  bool gyroStuck_ = false;
  // Field axes.
  double pinTime_[3] = {0.0, 0.0, 0.0};   // s each axis has held its magnitude
  Vec3 pinField_[3];                      // raw field when each pin began
  Vec3 pinGravity_[3];                    // gravity then
  Vec3 pinTurn_[3];                       // rad, gyroscope rotation since then
  int pinnedAxes_ = 0;                    // bit per pinned axis
  double fieldHealthyTime_ = 1e300;       // s since the last pinned axis (healthy from the start)
  // Blocks: gravity and the field seen in the frame the gyroscope carries
  // from the block's start (fixed on earth, they stay put there if the
  // gyroscope is right), their means over the block's first and last
  // windows.
  bool blockStarted_ = false;
  double blockTime_ = 0.0;    // s
  Vec3 gyroLp_;               // rad/s, low-passed as gravity is
  Quat blockFrame_;           // device now to device at the block's start, as the gyroscope says
  Vec3 accFirst_, accLast_;   // g s, sums of the accelerometer in that frame
  double accFirstS_ = 0.0, accLastS_ = 0.0;
  Vec3 fieldFirst_, fieldLast_;  // gauss s, the same for the calibrated field
  double fieldFirstS_ = 0.0, fieldLastS_ = 0.0;
  bool blockFieldValid_ = true;  // no calibration change within the block
  Vec3 accMid_, fieldMid_;       // the two low-passed in that frame, between the windows
  bool haveFieldMid_ = false;
  bool fieldTrusted_ = false;
  double blockTurn_ = 0.0;    // rad the gyroscope turned through in the block
  double kernel_[3][3] = {};  // s, the block's frame turns integrated with the weight the windows' means give
                              // them: a bias b (device frame) turns gravity's mean by kernel_ * b between them
  // What the blocks said of the bias (device frame): information (s/rad)^2
  // and its product with the estimate, both fading over biasMemoryS.
  double info_[3][3] = {};
  Vec3 infoBias_;
  Vec3 biasSeen_;              // rad/s, the estimate
  double biasSeenSigma_ = 0.0; // rad/s, its 1 sigma along itself
  int badBlocks_ = 0;          // blocks in a row that disagreed beyond a bias within reach
  double badBlocksDeg_ = 0.0;  // deg of disagreement in the blocks since the bias went beyond reach
  double doubtDeg_ = 0.0;
  bool biasUnlearnable_ = false;
  bool takenBack_ = false;
  bool jumped_ = false;
  double sinceField_ = 0.0;  // s since the last sample set with a field
};

}  // namespace quelta::compass
