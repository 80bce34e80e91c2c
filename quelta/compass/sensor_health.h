// Sensor health: a gyroscope or magnetometer that has stopped telling the
// truth, judged from the data alone, is left out while the fault lasts and
// taken back when it recovers.
//
// - A stuck or dead gyroscope repeats one reading exactly (zeros included)
//   while the field or gravity turns by more than that reading explains.
//   Noise makes two real readings differ; the other sensors say whether a
//   repeated one is still right (a still device reads the same either way).
// - A pinned field axis holds one magnitude exactly (stuck, or clipped at the
//   sensor's full scale) while the device turns: another axis moves, or the
//   gyroscope or gravity turns. The field comes back once no axis has been
//   pinned for a while, so a clipping sensor that dips in and out of its
//   range stays out.
// - A gyroscope whose bias the filter cannot learn (its estimate sits at the
//   limit of the plausible range) is left out; the compass then learns the
//   excess from the tracked attitude and takes the gyroscope back once it is
//   plausible again.
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
  double turnEvidenceDeg = 15.0;     // deg the field or gravity must turn beyond what the reading explains
  double earthFieldMaxGauss = 0.7;   // gauss, above the strongest earth field: bounds a turn from below
  double pinnedTimeS = 0.3;          // s a field axis must hold one magnitude ...
  double pinnedSpreadGauss = 0.05;   // gauss ... while another axis moves this far (or the device turns)
  double fieldRecoveryS = 2.0;       // s without a pinned axis before the field is taken back
  double gravityTauS = 0.25;         // s, low-pass of the accelerometer for gravity's direction
  double biasLimit = 0.195;          // rad/s, the filter's bias estimate at this on an axis: not learnable ...
  double biasLimitTimeS = 5.0;       // s ... when it sits there this long
  double excessTauS = 10.0;          // s, the compass's own estimate of the bias the filter cannot hold
  double excessPlausible = 0.1;      // rad/s, the gyroscope is taken back once its excess is below this
};

class SensorHealth {
 public:
  explicit SensorHealth(const HealthSettings& settings = HealthSettings()) : settings_(settings) {}

  void reset() { *this = SensorHealth(settings_); }

  // One accepted sample set: dt in s on the compass's time base, acc in g,
  // the raw field in gauss and the gyroscope in rad/s (each null when the
  // set has none).
  void observe(double dt, const Vec3& acc, const Vec3* rawField, const Vec3* gyro);
  // After the filter ran: its bias estimate (rad/s) and, while the gyroscope
  // is left out, its derived rate (rad/s, device frame). Returns true when
  // the gyroscope has just been taken back after an unlearnable bias: the
  // filter's own bias is then stale and it should start over.
  bool afterFilter(double dt, const Vec3& filterBias, const Vec3& derivedRate, const Vec3* gyro);

  bool gyroUsable() const { return !gyroStuck_ && !biasUnlearnable_; }
  bool fieldUsable() const { return fieldHealthyTime_ >= settings_.fieldRecoveryS; }
  bool gyroStuck() const { return gyroStuck_; }
  bool biasUnlearnable() const { return biasUnlearnable_; }
  bool fieldPinned() const { return pinnedAxes_ != 0; }

 private:
  void watchGyroscope(double dt, const Vec3& gyro);
  void watchField(double dt, const Vec3& raw);
  double turnSeenDeg(const Vec3& gravityRef, const Vec3* fieldRef) const;

  HealthSettings settings_;
  Vec3 gravity_;           // g, low-passed accelerometer
  bool haveGravity_ = false;
  Vec3 lastField_;         // gauss, raw
  bool haveField_ = false;
  // Gyroscope repeats.
  bool haveGyro_ = false;
  Vec3 lastGyro_;
  double repeatTime_ = 0.0;   // s the current reading has repeated
  Vec3 repeatGravity_;        // gravity and ...
  Vec3 repeatField_;          // ... the raw field when the repeat began
  bool repeatFieldKnown_ = false;
  bool gyroStuck_ = false;
  // Field axes.
  double pinTime_[3] = {0.0, 0.0, 0.0};   // s each axis has held its magnitude
  Vec3 pinField_[3];                      // raw field when each pin began
  Vec3 pinGravity_[3];                    // gravity then
  Vec3 pinTurn_[3];                       // rad, gyroscope rotation since then
  int pinnedAxes_ = 0;                    // bit per pinned axis
  double fieldHealthyTime_ = 1e300;       // s since the last pinned axis (healthy from the start)
  // Bias beyond the filter's range.
  double biasAtLimit_ = 0.0;  // s
  bool biasUnlearnable_ = false;
  Vec3 excess_;               // rad/s, gyroscope minus the derived rate, smoothed
  double excessTime_ = 0.0;   // s of learning the excess
};

}  // namespace quelta::compass
