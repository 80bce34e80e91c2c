// SPDX-License-Identifier: Apache-2.0
// Double-precision attitude helpers for comparing the library's outputs
// with a reference attitude. Quaternions are (w, x, y, z) and rotate device
// coordinates into east-north-up.
#pragma once

#include <array>

namespace quelta::replay {

using Quat = std::array<double, 4>;
using Vec3 = std::array<double, 3>;

Quat multiply(const Quat& p, const Quat& q);
Quat conjugate(const Quat& q);
Vec3 rotate(const Quat& q, const Vec3& v);
// Rotation about up by a heading change (clockwise seen from above, degrees).
Quat headingRotation(double headingDeg);
// Rotation angle of q in degrees, [0, 180]; q need not be unit length.
double rotationAngleDeg(const Quat& q);
// Wraps an angle difference into [-180, 180).
double wrapDeg(double deg);

// Azimuth, pitch and roll in the conventions of the library's orientation
// output: azimuth of the device's top edge after levelling, clockwise from
// north, [0, 360); pitch from the top edge's elevation (negated), folded to
// (-180, 180] when the screen faces down; roll from the right edge's
// elevation, [-90, 90]. tiltDeg is the angle between screen normal and up.
struct Angles {
  double azimuth = 0.0;
  double pitch = 0.0;
  double roll = 0.0;
  double tiltDeg = 0.0;
};
Angles anglesOf(const Quat& deviceToEnu);

}  // namespace quelta::replay
