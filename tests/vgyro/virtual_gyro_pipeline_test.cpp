// The pipeline step by step: restarts, interval checks, the start-up error
// period, the not-a-number restart, compensation and the log lines.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "QueltaAlgo.h"
#include "tests/support/log_capture.h"
#include "tests/vgyro/spinning_device.h"
#include "vgyro/filter_compensation.h"
#include "vgyro/random_generator.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::test::capturedLines;
using quelta::test::countLinesStartingWith;
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
  for (float c : w) {
    if (!(std::fabs(c) <= 0.005f)) return false;
  }
  return true;
}

quelta::test::SpinningDevice spinAboutZ(double rate, double interval = 0.01) {
  quelta::test::SpinningDevice d(quelta::sim::attitudeFromHeadingPitchRoll(10.0, 5.0, 0.0), {0, 0, 1}, rate, 0.0);
  d.interval = interval;
  return d;
}

// Feeds samples first .. first + calls - 1 into the process-wide pipeline.
void spin(quelta::test::SpinningDevice& device, int first, int calls, float ts = 0.01f, int32_t logMode = -1) {
  for (int i = first; i < first + calls; ++i) {
    const quelta::sim::SensorSample s = device.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, logMode, ts);
  }
}

TEST(VirtualGyroPipeline, FreshLibraryPublishesTheFirstThreeDrawsAndTheFirstAttitude) {
  float q[4] = {9, 9, 9, 9};
  GetRotVec_InVG(q);
  EXPECT_EQ(V(q, q + 4), V(4, 0.0f));
  EXPECT_EQ(published(), V(3, 0.0f));
  const float magNorth[3] = {0.0f, 20.0f, -40.0f};
  CalcQueltaGyro(magNorth, kAcc, 0, 0, 0.01f);
  const V w = published();
  EXPECT_NEAR(w[0], -0.0049997754, 5e-11);
  EXPECT_NEAR(w[1], -0.0041496754, 5e-11);
  EXPECT_NEAR(w[2], 0.0010135263, 5e-11);
  GetRotVec_InVG(q);  // x, y, z, w of the identity: flat, facing north
  EXPECT_EQ(V(q, q + 4), (V{0, 0, 0, 1}));
  EXPECT_NEAR(myRand(1, 0), 0.78322256, 1e-8);  // the host shares the pipeline's generator
  EXPECT_TRUE(bfMagRaw.data == bfMagRawData && bfWFilter.count == 1 && bfMagMean.count == 1);  // set up on call 1

  // An independent pipeline has its own generator and leaves the exported state alone.
  quelta::StandaloneVirtualGyro own;
  own.gyro.process(kMag, kAcc, 0, -1, 0.01f);
  own.gyro.calGyr(q);
  EXPECT_NEAR(q[0], -0.0049997754, 5e-11);
  EXPECT_TRUE(own.buffers.magRaw.count == 1 && bfMagRaw.count == 1);
  quelta::RandomGenerator reference;
  for (int draw = 0; draw < 4; ++draw) reference.next(1, 0);
  EXPECT_EQ(myRand(1, 0), reference.next(1, 0));
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
  quelta::test::SpinningDevice device = spinAboutZ(3.0);
  spin(device, 0, 60);
  EXPECT_NEAR(published()[2], 3.0, 0.06);
  const quelta::sim::SensorSample s = device.read(60);
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
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20210430 magbug 456 -250 100 \n"), 1);
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 StartErrCount= 50 ErrCountFlag= 1 \n"), 1);
  // Parked at 51 and logged on every later call.
  EXPECT_EQ(countLinesStartingWith("TRVQX4e 20200831 StartErrCount= 51 ErrCountFlag= 0 \n"), 6);
  // A later error no longer replaces the rate; the count is parked again.
  CalcQueltaGyro(kZero, kAcc, 0, 0, 0.01f);
  EXPECT_NE(newest(bfWRaw)[2], constant[2]);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e 20200831 StartErrCount= 52 ErrCountFlag= 1 \n");
  // A restart closes the period: no StartErrCount line any more.
  const size_t lines = capturedLines().size();
  CalcQueltaGyro(kMag, kAcc, 1, 0, 0.01f);
  EXPECT_EQ(capturedLines().size(), lines);
}

