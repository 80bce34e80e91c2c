// SPDX-License-Identifier: Apache-2.0
// What the library reported for one sample of a replay.
#pragma once

#include <array>
#include <cstdint>

namespace quelta::replay {

// What the compass engine (libquelta) reports beyond the columns it shares
// with the fixed pipelines; unused by them.
struct CompassRow {
  std::array<float, 9> softIron{1, 0, 0, 0, 1, 0, 0, 0, 1};  // row-major: calibrated = softIron * (raw - offset)
  int32_t model = 0;              // 0 none, 1 sphere, 2 ellipsoid
  float disturbance = 0.0f;       // score: 0 undisturbed, 1 at the flag's threshold
  bool disturbed = false;
  float coverage = 0.0f;          // share of directions seen, 0..1
  float residual = 0.0f;          // gauss, robust rms of the fit
  float expectedStrength = 0.0f;  // gauss, 0 without a location
  float fittedStrength = 0.0f;    // gauss
  int32_t reason = 0;             // why the calibration is not yet good (0: it is)
  float calibrationHeadingError = 0.0f;  // deg, heading error the calibration leaves (estimate)
  float headingAccuracy = 0.0f;          // deg, estimated heading error of the output
  int32_t outputAccuracy = 0;            // 0..3, of the attitude as phones report it (heading and calibration)
  uint32_t flags = 0;                    // calibrating, disturbed, accelerating, ...
};

struct ReplayRow {
  double t = 0.0;
  int32_t accuracy = 0;         // 0..3
  int32_t poolCount = 0;        // samples in the calibration pool
  bool newCalibration = false;  // a full fit or refit was accepted on this sample
  bool saturation = false;      // a magnetometer saturation was reported
  bool fieldMissing = false;    // the recording had no field reading on this row
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
  CompassRow compass;                  // the compass engine only
};

}  // namespace quelta::replay
