#include <cmath>
#include <cstdio>

#include <gtest/gtest.h>

#include "magcal/sphere_fit.h"
#include "magcal_fixtures.h"

using namespace magcal_test;
using quelta::kCalPoolCapacity;
using quelta::MatInv;
using quelta::SphereFit;
using quelta::SpherePara;

namespace {

struct Pool {
  float s[kCalPoolCapacity][3] = {};
  void fill(int n, float radius, const float* centre) {
    for (int i = 0; i < n; ++i) {
      const Point p = spherePoint(i, n, radius, centre);
      for (int k = 0; k < 3; ++k) s[i][k] = p.v[k];
    }
  }
};

// Distance ratio of one pooled sample, as the fit's spread test forms it.
float ratioOf(const Pool& pool, int i, const SpherePara& fit) {
  const float dx = pool.s[i][0] - fit.dSphereOffset[0];
  const float dy = pool.s[i][1] - fit.dSphereOffset[1];
  const float dz = pool.s[i][2] - fit.dSphereOffset[2];
  return std::sqrt((dx * dx + dy * dy) + dz * dz) / fit.dSphereRadius;
}

}  // namespace

TEST(SphereFit, RecoversCentreAndRadiusAndJudgesTheRadiusBand) {
  startCapture();
  const float centre[3] = {0.1f, -0.2f, 0.3f};
  for (int n : {6, 32, 35}) {
    Pool pool;
    pool.fill(n, 0.5f, centre);
    const SpherePara fit = SphereFit(pool.s, n, 0.85f, 1.15f, 0);
    EXPECT_EQ(fit.iMagCalisOK, 1) << n;
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(fit.dSphereOffset[k], centre[k], 2e-6) << n;
    EXPECT_NEAR(fit.dSphereRadius, 0.5f, 2e-6) << n;
  }
  // Outside the radius band the fit is still reported, but not accepted.
  for (float radius : {0.9f, 0.15f}) {
    Pool pool;
    pool.fill(32, radius, centre);
    const SpherePara fit = SphereFit(pool.s, 32, 0.85f, 1.15f, 0);
    EXPECT_EQ(fit.iMagCalisOK, 0);
    EXPECT_NEAR(fit.dSphereOffset[1], -0.2f, 2e-6);
    EXPECT_NEAR(fit.dSphereRadius, radius, 2e-6);
  }
  EXPECT_TRUE(capturedLines().empty());
}

TEST(SphereFit, RadiusBandIsOpenAndRatioBandIsClosed) {
  // Six points on the axes fit their sphere exactly: the radius comes out as
  // the very float the points were built from.
  auto axisFit = [](float r) {
    Pool pool;
    const float pts[6][3] = {{r, 0, 0}, {-r, 0, 0}, {0, r, 0}, {0, -r, 0}, {0, 0, r}, {0, 0, -r}};
    for (int i = 0; i < 6; ++i)
      for (int k = 0; k < 3; ++k) pool.s[i][k] = pts[i][k];
    return SphereFit(pool.s, 6, 0.85f, 1.15f, 0);
  };
  for (float r : {0.2f, 0.8f}) {
    const SpherePara fit = axisFit(r);
    ASSERT_EQ(fit.dSphereRadius, r);
    EXPECT_EQ(fit.iMagCalisOK, 0) << r;
  }
  EXPECT_EQ(axisFit(std::nextafter(0.2f, 1.0f)).iMagCalisOK, 1);
  EXPECT_EQ(axisFit(std::nextafter(0.8f, 0.0f)).iMagCalisOK, 1);

  // Noisy samples: the extreme ratios themselves as bounds are accepted, one
  // float tighter on either side is not, and the line names the first
  // offending sample.
  const float centre[3] = {0.05f, 0.1f, -0.1f};
  Pool pool;
  pool.fill(32, 0.5f, centre);
  quelta::sim::Random random(7);
  for (auto& sample : pool.s)
    for (float& c : sample) c += static_cast<float>(random.uniform(-0.01, 0.01));
  const SpherePara ref = SphereFit(pool.s, 32, 0.0f, 10.0f, 0);
  int lowIdx = 0, highIdx = 0;
  for (int i = 1; i < 32; ++i) {
    if (ratioOf(pool, i, ref) < ratioOf(pool, lowIdx, ref)) lowIdx = i;
    if (ratioOf(pool, i, ref) > ratioOf(pool, highIdx, ref)) highIdx = i;
  }
  const float low = ratioOf(pool, lowIdx, ref), high = ratioOf(pool, highIdx, ref);
  startCapture();
  EXPECT_EQ(SphereFit(pool.s, 32, low, high, 0).iMagCalisOK, 1);
  EXPECT_EQ(SphereFit(pool.s, 32, low, std::nextafter(high, 0.0f), 5).iMagCalisOK, 0);
  EXPECT_TRUE(capturedLines().empty());  // log mode 5 is silent
  EXPECT_EQ(SphereFit(pool.s, 32, std::nextafter(low, 2.0f), high, 1).iMagCalisOK, 0);
  ASSERT_EQ(capturedLines().size(), 1u);
  char expected[200];
  std::snprintf(expected, sizeof expected,
                "queltagbp MCP cali failed!!! i=%d dDistance=%f dRadius=%f dRatio=%f\n", lowIdx,
                static_cast<double>(low * ref.dSphereRadius), static_cast<double>(ref.dSphereRadius),
                static_cast<double>(low));
  EXPECT_EQ(capturedLines()[0], expected);
}

