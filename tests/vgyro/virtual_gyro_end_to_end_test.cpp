// The virtual gyroscope on a simulated device with known truth.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "tests/vgyro/spinning_device.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::sim::Quat;
using quelta::sim::Vec3;
using quelta::test::SpinningDevice;

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

// Runs a spin and checks every published rate from sample `settled` on.
void expectSpinMeasured(Vec3 axis, double rate, Quat start) {
  SpinningDevice spin(start, axis, rate, 0.0005);
  quelta::StandaloneVirtualGyro gyro;
  const int settled = 100;
  for (int i = 0; i < 400; ++i) {
    const quelta::sim::SensorSample s = spin.read(i);
    gyro.gyro.process(s.mag, s.acc, 0, -1, 0.01f);
    if (i < settled) continue;
    float w[3];
    gyro.gyro.calGyr(w);
    const double ex = w[0] - rate * axis.x, ey = w[1] - rate * axis.y, ez = w[2] - rate * axis.z;
    const double err = std::sqrt(ex * ex + ey * ey + ez * ez) / rate;
    ASSERT_LE(err, 0.02) << "sample " << i << " rate " << rate << " published " << w[0] << " "
                         << w[1] << " " << w[2];
  }
}

TEST(VirtualGyroEndToEnd, ConstantSpinAboutZIsMeasuredWithinTwoPercent) {
  const Quat start = quelta::sim::attitudeFromHeadingPitchRoll(30.0, 10.0, -5.0);
  for (double rate : {1.0, 3.0, 6.0}) expectSpinMeasured({0.0, 0.0, 1.0}, rate, start);
  expectSpinMeasured({0.0, 0.0, -1.0}, 3.0, start);  // clockwise: negative z
}

TEST(VirtualGyroEndToEnd, ConstantSpinAboutATiltedAxisIsMeasuredWithinTwoPercent) {
  const Quat start = quelta::sim::attitudeFromHeadingPitchRoll(200.0, -20.0, 15.0);
  expectSpinMeasured({1.0 / 3.0, 2.0 / 3.0, 2.0 / 3.0}, 3.0, start);
  expectSpinMeasured({0.6, 0.0, -0.8}, 1.0, start);
}

TEST(VirtualGyroEndToEnd, DeviceAtRestPublishesOnlySmallNoiseAndItsAttitude) {
  for (const Quat& attitude : {quelta::sim::attitudeFromHeadingPitchRoll(0.0, 0.0, 0.0),
                               quelta::sim::attitudeFromHeadingPitchRoll(123.0, 35.0, -40.0),
                               quelta::sim::attitudeFromHeadingPitchRoll(290.0, -70.0, 10.0)}) {
    SpinningDevice still(attitude, {0.0, 0.0, 1.0}, 0.0, 0.0005);
    quelta::StandaloneVirtualGyro gyro;
    for (int i = 0; i < 500; ++i) {
      const quelta::sim::SensorSample s = still.read(i);
      gyro.gyro.process(s.mag, s.acc, 0, -1, 0.01f);
      float w[3];
      gyro.gyro.calGyr(w);
      for (float c : w) ASSERT_LE(std::fabs(c), 0.005f) << "sample " << i;
      if (i >= 50) {
        float q[4];
        gyro.gyro.rotVecInVG(q);
        ASSERT_LT(quelta::test::angleBetween(q, attitude), 0.5 * kDegToRad) << "sample " << i;
      }
    }
  }
}

TEST(VirtualGyroEndToEnd, AttitudeFollowsTheDeviceThroughATurnAndSettles) {
  const Quat start = quelta::sim::attitudeFromHeadingPitchRoll(45.0, 20.0, 0.0);
  SpinningDevice spin(start, {0.0, 0.0, 1.0}, 2.0, 0.0005);
  float q[4];
  for (int i = 0; i < 150; ++i) {  // 3 rad in 1.5 s
    const quelta::sim::SensorSample s = spin.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.01f);
    GetRotVec_InVG(q);
    if (i >= 50) {
      // The smoothing delays the attitude by about ten samples.
      ASSERT_LT(quelta::test::angleBetween(q, spin.attitude(i)), 2.0 * 0.01 * 15) << i;
    }
  }
  const Quat end = spin.attitude(150);
  SpinningDevice rest(end, {0.0, 0.0, 1.0}, 0.0, 0.0005);
  for (int i = 0; i < 100; ++i) {
    const quelta::sim::SensorSample s = rest.read(i);
    CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.01f);
  }
  GetRotVec_InVG(q);
  EXPECT_LT(quelta::test::angleBetween(q, end), 0.5 * kDegToRad);
  float w[3];
  GetCalGyr(w);
  for (float c : w) EXPECT_LE(std::fabs(c), 0.005f);
}

}  // namespace
