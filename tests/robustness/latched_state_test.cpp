// What a non-finite sample leaves behind, and how a host clears it: the
// rotation vector forgets it after 35 calls, the calibration replaces a
// poisoned offset with its next refit, the orientation never lets it in,
// and the virtual gyroscope keeps it until the host restarts it.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QueltaAlgo.h"
#include "orientation/azimuth_smoother.h"
#include "orientation/orientation.h"
#include "rotvec/rotation_vector.h"
#include "tools/sim/device_sim.h"
#include "vgyro/virtual_gyro.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

bool finite(const float* v, int n) {
  for (int i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) return false;
  }
  return true;
}

// A device turning slowly about its z axis, flat, 50 sample sets a second.
quelta::sim::SensorSample turning(quelta::sim::Device& device, int i, double radPerCall = 0.01) {
  const quelta::sim::Quat q = quelta::sim::quatFromAxisAngle({0.0, 0.0, 1.0}, i * radPerCall);
  return device.read(q);
}

TEST(LatchedState, RotationVectorForgetsANaNSampleAfter35Calls) {
  quelta::OwnedRotationVector rv;
  quelta::sim::Device device;
  for (int i = 0; i < 40; ++i) {
    const quelta::sim::SensorSample s = turning(device, i);
    rv.fusion.update(s.mag, s.acc, 0);
  }
  const float nanMag[3] = {kNaN, 0.2f, -0.4f};
  const float acc[3] = {0.0f, 0.0f, 1.0f};
  rv.fusion.update(nanMag, acc, 0);
  int nonFinite = 1;
  for (int i = 41; i < 120; ++i) {
    const quelta::sim::SensorSample s = turning(device, i);
    rv.fusion.update(s.mag, s.acc, 0);
    if (!finite(rv.rov, 4) || !finite(rv.gravity, 3)) {
      ++nonFinite;
      EXPECT_EQ(nonFinite, i - 39) << "non-finite calls must be consecutive";
    }
  }
  // 30 calls in the sample mean, then five more means in the mean of six.
  EXPECT_EQ(nonFinite, 35);
  EXPECT_TRUE(finite(rv.linear, 3));
}

TEST(LatchedState, VirtualGyroscopeKeepsANaNUntilRestarted) {
  quelta::StandaloneVirtualGyro gyro;
  quelta::sim::Device device;
  float rate[3], attitude[4];
  int i = 0;
  for (; i < 60; ++i) {  // at rest
    const quelta::sim::SensorSample s = turning(device, 0);
    gyro.gyro.process(s.mag, s.acc, 0, 5, 0.02f);
  }
  const float nanMag[3] = {kNaN, kNaN, kNaN};
  const float acc[3] = {0.0f, 0.0f, 1.0f};
  gyro.gyro.process(nanMag, acc, 0, 5, 0.02f);

  // Turning at 2.5 rad/s: the pipeline stays in the still mode, publishing
  // noise, and its attitude stays NaN.
  for (int k = 0; k < 500; ++k, ++i) {
    const quelta::sim::SensorSample s = turning(device, i, 0.05);
    gyro.gyro.process(s.mag, s.acc, 0, 5, 0.02f);
    gyro.gyro.calGyr(rate);
    gyro.gyro.rotVecInVG(attitude);
    ASSERT_LE(std::fabs(rate[2]), 0.005f);
    ASSERT_FALSE(finite(attitude, 4));
  }

  // One restart clears it: finite at once, rotating again soon after.
  bool rotating = false;
  for (int k = 0; k < 100; ++k, ++i) {
    const quelta::sim::SensorSample s = turning(device, i, 0.05);
    gyro.gyro.process(s.mag, s.acc, k == 0 ? 1 : 0, 5, 0.02f);
    gyro.gyro.calGyr(rate);
    gyro.gyro.rotVecInVG(attitude);
    ASSERT_TRUE(finite(rate, 3) && finite(attitude, 4));
    rotating = rotating || std::fabs(rate[2]) > 1.0f;
  }
  EXPECT_TRUE(rotating);
}

