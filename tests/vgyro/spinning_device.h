// SPDX-License-Identifier: Apache-2.0
// A simulated device turning at a constant rate about a fixed axis of its own
// frame, sampled at a fixed interval, with a calibrated (offset-free) field.
#pragma once

#include <cmath>

#include "tools/sim/device_sim.h"

namespace quelta::test {

struct SpinningDevice {
  sim::Device device;
  sim::Quat start;
  sim::Vec3 axis;       // unit axis in device coordinates
  double rate = 0.0;    // rad/s, counter-clockwise about axis
  double interval = 0.01;

  SpinningDevice(sim::Quat startAttitude, sim::Vec3 unitAxis, double rateRadPerS, double magNoise)
      : start(startAttitude), axis(unitAxis), rate(rateRadPerS) {
    device.hardIron = {0.0, 0.0, 0.0};
    device.magNoiseGauss = magNoise;
  }

  // Device-to-ENU attitude at sample i: the start attitude followed by a turn
  // about the device's own axis.
  sim::Quat attitude(int i) const {
    return sim::quatMultiply(start, sim::quatFromAxisAngle(axis, rate * interval * i));
  }

  sim::SensorSample read(int i) { return device.read(attitude(i)); }
};

// Angle in radians between two rotations given as (x, y, z, w) floats and a
// simulator quaternion; q and -q are the same rotation.
inline double angleBetween(const float* xyzw, const sim::Quat& truth) {
  const double d = xyzw[3] * truth.w + xyzw[0] * truth.x + xyzw[1] * truth.y + xyzw[2] * truth.z;
  const double c = d < 0 ? -d : d;
  return 2.0 * std::acos(c > 1.0 ? 1.0 : c);
}

}  // namespace quelta::test
