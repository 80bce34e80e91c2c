// SPDX-License-Identifier: Apache-2.0
// The soak's disturbances: what goes wrong with the sensors, the device or
// the host, one at a time, each for a while.
#pragma once

#include <cstdint>

#include "tools/sim/device_sim.h"

namespace quelta::soak {

enum class Kind {
  kMagNaN,                    // magnetometer components read NaN, 1-60 sample sets
  kAccNaN,                    // accelerometer reads NaN, 1-60
  kBothInfinite,              // one infinite component in each, 1-60
  kMagDead,                   // magnetometer reads zeros, 50-550
  kAccDead,                   // accelerometer reads zeros, 50-550
  kFrozenAxis,                // one magnetometer axis stuck, 300-600
  kHardIronJump,              // the device's hard-iron offset changes for good
  kTransientField,            // a magnet passes by: 0.5-3 gauss for 100-500
  kCorruptStoredCalibration,  // the host hands over a NaN offset
  kCount
};

constexpr int kKindCount = static_cast<int>(Kind::kCount);

const char* kindName(Kind kind);

struct Disturbance {
  Kind kind = Kind::kMagNaN;
  int64_t start = -1;
  int64_t end = -1;  // first sample set after it
  sim::Vec3 field;   // transient field or hard-iron change, gauss
  float frozen = 0.0f;

  bool activeAt(int64_t t) const { return t >= start && t < end; }
};

// The disturbance of kind for a period beginning at periodStart: it starts
// somewhere in the period's first half.
Disturbance plan(Kind kind, int64_t periodStart, int64_t period, sim::Random& random);

// Changes to the device made when the disturbance starts (a hard-iron jump).
void applyToDevice(const Disturbance& d, sim::Device& device);

// What the sensors read while it lasts.
void applyToSample(const Disturbance& d, int64_t t, sim::SensorSample& s);

}  // namespace quelta::soak
