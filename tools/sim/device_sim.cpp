// SPDX-License-Identifier: Apache-2.0
#include "tools/sim/device_sim.h"

#include <cmath>

namespace quelta::sim {

namespace {
constexpr double kPi = 3.14159265358979323846;
constexpr double kDegToRad = kPi / 180.0;
}  // namespace

Quat quatFromAxisAngle(Vec3 axis, double angleRad) {
  const double n = std::sqrt(axis.x * axis.x + axis.y * axis.y + axis.z * axis.z);
  const double s = std::sin(angleRad / 2.0) / n;
  return {std::cos(angleRad / 2.0), axis.x * s, axis.y * s, axis.z * s};
}

Quat quatMultiply(const Quat& p, const Quat& q) {
  return {p.w * q.w - p.x * q.x - p.y * q.y - p.z * q.z,
          p.w * q.x + p.x * q.w + p.y * q.z - p.z * q.y,
          p.w * q.y - p.x * q.z + p.y * q.w + p.z * q.x,
          p.w * q.z + p.x * q.y - p.y * q.x + p.z * q.w};
}

Quat quatConjugate(const Quat& q) { return {q.w, -q.x, -q.y, -q.z}; }

Vec3 rotate(const Quat& q, const Vec3& v) {
  const Quat r = quatMultiply(quatMultiply(q, {0.0, v.x, v.y, v.z}), quatConjugate(q));
  return {r.x, r.y, r.z};
}

Quat attitudeFromHeadingPitchRoll(double headingDeg, double pitchDeg, double rollDeg) {
  const Quat heading = quatFromAxisAngle({0.0, 0.0, -1.0}, headingDeg * kDegToRad);
  const Quat pitch = quatFromAxisAngle({1.0, 0.0, 0.0}, pitchDeg * kDegToRad);
  const Quat roll = quatFromAxisAngle({0.0, 1.0, 0.0}, rollDeg * kDegToRad);
  return quatMultiply(quatMultiply(heading, pitch), roll);
}

Vec3 fibonacciDirection(int i, int n) {
  const double golden = kPi * (3.0 - std::sqrt(5.0));
  const double z = 1.0 - 2.0 * (i + 0.5) / n;
  const double r = std::sqrt(1.0 - z * z);
  return {r * std::cos(golden * i), r * std::sin(golden * i), z};
}

Quat handHeldMotion(double timeS) {
  const double headingDeg = 0.9 * timeS / kDegToRad;
  const double pitchDeg = 60.0 * std::sin(0.7 * timeS);
  const double rollDeg = 40.0 * std::sin(1.1 * timeS + 0.5);
  return attitudeFromHeadingPitchRoll(headingDeg, pitchDeg, rollDeg);
}

uint64_t Random::next() {
  uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

double Random::uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

double Random::uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }

Vec3 EarthField::enu() const {
  const double inc = inclinationDeg * kDegToRad;
  return {0.0, strengthGauss * std::cos(inc), -strengthGauss * std::sin(inc)};
}

SensorSample Device::read(const Quat& deviceToEnu, Vec3 linearAccEnu) {
  const Quat enuToDevice = quatConjugate(deviceToEnu);
  const Vec3 force = rotate(enuToDevice, {linearAccEnu.x, linearAccEnu.y, linearAccEnu.z + 1.0});
  const Vec3 b = rotate(enuToDevice, field.enu());
  SensorSample s{};
  s.acc[0] = static_cast<float>(force.x + random.uniform(-accNoiseG, accNoiseG));
  s.acc[1] = static_cast<float>(force.y + random.uniform(-accNoiseG, accNoiseG));
  s.acc[2] = static_cast<float>(force.z + random.uniform(-accNoiseG, accNoiseG));
  s.mag[0] = static_cast<float>(b.x + hardIron.x + random.uniform(-magNoiseGauss, magNoiseGauss));
  s.mag[1] = static_cast<float>(b.y + hardIron.y + random.uniform(-magNoiseGauss, magNoiseGauss));
  s.mag[2] = static_cast<float>(b.z + hardIron.z + random.uniform(-magNoiseGauss, magNoiseGauss));
  return s;
}

}  // namespace quelta::sim
