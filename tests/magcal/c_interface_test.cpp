// The calibration as a host sees it: the exported functions on the
// process-wide instance (each test runs in a fresh process).
#include <climits>
#include <cmath>

#include <gtest/gtest.h>

#include "QueltaAlgo.h"
#include "magcal_fixtures.h"

using namespace magcal_test;
using quelta::defaultCalibrator;

namespace {

const float kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kPool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
const float kThd[3] = {0.1f, 2e-5f, 2e-4f};
const int32_t kParaC[3] = {20, 11, 8};
const quelta::CalibrationState& state = defaultCalibrator().state;

void initWith(float x, float y, float z, float radius, LogCallback cb = captureLog) {
  const float stored[4] = {x, y, z, radius};
  lines().clear();
  EXPECT_EQ(AlgoInitial(kIdentity, stored, kPool, kThd, kParaC, cb), 1);
}

}  // namespace

TEST(CInterface, DefaultsBeforeAnySetUp) {
  EXPECT_EQ(state.config.iFullCalCount, 32);
  EXPECT_EQ(state.config.iSampleRate, 50);
  EXPECT_EQ(log_func, nullptr);
  EXPECT_EQ(GetMagAccuracy(), 0);
  float out[7] = {9, 9, 9, 9, 9, 9, 9};
  GetRawMag(out);  // nothing calibrated yet: the offset itself
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(GetCalPara(out), 0);
  const float expected[7] = {0, 0, 0, 0.5f, 0, 0, 0};
  for (int k = 0; k < 7; ++k) EXPECT_EQ(out[k], expected[k]);
}

