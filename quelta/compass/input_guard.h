// SPDX-License-Identifier: Apache-2.0
// The compass's door: every sample set is checked against what a sensor can
// deliver before any state sees it, and the host's clock is turned into a
// time base the filters can trust.
//
// Plausibility: a value no hand-held sensor can report (not finite, a rate
// beyond the largest gyroscope full scale, a field beyond any magnetometer
// reading after calibration, a specific force beyond the largest
// accelerometer full scale) refuses the whole sample set; nothing is
// remembered of it.
//
// Time: the compass runs on its own clock, the host's time plus an offset
// that is zero until the host's clock misbehaves. A step back or a repeated
// time restarts the time base (the compass's clock moves on by one sample
// period; nothing else changes: the samples themselves are still a
// continuous stream). A step forward beyond a few sample periods is a gap:
// nothing is propagated across it and the compass's clock moves on by one
// period (the compass then finds the attitude again unless the device is
// where it was; the calibration is kept).
//
// No heap; the whole state lives in the object.
#pragma once

#include <cstdint>

#include "quelta/compass/compass_math.h"

namespace quelta::compass {

// Why a sample set was refused. The values are the C interface's codes.
enum class Refusal : int32_t {
  None = 0,
  Time = -2,           // the time is not finite
  Accelerometer = -3,  // not finite, or a specific force beyond the limit
  Field = -4,          // not finite, or beyond the limit once calibrated
  Gyroscope = -5,      // not finite, or a rate beyond the limit on some axis
};

struct GuardSettings {
  double maxRateDegPerS = 2000.0;  // deg/s on any axis: the largest full scale of hand-held gyroscopes
  double maxFieldGauss = 10.0;     // gauss, calibrated |field|: 15 times the strongest field on earth
  double maxSpecificForceG = 32.0; // g, |acc|: the largest full scale of hand-held accelerometers
  double gapPeriods = 5.0;         // a forward step longer than this many sample periods is a gap ...
  double gapFloorS = 0.1;          // s ... and never one shorter than this
  double periodTau = 2.0;          // s, smoothing of the sample period estimate
  double firstPeriodS = 0.02;      // s, the period assumed until two samples have been seen
};

// Output flag: this sample set restarted the time base or followed a gap
// (next to the filter's CompassFlags).
constexpr uint32_t kFlagTimeRestart = 1u << 8;

// What admitting one sample set did to the time base.
struct TimeStep {
  double t = 0.0;        // s, the compass's own time for this sample set
  double dt = 0.0;       // s since the last accepted set on that time (0 for the first)
  bool restart = false;  // the host's time stepped back or repeated
  bool gap = false;      // the host's time jumped forward: the attitude is to be found again
};

class InputGuard {
 public:
  explicit InputGuard(const GuardSettings& settings = GuardSettings()) : settings_(settings) {}

  void reset();  // forgets the time base, keeps the settings

  // Checks one sample set; changes nothing. field is the calibrated field
  // (null when the set has none).
  Refusal check(double t, const Vec3& acc, const Vec3* calibratedField, const Vec3* gyro) const;

  // Takes the host's time of an accepted sample set onto the time base.
  TimeStep admit(double t);

  double periodS() const { return period_; }
  int64_t restarts() const { return restarts_; }
  int64_t gaps() const { return gaps_; }

 private:
  GuardSettings settings_;
  bool started_ = false;
  bool periodKnown_ = false;
  double lastHost_ = 0.0;   // s, host's time of the last accepted set
  double lastOwn_ = 0.0;    // s, the compass's time of it
  double offset_ = 0.0;     // s, own time minus host time
  double period_ = 0.0;     // s, smoothed interval between sample sets
  int64_t restarts_ = 0;
  int64_t gaps_ = 0;
};

}  // namespace quelta::compass
