// SPDX-License-Identifier: Apache-2.0
// A simulated magnetometer with hard and soft iron for the magnetic layer's
// tests, benchmark and measurement: raw = D * B_device + offset + noise,
// where D is a symmetric soft-iron distortion, B_device the Earth's field
// (plus an optional disturbance in east-north-up) in device axes. The
// motion is hand-held and covers the directions unevenly: mostly near level
// while the heading turns, with slower, rarer swings to steep tilts.
// Header-only on top of device_sim.
#pragma once

#include <cmath>

#include "quelta/math/qmath.h"
#include "tools/sim/device_sim.h"

namespace quelta::sim {

struct SoftIronDevice {
  EarthField field{0.48, 62.0};
  double distortion[3][3] = {{1.12, 0.07, -0.09}, {0.07, 0.86, 0.05}, {-0.09, 0.05, 1.04}};
  Vec3 hardIron{0.31, -0.42, 1.95};
  double noiseGauss = 0.002;  // standard deviation per axis (Gaussian)
  Random random{777};

  double gaussian() {
    // Box-Muller on the deterministic generator.
    const double u1 = random.uniform() + 1e-300;
    const double u2 = random.uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
  }

  // Raw field and accelerometer (g, up at rest) for an attitude; disturbance
  // is added to the Earth's field in east-north-up, gauss.
  void read(const Quat& deviceToEnu, double mag[3], double acc[3], Vec3 disturbanceEnu = {}) {
    const Quat enuToDevice = quatConjugate(deviceToEnu);
    Vec3 e = field.enu();
    e = {e.x + disturbanceEnu.x, e.y + disturbanceEnu.y, e.z + disturbanceEnu.z};
    const Vec3 b = rotate(enuToDevice, e);
    const double bd[3] = {b.x, b.y, b.z};
    const double off[3] = {hardIron.x, hardIron.y, hardIron.z};
    for (int i = 0; i < 3; ++i) {
      double v = off[i];
      for (int j = 0; j < 3; ++j) v += distortion[i][j] * bd[j];
      mag[i] = v + noiseGauss * gaussian();
    }
    const Vec3 up = rotate(enuToDevice, {0.0, 0.0, 1.0});
    acc[0] = up.x;
    acc[1] = up.y;
    acc[2] = up.z;
  }

  // The shape error of an estimated soft-iron correction: the largest
  // deviation from identity of the estimate times the distortion, scaled to
  // determinant 1.
  double shapeError(const quelta::M3& estimate) const {
    quelta::M3 d;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) d.m[i][j] = distortion[i][j];
    const quelta::M3 e = estimate * d;
    const double k = 1.0 / std::cbrt(quelta::det(e));
    double worst = 0.0;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) worst = std::fmax(worst, std::fabs(k * e.m[i][j] - (i == j ? 1.0 : 0.0)));
    return worst;
  }
};

// The heading error of a calibrated field (device axes), levelled by the true
// attitude: the field's heading in east-north-up, against north.
inline double levelledHeadingErrorDeg(const Quat& deviceToEnu, const quelta::Vec3d& calibrated) {
  const Vec3 w = rotate(deviceToEnu, {calibrated.x, calibrated.y, calibrated.z});
  return std::atan2(w.x, w.y) * 57.29577951308232;
}

// Uneven hand-held motion: the heading turns at about 0.5 rad/s with
// reversals, the tilt stays within about 25 degrees much of the time and
// swings in slow waves to steep pitches and to rolls past the vertical.
inline Quat unevenHandMotion(double t) {
  const double heading = 57.29577951308232 * (0.5 * t + 1.5 * std::sin(0.13 * t));
  const double s1 = std::pow(std::sin(0.13 * t), 2.0);
  const double s2 = std::pow(std::sin(0.07 * t + 1.0), 2.0);
  const double pitch = 20.0 * std::sin(0.9 * t) + 70.0 * s1 * std::sin(0.37 * t + 0.4);
  const double roll = 15.0 * std::sin(1.3 * t + 0.5) + 120.0 * s2 * std::cos(0.29 * t);
  return attitudeFromHeadingPitchRoll(heading, pitch, roll);
}

// Near-level motion, as while texting: heading turns, a few degrees of tilt.
inline Quat textingMotion(double t) {
  const double heading = 57.29577951308232 * (0.4 * t + 1.2 * std::sin(0.09 * t));
  return attitudeFromHeadingPitchRoll(heading, 25.0 + 4.0 * std::sin(1.7 * t), 3.0 * std::sin(2.3 * t + 1.0));
}

}  // namespace quelta::sim
