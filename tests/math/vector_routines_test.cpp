// The exported vector routines: the documented examples, edge cases that
// decide between plausible implementations, and the sort against a reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

TEST(VectorRoutines, EmptyInputsAndExamples) {
  const float v[3] = {3.0f, 0.0f, 4.0f};
  EXPECT_EQ(norm2(v, 0), 0.0f);
  EXPECT_EQ(norm2(v, -2), 0.0f);
  EXPECT_EQ(dot(v, v, 0), 0.0f);
  EXPECT_TRUE(std::isnan(mean(v, 0)));
  EXPECT_EQ(norm2(v, 3), 5.0f);
  EXPECT_EQ(dot(v, v, 3), 25.0f);
  EXPECT_EQ(mean(v, 3), 7.0f / 3.0f);

  const float x[3] = {1.0f, 0.0f, 0.0f};
  const float y[3] = {0.0f, 1.0f, 0.0f};
  float z[3];
  cross(x, y, z);
  EXPECT_EQ(z[0], 0.0f);
  EXPECT_EQ(z[1], 0.0f);
  EXPECT_EQ(z[2], 1.0f);
  cross(y, x, z);
  EXPECT_EQ(z[2], -1.0f);
}

// Sums run from index 0 upwards in float: with a large first term the small
// later ones are absorbed one by one, which a reversed or pairwise sum would
// not do.
TEST(VectorRoutines, SumsRunInIndexOrder) {
  // 2^24 + 1 rounds back to 2^24 in float, while 4 + 2^24 is exact.
  const float v[5] = {16777216.0f, 1.0f, 1.0f, 1.0f, 1.0f};
  const float ones[5] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
  EXPECT_EQ(dot(v, ones, 5), 16777216.0f);
  EXPECT_EQ(mean(v, 5), 16777216.0f / 5.0f);
  const float backwards[5] = {1.0f, 1.0f, 1.0f, 1.0f, 16777216.0f};
  EXPECT_EQ(dot(backwards, ones, 5), 16777220.0f);
  EXPECT_EQ(mean(backwards, 5), 16777220.0f / 5.0f);
  const float root[2] = {16777216.0f, 1.0f};
  EXPECT_EQ(norm2(root, 2), 16777216.0f);
}

TEST(VectorRoutines, NormalizeScalesOrLeavesOutputUntouched) {
  const float v[3] = {3.0f, 0.0f, 4.0f};
  float out[3];
  vecNormalize(v, out, 3);
  EXPECT_EQ(out[0], 3.0f / 5.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 4.0f / 5.0f);

  const float zero[3] = {0.0f, 0.0f, 0.0f};
  float sentinel[3] = {7.0f, 8.0f, 9.0f};
  vecNormalize(zero, sentinel, 3);
  EXPECT_EQ(sentinel[0], 7.0f);
  EXPECT_EQ(sentinel[2], 9.0f);
  vecNormalize(v, sentinel, 0);
  EXPECT_EQ(sentinel[0], 7.0f);

  // The norm threshold is 1e-10: a norm of exactly the float nearest 1e-10
  // is normalised, the next float below is not.
  const float atThreshold[1] = {1e-10f};
  float one[1] = {0.0f};
  vecNormalize(atThreshold, one, 1);
  EXPECT_EQ(one[0], 1.0f);
  const float below[1] = {std::nextafter(1e-10f, 0.0f)};
  float untouched[1] = {5.0f};
  vecNormalize(below, untouched, 1);
  EXPECT_EQ(untouched[0], 5.0f);

  float inPlace[4] = {1.0f, -2.0f, 2.0f, 4.0f};
  vecNormalize(inPlace, inPlace, 4);
  EXPECT_EQ(inPlace[0], 1.0f / 5.0f);
  EXPECT_EQ(inPlace[1], -2.0f / 5.0f);
  EXPECT_EQ(inPlace[3], 4.0f / 5.0f);
}

TEST(VectorRoutines, SortMatchesReferenceOnRandomArrays) {
  float small[3] = {3.0f, 1.0f, 2.0f};
  sort(small, 3);
  EXPECT_EQ(small[0], 1.0f);
  EXPECT_EQ(small[1], 2.0f);
  EXPECT_EQ(small[2], 3.0f);

  float untouched[2] = {2.0f, 1.0f};
  sort(untouched, 1);
  sort(untouched, 0);
  EXPECT_EQ(untouched[0], 2.0f);
  EXPECT_EQ(untouched[1], 1.0f);

  quelta::sim::Random random(7);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = 2 + trial % 40;
    float v[41];
    float expected[41];
    for (int i = 0; i < n; ++i) {
      // Few distinct values, so duplicates are common.
      v[i] = static_cast<float>(std::floor(random.uniform(-8.0, 8.0))) * 0.5f;
      expected[i] = v[i];
    }
    v[n] = -100.0f;  // beyond the range: must stay where it is
    std::sort(expected, expected + n);
    sort(v, n);
    for (int i = 0; i < n; ++i) ASSERT_EQ(v[i], expected[i]) << "trial " << trial << " i " << i;
    ASSERT_EQ(v[n], -100.0f);
  }
}

// NaN never compares greater, so the carried value simply moves past it;
// the exact outcome pins down the carried-value bubble sort.
TEST(VectorRoutines, SortCarriesValuesPastNaN) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  float v[4] = {nan, 3.0f, 1.0f, 2.0f};
  sort(v, 4);
  EXPECT_TRUE(std::isnan(v[0]));
  EXPECT_EQ(v[1], 1.0f);
  EXPECT_EQ(v[2], 2.0f);
  EXPECT_EQ(v[3], 3.0f);

  float w[4] = {3.0f, nan, 2.0f, 1.0f};
  sort(w, 4);
  // Pass 1: 3 stays before NaN, NaN is carried on, 2 > 1 swaps; later passes
  // never move anything across the NaN.
  EXPECT_EQ(w[0], 3.0f);
  EXPECT_TRUE(std::isnan(w[1]));
  EXPECT_EQ(w[2], 1.0f);
  EXPECT_EQ(w[3], 2.0f);
}

}  // namespace
