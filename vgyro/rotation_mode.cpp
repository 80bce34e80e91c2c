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
  auto clearAngle = [this] { fRotAngleSum[0] = fRotAngleSum[1] = fRotAngleSum[2] = 0.0f; };
  if (restart != 0) {
    iMoveCount = 0;
    iStillCount = 0;
    bRotationMode = 0;
    clearAngle();
  }

  bool triggered = false;
  for (int i = 0; i < 3; ++i) {
    fRotAngleSum[i] = fRotAngleSum[i] + w[i] * dt;
  }
  for (int i = 0; i < 3; ++i) {
    // A sum that is not a number never triggers.
    if (fRotAngleSum[i] >= kAngleTriggerRad || fRotAngleSum[i] <= -kAngleTriggerRad) triggered = true;
  }
  if (triggered) {
    iMoveCount = 0;
    iStillCount = 0;
    clearAngle();
    if (bRotationMode == 0) {
      bRotationMode = 1;
      return bRotationMode;
    }
  }

  bool moving = false;
  for (int i = 0; i < 3; ++i) {
    if (static_cast<double>(std::fabs(w[i])) > kMovingRate) moving = true;
  }
  if (moving) {
    const int32_t run = iMoveCount;
    iMoveCount = run + 1;
    iStillCount = 0;
    if (run >= kMovingRun - 1) {
      iMoveCount = 0;
      clearAngle();
      bRotationMode = 1;
    }
  } else {
    const int32_t run = iStillCount;
    iStillCount = run + 1;
    iMoveCount = 0;
    if (run >= kStillRun - 1) {
      iStillCount = 0;
      clearAngle();
      bRotationMode = 0;
    }
  }
  return bRotationMode;
}

}  // namespace quelta
