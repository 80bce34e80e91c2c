// SPDX-License-Identifier: Apache-2.0
// The pipeline step by step (restarts, interval checks, the start-up error
// period, the not-a-number restart, compensation and the log lines), then end
// to end on a simulated device with known truth.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "QueltaAlgo.h"
#include "tests/support/log_capture.h"
#include "tests/vgyro/spinning_device.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::sim::attitudeFromHeadingPitchRoll;
using quelta::sim::Quat;
using quelta::sim::SensorSample;
using quelta::sim::Vec3;
using quelta::test::angleBetween;
using quelta::test::capturedLines;
using quelta::test::countLinesStartingWith;
using quelta::test::SpinningDevice;
using quelta::test::startCapture;
using V = std::vector<float>;

const float kMag[3] = {0.4567f, -0.25f, 0.1f};
const float kAcc[3] = {0.0f, 0.0f, 9.8f};
const float kZero[3] = {0.0f, 0.0f, 0.0f};

V published() {
  V w(3);
  GetCalGyr(w.data());
  return w;
}

V newest(const DataBuffer& buf) {
  V v(3);
  bfGet(&buf, v.data(), 0);
  return v;
}

bool stillNoise(const V& w) {
  return std::fabs(w[0]) <= 0.005f && std::fabs(w[1]) <= 0.005f && std::fabs(w[2]) <= 0.005f;
}

SpinningDevice spinAboutZ(double rate, double interval = 0.01) {
  SpinningDevice d(attitudeFromHeadingPitchRoll(10.0, 5.0, 0.0), {0, 0, 1}, rate, 0.0);
  d.interval = interval;
  return d;
}

// Feeds samples first .. first + calls - 1 into the process-wide pipeline.
void spin(SpinningDevice& device, int first, int calls, float ts = 0.01f, int32_t logMode = -1) {
  for (int i = first; i < first + calls; ++i) {
    const SensorSample s = device.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, logMode, ts);
  }
}

TEST(VirtualGyroPipeline, FreshLibraryPublishesTheFirstThreeDrawsAndTheFirstAttitude) {
  float q[4] = {9, 9, 9, 9};
  GetRotVec_InVG(q);
  EXPECT_TRUE(V(q, q + 4) == V(4, 0.0f) && published() == V(3, 0.0f));
  const float magNorth[3] = {0.0f, 20.0f, -40.0f};
  CalcQueltaGyro(magNorth, kAcc, 0, 0, 0.01f);
  // Still: the first three draws of a freshly seeded generator, scaled down
  // (their values are pinned by the golden trace).
  const V w = published();
  quelta::RandomGenerator reference;
  for (float c : w) EXPECT_EQ(c, reference.next(1, 0) / 200.0f);
  GetRotVec_InVG(q);  // x, y, z, w of the identity: flat, facing north
  EXPECT_EQ(V(q, q + 4), (V{0, 0, 0, 1}));
  EXPECT_EQ(myRand(1, 0), reference.next(1, 0));  // the host shares the pipeline's generator

  // An independent pipeline has its own generator and leaves the exported state alone.
  quelta::StandaloneVirtualGyro own;
  own.gyro.process(kMag, kAcc, 0, -1, 0.01f);
  own.gyro.copyRate(q);
  EXPECT_EQ(q[0], w[0]);
  EXPECT_TRUE(own.buffers.magRaw.count == 1 && bfMagRaw.count == 1);
}

TEST(VirtualGyroPipeline, RestartsEmptyTheBuffersAndTheIntervalIsChecked) {
  startCapture();
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.0f);  // the first call restarts with 1
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.02f);
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.01f);
  EXPECT_TRUE(bfMagRaw.count == 3 && bfAccMean.count == 3);
  CalcQueltaGyro(kMag, kAcc, 5, 0, 0.0f);
  EXPECT_TRUE(bfMagRaw.count == 1 && bfAccMean.count == 1 && bfWRaw.count == 1);
  EXPECT_EQ(capturedLines(), (std::vector<std::string>{"TRVQX4e tsbug algoRestart= 1  ts= 100 \n",
                                                       "TRVQX4e tsbug algoRestart= 5  ts= 100 \n"}));
  // A bad interval is replaced by the previous call's.
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.02f);
  CalcQueltaGyro(kMag, kAcc, 0, 0, -1.0f);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e tsbug algoRestart= 0  ts= 200 \n");
  // A NaN interval is kept, and becomes the previous one.
  CalcQueltaGyro(kMag, kAcc, 0, 0, NAN);
  EXPECT_EQ(capturedLines().size(), 3u);
  CalcQueltaGyro(kMag, kAcc, 0, 0, 0.0f);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e tsbug algoRestart= 0  ts= 0 \n");
}

