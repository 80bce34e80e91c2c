// What the library reported for one sample of a replay.
#pragma once

#include <array>
#include <cstdint>

namespace quelta::replay {

struct ReplayRow {
  double t = 0.0;
  int32_t accuracy = 0;         // 0..3
  int32_t poolCount = 0;        // samples in the calibration pool
  bool newCalibration = false;  // a full fit or refit was accepted on this sample
  bool saturation = false;      // a magnetometer saturation was reported
  std::array<float, 3> offset{};
  float radius = 0.0f;
  std::array<float, 3> geometry{};  // horizontal, vertical intensity (gauss), inclination (deg)
  std::array<float, 3> rawField{};  // field before calibration, after the axis matrix
  std::array<float, 3> calField{};
  std::array<float, 3> orientation{};  // azimuth, pitch, roll, degrees
  std::array<float, 3> vgyro{};        // virtual gyroscope, rad/s
  std::array<float, 4> vgyroQuat{};    // its attitude, x, y, z, w
  std::array<float, 4> rotVec{};       // rotation vector x, y, z, w
  std::array<float, 3> gravity{};      // unit gravity direction
  std::array<float, 3> linearAcc{};    // g
};

}  // namespace quelta::replay
