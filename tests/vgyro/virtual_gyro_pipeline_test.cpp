// The pipeline step by step: restarts, interval checks, the start-up error
// period, the not-a-number restart, compensation and the log lines.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "QueltaAlgo.h"
#include "tests/vgyro/log_capture.h"
#include "tests/vgyro/spinning_device.h"
#include "vgyro/filter_compensation.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::test::capturedLines;
using quelta::test::countLinesStartingWith;
using quelta::test::startCapture;

const float kMag[3] = {0.4567f, -0.25f, 0.1f};
const float kAcc[3] = {0.0f, 0.0f, 9.8f};
const float kZero[3] = {0.0f, 0.0f, 0.0f};

std::vector<float> published() {
  std::vector<float> w(3);
  GetCalGyr(w.data());
  return w;
}

std::vector<float> newest(const DataBuffer& buf) {
  std::vector<float> v(3);
  bfGet(&buf, v.data(), 0);
  return v;
}

void expectStillNoise(const std::vector<float>& w) {
  for (float c : w) {
    EXPECT_LE(std::fabs(c), 0.005f);
    EXPECT_FALSE(std::isnan(c));
  }
}

// Feeds a spinning simulated device into the process-wide pipeline.
void spin(quelta::test::SpinningDevice& device, int first, int calls, float ts, int32_t logMode) {
  for (int i = first; i < first + calls; ++i) {
    const quelta::sim::SensorSample s = device.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, logMode, ts);
  }
}

quelta::test::SpinningDevice spinAboutZ(double rate, double interval) {
  quelta::test::SpinningDevice d(quelta::sim::attitudeFromHeadingPitchRoll(10.0, 5.0, 0.0),
                                 {0.0, 0.0, 1.0}, rate, 0.0);
  d.interval = interval;
  return d;
}

TEST(VirtualGyroPipeline, FreshLibraryPublishesTheFirstThreeDrawsAndTheFirstAttitude) {
  float q[4] = {9, 9, 9, 9};
  GetRotVec_InVG(q);
  for (float c : q) EXPECT_EQ(c, 0.0f);
  EXPECT_EQ(published(), std::vector<float>(3, 0.0f));

  const float magNorth[3] = {0.0f, 20.0f, -40.0f};
  CalcQueltaGyro(magNorth, kAcc, 0, 0, 0.01f);
  const std::vector<float> w = published();
  EXPECT_NEAR(w[0], -0.0049997754, 5e-11);
  EXPECT_NEAR(w[1], -0.0041496754, 5e-11);
  EXPECT_NEAR(w[2], 0.0010135263, 5e-11);
  GetRotVec_InVG(q);  // x, y, z, w of the identity: flat, facing north
  EXPECT_EQ(q[0], 0.0f);
  EXPECT_EQ(q[1], 0.0f);
  EXPECT_EQ(q[2], 0.0f);
  EXPECT_EQ(q[3], 1.0f);
  // The pipeline's draws and the host's share one generator.
  EXPECT_NEAR(myRand(1, 0), 0.78322256, 1e-8);
  // Set up on the first call: every buffer bound, holding one sample each.
  EXPECT_EQ(bfMagRaw.data, bfMagRawData);
  EXPECT_EQ(bfWFilter.count, 1);
  EXPECT_EQ(bfMagMean.count, 1);
}

TEST(VirtualGyroPipeline, RestartsEmptyTheBuffersAndReportTheRestartValue) {
  startCapture();
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.0f);  // first call restarts with 1
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.02f);
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.01f);
  EXPECT_EQ(bfMagRaw.count, 3);
  EXPECT_EQ(bfAccMean.count, 3);
  CalcQueltaGyro(kMag, kAcc, 5, 0, 0.0f);
  EXPECT_EQ(bfMagRaw.count, 1);
  EXPECT_EQ(bfAccMean.count, 1);
  EXPECT_EQ(bfWRaw.count, 1);
  ASSERT_EQ(capturedLines().size(), 2u);
  EXPECT_EQ(capturedLines()[0], "TRVQX4e tsbug algoRestart= 1  ts= 100 \n");
  EXPECT_EQ(capturedLines()[1], "TRVQX4e tsbug algoRestart= 5  ts= 100 \n");

  // The replaced interval is the one of the previous call.
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.02f);
  CalcQueltaGyro(kMag, kAcc, 0, 0, -1.0f);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e tsbug algoRestart= 0  ts= 200 \n");
  // A NaN interval is kept, and becomes the previous one.
  const size_t before = capturedLines().size();
  CalcQueltaGyro(kMag, kAcc, 0, 0, NAN);
  EXPECT_EQ(capturedLines().size(), before);
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.0f);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e tsbug algoRestart= 0  ts= 0 \n");
}

