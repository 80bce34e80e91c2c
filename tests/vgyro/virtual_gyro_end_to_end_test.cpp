// The virtual gyroscope on a simulated device with known truth, and without
// a single heap allocation on any path.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <new>

#include "QueltaAlgo.h"
#include "tests/support/allocation_counter.h"
#include "tests/vgyro/spinning_device.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::sim::attitudeFromHeadingPitchRoll;
using quelta::sim::Quat;
using quelta::sim::Vec3;
using quelta::test::SpinningDevice;

constexpr double kHalfDegree = 0.5 * 3.14159265358979323846 / 180.0;

// Runs a spin and checks every published rate from sample 100 on.
void expectSpinMeasured(Vec3 axis, double rate, Quat start) {
  SpinningDevice spin(start, axis, rate, 0.0005);
  quelta::StandaloneVirtualGyro gyro;
  for (int i = 0; i < 400; ++i) {
    const quelta::sim::SensorSample s = spin.read(i);
    gyro.gyro.process(s.mag, s.acc, 0, -1, 0.01f);
    float w[3];
    gyro.gyro.calGyr(w);
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
      const quelta::sim::SensorSample s = still.read(i);
      gyro.gyro.process(s.mag, s.acc, 0, -1, 0.01f);
      float w[3], q[4];
      gyro.gyro.calGyr(w);
      gyro.gyro.rotVecInVG(q);
      for (float c : w) ASSERT_LE(std::fabs(c), 0.005f) << "sample " << i;
      ASSERT_TRUE(i < 50 || quelta::test::angleBetween(q, attitude) < kHalfDegree) << "sample " << i;
    }
  }
}

TEST(VirtualGyroEndToEnd, AttitudeFollowsTheDeviceThroughATurnAndSettles) {
  SpinningDevice spin(attitudeFromHeadingPitchRoll(45.0, 20.0, 0.0), {0.0, 0.0, 1.0}, 2.0, 0.0005);
  float q[4], w[3];
  for (int i = 0; i < 150; ++i) {  // 3 rad in 1.5 s; the smoothing delays the attitude by about ten samples
    const quelta::sim::SensorSample s = spin.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.01f);
    GetRotVec_InVG(q);
    ASSERT_TRUE(i < 50 || quelta::test::angleBetween(q, spin.attitude(i)) < 2.0 * 0.01 * 15) << i;
  }
  SpinningDevice rest(spin.attitude(150), {0.0, 0.0, 1.0}, 0.0, 0.0005);
  for (int i = 0; i < 100; ++i) {
    const quelta::sim::SensorSample s = rest.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.01f);
  }
  GetRotVec_InVG(q);
  EXPECT_LT(quelta::test::angleBetween(q, spin.attitude(150)), kHalfDegree);
  GetCalGyr(w);
  for (float c : w) EXPECT_LE(std::fabs(c), 0.005f);
}

int gLines = 0;
int countLine(const char*, ...) { return ++gLines; }

TEST(VirtualGyroAllocation, SampleSetsAllocateNothing) {
  {  // The counter sees allocations at all (through volatile pointers, so none is elided).
    void* (*volatile allocate)(std::size_t) = std::malloc;
    void* (*volatile allocateObject)(std::size_t) = static_cast<void* (*)(std::size_t)>(&::operator new);
    quelta::test::AllocationCounter counter;
    std::free(allocate(32));
    ::operator delete(allocateObject(16));
    EXPECT_EQ(counter.count(), 2);
  }
  SpinningDevice device(attitudeFromHeadingPitchRoll(70.0, 10.0, 5.0), {0.0, 0.0, 1.0}, 3.0, 0.0005);
  quelta::sim::SensorSample samples[200];
  for (int i = 0; i < 200; ++i) samples[i] = device.read(i);
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  float out[4];
  quelta::StandaloneVirtualGyro own;
  RegisterLogCallback(countLine);
  quelta::test::AllocationCounter counter;
  for (int i = 0; i < 200; ++i) {  // set-up, an input error, a bad interval, a restart, logging, rotating
    const float* acc = i == 20 ? zero : samples[i].acc;
    const int32_t restart = i == 150 ? 1 : 0;
    const float ts = i == 30 ? 0.0f : 0.01f;
    CalcQueltaGyro(samples[i].mag, acc, restart, 1, ts);
    GetCalGyr(out);
    GetRotVec_InVG(out);
    own.gyro.process(samples[i].mag, acc, restart, 1, ts);
  }
  EXPECT_EQ(counter.count(), 0);
  EXPECT_GT(gLines, 400);
}

}  // namespace
