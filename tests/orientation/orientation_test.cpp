// The orientation on hand-filled calibration states: which sample it uses,
// the gravity preset, the matrix guard, pitch and roll signs, levelling and
// the field geometry.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "orientation/azimuth_smoother.h"
#include "orientation/orientation.h"
#include "tools/sim/device_sim.h"

namespace quelta {
namespace {

using sim::Quat;
using sim::Vec3;

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

void set3(float* dst, float x, float y, float z) {
  dst[0] = x;
  dst[1] = y;
  dst[2] = z;
}

// A device held still: every history entry and the latest sample hold the
// same acceleration and field, the offset is known and the accelerometer
// variances are small but present.
CalibrationState stillState(const float* acc, const float* rawMag, const float* offset) {
  CalibrationState cal;
  for (int k = 0; k < History30::kLength; ++k) {
    cal.dAccHistory.store(k, acc);
    cal.dMagHistory.store(k, rawMag);
  }
  cal.iHistoryCount = 30;
  for (int i = 0; i < 3; ++i) {
    cal.dAccData[i] = acc[i];
    cal.dMagdata[i] = rawMag[i];
    cal.dSphereOffset[i] = offset[i];
    cal.dCalMagdata[i] = rawMag[i] - offset[i];
    cal.dAccVariance[i] = 1e-6f;
  }
  return cal;
}

// Attitudes in the library's angle conventions: pitch positive when the top
// edge (device y) dips, roll positive when the right edge (device x) rises,
// heading clockwise from North. One tilt axis at a time.
Quat attitude(double headingDeg, double pitchDeg, double rollDeg) {
  const Quat heading = sim::quatFromAxisAngle({0.0, 0.0, -1.0}, headingDeg * kDegToRad);
  const Quat pitch = sim::quatFromAxisAngle({1.0, 0.0, 0.0}, -pitchDeg * kDegToRad);
  const Quat roll = sim::quatFromAxisAngle({0.0, 1.0, 0.0}, -rollDeg * kDegToRad);
  return sim::quatMultiply(sim::quatMultiply(heading, pitch), roll);
}

CalibrationState stillStateAt(const Quat& q) {
  sim::Device device;
  device.magNoiseGauss = 0.0;
  const sim::SensorSample s = device.read(q);
  const float offset[3] = {static_cast<float>(device.hardIron.x),
                           static_cast<float>(device.hardIron.y),
                           static_cast<float>(device.hardIron.z)};
  return stillState(s.acc, s.mag, offset);
}

TEST(Orientation, NoiseFreeStillDeviceReportsItsAttitude) {
  struct Case {
    double heading, pitch, roll;
  };
  const Case cases[] = {{100, 0, 0},  {30, 0, 0},   {200, 40, 0}, {300, -60, 0},
                        {60, 0, 45},  {150, 0, -45}, {10, 20, 0},  {250, 0, 15}};
  for (const Case& c : cases) {
    CalibrationState cal = stillStateAt(attitude(c.heading, c.pitch, c.roll));
    Orientation ori;
    float out[3] = {};
    for (int call = 0; call < 30; ++call) ASSERT_EQ(ori.compute(cal, out), 1);
    const float corrected = AzimuthSmoother::sectorCorrection(static_cast<float>(c.heading));
    EXPECT_NEAR(out[0], corrected, 0.01f) << c.heading;
    EXPECT_NEAR(out[1], c.pitch, 1e-3) << c.heading;
    EXPECT_NEAR(out[2], c.roll, 1e-3) << c.heading;
    // Up column is gravity; East is horizontal, so it has no Up component.
    EXPECT_NEAR(ori.dOriMatrix[1][2], std::sin(-c.pitch * kDegToRad), 1e-6);
    const float eastDotUp = (ori.dOriMatrix[0][0] * ori.dOriMatrix[0][2] +
                             ori.dOriMatrix[1][0] * ori.dOriMatrix[1][2]) +
                            ori.dOriMatrix[2][0] * ori.dOriMatrix[2][2];
    EXPECT_NEAR(eastDotUp, 0.0f, 1e-6f);
  }
}

TEST(Orientation, DelayedSampleOnceTheHistoriesAreFull) {
  const float level[3] = {0.0f, 0.0f, 1.0f};
  const float noseDown30[3] = {0.0f, -0.5f, 0.8660254f};
  const float field[3] = {0.1f, 0.3f, -0.4f};
  const float offset[3] = {0.05f, -0.02f, 0.01f};
  CalibrationState cal = stillState(level, field, offset);
  cal.dAccHistory.store(20, noseDown30);
  // The latest sample is ignored once the histories are full.
  set3(cal.dAccData, 0.0f, 0.5f, 0.8660254f);
  set3(cal.dCalMagdata, 9.0f, 9.0f, 9.0f);

  Orientation ori;
  float out[3];
  ori.compute(cal, out);
  EXPECT_NEAR(out[1], 30.0f, 1e-4f);
  EXPECT_NEAR(out[2], 0.0f, 1e-6f);
  // The field comes from the same entry, minus the offset.
  float m[3], a[3];
  Orientation::currentVectors(cal, a, m);
  EXPECT_EQ(a[1], -0.5f);
  EXPECT_EQ(m[0], 0.1f - 0.05f);
  EXPECT_EQ(m[1], 0.3f - -0.02f);
  EXPECT_EQ(m[2], -0.4f - 0.01f);

  // One sample short of full: the latest sample itself.
  cal.iHistoryCount = 29;
  Orientation::currentVectors(cal, a, m);
  EXPECT_EQ(a[1], 0.5f);
  EXPECT_EQ(m[0], 9.0f);
  ori.compute(cal, out);
  EXPECT_NEAR(out[1], -30.0f, 1e-4f);
}

TEST(Orientation, GravityIsUpUntilVariancesExist) {
  const float tilted[3] = {0.3f, 0.4f, 0.8660254f};
  const float field[3] = {0.0f, 0.25f, -0.43f};
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  CalibrationState cal = stillState(tilted, field, zero);
  set3(cal.dAccVariance, 0.0f, 0.0f, 0.0f);
  Orientation ori;
  float out[3];
  ori.compute(cal, out);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 0.0f);
  EXPECT_EQ(ori.dOriMatrix[0][2], 0.0f);
  EXPECT_EQ(ori.dOriMatrix[1][2], 0.0f);
  EXPECT_EQ(ori.dOriMatrix[2][2], 1.0f);

