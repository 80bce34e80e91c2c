// SPDX-License-Identifier: Apache-2.0
// The azimuth chain: start-up, North in the window rules, the sector
// correction and the windows' fill and reset.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "orientation/azimuth_smoother.h"

namespace quelta {
namespace {

float sinDeg(double deg) { return static_cast<float>(std::sin(deg * 3.14159265358979323846 / 180.0)); }
float cosDeg(double deg) { return static_cast<float>(std::cos(deg * 3.14159265358979323846 / 180.0)); }

float correction(float mean) {
  AzimuthSmoother::SectorEnds fresh;
  return AzimuthSmoother::sectorCorrection(mean, fresh);
}

TEST(AzimuthSmoother, StartUpWithDefaultsAndSteadyHeading) {
  AzimuthSmoother s;
  for (int call = 1; call <= 30; ++call) {
    const float azimuth = s.smooth(sinDeg(100.0), cosDeg(100.0), 11, 8);
    if (call <= 7) EXPECT_EQ(azimuth, 0.0f) << call;  // the mean window fills
    else if (call <= 12) EXPECT_TRUE(azimuth > 30.0f && azimuth < 97.0f) << call;  // zeros leave the median
    else EXPECT_NEAR(azimuth, correction(100.0f), 1e-3f) << call;
  }
}

TEST(AzimuthSmoother, SectorCorrectionAndSectorEnds) {
  const float in[] = {10.0f, 20.0f, 30.0f, 44.0f, 22.5f};
  const float out[] = {7.6975f, 19.2726f, 31.8964f, 44.4195f, 22.5f};
  for (int sector = 0; sector < 8; ++sector) {
    const float base = 45.0f * static_cast<float>(sector);
    for (int i = 0; i < 5; ++i) EXPECT_NEAR(correction(base + in[i]), base + out[i], 2e-4f) << base + in[i];
  }
  EXPECT_EQ(correction(370.0f), correction(10.0f));
  for (float end : {0.0f, 45.0f, 90.0f, 135.0f, 180.0f, 270.0f, 360.0f}) {
    EXPECT_EQ(correction(end), end == 360.0f ? 0.0f : end);
  }
  // Ends kept across calls give the fresh correction bit for bit, swept down then up.
  AzimuthSmoother::SectorEnds kept;
  for (int i = 0; i <= 7200; ++i) {
    const float mean = 0.1f * static_cast<float>(i <= 3600 ? 3600 - i : i - 3600) - 0.05f;
    const float fresh = correction(mean), reused = AzimuthSmoother::sectorCorrection(mean, kept);
    ASSERT_EQ(0, std::memcmp(&fresh, &reused, sizeof fresh)) << mean;
  }
  EXPECT_EQ(kept.known, 0x1ffu);
}

TEST(AzimuthSmoother, MedianAndMeanAcrossNorth) {
  auto median = [](std::vector<float> w) { return AzimuthSmoother::medianAcrossNorth(w.data(), static_cast<int32_t>(w.size())); };
  EXPECT_EQ(median({1, 359, 1, 359, 1, 359, 1, 359, 1, 359, 1}), 1.0f);        // six 1s against five -1s
  EXPECT_EQ(median({359, 1, 359, 1, 359, 1, 359, 1, 359, 1, 359}), 359.0f);    // six -1s, wrapped
  EXPECT_EQ(median({10, 10, 10, 10, 50, 50, 50, 50, 50, 50, 50}), 50.0f);
  // A span of exactly 300 degrees already counts as straddling North.
  EXPECT_EQ(median({10, 10, 100, 310, 310}), 10.0f);
  EXPECT_EQ(median({10, 10, 100, 309, 309}), 100.0f);

  auto mean = [](std::vector<float> w) {
    AzimuthSmoother::MeanWindow window;
    window.setLength(static_cast<int32_t>(w.size()));
    for (float v : w) window.push(v);
    return AzimuthSmoother::meanAcrossNorth(window);
  };
  EXPECT_EQ(mean({10, 350, 10, 350, 10, 350, 10, 10}), 2.5f);       // high ones lowered
  EXPECT_EQ(mean({350, 10, 350, 10, 350, 10, 350, 350}), 357.5f);  // low ones raised
  EXPECT_EQ(mean({10, 350, 10, 350, 10, 350, 10, 350}), 360.0f);   // tie: low ones raised
  EXPECT_EQ(mean({100, 200, 300, 30, 60, 59, 250, 100}), 137.375f);  // one side only
}

TEST(AzimuthSmoother, ChangedMeanLengthRefillsItsWindow) {
  AzimuthSmoother t;
  for (int call = 0; call < 30; ++call) t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 8);
  // Shortened to 3: empty again, so two calls give 0 and the third the heading.
  EXPECT_EQ(t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3), 0.0f);
  EXPECT_EQ(t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3), 0.0f);
  EXPECT_NEAR(t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3), correction(100.0f), 1e-3f);
  // Length 1 never waits.
  AzimuthSmoother one;
  EXPECT_NEAR(one.smooth(sinDeg(100.0), cosDeg(100.0), 1, 1), correction(100.0f), 1e-3f);
}

}  // namespace
}  // namespace quelta
