// The exported complex routines: the integer power, division and inversion
// round trips, in-place use.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

TEST(ComplexRoutines, PowerByRepeatedMultiplication) {
  const float i[2] = {0.0f, 1.0f};
  float out[2];
  ComplexExp(i, 2, out);
  EXPECT_TRUE(out[0] == -1.0f && out[1] == 0.0f);
  ComplexExp(i, 4, out);
  EXPECT_TRUE(out[0] == 1.0f && out[1] == 0.0f);
  for (int n : {1, 0, -3}) {
    ComplexExp(i, n, out);
    EXPECT_TRUE(out[0] == 0.0f && out[1] == 1.0f) << n;
  }
  const float z[2] = {1.1f, -0.3f};
  ComplexExp(z, 7, out);
  const std::complex<double> expected = std::pow(std::complex<double>(z[0], z[1]), 7);
  EXPECT_NEAR(out[0], expected.real(), 1e-5 * std::abs(expected));
  EXPECT_NEAR(out[1], expected.imag(), 1e-5 * std::abs(expected));
}

TEST(ComplexRoutines, DivisionAndInversionRoundTrips) {
  const float one[2] = {1.0f, 0.0f}, i[2] = {0.0f, 1.0f};
  float out[2];
  ComplexDivide(one, i, out);
  EXPECT_TRUE(out[0] == 0.0f && out[1] == -1.0f);
  quelta::sim::Random random(5);
  for (int trial = 0; trial < 500; ++trial) {
    float a[2], b[2], product[2], back[2], inv[2], quotient[2];
    for (float* f : {a, b}) f[0] = static_cast<float>(random.uniform(-5, 5)), f[1] = static_cast<float>(random.uniform(-5, 5));
    if (ComplexAbs(b) < 0.1f) continue;
    ComplexMultiply(a, b, product);
    ComplexDivide(product, b, back);
    ASSERT_NEAR(back[0], a[0], 1e-4f);
    ASSERT_NEAR(back[1], a[1], 1e-4f);
    ComplexInv(b, inv);
    ComplexDivide(one, b, quotient);  // 1 / b is exactly the inverse
    ASSERT_TRUE(inv[0] == quotient[0] && inv[1] == quotient[1]);
  }
}

TEST(ComplexRoutines, InPlaceUse) {
  float z[2] = {3.0f, -4.0f};
  EXPECT_EQ(ComplexAbs(z), 5.0f);
  ComplexConj(z, z);
  ComplexInv(z, z);
  EXPECT_TRUE(z[0] == 3.0f / 25.0f && z[1] == -4.0f / 25.0f);
  float a[2] = {1.0f, 2.0f}, b[2] = {0.5f, -1.0f};
  ComplexAdd(a, b, a);
  EXPECT_TRUE(a[0] == 1.5f && a[1] == 1.0f);
  ComplexSub(a, b, b);  // output on the second operand
  EXPECT_TRUE(b[0] == 1.0f && b[1] == 2.0f);
  ComplexMultiplyReal(b, -2.0f, b);
  EXPECT_TRUE(b[0] == -2.0f && b[1] == -4.0f);
}

}  // namespace