TEST(LatchedState, RotatingVirtualGyroscopeRestartsItselfAfterASingleNaN) {
  // Rotating: the NaN rate is published and the next call restarts. That
  // clears a single bad sample; during a longer burst the restarted pipeline
  // takes the NaN again in the still mode and keeps it.
  for (int burst : {1, 4}) {
    quelta::StandaloneVirtualGyro gyro;
    quelta::sim::Device device;
    float rate[3], attitude[4];
    int i = 0;
    for (; i < 100; ++i) {
      const quelta::sim::SensorSample s = turning(device, i, 0.05);
      gyro.gyro.process(s.mag, s.acc, 0, 5, 0.02f);
    }
    gyro.gyro.calGyr(rate);
    ASSERT_GT(std::fabs(rate[2]), 1.0f);  // rotating
    const float nanMag[3] = {kNaN, kNaN, kNaN};
    for (int k = 0; k < burst; ++k, ++i) gyro.gyro.process(nanMag, nanMag, 0, 5, 0.02f);
    int finiteCalls = 0;
    for (int k = 0; k < 200; ++k, ++i) {
      const quelta::sim::SensorSample s = turning(device, i, 0.05);
      gyro.gyro.process(s.mag, s.acc, 0, 5, 0.02f);
      gyro.gyro.rotVecInVG(attitude);
      finiteCalls += finite(attitude, 4) ? 1 : 0;
    }
    if (burst == 1) {
      EXPECT_GE(finiteCalls, 198);
    } else {
      EXPECT_EQ(finiteCalls, 0);
    }
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
    const quelta::sim::Quat q = quelta::sim::attitudeFromHeadingPitchRoll(i * 37.0, i * 11.0, i * 5.0);
    const quelta::sim::SensorSample s = device.read(q);
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 5);
    float cal[3];
    GetCalMag(cal);
    if (finite(cal, 3)) finiteFrom = i;
    EXPECT_EQ(GetMagAccuracy(), 3);  // the quality watch takes a NaN ratio as in range
  }
  // The refinement pool fills with 32 spaced samples and its refit replaces
  // the offset.
  ASSERT_GE(finiteFrom, 32);
  ASSERT_LE(finiteFrom, 80);
  float offset[3];
  GetOffset(offset);
  EXPECT_NEAR(offset[0], 0.12f, 0.02f);
  EXPECT_NEAR(offset[1], -0.25f, 0.02f);
  EXPECT_NEAR(offset[2], 0.08f, 0.02f);
}

TEST(LatchedState, OrientationKeepsNaNSamplesOutOfItsState) {
  quelta::sim::Device device;
  const float nanv[3] = {kNaN, kNaN, kNaN};
  const float inf[3] = {std::numeric_limits<float>::infinity(), 0.0f, 0.0f};
  for (int i = 0; i < 300; ++i) {
    quelta::sim::SensorSample s = turning(device, i);
    if (i % 50 == 10) {
      for (int k = 0; k < 3; ++k) s.mag[k] = nanv[k];
    }
    if (i % 50 == 30) {
      for (int k = 0; k < 3; ++k) s.acc[k] = inf[k];
    }
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 5);
    float out[3];
    GetCalMag(out);
    GetCalOri(out);
    ASSERT_TRUE(finite(out, 3)) << i;
  }
  // Means that include a bad sample give no angle, so the matrix is kept;
  // nothing non-finite reaches the heading filter.
  const quelta::Orientation& o = quelta::defaultOrientation();
  EXPECT_TRUE(finite(&o.dOriMatrix[0][0], 9));
  EXPECT_TRUE(finite(o.smoother.dAziLpfOut, 2));
}

TEST(LatchedState, AzimuthFilterWouldHoldANaNHeadingForGood) {
  // The heading filter feeds its output back: a NaN heading, were one to
  // reach it, would pin the reported azimuth to North (a NaN angle lies in no
  // sector) until the library is reloaded. GetCalOri never hands it one
  // (previous test).
  quelta::AzimuthSmoother smoother;
  for (int i = 0; i < 30; ++i) smoother.smooth(0.5f, 0.8660254f, 11, 8);  // 30 degrees
  smoother.smooth(kNaN, kNaN, 11, 8);
  for (int i = 0; i < 20; ++i) smoother.smooth(-1.0f, 0.0f, 11, 8);  // 270 degrees
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(smoother.smooth(-1.0f, 0.0f, 11, 8), 0.0f);
  }
  EXPECT_TRUE(std::isnan(smoother.dAziLpfOut[0]));
}

}  // namespace
