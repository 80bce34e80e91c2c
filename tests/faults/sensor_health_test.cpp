// SPDX-License-Identifier: Apache-2.0
// The gyroscope's bias as gravity and the earth's field see it, on a
// simulated device with known truth: a bias about gravity that only the
// field reveals, a bias within reach that must never be condemned (and is
// estimated), and a gyroscope taken back only once it has been seen right.
#include <gtest/gtest.h>

#include <cmath>

#include "quelta/compass/sensor_health.h"

namespace quelta::compass {
namespace {

const Vec3 kField{0.0, 0.25, -0.433};  // gauss, east-north-up, 60 degrees of dip
constexpr double kDt = 0.02;           // s

// A device turning slowly about up while it rocks about its x axis
// (rock: amplitude in rad); returns the body rate over [t, t + dt].
struct Device {
  double rock = 0.3;
  Quat at(double t) const {
    return aboutUp(0.3 * t) * fromRotationVector(Vec3{rock * std::sin(0.5 * t), 0.0, 0.0});
  }
  Vec3 rate(double t) const {
    const Quat d = conj(at(t)) * at(t + kDt);
    const Vec3 v{d.x, d.y, d.z};
    const double s = norm(v);
    return s > 0.0 ? (2.0 * std::atan2(s, d.w) / (s * kDt)) * v : Vec3{};
  }
};

// Runs the health checks for seconds from t0 with the given bias (device
// frame); returns the time the gyroscope was first left out (-1: never).
double feed(SensorHealth& health, const Device& device, double t0, double seconds, const Vec3& bias,
            bool fieldTrusted, bool* takenBack = nullptr) {
  health.setFieldTrusted(fieldTrusted);
  double firstOut = -1.0;
  for (double t = t0; t < t0 + seconds; t += kDt) {
    const Quat q = device.at(t + kDt);
    const Vec3 acc = rotateBack(q, Vec3{0.0, 0.0, 1.0});
    const Vec3 field = rotateBack(q, kField);
    const Vec3 gyro = device.rate(t) + bias;
    health.observe(kDt, acc, &field, &field, &gyro);
    if (!health.gyroUsable() && firstOut < 0.0) firstOut = t - t0;
    if (takenBack != nullptr && health.takeGyroscopeBack()) *takenBack = true;
  }
  return firstOut;
}

TEST(SensorHealth, ABiasAboutGravityOnlyTheFieldSeesIsLeftOutAndTakenBackOnlyOnceSeenRight) {
  Device still;
  still.rock = 0.0;  // turning about up only: gravity stays put in every frame
  const Vec3 aboutGravity{0.0, 0.0, 0.5};  // rad/s
  {
    SensorHealth blind;
    EXPECT_LT(feed(blind, still, 0.0, 60.0, aboutGravity, false), 0.0);  // gravity alone cannot tell
  }
  SensorHealth health;
  const double out = feed(health, still, 0.0, 60.0, aboutGravity, true);
  EXPECT_GE(out, 0.0);
  EXPECT_LT(out, 20.0);  // s: the field shows a turn about up only by its horizontal part
  EXPECT_NEAR(health.biasSeen().z, 0.5, 0.15);
  // The bias goes away: blocks that agree come at once, but the gyroscope
  // is taken back only once the estimate is surely within reach.
  bool back = false;
  feed(health, still, 60.0, 6.0, Vec3{}, true, &back);
  EXPECT_FALSE(back);
  feed(health, still, 66.0, 120.0, Vec3{}, true, &back);
  EXPECT_TRUE(back);
  EXPECT_TRUE(health.gyroUsable());
}

TEST(SensorHealth, ABiasWithinReachIsNeverCondemnedAndIsSeen) {
  Device device;  // turning and rocking: every axis of the bias shows
  SensorHealth health;
  const Vec3 bias{0.08, -0.05, 0.06};  // rad/s, within what the filter learns
  EXPECT_LT(feed(health, device, 0.0, 120.0, bias, true), 0.0);
  EXPECT_NEAR(health.biasSeen().x, bias.x, 0.03);
  EXPECT_NEAR(health.biasSeen().y, bias.y, 0.03);
  EXPECT_NEAR(health.biasSeen().z, bias.z, 0.03);
  EXPECT_DOUBLE_EQ(health.headingDoubtDeg(), 0.0);
}

TEST(SensorHealth, AReadingRepeatedBitForBitPutsTheTurnItIntegratesInDoubtAtOnce) {
  // A gyroscope stuck on 2 rad/s about x while the device lies still: the
  // attitude integrates 2 rad/s, and before gravity (low-passed) shows that
  // nothing turned, the doubt already covers what the reading turned.
  SensorHealth health;
  const Vec3 acc{0.0, 0.0, 1.0}, field{0.0, 0.25, -0.433};
  const Vec3 still{0.0, 0.0, 0.0}, stuck{2.0, 0.0, 0.0};
  for (int i = 0; i < 100; ++i) health.observe(kDt, acc, &field, &field, &still);
  double integrated = 0.0;
  for (int i = 0; i < 5; ++i) {
    health.observe(kDt, acc, &field, &field, &stuck);
    if (i > 0) integrated += 2.0 * kDt / kDeg;  // the first reading is new, its repeats integrate
    if (integrated > 3.0) EXPECT_GE(health.headingDoubtDeg() + 1e-9, integrated) << i;
  }
  EXPECT_GT(integrated, 3.0);
}

}  // namespace
}  // namespace quelta::compass
