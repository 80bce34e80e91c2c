#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "magcal_fixtures.h"

using namespace magcal_test;
using quelta::Calibrator;

namespace {

const float kCentre[3] = {0.12f, -0.25f, 0.08f};

Point onSphere(int i) { return spherePoint(i, 32, 0.5f, kCentre); }

// A point at `reach` from the centre, on the far side from sphere point i
// (0.95 puts it beyond the maximum spacing from i only).
Point opposite(int i, float reach) {
  const Point p = onSphere(i);
  Point q;
  for (int k = 0; k < 3; ++k) q.v[k] = kCentre[k] - (p.v[k] - kCentre[k]) * (reach / 0.5f);
  return q;
}

void feedPoints(Calibrator& cal, int from, int to) {
  for (int i = from; i < to; ++i) feed(cal, onSphere(i).v);
}

// Accuracy 1 with 8 pooled points and a known saved calibration.
void startPartial(Calibrator& cal) {
  feedPoints(cal, 0, 8);
  const float saved[3] = {0.01f, 0.02f, 0.03f};
  std::memcpy(cal.state.dSavedOffset, saved, sizeof saved);
  cal.state.dSavedRadius = 0.45f;
}

bool savedInForce(const Calibrator& cal) {
  return cal.state.dSphereOffset[0] == 0.01f && cal.state.dSphereOffset[2] == 0.03f && cal.state.dSphereRadius == 0.45f;
}

// Accuracy, pooled count and the new-parameter flag.
std::vector<int> status(const Calibrator& cal) {
  return {cal.state.iMagAccuracy, cal.state.iCalBufferCount, cal.state.bNewCalPara};
}
using S = std::vector<int>;

std::string fullFitLine(const float* offset, float radius, int accuracy, int ok) {
  char line[200];
  std::snprintf(line, sizeof line, "queltagbp SphereOffset %lf %lf %lf Radius= %lf Accuracy= %d iMagCalisOK= %d\n\n",
                double{offset[0]}, double{offset[1]}, double{offset[2]}, double{radius}, accuracy, ok);
  return line;
}

}  // namespace

TEST(CalibrationPool, EarlyPhaseSpacingRules) {
  startCapture();
  Calibrator cal;
  feed(cal, 0.25f, 0.0f, 0.0f);
  feed(cal, 0.25f, 0.0625f, 0.0f);  // too close
  feed(cal, 0.25f, 1.5f, 0.0f);     // too far from sample 0: opens a new pool
  EXPECT_EQ(capturedLines(), (Lines{"QUELTA6a2018 iCalBufferCount=0 \n", "queltagbp 000 i=0 0.250000 0.000000 0.000000\n",
                                   "QUELTA6a2018 iCalBufferCount=1 \n", "QUELTA6a20180725 dTempDistance small =0.062500 \n",
                                   "QUELTA6a2018 iCalBufferCount=1 \n", "QUELTA6a20180725 dTempDistance big =1.500000 \n",
                                   "queltagbp 111 i=0 0.250000 1.500000 0.000000\n"}));
  EXPECT_EQ(cal.state.iCalBufferCount, 1);
  // Too far from a later sample: the pool empties, the sample is dropped.
  Calibrator three;
  three.state.iMagAccuracy = 1;
  for (float x : {0.0f, 0.5f, -0.5f, 0.95f}) feed(three, x, 0.0f, 0.0f);
  EXPECT_TRUE(three.state.iCalBufferCount == 0 && three.state.iMagAccuracy == 1);
}

TEST(CalibrationPool, PartialFitsGradeOneAndTwoThenTheFullFitGradesThree) {
  startCapture();
  Calibrator cal;
  feedPoints(cal, 0, 5);
  EXPECT_EQ(quelta::test::countLinesStartingWith("QUELTA6a objSP"), 0);
  for (const auto& g : {std::pair<int, int>{6, 1}, {15, 1}, {16, 2}, {32, 2}}) {  // pooled count, accuracy
    feedPoints(cal, cal.state.iCalBufferCount, g.first);
    EXPECT_EQ(cal.state.iMagAccuracy, g.second) << g.first;
  }
  EXPECT_EQ(quelta::test::countLinesStartingWith("queltagbp 222 i=5 "), 1);
  EXPECT_EQ(quelta::test::countLinesStartingWith("QUELTA6a objSP.iMagCalisOK = 1"), 27);
  EXPECT_EQ(quelta::test::countLinesStartingWith("QUELTA6a accu=2 calioffset =0.12"), 17);
  EXPECT_TRUE(cal.state.dSavedOffset[1] == 0.0f && cal.state.bNewCalPara == 0);  // partial fits leave both

  capturedLines().clear();
  feed(cal, 5.0f, 5.0f, 5.0f);  // whatever the sample, the full fit runs
  EXPECT_EQ(status(cal), (S{3, 0, 1}));
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(cal.state.dSphereOffset[k], kCentre[k], 1e-5);
    EXPECT_EQ(cal.state.dSavedOffset[k], cal.state.dSphereOffset[k]);
  }
  EXPECT_EQ(cal.state.dSavedRadius, cal.state.dSphereRadius);
  EXPECT_EQ(capturedLines(), (Lines{"QUELTA6a2018 iCalBufferCount=32 \n", "TRVQX4e quality 4 3\n",
                                   fullFitLine(cal.state.dSphereOffset, cal.state.dSphereRadius, 3, 1)}));
  float para[7];
  EXPECT_TRUE(cal.calPara(para) == 1 && cal.calPara(para) == 0);  // reported once
}

