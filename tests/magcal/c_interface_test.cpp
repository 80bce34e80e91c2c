// SPDX-License-Identifier: Apache-2.0
// The calibration as a host sees it: the exported functions on the
// process-wide instance (each test runs in a fresh process), and the
// unpacking of AlgoInitial's arrays.
#include <climits>
#include <cmath>

#include <gtest/gtest.h>

#include "QueltaAlgo.h"
#include "interface/compass.h"
#include "magcal_fixtures.h"

using namespace magcal_test;

namespace {

const float kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kPool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
const float kThd[3] = {0.1f, 2e-5f, 2e-4f};
const int32_t kParaC[3] = {20, 11, 8};
const quelta::Calibrator& cal = quelta::defaultCompass().calibrator();

void initWith(float x, float y, float z, float radius, LogCallback cb = quelta::test::captureLine) {
  const float stored[4] = {x, y, z, radius};
  capturedLines().clear();
  EXPECT_EQ(AlgoInitial(kIdentity, stored, kPool, kThd, kParaC, cb), 1);
}

}  // namespace

TEST(CInterface, DefaultsBeforeAnySetUp) {
  EXPECT_TRUE(cal.settings().fullPoolCount == 32 && cal.settings().sampleRate == 50 && log_func == nullptr);
  EXPECT_EQ(GetMagAccuracy(), 0);
  float out[7] = {9, 9, 9, 9, 9, 9, 9};
  GetRawMag(out);  // nothing calibrated yet: the offset itself
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(GetCalPara(out), 0);
  EXPECT_EQ(std::vector<float>(out, out + 7), (std::vector<float>{0, 0, 0, 0.5f, 0, 0, 0}));
}

TEST(CInterface, UnpackingConvertsTheHostArrays) {
  const float stored[4] = {0.12f, -0.25f, 0.08f, 0.48f};
  const float pool[8] = {6.9f, NAN, 31.99f, 0.05f, 0.07f, 0.8f, 1.2f, 1.3f};
  const float axes[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
  const int32_t paraC[3] = {30, 9, 4};
  const quelta::HostSetUp s = quelta::unpackHostSetUp(axes, stored, pool, kThd, paraC);
  EXPECT_TRUE(s.stored.offset[1] == -0.25f && s.stored.radius == 0.48f && s.intake.axisMatrix[1][0] == -1.0f);
  const quelta::CalibrationSettings& c = s.calibration;  // counts truncated, NaN as 0, rate 1000 / period
  EXPECT_EQ((std::vector<double>{double(c.minPoolCount), double(c.midPoolCount), double(c.fullPoolCount),
                                 c.minDistanceLate, c.maxDistance, c.accStillVariance, double(c.sampleRate)}),
            (std::vector<double>{6, 0, 31, 0.07f, 1.3f, 2e-4f, 33}));
  EXPECT_TRUE(s.orientation.medianWindow == 9 && s.orientation.meanWindow == 4);
  // Counts saturate; periods divide toward zero.
  const float extreme[8] = {1e10f, -1e10f, -0.9f, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  for (int32_t period : {0, -20, -1, 2000}) {
    const int32_t periods[3] = {period, 11, 8};
    const quelta::HostSetUp e = quelta::unpackHostSetUp(kIdentity, stored, extreme, kThd, periods);
    EXPECT_EQ(e.calibration.sampleRate, period == 0 ? 0 : 1000 / period);
    EXPECT_TRUE(e.calibration.minPoolCount == INT_MAX && e.calibration.midPoolCount == INT_MIN &&
                e.calibration.fullPoolCount == 0);
  }
}

TEST(CInterface, AlgoInitialAdoptsAStoredCalibration) {
  initWith(0.12f, -0.25f, 0.08f, 0.48f);
  EXPECT_EQ(GetMagAccuracy(), 3);
  EXPECT_EQ(capturedLines().size(), 2u);  // the accuracy and the window lengths
  float mag[3];
  EXPECT_EQ(GetCalMag(mag), 0);
  EXPECT_EQ(mag[1], 0.25f);  // no sample yet: the negated offset

  // A zero stored offset (-0 too) drops the grade but keeps the run: offset, radius and pool.
  for (int i = 0; i < 3; ++i) MainAlgorithmProcess(kUp, kUp, kUp, 0, 2);
  ASSERT_EQ(cal.pool().count(), 1);
  initWith(-0.0f, 0.0f, 0.0f, 0.7f, nullptr);
  EXPECT_EQ(GetMagAccuracy(), 0);
  EXPECT_EQ(GetOffset(mag), 1);
  EXPECT_TRUE(mag[0] == 0.12f && cal.radius() == 0.48f && cal.pool().count() == 1 && log_func == nullptr);
  initWith(0.0f, 0.0f, 0.001f, 0.0f);  // any non-zero component; radius as given
  EXPECT_TRUE(GetMagAccuracy() == 3 && cal.radius() == 0.0f);
}

TEST(CInterface, AccessorsReadTheFieldAsGetCalMagLeftIt) {
  initWith(0.5f, -0.25f, 0.125f, 0.5f);
  const float mag[3] = {0.4544f, 0.25f, 0.125f};  // calibrated x: -0.0456
  float out[7];
  for (int mode : {0, 2, -1, 1}) {
    capturedLines().clear();
    MainAlgorithmProcess(kUp, mag, mag, 0, mode);
    EXPECT_EQ(GetCalMag(out), 1);
    ASSERT_EQ(capturedLines().size(), mode == 1 ? 3u : 1u) << mode;  // log mode 1 adds the detail lines
  }
  EXPECT_EQ(out[0], 0.4544f - 0.5f);

  // The next sample set moves the field, but GetRawMag still reads the one
  // GetCalMag calibrated last.
  const float moved[3] = {0.0f, 0.0f, 0.0f};
  MainAlgorithmProcess(kUp, moved, moved, 0, 0);
  GetRawMag(out);
  EXPECT_TRUE(out[1] == 0.25f && out[0] == (0.4544f - 0.5f) + 0.5f);

  EXPECT_EQ(GetCalPara(out), 0);
  EXPECT_EQ(out[3], 0.5f);
  EXPECT_TRUE(GetMagSaturation() == 0);
}

TEST(CInterface, SimulatedDeviceReachesFullAccuracyAndRecoversTheHardIron) {
  initWith(0.0f, 0.0f, 0.0f, 0.0f, nullptr);
  quelta::sim::Device device;  // hard iron (0.12, -0.25, 0.08), field 0.5, +-2 mG noise
  quelta::sim::Random turns(99);
  int newParameters = 0, firstFull = -1;
  for (int i = 0; i < 3000; ++i) {
    const quelta::sim::SensorSample s = device.read(quelta::sim::attitudeFromHeadingPitchRoll(
        turns.uniform(0.0, 360.0), turns.uniform(-180.0, 180.0), turns.uniform(-90.0, 90.0)));
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 2);
    float para[7];
    if (GetCalPara(para) == 1) {
      ++newParameters;
      const double truth[4] = {0.12, -0.25, 0.08, 0.5};
      for (int k = 0; k < 4; ++k) EXPECT_NEAR(para[k], truth[k], 0.003) << k;
    }
    if (firstFull < 0 && GetMagAccuracy() == 3) firstFull = i;
  }
  EXPECT_EQ(GetMagAccuracy(), 3);
  EXPECT_GE(newParameters, 2);  // the full fit, then refits of fresh pools
  EXPECT_TRUE(firstFull >= 32 && firstFull < 200) << firstFull;
  EXPECT_EQ(GetMagSaturation(), 0);
}
