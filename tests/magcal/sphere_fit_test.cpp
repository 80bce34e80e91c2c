// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "magcal/sphere_fit.h"
#include "magcal_fixtures.h"

using namespace magcal_test;
using quelta::fitSphere;
using quelta::invert4x4;
using quelta::SphereFitResult;

namespace {

struct Pool {
  quelta::CalibrationPool::Samples s = {};
};

Pool spherePool(int n, float radius, const float* centre) {
  Pool pool;
  for (int i = 0; i < n; ++i) {
    const Point p = spherePoint(i, n, radius, centre);
    for (int k = 0; k < 3; ++k) pool.s[i][k] = p.v[k];
  }
  return pool;
}

// Six points on the axes fit their sphere exactly: centre 0, radius r, and
// every distance ratio exactly 1.
SphereFitResult axisFit(float r, float low = 0.85f, float high = 1.15f, int mode = 0) {
  Pool pool;
  for (int i = 0; i < 6; ++i) pool.s[i][i / 2] = (i % 2) ? -r : r;
  return fitSphere(pool.s, 6, low, high, mode);
}

}  // namespace

TEST(SphereFit, RecoversAKnownSphereAndJudgesTheBands) {
  startCapture();
  const float centre[3] = {0.1f, -0.2f, 0.3f};
  for (float radius : {0.5f, 0.9f, 0.15f}) {
    const SphereFitResult fit = fitSphere(spherePool(32, radius, centre).s, 32, 0.85f, 1.15f, 0);
    EXPECT_EQ(fit.accepted, radius == 0.5f ? 1 : 0) << radius;
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(fit.offset[k], centre[k], 2e-6);
    EXPECT_NEAR(fit.radius, radius, 2e-6);
  }
  // The radius band is open, the ratio band closed.
  for (float r : {0.2f, 0.8f}) EXPECT_TRUE(axisFit(r).radius == r && axisFit(r).accepted == 0) << r;
  EXPECT_EQ(axisFit(std::nextafter(0.2f, 1.0f), 1.0f, 1.0f).accepted, 1);
  EXPECT_EQ(axisFit(std::nextafter(0.8f, 0.0f), 1.0f, 1.0f).accepted, 1);
  EXPECT_EQ(axisFit(0.5f, 1.0f, std::nextafter(1.0f, 0.0f), 5).accepted, 0);
  EXPECT_TRUE(capturedLines().empty());  // log mode 5 is silent
  // Every sample offends; only the first is reported.
  EXPECT_EQ(axisFit(0.5f, std::nextafter(1.0f, 2.0f), 2.0f, 1).accepted, 0);
  EXPECT_EQ(capturedLines().size(), 1u);
}

TEST(SphereFit, SingularNormalMatrixGivesTheDefaultRecord) {
  startCapture();
  const float centre[3] = {0.0f, 0.0f, 0.0f};
  Pool flat = spherePool(20, 0.5f, centre);
  for (auto& sample : flat.s) sample[2] = 0.0f;  // one plane: z carries nothing
  for (int n : {0, -3, 20}) {
    const SphereFitResult fit = fitSphere(flat.s, n, 0.85f, 1.15f, 7);
    EXPECT_TRUE(fit.accepted == 0 && fit.offset[0] == 0.0f && fit.radius == 0.5f) << n;
  }
  EXPECT_EQ(capturedLines().size(), 3u);  // reported whatever the log mode
}

TEST(Invert4x4, CompletePivotingWithExchangesAndTies) {
  // Every pivot search is a tie: the inverse is the transpose over 4, exactly.
  const double hadamard[4][4] = {{1, 1, 1, 1}, {1, -1, 1, -1}, {1, 1, -1, -1}, {1, -1, -1, 1}};
  double h[4][4];
  std::memcpy(h, hadamard, sizeof h);
  ASSERT_TRUE(invert4x4(h));
  // Pivots off the diagonal: row and column exchanges must be undone.
  double p[4][4] = {{0, 0, 0, 4}, {0, 0, -2, 0}, {0, 8, 0, 0}, {0.5, 0, 0, 0}};
  const double pInv[4][4] = {{0, 0, 0, 2}, {0, 0, 0.125, 0}, {0, -0.5, 0, 0}, {0.25, 0, 0, 0}};
  ASSERT_TRUE(invert4x4(p));
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) EXPECT_TRUE(h[i][j] == hadamard[j][i] / 4.0 && p[i][j] == pInv[i][j]) << i << j;
  }
  // Of the tied (0, 3) and (3, 0) the row-major first is taken: its column
  // exchange shows in the partly transformed matrix a failure leaves.
  double tie[4][4] = {{0, 0, 0, 2}, {0, 0, 0, 0}, {0, 0, 0, 0}, {-2, 0, 0, 0}};
  EXPECT_FALSE(invert4x4(tie));
  EXPECT_EQ(tie[0][0], 0.5);
  // A pivot of 2^-53 counts as zero, one of 2^-52 does not.
  double tiny[4][4] = {{0x1p-53, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
  EXPECT_FALSE(invert4x4(tiny));
  double small[4][4] = {{0x1p-52, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
  ASSERT_TRUE(invert4x4(small));
  EXPECT_EQ(small[0][0], 0x1p52);
}
