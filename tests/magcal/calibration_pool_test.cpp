// SPDX-License-Identifier: Apache-2.0
// The pool's phase table end to end: what the early, late and refinement
// phases do with samples too close or too far, and what the fits adopt or
// fall back to.
#include <gtest/gtest.h>

#include "magcal_fixtures.h"

using namespace magcal_test;

namespace {

const float kCentre[3] = {0.12f, -0.25f, 0.08f};
const float kSaved[3] = {0.01f, 0.02f, 0.03f};

Point onSphere(int i) { return spherePoint(i, 32, 0.5f, kCentre); }

// A point at `reach` from the centre, on the far side from sphere point i
// (0.95 puts it beyond the maximum spacing from i only).
Point opposite(int i, float reach) {
  const Point p = onSphere(i);
  Point q;
  for (int k = 0; k < 3; ++k) q.v[k] = kCentre[k] - (p.v[k] - kCentre[k]) * (reach / 0.5f);
  return q;
}

void feedPoints(Rig& rig, int from, int to) {
  for (int i = from; i < to; ++i) rig.feed(onSphere(i).v);
}

// Accuracy 1 with 8 pooled points and a known saved calibration.
void startPartial(Rig& rig, const quelta::CalibrationSettings& settings = quelta::kDefaultCalibrationSettings) {
  rig.configure(settings, kSaved[0], kSaved[1], kSaved[2], 0.45f);
  rig.configure(settings, 0.0f, 0.0f, 0.0f, 0.0f);
  feedPoints(rig, 0, 8);
  ASSERT_EQ(rig.cal.accuracy(), 1);
}

bool savedInForce(const Rig& rig) {
  const quelta::Vec3f o = rig.cal.offset();
  return o[0] == kSaved[0] && o[1] == kSaved[1] && o[2] == kSaved[2] && rig.cal.radius() == 0.45f;
}

int takeNew(Rig& rig) {
  float offset[3], radius;
  return rig.cal.takeParameters(offset, &radius);
}

}  // namespace

TEST(CalibrationPool, EarlyPhaseSpacingRules) {
  Rig rig;
  rig.feed(0.25f, 0.0f, 0.0f);
  rig.feed(0.25f, 0.0625f, 0.0f);  // too close: dropped
  EXPECT_EQ(rig.count(), 1);
  rig.feed(0.25f, 1.5f, 0.0f);     // too far from sample 0: opens a new pool
  EXPECT_EQ(rig.count(), 1);
  EXPECT_EQ(rig.cal.pool().samples()[0][1], 1.5f);
  // Too far from a later sample: the pool empties, the sample is dropped,
  // and the early phase never touches the accuracy.
  Rig three;
  startPartial(three);
  three.process(kUp, kUp, kUp, 1, 0);  // restart: accuracy 1, early phase
  for (float x : {0.5f, -0.5f, 0.95f}) three.feed(x, 0.0f, 0.0f);
  EXPECT_TRUE(three.count() == 0 && three.cal.accuracy() == 1);
}

TEST(CalibrationPool, PartialFitsGradeOneAndTwoThenTheFullFitGradesThree) {
  Rig rig;
  feedPoints(rig, 0, 5);
  for (const auto& g : {std::pair<int, int>{6, 1}, {15, 1}, {16, 2}, {32, 2}}) {  // pooled count, accuracy
    feedPoints(rig, rig.count(), g.first);
    EXPECT_EQ(rig.cal.accuracy(), g.second) << g.first;
  }
  EXPECT_EQ(rig.cal.savedOffset()[1], 0.0f);  // partial fits leave the saved calibration
  EXPECT_EQ(takeNew(rig), 0);

  rig.feed(5.0f, 5.0f, 5.0f);  // whatever the sample, the full fit runs
  EXPECT_TRUE(rig.cal.accuracy() == 3 && rig.count() == 0);
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(rig.cal.offset()[k], kCentre[k], 1e-5);
    EXPECT_EQ(rig.cal.savedOffset()[k], rig.cal.offset()[k]);
  }
  EXPECT_EQ(rig.cal.savedRadius(), rig.cal.radius());
  EXPECT_TRUE(takeNew(rig) == 1 && takeNew(rig) == 0);  // reported once
}

