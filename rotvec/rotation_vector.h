// SPDX-License-Identifier: Apache-2.0
// Rotation vector fusion: the device attitude from one field and one
// acceleration sample per call, smoothed by two cascaded moving means and
// published as a quaternion (x, y, z, w) that only moves once it has changed
// by the hold threshold, with the gravity direction and linear acceleration.
#pragma once

#include <cstdint>

#include "core/ring.h"

namespace quelta {

struct RotationVectorSettings {
  // Hold threshold, in quaternion components (dimensionless): the published
  // value stays while x, y and z have all moved by less. The value a bound
  // threshold (movethd) starts with; an instance reads the bound one.
  float moveThreshold;
  // Floor under the sine of the angle between field and gravity
  // (dimensionless), so that a field parallel to gravity stays finite.
  float minSinFieldGravity;
  // Floor under a smoothed input's norm when it is normalised, in the
  // input's own units (any: only directions matter).
  float minInputNorm;
};

inline constexpr RotationVectorSettings kDefaultRotationVectorSettings{0.005f, 0.0001f, 1e-7f};

// Where an instance publishes its results and reads its hold threshold. The
// process-wide instance points these at the exported data objects, so a host
// may read the results directly and change the threshold between calls.
struct RotationVectorOutputs {
  float* rov;            // 4 floats: x, y, z, w (unit quaternion)
  float* gravity;        // 3 floats: unit up direction in device axes
  float* linear;         // 3 floats: the call's acceleration minus gravity, input units
  float* moveThreshold;  // hold threshold (RotationVectorSettings), read at every call
};

class RotationVectorFusion {
 public:
  static constexpr int32_t kSampleWindow = 30;  // first stage: samples
  static constexpr int32_t kMeanWindow = 6;     // second stage: first-stage means

  constexpr explicit RotationVectorFusion(
      RotationVectorOutputs outputs,
      const RotationVectorSettings& settings = kDefaultRotationVectorSettings)
      : out_(outputs), settings_(settings) {}
  RotationVectorFusion(const RotationVectorFusion&) = delete;
  RotationVectorFusion& operator=(const RotationVectorFusion&) = delete;

  // CalcQueltaRotVec. Log mode 1 writes the input and output lines.
  void update(const float* mag, const float* acc, int32_t logMode);

  // GetCalRov, GetQueltaGravityAcc, GetQueltaLinearAcc. The last two log the
  // copied values when the latest update ran with log mode 1.
  void copyRotationVector(float* dst) const;
  void copyGravity(float* dst) const;
  void copyLinearAcceleration(float* dst) const;

  // One field and acceleration sample (field x, y, z, acceleration x, y, z)
  // padded with two zero lanes, so that a sum over entries adds all six
  // components side by side.
  struct alignas(16) SensorPair {
    float lane[8];
  };

 private:
  // Each stage returns true when it produced a mean into dst.
  bool firstStage(const SensorPair& sample, SensorPair& dst);
  bool secondStage(const SensorPair& firstMean, SensorPair& dst);
  void publish(const float* quat);
  bool holdsPrevious(const float* quat) const;

  RotationVectorOutputs out_;
  RotationVectorSettings settings_;
  int32_t lastLogMode_ = 0;
  Ring<SensorPair, kSampleWindow> samples_;
  Ring<SensorPair, kMeanWindow> means_;
  float quatPrev_[4] = {1.0f, 0.0f, 0.0f, 0.0f};  // last published, w, x, y, z
};

// An instance that owns its outputs and threshold, for hosts fusing more than
// one sensor pair. Not copyable: the fusion points into it.
class OwnedRotationVector {
 public:
  float rov[4] = {};
  float gravity[3] = {};
  float linear[3] = {};
  float moveThreshold = kDefaultRotationVectorSettings.moveThreshold;
  RotationVectorFusion fusion{RotationVectorOutputs{rov, gravity, linear, &moveThreshold}};

  OwnedRotationVector() = default;
  OwnedRotationVector(const OwnedRotationVector&) = delete;
  OwnedRotationVector& operator=(const OwnedRotationVector&) = delete;
};

}  // namespace quelta
