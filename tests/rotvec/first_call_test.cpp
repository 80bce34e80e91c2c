// Single calls through the C interface: known attitudes, scale invariance,
// degenerate and NaN inputs, the direction cosine matrix.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QueltaAlgo.h"
#include "rotvec/rotation_vector.h"
#include "tools/sim/device_sim.h"

namespace {

struct Case {
  const char* name;
  float mag[3], acc[3];
  float rov[4], gravity[3], linear[3];
};

TEST(RotvecFirstCall, KnownAttitudes) {
  const float h = 0.70710678f;
  const Case cases[] = {
      {"level, facing north", {0, 20, 0}, {0, 0, 1}, {0, 0, 0, 1}, {0, 0, 1}, {0, 0, 0}},
      {"quarter turn, dipping field", {30, 0, -40}, {0, 0, 1}, {0, 0, h, h}, {0, 0, 1}, {0, 0, 0}},
      {"acc in m/s^2", {30, 0, -40}, {0, 0, 9.8f}, {0, 0, h, h}, {0, 0, 1}, {0, 0, 8.8f}},
      {"tilted 45 about x", {0, 10, -10}, {0, 0.7071f, 0.7071f}, {0.38268343f, 0, 0, 0.92387953f}, {0, h, h}, {0, 0.7071f - h, 0.7071f - h}},
      {"all zero", {0, 0, 0}, {0, 0, 0}, {0, -h, h, 0}, {0, 0, 0}, {0, 0, 0}},
  };
  for (const Case& c : cases) {
    quelta::OwnedRotationVector fresh;  // first call of its own
    fresh.fusion.update(c.mag, c.acc, 0);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(fresh.rov[i], c.rov[i], 1e-5f) << c.name << " rov " << i;
    for (int i = 0; i < 3; ++i) {
      EXPECT_NEAR(fresh.gravity[i], c.gravity[i], 1e-6f) << c.name << " gravity " << i;
      EXPECT_NEAR(fresh.linear[i], c.linear[i], 1e-6f) << c.name << " linear " << i;
    }
  }

  // Through the C interface: zeros before the first call, the identity is
  // exact, and reading twice gives the same values.
  float rov[4] = {9, 9, 9, 9}, gravity[3], linear[3];
  GetCalRov(rov);
  for (float v : rov) EXPECT_EQ(v, 0.0f);
  CalcQueltaRotVec(cases[0].mag, cases[0].acc, 0);
  GetCalRov(rov);
  GetQueltaGravityAcc(gravity);
  GetQueltaLinearAcc(linear);
  EXPECT_TRUE(rov[0] == 0.0f && rov[1] == 0.0f && rov[2] == 0.0f && rov[3] == 1.0f);
  EXPECT_TRUE(gravity[0] == 0.0f && gravity[1] == 0.0f && gravity[2] == 1.0f);
  EXPECT_TRUE(linear[0] == 0.0f && linear[1] == 0.0f && linear[2] == 0.0f);
  GetCalRov(rov);
  EXPECT_EQ(rov[3], 1.0f);
}

// NaN reaches the outputs (no floor swallows it), is published (a NaN
// difference never holds) and is replaced by the next finite result.
TEST(RotvecFirstCall, NaNPropagatesAndRecovers) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float mag[3] = {0, 20, 0}, acc[3] = {0, 0, 1}, badMag[3] = {nan, 20, 0}, badAcc[3] = {0, nan, 1};
  CalcQueltaRotVec(badMag, acc, 0);
  for (float v : fOutRov) EXPECT_TRUE(std::isnan(v));
  EXPECT_EQ(fGravityAcc[2], 1.0f);
  CalcQueltaRotVec(mag, badAcc, 0);
  for (float v : fGravityAcc) EXPECT_TRUE(std::isnan(v));
  for (float v : fLinearAcc) EXPECT_TRUE(std::isnan(v));
  CalcQueltaRotVec(mag, acc, 0);
  EXPECT_EQ(fOutRov[3], 1.0f);
}

// For consistent unit directions GetCn2bAcc gives the device's attitude at
// any tilt: every entry's sign and the east completion.
TEST(RotvecFirstCall, Cn2bColumnsAreEastNorthUpInDeviceAxes) {
  quelta::sim::Random random(21);
  const quelta::sim::EarthField field{0.5, 55.0};
  for (int trial = 0; trial < 300; ++trial) {
    const auto toDevice = quelta::sim::quatConjugate(quelta::sim::attitudeFromHeadingPitchRoll(
        random.uniform(-180, 180), random.uniform(-80, 80), random.uniform(-80, 80)));
    const quelta::sim::Vec3 b = quelta::sim::rotate(toDevice, field.enu());
    const quelta::sim::Vec3 axes[3] = {quelta::sim::rotate(toDevice, {1, 0, 0}),
                                       quelta::sim::rotate(toDevice, {0, 1, 0}), quelta::sim::rotate(toDevice, {0, 0, 1})};
    float in[8] = {static_cast<float>(b.x / 0.5), static_cast<float>(b.y / 0.5), static_cast<float>(b.z / 0.5),
                   static_cast<float>(axes[2].x), static_cast<float>(axes[2].y), static_cast<float>(axes[2].z)};
    in[7] = (in[0] * in[3] + in[1] * in[4]) + in[2] * in[5];
    in[6] = std::sqrt(1.0f - in[7] * in[7]);
    float C[9];
    GetCn2bAcc(in, C);
    for (int col = 0; col < 3; ++col) {
      const double truth[3] = {axes[col].x, axes[col].y, axes[col].z};
      for (int row = 0; row < 3; ++row) {
        // East entries come from sqrt(1 - t), which magnifies rounding near 0.
        const double tol = col == 0 ? 2e-5 + 1e-7 / std::fabs(truth[row]) : 2e-5;
        ASSERT_NEAR(C[3 * row + col], truth[row], tol) << "trial " << trial << " row " << row << " col " << col;
      }
    }
  }
}

}  // namespace
