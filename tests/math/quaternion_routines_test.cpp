// The exported quaternion routines: scalar first, Hamilton product, unit
// result with a non-negative scalar part.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

// Rotation matrix (row-major) of a unit quaternion (w, x, y, z).
void rotationMatrix(const float* q, double* R) {
  const double w = q[0], x = q[1], y = q[2], z = q[3];
  const double m[9] = {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
                       2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
                       2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
  for (int i = 0; i < 9; ++i) R[i] = m[i];
}

TEST(QuaternionRoutines, ProductIsTheRotationOfTheMatrixProduct) {
  const float i[4] = {0, 1, 0, 0}, j[4] = {0, 0, 1, 0};
  float k[4];
  quatMultiply(i, j, k);
  EXPECT_TRUE(k[0] == 0.0f && k[1] == 0.0f && k[2] == 0.0f && k[3] == 1.0f);
  quatMultiply(j, i, k);
  EXPECT_EQ(k[3], -1.0f);

  quelta::sim::Random random(11);
  for (int trial = 0; trial < 500; ++trial) {
    float p[4], q[4], pq[4];
    for (float* f : {p, q}) {
      const auto r = quelta::sim::quatFromAxisAngle(
          {random.uniform(-1, 1), random.uniform(-1, 1), random.uniform(-1, 1)}, random.uniform(-3.1, 3.1));
      f[0] = static_cast<float>(r.w), f[1] = static_cast<float>(r.x);
      f[2] = static_cast<float>(r.y), f[3] = static_cast<float>(r.z);
    }
    quatMultiply(p, q, pq);
    double Rp[9], Rq[9], Rpq[9];
    rotationMatrix(p, Rp);
    rotationMatrix(q, Rq);
    rotationMatrix(pq, Rpq);
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c)
        ASSERT_NEAR(Rpq[3 * r + c], Rp[3 * r] * Rq[c] + Rp[3 * r + 1] * Rq[3 + c] + Rp[3 * r + 2] * Rq[6 + c], 2e-6);
  }
}

TEST(QuaternionRoutines, NormalizeSignRuleThresholdAndInPlace) {
  float out[4];
  const float a[4] = {-2.0f, 0.0f, 0.0f, 0.0f};
  quatNormalize(a, out);
  EXPECT_EQ(out[0], 1.0f);
  float b[4] = {-0.5f, 0.5f, 0.5f, 0.5f};
  quatNormalize(b, b);  // in place
  EXPECT_TRUE(b[0] == 0.5f && b[1] == -0.5f && b[2] == -0.5f && b[3] == -0.5f);
  // A scalar of -0 counts as not negative: the vector part keeps its sign.
  const float c[4] = {-0.0f, 3.0f, 0.0f, -4.0f};
  quatNormalize(c, out);
  EXPECT_TRUE(out[0] == 0.0f && std::signbit(out[0]));
  EXPECT_EQ(out[1], 3.0f / 5.0f);
  EXPECT_EQ(out[3], -4.0f / 5.0f);
  // Below 1e-10 the output stays as it was.
  const float tiny[4] = {0.0f, std::nextafter(1e-10f, 0.0f), 0.0f, 0.0f};
  quatNormalize(tiny, out);
  EXPECT_EQ(out[1], 3.0f / 5.0f);
  quatConj(b, b);  // in place
  EXPECT_TRUE(b[0] == 0.5f && b[1] == 0.5f && b[3] == 0.5f);
}

}  // namespace
