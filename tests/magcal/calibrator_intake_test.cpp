#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "magcal_fixtures.h"

using namespace magcal_test;
using quelta::Calibrator;

TEST(CalibratorIntake, MapsAxesFillsHistoriesThenShiftsAndComputesVariances) {
  Calibrator cal;
  const float axes[3][3] = {{0, 2, 0}, {1, 0, 0}, {0, 0, -1}};
  std::memcpy(cal.state.config.dMagAxisMatrix, axes, sizeof axes);
  for (int i = 0; i < 31; ++i) {
    const float acc[3] = {static_cast<float>(i), 0.5f, 1.0f};
    const float mag[3] = {0.25f * i, 0.25f, 0.5f};
    cal.process(acc, mag, acc, 0, 0);
    if (i == 0) {
      // The sample as a row vector times the matrix; the gravity preset behind it.
      EXPECT_TRUE(cal.state.dMagdata[0] == 0.25f && cal.state.dMagdata[2] == -0.5f);
      EXPECT_TRUE(cal.state.dAccHistory.at(29)[2] == 1.0f && cal.state.dAccHistory.at(29)[1] == 0.0f);
    }
    if (i == 29) EXPECT_EQ(cal.state.dAccVariance[0], 0.0f);  // first computed on the 31st
  }
  EXPECT_EQ(cal.state.iHistoryCount, 30);
  EXPECT_EQ(cal.state.dAccHistory.at(0)[0], 1.0f);
  EXPECT_EQ(cal.state.dMagHistory.at(29)[1], 0.25f * 30 * 2);
  EXPECT_EQ(cal.state.dSatMagHistory.at(14)[0], 15.0f);
  EXPECT_NEAR(cal.state.dAccVariance[0], (30.0 * 30.0 - 1.0) / 12.0, 1e-4);  // 1..30
  EXPECT_EQ(cal.state.dAccVariance[1], 0.0f);
}

TEST(CalibratorIntake, SaturationAfterElevenMovingSamplesWithAFrozenProbeAxis) {
  Calibrator cal;
  int calls = 0;
  auto move = [&](float probeZ, int n = 1) {
    for (int i = 0; i < n; ++i, ++calls) {
      const float acc[3] = {(calls % 2) ? 1.0f : 0.0f, 0.0f, 1.0f};  // x variance 0.25
      const float sat[3] = {0.01f * (calls % 7), 0.02f * (calls % 5), probeZ};
      cal.process(acc, sat, sat, 0, 0);
    }
  };
  move(0.4f, 40);
  EXPECT_EQ(cal.state.bMagSaturation, 0);
  move(0.4f);  // the 11th watched call
  EXPECT_TRUE(cal.state.bMagSaturation == 1 && cal.state.iSatCount == 0);
  move(0.4f, 11);
  EXPECT_EQ(cal.saturation(), 1);  // two detections, reported once
  EXPECT_EQ(cal.saturation(), 0);
  // A still device, or every probe axis following the motion, resets the count.
  move(0.4f, 5);
  cal.state.config.dAccVarThd = 0.25f;  // "at most" the threshold is still
  move(0.4f);
  EXPECT_EQ(cal.state.iSatCount, 0);
  cal.state.config.dAccVarThd = 0.1f;
  move(0.4f, 5);
  move(5.0f);
  EXPECT_EQ(cal.state.iSatCount, 0);
}

TEST(CalibratorIntake, QualityWatchBoundaries) {
  // Count after the history fills with (x, 0, 0), offset 0, the given radius.
  auto countAfterFill = [](float x, float radius, int32_t rate = 50) {
    Calibrator cal;
    cal.state.iMagAccuracy = 3;
    cal.state.dSphereRadius = radius;
    cal.state.config.iSampleRate = rate;
    for (int i = 0; i < 29; ++i) feed(cal, x, 0.0f, 0.0f);
    EXPECT_EQ(cal.state.iQualityDownCount, 0);
    feed(cal, x, 0.0f, 0.0f);  // the watch runs from the call that fills the history
    return cal.state.iMagAccuracy == 0 ? -1 : cal.state.iQualityDownCount;
  };
  EXPECT_EQ(countAfterFill(0.2f, 1.0f), 0);  // 0.2f exceeds the double 0.2
  EXPECT_EQ(countAfterFill(std::nextafter(0.2f, 0.0f), 1.0f), 1);
  EXPECT_EQ(countAfterFill(3.0f, 1.0f), 0);
  EXPECT_EQ(countAfterFill(std::nextafter(3.0f, 4.0f), 1.0f), 1);
  EXPECT_EQ(countAfterFill(0.0f, 0.0f), 0);  // 0/0 counts as in range
  EXPECT_EQ(countAfterFill(0.5f, 0.0f), 1);  // an infinite ratio does not
  EXPECT_EQ(countAfterFill(0.5f, 0.5f, 0), -1);  // no rate: downgrade at once
}

TEST(CalibratorIntake, QualityWatchDowngradesAfterFiveSecondsOffTheSphere) {
  startCapture();
  Calibrator cal;
  cal.state.iMagAccuracy = 2;
  cal.state.dSphereOffset[0] = 0.1f;
  // Ratio 3.2 from the 30th call on; one in-range sample restarts the count
  // once it reaches the middle of the history.
  auto offSphere = [&](int n, int mode = 2) {
    for (int i = 0; i < n; ++i) feed(cal, 1.7f, 0.0f, 0.0f, mode);
  };
  offSphere(100);
  feed(cal, 0.6f, 0.0f, 0.0f, 2);
  offSphere(14);
  EXPECT_EQ(cal.state.iQualityDownCount, 0);
  offSphere(249);
  EXPECT_TRUE(cal.state.iMagAccuracy == 2 && cal.state.iCalBufferCount > 0 && capturedLines().empty());
  offSphere(1, 1);  // the 250th
  EXPECT_TRUE(cal.state.iMagAccuracy == 0 && cal.state.iCalBufferCount == 0);  // this sample not pooled
  EXPECT_EQ(cal.state.dSphereOffset[0], 0.1f);
  EXPECT_EQ(capturedLines(), (Lines{"TRVQX4e20171117 qualitydown 250\n", "TRVQX4e needcali quality 444 0 califlag= 1\n"}));
  offSphere(1);  // at accuracy 0 the watch rests; no reset
  EXPECT_EQ(cal.state.iQualityDownCount, 250);
}

TEST(CalibratorIntake, RestartEmptiesOnlyThePool) {
  startCapture();
  Calibrator cal;
  for (int i = 0; i < 4; ++i) feed(cal, 0.3f * i, 0.0f, 0.0f, 2);
  const float next[3] = {0.0f, 0.5f, 0.0f};
  cal.process(kUp, next, next, 2, 2);  // not a restart
  EXPECT_EQ(cal.state.iCalBufferCount, 5);
  cal.process(kUp, next, next, 1, 2);  // restart, silent at log mode 2
  EXPECT_TRUE(cal.state.iCalBufferCount == 1 && capturedLines().empty());
  cal.state.iMagAccuracy = 3;
  cal.process(kUp, next, next, 1, 0);  // the same call reopens the pool
  EXPECT_TRUE(cal.state.iCalBufferCount == 1 && cal.state.iHistoryCount == 7);
  EXPECT_EQ(capturedLines(), Lines{"QUELTA6a20180530 ReStart=1 \n"});
}