TEST(VirtualGyroPipeline, VerboseLinesCarryTheInputsNormsAndPublishedRateOtherModesNone) {
  startCapture();
  CalcQueltaGyro(kMag, kAcc, 0, 1, 0.01f);
  EXPECT_EQ(capturedLines(),
            (std::vector<std::string>{
                "TRVQX4e 20210430 inVG  mag 0.456700 -0.250000 0.100000 acc 0.000000 0.000000 9.800000 ts 0.010000 \n",
                "TRVQX4e 20210430 norm2(acc,3)= 9 norm2(mag,3)=0 StartErrCount=0 ErrCountFlag = 0 \n"}));  // still: no rate line
  quelta::test::SpinningDevice device = spinAboutZ(3.0);
  spin(device, 0, 30, 0.01f, 1);
  const V w = published();
  char expected[200];
  std::snprintf(expected, sizeof expected, "TRVQX4e 20210430 inVG  gyrodataOut %f %f %f \n", w[0], w[1], w[2]);
  EXPECT_EQ(capturedLines().back(), expected);

  // Modes 2 and -1 log nothing, through errors, bad intervals and rotation,
  // and publish the same rates.
  quelta::StandaloneVirtualGyro loud, two, negative;
  startCapture();
  for (int i = 0; i < 80; ++i) {
    const quelta::sim::SensorSample s = device.read(i);
    const float* acc = i == 3 ? kZero : s.acc;
    const float ts = i == 7 ? 0.0f : 0.01f;
    two.gyro.process(s.mag, acc, 0, 2, ts);
    negative.gyro.process(s.mag, acc, 0, -1, ts);
    ASSERT_TRUE(capturedLines().empty()) << i;
    loud.gyro.process(s.mag, acc, 0, 1, ts);
    capturedLines().clear();
    float a[3], b[3], c[3];
    loud.gyro.calGyr(a);
    two.gyro.calGyr(b);
    negative.gyro.calGyr(c);
    ASSERT_TRUE(V(a, a + 3) == V(b, b + 3) && V(a, a + 3) == V(c, c + 3)) << i;
  }
}

// The smoothed rate is bfWFilter's newest sample; compensation scales it
// for intervals from 5 to 30 milliseconds, with gains up to 1.05.
void expectCompensation(float ts, double rate, bool compensated) {
  quelta::test::SpinningDevice device = spinAboutZ(rate, static_cast<double>(ts));
  CalcQueltaGyro(kMag, kAcc, 1, -1, ts);
  spin(device, 0, 60, ts);
  const V smoothed = newest(bfWFilter), w = published();
  ASSERT_GT(std::fabs(smoothed[2]), 1.0f);
  if (!compensated) {
    EXPECT_EQ(w, smoothed) << "ts " << ts << " rate " << rate;
    return;
  }
  float gain[3] = {1.0f, 1.0f, 1.0f};
  quelta::filterCompensation(gain, smoothed.data(), quelta::fMagAccLpfB, quelta::fMagAccLpfA, 2, 2, ts);
  EXPECT_GT(gain[2], 1.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(w[i], smoothed[i] * gain[i]) << "ts " << ts;
}

TEST(VirtualGyroPipeline, CompensationOnlyInsideTheIntervalWindowAndBelowTheCutOff) {
  expectCompensation(0.01f, 3.0, true);
  expectCompensation(0.03f, 3.0, true);    // 0.029999999 in double: inside
  expectCompensation(0.005f, 3.0, false);  // 0.0049999999 in double: below
  expectCompensation(0.04f, 3.0, false);
  // 14 rad/s at 100 Hz: the gain about z passes 1.05 and no axis is scaled.
  expectCompensation(0.01f, 14.0, false);
  EXPECT_NEAR(published()[2], 14.0, 14.0 * 0.03);
}
}  // namespace
