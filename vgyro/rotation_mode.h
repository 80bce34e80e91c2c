// SPDX-License-Identifier: Apache-2.0
// Still / rotating decision with hysteresis. The device turns "rotating" after
// 10 consecutive samples with some rate component above 0.1 rad/s, or at once
// when the angle integrated about any axis reaches 2 degrees; it turns "still"
// only after 20 consecutive samples with every component at most 0.1 rad/s.
#pragma once

#include <cstdint>

namespace quelta {

class RotationModeDetector {
 public:
  // w: rate in rad/s; restart != 0 resets first; dt in s. Returns the mode.
  uint8_t update(const float* w, int32_t restart, float dt);

 private:
  int32_t moveCount_ = 0;                    // consecutive moving samples
  int32_t stillCount_ = 0;                   // consecutive still samples
  uint8_t rotating_ = 0;                     // the mode: 0 still, 1 rotating
  float angleSum_[3] = {0.0f, 0.0f, 0.0f};   // rad per axis since the last decision
};

}  // namespace quelta
