#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "magcal_fixtures.h"

using namespace magcal_test;
using quelta::Calibrator;

namespace {

const float kCentre[3] = {0.12f, -0.25f, 0.08f};

Point onSphere(int i) { return spherePoint(i, 32, 0.5f, kCentre); }

// A point at `reach` from the centre, opposite pooled point i.
Point opposite(int i, float reach) {
  const Point p = onSphere(i);
  Point q;
  for (int k = 0; k < 3; ++k) q.v[k] = kCentre[k] - (p.v[k] - kCentre[k]) * (reach / 0.5f);
  return q;
}

float distance(const Point& a, const float* b) {
  const float dx = a.v[0] - b[0], dy = a.v[1] - b[1], dz = a.v[2] - b[2];
  return std::sqrt((dx * dx + dy * dy) + dz * dz);
}

void feedPoints(Calibrator& cal, int from, int to, int mode = 0) {
  for (int i = from; i < to; ++i) feed(cal, onSphere(i).v, 0, mode);
}

void setSaved(Calibrator& cal) {
  const float saved[3] = {0.01f, 0.02f, 0.03f};
  for (int k = 0; k < 3; ++k) cal.state.dSavedOffset[k] = saved[k];
  cal.state.dSavedRadius = 0.45f;
}

void expectSavedInForce(const Calibrator& cal) {
  EXPECT_EQ(cal.state.dSphereOffset[0], 0.01f);
  EXPECT_EQ(cal.state.dSphereOffset[2], 0.03f);
  EXPECT_EQ(cal.state.dSphereRadius, 0.45f);
}

}  // namespace

TEST(CalibrationPool, EarlyPhaseSpacingRules) {
  startCapture();
  Calibrator cal;
  feed(cal, 0.25f, 0.0f, 0.0f);
  feed(cal, 0.25f, 0.0625f, 0.0f);  // too close
  feed(cal, 0.25f, 1.5f, 0.0f);     // too far from sample 0: opens a new pool
  const std::vector<std::string> expected = {
      "QUELTA6a2018 iCalBufferCount=0 \n",
      "queltagbp 000 i=0 0.250000 0.000000 0.000000\n",
      "QUELTA6a2018 iCalBufferCount=1 \n",
      "QUELTA6a20180725 dTempDistance small =0.062500 \n",
      "QUELTA6a2018 iCalBufferCount=1 \n",
      "QUELTA6a20180725 dTempDistance big =1.500000 \n",
      "queltagbp 111 i=0 0.250000 1.500000 0.000000\n"};
  EXPECT_EQ(capturedLines(), expected);
  EXPECT_EQ(cal.state.iCalBufferCount, 1);
  EXPECT_EQ(cal.state.dCalBuffer[0][1], 1.5f);

  // Too far from a later sample: the pool empties and the sample is dropped.
  Calibrator three;
  three.state.iMagAccuracy = 1;  // not touched by the early phase
  for (float x : {0.0f, 0.5f, -0.5f}) feed(three, x, 0.0f, 0.0f);
  feed(three, 0.95f, 0.0f, 0.0f);
  EXPECT_EQ(three.state.iCalBufferCount, 0);
  EXPECT_EQ(three.state.iMagAccuracy, 1);
  EXPECT_EQ(three.state.dMinDist, 0.1f);
}

TEST(CalibrationPool, PartialFitsGradeOneAndTwoThenTheFullFitGradesThree) {
  startCapture();
  Calibrator cal;
  feedPoints(cal, 0, 5);
  EXPECT_EQ(cal.state.iMagAccuracy, 0);
  EXPECT_EQ(countPrefix("QUELTA6a objSP"), 0);
  feedPoints(cal, 5, 6);  // the sixth pooled sample brings the first fit
  EXPECT_EQ(cal.state.iMagAccuracy, 1);
  EXPECT_EQ(countPrefix("queltagbp 222 i=5 "), 1);
  EXPECT_EQ(countLines("QUELTA6a objSP.iMagCalisOK = 1"), 1);
  EXPECT_NEAR(cal.state.dSphereOffset[1], kCentre[1], 1e-5);
  EXPECT_EQ(cal.state.dSavedOffset[1], 0.0f);
  EXPECT_EQ(cal.state.bNewCalPara, 0);
  feedPoints(cal, 6, 15);
  EXPECT_EQ(cal.state.iMagAccuracy, 1);
  feedPoints(cal, 15, 16);
  EXPECT_EQ(cal.state.iMagAccuracy, 2);
  feedPoints(cal, 16, 32);
  EXPECT_EQ(cal.state.iMagAccuracy, 2);
  EXPECT_EQ(cal.state.iCalBufferCount, 32);
  EXPECT_EQ(countLines("QUELTA6a objSP.iMagCalisOK = 1"), 27);

  capturedLines().clear();
  feed(cal, 5.0f, 5.0f, 5.0f);  // whatever the sample, the full fit runs
  EXPECT_EQ(cal.state.iMagAccuracy, 3);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);
  for (int k = 0; k < 3; ++k) {
    EXPECT_NEAR(cal.state.dSphereOffset[k], kCentre[k], 1e-5);
    EXPECT_EQ(cal.state.dSavedOffset[k], cal.state.dSphereOffset[k]);
  }
  EXPECT_EQ(cal.state.dSavedRadius, cal.state.dSphereRadius);
  ASSERT_EQ(capturedLines().size(), 3u);
  EXPECT_EQ(capturedLines()[1], "TRVQX4e quality 4 3\n");
  char last[200];
  std::snprintf(last, sizeof last, "queltagbp SphereOffset %lf %lf %lf Radius= %lf Accuracy= 3 iMagCalisOK= 1\n\n",
                double{cal.state.dSphereOffset[0]}, double{cal.state.dSphereOffset[1]},
                double{cal.state.dSphereOffset[2]}, double{cal.state.dSphereRadius});
  EXPECT_EQ(capturedLines()[2], last);

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
  EXPECT_EQ(quiet.state.iMagAccuracy, 3);
  EXPECT_EQ(quiet.state.dSphereOffset[2], cal.state.dSphereOffset[2]);
}

