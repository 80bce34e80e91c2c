// The azimuth chain: start-up, North in each stage, the sector correction,
// the one-degree hold and the window-length limits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "orientation/azimuth_smoother.h"

namespace quelta {
namespace {

float sinDeg(double deg) { return static_cast<float>(std::sin(deg * 3.14159265358979323846 / 180.0)); }
float cosDeg(double deg) { return static_cast<float>(std::cos(deg * 3.14159265358979323846 / 180.0)); }

AzimuthSmoother withWindows(int32_t median, int32_t mean) {
  AzimuthSmoother s;
  s.useWindowLengths(median, mean);
  return s;
}

TEST(AzimuthSmoother, StartUpWithDefaultsAndSteadyHeading) {
  AzimuthSmoother s;
  const float settling[] = {39.629f, 48.314f, 61.118f, 76.896f, 88.473f};
  for (int call = 1; call <= 30; ++call) {
    const float azimuth = s.smooth(sinDeg(100.0), cosDeg(100.0), 11, 8);
    if (call <= 7) EXPECT_EQ(azimuth, 0.0f) << call;
    else if (call <= 12) EXPECT_NEAR(azimuth, settling[call - 8], 1e-3f) << call;
    else EXPECT_NEAR(azimuth, 97.698f, 1e-3f) << call;
  }
  // A constant passes the low-pass filter, so it is pinned on its own: primed
  // by the first pair, then k (x1 + x0) + a y0.
  AzimuthSmoother t;
  float f[2];
  t.lowPass(0.0f, 1.0f, f);
  t.lowPass(1.0f, 0.0f, f);
  EXPECT_EQ(f[0], 0.045035005f);
  EXPECT_EQ(f[1], 0.045035005f + 0.90993f);
  // The one-degree hold compares plain numbers, not compass angles.
  t.dAzimuthOut = 100.0f;
  EXPECT_TRUE(t.hold(100.9f) == 100.0f && t.hold(99.1f) == 100.0f && t.hold(101.0f) == 101.0f);
  t.dAzimuthOut = 359.6f;
  EXPECT_EQ(t.hold(0.3f), 0.3f);  // 0.7 degrees on the compass, 359.3 in plain numbers
}

TEST(AzimuthSmoother, SectorCorrectionAndSectorEnds) {
  const float in[] = {10.0f, 20.0f, 30.0f, 44.0f, 22.5f};
  const float out[] = {7.6975f, 19.2726f, 31.8964f, 44.4195f, 22.5f};
  for (int sector = 0; sector < 8; ++sector) {
    const float base = 45.0f * static_cast<float>(sector);
    for (int i = 0; i < 5; ++i) {
      EXPECT_NEAR(AzimuthSmoother::sectorCorrection(base + in[i]), base + out[i], 2e-4f) << base + in[i];
    }
  }
  EXPECT_EQ(AzimuthSmoother::sectorCorrection(370.0f), AzimuthSmoother::sectorCorrection(10.0f));
  for (float end : {0.0f, 45.0f, 90.0f, 135.0f, 180.0f, 270.0f, 360.0f}) {
    EXPECT_EQ(AzimuthSmoother::sectorCorrection(end), end == 360.0f ? 0.0f : end);
  }
  // Ends kept across calls give the fresh correction bit for bit, swept down then up.
  AzimuthSmoother::SectorEnds kept;
  for (int i = 0; i <= 7200; ++i) {
    const float mean = 0.1f * static_cast<float>(i <= 3600 ? 3600 - i : i - 3600) - 0.05f;
    const float fresh = AzimuthSmoother::sectorCorrection(mean), reused = AzimuthSmoother::sectorCorrection(mean, kept);
    ASSERT_EQ(0, std::memcmp(&fresh, &reused, sizeof fresh)) << mean;
  }
  EXPECT_EQ(kept.known, 0x1ffu);
}

TEST(AzimuthSmoother, MedianAndMeanAcrossNorth) {
  AzimuthSmoother s = withWindows(11, 8);
  for (int call = 1; call <= 10; ++call) s.medianStage(call % 2 == 1 ? 1.0f : 359.0f);
  EXPECT_EQ(s.medianStage(1.0f), 1.0f);      // six 1s against five -1s
  EXPECT_EQ(s.medianStage(359.0f), 359.0f);  // six -1s, wrapped
  EXPECT_EQ(s.iAziMedCount, 10);
  // Once full the window holds the ten latest azimuths and the newest again,
  // so five outliers in a row already take the median of eleven.
  AzimuthSmoother t = withWindows(11, 8);
  for (int call = 0; call < 20; ++call) t.medianStage(10.0f);
  for (int call = 1; call <= 4; ++call) EXPECT_EQ(t.medianStage(50.0f), 10.0f) << call;
  EXPECT_EQ(t.medianStage(50.0f), 50.0f);
  // A span of exactly 300 degrees already counts as straddling North:
  // {10, 10, 100, 310, 310} takes its median with 310 as -50.
  AzimuthSmoother u = withWindows(5, 8);
  for (float azimuth : {10.0f, 10.0f, 10.0f, 10.0f, 10.0f, 10.0f, 100.0f}) u.medianStage(azimuth);
  EXPECT_EQ(u.medianStage(310.0f), 10.0f);

  // The mean moves the smaller group across North.
  auto meanOf = [](std::initializer_list<float> medians) {
    AzimuthSmoother s = withWindows(11, 8);
    float mean = 0.0f;
    for (float m : medians) mean = s.meanStage(m);
    EXPECT_EQ(s.dAziMeanBuf[0], *(medians.begin() + 1));  // stored unadjusted, shifted
    return mean;
  };
  EXPECT_EQ(meanOf({10, 350, 10, 350, 10, 350, 10, 10}), 2.5f);       // high ones lowered
  EXPECT_EQ(meanOf({350, 10, 350, 10, 350, 10, 350, 350}), 357.5f);  // low ones raised
  EXPECT_EQ(meanOf({10, 350, 10, 350, 10, 350, 10, 350}), 360.0f);   // tie: low ones raised
  EXPECT_EQ(meanOf({100, 200, 300, 30, 60, 59, 250, 100}), 137.375f);  // one side only
}

TEST(AzimuthSmoother, WindowLengthsStayInsideTheBuffers) {
  AzimuthSmoother one = withWindows(1, 1);
  for (float r : {10.0f, 350.0f}) EXPECT_TRUE(one.medianStage(r) == r && one.meanStage(r) == r) << r;
  // Shortening a full window empties it: it refills as at start-up.
  AzimuthSmoother t;
  for (int call = 0; call < 30; ++call) t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 8);
  EXPECT_EQ(t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3), 0.0f);
  EXPECT_TRUE(t.iAziMedCount == 10 && t.iAziMeanCount == 1);
  t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3);
  EXPECT_NEAR(t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3), 97.698f, 1e-3f);
}

}  // namespace
}  // namespace quelta
