// SPDX-License-Identifier: Apache-2.0
// The azimuth median and mean windows hold 31 and 30 entries whatever
// lengths the host configures: lengths beyond them act as the capacity,
// lengths below 1 as 1, and a length changed in the middle of a run empties
// its window so that no count is left beyond the new length.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "QueltaAlgo.h"
#include "orientation/azimuth_smoother.h"

namespace {

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// A heading that sweeps round North and back, so that both windows wrap.
void heading(int i, float* east, float* north) {
  const double rad = (330.0 + 60.0 * std::sin(i * 0.05)) * 3.14159265358979 / 180.0;
  *east = static_cast<float>(std::sin(rad));
  *north = static_cast<float>(std::cos(rad));
}

TEST(AzimuthWindows, OutOfRangeLengthsActAsTheNearestValidOne) {
  // Configured median and mean lengths, then what they must behave as.
  const int32_t cases[][4] = {{100, 100, 31, 30}, {kMax, kMax, 31, 30}, {0, -7, 1, 1},
                              {kMin, kMin, 1, 1}, {32, 31, 31, 30},     {-1, 45, 1, 30}};
  for (const auto& c : cases) {
    quelta::AzimuthSmoother configured, reference;
    for (int i = 0; i < 200; ++i) {
      float east, north;
      heading(i, &east, &north);
      const float got = configured.smooth(east, north, c[0], c[1]);
      const float want = reference.smooth(east, north, c[2], c[3]);
      ASSERT_EQ(0, std::memcmp(&got, &want, sizeof got)) << c[0] << " " << c[1] << " call " << i;
      ASSERT_TRUE(got >= 0.0f && got < 360.0f);
    }
  }
}

TEST(AzimuthWindows, ChangedLengthsEmptyTheirWindow) {
  quelta::AzimuthSmoother smoother;
  const int32_t lengths[][2] = {{31, 30}, {3, 2}, {11, 8}, {1, 1}, {31, 30}, {2, 29}};
  int call = 0;
  for (const auto& l : lengths) {
    for (int i = 0; i < 60; ++i, ++call) {
      float east, north;
      heading(call, &east, &north);
      const float azimuth = smoother.smooth(east, north, l[0], l[1]);
      ASSERT_TRUE(azimuth >= 0.0f && azimuth < 360.0f) << call;
      // The mean window refills after every change: 0 until it holds l[1].
      if (i + 1 < l[1]) EXPECT_LT(azimuth, 1.0f) << call;  // 0, or held within a degree of it
    }
  }
}

TEST(AzimuthWindows, HostConfiguredLengthsThroughTheInterface) {
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float init[4] = {0.0f, 0.0f, 0.0f, 0.5f};
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thd[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t windows[][3] = {{20, 1000, -3}, {0, kMin, kMax}, {-20, 11, 8}, {20, 2, 40}};
  int call = 0;
  for (const auto& c : windows) {
    AlgoInitial(axis, init, pool, thd, c, nullptr);
    for (int i = 0; i < 80; ++i, ++call) {
      float east, north, out[3];
      heading(call, &east, &north);
      const float acc[3] = {0.0f, 0.0f, 1.0f}, mag[3] = {0.3f * east, 0.3f * north, -0.4f};
      MainAlgorithmProcess(acc, mag, mag, 0, 5);
      GetCalMag(out);
      GetCalOri(out);
      ASSERT_TRUE(out[0] >= 0.0f && out[0] < 360.0f);
    }
  }
}

}  // namespace
