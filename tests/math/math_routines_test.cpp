// SPDX-License-Identifier: Apache-2.0
// The exported math routines: examples, summation order, thresholds, in-place
// use, and sorts and complex quotients against independent references.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

bool equals(const float* v, std::initializer_list<float> expected) {
  int i = 0;
  for (float e : expected) {
    if (!(v[i++] == e)) return false;
  }
  return true;
}

TEST(VectorRoutines, ExamplesSummationOrderAndNormalizeThreshold) {
  const float v[3] = {3.0f, 0.0f, 4.0f}, x[3] = {1, 0, 0}, y[3] = {0, 1, 0};
  EXPECT_TRUE(norm2(v, 0) == 0.0f && dot(v, v, 0) == 0.0f && std::isnan(mean(v, 0)) && norm2(v, 3) == 5.0f);
  float z[3];
  cross(x, y, z);
  EXPECT_TRUE(equals(z, {0.0f, 0.0f, 1.0f}));
  // 2^24 + 1 rounds back to 2^24 in float while 4 + 2^24 is exact: sums run
  // from index 0 upwards.
  const float big[5] = {16777216.0f, 1, 1, 1, 1}, ones[5] = {1, 1, 1, 1, 1}, bigLast[5] = {1, 1, 1, 1, 16777216.0f};
  EXPECT_EQ(dot(big, ones, 5), 16777216.0f);
  EXPECT_EQ(dot(bigLast, ones, 5), 16777220.0f);
  EXPECT_EQ(mean(bigLast, 5), 16777220.0f / 5.0f);

  // Below a norm of 1e-10 the output stays as it was; the float nearest to
  // 1e-10 is normalised.
  float out[1] = {7.0f};
  const float below[1] = {std::nextafter(1e-10f, 0.0f)}, at[1] = {1e-10f};
  vecNormalize(below, out, 1);
  EXPECT_EQ(out[0], 7.0f);
  vecNormalize(at, out, 1);
  EXPECT_EQ(out[0], 1.0f);
  float w[4] = {1.0f, -2.0f, 2.0f, 4.0f};
  vecNormalize(w, w, 4);  // in place
  EXPECT_TRUE(equals(w, {1.0f / 5.0f, -2.0f / 5.0f, 2.0f / 5.0f, 4.0f / 5.0f}));
}

TEST(VectorRoutines, SortMatchesReferenceAndCarriesPastNaN) {
  quelta::sim::Random random(7);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = trial % 40;
    float v[41], expected[41];
    for (int i = 0; i < n; ++i) expected[i] = v[i] = static_cast<float>(std::floor(random.uniform(-8, 8)));
    expected[n] = v[n] = -100.0f;  // beyond n: must stay put
    std::sort(expected, expected + n);
    sort(v, n);
    ASSERT_TRUE(std::equal(v, v + n + 1, expected)) << "trial " << trial;
  }
  // NaN never compares greater: the carried value moves on past it and
  // nothing crosses it afterwards.
  float w[4] = {3.0f, NAN, 2.0f, 1.0f};
  sort(w, 4);
  EXPECT_TRUE(w[0] == 3.0f && std::isnan(w[1]) && w[2] == 1.0f && w[3] == 2.0f);
}

TEST(QuaternionRoutines, NormalizeSignRuleThresholdAndInPlace) {
  float out[4];
  const float a[4] = {-2.0f, 0.0f, 0.0f, 0.0f};
  quatNormalize(a, out);
  EXPECT_EQ(out[0], 1.0f);
  float b[4] = {-0.5f, 0.5f, 0.5f, 0.5f};
  quatNormalize(b, b);  // in place
  EXPECT_TRUE(equals(b, {0.5f, -0.5f, -0.5f, -0.5f}));
  // A scalar of -0 counts as not negative: the vector part keeps its sign.
  const float c[4] = {-0.0f, 3.0f, 0.0f, -4.0f};
  quatNormalize(c, out);
  EXPECT_TRUE(equals(out, {0.0f, 3.0f / 5.0f, 0.0f, -4.0f / 5.0f}) && std::signbit(out[0]));
  const float tiny[4] = {0.0f, std::nextafter(1e-10f, 0.0f), 0.0f, 0.0f};
  quatNormalize(tiny, out);  // below 1e-10: unchanged
  EXPECT_EQ(out[1], 3.0f / 5.0f);
  quatConj(b, b);  // in place
  EXPECT_TRUE(equals(b, {0.5f, 0.5f, 0.5f, 0.5f}));
}

TEST(ComplexRoutines, PowersQuotientsInversesAndInPlaceUse) {
  const float one[2] = {1.0f, 0.0f}, i[2] = {0.0f, 1.0f};
  float out[2];
  const float powers[5][3] = {{0, 0, 1}, {1, 0, 1}, {2, -1, 0}, {4, 1, 0}, {-3, 0, 1}};  // n, i^n
  for (const auto& p : powers) {
    ComplexExp(i, static_cast<int32_t>(p[0]), out);
    EXPECT_TRUE(equals(out, {p[1], p[2]})) << p[0];
  }

  quelta::sim::Random random(5);
  for (int trial = 0; trial < 500; ++trial) {
    float a[2], b[2], product[2], back[2], inv[2], quotient[2];
    for (float* f : {a, b}) f[0] = static_cast<float>(random.uniform(-5, 5)), f[1] = static_cast<float>(random.uniform(-5, 5));
    if (ComplexAbs(b) < 0.1f) continue;
    ComplexMultiply(a, b, product);
    ComplexDivide(product, b, back);
    ASSERT_TRUE(std::fabs(back[0] - a[0]) < 1e-4f && std::fabs(back[1] - a[1]) < 1e-4f) << trial;
    ComplexInv(b, inv);
    ComplexDivide(one, b, quotient);  // 1 / b is exactly the inverse
    ASSERT_TRUE(equals(inv, {quotient[0], quotient[1]}));
  }

  // Output on either operand.
  float w[2] = {3.0f, -4.0f}, p[2] = {1.0f, 2.0f}, q[2] = {0.5f, -1.0f};
  EXPECT_EQ(ComplexAbs(w), 5.0f);
  ComplexConj(w, w);
  ComplexInv(w, w);
  EXPECT_TRUE(equals(w, {3.0f / 25.0f, -4.0f / 25.0f}));
  ComplexAdd(p, q, p);
  EXPECT_TRUE(equals(p, {1.5f, 1.0f}));
  ComplexSub(p, q, q);
  EXPECT_TRUE(equals(q, {1.0f, 2.0f}));
  ComplexMultiplyReal(q, -2.0f, q);
  EXPECT_TRUE(equals(q, {-2.0f, -4.0f}));
}

}  // namespace
