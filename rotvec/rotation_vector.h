// Rotation vector fusion: the device attitude from one field and one
// acceleration sample per call, smoothed by two cascaded moving means and
// published as a quaternion (x, y, z, w) that only moves once it has changed
// by the hold threshold, with the gravity direction and linear acceleration.
#pragma once

#include <cstdint>

namespace quelta {

// Where an instance publishes its results and reads its hold threshold. The
// process-wide instance points these at the exported data objects, so a host
// may read the results directly and change the threshold between calls.
struct RotationVectorOutputs {
  float* rov;            // 4 floats: x, y, z, w
  float* gravity;        // 3 floats: unit up direction in device axes
  float* linear;         // 3 floats: the call's acceleration minus gravity
  float* moveThreshold;  // hold threshold, read at every call
};

constexpr float kDefaultMoveThreshold = 0.005f;

class RotationVectorFusion {
 public:
  static constexpr int32_t kSampleWindow = 30;  // first stage: samples
  static constexpr int32_t kMeanWindow = 6;     // second stage: first-stage means
  static constexpr int32_t kSlotSize = 6;       // field x, y, z, acceleration x, y, z

  constexpr explicit RotationVectorFusion(RotationVectorOutputs outputs) : out_(outputs) {}
  RotationVectorFusion(const RotationVectorFusion&) = delete;
  RotationVectorFusion& operator=(const RotationVectorFusion&) = delete;

  // CalcQueltaRotVec.
  void update(const float* mag, const float* acc, int32_t logMode);

  // GetCalRov, GetQueltaGravityAcc, GetQueltaLinearAcc. The last two log the
  // copied values when the latest update ran with log mode 1.
  void copyRotationVector(float* out) const;
  void copyGravity(float* out) const;
  void copyLinearAcceleration(float* out) const;

 private:
  // Each stage returns true when it produced a mean into out.
  bool firstStage(const float* sample, float* out);
  bool secondStage(const float* firstMean, float* out);
  void publish(const float* quat);
  bool holdsPrevious(const float* quat) const;

  RotationVectorOutputs out_;
  int32_t logMode_ = 0;
  // Newest sample in slot 0.
  float sampleHistory_[kSampleWindow][kSlotSize] = {};
  int32_t sampleCount_ = 0;
  float meanHistory_[kMeanWindow][kSlotSize] = {};
  int32_t meanCount_ = 0;
  float quat_[4] = {};                   // this call's quaternion, w, x, y, z
  float quatPrev_[4] = {1.0f, 0.0f, 0.0f, 0.0f};  // last published, w, x, y, z
};

// An instance that owns its outputs and threshold, for tests and for hosts
// fusing more than one sensor pair. Not copyable: the fusion points into it.
class OwnedRotationVector {
 public:
  float rov[4] = {};
  float gravity[3] = {};
  float linear[3] = {};
  float moveThreshold = kDefaultMoveThreshold;
  RotationVectorFusion fusion{RotationVectorOutputs{rov, gravity, linear, &moveThreshold}};

  OwnedRotationVector() = default;
  OwnedRotationVector(const OwnedRotationVector&) = delete;
  OwnedRotationVector& operator=(const OwnedRotationVector&) = delete;
};

// The process-wide instance behind the C interface, bound to fOutRov,
// fGravityAcc, fLinearAcc and movethd.
RotationVectorFusion& defaultRotationVector();

}  // namespace quelta