TEST(CalibrationPool, FailuresFallBack) {
  // Late phase, too far from pooled sample 3: saved calibration, sample dropped.
  Rig laterFar;
  startPartial(laterFar);
  laterFar.feed(opposite(3, 0.95f).v);
  EXPECT_TRUE(laterFar.cal.accuracy() == 0 && laterFar.count() == 0 && savedInForce(laterFar));

  // Too far from pooled sample 0: the sample opens a pool of one whose fit
  // cannot be accepted, which empties it again.
  Rig firstFar;
  startPartial(firstFar);
  firstFar.feed(opposite(0, 0.95f).v);
  EXPECT_TRUE(firstFar.cal.accuracy() == 0 && firstFar.count() == 0 && savedInForce(firstFar));
  EXPECT_EQ(firstFar.cal.pool().samples()[0][0], opposite(0, 0.95f).v[0]);

  // A rejected partial fit drops the grade but keeps the fitted offset.
  Rig offSphere;
  startPartial(offSphere);
  const float fitted = offSphere.cal.offset()[0];
  offSphere.feed(opposite(3, 0.3f).v);
  EXPECT_TRUE(offSphere.cal.accuracy() == 0 && offSphere.count() == 0);
  EXPECT_EQ(offSphere.cal.offset()[0], fitted);

  // A rejected full fit restores the saved calibration.
  quelta::CalibrationSettings narrow;
  narrow.ratioHigh = 0.9f;
  Rig full;
  startPartial(full);
  feedPoints(full, 8, 32);
  full.configure(narrow, 0.0f, 0.0f, 0.0f, 0.0f);
  full.feed(onSphere(0).v);
  EXPECT_TRUE(full.cal.accuracy() == 0 && full.count() == 0 && takeNew(full) == 0);
  EXPECT_TRUE(savedInForce(full));
}

TEST(CalibrationRefinement, RefitsAFullCalibrationWithItsOwnPool) {
  startCapture();
  Rig rig;
  rig.configure(kCentre[0] + 0.05f, kCentre[1], kCentre[2], 0.5f);
  capturedLines().clear();
  feedPoints(rig, 0, 32);
  rig.feed(onSphere(0).v);  // refit accepted
  EXPECT_TRUE(capturedLines().empty());  // the refinement is silent
  EXPECT_TRUE(rig.cal.accuracy() == 3 && rig.count() == 0 && takeNew(rig) == 1);
  EXPECT_NEAR(rig.cal.offset()[0], kCentre[0], 1e-5);
  EXPECT_EQ(rig.cal.savedOffset()[0], rig.cal.offset()[0]);

  // A rejected refit keeps accuracy, offset and flag, and empties the pool.
  quelta::CalibrationSettings narrow;
  narrow.ratioHigh = 0.9f;
  rig.configure(narrow, 0.3f, kCentre[1], kCentre[2], 0.5f);
  feedPoints(rig, 0, 32);
  rig.feed(onSphere(0).v);
  EXPECT_TRUE(rig.cal.accuracy() == 3 && rig.count() == 0 && takeNew(rig) == 0);
  EXPECT_EQ(rig.cal.offset()[0], 0.3f);

  // Spacing: too close is ignored; too far from sample 0 restarts the pool
  // with the new sample, too far from a later one leaves it empty.
  feedPoints(rig, 0, 3);
  rig.feed(onSphere(1).v);
  EXPECT_EQ(rig.count(), 3);
  rig.feed(opposite(0, 0.95f).v);
  EXPECT_EQ(rig.count(), 1);
  EXPECT_EQ(rig.cal.pool().samples()[0][2], opposite(0, 0.95f).v[2]);
  rig.process(kUp, onSphere(0).v, onSphere(0).v, 1, 0);  // restart: the same call reopens the pool
  EXPECT_EQ(rig.count(), 1);
  feedPoints(rig, 1, 3);
  rig.feed(opposite(1, 0.95f).v);
  EXPECT_EQ(rig.count(), 0);
}
