#include <algorithm>
#include <cmath>
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

void feedPoints(Calibrator& cal, int from, int to, int mode = 0) {
  for (int i = from; i < to; ++i) feed(cal, onSphere(i).v, mode);
}

// A calibrator at accuracy 1 with 8 pooled points and a known saved calibration.
void startPartial(Calibrator& cal) {
  feedPoints(cal, 0, 8);
  const float saved[3] = {0.01f, 0.02f, 0.03f};
  std::memcpy(cal.state.dSavedOffset, saved, sizeof saved);
  cal.state.dSavedRadius = 0.45f;
}

void expectSavedInForce(const Calibrator& cal) {
  EXPECT_TRUE(cal.state.dSphereOffset[0] == 0.01f && cal.state.dSphereOffset[2] == 0.03f && cal.state.dSphereRadius == 0.45f);
}

// Accuracy, pooled count and the new-parameter flag.
std::vector<int> status(const Calibrator& cal) {
  return {cal.state.iMagAccuracy, cal.state.iCalBufferCount, cal.state.bNewCalPara};
}
using S = std::vector<int>;

}  // namespace

TEST(CalibrationPool, EarlyPhaseSpacingRules) {
  startCapture();
  Calibrator cal;
  feed(cal, 0.25f, 0.0f, 0.0f);
  feed(cal, 0.25f, 0.0625f, 0.0f);  // too close
  feed(cal, 0.25f, 1.5f, 0.0f);     // too far from sample 0: opens a new pool
  const Lines expected = {
      "QUELTA6a2018 iCalBufferCount=0 \n", "queltagbp 000 i=0 0.250000 0.000000 0.000000\n",
      "QUELTA6a2018 iCalBufferCount=1 \n", "QUELTA6a20180725 dTempDistance small =0.062500 \n",
      "QUELTA6a2018 iCalBufferCount=1 \n", "QUELTA6a20180725 dTempDistance big =1.500000 \n",
      "queltagbp 111 i=0 0.250000 1.500000 0.000000\n"};
  EXPECT_EQ(capturedLines(), expected);
  EXPECT_EQ(cal.state.iCalBufferCount, 1);

  // Too far from a later sample: the pool empties, the sample is dropped.
  Calibrator three;
  three.state.iMagAccuracy = 1;
  for (float x : {0.0f, 0.5f, -0.5f, 0.95f}) feed(three, x, 0.0f, 0.0f);
  EXPECT_EQ(three.state.iCalBufferCount, 0);
  EXPECT_EQ(three.state.iMagAccuracy, 1);
}

