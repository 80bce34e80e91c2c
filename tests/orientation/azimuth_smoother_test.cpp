// The azimuth chain: start-up, each stage's handling of North, the sector
// correction, the one-degree hold and the window-length limits.
#include <gtest/gtest.h>

#include <cmath>

#include "orientation/azimuth_smoother.h"

namespace quelta {
namespace {

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

float sinDeg(double deg) { return static_cast<float>(std::sin(deg * kDegToRad)); }
float cosDeg(double deg) { return static_cast<float>(std::cos(deg * kDegToRad)); }

// A smoother with the default windows (median 11, mean 8) in force.
AzimuthSmoother defaultWindows() {
  AzimuthSmoother s;
  s.useWindowLengths(11, 8);
  return s;
}

TEST(AzimuthSmoother, StartUpWithDefaultsAndSteadyHeading) {
  AzimuthSmoother s;
  const float east = sinDeg(100.0), north = cosDeg(100.0);
  const float expected[] = {39.629f, 48.314f, 61.118f, 76.896f, 88.473f};
  for (int call = 1; call <= 40; ++call) {
    const float azimuth = s.smooth(east, north, 11, 8);
    EXPECT_NEAR(AzimuthSmoother::rawAzimuth(s.dAziLpfOut), 100.0f, 2e-5f) << call;
    if (call <= 7) {
      EXPECT_EQ(azimuth, 0.0f) << call;
    } else if (call <= 12) {
      EXPECT_NEAR(azimuth, expected[call - 8], 1e-3f) << call;
    } else {
      EXPECT_NEAR(azimuth, 97.698f, 1e-3f) << call;
    }
  }
  // Medians entered the mean window as 0 on calls 1 to 5 and as 100 from
  // call 6; by now the window holds none of the early zeros.
  for (int j = 0; j < 7; ++j) EXPECT_NEAR(s.dAziMeanBuf[j], 100.0f, 2e-5f) << j;
}

TEST(AzimuthSmoother, StartUpMediansSeeUnwrittenZeros) {
  AzimuthSmoother s = defaultWindows();
  for (int call = 1; call <= 5; ++call) EXPECT_EQ(s.medianStage(100.0f), 0.0f) << call;
  EXPECT_EQ(s.medianStage(100.0f), 100.0f);
}

TEST(AzimuthSmoother, LowPassPrimesThenFilters) {
  AzimuthSmoother s;
  float f[2];
  s.lowPass(0.0f, 1.0f, f);
  EXPECT_EQ(f[0], 0.0f);
  EXPECT_EQ(f[1], 1.0f);
  s.lowPass(1.0f, 0.0f, f);
  EXPECT_EQ(f[0], 0.045035005f);
  EXPECT_EQ(f[1], 0.045035005f + 0.90993f);
  s.lowPass(1.0f, 0.0f, f);
  EXPECT_EQ(f[0], (0.045035005f + 0.045035005f) + 0.90993f * 0.045035005f);
}

TEST(AzimuthSmoother, SectorCorrectionSpreadsAnglesAwayFromSectorMiddles) {
  EXPECT_NEAR(AzimuthSmoother::sectorCorrection(10.0f), 7.6975f, 1e-4f);
  EXPECT_NEAR(AzimuthSmoother::sectorCorrection(20.0f), 19.2726f, 1e-4f);
  EXPECT_NEAR(AzimuthSmoother::sectorCorrection(30.0f), 31.8964f, 1e-4f);
  EXPECT_NEAR(AzimuthSmoother::sectorCorrection(44.0f), 44.4195f, 1e-4f);
  // The same shape in every sector, and the middles stay.
  for (int sector = 0; sector < 8; ++sector) {
    const float base = 45.0f * static_cast<float>(sector);
    EXPECT_NEAR(AzimuthSmoother::sectorCorrection(base + 10.0f), base + 7.6975f, 2e-4f) << sector;
    EXPECT_NEAR(AzimuthSmoother::sectorCorrection(base + 35.0f), base + 37.3025f, 2e-4f) << sector;
    EXPECT_NEAR(AzimuthSmoother::sectorCorrection(base + 22.5f), base + 22.5f, 2e-4f) << sector;
  }
  // Means outside [0, 360) are wrapped first.
  EXPECT_EQ(AzimuthSmoother::sectorCorrection(370.0f), AzimuthSmoother::sectorCorrection(10.0f));
  EXPECT_EQ(AzimuthSmoother::sectorCorrection(-350.0f + 360.0f - 360.0f),
            AzimuthSmoother::sectorCorrection(10.0f));
}

TEST(AzimuthSmoother, SectorEndsAreReportedAsTheyStand) {
  EXPECT_EQ(AzimuthSmoother::sectorCorrection(0.0f), 0.0f);
  EXPECT_EQ(AzimuthSmoother::sectorCorrection(360.0f), 0.0f);
  for (float end : {45.0f, 90.0f, 135.0f, 180.0f, 270.0f}) {
    EXPECT_EQ(AzimuthSmoother::sectorCorrection(end), end) << end;
  }
  // 225 and 315 round to angles just inside a sector and go through the
  // correction, which leaves them within a hair of themselves.
  EXPECT_NEAR(AzimuthSmoother::sectorCorrection(225.0f), 225.0f, 1e-3f);
  EXPECT_NEAR(AzimuthSmoother::sectorCorrection(315.0f), 315.0f, 1e-3f);
  EXPECT_LT(AzimuthSmoother::sectorCorrection(359.99997f), 360.0f);
}

TEST(AzimuthSmoother, HoldIgnoresChangesBelowOneDegree) {
  AzimuthSmoother s;
  s.dAzimuthOut = 100.0f;
  EXPECT_EQ(s.hold(100.9f), 100.0f);
  EXPECT_EQ(s.hold(99.1f), 100.0f);
  EXPECT_EQ(s.hold(101.0f), 101.0f);
  EXPECT_EQ(s.dAzimuthOut, 101.0f);
  EXPECT_EQ(s.hold(100.0f), 100.0f);
  // The plain difference across North is large, so the step is reported,
  // even though the heading moved by less than a degree.
  s.dAzimuthOut = 359.6f;
  EXPECT_EQ(s.hold(0.3f), 0.3f);
  EXPECT_EQ(s.hold(359.6f), 359.6f);
}

TEST(AzimuthSmoother, MedianAcrossNorthAndTheDoubledNewest) {
  AzimuthSmoother s = defaultWindows();
  // 1 and 359 alternating: the 359s count as -1 and the median is the
  // majority side of North.
  for (int call = 1; call <= 10; ++call) s.medianStage(call % 2 == 1 ? 1.0f : 359.0f);
  EXPECT_EQ(s.medianStage(1.0f), 1.0f);    // six 1s, five -1s
  EXPECT_EQ(s.medianStage(359.0f), 359.0f);  // six -1s, wrapped
  EXPECT_EQ(s.medianStage(1.0f), 1.0f);
  EXPECT_EQ(s.iAziMedCount, 10);

  // Once full the window holds the ten latest azimuths plus the newest again:
  // five outliers in a row already win the median of eleven.
  AzimuthSmoother t = defaultWindows();
  for (int call = 0; call < 20; ++call) t.medianStage(10.0f);
  for (int call = 1; call <= 4; ++call) EXPECT_EQ(t.medianStage(50.0f), 10.0f) << call;
  EXPECT_EQ(t.medianStage(50.0f), 50.0f);
}

TEST(AzimuthSmoother, MeanMovesTheSmallerGroupAcrossNorth) {
  auto meanOf = [](const float* medians) {
    AzimuthSmoother s = defaultWindows();
    float mean = -1.0f;
    for (int j = 0; j < 8; ++j) {
      mean = s.meanStage(medians[j]);
      if (j < 7) EXPECT_EQ(mean, 0.0f);
    }
    // The buffer keeps the values as they came, shifted by one.
    for (int j = 0; j < 7; ++j) EXPECT_EQ(s.dAziMeanBuf[j], medians[j + 1]);
    EXPECT_EQ(s.iAziMeanCount, 7);
    return mean;
  };
  const float moreLow[] = {10, 350, 10, 350, 10, 350, 10, 10};
  const float moreHigh[] = {350, 10, 350, 10, 350, 10, 350, 350};
  const float tie[] = {10, 350, 10, 350, 10, 350, 10, 350};
  const float lowOnly[] = {100, 200, 300, 30, 60, 59, 250, 100};
  EXPECT_EQ(meanOf(moreLow), 2.5f);     // (5 * 10 - 3 * 10) / 8
  EXPECT_EQ(meanOf(moreHigh), 357.5f);  // (3 * 370 + 5 * 350) / 8
  EXPECT_EQ(meanOf(tie), 360.0f);       // the low ones are raised
  EXPECT_EQ(meanOf(lowOnly), 137.375f);  // 300 and 60 belong to no group
  const float lowAndExactly300[] = {300, 10, 10, 10, 10, 10, 10, 10};
  EXPECT_EQ(meanOf(lowAndExactly300), (300.0f + 70.0f) / 8.0f);
}

TEST(AzimuthSmoother, WindowsOfOne) {
  AzimuthSmoother s;
  s.useWindowLengths(1, 1);
  for (float r : {10.0f, 350.0f, 123.0f}) {
    EXPECT_EQ(s.medianStage(r), r);
    EXPECT_EQ(s.meanStage(r), r);
    EXPECT_EQ(s.iAziMedCount, 0);
    EXPECT_EQ(s.iAziMeanCount, 0);
  }
}

TEST(AzimuthSmoother, WindowLengthsAreClampedAndAChangeEmptiesTheWindow) {
  AzimuthSmoother s;
  s.useWindowLengths(0, 31);
  EXPECT_EQ(s.iMedianLength, 1);
  EXPECT_EQ(s.iMeanLength, 30);
  s.useWindowLengths(32, -5);
  EXPECT_EQ(s.iMedianLength, 31);
  EXPECT_EQ(s.iMeanLength, 1);

  // Fill both windows with the defaults, then shorten them: the counts
  // start again from 0, so the shorter windows behave as fresh ones.
  AzimuthSmoother t;
  for (int call = 0; call < 30; ++call) t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 8);
  EXPECT_EQ(t.iAziMedCount, 10);
  EXPECT_EQ(t.iAziMeanCount, 7);
  const float held = t.dAzimuthOut;
  t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3);
  EXPECT_EQ(t.iAziMedCount, 10);  // unchanged length: window kept
  EXPECT_EQ(t.iAziMeanCount, 1);
  EXPECT_EQ(t.dAziMeanBuf[1], 0.0f);
  // As at start-up, the refilling mean window reports 0 until it is full.
  EXPECT_EQ(t.dAzimuthOut, 0.0f);
  t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3);
  EXPECT_EQ(t.smooth(sinDeg(100.0), cosDeg(100.0), 11, 3), held);
  t.smooth(sinDeg(100.0), cosDeg(100.0), 4, 3);
  EXPECT_EQ(t.iAziMedCount, 1);

  // Lengths changing on every call, in range or not, keep the counts inside
  // the buffers.
  const int32_t lengths[] = {50, -3, 31, 30, 2, 0, 7, 1000, 11, 5};
  AzimuthSmoother u;
  for (int call = 0; call < 200; ++call) {
    const float azimuth = u.smooth(sinDeg(call * 7.0), cosDeg(call * 7.0), lengths[call % 10],
                                   lengths[(call / 3) % 10]);
    ASSERT_LT(u.iAziMedCount, u.iMedianLength);
    ASSERT_LT(u.iAziMeanCount, u.iMeanLength);
    ASSERT_GE(azimuth, 0.0f);
    ASSERT_LT(azimuth, 360.0f);
  }
}

TEST(AzimuthSmoother, SteadyHeadingsSettleOnTheirCorrectedValue) {
  for (double heading : {10.0, 44.0, 100.0, 181.0, 269.0, 340.0}) {
    AzimuthSmoother s;
    float azimuth = 0.0f;
    for (int call = 0; call < 40; ++call) {
      azimuth = s.smooth(sinDeg(heading), cosDeg(heading), 11, 8);
    }
    const float corrected = AzimuthSmoother::sectorCorrection(static_cast<float>(heading));
    EXPECT_NEAR(azimuth, corrected, 1e-3f) << heading;
  }
  // Close to North the start-up transient can leave the output within the
  // hold of the settled value: 0.5 stays at the start-up 0.
  AzimuthSmoother s;
  for (int call = 0; call < 40; ++call) EXPECT_EQ(s.smooth(sinDeg(0.5), cosDeg(0.5), 11, 8), 0.0f);
}

}  // namespace
}  // namespace quelta
