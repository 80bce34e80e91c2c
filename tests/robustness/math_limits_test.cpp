// SPDX-License-Identifier: Apache-2.0
// Lengths and powers at the int32 limits: nothing is read or written, and
// no counter overflows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "QueltaAlgo.h"

TEST(MathLimits, NonPositiveLengthsTouchNothing) {
  constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
  float v[3] = {3.0f, 1.0f, 2.0f};
  float out[3] = {9.0f, 9.0f, 9.0f};
  for (int32_t n : {0, -1, kMin}) {
    sort(v, n);
    vecNormalize(v, out, n);
    EXPECT_TRUE(norm2(v, n) == 0.0f && dot(v, v, n) == 0.0f) << n;
  }
  EXPECT_TRUE(v[0] == 3.0f && v[1] == 1.0f && v[2] == 2.0f && out[0] == 9.0f);
  EXPECT_TRUE(std::isnan(mean(v, 0)));
  const float z[2] = {0.0f, 1.0f};
  float power[2];
  ComplexExp(z, kMin, power);
  EXPECT_TRUE(power[0] == 0.0f && power[1] == 1.0f);
}
