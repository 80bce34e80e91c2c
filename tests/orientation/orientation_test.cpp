// The orientation on hand-filled calibration states: which sample it follows,
// the gravity preset, the matrix guard, pitch past 90, levelling, clamping
// and the field geometry.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "orientation/orientation.h"

namespace quelta {
namespace {

void set3(float* dst, float x, float y, float z) { dst[0] = x, dst[1] = y, dst[2] = z; }

// Still device: all history entries and the latest sample agree, the
// accelerometer variances are small but present.
CalibrationState stillState(const float* acc, const float* rawMag, const float* offset) {
  CalibrationState cal;
  for (int k = 0; k < History30::kLength; ++k) {
    cal.dAccHistory.store(k, acc);
    cal.dMagHistory.store(k, rawMag);
  }
  cal.iHistoryCount = 30;
  for (int i = 0; i < 3; ++i) {
    cal.dAccData[i] = acc[i];
    cal.dSphereOffset[i] = offset[i];
    cal.dCalMagdata[i] = rawMag[i] - offset[i];
    cal.dAccVariance[i] = 1e-6f;
  }
  return cal;
}

const float kUp[3] = {0.0f, 0.0f, 1.0f};
const float kZero[3] = {0.0f, 0.0f, 0.0f};
const float kField[3] = {0.1f, 0.3f, -0.4f};
const float kNoseDown30[3] = {0.0f, -0.5f, 0.8660254f};

TEST(Orientation, FollowsTheDelayedSampleOnceTheHistoriesAreFullAndGravityIsUpUntilVariancesExist) {
  const float offset[3] = {0.05f, -0.02f, 0.01f};
  CalibrationState cal = stillState(kUp, kField, offset);
  cal.dAccHistory.store(20, kNoseDown30);
  set3(cal.dAccData, 0.0f, 0.5f, 0.8660254f);
  set3(cal.dCalMagdata, 9.0f, 9.0f, 9.0f);
  Orientation ori;
  float out[3], a[3], m[3];
  ori.compute(cal, out);
  Orientation::currentVectors(cal, a, m);
  EXPECT_NEAR(out[1], 30.0f, 1e-4f);
  EXPECT_EQ(m[1], 0.3f - -0.02f);  // history field minus the offset
  cal.iHistoryCount = 29;  // one sample short of full: the latest sample
  ori.compute(cal, out);
  Orientation::currentVectors(cal, a, m);
  EXPECT_TRUE(std::fabs(out[1] + 30.0f) < 1e-4f && m[0] == 9.0f);

  const float tilted[3] = {0.3f, 0.4f, 0.8660254f};
  CalibrationState fresh = stillState(tilted, kField, kZero);
  set3(fresh.dAccVariance, 0.0f, 0.0f, 0.0f);
  ori.compute(fresh, out);
  EXPECT_TRUE(out[1] == 0.0f && out[2] == 0.0f);
  fresh.dAccVariance[2] = 1e-9f;  // one variance is enough
  ori.compute(fresh, out);
  EXPECT_NEAR(out[2], std::asin(0.3) * 180.0 / 3.14159265358979323846, 1e-4);
}

TEST(Orientation, FieldAlongGravityKeepsThePreviousMatrix) {
  CalibrationState good = stillState(kNoseDown30, kField, kZero);
  Orientation ori;
  float out[3];
  ori.compute(good, out);
  const Orientation before = ori;
  const float down[3] = {0.0f, 0.0f, -0.5f}, skyward[3] = {0.0f, 0.0f, 0.5f};
  for (const float* f : {down, skyward}) {
    CalibrationState degenerate = stillState(kUp, f, kZero);
    EXPECT_EQ(Orientation::meanAngle(degenerate).sinA, 0.0f);
    ori.compute(degenerate, out);
    EXPECT_EQ(std::memcmp(before.dOriMatrix, ori.dOriMatrix, sizeof ori.dOriMatrix), 0);
    EXPECT_EQ(out[1], before.pitch());
  }
}

TEST(Orientation, PitchPastNinetyLevellingAndClamping) {
  Orientation ori;
  auto pitchWith = [&](float m12, float m22) {
    ori.dOriMatrix[1][2] = m12;
    ori.dOriMatrix[2][2] = m22;
    return ori.pitch();
  };
  const float raw30 = pitchWith(-0.5f, 0.8f);  // screen down: pitch continues past 90
  EXPECT_NEAR(raw30, 30.0f, 1e-5f);
  EXPECT_EQ(pitchWith(0.5f, 0.8f), -raw30);
  EXPECT_EQ(pitchWith(-0.5f, -0.8f), 180.0f - raw30);
  EXPECT_EQ(pitchWith(0.5f, -0.8f), -180.0f + raw30);
  EXPECT_EQ(pitchWith(0.0f, -1.0f), 0.0f);

  float east, north;
  set3(ori.dOriMatrix[1], 0.6f, 0.8f, 0.3f);
  set3(ori.dOriMatrix[2], 2e-4f, 1e-4f, 1.0f);  // h^2 = 5e-8: flat, taken as it stands
  ori.levelledHeading(&east, &north);
  EXPECT_TRUE(east == 0.6f && north == 0.8f);
  // Just past +-1: clamped, no NaN.
  set3(ori.dOriMatrix[0], 1.0f, 0.0f, -1.0000001f);
  set3(ori.dOriMatrix[1], 0.0f, 0.0f, 1.0000001f);
  set3(ori.dOriMatrix[2], 1e-3f, 0.0f, 1.0000001f);
  EXPECT_TRUE(ori.pitch() == -90.0f && ori.roll() == -90.0f);
  ori.levelledHeading(&east, &north);
  EXPECT_FALSE(std::isnan(east) || std::isnan(north));
  ori.dOriMatrix[0][2] = 0.99999994f;  // in range: its exact arc sine
  EXPECT_EQ(ori.roll(), static_cast<float>(std::asin(static_cast<double>(0.99999994f))) * 180.0f / 3.1415927f);
}

TEST(Orientation, FieldGeometryOnlyWhileCalibratedAndStill) {
  // Mean field 120 degrees from the mean acceleration, radius 0.5.
  const float offset[3] = {0.1f, 0.2f, -0.3f};
  const float field[3] = {0.1f, 0.2f + 0.4330127f, -0.3f - 0.25f};
  CalibrationState cal = stillState(kUp, field, offset);
  cal.iMagAccuracy = 3;
  Orientation::updateFieldGeometry(cal, Orientation::meanAngle(cal));
  EXPECT_NEAR(cal.dMagHorizontal, 0.4330127f, 2e-6f);
  EXPECT_NEAR(cal.dMagVertical, 0.25f, 2e-6f);
  EXPECT_NEAR(cal.dMagInclination, 30.0f, 1e-4f);
  // Not updated below accuracy 3, nor with any variance at the still threshold.
  for (int change = 0; change < 7; ++change) {
    CalibrationState c = cal;
    if (change < 3) c.iMagAccuracy = change;
    if (change >= 3 && change < 6) c.dAccVariance[change - 3] = c.config.dAccStillThd;
    if (change == 6) set3(c.dAccVariance, 0.0f, 0.0f, 0.0f);  // not yet measured counts as still
    c.dMagVertical = 7.0f;
    Orientation::updateFieldGeometry(c, {-0.5f, std::sqrt(0.75f)});
    EXPECT_EQ(c.dMagVertical, change == 6 ? 0.25f : 7.0f) << change;
  }
}

}  // namespace
}  // namespace quelta
