// SPDX-License-Identifier: Apache-2.0
// What the layer's fits need beyond the core's vectors (core/vec3.h, Vec3d):
// a 3x3 matrix with its determinant and inverse, and a dense symmetric
// solver for the small normal equations. Header-only, no heap, no globals.
#pragma once

#include <cmath>

#include "core/vec3.h"

namespace quelta {

// Unit vector, or zero when the vector is too short to have a direction (or
// its norm is NaN). Multiplies by the reciprocal of the norm, unlike the
// core's normalizedOrZero, which divides: the fits were tuned with this one.
inline Vec3d unitOrZero(const Vec3d& a) {
  const double n = norm(a);
  return n > 1e-12 ? (1.0 / n) * a : Vec3d{};
}

// Row-major 3x3 matrix.
struct M3 {
  double m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  static constexpr M3 zero() {
    M3 r;
    for (auto& row : r.m)
      for (double& v : row) v = 0.0;
    return r;
  }
};

inline Vec3d operator*(const M3& a, const Vec3d& v) {
  return {a.m[0][0] * v.x + a.m[0][1] * v.y + a.m[0][2] * v.z,
          a.m[1][0] * v.x + a.m[1][1] * v.y + a.m[1][2] * v.z,
          a.m[2][0] * v.x + a.m[2][1] * v.y + a.m[2][2] * v.z};
}
inline M3 operator*(const M3& a, const M3& b) {
  M3 r = M3::zero();
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) r.m[i][j] += a.m[i][k] * b.m[k][j];
  return r;
}
inline double det(const M3& a) {
  return a.m[0][0] * (a.m[1][1] * a.m[2][2] - a.m[1][2] * a.m[2][1]) -
         a.m[0][1] * (a.m[1][0] * a.m[2][2] - a.m[1][2] * a.m[2][0]) +
         a.m[0][2] * (a.m[1][0] * a.m[2][1] - a.m[1][1] * a.m[2][0]);
}
// Inverse; identity when the matrix is singular.
inline M3 inverse(const M3& a) {
  const double d = det(a);
  if (!(std::fabs(d) > 1e-300)) return M3{};
  M3 r;
  const double s = 1.0 / d;
  r.m[0][0] = s * (a.m[1][1] * a.m[2][2] - a.m[1][2] * a.m[2][1]);
  r.m[0][1] = s * (a.m[0][2] * a.m[2][1] - a.m[0][1] * a.m[2][2]);
  r.m[0][2] = s * (a.m[0][1] * a.m[1][2] - a.m[0][2] * a.m[1][1]);
  r.m[1][0] = s * (a.m[1][2] * a.m[2][0] - a.m[1][0] * a.m[2][2]);
  r.m[1][1] = s * (a.m[0][0] * a.m[2][2] - a.m[0][2] * a.m[2][0]);
  r.m[1][2] = s * (a.m[0][2] * a.m[1][0] - a.m[0][0] * a.m[1][2]);
  r.m[2][0] = s * (a.m[1][0] * a.m[2][1] - a.m[1][1] * a.m[2][0]);
  r.m[2][1] = s * (a.m[0][1] * a.m[2][0] - a.m[0][0] * a.m[2][1]);
  r.m[2][2] = s * (a.m[0][0] * a.m[1][1] - a.m[0][1] * a.m[1][0]);
  return r;
}

// Solves L L^T x = b with the factor that choleskySolve leaves in its matrix.
template <int N>
void choleskySubstitute(const double (&l)[N][N], double (&b)[N]) {
  for (int i = 0; i < N; ++i) {
    double s = b[i];
    for (int k = 0; k < i; ++k) s -= l[i][k] * b[k];
    b[i] = s / l[i][i];
  }
  for (int i = N - 1; i >= 0; --i) {
    double s = b[i];
    for (int k = i + 1; k < N; ++k) s -= l[k][i] * b[k];
    b[i] = s / l[i][i];
  }
}

// Solves A x = b for a symmetric positive definite N x N matrix (Cholesky,
// in place: A is overwritten by its factor). Returns false when A is not
// positive definite enough (a pivot below minPivot).
template <int N>
bool choleskySolve(double (&a)[N][N], double (&b)[N], double minPivot = 1e-300) {
  for (int j = 0; j < N; ++j) {
    double d = a[j][j];
    for (int k = 0; k < j; ++k) d -= a[j][k] * a[j][k];
    if (!(d > minPivot)) return false;
    d = std::sqrt(d);
    a[j][j] = d;
    for (int i = j + 1; i < N; ++i) {
      double s = a[i][j];
      for (int k = 0; k < j; ++k) s -= a[i][k] * a[j][k];
      a[i][j] = s / d;
    }
  }
  choleskySubstitute<N>(a, b);
  return true;
}

}  // namespace quelta
