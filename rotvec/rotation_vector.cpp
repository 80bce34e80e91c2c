#include "rotvec/rotation_vector.h"

#include <cmath>

#include "core/float4.h"
#include "core/log.h"
#include "core/vector_math.h"
#include "rotvec/cn2b_from_directions.h"

namespace quelta {

namespace {

constexpr float kSinFloor = 0.0001f;  // keeps parallel field and gravity finite

// Floors written so that NaN passes through unchanged.
inline float atLeast(float v, float floor) { return v < floor ? floor : v; }

void copySlot(const float* from, float* to) {
  for (int32_t k = 0; k < RotationVectorFusion::kSlotSize; ++k) to[k] = from[k];
}


// Quaternion (w, x, y, z) of the transpose of C, the rotation from device to
// east-north-up: magnitudes from the diagonal, signs from the off-diagonal
// differences relative to a non-negative w, then normalised.
void quatFromCn2b(const float* C, float* q) {
  const float c00 = C[0], c01 = C[1], c02 = C[2];
  const float c10 = C[3], c11 = C[4], c12 = C[5];
  const float c20 = C[6], c21 = C[7], c22 = C[8];
  float w = std::sqrt(0.25f * std::fabs(((c00 + c11) + c22) + 1.0f));
  float x = std::sqrt(0.25f * std::fabs(((c00 - c11) - c22) + 1.0f));
  float y = std::sqrt(0.25f * std::fabs(((c11 - c00) - c22) + 1.0f));
  float z = std::sqrt(0.25f * std::fabs(((-c00 - c11) + c22) + 1.0f));
  if (c12 - c21 < 0.0f) x = -x;
  if (c20 - c02 < 0.0f) y = -y;
  if (c01 - c10 < 0.0f) z = -z;
  // The four squares add up to at least 1, so no threshold is needed.
  const float n = std::sqrt((((w * w + 0.0f) + x * x) + y * y) + z * z);
  q[0] = w / n;
  q[1] = x / n;
  q[2] = y / n;
  q[3] = z / n;
}

}  // namespace

template <int32_t Slots>
void RotationVectorFusion::NewestFirst<Slots>::push(const float* sample) {
  newest = newest == 0 ? Slots - 1 : newest - 1;
  copySlot(sample, entry[newest]);
  if (count < Slots) ++count;
}

// Mean of all entries, summed from zero, newest to oldest.
template <int32_t Slots>
void RotationVectorFusion::NewestFirst<Slots>::mean(float* out) const {
  Float4 low = {0.0f, 0.0f, 0.0f, 0.0f};
  Float4 high = {0.0f, 0.0f, 0.0f, 0.0f};
  auto add = [&](const float* e) {
    low = low + load4(e);
    high = high + load4(e + 4);
  };
  for (int32_t s = newest; s < Slots; ++s) add(entry[s]);
  for (int32_t s = 0; s < newest; ++s) add(entry[s]);
  float lanes[kLanes];
  store4(lanes, low / static_cast<float>(Slots));
  store4(lanes + 4, high / static_cast<float>(Slots));
  copySlot(lanes, out);
}

// Each stage passes its input on until it held a full window before the call.
bool RotationVectorFusion::firstStage(const float* sample, float* out) {
  const bool full = samples_.count >= kSampleWindow;
  samples_.push(sample);
  if (!full) {
    copySlot(sample, out);
    return false;
  }
  samples_.mean(out);
  return true;
}

bool RotationVectorFusion::secondStage(const float* firstMean, float* out) {
  const bool full = means_.count >= kMeanWindow;
  means_.push(firstMean);
  if (!full) {
    copySlot(firstMean, out);
    return false;
  }
  means_.mean(out);
  return true;
}

// The previous value stays published while x, y and z have all moved by less
// than the threshold; a NaN difference never holds.
bool RotationVectorFusion::holdsPrevious(const float* quat) const {
  const float threshold = *out_.moveThreshold;
  return std::fabs(quat[1] - quatPrev_[1]) < threshold &&
         std::fabs(quat[3] - quatPrev_[3]) < threshold &&
         std::fabs(quat[2] - quatPrev_[2]) < threshold;
}

void RotationVectorFusion::publish(const float* quat) {
  for (int32_t i = 0; i < 4; ++i) quatPrev_[i] = quat[i];
  out_.rov[0] = quatPrev_[1];
  out_.rov[1] = quatPrev_[2];
  out_.rov[2] = quatPrev_[3];
  out_.rov[3] = quatPrev_[0];
}

void RotationVectorFusion::update(const float* mag, const float* acc, int32_t logMode) {
  logMode_ = logMode;
  if (logMode_ == 1) {
    logLine("TRVQX4e20180709 InputRotVec  %f %f %f %f %f %f \n", static_cast<double>(mag[0]),
            static_cast<double>(mag[1]), static_cast<double>(mag[2]), static_cast<double>(acc[0]),
            static_cast<double>(acc[1]), static_cast<double>(acc[2]));
  }

  const float sample[kSlotSize] = {mag[0], mag[1], mag[2], acc[0], acc[1], acc[2]};
  float firstOut[kSlotSize];
  float smoothed[kSlotSize];
  if (firstStage(sample, firstOut)) {
    secondStage(firstOut, smoothed);
  } else {
    copySlot(firstOut, smoothed);
  }

  float magAccDir[8];
  normalizeFloored3(smoothed, magAccDir);
  normalizeFloored3(smoothed + 3, magAccDir + 3);
  const float* h = magAccDir;
  const float* g = magAccDir + 3;
  float cosA = (h[0] * g[0] + h[1] * g[1]) + h[2] * g[2];
  if (cosA > 1.0f) cosA = 1.0f;
  if (cosA < -1.0f) cosA = -1.0f;
  magAccDir[6] = atLeast(std::sqrt(1.0f - cosA * cosA), kSinFloor);
  magAccDir[7] = cosA;

  float C[9];
  cn2bFromDirections(magAccDir, C);
  out_.gravity[0] = C[2];
  out_.gravity[1] = C[5];
  out_.gravity[2] = C[8];
  out_.linear[0] = acc[0] - C[2];
  out_.linear[1] = acc[1] - C[5];
  out_.linear[2] = acc[2] - C[8];

  quatFromCn2b(C, quat_);
  // A held call publishes the previous value again, w included.
  publish(holdsPrevious(quat_) ? quatPrev_ : quat_);

  if (logMode_ == 1) {
    logLine("TRVQX4e InRotVec output %f %f %f %f \n", static_cast<double>(out_.rov[0]),
            static_cast<double>(out_.rov[1]), static_cast<double>(out_.rov[2]),
            static_cast<double>(out_.rov[3]));
  }
}

void RotationVectorFusion::copyRotationVector(float* out) const {
  for (int32_t i = 0; i < 4; ++i) out[i] = out_.rov[i];
}

void RotationVectorFusion::copyGravity(float* out) const {
  for (int32_t i = 0; i < 3; ++i) out[i] = out_.gravity[i];
  if (logMode_ == 1) {
    logLine("In GetQueltaGravityAcc %f %f %f \n", static_cast<double>(out[0]),
            static_cast<double>(out[1]), static_cast<double>(out[2]));
  }
}

void RotationVectorFusion::copyLinearAcceleration(float* out) const {
  for (int32_t i = 0; i < 3; ++i) out[i] = out_.linear[i];
  if (logMode_ == 1) {
    logLine("In GetQueltaLinearAcc %f %f %f \n", static_cast<double>(out[0]),
            static_cast<double>(out[1]), static_cast<double>(out[2]));
  }
}

}  // namespace quelta