TEST(CalibrationPool, LatePhaseFailuresFallBack) {
  // Too far from pooled sample 3 only: saved calibration restored, sample dropped.
  startCapture();
  Calibrator cal;
  feedPoints(cal, 0, 8);
  ASSERT_EQ(cal.state.iMagAccuracy, 1);
  setSaved(cal);
  const Point farFrom3 = opposite(3, 0.95f);
  for (int i = 0; i < 3; ++i) ASSERT_LT(distance(farFrom3, cal.state.dCalBuffer[i]), 1.4f);
  feed(cal, farFrom3.v);
  EXPECT_EQ(cal.state.iMagAccuracy, 0);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);
  expectSavedInForce(cal);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e  quality down111 0");

  // Too far from pooled sample 0: restored, and the sample opens a pool of one
  // whose fit cannot be accepted, which empties it again.
  Calibrator first;
  feedPoints(first, 0, 8);
  setSaved(first);
  const Point farFrom0 = opposite(0, 0.95f);
  feed(first, farFrom0.v);
  EXPECT_EQ(first.state.iMagAccuracy, 0);
  expectSavedInForce(first);
  EXPECT_EQ(first.state.dCalBuffer[0][0], farFrom0.v[0]);
  EXPECT_EQ(first.state.iCalBufferCount, 0);
  EXPECT_EQ(capturedLines().back(), "TRVQX4e quality 222 0\n");

  // A rejected partial fit drops the grade but keeps the fitted offset.
  Calibrator rejected;
  feedPoints(rejected, 0, 8);
  setSaved(rejected);
  const float fitted = rejected.state.dSphereOffset[0];
  const Point inside = opposite(3, 0.3f);
  for (int i = 0; i < 8; ++i) ASSERT_GT(distance(inside, rejected.state.dCalBuffer[i]), 0.1f);
  feed(rejected, inside.v);
  EXPECT_EQ(rejected.state.iMagAccuracy, 0);
  EXPECT_EQ(rejected.state.iCalBufferCount, 0);
  EXPECT_EQ(rejected.state.dSphereOffset[0], fitted);
}

TEST(CalibrationPool, RejectedFullFitRestoresTheSavedCalibration) {
  startCapture();
  Calibrator cal;
  feedPoints(cal, 0, 32);
  setSaved(cal);
  cal.state.config.dRatioHigh = 0.9f;
  capturedLines().clear();
  feed(cal, onSphere(0).v);
  EXPECT_EQ(cal.state.iMagAccuracy, 0);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);
  EXPECT_EQ(cal.state.bNewCalPara, 0);
  expectSavedInForce(cal);
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
  EXPECT_EQ(cal.state.iCalBufferCount, 32);
  feed(cal, onSphere(0).v);  // refit accepted
  EXPECT_EQ(cal.state.iMagAccuracy, 3);
  EXPECT_EQ(cal.state.bNewCalPara, 1);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);
  EXPECT_NEAR(cal.state.dSphereOffset[0], kCentre[0], 1e-5);
  EXPECT_EQ(cal.state.dSavedOffset[0], cal.state.dSphereOffset[0]);
  EXPECT_TRUE(capturedLines().empty());  // the refinement is silent

  // A rejected refit keeps accuracy, offset and flag, and empties the pool.
  cal.state.bNewCalPara = 0;
  setSaved(cal);
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
  const Point farFrom0 = opposite(0, 0.95f);
  feed(cal, farFrom0.v);
  EXPECT_EQ(cal.state.iCalBufferCount, 1);
  EXPECT_EQ(cal.state.dCalBuffer[0][2], farFrom0.v[2]);
  cal.state.iCalBufferCount = 0;
  feedPoints(cal, 0, 3);
  const Point farFrom1 = opposite(1, 0.95f);
  ASSERT_LT(distance(farFrom1, cal.state.dCalBuffer[0]), 1.4f);
  feed(cal, farFrom1.v);
  EXPECT_EQ(cal.state.iCalBufferCount, 0);
}

TEST(CalibrationPool, NoConfigurationGrowsThePoolPastItsCapacity) {
  struct Counts {
    int min, full;
  };
  for (Counts counts : {Counts{100, 1000}, Counts{6, 40}, Counts{6, 36}}) {
    Calibrator cal;
    cal.state.config.iMinCalCount = counts.min;
    cal.state.config.iMidCalCount = counts.min;
    cal.state.config.iFullCalCount = counts.full;
    const float centre[3] = {0.0f, 0.0f, 0.0f};
    int most = 0;
    for (int i = 0; i < 36; ++i) {
      feed(cal, spherePoint(i, 40, 0.5f, centre).v);
      most = std::max(most, cal.state.iCalBufferCount);
    }
    EXPECT_EQ(most, 35) << counts.full;
    EXPECT_EQ(cal.state.iMagAccuracy, 3) << counts.full;  // the full fit ran on 35 samples
    EXPECT_EQ(cal.state.iCalBufferCount, 0);
  }
}
