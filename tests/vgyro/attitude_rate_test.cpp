// Attitude from field and acceleration, and the field-only rate with its
// axis memory.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "vgyro/field_rate.h"

namespace {

void expectQuat(const float* q, float w, float x, float y, float z) {
  EXPECT_EQ(q[0], w);
  EXPECT_EQ(q[1], x);
  EXPECT_EQ(q[2], y);
  EXPECT_EQ(q[3], z);
}

TEST(Attitude, FlatDeviceFacingNorthOrWestGivesTheExpectedMatrixAndQuaternion) {
  float C[9];
  const float acc[3] = {0.0f, 0.0f, 9.8f};
  const float magNorth[3] = {0.0f, 20.0f, -40.0f};
  getCn2bMagAcc(magNorth, acc, C);
  const float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(C[i], identity[i]) << i;
  float q[4] = {9, 9, 9, 9};
  dcm2Quat(C, q);
  expectQuat(q, 1.0f, 0.0f, 0.0f, 0.0f);

  const float magWest[3] = {20.0f, 0.0f, -40.0f};  // top edge turned +90 degrees, to west
  getCn2bMagAcc(magWest, acc, C);
  const float turned[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(C[i], turned[i]) << i;
  dcm2Quat(C, q);
  // cos and sin of 45 degrees, to within the float normalisation.
  EXPECT_NEAR(q[0], 0.70710677, 1e-7);
  EXPECT_EQ(q[1], 0.0f);
  EXPECT_EQ(q[2], 0.0f);
  EXPECT_EQ(q[3], q[0]);
}

TEST(Attitude, DegenerateInputsGiveZeroColumns) {
  float C[9];
  const float mag[3] = {0.0f, 20.0f, -40.0f};
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  getCn2bMagAcc(mag, zero, C);  // no acceleration: no up, and mag x 0 = 0
  for (float c : C) EXPECT_EQ(c, 0.0f);
  const float parallel[3] = {0.0f, 0.0f, -3.0f};
  const float acc[3] = {0.0f, 0.0f, 9.8f};
  getCn2bMagAcc(parallel, acc, C);  // field along gravity: no east, no north
  const float upOnly[9] = {0, 0, 0, 0, 0, 0, 0, 0, 1};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(C[i], upOnly[i]) << i;

  float q[4];
  const float zeros[9] = {};
  dcm2Quat(zeros, q);
  expectQuat(q, 0.0f, 1.0f, 0.0f, 0.0f);
}

TEST(Attitude, HalfTurnsTakeTheBranchOfTheLargestDiagonalTerm) {
  float q[4];
  const float aboutX[9] = {1, 0, 0, 0, -1, 0, 0, 0, -1};
  dcm2Quat(aboutX, q);
  expectQuat(q, 0.0f, 1.0f, 0.0f, 0.0f);
  const float aboutY[9] = {-1, 0, 0, 0, 1, 0, 0, 0, -1};
  dcm2Quat(aboutY, q);
  expectQuat(q, 0.0f, 0.0f, 1.0f, 0.0f);
  const float aboutZ[9] = {-1, 0, 0, 0, -1, 0, 0, 0, 1};
  dcm2Quat(aboutZ, q);
  expectQuat(q, 0.0f, 0.0f, 0.0f, 1.0f);

  // 120 degrees about (1, 1, 1) rotated the other way round gives w < 0 in
  // a diagonal branch: the sign is not normalised. Rows: x->z, y->x, z->y.
  const float cycle[9] = {0, 0, 1, 1, 0, 0, 0, 1, 0};
  dcm2Quat(cycle, q);  // tr = 0: last branch, t = 1, x = 0.5, w = 0.5 (0 - 1) = -0.5
  expectQuat(q, -0.5f, 0.5f, 0.5f, 0.5f);
}

// A buffer of the three newest field samples (oldest first).
struct ThreeSamples {
  float storage[9];
  DataBuffer rec;
  ThreeSamples(const float* a, const float* b, const float* c) {
    bfNew(&rec, storage, 3, 3);
    bfPut(&rec, a);
    bfPut(&rec, b);
    bfPut(&rec, c);
  }
};

// Field seen by a device turning counter-clockwise about its z (or x) axis:
// the field turns the other way in device coordinates.
void fieldAboutZ(float phi, float* v) {
  v[0] = std::cos(phi);
  v[1] = -std::sin(phi);
  v[2] = 0.5f;
}
void fieldAboutX(float phi, float* v) {
  v[0] = 0.5f;
  v[1] = std::cos(phi);
  v[2] = -std::sin(phi);
}

TEST(FieldRate, TurnsAboveFiveDegreesGiveTheRateAndSmallerOnesZero) {
  float a[3], b[3], c[3], out[3];
  fieldAboutZ(0.0f, a);
  fieldAboutZ(0.1f, b);
  fieldAboutZ(0.2f, c);
  ThreeSamples turning(a, b, c);
  getWMag(&turning.rec, out, 0.1f);
  EXPECT_NEAR(out[0], 0.0, 1e-5);
  EXPECT_NEAR(out[1], 0.0, 1e-5);
  EXPECT_NEAR(out[2], 1.0, 2e-4);

  fieldAboutZ(0.01f, b);
  fieldAboutZ(0.02f, c);
  ThreeSamples slow(a, b, c);  // 1 rad/s at 100 Hz: 0.01 rad between differences
  quelta::FieldRateEstimator estimator;
  estimator.iWMagAxisHoldCount = 3;
  estimator.fWMagAxisPrev[2] = 1.0f;
  estimator.rate(slow.rec, out, 0.01f);
  for (float v : out) EXPECT_EQ(v, 0.0f);
  for (float v : estimator.fWMagAxisPrev) EXPECT_EQ(v, 0.0f);
  EXPECT_EQ(estimator.bWMagAxisValid, 1);
  EXPECT_EQ(estimator.iWMagAxisHoldCount, 3);  // a small turn keeps the count
}

TEST(FieldRate, KeepsThePreviousAxisForAtMostFiveCalls) {
  quelta::FieldRateEstimator estimator;
  float a[3], b[3], c[3], out[3];
  fieldAboutZ(0.0f, a);
  fieldAboutZ(0.1f, b);
  fieldAboutZ(0.2f, c);
  ThreeSamples aboutZ(a, b, c);
  estimator.rate(aboutZ.rec, out, 0.01f);
  EXPECT_GT(out[2], 9.0f);
  EXPECT_EQ(estimator.iWMagAxisHoldCount, 0);

  fieldAboutX(0.0f, a);
  fieldAboutX(0.1f, b);
  fieldAboutX(0.2f, c);
  ThreeSamples aboutX(a, b, c);  // axis 90 degrees away from the previous one
  for (int call = 1; call <= 5; ++call) {
    estimator.rate(aboutX.rec, out, 0.01f);
    EXPECT_EQ(estimator.iWMagAxisHoldCount, call);
    EXPECT_EQ(out[0], 0.0f) << call;
    EXPECT_EQ(out[1], 0.0f) << call;
    EXPECT_GT(out[2], 0.0f) << call;  // measured about the held z axis
    EXPECT_EQ(estimator.fWMagAxisPrev[2], 1.0f);
  }
  estimator.rate(aboutX.rec, out, 0.01f);
  EXPECT_EQ(estimator.iWMagAxisHoldCount, 0);
  EXPECT_NEAR(out[0], 10.0, 2e-3);
  EXPECT_NEAR(out[2], 0.0, 1e-5);
  EXPECT_NEAR(estimator.fWMagAxisPrev[0], 1.0, 1e-6);
}

}  // namespace