TEST(VirtualGyroPipeline, RestartResetsTheRotationModeSoTheRestartingCallPublishesNoise) {
  quelta::test::SpinningDevice device = spinAboutZ(3.0, 0.01);
  spin(device, 0, 60, 0.01f, -1);
  EXPECT_NEAR(published()[2], 3.0, 0.06);
  const quelta::sim::SensorSample s = device.read(60);
  CalcQueltaGyro(s.mag, s.acc, 1, -1, 0.01f);
  expectStillNoise(published());
  spin(device, 61, 30, 0.01f, -1);  // the chain refills, then it is rotating again
  EXPECT_GT(published()[2], 0.5f);
}

TEST(VirtualGyroPipeline, StartupErrorPeriodReplacesTheRateOnExactlyFortyNineCalls) {
  startCapture();
  const float constant[3] = {1.5e-5f, 2.5e-5f, 8e-5f};
  for (int call = 1; call <= 60; ++call) {
    CalcQueltaGyro(kMag, call == 5 ? kZero : kAcc, 0, 0, 0.01f);
    const std::vector<float> w = newest(bfWRaw);  // the chosen rate of this call
    const bool replaced = w[0] == constant[0] && w[1] == constant[1] && w[2] == constant[2];
    EXPECT_EQ(replaced, call >= 5 && call <= 53) << "call " << call;
  }
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 tmpW 15 25 80 \n"), 49);
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20210430 accbug 0 0 0 ErrCountFlag= 1 \n"), 1);
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20210430 magbug 456 -250 100 \n"), 1);
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 StartErrCount= 50 ErrCountFlag= 1 \n"), 1);
  // Parked at 51 and logged on every later call.
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 StartErrCount= 51 ErrCountFlag= 0 \n"), 6);

  // A later error no longer replaces the rate; the count is parked again.
  CalcQueltaGyro(kZero, kAcc, 0, 0, 0.01f);
  const std::vector<float> w = newest(bfWRaw);
  EXPECT_NE(w[2], constant[2]);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e 20200831 StartErrCount= 52 ErrCountFlag= 1 \n");

  // A restart closes the period: no StartErrCount line any more.
  CalcQueltaGyro(kMag, kAcc, 1, 0, 0.01f);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e 20200831 StartErrCount= 52 ErrCountFlag= 1 \n");
}

TEST(VirtualGyroPipeline, VerboseLinesCarryTheInputsNormsAndPublishedRate) {
  startCapture();
  CalcQueltaGyro(kMag, kAcc, 0, 1, 0.01f);
  ASSERT_EQ(capturedLines().size(), 2u);  // still: no rate line
  EXPECT_EQ(capturedLines()[0],
            "TRVQX4e 20210430 inVG  mag 0.456700 -0.250000 0.100000 acc 0.000000 0.000000 "
            "9.800000 ts 0.010000 \n");
  EXPECT_EQ(capturedLines()[1],
            "TRVQX4e 20210430 norm2(acc,3)= 9 norm2(mag,3)=0 StartErrCount=0 ErrCountFlag = 0 \n");

  quelta::test::SpinningDevice device = spinAboutZ(3.0, 0.01);
  spin(device, 0, 30, 0.01f, 1);
  const std::vector<float> w = published();
  char expected[200];
  std::snprintf(expected, sizeof expected, "TRVQX4e 20210430 inVG  gyrodataOut %f %f %f \n",
                static_cast<double>(w[0]), static_cast<double>(w[1]), static_cast<double>(w[2]));
  EXPECT_EQ(capturedLines().back(), expected);
}

