// SPDX-License-Identifier: Apache-2.0
// Attitude from directions, in the two forms the services use.
//
//   Cn2b: 3 x 3 direction cosine matrix, row-major, whose columns are east,
//         north and up in device coordinates (it maps ENU to device axes).
//   The quaternion (w, x, y, z) of an attitude is the rotation from device
//   axes to ENU, that is the quaternion of the transpose of Cn2b.
//
// The builders and the converters differ in their bits, so each is named for
// its rule; none may stand in for another.
#pragma once

#include <cmath>

#include "core/vec3.h"

namespace quelta {

// Cn2b by cross products: up = acc, east = mag x acc, north = up x east, each
// normalised or zero below a norm of 1e-10 (only the directions of mag and
// acc matter).
inline void cn2bByCrossProducts(const float* mag, const float* acc, float* cn2b) {
  const Vec3f a = Vec3f::load(acc);
  const Vec3f up = normalizedOrZero(a, 1e-10);
  const Vec3f east = normalizedOrZero(cross(Vec3f::load(mag), a), 1e-10);
  const Vec3f north = cross(up, east);
  for (int i = 0; i < 3; ++i) {
    cn2b[3 * i + 0] = east[i];
    cn2b[3 * i + 1] = north[i];
    cn2b[3 * i + 2] = up[i];
  }
}

namespace attitude_detail {

// Completes the east entry of row r so the row has unit length. d is the
// row's component of up x north, so east = north x up is positive when d < 0.
// A row already longer than unit length is shrunk instead and gets no east
// entry.
inline void completeRow(float* cn2b, int r, float t, float d) {
  float* row = cn2b + 3 * r;
  if (t > 1.0f) {
    const double len = std::sqrt(static_cast<double>(t));
    row[1] = static_cast<float>(static_cast<double>(row[1]) / len);
    row[2] = static_cast<float>(static_cast<double>(row[2]) / len);
    row[0] = 0.0f;
  } else {
    const float east = std::sqrt(1.0f - t);
    row[0] = d < 0.0f ? east : -east;
  }
}

}  // namespace attitude_detail

// Cn2b by the field across gravity, from magAccDir = unit field h (3), unit
// gravity g (3), sin and cos of the angle between them: up = g, north =
// (h - cos g) / sin, and each row's east entry completes the row to unit
// length, rows taken in the order 2, 0, 1 (a shrunk row changes the later
// rows' inputs).
inline void cn2bByFieldAcrossGravity(const float* magAccDir, float* c) {
  const Vec3f h = Vec3f::load(magAccDir);
  const Vec3f g = Vec3f::load(magAccDir + 3);
  const float sinA = magAccDir[6];
  const float cosA = magAccDir[7];
  c[2] = g.x;
  c[5] = g.y;
  c[8] = g.z;
  c[1] = (h.x - cosA * g.x) / sinA;
  c[4] = (h.y - cosA * g.y) / sinA;
  c[7] = (h.z - cosA * g.z) / sinA;
  using attitude_detail::completeRow;
  completeRow(c, 2, c[8] * c[8] + c[7] * c[7], c[4] * c[2] - c[1] * c[5]);
  completeRow(c, 0, c[2] * c[2] + c[1] * c[1], c[7] * c[5] - c[4] * c[8]);
  completeRow(c, 1, c[5] * c[5] + c[4] * c[4], c[8] * c[1] - c[7] * c[2]);
}

// Quaternion of Cn2b's transpose by the dominant term: the trace when
// positive (w taken in double), else the largest diagonal entry; not
// sign-normalised (w may be negative). False, q untouched, when the result's
// norm is below 1e-10.
inline bool quatFromCn2bByDominantTerm(const float* m, Quatf& q) {
  // Scale of the components besides the dominant one: 0.5 / t, or 0 rather
  // than a division by zero.
  auto factor = [](float t) { return t == 0.0f ? 0.0f : 0.5f / t; };
  Quatf u;
  const float tr = (m[0] + m[4]) + m[8];
  if (tr > 0.0f) {
    u.w = static_cast<float>(std::sqrt(static_cast<double>(tr + 1.0f)) * 0.5);
    const float s = 0.25f / u.w;
    u.x = s * (m[5] - m[7]);
    u.y = s * (m[6] - m[2]);
    u.z = s * (m[1] - m[3]);
  } else if (m[4] > m[0] && m[4] > m[8]) {
    const float t = std::sqrt(((m[4] - m[0]) - m[8]) + 1.0f);
    u.y = t * 0.5f;
    const float f = factor(t);
    u.w = f * (m[6] - m[2]);
    u.x = f * (m[1] + m[3]);
    u.z = f * (m[5] + m[7]);
  } else if (m[8] > m[0]) {
    const float t = std::sqrt(((m[8] - m[0]) - m[4]) + 1.0f);
    u.z = t * 0.5f;
    const float f = factor(t);
    u.w = f * (m[1] - m[3]);
    u.x = f * (m[6] + m[2]);
    u.y = f * (m[5] + m[7]);
  } else {
    const float t = std::sqrt(((m[0] - m[4]) - m[8]) + 1.0f);
    u.x = t * 0.5f;
    const float f = factor(t);
    u.w = f * (m[5] - m[7]);
    u.y = f * (m[1] + m[3]);
    u.z = f * (m[6] + m[2]);
  }
  const float n = norm(u);
  if (static_cast<double>(n) < 1e-10) return false;
  q = u / n;
  return true;
}

// Quaternion of Cn2b's transpose by diagonal magnitudes: every component's
// magnitude from the diagonal, its sign from the off-diagonal differences
// relative to a non-negative w, then normalised (the four squares add up to
// at least 1, so no threshold is needed).
inline Quatf quatFromCn2bByDiagonalMagnitudes(const float* c) {
  const float c00 = c[0], c01 = c[1], c02 = c[2];
  const float c10 = c[3], c11 = c[4], c12 = c[5];
  const float c20 = c[6], c21 = c[7], c22 = c[8];
  Quatf q;
  q.w = std::sqrt(0.25f * std::fabs(((c00 + c11) + c22) + 1.0f));
  q.x = std::sqrt(0.25f * std::fabs(((c00 - c11) - c22) + 1.0f));
  q.y = std::sqrt(0.25f * std::fabs(((c11 - c00) - c22) + 1.0f));
  q.z = std::sqrt(0.25f * std::fabs(((-c00 - c11) + c22) + 1.0f));
  if (c12 - c21 < 0.0f) q.x = -q.x;
  if (c20 - c02 < 0.0f) q.y = -q.y;
  if (c01 - c10 < 0.0f) q.z = -q.z;
  return q / norm(q);
}

}  // namespace quelta