  // A single non-zero variance is enough to use the measured acceleration.
  cal.dAccVariance[2] = 1e-9f;
  ori.compute(cal, out);
  EXPECT_NEAR(out[2], std::asin(0.3) / kDegToRad, 1e-4);
}

TEST(Orientation, FieldAlongGravityKeepsThePreviousMatrix) {
  const float up[3] = {0.0f, 0.0f, 1.0f};
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  const float pitched[3] = {0.0f, -0.5f, 0.8660254f};
  const float field[3] = {0.2f, 0.3f, -0.4f};
  CalibrationState good = stillState(pitched, field, zero);
  Orientation ori;
  float out[3];
  ori.compute(good, out);
  float before[3][3];
  std::memcpy(before, ori.dOriMatrix, sizeof before);
  const float pitchBefore = out[1];

  // Field straight down and straight up (the cosine clamped or exactly -1/1).
  const float down[3] = {0.0f, 0.0f, -0.5f};
  const float skyward[3] = {0.0f, 0.0f, 0.5f};
  for (const float* f : {down, skyward}) {
    CalibrationState degenerate = stillState(up, f, zero);
    const MeanAngle angle = Orientation::meanAngle(degenerate);
    EXPECT_EQ(angle.sinA, 0.0f);
    ori.compute(degenerate, out);
    EXPECT_EQ(std::memcmp(before, ori.dOriMatrix, sizeof before), 0);
    EXPECT_EQ(out[1], pitchBefore);
  }
  // The cosine of two unit vectors a hair apart can round past 1; it is
  // clamped to exactly 1 with a zero sine.
  CalibrationState nearly = stillState(up, up, zero);
  for (int k = 0; k < 30; ++k) set3(nearly.dMagHistory.at(k), 1e-4f, 0.0f, 0.9999999f);
  const MeanAngle angle = Orientation::meanAngle(nearly);
  EXPECT_LE(angle.cosA, 1.0f);
  EXPECT_FALSE(std::isnan(angle.sinA));
}

TEST(Orientation, PitchBeyondNinetyWhenTheScreenFacesDown) {
  Orientation ori;
  auto pitchWith = [&](float m12, float m22) {
    ori.dOriMatrix[1][2] = m12;
    ori.dOriMatrix[2][2] = m22;
    return ori.pitch();
  };
  const float raw30 = static_cast<float>(std::asin(-0.5)) * (-180.0f) / 3.1415927f;
  EXPECT_EQ(pitchWith(-0.5f, 0.8f), raw30);
  EXPECT_EQ(pitchWith(0.5f, 0.8f), -raw30);
  EXPECT_EQ(pitchWith(-0.5f, -0.8f), 180.0f - raw30);
  EXPECT_EQ(pitchWith(0.5f, -0.8f), -180.0f + raw30);
  EXPECT_NEAR(pitchWith(-0.5f, -0.8f), 150.0f, 1e-4f);
  EXPECT_EQ(pitchWith(0.0f, -1.0f), 0.0f);
  EXPECT_EQ(pitchWith(0.0f, 0.0f), 0.0f);
  EXPECT_FLOAT_EQ(pitchWith(-1.0f, 0.0f), 90.0f);
}

TEST(Orientation, FlatDeviceNeedsNoLevelling) {
  Orientation ori;
  float east, north;
  ori.levelledHeading(&east, &north);  // identity: y points North
  EXPECT_EQ(east, 0.0f);
  EXPECT_EQ(north, 1.0f);

  set3(ori.dOriMatrix[1], 0.6f, 0.8f, 0.3f);
  set3(ori.dOriMatrix[2], 2e-4f, 1e-4f, 0.99999997f);  // h^2 = 5e-8: flat
  ori.levelledHeading(&east, &north);
  EXPECT_EQ(east, 0.6f);
  EXPECT_EQ(north, 0.8f);

  // Tilted: the levelled y axis points where the horizontal part of row 1 does.
  const double t = 40.0 * kDegToRad;
  set3(ori.dOriMatrix[1], static_cast<float>(0.6 * std::cos(t)), static_cast<float>(0.8 * std::cos(t)),
       static_cast<float>(-std::sin(t)));
  set3(ori.dOriMatrix[2], static_cast<float>(0.6 * std::sin(t)), static_cast<float>(0.8 * std::sin(t)),
       static_cast<float>(std::cos(t)));
  ori.levelledHeading(&east, &north);
  EXPECT_NEAR(east, 0.6f, 1e-6f);
  EXPECT_NEAR(north, 0.8f, 1e-6f);
}

TEST(Orientation, RoundingPastOneIsClampedBeforeArcFunctions) {
  Orientation ori;
  set3(ori.dOriMatrix[0], 1.0000001f, 0.0f, -1.0000001f);
  set3(ori.dOriMatrix[1], 0.0f, 0.0f, 1.0000001f);
  set3(ori.dOriMatrix[2], 1e-3f, 0.0f, 1.0000001f);
  EXPECT_FLOAT_EQ(ori.pitch(), -90.0f);
  EXPECT_FLOAT_EQ(ori.roll(), -90.0f);
  float east, north;
  ori.levelledHeading(&east, &north);
  EXPECT_FALSE(std::isnan(east));
  EXPECT_FALSE(std::isnan(north));

  // In-range values keep their exact arc sine.
  ori.dOriMatrix[0][2] = 0.99999994f;
  EXPECT_EQ(ori.roll(), static_cast<float>(std::asin(static_cast<double>(0.99999994f))) * 180.0f / 3.1415927f);
}

TEST(Orientation, FieldGeometryWhileCalibratedAndStill) {
  // Mean field 120 degrees from the mean acceleration, radius 0.5.
  const float up[3] = {0.0f, 0.0f, 1.0f};
  const float offset[3] = {0.1f, 0.2f, -0.3f};
  const float field[3] = {0.1f, 0.2f + 0.4330127f, -0.3f - 0.25f};
  CalibrationState cal = stillState(up, field, offset);
  cal.iMagAccuracy = 3;
  cal.dSphereRadius = 0.5f;
  Orientation ori;
  float out[3];
  ori.compute(cal, out);
  EXPECT_NEAR(cal.dMagHorizontal, 0.4330127f, 2e-6f);
  EXPECT_NEAR(cal.dMagVertical, 0.25f, 2e-6f);
  EXPECT_NEAR(cal.dMagInclination, 30.0f, 1e-4f);

  // Exact for an exact cosine of -0.5.
  Orientation::updateFieldGeometry(cal, {-0.5f, std::sqrt(0.75f)});
  EXPECT_EQ(cal.dMagHorizontal, std::sqrt(0.75f) * 0.5f);
  EXPECT_EQ(cal.dMagVertical, 0.25f);
  EXPECT_EQ(cal.dMagInclination, static_cast<float>(std::asin(0.5) * 180.0 / 3.1415927410125732));

  // Not updated below accuracy 3, nor with a variance at the threshold.
  auto untouched = [](CalibrationState c) {
    c.dMagHorizontal = 7.0f;
    c.dMagVertical = 8.0f;
    c.dMagInclination = 9.0f;
    Orientation::updateFieldGeometry(c, {-0.5f, std::sqrt(0.75f)});
    return c.dMagHorizontal == 7.0f && c.dMagVertical == 8.0f && c.dMagInclination == 9.0f;
  };
  for (int accuracy : {0, 1, 2}) {
    CalibrationState c = cal;
    c.iMagAccuracy = accuracy;
    EXPECT_TRUE(untouched(c)) << accuracy;
  }
  for (int axis = 0; axis < 3; ++axis) {
    CalibrationState c = cal;
    c.dAccVariance[axis] = c.config.dAccStillThd;
    EXPECT_TRUE(untouched(c)) << axis;
  }
  // Zero variances (histories not yet full) count as still.
  CalibrationState c = cal;
  set3(c.dAccVariance, 0.0f, 0.0f, 0.0f);
  EXPECT_FALSE(untouched(c));
}

}  // namespace
}  // namespace quelta
