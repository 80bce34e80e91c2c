// The published quaternion only moves once x, y or z has changed by at least
// movethd since the last published value; the host changes movethd through
// the exported variable between calls. All calls are within the first 30, so
// each call's attitude is its raw sample's.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "tests/rotvec/rotvec_test_helpers.h"

namespace {

// A level device turned by headingDeg in a dipping field, and what a fresh
// instance publishes for it.
struct Heading {
  float mag[3], acc[3] = {0.0f, 0.0f, 1.0f};
  rotvec_test::FirstCall q;
  explicit Heading(double deg) {
    const double h = deg * 3.14159265358979323846 / 180.0;
    mag[0] = static_cast<float>(-0.25 * std::sin(h));
    mag[1] = static_cast<float>(0.25 * std::cos(h));
    mag[2] = -0.4f;
    q = rotvec_test::firstCallOf(mag, acc);
  }
  void call() const { CalcQueltaRotVec(mag, acc, 0); }
};

void expectPublished(const Heading& h) {
  for (int i = 0; i < 4; ++i) EXPECT_EQ(fOutRov[i], h.q.rov[i]) << "component " << i;
}

TEST(RotvecHold, SmallChangesRepublishThePreviousValue) {
  EXPECT_EQ(movethd, 0.005f);
  const Heading a(10.0), b(10.4), c(11.0), d(11.1);
  ASSERT_LT(std::fabs(b.q.rov[2] - a.q.rov[2]), 0.005f);
  ASSERT_GE(std::fabs(c.q.rov[2] - a.q.rov[2]), 0.005f);
  a.call();
  expectPublished(a);
  b.call();
  expectPublished(a);  // w included
  EXPECT_EQ(fGravityAcc[2], b.q.gravity[2]);  // gravity is never held
  c.call();  // measured against a, the last published, not against b
  expectPublished(c);
  d.call();
  expectPublished(c);
  movethd = 0.0f;  // honoured from the very next call
  d.call();
  expectPublished(d);
  movethd = 0.5f;
  a.call();
  expectPublished(d);
}

// A difference equal to the threshold is not "less than": published.
TEST(RotvecHold, ComparisonIsStrict) {
  const Heading a(-30.0), b(-30.5), c(-31.0);
  const float dab = std::fabs(b.q.rov[2] - a.q.rov[2]), dbc = std::fabs(c.q.rov[2] - b.q.rov[2]);
  for (int i : {0, 1}) ASSERT_LT(std::fabs(b.q.rov[i] - a.q.rov[i]), dab);  // z decides
  a.call();
  movethd = dab;
  b.call();
  expectPublished(b);
  movethd = std::nextafter(dbc, 1.0f);
  c.call();
  expectPublished(b);
}

}  // namespace