TEST(CalibrationPool, FailuresFallBack) {
  startCapture();
  Calibrator laterFar, firstFar, offSphere, full;
  // Late phase, too far from pooled sample 3: saved calibration, sample dropped.
  startPartial(laterFar);
  feed(laterFar, opposite(3, 0.95f).v);
  EXPECT_TRUE(laterFar.state.iMagAccuracy == 0 && laterFar.state.iCalBufferCount == 0 && savedInForce(laterFar));
  EXPECT_EQ(capturedLines().back(), "TRVQX4e  quality down111 0");

  // Too far from pooled sample 0: the sample opens a pool of one whose fit
  // cannot be accepted, which empties it again.
  startPartial(firstFar);
  feed(firstFar, opposite(0, 0.95f).v);
  EXPECT_TRUE(firstFar.state.iMagAccuracy == 0 && firstFar.state.iCalBufferCount == 0 && savedInForce(firstFar));
  EXPECT_EQ(firstFar.state.dCalBuffer[0][0], opposite(0, 0.95f).v[0]);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e quality 222 0\n");

  // A rejected partial fit drops the grade but keeps the fitted offset.
  startPartial(offSphere);
  const float fitted = offSphere.state.dSphereOffset[0];
  feed(offSphere, opposite(3, 0.3f).v);
  EXPECT_TRUE(offSphere.state.iMagAccuracy == 0 && offSphere.state.iCalBufferCount == 0);
  EXPECT_EQ(offSphere.state.dSphereOffset[0], fitted);

  // A rejected full fit restores the saved calibration.
  startPartial(full);
  feedPoints(full, 8, 32);
  full.state.config.dRatioHigh = 0.9f;
  feed(full, onSphere(0).v);
  EXPECT_EQ(status(full), (S{0, 0, 0}));
  EXPECT_TRUE(savedInForce(full));
  const float saved[3] = {0.01f, 0.02f, 0.03f};
  EXPECT_EQ(capturedLines().back(), fullFitLine(saved, 0.45f, 0, 0));
}

TEST(CalibrationRefinement, RefitsAFullCalibrationWithItsOwnPool) {
  startCapture();
  Calibrator cal;
  cal.state.iMagAccuracy = 3;
  cal.state.dSphereOffset[0] = kCentre[0] + 0.05f;
  feedPoints(cal, 0, 32);
  feed(cal, onSphere(0).v);  // refit accepted
  EXPECT_EQ(status(cal), (S{3, 0, 1}));
  EXPECT_NEAR(cal.state.dSphereOffset[0], kCentre[0], 1e-5);
  EXPECT_EQ(cal.state.dSavedOffset[0], cal.state.dSphereOffset[0]);
  EXPECT_TRUE(capturedLines().empty());  // the refinement is silent

  // A rejected refit keeps accuracy, offset and flag, and empties the pool.
  cal.state.bNewCalPara = 0;
  cal.state.dSphereOffset[0] = 0.3f;
  feedPoints(cal, 0, 32);
  cal.state.config.dRatioHigh = 0.9f;
  feed(cal, onSphere(0).v);
  EXPECT_EQ(status(cal), (S{3, 0, 0}));
  EXPECT_EQ(cal.state.dSphereOffset[0], 0.3f);

  // Spacing: too close is ignored; too far from sample 0 restarts the pool
  // with the new sample, too far from a later one leaves it empty.
  feedPoints(cal, 0, 3);
  feed(cal, onSphere(1).v);
  EXPECT_EQ(cal.state.iCalBufferCount, 3);
  feed(cal, opposite(0, 0.95f).v);
  EXPECT_EQ(cal.state.iCalBufferCount, 1);
  EXPECT_EQ(cal.state.dCalBuffer[0][2], opposite(0, 0.95f).v[2]);
  cal.state.iCalBufferCount = 0;
  feedPoints(cal, 0, 3);
  feed(cal, opposite(1, 0.95f).v);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);
}
