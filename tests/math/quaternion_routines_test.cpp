// The exported quaternion routines: scalar first, Hamilton product, unit
// result with a non-negative scalar part.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

// Rotation matrix (row-major, double) of a unit quaternion (w, x, y, z).
void rotationMatrix(const float* qf, double* R) {
  const double w = qf[0], x = qf[1], y = qf[2], z = qf[3];
  R[0] = 1 - 2 * (y * y + z * z);
  R[1] = 2 * (x * y - w * z);
  R[2] = 2 * (x * z + w * y);
  R[3] = 2 * (x * y + w * z);
  R[4] = 1 - 2 * (x * x + z * z);
  R[5] = 2 * (y * z - w * x);
  R[6] = 2 * (x * z - w * y);
  R[7] = 2 * (y * z + w * x);
  R[8] = 1 - 2 * (x * x + y * y);
}

void randomUnitQuaternion(quelta::sim::Random& random, float* q) {
  const quelta::sim::Vec3 axis{random.uniform(-1, 1), random.uniform(-1, 1), random.uniform(-1, 1)};
  const quelta::sim::Quat r = quelta::sim::quatFromAxisAngle(axis, random.uniform(-3.1, 3.1));
  q[0] = static_cast<float>(r.w);
  q[1] = static_cast<float>(r.x);
  q[2] = static_cast<float>(r.y);
  q[3] = static_cast<float>(r.z);
}

TEST(QuaternionRoutines, UnitProductsFollowHamiltonRule) {
  const float i[4] = {0, 1, 0, 0};
  const float j[4] = {0, 0, 1, 0};
  float out[4];
  quatMultiply(i, j, out);
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 0.0f);
  EXPECT_EQ(out[3], 1.0f);
  quatMultiply(j, i, out);
  EXPECT_EQ(out[3], -1.0f);
  quatMultiply(i, i, out);
  EXPECT_EQ(out[0], -1.0f);
}

// The product of two rotations is the rotation of the matrix product, for
// every component and sign: catches a swapped term or a transposed product.
TEST(QuaternionRoutines, ProductMatchesRotationMatrixProduct) {
  quelta::sim::Random random(11);
  for (int trial = 0; trial < 500; ++trial) {
    float p[4], q[4], pq[4];
    randomUnitQuaternion(random, p);
    randomUnitQuaternion(random, q);
    quatMultiply(p, q, pq);
    double Rp[9], Rq[9], Rpq[9];
    rotationMatrix(p, Rp);
    rotationMatrix(q, Rq);
    rotationMatrix(pq, Rpq);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        const double expected = Rp[3 * r] * Rq[c] + Rp[3 * r + 1] * Rq[3 + c] + Rp[3 * r + 2] * Rq[6 + c];
        ASSERT_NEAR(Rpq[3 * r + c], expected, 2e-6) << "trial " << trial;
      }
    }
    // q times its conjugate is the identity.
    float qc[4], one[4];
    quatConj(q, qc);
    quatMultiply(q, qc, one);
    ASSERT_NEAR(one[0], 1.0f, 1e-6f);
    ASSERT_NEAR(one[1], 0.0f, 1e-6f);
  }
}

TEST(QuaternionRoutines, NormalizeGivesNonNegativeScalar) {
  const float a[4] = {-2.0f, 0.0f, 0.0f, 0.0f};
  float out[4];
  quatNormalize(a, out);
  EXPECT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_TRUE(std::signbit(out[1]));  // divided by the signed norm: 0 / -2

  float b[4] = {-0.5f, 0.5f, 0.5f, 0.5f};
  quatNormalize(b, b);  // in place
  EXPECT_EQ(b[0], 0.5f);
  EXPECT_EQ(b[1], -0.5f);
  EXPECT_EQ(b[2], -0.5f);
  EXPECT_EQ(b[3], -0.5f);

  // A scalar part of -0 counts as not negative: the vector part keeps its
  // sign and the scalar stays -0.
  const float c[4] = {-0.0f, 3.0f, 0.0f, -4.0f};
  quatNormalize(c, out);
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_TRUE(std::signbit(out[0]));
  EXPECT_EQ(out[1], 3.0f / 5.0f);
  EXPECT_EQ(out[3], -4.0f / 5.0f);

  // Below the threshold (1e-10) the output is left as it was.
  const float tiny[4] = {0.0f, std::nextafter(1e-10f, 0.0f), 0.0f, 0.0f};
  float sentinel[4] = {9.0f, 9.0f, 9.0f, 9.0f};
  quatNormalize(tiny, sentinel);
  EXPECT_EQ(sentinel[1], 9.0f);
  const float atThreshold[4] = {0.0f, 0.0f, -1e-10f, 0.0f};
  quatNormalize(atThreshold, sentinel);
  EXPECT_EQ(sentinel[2], -1.0f);

  float conj[4] = {1.0f, 2.0f, -3.0f, 4.0f};
  quatConj(conj, conj);  // in place
  EXPECT_EQ(conj[0], 1.0f);
  EXPECT_EQ(conj[1], -2.0f);
  EXPECT_EQ(conj[2], 3.0f);
  EXPECT_EQ(conj[3], -4.0f);
}

}  // namespace
