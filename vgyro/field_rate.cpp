// SPDX-License-Identifier: Apache-2.0
#include "vgyro/field_rate.h"

#include <cmath>

#include "core/vec3.h"
#include "vgyro/data_buffer.h"

namespace quelta {

namespace {

constexpr double kSmallTurnRad = 0.08726646259971647;  // 5 degrees
constexpr double kAxisJumpRad = 0.5235987755982988;    // 30 degrees
constexpr int32_t kMaxAxisHolds = 5;
constexpr double kMinAxisNorm = 1e-10;

// acos of the cosine of the angle between a and b, the quotient formed by two
// successive single-precision divisions.
double angleBetween(const Vec3f& a, const Vec3f& b) {
  return std::acos(static_cast<double>(dot(a, b) / norm(a) / norm(b)));
}

// The first three components of the k-th newest sample, zeros when missing.
Vec3f newestSample(const DataBuffer& buf, int32_t k) {
  return {sampleComponent(buf, k, 0), sampleComponent(buf, k, 1), sampleComponent(buf, k, 2)};
}

}  // namespace

void FieldRateEstimator::rate(const DataBuffer& buf, float* out, float dt) {
  const Vec3f s0 = newestSample(buf, 0);
  const Vec3f s1 = newestSample(buf, 1);
  const Vec3f s2 = newestSample(buf, 2);
  const Vec3f d1 = s0 - s1;
  const Vec3f d2 = s1 - s2;

  const float phi = static_cast<float>(angleBetween(d1, d2));
  if (static_cast<double>(phi) < kSmallTurnRad) {
    out[0] = out[1] = out[2] = 0.0f;
    previousAxis_ = {};
    previousAxisValid_ = 1;
    return;
  }

  // The axis follows newer x older, which gives the rate its sign; one too
  // short to normalise is kept as it is.
  Vec3f axis = normalizedIfAtLeast(cross(d1, d2), kMinAxisNorm);

  if (previousAxisValid_ != 0) {
    // NaN (a zero previous axis) never counts as a jump.
    const float beta = static_cast<float>(angleBetween(axis, previousAxis_));
    if (axisHoldCount_ < kMaxAxisHolds && static_cast<double>(beta) > kAxisJumpRad) {
      axis = previousAxis_;
      axisHoldCount_ = axisHoldCount_ + 1;
    } else {
      axisHoldCount_ = 0;
    }
  }

  // Remove the part along the axis (the older sample's, from both samples) and
  // measure the turn of what is left.
  const float along = dot(s1, axis);
  const Vec3f alongAxis = along * axis;
  const float theta = static_cast<float>(angleBetween(s0 - alongAxis, s1 - alongAxis));

  ((axis * theta) / dt).store(out);
  previousAxis_ = axis;
  previousAxisValid_ = 1;
}

}  // namespace quelta