TEST(CalibrationPool, PartialFitsGradeOneAndTwoThenTheFullFitGradesThree) {
  startCapture();
  Calibrator cal;
  feedPoints(cal, 0, 5);
  EXPECT_EQ(quelta::test::countLinesStartingWith("QUELTA6a objSP"), 0);
  const int grades[][2] = {{6, 1}, {15, 1}, {16, 2}, {32, 2}};  // pooled count, accuracy
  int fed = 5;
  for (const auto& g : grades) {
    feedPoints(cal, fed, g[0]);
    fed = g[0];
    EXPECT_EQ(cal.state.iMagAccuracy, g[1]) << fed;
  }
  EXPECT_EQ(quelta::test::countLinesStartingWith("queltagbp 222 i=5 "), 1);
  EXPECT_EQ(quelta::test::countLinesStartingWith("QUELTA6a objSP.iMagCalisOK = 1"), 27);
  EXPECT_EQ(quelta::test::countLinesStartingWith("QUELTA6a accu=2 calioffset =0.12"), 17);
  EXPECT_EQ(cal.state.dSavedOffset[1], 0.0f);  // partial fits leave the saved copy
  EXPECT_EQ(cal.state.bNewCalPara, 0);

  capturedLines().clear();
  feed(cal, 5.0f, 5.0f, 5.0f);  // whatever the sample, the full fit runs
  EXPECT_TRUE(cal.state.iMagAccuracy == 3 && cal.state.iCalBufferCount == 0);
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(cal.state.dSphereOffset[k], kCentre[k], 1e-5);
    EXPECT_EQ(cal.state.dSavedOffset[k], cal.state.dSphereOffset[k]);
  }
  EXPECT_EQ(cal.state.dSavedRadius, cal.state.dSphereRadius);
  char last[200];
  std::snprintf(last, sizeof last, "queltagbp SphereOffset %lf %lf %lf Radius= %lf Accuracy= 3 iMagCalisOK= 1\n\n",
                double{cal.state.dSphereOffset[0]}, double{cal.state.dSphereOffset[1]},
                double{cal.state.dSphereOffset[2]}, double{cal.state.dSphereRadius});
  const Lines expected = {"QUELTA6a2018 iCalBufferCount=32 \n", "TRVQX4e quality 4 3\n", last};
  EXPECT_EQ(capturedLines(), expected);
  float para[7], again[7];
  EXPECT_EQ(cal.calPara(para), 1);
  EXPECT_EQ(cal.calPara(again), 0);
  EXPECT_EQ(0, std::memcmp(para, again, sizeof para));

  // Log mode 5: the same decisions, no lines.
  startCapture();
  Calibrator quiet;
  feedPoints(quiet, 0, 32, 5);
  feed(quiet, 5.0f, 5.0f, 5.0f, 5);
  EXPECT_TRUE(capturedLines().empty());
  EXPECT_EQ(quiet.state.dSphereOffset[2], cal.state.dSphereOffset[2]);
}

TEST(CalibrationPool, FailuresFallBack) {
  startCapture();
  Calibrator laterFar, firstFar, offSphere, full;
  // Late phase, too far from pooled sample 3: saved calibration, sample dropped.
  startPartial(laterFar);
  feed(laterFar, opposite(3, 0.95f).v);
  EXPECT_TRUE(laterFar.state.iMagAccuracy == 0 && laterFar.state.iCalBufferCount == 0);
  expectSavedInForce(laterFar);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e  quality down111 0");

  // Too far from pooled sample 0: the sample opens a pool of one whose fit
  // cannot be accepted, which empties it again.
  startPartial(firstFar);
  feed(firstFar, opposite(0, 0.95f).v);
  EXPECT_EQ(firstFar.state.iMagAccuracy, 0);
  expectSavedInForce(firstFar);
  EXPECT_EQ(firstFar.state.dCalBuffer[0][0], opposite(0, 0.95f).v[0]);
  EXPECT_EQ(firstFar.state.iCalBufferCount, 0);
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
  expectSavedInForce(full);
  char last[200];
  std::snprintf(last, sizeof last, "queltagbp SphereOffset %lf %lf %lf Radius= %lf Accuracy= 0 iMagCalisOK= 0\n\n",
                double{0.01f}, double{0.02f}, double{0.03f}, double{0.45f});
  EXPECT_EQ(capturedLines().back(), last);
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
  EXPECT_EQ(cal.state.iMagAccuracy, 3);
  EXPECT_EQ(cal.state.dSphereOffset[0], 0.3f);
  EXPECT_EQ(cal.state.bNewCalPara, 0);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);

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

TEST(CalibrationPool, NoConfigurationGrowsThePoolPastItsCapacity) {
  for (int32_t minCount : {100, 6}) {
    for (int32_t fullCount : {36, 1000}) {
      Calibrator cal;
      cal.state.config.iMinCalCount = minCount;
      cal.state.config.iMidCalCount = minCount;
      cal.state.config.iFullCalCount = fullCount;
      const float centre[3] = {0.0f, 0.0f, 0.0f};
      int most = 0;
      for (int i = 0; i < 36; ++i) {
        feed(cal, spherePoint(i, 40, 0.5f, centre).v);
        most = std::max(most, cal.state.iCalBufferCount);
      }
      EXPECT_EQ(most, 35);
      EXPECT_EQ(cal.state.iMagAccuracy, 3);  // the full fit ran on 35 samples
    }
  }
}
