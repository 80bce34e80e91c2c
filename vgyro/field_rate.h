// SPDX-License-Identifier: Apache-2.0
// Angular rate from the turning of the field alone: the axis about which the
// last three field samples turn and the angle between the newest two. Keeps a
// memory of the previous axis, so that a single wild axis estimate does not
// flip the result: up to five consecutive calls keep the previous axis.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"
#include "core/vec3.h"

namespace quelta {

class FieldRateEstimator {
 public:
  // Rate (rad/s with dt in s) in device axes from the newest three samples of
  // buf; missing samples read as zero vectors. Turns below 5 degrees between
  // the successive differences count as no rotation.
  void rate(const DataBuffer& buf, float* out, float dt);

 private:
  Vec3f previousAxis_;             // unit axis of the previous call, zero after no turn
  uint8_t previousAxisValid_ = 0;  // previousAxis_ has been written
  int32_t axisHoldCount_ = 0;      // consecutive calls that kept the previous axis
};

}  // namespace quelta
