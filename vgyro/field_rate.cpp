#include "vgyro/field_rate.h"

#include <cmath>

#include "core/vector_math.h"
#include "vgyro/data_buffer.h"

namespace quelta {

namespace {

constexpr double kSmallTurnRad = 0.08726646259971647;  // 5 degrees
constexpr double kAxisJumpRad = 0.5235987755982988;    // 30 degrees
constexpr int32_t kMaxAxisHolds = 5;

// acos of the cosine of the angle between a and b, the quotient formed by two
// successive single-precision divisions.
double angleBetween(const float* a, const float* b) {
  return std::acos(static_cast<double>(dot(a, b, 3) / norm2(a, 3) / norm2(b, 3)));
}

void subtract(const float* a, const float* b, float* out) {
  out[0] = a[0] - b[0];
  out[1] = a[1] - b[1];
  out[2] = a[2] - b[2];
}

}  // namespace

void FieldRateEstimator::rate(const DataBuffer& buf, float* out, float dt) {
  // Exactly the first three components of each sample, zeros when missing.
  float s0[3], s1[3], s2[3];
  for (int32_t j = 0; j < 3; ++j) {
    s0[j] = sampleComponent(buf, 0, j);
    s1[j] = sampleComponent(buf, 1, j);
    s2[j] = sampleComponent(buf, 2, j);
  }
  float d1[3], d2[3];
  subtract(s0, s1, d1);
  subtract(s1, s2, d2);

  const float phi = static_cast<float>(angleBetween(d1, d2));
  if (static_cast<double>(phi) < kSmallTurnRad) {
    out[0] = out[1] = out[2] = 0.0f;
    fWMagAxisPrev[0] = fWMagAxisPrev[1] = fWMagAxisPrev[2] = 0.0f;
    bWMagAxisValid = 1;
    return;
  }

  // The axis follows newer x older, which gives the rate its sign.
  float axis[3];
  cross(d1, d2, axis);
  const float axisNorm = norm2(axis, 3);
  if (static_cast<double>(axisNorm) >= 1e-10) {
    axis[0] = axis[0] / axisNorm;
    axis[1] = axis[1] / axisNorm;
    axis[2] = axis[2] / axisNorm;
  }

  if (bWMagAxisValid != 0) {
    // NaN (a zero previous axis) never counts as a jump.
    const float beta = static_cast<float>(angleBetween(axis, fWMagAxisPrev));
    if (iWMagAxisHoldCount < kMaxAxisHolds && static_cast<double>(beta) > kAxisJumpRad) {
      axis[0] = fWMagAxisPrev[0];
      axis[1] = fWMagAxisPrev[1];
      axis[2] = fWMagAxisPrev[2];
      iWMagAxisHoldCount = iWMagAxisHoldCount + 1;
    } else {
      iWMagAxisHoldCount = 0;
    }
  }

  // Remove the part along the axis (the older sample's, from both samples) and
  // measure the turn of what is left.
  const float along = dot(s1, axis, 3);
  float s0Plane[3], s1Plane[3];
  for (int i = 0; i < 3; ++i) {
    s0Plane[i] = s0[i] - along * axis[i];
    s1Plane[i] = s1[i] - along * axis[i];
  }
  const float theta = static_cast<float>(angleBetween(s0Plane, s1Plane));

  for (int i = 0; i < 3; ++i) out[i] = (axis[i] * theta) / dt;
  fWMagAxisPrev[0] = axis[0];
  fWMagAxisPrev[1] = axis[1];
  fWMagAxisPrev[2] = axis[2];
  bWMagAxisValid = 1;
}

}  // namespace quelta
