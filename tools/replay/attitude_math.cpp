// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/attitude_math.h"

#include <cmath>

namespace quelta::replay {

namespace {
constexpr double kPi = 3.14159265358979323846;
constexpr double kRadToDeg = 180.0 / kPi;
}  // namespace

Quat multiply(const Quat& p, const Quat& q) {
  return {p[0] * q[0] - p[1] * q[1] - p[2] * q[2] - p[3] * q[3],
          p[0] * q[1] + p[1] * q[0] + p[2] * q[3] - p[3] * q[2],
          p[0] * q[2] - p[1] * q[3] + p[2] * q[0] + p[3] * q[1],
          p[0] * q[3] + p[1] * q[2] - p[2] * q[1] + p[3] * q[0]};
}

Quat conjugate(const Quat& q) { return {q[0], -q[1], -q[2], -q[3]}; }

Vec3 rotate(const Quat& q, const Vec3& v) {
  const Quat r = multiply(multiply(q, {0.0, v[0], v[1], v[2]}), conjugate(q));
  const double n2 = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3];
  return {r[1] / n2, r[2] / n2, r[3] / n2};
}

Quat headingRotation(double headingDeg) {
  // Clockwise seen from above is a negative turn about up.
  const double half = -headingDeg / kRadToDeg / 2.0;
  return {std::cos(half), 0.0, 0.0, std::sin(half)};
}

double rotationAngleDeg(const Quat& q) {
  const double vec = std::sqrt(q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  return 2.0 * std::atan2(vec, std::fabs(q[0])) * kRadToDeg;
}

double wrapDeg(double deg) {
  double wrapped = std::fmod(deg + 180.0, 360.0);
  if (wrapped < 0.0) wrapped += 360.0;
  return wrapped - 180.0;
}

Angles anglesOf(const Quat& deviceToEnu) {
  const Vec3 x = rotate(deviceToEnu, {1.0, 0.0, 0.0});
  const Vec3 y = rotate(deviceToEnu, {0.0, 1.0, 0.0});
  const Vec3 z = rotate(deviceToEnu, {0.0, 0.0, 1.0});
  Angles angles;
  angles.tiltDeg = std::acos(std::fmax(-1.0, std::fmin(1.0, z[2]))) * kRadToDeg;

  // Level the device: turn its screen normal onto up about a horizontal
  // axis, then read where its top edge points.
  Vec3 top = y;
  const double h = std::hypot(z[0], z[1]);
  if (h > 1e-12) {
    const Vec3 u{z[1] / h, -z[0] / h, 0.0};
    const double theta = std::acos(std::fmax(-1.0, std::fmin(1.0, z[2])));
    const double c = std::cos(theta);
    const double s = std::sin(theta);
    const double ud = u[0] * y[0] + u[1] * y[1];
    const Vec3 uxy{u[1] * y[2], -u[0] * y[2], u[0] * y[1] - u[1] * y[0]};
    for (int k = 0; k < 3; ++k) top[k] = y[k] * c + uxy[k] * s + u[k] * ud * (1.0 - c);
  }
  angles.azimuth = std::atan2(top[0], top[1]) * kRadToDeg;
  if (angles.azimuth < 0.0) angles.azimuth += 360.0;

  const double pitch = -std::asin(std::fmax(-1.0, std::fmin(1.0, y[2]))) * kRadToDeg;
  if (z[2] < 0.0 && pitch > 0.0) {
    angles.pitch = 180.0 - pitch;
  } else if (z[2] < 0.0 && pitch < 0.0) {
    angles.pitch = -180.0 - pitch;
  } else {
    angles.pitch = pitch;
  }
  angles.roll = std::asin(std::fmax(-1.0, std::fmin(1.0, x[2]))) * kRadToDeg;
  return angles;
}

}  // namespace quelta::replay