TEST(VirtualGyroPipeline, RestartOrNotANumberWhileRotatingStartsAfreshWithNoise) {
  SpinningDevice device = spinAboutZ(3.0);
  spin(device, 0, 60);
  EXPECT_NEAR(published()[2], 3.0, 0.06);
  const SensorSample s = device.read(60);
  CalcQueltaGyro(s.mag, s.acc, 1, -1, 0.01f);  // the rotation mode restarts too
  EXPECT_TRUE(stillNoise(published()));
  spin(device, 61, 40);  // the chain refills, then it is rotating again
  EXPECT_GT(published()[2], 0.5f);
  const float nanMag[3] = {NAN, 0.1f, 0.2f};
  CalcQueltaGyro(nanMag, kAcc, 0, -1, 0.01f);
  for (float c : published()) EXPECT_FALSE(std::isnan(c));  // the median drops one spike
  CalcQueltaGyro(nanMag, kAcc, 0, -1, 0.01f);
  for (float c : published()) EXPECT_TRUE(std::isnan(c));  // published once
  EXPECT_EQ(bfMagRaw.count, 3);
  spin(device, 103, 1);
  EXPECT_EQ(bfMagRaw.count, 1);
  EXPECT_TRUE(stillNoise(published()));
}

TEST(VirtualGyroPipeline, StartupErrorPeriodReplacesTheRateOnExactlyFortyNineCalls) {
  startCapture();
  const V constant = {1.5e-5f, 2.5e-5f, 8e-5f};
  for (int call = 1; call <= 60; ++call) {
    CalcQueltaGyro(kMag, call == 5 ? kZero : kAcc, 0, 0, 0.01f);
    EXPECT_EQ(newest(bfWRaw) == constant, call >= 5 && call <= 53) << "call " << call;  // this call's rate
  }
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 tmpW 15 25 80 \n"), 49);
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20210430 accbug 0 0 0 ErrCountFlag= 1 \n"), 1);
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 StartErrCount= 50 ErrCountFlag= 1 \n"), 1);
  // Parked at 51 and logged on every later call.
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 StartErrCount= 51 ErrCountFlag= 0 \n"), 6);
  // A later error no longer replaces the rate; the count is parked again.
  CalcQueltaGyro(kZero, kAcc, 0, 0, 0.01f);
  EXPECT_NE(newest(bfWRaw)[2], constant[2]);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e 20200831 StartErrCount= 52 ErrCountFlag= 1 \n");
}

TEST(VirtualGyroPipeline, ModeOneLogsItsVerboseLinesModesTwoAndNegativeLogNothing) {
  startCapture();
  CalcQueltaGyro(kMag, kAcc, 0, 1, 0.01f);
  EXPECT_EQ(capturedLines().size(), 2u);  // input and norms; still: no rate line (texts: golden trace)
  // Modes 2 and -1 log nothing, through errors, bad intervals and rotation.
  SpinningDevice device = spinAboutZ(3.0);
  capturedLines().clear();
  for (int i = 0; i < 80; ++i) {
    const SensorSample s = device.read(30 + i);
    CalcQueltaGyro(s.mag, i == 3 ? kZero : s.acc, 0, i % 2 ? 2 : -1, i == 7 ? 0.0f : 0.01f);
  }
  EXPECT_TRUE(capturedLines().empty());
}

// Compensation scales the smoothed rate (bfWFilter's newest sample) only for
// intervals from 5 to 30 milliseconds and gains up to 1.05.
TEST(VirtualGyroPipeline, CompensationOnlyInsideTheIntervalWindowAndBelowTheCutOff) {
  // 0.03f is 0.029999999 in double: inside; 0.005f is 0.0049999999: below.
  // 14 rad/s at 100 Hz: the gain about z passes 1.05 and no axis is scaled.
  const float ts[5] = {0.01f, 0.03f, 0.005f, 0.04f, 0.01f};
  const double rate[5] = {3.0, 3.0, 3.0, 3.0, 14.0};
  for (int c = 0; c < 5; ++c) {
    SpinningDevice device = spinAboutZ(rate[c], static_cast<double>(ts[c]));
    CalcQueltaGyro(kMag, kAcc, 1, -1, ts[c]);
    spin(device, 0, 60, ts[c]);
    const V smoothed = newest(bfWFilter), w = published();
    EXPECT_EQ(w[2] > smoothed[2], c < 2) << "case " << c;
    EXPECT_EQ(w == smoothed, c >= 2) << "case " << c;
  }
  EXPECT_NEAR(published()[2], 14.0, 14.0 * 0.03);
}

