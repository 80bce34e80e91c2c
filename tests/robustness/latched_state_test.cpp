// SPDX-License-Identifier: Apache-2.0
// What a non-finite sample leaves behind, and how a host clears it: the
// rotation vector forgets it after 35 calls, the calibration replaces a
// poisoned offset with its next refit, the orientation never lets it in,
// and the virtual gyroscope keeps it until the host restarts it.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QueltaAlgo.h"
#include "interface/compass.h"
#include "rotvec/rotation_vector.h"
#include "tools/sim/device_sim.h"
#include "vgyro/virtual_gyro.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kNaNs[3] = {kNaN, kNaN, kNaN};

bool finite(const float* v, int n) {
  for (int i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) return false;
  }
  return true;
}

// A device turning slowly about its z axis, flat, 50 sample sets a second.
quelta::sim::SensorSample turning(quelta::sim::Device& device, int i, double radPerCall = 0.01) {
  return device.read(quelta::sim::quatFromAxisAngle({0.0, 0.0, 1.0}, i * radPerCall));
}

TEST(LatchedState, RotationVectorForgetsANaNSampleAfter35Calls) {
  quelta::OwnedRotationVector rv;
  quelta::sim::Device device;
  int nonFinite = 0;
  for (int i = 0; i < 120; ++i) {
    quelta::sim::SensorSample s = turning(device, i);
    if (i == 40) s.mag[0] = kNaN;
    rv.fusion.update(s.mag, s.acc, 0);
    if (!finite(rv.rov, 4) || !finite(rv.gravity, 3)) {
      EXPECT_EQ(i, 40 + nonFinite++) << "non-finite calls must be consecutive";
    }
  }
  // 30 calls in the sample mean, then five more means in the mean of six.
  EXPECT_TRUE(nonFinite == 35 && finite(rv.linear, 3)) << nonFinite;
}

TEST(LatchedState, VirtualGyroscopeKeepsANaNUntilRestartedUnlessRotating) {
  // Still when the NaN comes: the pipeline stays in the still mode, publishing
  // noise, and its attitude stays NaN until one restart clears it. Rotating:
  // the NaN rate is published and the next call restarts, which clears a
  // single bad sample; a longer burst is taken again in the still mode.
  for (int burst : {0, 1, 4}) {
    SCOPED_TRACE(burst);
    quelta::StandaloneVirtualGyro gyro;
    quelta::sim::Device device;
    float rate[3], attitude[4];
    const double before = burst == 0 ? 0.0 : 0.05;  // rad per call
    int i = 0;
    for (; i < 100; ++i) {
      const quelta::sim::SensorSample s = turning(device, i, before);
      gyro.gyro.process(s.mag, s.acc, 0, 5, 0.02f);
    }
    gyro.gyro.copyRate(rate);
    ASSERT_EQ(std::fabs(rate[2]) > 1.0f, burst != 0);
    for (int k = 0; k < (burst == 0 ? 1 : burst); ++k, ++i) gyro.gyro.process(kNaNs, kNaNs, 0, 5, 0.02f);
    int finiteCalls = 0;
    bool rotating = false;
    for (int k = 0; k < 300; ++k, ++i) {
      const quelta::sim::SensorSample s = turning(device, i, 0.05);  // 2.5 rad/s
      gyro.gyro.process(s.mag, s.acc, burst == 0 && k == 200 ? 1 : 0, 5, 0.02f);
      gyro.gyro.copyRate(rate);
      gyro.gyro.copyAttitude(attitude);
      finiteCalls += finite(attitude, 4);
      if (burst == 0 && k < 200) ASSERT_LE(std::fabs(rate[2]), 0.005f);
      rotating = rotating || std::fabs(rate[2]) > 1.0f;
    }
    // After the restart at call 200 everything is finite again; rotating, one NaN is published.
    EXPECT_EQ(finiteCalls, burst == 0 ? 100 : burst == 1 ? 299 : 0);
    EXPECT_EQ(rotating, burst != 4);
  }
}

TEST(LatchedState, PoisonedStoredCalibrationIsReplacedByTheNextRefit) {
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float corrupt[4] = {kNaN, 0.1f, 0.1f, 0.5f};
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thd[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8};
  AlgoInitial(axis, corrupt, pool, thd, paraC, nullptr);
  ASSERT_EQ(GetMagAccuracy(), 3);  // a NaN offset counts as a stored calibration
  quelta::sim::Device device;
  int finiteFrom = -1;
  for (int i = 0; i < 200 && finiteFrom < 0; ++i) {
    const quelta::sim::SensorSample s = device.read(quelta::sim::attitudeFromHeadingPitchRoll(i * 37.0, i * 11.0, i * 5.0));
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 5);
    float cal[3];
    GetCalMag(cal);
    if (finite(cal, 3)) finiteFrom = i;
    EXPECT_EQ(GetMagAccuracy(), 3);  // the quality watch takes a NaN ratio as in range
  }
  // The refinement pool fills with 32 spaced samples and its refit replaces the offset.
  EXPECT_TRUE(finiteFrom >= 32 && finiteFrom <= 80) << finiteFrom;
  float offset[3];
  GetOffset(offset);
  const float truth[3] = {0.12f, -0.25f, 0.08f};
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(offset[k], truth[k], 0.02f);
}

TEST(LatchedState, OrientationKeepsNaNSamplesOutOfItsState) {
  // The heading filter feeds its output back, so a NaN reaching it would pin
  // the azimuth to North for good: means that include a bad sample give no
  // angle, and the matrix is kept.
  quelta::sim::Device device;
  for (int i = 0; i < 300; ++i) {
    quelta::sim::SensorSample s = turning(device, i);
    if (i % 50 == 10) s.mag[0] = s.mag[1] = s.mag[2] = kNaN;
    if (i % 50 == 30) s.acc[0] = std::numeric_limits<float>::infinity();
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 5);
    float out[3];
    GetCalMag(out);
    GetCalOri(out);
    ASSERT_TRUE(finite(out, 3)) << i;
  }
  const quelta::Orientation& o = quelta::defaultCompass().orientation();
  EXPECT_TRUE(finite(&o.matrix()[0][0], 9) && o.smoother().filterFinite());
}

}  // namespace