TEST(SphereFit, SingularNormalMatrixGivesTheDefaultRecord) {
  startCapture();
  Pool pool;
  const float centre[3] = {0.0f, 0.0f, 0.0f};
  pool.fill(20, 0.5f, centre);
  for (auto& sample : pool.s) sample[2] = 0.0f;  // all in one plane: z carries nothing
  for (int n : {0, -3, 20}) {
    const SpherePara fit = SphereFit(pool.s, n, 0.85f, 1.15f, 7);
    EXPECT_EQ(fit.iMagCalisOK, 0);
    EXPECT_EQ(fit.dSphereOffset[0], 0.0f);
    EXPECT_EQ(fit.dSphereOffset[2], 0.0f);
    EXPECT_EQ(fit.dSphereRadius, 0.5f);
  }
  // Reported whatever the log mode, without a line end.
  EXPECT_EQ(countLines("MatInv Err******"), 3);
  EXPECT_EQ(capturedLines().size(), 3u);
}

TEST(MatInv, InvertsWithRowAndColumnExchangesAndTies) {
  // Every pivot search is a tie: the inverse of this orthogonal sign matrix is
  // its transpose over 4, exactly.
  double h[4][4] = {{1, 1, 1, 1}, {1, -1, 1, -1}, {1, 1, -1, -1}, {1, -1, -1, 1}};
  ASSERT_TRUE(MatInv(h));
  const double hInv[4][4] = {{1, 1, 1, 1}, {1, -1, 1, -1}, {1, 1, -1, -1}, {1, -1, -1, 1}};
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_EQ(h[i][j], hInv[j][i] / 4.0) << i << j;

  // Of the tied (0, 3) and (3, 0) the row-major first is taken: the column
  // exchange shows in the partly transformed matrix left by the failure.
  double tie[4][4] = {{0, 0, 0, 2}, {0, 0, 0, 0}, {0, 0, 0, 0}, {-2, 0, 0, 0}};
  EXPECT_FALSE(MatInv(tie));
  EXPECT_EQ(tie[0][0], 0.5);

  // Pivots off the diagonal force row and column exchanges to be undone.
  double p[4][4] = {{0, 0, 0, 4}, {0, 0, -2, 0}, {0, 8, 0, 0}, {0.5, 0, 0, 0}};
  ASSERT_TRUE(MatInv(p));
  const double pInv[4][4] = {{0, 0, 0, 2}, {0, 0, 0.125, 0}, {0, -0.5, 0, 0}, {0.25, 0, 0, 0}};
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_EQ(p[i][j], pInv[i][j]) << i << j;

  // A general matrix with repeated magnitudes: A * inv(A) = I.
  const double a[4][4] = {{2, -3, 1, 3}, {3, 1, -2, 0.5}, {-1, 3, 2, 1}, {0.5, 2, 3, -3}};
  double inv[4][4];
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) inv[i][j] = a[i][j];
  ASSERT_TRUE(MatInv(inv));
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      double sum = 0.0;
      for (int k = 0; k < 4; ++k) sum += a[i][k] * inv[k][j];
      EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-14);
    }
  }

  // A pivot of 2^-53 still counts as zero; one of 2^-52 does not.
  double tiny[4][4] = {{0x1p-53, 0, 0, 0}, {0, 0x1p-53, 0, 0}, {0, 0, 0x1p-53, 0}, {0, 0, 0, 0x1p-53}};
  EXPECT_FALSE(MatInv(tiny));
  double small[4][4] = {{0x1p-52, 0, 0, 0}, {0, 0x1p-52, 0, 0}, {0, 0, 0x1p-52, 0}, {0, 0, 0, 0x1p-52}};
  EXPECT_TRUE(MatInv(small));
  EXPECT_EQ(small[3][3], 0x1p52);
}
