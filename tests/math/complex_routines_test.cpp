// The exported complex routines: the documented examples, the integer power,
// and round trips that tie division, inversion and multiplication together.
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
  EXPECT_EQ(out[0], -1.0f);
  EXPECT_EQ(out[1], 0.0f);
  ComplexExp(i, 4, out);
  EXPECT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[1], 0.0f);
  for (int n : {1, 0, -3}) {
    ComplexExp(i, n, out);
    EXPECT_EQ(out[0], 0.0f) << n;
    EXPECT_EQ(out[1], 1.0f) << n;
  }
  const float z[2] = {1.1f, -0.3f};
  ComplexExp(z, 7, out);
  const std::complex<double> expected = std::pow(std::complex<double>(1.1f, -0.3f), 7);
  EXPECT_NEAR(out[0], expected.real(), 1e-5 * std::abs(expected));
  EXPECT_NEAR(out[1], expected.imag(), 1e-5 * std::abs(expected));
}

TEST(ComplexRoutines, ExamplesAndZeroDivisor) {
  const float one[2] = {1.0f, 0.0f};
  const float i[2] = {0.0f, 1.0f};
  float out[2];
  ComplexDivide(one, i, out);
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(out[1], -1.0f);
  const float z[2] = {3.0f, -4.0f};
  EXPECT_EQ(ComplexAbs(z), 5.0f);
  ComplexMultiply(z, i, out);
  EXPECT_EQ(out[0], 4.0f);
  EXPECT_EQ(out[1], 3.0f);

  const float zero[2] = {0.0f, 0.0f};
  ComplexInv(zero, out);
  EXPECT_TRUE(std::isnan(out[0]));
  ComplexDivide(z, zero, out);
  EXPECT_TRUE(std::isnan(out[0]));
  EXPECT_TRUE(std::isnan(out[1]));
}

TEST(ComplexRoutines, DivisionAndInversionRoundTrips) {
  quelta::sim::Random random(5);
  for (int trial = 0; trial < 500; ++trial) {
    const float a[2] = {static_cast<float>(random.uniform(-5, 5)), static_cast<float>(random.uniform(-5, 5))};
    const float b[2] = {static_cast<float>(random.uniform(-5, 5)), static_cast<float>(random.uniform(-5, 5))};
    if (ComplexAbs(b) < 0.1f) continue;
    float product[2], back[2];
    ComplexMultiply(a, b, product);
    ComplexDivide(product, b, back);
    const float scale = 1.0f + ComplexAbs(a);
    ASSERT_NEAR(back[0], a[0], 2e-6f * scale * 10);
    ASSERT_NEAR(back[1], a[1], 2e-6f * scale * 10);

    // 1 / b by division is exactly the inverse.
    const float one[2] = {1.0f, 0.0f};
    float inv[2], quotient[2];
    ComplexInv(b, inv);
    ComplexDivide(one, b, quotient);
    ASSERT_EQ(inv[0], quotient[0]);
    ASSERT_EQ(inv[1], quotient[1]);

    float identity[2];
    ComplexMultiply(b, inv, identity);
    ASSERT_NEAR(identity[0], 1.0f, 1e-6f);
    ASSERT_NEAR(identity[1], 0.0f, 1e-6f);
  }
}

TEST(ComplexRoutines, InPlaceUse) {
  float z[2] = {3.0f, -4.0f};
  ComplexConj(z, z);
  EXPECT_EQ(z[0], 3.0f);
  EXPECT_EQ(z[1], 4.0f);
  ComplexInv(z, z);
  EXPECT_EQ(z[0], 3.0f / 25.0f);
  EXPECT_EQ(z[1], -4.0f / 25.0f);

  float a[2] = {1.0f, 2.0f};
  const float b[2] = {0.5f, -1.0f};
  ComplexAdd(a, b, a);
  EXPECT_EQ(a[0], 1.5f);
  EXPECT_EQ(a[1], 1.0f);
  ComplexSub(a, b, a);
  EXPECT_EQ(a[0], 1.0f);
  EXPECT_EQ(a[1], 2.0f);
  float c[2] = {0.5f, -1.0f};
  ComplexSub(a, c, c);  // output on the second operand
  EXPECT_EQ(c[0], 0.5f);
  EXPECT_EQ(c[1], 3.0f);
  ComplexMultiplyReal(a, -2.0f, a);
  EXPECT_EQ(a[0], -2.0f);
  EXPECT_EQ(a[1], -4.0f);
}

}  // namespace
