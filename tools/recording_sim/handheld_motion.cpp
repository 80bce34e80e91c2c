// SPDX-License-Identifier: Apache-2.0
#include "tools/recording_sim/handheld_motion.h"

#include <cmath>
#include <cstdio>

namespace quelta::sim {

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Pose {
  double t, heading, pitch, roll;  // seconds, degrees
};

// The script's keyframes; between two of them the pose eases from one to
// the next. Repeated poses are still periods.
constexpr Pose kKeyframes[] = {
    {0.0, 20.0, 0.0, 0.0},    // still, lying flat
    {19.0, 20.0, 0.0, 0.0},   // (figure-eight from 3 s to 19 s on top of this)
    {23.0, 20.0, 0.0, 0.0},   // still
    {26.0, 110.0, 0.0, 0.0},  // turn right
    {27.0, 110.0, 0.0, 0.0},
    {31.0, -70.0, 0.0, 0.0},  // half a turn back
    {36.0, -70.0, 0.0, 0.0},  // still
    {38.0, -70.0, 35.0, 0.0},  // tilt the top edge down
    {39.0, -70.0, 35.0, 0.0},
    {41.0, -70.0, 35.0, -30.0},  // and roll
    {42.0, -70.0, 35.0, -30.0},
    {45.0, -70.0, -25.0, 20.0},  // tilt the other way
    {46.0, -70.0, -25.0, 20.0},
    {48.0, -70.0, 0.0, 0.0},  // level again
    {50.0, -70.0, 0.0, 0.0},
    {51.0, -70.0, 15.0, 0.0},
    {54.0, 200.0, 15.0, 0.0},  // three quarters of a turn, tilted
    {55.0, 200.0, 0.0, 0.0},
    {60.0, 200.0, 0.0, 0.0},  // still to the end
};

constexpr double kEightStart = 3.0;
constexpr double kEightEnd = 19.0;
constexpr double kEightRamp = 1.5;

double smoothstep(double x) {
  if (x <= 0.0) return 0.0;
  if (x >= 1.0) return 1.0;
  return x * x * (3.0 - 2.0 * x);
}

Pose keyframePose(double t) {
  const size_t count = sizeof kKeyframes / sizeof kKeyframes[0];
  if (t <= kKeyframes[0].t) return kKeyframes[0];
  for (size_t i = 1; i < count; ++i) {
    const Pose& a = kKeyframes[i - 1];
    const Pose& b = kKeyframes[i];
    if (t <= b.t) {
      const double s = smoothstep((t - a.t) / (b.t - a.t));
      return {t, a.heading + s * (b.heading - a.heading), a.pitch + s * (b.pitch - a.pitch),
              a.roll + s * (b.roll - a.roll)};
    }
  }
  return kKeyframes[count - 1];
}

// Fades the figure-eight in and out so it starts and ends at rest.
double eightEnvelope(double t) {
  return smoothstep((t - kEightStart) / kEightRamp) * smoothstep((kEightEnd - t) / kEightRamp);
}

}  // namespace

Quat handheldAttitude(double t) {
  Pose pose = keyframePose(t);
  const double envelope = eightEnvelope(t);
  if (envelope > 0.0) {
    // A figure-eight: the heading swings once while the pitch swings twice;
    // a slower roll makes the loops sweep the whole sphere of directions.
    const double u = t - kEightStart;
    pose.heading += 160.0 * envelope * std::sin(2.0 * kPi * u / 8.0);
    pose.pitch += 65.0 * envelope * std::sin(4.0 * kPi * u / 8.0);
    pose.roll += 55.0 * envelope * std::sin(2.0 * kPi * u / 5.3 + 0.5);
  }
  return attitudeFromHeadingPitchRoll(pose.heading, pose.pitch, pose.roll);
}

Vec3 handheldAngularRate(double t) {
  // q' = q (0, w) / 2 for a rate w in device axes: w = 2 vec(q* q').
  const double h = 1e-5;
  const Quat before = handheldAttitude(t - h);
  const Quat after = handheldAttitude(t + h);
  const Quat q = handheldAttitude(t);
  const Quat derivative{(after.w - before.w) / (2 * h), (after.x - before.x) / (2 * h),
                        (after.y - before.y) / (2 * h), (after.z - before.z) / (2 * h)};
  const Quat rate = quatMultiply(quatConjugate(q), derivative);
  return {2.0 * rate.x, 2.0 * rate.y, 2.0 * rate.z};
}

Vec3 handheldLinearAcceleration(double t) {
  const double envelope = eightEnvelope(t);
  if (envelope <= 0.0) return {};
  const double u = t - kEightStart;
  return {0.12 * envelope * std::sin(2.0 * kPi * u / 8.0), 0.05 * envelope * std::sin(4.0 * kPi * u / 8.0),
          0.04 * envelope * std::sin(2.0 * kPi * u / 2.0)};
}

std::string simulateHandheldRecording(const RecordingPlan& plan) {
  Device device;
  device.field.strengthGauss = plan.fieldGauss;
  device.field.inclinationDeg = plan.inclinationDeg;
  device.hardIron = plan.hardIron;
  device.magNoiseGauss = plan.magNoiseGauss;
  device.accNoiseG = plan.accNoiseG;
  device.random = Random(plan.seed);

  const double accScale = plan.accInMetresPerSecond2 ? 9.80665 : 1.0;
  const double magScale = plan.magInMicrotesla ? 100.0 : 1.0;
  // The reference frame's north is the declination west of magnetic north.
  const Quat toReference = quatFromAxisAngle({0.0, 0.0, -1.0}, plan.declinationDeg * kPi / 180.0);

  std::string text;
  char line[512];
  std::snprintf(line, sizeof line,
                "# simulated hand-held device, seed %llu: hard-iron offset %.4f %.4f %.4f gauss, field %.4f gauss, "
                "inclination %.2f deg, declination %.2f deg\n",
                static_cast<unsigned long long>(plan.seed), plan.hardIron.x, plan.hardIron.y, plan.hardIron.z,
                plan.fieldGauss, plan.inclinationDeg, plan.declinationDeg);
  text += line;
  std::snprintf(line, sizeof line, "# accelerometer in %s, magnetometer in %s\n",
                plan.accInMetresPerSecond2 ? "m/s^2" : "g", plan.magInMicrotesla ? "microtesla" : "gauss");
  text += line;
  text += plan.withReference ? "t,ax,ay,az,mx,my,mz,gx,gy,gz,qw,qx,qy,qz\n" : "t,ax,ay,az,mx,my,mz\n";

  const long count = std::lround(plan.durationSeconds * plan.rateHz);
  for (long i = 0; i < count; ++i) {
    const double t = static_cast<double>(i) / plan.rateHz;
    const Quat attitude = handheldAttitude(t);
    const SensorSample s = device.read(attitude, handheldLinearAcceleration(t));
    int n = std::snprintf(line, sizeof line, "%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g", t, s.acc[0] * accScale,
                          s.acc[1] * accScale, s.acc[2] * accScale, s.mag[0] * magScale, s.mag[1] * magScale,
                          s.mag[2] * magScale);
    if (plan.withReference) {
      const Vec3 w = handheldAngularRate(t);
      Quat q = quatMultiply(toReference, attitude);
      if (q.w < 0.0) q = {-q.w, -q.x, -q.y, -q.z};
      n += std::snprintf(line + n, sizeof line - n, ",%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g", w.x, w.y, w.z, q.w,
                         q.x, q.y, q.z);
    }
    text.append(line, static_cast<size_t>(n));
    text += '\n';
  }
  return text;
}

}  // namespace quelta::sim
