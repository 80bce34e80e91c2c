// SPDX-License-Identifier: Apache-2.0
#include "vgyro/rotation_mode.h"

#include <cmath>

namespace quelta {

namespace {
constexpr float kAngleTriggerRad = 0.034906585f;  // 2 degrees
constexpr double kMovingRate = 0.1;               // rad/s, per axis
constexpr int32_t kMovingRun = 10;
constexpr int32_t kStillRun = 20;
}  // namespace

uint8_t RotationModeDetector::update(const float* w, int32_t restart, float dt) {
  auto clearAngle = [this] { angleSum_[0] = angleSum_[1] = angleSum_[2] = 0.0f; };
  if (restart != 0) {
    moveCount_ = 0;
    stillCount_ = 0;
    rotating_ = 0;
    clearAngle();
  }

  bool triggered = false;
  for (int i = 0; i < 3; ++i) {
    angleSum_[i] = angleSum_[i] + w[i] * dt;
  }
  for (int i = 0; i < 3; ++i) {
    // A sum that is not a number never triggers.
    if (angleSum_[i] >= kAngleTriggerRad || angleSum_[i] <= -kAngleTriggerRad) triggered = true;
  }
  if (triggered) {
    moveCount_ = 0;
    stillCount_ = 0;
    clearAngle();
    if (rotating_ == 0) {
      rotating_ = 1;
      return rotating_;
    }
  }

  bool moving = false;
  for (int i = 0; i < 3; ++i) {
    if (static_cast<double>(std::fabs(w[i])) > kMovingRate) moving = true;
  }
  if (moving) {
    const int32_t run = moveCount_;
    moveCount_ = run + 1;
    stillCount_ = 0;
    if (run >= kMovingRun - 1) {
      moveCount_ = 0;
      clearAngle();
      rotating_ = 1;
    }
  } else {
    const int32_t run = stillCount_;
    stillCount_ = run + 1;
    moveCount_ = 0;
    if (run >= kStillRun - 1) {
      stillCount_ = 0;
      clearAngle();
      rotating_ = 0;
    }
  }
  return rotating_;
}

}  // namespace quelta
