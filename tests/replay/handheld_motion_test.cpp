#include <gtest/gtest.h>

#include <cmath>

#include "tools/recording_sim/handheld_motion.h"
#include "tools/replay/attitude_math.h"
#include "tools/replay/recording.h"

namespace quelta::sim {
namespace {

double angleBetween(const Quat& a, const Quat& b) {
  const Quat d = quatMultiply(quatConjugate(a), b);
  return 2.0 * std::atan2(std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z), std::fabs(d.w));
}

TEST(HandheldMotion, RateIntegratesToTheAttitudeAndIsContinuous) {
  // Integrating the device-frame rate reproduces the scripted attitude.
  const double dt = 0.001;
  Quat q = handheldAttitude(0.0);
  double worst = 0.0;
  double largestStep = 0.0;
  Vec3 previous = handheldAngularRate(0.0);
  for (double t = 0.0; t < kHandheldScriptSeconds - dt / 2; t += dt) {
    const Vec3 w = handheldAngularRate(t + dt / 2);
    const double rate = std::sqrt(w.x * w.x + w.y * w.y + w.z * w.z);
    if (rate > 0.0) q = quatMultiply(q, quatFromAxisAngle(w, rate * dt));
    worst = std::fmax(worst, angleBetween(q, handheldAttitude(t + dt)));
    const Vec3 now = handheldAngularRate(t + dt);
    largestStep = std::fmax(largestStep, std::fabs(now.x - previous.x) + std::fabs(now.y - previous.y) +
                                             std::fabs(now.z - previous.z));
    previous = now;
  }
  EXPECT_LT(worst, 1e-3);        // radians, after a minute of motion
  EXPECT_LT(largestStep, 0.05);  // rad/s per millisecond: no jumps
  // Still at the start and at the end, turning during the figure-eight.
  for (double t : {1.0, 21.0, 34.0, 58.0}) {
    const Vec3 w = handheldAngularRate(t);
    EXPECT_LT(std::fabs(w.x) + std::fabs(w.y) + std::fabs(w.z), 1e-6) << t;
  }
  const Vec3 turning = handheldAngularRate(10.0);
  EXPECT_GT(std::fabs(turning.x) + std::fabs(turning.y) + std::fabs(turning.z), 0.5);
}

TEST(HandheldMotion, RecordingCarriesItsTruthInEitherUnits) {
  RecordingPlan plan;
  plan.durationSeconds = 2.0;
  plan.declinationDeg = 10.0;
  const std::string plain = simulateHandheldRecording(plan);
  plan.accInMetresPerSecond2 = true;
  plan.magInMicrotesla = true;
  const std::string metric = simulateHandheldRecording(plan);
  EXPECT_EQ(plain.rfind("# simulated hand-held device, seed 12345: hard-iron offset 0.1200 -0.2500 0.0800 gauss", 0),
            0u);

  replay::Recording a, b;
  replay::InputError error;
  ASSERT_TRUE(replay::parseRecording(plain, "plain", {}, a, error)) << error.describe();
  ASSERT_TRUE(replay::parseRecording(
      metric, "metric", {replay::AccUnit::MetresPerSecond2, replay::MagUnit::Microtesla}, b, error))
      << error.describe();
  ASSERT_EQ(a.samples.size(), 100u);
  ASSERT_TRUE(a.hasGyro && a.hasAttitude);
  EXPECT_NEAR(a.nominalPeriod(), 0.02, 1e-9);
  for (size_t i = 0; i < a.samples.size(); i += 7) {
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(a.samples[i].acc[k], b.samples[i].acc[k], 1e-6);
      EXPECT_NEAR(a.samples[i].mag[k], b.samples[i].mag[k], 1e-6);
    }
    // The field, less the offset, has the field's strength.
    const auto& m = a.samples[i].mag;
    EXPECT_NEAR(std::hypot(m[0] - 0.12, m[1] + 0.25, m[2] - 0.08), 0.5, 0.004);
    // The reference heading is the scripted one plus the declination.
    const replay::Angles angles = replay::anglesOf(a.samples[i].attitude);
    EXPECT_NEAR(angles.azimuth, 30.0, 1e-4);
  }
}

}  // namespace
}  // namespace quelta::sim
