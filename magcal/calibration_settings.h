// SPDX-License-Identifier: Apache-2.0
// The hard-iron calibration's settings, with the values they hold from
// library load until AlgoInitial replaces them.
#pragma once

#include <cstdint>

namespace quelta {

struct CalibrationSettings {
  int32_t minPoolCount = 6;       // samples: pool count from which an accepted partial fit grades 1
  int32_t midPoolCount = 16;      // samples: ... grades 2
  int32_t fullPoolCount = 32;     // samples: pool count that triggers the full fit
  float minDistanceEarly = 0.1f;  // gauss: closest spacing of pooled samples, early phase
  float minDistanceLate = 0.1f;   // gauss: ... late phase
  float ratioLow = 0.85f;         // 1: least distance / radius of a pooled sample from a fit
  float ratioHigh = 1.15f;        // 1: largest distance / radius
  float maxDistance = 1.4f;       // gauss: farthest spacing of pooled samples
  float accMovingVariance = 0.1f;     // (acc unit)^2: above it on any axis the device moves
  float probeFrozenVariance = 2e-5f;  // gauss^2: below it a probe axis is frozen
  float accStillVariance = 2e-4f;     // (acc unit)^2: below it on every axis the device is still
  int32_t sampleRate = 50;            // samples per second
};

inline constexpr CalibrationSettings kDefaultCalibrationSettings{};

// A calibration the host kept from an earlier run.
struct StoredCalibration {
  float offset[3];  // gauss; all zero (either sign) means "none"
  float radius;     // gauss
};

}  // namespace quelta
