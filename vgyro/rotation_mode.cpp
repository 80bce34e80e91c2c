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
  auto clearAngle = [this] { angleSum[0] = angleSum[1] = angleSum[2] = 0.0f; };
  if (restart != 0) {
    moveCount = 0;
    stillCount = 0;
    rotating = 0;
    clearAngle();
  }

  bool triggered = false;
  for (int i = 0; i < 3; ++i) {
    angleSum[i] = angleSum[i] + w[i] * dt;
  }
  for (int i = 0; i < 3; ++i) {
    // A sum that is not a number never triggers.
    if (angleSum[i] >= kAngleTriggerRad || angleSum[i] <= -kAngleTriggerRad) triggered = true;
  }
  if (triggered) {
    moveCount = 0;
    stillCount = 0;
    clearAngle();
    if (rotating == 0) {
      rotating = 1;
      return rotating;
    }
  }

  bool moving = false;
  for (int i = 0; i < 3; ++i) {
    if (static_cast<double>(std::fabs(w[i])) > kMovingRate) moving = true;
  }
  if (moving) {
    const int32_t run = moveCount;
    moveCount = run + 1;
    stillCount = 0;
    if (run >= kMovingRun - 1) {
      moveCount = 0;
      clearAngle();
      rotating = 1;
    }
  } else {
    const int32_t run = stillCount;
    stillCount = run + 1;
    moveCount = 0;
    if (run >= kStillRun - 1) {
      stillCount = 0;
      clearAngle();
      rotating = 0;
    }
  }
  return rotating;
}

}  // namespace quelta
