// SPDX-License-Identifier: Apache-2.0
#include "rotvec/rotation_vector.h"

#include <cmath>

#include "core/attitude.h"
#include "core/float4.h"
#include "core/log.h"
#include "core/vec3.h"

namespace quelta {

namespace {

// Every line the rotation vector writes.
struct RotationVectorLogTexts {
  LogText input;    // field x, y, z, acceleration x, y, z
  LogText output;   // published x, y, z, w
  LogText gravity;  // copied gravity x, y, z
  LogText linear;   // copied linear acceleration x, y, z
};

constexpr RotationVectorLogTexts kLog{
    {LogGate::kDetail, "TRVQX4e20180709 InputRotVec  %f %f %f %f %f %f \n"},
    {LogGate::kDetail, "TRVQX4e InRotVec output %f %f %f %f \n"},
    {LogGate::kDetail, "In GetQueltaGravityAcc %f %f %f \n"},
    {LogGate::kDetail, "In GetQueltaLinearAcc %f %f %f \n"},
};

using SensorPair = RotationVectorFusion::SensorPair;

// Floors written so that NaN passes through unchanged.
inline float atLeast(float v, float floor) { return v < floor ? floor : v; }

// Mean of all entries of a full ring, summed from zero, newest to oldest.
template <int32_t Slots>
SensorPair meanOf(const Ring<SensorPair, Slots>& ring) {
  Float4 low = {0.0f, 0.0f, 0.0f, 0.0f};
  Float4 high = {0.0f, 0.0f, 0.0f, 0.0f};
  ring.forEachNewestFirst([&](const SensorPair& e) {
    low = low + load4(e.lane);
    high = high + load4(e.lane + 4);
  });
  SensorPair mean;
  store4(mean.lane, low / static_cast<float>(Slots));
  store4(mean.lane + 4, high / static_cast<float>(Slots));
  return mean;
}

void logVec3(const LogText& text, int32_t mode, const float* v) {
  logLine(text, mode, static_cast<double>(v[0]), static_cast<double>(v[1]),
          static_cast<double>(v[2]));
}

}  // namespace

// Each stage passes its input on until it held a full window before the call.
bool RotationVectorFusion::firstStage(const SensorPair& sample, SensorPair& dst) {
  const bool full = samples_.full();
  samples_.push(sample);
  dst = full ? meanOf(samples_) : sample;
  return full;
}

bool RotationVectorFusion::secondStage(const SensorPair& firstMean, SensorPair& dst) {
  const bool full = means_.full();
  means_.push(firstMean);
  dst = full ? meanOf(means_) : firstMean;
  return full;
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
  lastLogMode_ = logMode;
  logLine(kLog.input, logMode, static_cast<double>(mag[0]), static_cast<double>(mag[1]),
          static_cast<double>(mag[2]), static_cast<double>(acc[0]), static_cast<double>(acc[1]),
          static_cast<double>(acc[2]));

  const SensorPair sample{{mag[0], mag[1], mag[2], acc[0], acc[1], acc[2], 0.0f, 0.0f}};
  SensorPair firstOut;
  SensorPair smoothed;
  if (firstStage(sample, firstOut)) {
    secondStage(firstOut, smoothed);
  } else {
    smoothed = firstOut;
  }

  // Unit field, unit gravity, sin and cos of the angle between them.
  float directions[8];
  const Vec3f h = normalizedFloored(Vec3f::load(smoothed.lane), settings_.minInputNorm);
  const Vec3f g = normalizedFloored(Vec3f::load(smoothed.lane + 3), settings_.minInputNorm);
  float cosA = dot(h, g);
  if (cosA > 1.0f) cosA = 1.0f;
  if (cosA < -1.0f) cosA = -1.0f;
  h.store(directions);
  g.store(directions + 3);
  directions[6] = atLeast(std::sqrt(1.0f - cosA * cosA), settings_.minSinFieldGravity);
  directions[7] = cosA;

  float cn2b[9];
  cn2bByFieldAcrossGravity(directions, cn2b);
  const Vec3f up{cn2b[2], cn2b[5], cn2b[8]};
  up.store(out_.gravity);
  (Vec3f::load(acc) - up).store(out_.linear);

  float quat[4];
  quatFromCn2bByDiagonalMagnitudes(cn2b).store(quat);
  // A held call publishes the previous value again, w included.
  publish(holdsPrevious(quat) ? quatPrev_ : quat);

  logLine(kLog.output, logMode, static_cast<double>(out_.rov[0]), static_cast<double>(out_.rov[1]),
          static_cast<double>(out_.rov[2]), static_cast<double>(out_.rov[3]));
}

void RotationVectorFusion::copyRotationVector(float* dst) const {
  for (int32_t i = 0; i < 4; ++i) dst[i] = out_.rov[i];
}

void RotationVectorFusion::copyGravity(float* dst) const {
  for (int32_t i = 0; i < 3; ++i) dst[i] = out_.gravity[i];
  logVec3(kLog.gravity, lastLogMode_, dst);
}

void RotationVectorFusion::copyLinearAcceleration(float* dst) const {
  for (int32_t i = 0; i < 3; ++i) dst[i] = out_.linear[i];
  logVec3(kLog.linear, lastLogMode_, dst);
}

}  // namespace quelta
