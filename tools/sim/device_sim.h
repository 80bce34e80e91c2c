// SPDX-License-Identifier: Apache-2.0
// A simulated hand-held device with known truth: an attitude (device to
// east-north-up), the Earth's field, a hard-iron offset and sensor noise.
// Used by the tests, the benchmarks and the generator of the bundled
// recording. Double precision throughout; the sensor outputs are floats.
#pragma once

#include <cstdint>

namespace quelta::sim {

struct Vec3 {
  double x = 0.0, y = 0.0, z = 0.0;
};

// Rotation quaternion (w, x, y, z), Hamilton product, rotating device
// coordinates into east-north-up coordinates.
struct Quat {
  double w = 1.0, x = 0.0, y = 0.0, z = 0.0;
};

Quat quatFromAxisAngle(Vec3 axis, double angleRad);
Quat quatMultiply(const Quat& p, const Quat& q);
Quat quatConjugate(const Quat& q);
Vec3 rotate(const Quat& q, const Vec3& v);  // q v q*
// Heading (clockwise from north, about -up), then pitch about the device x
// axis, then roll about the device y axis, all in degrees. Heading 0 with no
// tilt is the device lying flat, screen up, its y axis (top edge) to north.
Quat attitudeFromHeadingPitchRoll(double headingDeg, double pitchDeg, double rollDeg);
// The i-th of n directions spread evenly over the unit sphere.
Vec3 fibonacciDirection(int i, int n);
// A device turned about all its axes in the hand, as while walking around
// with it: the heading sweeps full turns at 0.9 rad/s while pitch swings by
// +-60 and roll by +-40 degrees, so the field sweeps most of its sphere every
// few seconds. Device-to-ENU attitude at time t (seconds).
Quat handHeldMotion(double timeS);

// Deterministic generator (splitmix64), the same sequence on every platform.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t next();
  double uniform();                       // [0, 1)
  double uniform(double lo, double hi);   // [lo, hi)

 private:
  uint64_t state_;
};

struct EarthField {
  double strengthGauss = 0.5;
  double inclinationDeg = 60.0;  // field dips below the horizon by this much
  Vec3 enu() const;              // the field in east-north-up, gauss
};

struct SensorSample {
  float acc[3];  // specific force in g: up when at rest, in device axes
  float mag[3];  // field in gauss, device axes, with offset and noise
};

struct Device {
  EarthField field;
  Vec3 hardIron{0.12, -0.25, 0.08};  // gauss
  double magNoiseGauss = 0.002;      // uniform, +-
  double accNoiseG = 0.0;            // uniform, +-
  Random random{12345};

  // Readings for a device at this attitude, with an optional linear
  // acceleration given in east-north-up, in g.
  SensorSample read(const Quat& deviceToEnu, Vec3 linearAccEnu = {});
};

}  // namespace quelta::sim
