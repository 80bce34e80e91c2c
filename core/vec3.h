// SPDX-License-Identifier: Apache-2.0
// Small value types for three-vectors and quaternions, templated on the
// scalar: Vec3f/Quatf (float) for the exact library, Vec3d/Quatd (double)
// for code that works in double.
//
// Every helper fixes its evaluation order once, because the order is part of
// the result: sums run left to right in the order written here, e.g.
// dot(a, b) = (a.x b.x + a.y b.y) + a.z b.z. Component-wise operations are
// one rounding per component and are exact to mix with hand-written code.
// Nothing here widens: a float helper computes in float, a double helper in
// double.
#pragma once

#include <cmath>

namespace quelta {

template <typename S>
struct Vec3 {
  S x = S(0), y = S(0), z = S(0);

  static constexpr Vec3 load(const S* p) { return {p[0], p[1], p[2]}; }
  constexpr void store(S* p) const {
    p[0] = x;
    p[1] = y;
    p[2] = z;
  }
  constexpr S operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
};

using Vec3f = Vec3<float>;
using Vec3d = Vec3<double>;

template <typename S>
constexpr Vec3<S> operator+(const Vec3<S>& a, const Vec3<S>& b) {
  return {a.x + b.x, a.y + b.y, a.z + b.z};
}
template <typename S>
constexpr Vec3<S> operator-(const Vec3<S>& a, const Vec3<S>& b) {
  return {a.x - b.x, a.y - b.y, a.z - b.z};
}
template <typename S>
constexpr Vec3<S> operator-(const Vec3<S>& a) {
  return {-a.x, -a.y, -a.z};
}
template <typename S>
constexpr Vec3<S> operator*(const Vec3<S>& a, S s) {
  return {a.x * s, a.y * s, a.z * s};
}
template <typename S>
constexpr Vec3<S> operator*(S s, const Vec3<S>& a) {
  return {s * a.x, s * a.y, s * a.z};
}
// Divides each component (not a multiplication by 1 / s: that rounds twice).
template <typename S>
constexpr Vec3<S> operator/(const Vec3<S>& a, S s) {
  return {a.x / s, a.y / s, a.z / s};
}

// (a.x b.x + a.y b.y) + a.z b.z
template <typename S>
constexpr S dot(const Vec3<S>& a, const Vec3<S>& b) {
  return (a.x * b.x + a.y * b.y) + a.z * b.z;
}

// (x^2 + y^2) + z^2
template <typename S>
constexpr S squaredNorm(const Vec3<S>& a) {
  return dot(a, a);
}

template <typename S>
inline S norm(const Vec3<S>& a) {
  return std::sqrt(squaredNorm(a));
}

// True when every component is finite (neither infinite nor NaN).
template <typename S>
inline bool isFinite(const Vec3<S>& a) {
  return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z);
}

template <typename S>
constexpr Vec3<S> cross(const Vec3<S>& a, const Vec3<S>& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// v / max(|v|, floor): the floor keeps an all-zero vector finite, and a NaN
// norm stays NaN (so no fmax).
template <typename S>
inline Vec3<S> normalizedFloored(const Vec3<S>& v, S floor) {
  const S n = norm(v);
  return v / (n < floor ? floor : n);
}

// v / |v|, or zero when |v| is below minNorm (compared in double); a NaN
// norm gives NaN components.
template <typename S>
inline Vec3<S> normalizedOrZero(const Vec3<S>& v, double minNorm) {
  const S n = norm(v);
  if (static_cast<double>(n) < minNorm) return {};
  return v / n;
}

// v / |v| when |v| is at least minNorm (compared in double); otherwise, a
// NaN norm included, v as it is.
template <typename S>
inline Vec3<S> normalizedIfAtLeast(const Vec3<S>& v, double minNorm) {
  const S n = norm(v);
  return static_cast<double>(n) >= minNorm ? v / n : v;
}

// Quaternion (w, x, y, z), scalar first, Hamilton product.
template <typename S>
struct Quat {
  S w = S(1), x = S(0), y = S(0), z = S(0);

  // From (w, x, y, z).
  static constexpr Quat load(const S* p) { return {p[0], p[1], p[2], p[3]}; }
  constexpr void store(S* p) const {
    p[0] = w;
    p[1] = x;
    p[2] = y;
    p[3] = z;
  }
  constexpr Vec3<S> vec() const { return {x, y, z}; }
};

using Quatf = Quat<float>;
using Quatd = Quat<double>;

template <typename S>
constexpr Quat<S> conj(const Quat<S>& q) {
  return {q.w, -q.x, -q.y, -q.z};
}

// p (x) q, each component summed in the order written.
template <typename S>
constexpr Quat<S> operator*(const Quat<S>& p, const Quat<S>& q) {
  return {((p.w * q.w - p.x * q.x) - p.y * q.y) - p.z * q.z,
          ((p.w * q.x + q.w * p.x) + p.y * q.z) - p.z * q.y,
          ((p.w * q.y + q.w * p.y) + p.z * q.x) - p.x * q.z,
          ((p.w * q.z + q.w * p.z) + p.x * q.y) - p.y * q.x};
}

// ((w^2 + x^2) + y^2) + z^2
template <typename S>
constexpr S squaredNorm(const Quat<S>& q) {
  return ((q.w * q.w + q.x * q.x) + q.y * q.y) + q.z * q.z;
}

template <typename S>
inline S norm(const Quat<S>& q) {
  return std::sqrt(squaredNorm(q));
}

// Each component divided by s.
template <typename S>
constexpr Quat<S> operator/(const Quat<S>& q, S s) {
  return {q.w / s, q.x / s, q.y / s, q.z / s};
}

// The unit quaternion of the same rotation with w >= 0 (a w of -0 counts as
// not negative), or false and q untouched when |q| is below minNorm
// (compared in double).
template <typename S>
inline bool normalizePositiveW(Quat<S>& q, double minNorm) {
  const S n = norm(q);
  if (static_cast<double>(n) < minNorm) return false;
  q = q / (q.w < S(0) ? -n : n);
  return true;
}

}  // namespace quelta
