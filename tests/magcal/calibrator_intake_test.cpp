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
    const float mag[3] = {0.01f * i, 0.25f, 0.5f};
    const float sat[3] = {0.0f, static_cast<float>(i), 0.0f};
    cal.process(acc, mag, sat, 0, 7);
    if (i == 0) {
      // The sample as a row vector times the matrix.
      EXPECT_EQ(cal.state.dMagdata[0], 0.25f);
      EXPECT_EQ(cal.state.dMagdata[1], 0.0f);
      EXPECT_EQ(cal.state.dMagdata[2], -0.5f);
      // Gravity preset behind the first sample.
      EXPECT_EQ(cal.state.dAccHistory.at(1)[2], 1.0f);
      EXPECT_EQ(cal.state.dAccHistory.at(29)[2], 1.0f);
      EXPECT_EQ(cal.state.dAccHistory.at(29)[1], 0.0f);
    }
    if (i == 29) {
      EXPECT_EQ(cal.state.iHistoryCount, 30);
      EXPECT_EQ(cal.state.dAccHistory.at(29)[0], 29.0f);
      EXPECT_EQ(cal.state.dAccVariance[0], 0.0f);  // not computed before the 31st sample
    }
  }
  EXPECT_EQ(cal.state.iHistoryCount, 30);
  EXPECT_EQ(cal.state.dAccHistory.at(0)[0], 1.0f);
  EXPECT_EQ(cal.state.dAccHistory.at(29)[0], 30.0f);
  EXPECT_EQ(cal.state.dMagHistory.at(29)[1], 0.01f * 30 * 2);
  EXPECT_EQ(cal.state.dSatMagHistory.at(14)[1], 15.0f);
  EXPECT_NEAR(cal.state.dAccVariance[0], (30.0 * 30.0 - 1.0) / 12.0, 1e-4);  // 1..30
  EXPECT_EQ(cal.state.dAccVariance[1], 0.0f);
  EXPECT_EQ(cal.state.dAccVariance[2], 0.0f);
}

TEST(CalibratorIntake, SaturationWatchCountsMovingSamplesWithAFrozenProbeAxis) {
  Calibrator cal;
  int calls = 0;
  auto moveWithFrozenZ = [&](float probeZ) {
    const float acc[3] = {(calls % 2) ? 1.0f : 0.0f, 0.0f, 1.0f};  // axis variance 0.25
    const float mag[3] = {0.3f, 0.1f, 0.2f};
    const float sat[3] = {0.01f * (calls % 7), 0.02f * (calls % 5), probeZ};
    cal.process(acc, mag, sat, 0, 0);
    ++calls;
  };
  for (int i = 0; i < 40; ++i) moveWithFrozenZ(0.4f);
  EXPECT_EQ(cal.state.iSatCount, 10);
  EXPECT_EQ(cal.state.bMagSaturation, 0);
  moveWithFrozenZ(0.4f);  // the 11th watched call
  EXPECT_EQ(cal.state.bMagSaturation, 1);
  EXPECT_EQ(cal.state.iSatCount, 0);
  for (int i = 0; i < 11; ++i) moveWithFrozenZ(0.4f);
  EXPECT_EQ(cal.saturation(), 1);  // two detections, reported once
  EXPECT_EQ(cal.saturation(), 0);

  // A still device, or every probe axis following the motion, resets the count.
  for (int i = 0; i < 5; ++i) moveWithFrozenZ(0.4f);
  cal.state.config.dAccVarThd = 0.25f;  // a variance of exactly 0.25 now counts as still
  moveWithFrozenZ(0.4f);
  EXPECT_EQ(cal.state.iSatCount, 0);
  cal.state.config.dAccVarThd = 0.1f;
  for (int i = 0; i < 5; ++i) moveWithFrozenZ(0.4f);
  moveWithFrozenZ(5.0f);  // z now varies across the history
  EXPECT_EQ(cal.state.iSatCount, 0);
}

namespace {

// Quality down count after the history first fills with one sample (x, 0, 0)
// against offset 0 and the given radius.
int qualityCountAfterFill(float x, float radius) {
  Calibrator cal;
  cal.state.iMagAccuracy = 3;
  cal.state.dSphereRadius = radius;
  for (int i = 0; i < 30; ++i) feed(cal, x, 0.0f, 0.0f);
  return cal.state.iQualityDownCount;
}

}  // namespace

