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

TEST(SensorHealth, AReadingRepeatedBitForBitPutsTheTurnInDoubtBeforeGravityCanTell) {
  // A device turning at 2 rad/s about x. Stuck: it stops, but the gyroscope
  // sticks on its last reading, and the attitude integrates 2 rad/s. Dead:
  // it turns on, but the gyroscope reads zeros, and the attitude stands
  // still. Either way gravity (low-passed, still catching up with the turn
  // before) shows it only with a lag; the doubt covers the turn at once.
  for (const bool dead : {false, true}) {
    SensorHealth health;
    const Vec3 field{0.0, 0.25, -0.433};
    double angle = 0.0;
    Vec3 gyro{2.0, 0.0, 0.0};
    const auto observe = [&]() {
      const Quat q = fromRotationVector(Vec3{angle, 0.0, 0.0});
      const Vec3 acc = rotateBack(q, Vec3{0.0, 0.0, 1.0}), f = rotateBack(q, field);
      health.observe(kDt, acc, &f, &f, &gyro);
    };
    for (int i = 0; i < 50; ++i) {  // turning: each reading differs a little, as real ones do
      angle += 2.0 * kDt;
      gyro.y = 1e-4 * (i % 7);
      observe();
    }
    if (dead) gyro = Vec3{};
    double wrong = 0.0;  // deg the attitude is off by
    int checked = 0;
    for (int i = 0; i < 10 && health.gyroUsable(); ++i) {  // until it is left out
      if (dead) angle += 2.0 * kDt;
      observe();
      wrong += 2.0 * kDt / kDeg;
      if (wrong > 6.0 && health.gyroUsable()) {
        EXPECT_GE(health.headingDoubtDeg() + 1e-9, wrong - 4.0 * kDt / kDeg) << (dead ? "dead " : "stuck ") << i;
        ++checked;
      }
    }
    EXPECT_GT(checked, 0) << (dead ? "dead" : "stuck");
    EXPECT_FALSE(health.gyroUsable()) << (dead ? "dead" : "stuck");  // and then it is left out
  }
}

}  // namespace
}  // namespace quelta::compass
