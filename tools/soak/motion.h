// SPDX-License-Identifier: Apache-2.0
// The soak's user: phases of tumbling the device (up to 3 rad/s, a little
// linear acceleration) and of rest, at a fixed sample interval.
#pragma once

#include <cstdint>

#include "tools/sim/device_sim.h"

namespace quelta::soak {

class Motion {
 public:
  Motion(uint64_t seed, double dt) : random_(seed), dt_(dt) {}

  void step();

  sim::Quat attitude() const { return attitude_; }
  sim::Vec3 linearAcc() const { return linear_; }
  // Sample sets since the device came to rest (0 while moving).
  int64_t stillFor() const { return moving_ ? 0 : stillFor_; }
  // Turning rate, rad/s.
  double rate() const;

 private:
  void startPhase();

  sim::Random random_;
  double dt_;
  sim::Quat attitude_ = sim::attitudeFromHeadingPitchRoll(30.0, 10.0, -5.0);
  sim::Vec3 rate_;
  sim::Vec3 linear_;
  bool moving_ = true;
  int64_t phaseLeft_ = 0;
  int64_t stillFor_ = 0;
};

}  // namespace quelta::soak