TEST(CalibratorIntake, QualityWatchBoundaries) {
  EXPECT_EQ(qualityCountAfterFill(0.2f, 1.0f), 0);  // 0.2f exceeds the double 0.2
  EXPECT_EQ(qualityCountAfterFill(std::nextafter(0.2f, 0.0f), 1.0f), 1);
  EXPECT_EQ(qualityCountAfterFill(3.0f, 1.0f), 0);
  EXPECT_EQ(qualityCountAfterFill(std::nextafter(3.0f, 4.0f), 1.0f), 1);
  EXPECT_EQ(qualityCountAfterFill(0.0f, 0.0f), 0);  // 0/0 is not out of range
  EXPECT_EQ(qualityCountAfterFill(0.5f, 0.0f), 1);  // infinite ratio is

  // A non-positive rate makes every watched sample downgrade; the watch first
  // runs on the call that fills the history.
  Calibrator cal;
  cal.state.iMagAccuracy = 3;
  cal.state.config.iSampleRate = 0;
  for (int i = 0; i < 29; ++i) feed(cal, 0.5f, 0.0f, 0.0f);
  EXPECT_EQ(cal.state.iMagAccuracy, 3);
  feed(cal, 0.5f, 0.0f, 0.0f);
  EXPECT_EQ(cal.state.iMagAccuracy, 0);
}

TEST(CalibratorIntake, QualityWatchDowngradesAfterFiveSecondsOffTheSphere) {
  startCapture();
  Calibrator cal;
  cal.state.iMagAccuracy = 2;
  cal.state.dSphereOffset[0] = 0.1f;
  cal.state.iCalBufferCount = 3;
  // 1.6 from the offset, ratio 3.2; the count starts on the 30th call. One
  // in-range sample restarts it once it reaches the middle of the history.
  for (int i = 0; i < 100; ++i) feed(cal, 1.7f, 0.0f, 0.0f, 2);
  feed(cal, 0.6f, 0.0f, 0.0f, 2);
  for (int i = 0; i < 14; ++i) feed(cal, 1.7f, 0.0f, 0.0f, 2);
  EXPECT_EQ(cal.state.iQualityDownCount, 0);
  for (int i = 0; i < 249; ++i) feed(cal, 1.7f, 0.0f, 0.0f, 2);
  EXPECT_EQ(cal.state.iMagAccuracy, 2);
  EXPECT_EQ(cal.state.iQualityDownCount, 249);
  const int poolBefore = cal.state.iCalBufferCount;
  EXPECT_GT(poolBefore, 0);
  EXPECT_EQ(countPrefix("TRVQX4e20171117 qualitydown"), 0);

  feed(cal, 1.7f, 0.0f, 0.0f, 1);
  EXPECT_EQ(cal.state.iMagAccuracy, 0);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);  // emptied, and this sample not pooled
  EXPECT_EQ(cal.state.dSphereOffset[0], 0.1f);
  EXPECT_EQ(cal.state.dSphereRadius, 0.5f);
  ASSERT_EQ(capturedLines().size(), 2u);
  EXPECT_EQ(capturedLines()[0], "TRVQX4e20171117 qualitydown 250\n");
  EXPECT_EQ(capturedLines()[1], "TRVQX4e needcali quality 444 0 califlag= 1\n");

  // The count is not reset by the downgrade, and at accuracy 0 the watch rests.
  feed(cal, 1.7f, 0.0f, 0.0f, 2);
  EXPECT_EQ(cal.state.iQualityDownCount, 250);
}

TEST(CalibratorIntake, RestartEmptiesOnlyThePool) {
  startCapture();
  Calibrator cal;
  for (int i = 0; i < 4; ++i) feed(cal, 0.3f * i, 0.0f, 0.0f, 2);
  ASSERT_EQ(cal.state.iCalBufferCount, 4);
  const float next[3] = {0.0f, 0.5f, 0.0f};
  cal.process(kUp, next, next, 2, 2);  // not a restart
  EXPECT_EQ(cal.state.iCalBufferCount, 5);
  cal.process(kUp, next, next, 1, 2);  // restart, silent at log mode 2
  EXPECT_EQ(cal.state.iCalBufferCount, 1);
  EXPECT_TRUE(capturedLines().empty());
  cal.state.iMagAccuracy = 3;
  cal.process(kUp, next, next, 1, 0);  // the same call reopens the pool
  EXPECT_EQ(cal.state.iCalBufferCount, 1);
  EXPECT_EQ(cal.state.iHistoryCount, 7);
  EXPECT_EQ(cal.state.iMagAccuracy, 3);
  ASSERT_EQ(capturedLines().size(), 1u);
  EXPECT_EQ(capturedLines()[0], "QUELTA6a20180530 ReStart=1 \n");
}