TEST(VirtualGyroPipeline, OtherLogModesSilenceEveryLineButChangeNothing) {
  quelta::StandaloneVirtualGyro loud, two, negative;
  quelta::test::SpinningDevice device = spinAboutZ(4.0, 0.01);
  startCapture();
  for (int i = 0; i < 80; ++i) {
    const quelta::sim::SensorSample s = device.read(i);
    const float* acc = i == 3 ? kZero : s.acc;
    const float ts = i == 7 ? 0.0f : 0.01f;
    const size_t before = capturedLines().size();
    two.gyro.process(s.mag, acc, 0, 2, ts);
    negative.gyro.process(s.mag, acc, 0, -1, ts);
    ASSERT_EQ(capturedLines().size(), before) << i;
    loud.gyro.process(s.mag, acc, 0, 1, ts);
    float a[3], b[3], c[3];
    loud.gyro.calGyr(a);
    two.gyro.calGyr(b);
    negative.gyro.calGyr(c);
    for (int j = 0; j < 3; ++j) {
      ASSERT_EQ(a[j], b[j]);
      ASSERT_EQ(a[j], c[j]);
    }
  }
  EXPECT_FALSE(capturedLines().empty());
}

TEST(VirtualGyroPipeline, NotANumberInRotatingModeIsPublishedOnceThenRestarts) {
  quelta::test::SpinningDevice device = spinAboutZ(3.0, 0.01);
  spin(device, 0, 40, 0.01f, -1);
  const float nanMag[3] = {NAN, 0.1f, 0.2f};
  CalcQueltaGyro(nanMag, kAcc, 0, -1, 0.01f);
  for (float c : published()) EXPECT_FALSE(std::isnan(c));  // the median drops one spike
  CalcQueltaGyro(nanMag, kAcc, 0, -1, 0.01f);
  for (float c : published()) EXPECT_TRUE(std::isnan(c));
  EXPECT_EQ(bfMagRaw.count, 3);
  const quelta::sim::SensorSample s = device.read(42);
  CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.01f);
  EXPECT_EQ(bfMagRaw.count, 1);
  expectStillNoise(published());
}

// The smoothed rate is bfWFilter's newest sample; compensation scales it.
void expectCompensation(float ts, bool compensated) {
  quelta::test::SpinningDevice device = spinAboutZ(3.0, static_cast<double>(ts));
  CalcQueltaGyro(kMag, kAcc, 1, -1, ts);
  spin(device, 0, 60, ts, -1);
  const std::vector<float> smoothed = newest(bfWFilter);
  const std::vector<float> w = published();
  ASSERT_GT(std::fabs(smoothed[2]), 1.0f);
  if (!compensated) {
    EXPECT_EQ(w, smoothed) << "ts " << ts;
    return;
  }
  float gain[3] = {1.0f, 1.0f, 1.0f};
  quelta::filterCompensation(gain, smoothed.data(), quelta::fMagAccLpfB, quelta::fMagAccLpfA, 2,
                             2, ts);
  EXPECT_GT(gain[2], 1.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(w[i], smoothed[i] * gain[i]) << "ts " << ts;
}

TEST(VirtualGyroPipeline, CompensationRunsOnlyForIntervalsFromFiveToThirtyMilliseconds) {
  expectCompensation(0.01f, true);
  expectCompensation(0.03f, true);    // 0.029999999 in double: inside
  expectCompensation(0.005f, false);  // 0.0049999999 in double: below
  expectCompensation(0.04f, false);
}

TEST(VirtualGyroPipeline, GainsPastTheCutOffAreNotAppliedOnAnyAxis) {
  // 14 rad/s at 100 Hz: the gain about z passes 1.05.
  quelta::test::SpinningDevice device = spinAboutZ(14.0, 0.01);
  spin(device, 0, 60, 0.01f, -1);
  EXPECT_EQ(published(), newest(bfWFilter));
  EXPECT_NEAR(published()[2], 14.0, 14.0 * 0.03);
}

TEST(VirtualGyroPipeline, IndependentPipelinesLeaveTheProcessWideStateAlone) {
  quelta::StandaloneVirtualGyro own;
  own.gyro.process(kMag, kAcc, 0, -1, 0.01f);
  float w[3];
  own.gyro.calGyr(w);
  EXPECT_NEAR(w[0], -0.0049997754, 5e-11);  // its own generator, from state 1
  EXPECT_EQ(own.buffers.magRaw.count, 1);
  EXPECT_EQ(bfMagRaw.data, nullptr);        // exported buffers untouched
  EXPECT_NEAR(myRand(1, 0), -0.99995506, 1e-8);
}

}  // namespace
