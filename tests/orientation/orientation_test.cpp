// SPDX-License-Identifier: Apache-2.0
// The orientation on hand-filled intakes and calibration values: which sample
// it follows, the gravity preset, the matrix guard, pitch past 90, levelling,
// clamping and the field geometry.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "orientation/orientation.h"

namespace quelta {
namespace {

void set3(float* dst, float x, float y, float z) { dst[0] = x, dst[1] = y, dst[2] = z; }

const float kUp[3] = {0.0f, 0.0f, 1.0f};
const float kZero[3] = {0.0f, 0.0f, 0.0f};
const float kField[3] = {0.1f, 0.3f, -0.4f};
const float kNoseDown30[3] = {0.0f, -0.5f, 0.8660254f};

// A still device: `takes` sample sets of one acceleration and one field,
// the acceleration's x jittering by +-jitter so that its variance exists
// once the histories overflow.
SampleIntake stillIntake(const float* acc, const float* field, int takes = 31, float jitter = 1e-4f) {
  SampleIntake intake;
  for (int i = 0; i < takes; ++i) {
    const float a[3] = {acc[0] + (i % 2 ? jitter : -jitter), acc[1], acc[2]};
    intake.take(a, field, field);
  }
  return intake;
}

CalibrationValues values(const float* offset, const float* field, int32_t accuracy = 3) {
  CalibrationValues v{};
  v.offset = Vec3f::load(offset);
  v.calibratedField = Vec3f::load(field) - v.offset;
  v.radius = 0.5f;
  v.accuracy = accuracy;
  v.accStillVariance = 2e-4f;
  return v;
}

TEST(Orientation, FollowsTheDelayedSampleOnceTheHistoriesAreFullAndGravityIsUpUntilVariancesExist) {
  const float offset[3] = {0.05f, -0.02f, 0.01f};
  const float noseUp30[3] = {0.0f, 0.5f, 0.8660254f};
  SampleIntake intake;
  for (int i = 0; i < 31; ++i) {  // entry 20 of the full window is the 22nd sample
    const float* acc = i == 21 ? kNoseDown30 : (i == 30 ? noseUp30 : kUp);
    const float a[3] = {acc[0] + (i % 2 ? 1e-4f : -1e-4f), acc[1], acc[2]};
    intake.take(a, kField, kField);
  }
  Orientation ori;
  float out[3];
  ori.compute(intake, values(offset, kField), out);
  EXPECT_NEAR(out[1], 30.0f, 1e-3f);

  // Full, but no variance yet: the device counts as level whatever it says.
  const float tilted[3] = {0.3f, 0.4f, 0.8660254f};
  Orientation fresh;
  fresh.compute(stillIntake(tilted, kField, 30), values(kZero, kField), out);
  EXPECT_TRUE(out[1] == 0.0f && out[2] == 0.0f);
  fresh.compute(stillIntake(tilted, kField), values(kZero, kField), out);  // one variance is enough
  EXPECT_NEAR(out[2], std::asin(0.3) * 180.0 / 3.14159265358979323846, 1e-2);  // x jitters by 1e-4
}

TEST(Orientation, BeforeTheHistoriesFillTheCalibratedFieldIsRead) {
  // Same intake, calibrated fields a quarter turn apart: the heading turns.
  const SampleIntake intake = stillIntake(kUp, kField, 5);
  CalibrationValues east = values(kZero, kField), north = values(kZero, kField);
  east.calibratedField = {0.3f, 0.0f, -0.4f};
  north.calibratedField = {0.0f, 0.3f, -0.4f};
  Orientation a, b;
  for (int i = 0; i < 40; ++i) {
    float outA[3], outB[3];
    a.compute(intake, east, outA);
    b.compute(intake, north, outB);
    if (i == 39) EXPECT_NEAR(std::fabs(std::fabs(outA[0] - outB[0]) - 180.0f), 90.0f, 1.0f);
  }
}

TEST(Orientation, FieldAlongGravityKeepsThePreviousMatrix) {
  Orientation ori;
  float out[3];
  ori.compute(stillIntake(kNoseDown30, kField), values(kZero, kField), out);
  const Orientation before = ori;
  const float down[3] = {0.0f, 0.0f, -0.5f}, skyward[3] = {0.0f, 0.0f, 0.5f};
  for (const float* f : {down, skyward}) {
    ori.compute(stillIntake(kUp, f, 31, 0.0f), values(kZero, f), out);
    EXPECT_EQ(std::memcmp(before.matrix(), ori.matrix(), sizeof ori.matrix()), 0);
    EXPECT_EQ(out[1], pitchDegrees(before.matrix()));
  }
}

TEST(Orientation, PitchPastNinetyLevellingAndClamping) {
  float m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  auto pitchWith = [&](float m12, float m22) {
    m[1][2] = m12;
    m[2][2] = m22;
    return pitchDegrees(m);
  };
  const float raw30 = pitchWith(-0.5f, 0.8f);  // screen down: pitch continues past 90
  EXPECT_NEAR(raw30, 30.0f, 1e-5f);
  EXPECT_EQ(pitchWith(0.5f, 0.8f), -raw30);
  EXPECT_EQ(pitchWith(-0.5f, -0.8f), 180.0f - raw30);
  EXPECT_EQ(pitchWith(0.5f, -0.8f), -180.0f + raw30);
  EXPECT_EQ(pitchWith(0.0f, -1.0f), 0.0f);

  float east, north;
  set3(m[1], 0.6f, 0.8f, 0.3f);
  set3(m[2], 2e-4f, 1e-4f, 1.0f);  // h^2 = 5e-8: flat, taken as it stands
  levelledHeading(m, &east, &north);
  EXPECT_TRUE(east == 0.6f && north == 0.8f);
  // Just past +-1: clamped, no NaN.
  set3(m[0], 1.0f, 0.0f, -1.0000001f);
  set3(m[1], 0.0f, 0.0f, 1.0000001f);
  set3(m[2], 1e-3f, 0.0f, 1.0000001f);
  EXPECT_TRUE(pitchDegrees(m) == -90.0f && rollDegrees(m) == -90.0f);
  levelledHeading(m, &east, &north);
  EXPECT_FALSE(std::isnan(east) || std::isnan(north));
}

TEST(Orientation, FieldGeometryOnlyWhileCalibratedAndStill) {
  // Mean field 120 degrees from the mean acceleration, radius 0.5.
  const float offset[3] = {0.1f, 0.2f, -0.3f};
  const float field[3] = {0.1f, 0.2f + 0.4330127f, -0.3f - 0.25f};
  float out[3];
  Orientation ori;
  ori.compute(stillIntake(kUp, field), values(offset, field), out);
  EXPECT_NEAR(ori.fieldGeometry().horizontal, 0.4330127f, 2e-6f);
  EXPECT_NEAR(ori.fieldGeometry().vertical, 0.25f, 2e-6f);
  EXPECT_NEAR(ori.fieldGeometry().inclination, 30.0f, 1e-4f);
  // Not measured below accuracy 3, nor with a variance at the still
  // threshold; a variance not yet measured counts as still.
  const float steeper[3] = {0.1f, 0.2f, -0.3f - 0.5f};  // vertical 0.5 if measured
  for (int change = 0; change < 5; ++change) {
    Orientation o = ori;
    CalibrationValues v = values(offset, steeper, change < 3 ? change : 3);
    if (change == 3) v.accStillVariance = 1e-9f;  // below the jitter's variance
    const SampleIntake intake = stillIntake(kUp, steeper, change == 4 ? 30 : 31);
    o.compute(intake, v, out);
    EXPECT_NEAR(o.fieldGeometry().vertical, change == 4 ? 0.5f : 0.25f, 2e-6f) << change;
  }
}

}  // namespace
}  // namespace quelta