constexpr double kHalfDegree = 0.5 * 3.14159265358979323846 / 180.0;

// Runs a spin and checks every published rate from sample 100 on.
void expectSpinMeasured(Vec3 axis, double rate, Quat start) {
  SpinningDevice spin(start, axis, rate, 0.0005);
  quelta::StandaloneVirtualGyro gyro;
  for (int i = 0; i < 400; ++i) {
    const SensorSample s = spin.read(i);
    gyro.gyro.process(s.mag, s.acc, 0, -1, 0.01f);
    float w[3];
    gyro.gyro.copyRate(w);
    const double ex = w[0] - rate * axis.x, ey = w[1] - rate * axis.y, ez = w[2] - rate * axis.z;
    ASSERT_TRUE(i < 100 || std::sqrt(ex * ex + ey * ey + ez * ez) <= 0.02 * rate)
        << "sample " << i << " rate " << rate << " published " << w[0] << " " << w[1] << " " << w[2];
  }
}

TEST(VirtualGyroEndToEnd, ConstantSpinIsMeasuredWithinTwoPercent) {
  const Quat start = attitudeFromHeadingPitchRoll(30.0, 10.0, -5.0);
  for (double rate : {1.0, 3.0, 6.0}) expectSpinMeasured({0.0, 0.0, 1.0}, rate, start);
  expectSpinMeasured({0.0, 0.0, -1.0}, 3.0, start);  // clockwise: negative z
  const Quat tilted = attitudeFromHeadingPitchRoll(200.0, -20.0, 15.0);
  expectSpinMeasured({1.0 / 3.0, 2.0 / 3.0, 2.0 / 3.0}, 3.0, tilted);
  expectSpinMeasured({0.6, 0.0, -0.8}, 1.0, tilted);
}

TEST(VirtualGyroEndToEnd, DeviceAtRestPublishesOnlySmallNoiseAndItsAttitude) {
  for (const Quat& attitude : {attitudeFromHeadingPitchRoll(0.0, 0.0, 0.0), attitudeFromHeadingPitchRoll(123.0, 35.0, -40.0),
                               attitudeFromHeadingPitchRoll(290.0, -70.0, 10.0)}) {
    SpinningDevice still(attitude, {0.0, 0.0, 1.0}, 0.0, 0.0005);
    quelta::StandaloneVirtualGyro gyro;
    for (int i = 0; i < 500; ++i) {
      const SensorSample s = still.read(i);
      gyro.gyro.process(s.mag, s.acc, 0, -1, 0.01f);
      float w[3], q[4];
      gyro.gyro.copyRate(w);
      gyro.gyro.copyAttitude(q);
      for (float c : w) ASSERT_LE(std::fabs(c), 0.005f) << "sample " << i;
      ASSERT_TRUE(i < 50 || angleBetween(q, attitude) < kHalfDegree) << "sample " << i;
    }
  }
}

TEST(VirtualGyroEndToEnd, AttitudeFollowsTheDeviceThroughATurnAndSettles) {
  SpinningDevice turning(attitudeFromHeadingPitchRoll(45.0, 20.0, 0.0), {0.0, 0.0, 1.0}, 2.0, 0.0005);
  float q[4];
  for (int i = 0; i < 150; ++i) {  // 3 rad in 1.5 s; the smoothing delays the attitude by about ten samples
    const SensorSample s = turning.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.01f);
    GetRotVec_InVG(q);
    ASSERT_TRUE(i < 50 || angleBetween(q, turning.attitude(i)) < 2.0 * 0.01 * 15) << i;
  }
  SpinningDevice rest(turning.attitude(150), {0.0, 0.0, 1.0}, 0.0, 0.0005);
  spin(rest, 0, 100);
  GetRotVec_InVG(q);
  EXPECT_LT(angleBetween(q, turning.attitude(150)), kHalfDegree);
  EXPECT_TRUE(stillNoise(published()));
}

}  // namespace
