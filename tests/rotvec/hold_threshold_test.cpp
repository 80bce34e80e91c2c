// The published quaternion only moves once x, y or z has changed by at least
// movethd since the last published value; the host changes movethd through
// the exported variable between calls. All calls here are within the first
// 30, so each call's attitude is its raw sample's.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "tests/rotvec/rotvec_test_helpers.h"

namespace {

// A level device turned by headingDeg (clockwise from north) in a dipping
// field.
struct Pair {
  float mag[3];
  float acc[3];
};

Pair headingPair(double headingDeg) {
  const double h = headingDeg * 3.14159265358979323846 / 180.0;
  return {{static_cast<float>(-0.25 * std::sin(h)), static_cast<float>(0.25 * std::cos(h)), -0.4f},
          {0.0f, 0.0f, 1.0f}};
}

void expectPublished(const float* rov) {
  for (int i = 0; i < 4; ++i) EXPECT_EQ(fOutRov[i], rov[i]) << "component " << i;
}

TEST(RotvecHold, SmallChangesRepublishThePreviousValue) {
  EXPECT_EQ(movethd, 0.005f);
  const Pair a = headingPair(10.0), b = headingPair(10.4), c = headingPair(11.0), d = headingPair(11.1);
  const auto qa = rotvec_test::firstCallOf(a.mag, a.acc);
  const auto qb = rotvec_test::firstCallOf(b.mag, b.acc);
  const auto qc = rotvec_test::firstCallOf(c.mag, c.acc);
  const auto qd = rotvec_test::firstCallOf(d.mag, d.acc);
  ASSERT_LT(std::fabs(qb.rov[2] - qa.rov[2]), 0.005f);
  ASSERT_GE(std::fabs(qc.rov[2] - qa.rov[2]), 0.005f);
  ASSERT_NE(qb.rov[3], qa.rov[3]);

  CalcQueltaRotVec(a.mag, a.acc, 0);
  expectPublished(qa.rov);
  CalcQueltaRotVec(b.mag, b.acc, 0);
  expectPublished(qa.rov);  // w included
  EXPECT_EQ(fGravityAcc[2], qb.gravity[2]);  // gravity is never held
  CalcQueltaRotVec(c.mag, c.acc, 0);  // measured against a, not against b
  expectPublished(qc.rov);
  CalcQueltaRotVec(d.mag, d.acc, 0);
  expectPublished(qc.rov);

  movethd = 0.0f;  // honoured from the very next call
  CalcQueltaRotVec(d.mag, d.acc, 0);
  expectPublished(qd.rov);
  movethd = 0.5f;
  CalcQueltaRotVec(a.mag, a.acc, 0);
  expectPublished(qd.rov);
}

// Slow drift is published once it has accumulated to the threshold.
TEST(RotvecHold, DriftAccumulatesAgainstLastPublishedValue) {
  int published = 0;
  float last[4] = {};
  for (int step = 0; step < 25; ++step) {
    const Pair p = headingPair(20.0 + 0.1 * step);
    CalcQueltaRotVec(p.mag, p.acc, 0);
    if (fOutRov[2] != last[2]) {
      ++published;
      for (int i = 0; i < 4; ++i) last[i] = fOutRov[i];
    }
  }
  // 2.4 degrees of heading move z by about 0.021: the first call and then
  // one publication per 0.005 or so, not one per call.
  EXPECT_GE(published, 4);
  EXPECT_LE(published, 6);
}

// Equal to the threshold is not "less than": the new value is published.
TEST(RotvecHold, ComparisonIsStrict) {
  const Pair a = headingPair(-30.0), b = headingPair(-30.5), c = headingPair(-31.0);
  const auto qa = rotvec_test::firstCallOf(a.mag, a.acc);
  const auto qb = rotvec_test::firstCallOf(b.mag, b.acc);
  const auto qc = rotvec_test::firstCallOf(c.mag, c.acc);
  const float dab = std::fabs(qb.rov[2] - qa.rov[2]);
  const float dbc = std::fabs(qc.rov[2] - qb.rov[2]);
  for (int i : {0, 1}) {
    ASSERT_LT(std::fabs(qb.rov[i] - qa.rov[i]), dab);
    ASSERT_LT(std::fabs(qc.rov[i] - qb.rov[i]), dbc);
  }

  CalcQueltaRotVec(a.mag, a.acc, 0);
  movethd = dab;
  CalcQueltaRotVec(b.mag, b.acc, 0);
  expectPublished(qb.rov);
  movethd = std::nextafter(dbc, 1.0f);
  CalcQueltaRotVec(c.mag, c.acc, 0);
  expectPublished(qb.rov);
}

}  // namespace
