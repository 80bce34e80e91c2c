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

// The rotation by the rotation vector r (axis times angle, radians).
inline Quat fromRotationVector(Vec3 r) {
  const double angle = norm(r);
  if (angle < 1e-9) return normalised({1.0, 0.5 * r.x, 0.5 * r.y, 0.5 * r.z});
  const double s = std::sin(0.5 * angle) / angle;
  return {std::cos(0.5 * angle), s * r.x, s * r.y, s * r.z};
}

// The rotation of angle radians about the vertical (counter-clockwise seen
// from above).
inline Quat aboutUp(double angle) { return {std::cos(0.5 * angle), 0.0, 0.0, std::sin(0.5 * angle)}; }

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

inline double wrapPi(double a) {
  a = std::fmod(a + kPi, 2.0 * kPi);
  if (a < 0.0) a += 2.0 * kPi;
  return a - kPi;
}

inline double clampTo(double v, double lo, double hi) { return v < lo ? lo : (v > hi ? hi : v); }

inline bool finite(const Vec3& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// Smallest rotation taking the unit vector a onto the unit vector b, as a
// rotation vector.
inline Vec3 rotationBetween(const Vec3& a, const Vec3& b) {
  const Vec3 axis = cross(a, b);
  const double s = norm(axis);
  const double c = dot(a, b);
  if (s < 1e-12) return Vec3{};
  return (std::atan2(s, c) / s) * axis;
}

// The attitude the filter carries and the one its readings belong to (the
// accelerometer's and the field's readings are means over their interval,
// so they belong to its middle); corrections turn both alike.
struct AttitudePair {
  Quat now;       // device to east-north-up at the sample's time
  Quat readings;  // the same at the middle of the sample's interval
  // Turns both by the earth-frame rotation vector r.
  void turn(const Vec3& r) {
    const Quat q = fromRotationVector(r);
    now = normalised(q * now);
    readings = normalised(q * readings);
  }
  void turnAboutUp(double angle) {
    const Quat q = aboutUp(angle);
    now = normalised(q * now);
    readings = normalised(q * readings);
  }
};

}  // namespace quelta::compass
