// SPDX-License-Identifier: Apache-2.0
// Through the C interface: a simulated device with a known hard-iron offset,
// handed over as a stored calibration, held still at known attitudes.
#include <gtest/gtest.h>

#include "QueltaAlgo.h"
#include "orientation/azimuth_smoother.h"
#include "tools/sim/device_sim.h"

namespace quelta {
namespace {

// The library's pitch is positive when the top edge (device y) dips, its roll
// positive when the right edge (x) rises: the simulator's angles negated.
sim::Quat attitude(double headingDeg, double pitchDeg, double rollDeg) {
  return sim::attitudeFromHeadingPitchRoll(headingDeg, -pitchDeg, -rollDeg);
}

TEST(OrientationEndToEnd, CalibratedDeviceHeldStillReportsItsAttitude) {
  sim::Device device;
  device.accNoiseG = 0.0005;
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float stored[4] = {static_cast<float>(device.hardIron.x), static_cast<float>(device.hardIron.y),
                           static_cast<float>(device.hardIron.z), 0.5f};
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thd[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8};
  ASSERT_EQ(AlgoInitial(axis, stored, pool, thd, paraC, nullptr), 1);

  const double tilts[][2] = {{0, 0}, {30, 0}, {60, 0}, {-30, 0}, {-60, 0}, {0, 20}, {0, 45}, {0, -20}, {0, -45}};
  for (double heading : {10.0, 100.0, 200.0, 300.0, 340.0}) {
    for (const auto& t : tilts) {
      float out[3] = {}, cal[3];
      for (int sample = 0; sample < 150; ++sample) {
        sim::SensorSample s = device.read(attitude(heading, t[0], t[1]));
        MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 2);
        GetCalMag(cal);
        ASSERT_EQ(GetCalOri(out), 1);
      }
      AzimuthSmoother::SectorEnds ends;
      const float expected = AzimuthSmoother::sectorCorrection(static_cast<float>(heading), ends);
      SCOPED_TRACE(testing::Message() << heading << " " << t[0] << " " << t[1]);
      EXPECT_NEAR(out[0], expected, 1.5f);
      EXPECT_NEAR(out[1], t[0], 0.1);
      EXPECT_NEAR(out[2], t[1], 0.1);
    }
  }
  EXPECT_EQ(GetMagAccuracy(), 3);
  // Still and calibrated: the field's geometry (0.5 gauss dipping 60 degrees).
  float para[7];
  GetCalPara(para);
  EXPECT_NEAR(para[4], 0.25f, 0.005f);
  EXPECT_NEAR(para[5], 0.433f, 0.005f);
  EXPECT_NEAR(para[6], 60.0f, 0.5f);
}

}  // namespace
}  // namespace quelta
