// SPDX-License-Identifier: Apache-2.0
// Small double-precision vector and quaternion helpers for the compass
// filter. Quaternions are Hamilton, scalar first, and rotate device
// coordinates into east-north-up.
#pragma once

#include <cmath>

#include "core/vec3.h"

namespace quelta::compass {

// The vector and quaternion types and their plain arithmetic are the core's
// (double instantiation, its fixed evaluation order); what follows adds what
// the compass needs beyond them.
using Vec3 = ::quelta::Vec3d;
using Quat = ::quelta::Quatd;
using ::quelta::conj;
using ::quelta::cross;
using ::quelta::dot;
using ::quelta::norm;

inline Quat normalised(Quat q) {
  const double n = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
  if (!(n > 1e-12)) return Quat{};
  const double s = (q.w < 0.0 ? -1.0 : 1.0) / n;  // scalar part kept non-negative
  return {q.w * s, q.x * s, q.y * s, q.z * s};
}

// Rotates v by the unit quaternion q (q v q*).
inline Vec3 rotate(Quat q, Vec3 v) {
  const Vec3 u{q.x, q.y, q.z};
  const Vec3 t = 2.0 * cross(u, v);
  return v + q.w * t + cross(u, t);
}
// Rotates v by the inverse of q.
inline Vec3 rotateBack(Quat q, Vec3 v) { return rotate(conj(q), v); }

// Below this angle (rad) the half-angle cosine and sine come from their
// series, exact to within 1e-12: most turns of a sample and every
// correction are this small, and the series costs a fraction of sin and cos.
constexpr double kSeriesAngle = 0.05;

// The rotation by the rotation vector r (axis times angle, radians).
inline Quat fromRotationVector(Vec3 r) {
  const double a2 = r.x * r.x + r.y * r.y + r.z * r.z;
  if (a2 < kSeriesAngle * kSeriesAngle) {
    const double c = 1.0 - a2 / 8.0 + a2 * a2 / 384.0;    // cos(angle / 2)
    const double s = 0.5 - a2 / 48.0 + a2 * a2 / 3840.0;  // sin(angle / 2) / angle
    return {c, s * r.x, s * r.y, s * r.z};
  }
  const double angle = std::sqrt(a2);
  const double s = std::sin(0.5 * angle) / angle;
  return {std::cos(0.5 * angle), s * r.x, s * r.y, s * r.z};
}

// The rotation of angle radians about the vertical (counter-clockwise seen
// from above).
inline Quat aboutUp(double angle) { return fromRotationVector({0.0, 0.0, angle}); }

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

inline double wrapPi(double a) {
  if (a >= -kPi && a < kPi) return a;
  if (a >= kPi && a < 3.0 * kPi) return a - 2.0 * kPi;
  if (a < -kPi && a >= -3.0 * kPi) return a + 2.0 * kPi;
  a = std::fmod(a + kPi, 2.0 * kPi);
  if (a < 0.0) a += 2.0 * kPi;
  return a - kPi;
}

inline double clampTo(double v, double lo, double hi) { return v < lo ? lo : (v > hi ? hi : v); }

// The larger and the smaller of two finite values (inline, unlike the
// library's fmax and fmin, which are calls).
inline double maxOf(double a, double b) { return b > a ? b : a; }
inline double minOf(double a, double b) { return b < a ? b : a; }

inline bool finite(const Vec3& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// Smallest rotation taking the unit vector a onto the unit vector b, as a
// rotation vector.
inline Vec3 rotationBetween(const Vec3& a, const Vec3& b) {
  const Vec3 axis = cross(a, b);
  const double s2 = dot(axis, axis);
  const double c = dot(a, b);
  if (s2 < 1e-24) return Vec3{};
  // Small angles: asin(s) / s from its series (exact to within 1e-12).
  if (c > 0.0 && s2 < kSeriesAngle * kSeriesAngle) return (1.0 + s2 / 6.0 + 0.075 * s2 * s2) * axis;
  const double s = std::sqrt(s2);
  return (std::atan2(s, c) / s) * axis;
}

// The attitude the filter carries and the one its readings belong to (the
// accelerometer's and the field's readings are means over their interval,
// so they belong to its middle); corrections turn both alike. (Only the
// carried one is normalised: the other is derived from it every sample.)
struct AttitudePair {
  Quat now;       // device to east-north-up at the sample's time
  Quat readings;  // the same at the middle of the sample's interval
  // Turns both by the earth-frame rotation vector r; returns the turn.
  Quat turn(const Vec3& r) {
    const Quat q = fromRotationVector(r);
    now = normalised(q * now);
    readings = q * readings;
    return q;
  }
  void turnAboutUp(double angle) { turn({0.0, 0.0, angle}); }
};

}  // namespace quelta::compass
