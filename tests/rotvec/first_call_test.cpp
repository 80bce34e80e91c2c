// Single calls through the C interface: known attitudes, scale invariance,
// degenerate and NaN inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QueltaAlgo.h"

namespace {

void expectRov(float x, float y, float z, float w, float tol) {
  EXPECT_NEAR(fOutRov[0], x, tol);
  EXPECT_NEAR(fOutRov[1], y, tol);
  EXPECT_NEAR(fOutRov[2], z, tol);
  EXPECT_NEAR(fOutRov[3], w, tol);
}

TEST(RotvecFirstCall, LevelDeviceFacingNorthIsIdentity) {
  float before[4] = {9, 9, 9, 9};
  GetCalRov(before);  // nothing published yet: zeros, not the identity
  for (float v : before) EXPECT_EQ(v, 0.0f);

  const float mag[3] = {0.0f, 20.0f, 0.0f};
  const float acc[3] = {0.0f, 0.0f, 1.0f};
  CalcQueltaRotVec(mag, acc, 0);
  EXPECT_EQ(fOutRov[0], 0.0f);
  EXPECT_EQ(fOutRov[1], 0.0f);
  EXPECT_EQ(fOutRov[2], 0.0f);
  EXPECT_EQ(fOutRov[3], 1.0f);
  float rov[4], gravity[3], linear[3];
  GetCalRov(rov);
  GetQueltaGravityAcc(gravity);
  GetQueltaLinearAcc(linear);
  EXPECT_EQ(rov[3], 1.0f);
  EXPECT_EQ(gravity[0], 0.0f);
  EXPECT_EQ(gravity[1], 0.0f);
  EXPECT_EQ(gravity[2], 1.0f);
  EXPECT_EQ(linear[0], 0.0f);
  EXPECT_EQ(linear[1], 0.0f);
  EXPECT_EQ(linear[2], 0.0f);
  float again[4];
  GetCalRov(again);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(again[i], rov[i]);
}

// Device x axis to north, field dipping: a quarter turn about up; the dip
// must not leak into the attitude.
TEST(RotvecFirstCall, DippingFieldAlongXIsQuarterTurnAboutUp) {
  const float mag[3] = {30.0f, 0.0f, -40.0f};
  const float acc[3] = {0.0f, 0.0f, 1.0f};
  CalcQueltaRotVec(mag, acc, 0);
  expectRov(0.0f, 0.0f, 0.70710678f, 0.70710678f, 1e-6f);
}

TEST(RotvecFirstCall, TiltedAboutXBy45Degrees) {
  const float mag[3] = {0.0f, 10.0f, -10.0f};
  const float acc[3] = {0.0f, 0.7071f, 0.7071f};
  CalcQueltaRotVec(mag, acc, 0);
  expectRov(0.38268343f, 0.0f, 0.0f, 0.92387953f, 1e-5f);
  EXPECT_NEAR(fGravityAcc[0], 0.0f, 1e-7f);
  EXPECT_NEAR(fGravityAcc[1], 0.70710678f, 1e-6f);
  EXPECT_NEAR(fGravityAcc[2], 0.70710678f, 1e-6f);
}

// Only the direction of acc matters for the attitude; linear acceleration is
// the raw input minus the unit gravity direction.
TEST(RotvecFirstCall, AccelerationScaleOnlyChangesLinearAcceleration) {
  const float mag[3] = {30.0f, 0.0f, -40.0f};
  const float acc[3] = {0.0f, 0.0f, 9.8f};
  CalcQueltaRotVec(mag, acc, 0);
  expectRov(0.0f, 0.0f, 0.70710678f, 0.70710678f, 1e-6f);
  EXPECT_EQ(fGravityAcc[2], 1.0f);
  EXPECT_EQ(fLinearAcc[0], 0.0f);
  EXPECT_EQ(fLinearAcc[1], 0.0f);
  EXPECT_EQ(fLinearAcc[2], 9.8f - 1.0f);

  const float tilted[3] = {0.3f, -1.2f, 2.0f};
  const float field[3] = {0.2f, 0.4f, -0.3f};
  float rov1[4], g1[3];
  movethd = 0.0f;
  CalcQueltaRotVec(field, tilted, 0);
  GetCalRov(rov1);
  GetQueltaGravityAcc(g1);
  const float scaled[3] = {tilted[0] * 4.0f, tilted[1] * 4.0f, tilted[2] * 4.0f};
  CalcQueltaRotVec(field, scaled, 0);
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(fOutRov[i], rov1[i], 1e-6f);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(fGravityAcc[i], g1[i], 1e-6f);
    EXPECT_EQ(fLinearAcc[i], scaled[i] - fGravityAcc[i]);
  }
}

TEST(RotvecFirstCall, AllZeroInputStaysFinite) {
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  CalcQueltaRotVec(zero, zero, 0);
  expectRov(0.0f, -0.70710678f, 0.70710678f, 0.0f, 1e-6f);
  EXPECT_EQ(fGravityAcc[0], 0.0f);
  EXPECT_EQ(fGravityAcc[1], 0.0f);
  EXPECT_EQ(fGravityAcc[2], 0.0f);
}

// NaN reaches the outputs (no floor swallows it), is published (a NaN
// difference never holds) and is replaced by the next finite result.
TEST(RotvecFirstCall, NaNPropagatesAndRecovers) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float mag[3] = {0.0f, 20.0f, 0.0f};
  const float acc[3] = {0.0f, 0.0f, 1.0f};
  const float badMag[3] = {nan, 20.0f, 0.0f};
  CalcQueltaRotVec(badMag, acc, 0);
  for (float v : fOutRov) EXPECT_TRUE(std::isnan(v));
  EXPECT_EQ(fGravityAcc[2], 1.0f);  // gravity does not depend on the field

  const float badAcc[3] = {0.0f, nan, 1.0f};
  CalcQueltaRotVec(mag, badAcc, 0);
  for (float v : fOutRov) EXPECT_TRUE(std::isnan(v));
  for (float v : fGravityAcc) EXPECT_TRUE(std::isnan(v));
  for (float v : fLinearAcc) EXPECT_TRUE(std::isnan(v));

  CalcQueltaRotVec(mag, acc, 0);
  EXPECT_EQ(fOutRov[3], 1.0f);
  EXPECT_EQ(fGravityAcc[2], 1.0f);
}

}  // namespace
