// Quaternions are (w, x, y, z), scalar first, Hamilton product.
#pragma once

#include <cmath>

namespace quelta {

inline void quatConj(const float* q, float* out) {
  out[0] = q[0];
  out[1] = -q[1];
  out[2] = -q[2];
  out[3] = -q[3];
}

// out = p (x) q; out must not overlap p or q.
inline void quatMultiply(const float* p, const float* q, float* out) {
  out[0] = p[0] * q[0] - p[1] * q[1] - p[2] * q[2] - p[3] * q[3];
  out[1] = p[0] * q[1] + q[0] * p[1] + p[2] * q[3] - p[3] * q[2];
  out[2] = p[0] * q[2] + q[0] * p[2] + p[3] * q[1] - p[1] * q[3];
  out[3] = p[0] * q[3] + q[0] * p[3] + p[1] * q[2] - p[2] * q[1];
}

// Unit quaternion of the same rotation with w >= 0 (a w of -0 counts as not
// negative). Untouched when the norm is below 1e-10 (compared in double).
inline void quatNormalize(const float* q, float* out) {
  const float n = std::sqrt((((0.0f + q[0] * q[0]) + q[1] * q[1]) + q[2] * q[2]) + q[3] * q[3]);
  if (static_cast<double>(n) < 1e-10) return;
  const float s = q[0] < 0.0f ? -n : n;
  out[0] = q[0] / s;
  out[1] = q[1] / s;
  out[2] = q[2] / s;
  out[3] = q[3] / s;
}

}  // namespace quelta
