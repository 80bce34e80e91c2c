// SPDX-License-Identifier: Apache-2.0
#include "tools/soak/disturbance.h"

#include <cmath>
#include <limits>

namespace quelta::soak {

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::kMagNaN: return "NaN burst, magnetometer";
    case Kind::kAccNaN: return "NaN burst, accelerometer";
    case Kind::kBothInfinite: return "infinity burst, both sensors";
    case Kind::kMagDead: return "dead magnetometer (zeros)";
    case Kind::kAccDead: return "dead accelerometer (zeros)";
    case Kind::kFrozenAxis: return "frozen magnetometer axis";
    case Kind::kHardIronJump: return "hard-iron jump";
    case Kind::kTransientField: return "transient magnetic field";
    case Kind::kCorruptStoredCalibration: return "corrupted stored calibration";
    default: return "?";
  }
}

Disturbance plan(Kind kind, int64_t periodStart, int64_t period, sim::Random& random) {
  Disturbance d;
  d.kind = kind;
  d.start = periodStart + static_cast<int64_t>(random.uniform(0.0, static_cast<double>(period) / 2.0));
  int64_t length = 1;
  switch (kind) {
    case Kind::kMagNaN:
    case Kind::kAccNaN:
    case Kind::kBothInfinite: length = 1 + static_cast<int64_t>(random.uniform(0.0, 60.0)); break;
    case Kind::kMagDead:
    case Kind::kAccDead: length = 50 + static_cast<int64_t>(random.uniform(0.0, 500.0)); break;
    case Kind::kFrozenAxis: length = 300 + static_cast<int64_t>(random.uniform(0.0, 300.0)); break;
    case Kind::kTransientField: length = 100 + static_cast<int64_t>(random.uniform(0.0, 400.0)); break;
    default: break;
  }
  d.end = d.start + length;
  const sim::Vec3 dir = sim::fibonacciDirection(static_cast<int>(random.uniform(0.0, 100.0)), 100);
  const double size =
      kind == Kind::kTransientField ? random.uniform(0.5, 3.0) : random.uniform(0.1, 1.5);
  d.field = {dir.x * size, dir.y * size, dir.z * size};
  d.frozen = static_cast<float>(random.uniform(-0.6, 0.6));
  return d;
}

void applyToDevice(const Disturbance& d, sim::Device& device) {
  if (d.kind != Kind::kHardIronJump) return;
  // A new magnet in the device for good, kept within a plausible range.
  device.hardIron = {std::fmod(device.hardIron.x + d.field.x, 1.0),
                     std::fmod(device.hardIron.y + d.field.y, 1.0),
                     std::fmod(device.hardIron.z + d.field.z, 1.0)};
}

void applyToSample(const Disturbance& d, int64_t t, sim::SensorSample& s) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  switch (d.kind) {
    case Kind::kMagNaN: s.mag[t % 3] = nan; break;
    case Kind::kAccNaN: s.acc[0] = s.acc[1] = s.acc[2] = nan; break;
    case Kind::kBothInfinite:
      s.mag[1] = inf;
      s.acc[2] = -inf;
      break;
    case Kind::kMagDead: s.mag[0] = s.mag[1] = s.mag[2] = 0.0f; break;
    case Kind::kAccDead: s.acc[0] = s.acc[1] = s.acc[2] = 0.0f; break;
    case Kind::kFrozenAxis: s.mag[2] = d.frozen; break;
    case Kind::kTransientField:
      s.mag[0] += static_cast<float>(d.field.x);
      s.mag[1] += static_cast<float>(d.field.y);
      s.mag[2] += static_cast<float>(d.field.z);
      break;
    default: break;
  }
}

}  // namespace quelta::soak
