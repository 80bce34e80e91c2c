// The exported vector routines: examples, edge cases that tell plausible
// implementations apart, and the sort against a reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

TEST(VectorRoutines, ExamplesEmptyInputsAndSummationOrder) {
  const float v[3] = {3.0f, 0.0f, 4.0f};
  EXPECT_EQ(norm2(v, 0), 0.0f);
  EXPECT_EQ(dot(v, v, 0), 0.0f);
  EXPECT_TRUE(std::isnan(mean(v, 0)));
  EXPECT_EQ(norm2(v, 3), 5.0f);
  const float x[3] = {1, 0, 0}, y[3] = {0, 1, 0};
  float z[3];
  cross(x, y, z);
  EXPECT_TRUE(z[0] == 0.0f && z[1] == 0.0f && z[2] == 1.0f);
  // 2^24 + 1 rounds back to 2^24 in float while 4 + 2^24 is exact: sums run
  // from index 0 upwards.
  const float big[5] = {16777216.0f, 1, 1, 1, 1}, ones[5] = {1, 1, 1, 1, 1};
  const float bigLast[5] = {1, 1, 1, 1, 16777216.0f};
  EXPECT_EQ(dot(big, ones, 5), 16777216.0f);
  EXPECT_EQ(dot(bigLast, ones, 5), 16777220.0f);
  EXPECT_EQ(mean(bigLast, 5), 16777220.0f / 5.0f);
}

TEST(VectorRoutines, NormalizeScalesOrLeavesOutputUntouched) {
  float out[3] = {7.0f, 8.0f, 9.0f};
  const float zero[3] = {0, 0, 0};
  vecNormalize(zero, out, 3);
  EXPECT_EQ(out[0], 7.0f);
  // Threshold 1e-10: the float nearest to it is normalised, the next one
  // below is not.
  const float below[1] = {std::nextafter(1e-10f, 0.0f)}, at[1] = {1e-10f};
  vecNormalize(below, out, 1);
  EXPECT_EQ(out[0], 7.0f);
  vecNormalize(at, out, 1);
  EXPECT_EQ(out[0], 1.0f);
  float v[4] = {1.0f, -2.0f, 2.0f, 4.0f};
  vecNormalize(v, v, 4);  // in place
  EXPECT_EQ(v[0], 1.0f / 5.0f);
  EXPECT_EQ(v[3], 4.0f / 5.0f);
}

TEST(VectorRoutines, SortMatchesReferenceAndCarriesPastNaN) {
  quelta::sim::Random random(7);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = trial % 40;
    float v[41], expected[41];
    for (int i = 0; i < n; ++i) expected[i] = v[i] = static_cast<float>(std::floor(random.uniform(-8, 8)));
    v[n] = -100.0f;  // beyond n: must stay put
    std::sort(expected, expected + n);
    sort(v, n);
    for (int i = 0; i < n; ++i) ASSERT_EQ(v[i], expected[i]) << "trial " << trial;
    ASSERT_EQ(v[n], -100.0f);
  }
  // NaN never compares greater: the carried value moves on past it and
  // nothing crosses it afterwards.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  float w[4] = {3.0f, nan, 2.0f, 1.0f};
  sort(w, 4);
  EXPECT_EQ(w[0], 3.0f);
  EXPECT_TRUE(std::isnan(w[1]));
  EXPECT_EQ(w[2], 1.0f);
  EXPECT_EQ(w[3], 2.0f);
}

}  // namespace