TEST(CInterface, AlgoInitialAdoptsAStoredCalibrationAndConvertsTheConfiguration) {
  const float stored[4] = {0.12f, -0.25f, 0.08f, 0.48f};
  const float pool[8] = {6.9f, NAN, 31.99f, 0.05f, 0.07f, 0.8f, 1.2f, 1.3f};
  const float axes[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
  const int32_t paraC[3] = {30, 9, 4};
  EXPECT_EQ(AlgoInitial(axes, stored, pool, kThd, paraC, captureLog), 1);
  EXPECT_EQ(GetMagAccuracy(), 3);
  EXPECT_EQ(state.dSavedOffset[1], -0.25f);
  EXPECT_EQ(state.dSavedRadius, 0.48f);
  EXPECT_EQ(state.config.dMagAxisMatrix[1][0], -1.0f);
  EXPECT_EQ(state.config.iMinCalCount, 6);
  EXPECT_EQ(state.config.iMidCalCount, 0);
  EXPECT_EQ(state.config.iFullCalCount, 31);
  EXPECT_EQ(state.config.dMaxDist, 1.3f);
  EXPECT_EQ(state.config.iSampleRate, 33);
  const std::vector<std::string> expected = {"TRVQX4e_2020103 iMagAccuracy in initial 3\n",
                                             "TRVQX4e20171117 paraC[1]= 9 paraC[2]= 4 \n"};
  EXPECT_EQ(lines(), expected);
  float mag[3];
  EXPECT_EQ(GetCalMag(mag), 0);
  EXPECT_EQ(mag[1], 0.25f);  // no sample yet: the negated offset

  // Counts saturate; periods divide toward zero; a null callback silences.
  const float extreme[8] = {1e10f, -1e10f, -0.9f, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  for (int32_t period : {0, -20, -1, 2000}) {
    const int32_t c[3] = {period, 11, 8};
    AlgoInitial(kIdentity, stored, extreme, kThd, c, nullptr);
    EXPECT_EQ(state.config.iSampleRate, period == 0 ? 0 : 1000 / period);
  }
  EXPECT_EQ(state.config.iMinCalCount, INT_MAX);
  EXPECT_EQ(state.config.iMidCalCount, INT_MIN);
  EXPECT_EQ(state.config.iFullCalCount, 0);
  EXPECT_EQ(log_func, nullptr);
  initWith(0.0f, 0.0f, 0.001f, 0.0f);  // any non-zero component; radius as given
  EXPECT_EQ(GetMagAccuracy(), 3);
  EXPECT_EQ(state.dSphereRadius, 0.0f);
}

TEST(CInterface, ZeroStoredOffsetDropsTheGradeButKeepsTheRun) {
  initWith(0.12f, -0.25f, 0.08f, 0.48f);
  const float mag[3] = {0.3f, 0.1f, 0.2f};
  for (int i = 0; i < 3; ++i) MainAlgorithmProcess(kUp, mag, mag, 0, 2);
  ASSERT_EQ(state.iCalBufferCount, 1);
  initWith(-0.0f, 0.0f, 0.0f, 0.7f);
  EXPECT_EQ(GetMagAccuracy(), 0);
  float out[3];
  EXPECT_EQ(GetOffset(out), 1);
  EXPECT_EQ(out[0], 0.12f);
  EXPECT_EQ(state.dSphereRadius, 0.48f);
  EXPECT_EQ(state.iCalBufferCount, 1);
  EXPECT_EQ(lines()[0], "TRVQX4e_2020103 iMagAccuracy in initial 0\n");
}

TEST(CInterface, AccessorsAndTheirLines) {
  initWith(0.5f, -0.25f, 0.125f, 0.5f);
  const float mag[3] = {0.4544f, 0.25f, 0.125f};  // calibrated x: -0.0456
  float out[7];
  for (int mode : {0, 2, -1, 1}) {
    lines().clear();
    MainAlgorithmProcess(kUp, mag, mag, 0, mode);
    EXPECT_EQ(GetCalMag(out), 1);
    ASSERT_EQ(lines().size(), mode == 1 ? 3u : 1u) << mode;
    EXPECT_EQ(lines().back(), "TRVQX4e20180206 calimag -45 500 0\n");
  }
  EXPECT_EQ(lines()[0], "TRVQX4e20180725 dSphereOffset 0.500000 -0.250000 0.125000\n");
  EXPECT_EQ(lines()[1], "TRVQX4e20180725 dCalMagdata -0.045600 0.500000 0.000000\n");
  EXPECT_EQ(out[0], 0.4544f - 0.5f);

  defaultCalibrator().state.dSphereOffset[1] = 0.0f;
  GetRawMag(out);  // the stored calibrated field plus the offset in force now
  EXPECT_EQ(out[1], 0.5f);
  EXPECT_EQ(out[0], (0.4544f - 0.5f) + 0.5f);

  lines().clear();
  defaultCalibrator().state.bNewCalPara = 1;
  defaultCalibrator().state.dMagInclination = 60.0f;
  EXPECT_EQ(GetCalPara(out), 1);
  EXPECT_EQ(GetCalPara(out), 0);
  EXPECT_EQ(out[6], 60.0f);
  EXPECT_EQ(lines()[0], "TRVQX4e20180206 dSphereOffset 500 0 125\n");
  defaultCalibrator().state.bMagSaturation = 1;
  EXPECT_EQ(GetMagSaturation(), 1);
  EXPECT_EQ(GetMagSaturation(), 0);
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
    float cal[3], para[7];
    GetCalMag(cal);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(cal[k], s.mag[k] - state.dSphereOffset[k]);
    if (GetCalPara(para) == 1) {
      ++newParameters;
      EXPECT_NEAR(para[0], 0.12, 0.003);
      EXPECT_NEAR(para[1], -0.25, 0.003);
      EXPECT_NEAR(para[2], 0.08, 0.003);
      EXPECT_NEAR(para[3], 0.5, 0.003);
    }
    if (firstFull < 0 && GetMagAccuracy() == 3) firstFull = i;
  }
  EXPECT_EQ(GetMagAccuracy(), 3);
  EXPECT_GE(newParameters, 2);  // the full fit, then refits of fresh pools
  EXPECT_GE(firstFull, 32);
  EXPECT_LT(firstFull, 200);
  EXPECT_EQ(GetMagSaturation(), 0);
}
