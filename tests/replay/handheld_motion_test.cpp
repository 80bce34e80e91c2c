// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>

#include "tools/recording_sim/handheld_motion.h"

namespace quelta::sim {
namespace {

double angleBetween(const Quat& a, const Quat& b) {
  const Quat d = quatMultiply(quatConjugate(a), b);
  return 2.0 * std::atan2(std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z), std::fabs(d.w));
}

double size(const Vec3& v) { return std::fabs(v.x) + std::fabs(v.y) + std::fabs(v.z); }

// The reference gyroscope column must agree with the reference attitude.
TEST(HandheldMotion, RateIntegratesToTheAttitudeAndIsContinuous) {
  const double dt = 0.001;
  Quat q = handheldAttitude(0.0);
  double worst = 0.0, largestStep = 0.0;
  Vec3 previous = handheldAngularRate(0.0);
  for (double t = 0.0; t < kHandheldScriptSeconds - dt / 2; t += dt) {
    const Vec3 w = handheldAngularRate(t + dt / 2);
    const double rate = std::sqrt(w.x * w.x + w.y * w.y + w.z * w.z);
    if (rate > 0.0) q = quatMultiply(q, quatFromAxisAngle(w, rate * dt));
    worst = std::fmax(worst, angleBetween(q, handheldAttitude(t + dt)));
    const Vec3 now = handheldAngularRate(t + dt);
    largestStep = std::fmax(largestStep, size({now.x - previous.x, now.y - previous.y, now.z - previous.z}));
    previous = now;
  }
  EXPECT_LT(worst, 1e-3);        // radians, after a minute of motion
  EXPECT_LT(largestStep, 0.05);  // rad/s per millisecond: no jumps
  // Still at the start and at the end, turning during the figure-eight.
  for (double t : {1.0, 21.0, 34.0, 58.0}) EXPECT_LT(size(handheldAngularRate(t)), 1e-6) << t;
  EXPECT_GT(size(handheldAngularRate(10.0)), 0.5);
}

}  // namespace
}  // namespace quelta::sim
