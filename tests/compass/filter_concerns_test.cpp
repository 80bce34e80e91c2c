// SPDX-License-Identifier: Apache-2.0
// The compass filter's parts with known truth: the gyroscope bias at rest
// and its unusable verdict, the heading and its bias through a gap in the
// field, a new reference, a shaken device's tilt, and a raw gyroscope on a
// device that is never still.
#include <gtest/gtest.h>

#include <cmath>

#include "quelta/compass/compass_filter.h"
#include "tests/compass/attitude_errors.h"
#include "quelta/compass/gyro_bias.h"
#include "quelta/compass/heading_estimate.h"

namespace quelta::compass {
namespace {

const Vec3 kField{0.0, 0.25, -0.433};  // gauss, east-north-up, 60 degrees of dip


TEST(GyroBias, RestTeachesAnyBiasButASteadyTurnIsNoRestAndTooLargeIsUnusable) {
  const Vec3 acc{0.0, 0.0, 1.0};
  {
    // At rest: a raw bias of 0.1 rad/s is learnt within seconds, its
    // uncertainty falls from the start's to the rest's.
    GyroBias bias;
    EXPECT_DOUBLE_EQ(std::sqrt(bias.horizontalVar()), bias.settings().startSigma);
    const Vec3 b{0.1, -0.03, 0.02};
    const Vec3 field{0.0, 0.25, -0.433};
    for (int i = 0; i < 300; ++i) bias.observe(b, acc, &field, 0.02);
    EXPECT_TRUE(bias.resting());
    EXPECT_LT(norm(bias.value() - b), 0.003);
    EXPECT_LT(std::sqrt(bias.horizontalVar()), 0.01);
    EXPECT_TRUE(bias.usable());
  }
  {
    // A steady turn of 0.05 rad/s about up: rate and accelerometer are as
    // steady as at rest, the field turns: no rest, nothing learnt.
    GyroBias bias;
    for (int i = 0; i < 500; ++i) {
      const double a = 0.05 * 0.02 * i;
      const Vec3 field{0.25 * std::sin(a), 0.25 * std::cos(a), -0.433};
      bias.observe({0.0, 0.0, 0.05}, acc, &field, 0.02);
    }
    EXPECT_FALSE(bias.resting());
    EXPECT_EQ(norm(bias.value()), 0.0);
  }
  {
    // Resting but reading 0.5 rad/s: unusable until a rest shows a bias
    // the filter can learn.
    GyroBias bias;
    const Vec3 field = kField;
    for (int i = 0; i < 200; ++i) bias.observe({0.5, 0.0, 0.0}, acc, &field, 0.02);
    EXPECT_FALSE(bias.usable());
    for (int i = 0; i < 200; ++i) bias.observe({0.01, 0.0, 0.0}, acc, &field, 0.02);
    EXPECT_TRUE(bias.usable());
  }
}

TEST(CompassFilter, AnUnusableGyroscopeFallsBackToTrackingWithoutIt) {
  CompassFilter filter;
  const Vec3 acc{0.0, 0.0, 1.0};
  const Vec3 field = kField;
  const Vec3 broken{0.0, 0.0, 0.6};  // rad/s on a device lying still
  for (int i = 1; i <= 300; ++i) filter.update(0.02 * i, acc, &field, FieldQuality{}, &broken);
  EXPECT_FALSE(filter.gyroUsable());
  EXPECT_FALSE(filter.output().flags & kFlagGyroscope);
  // Followed as without a gyroscope, the still device's heading stays put
  // (integrating 0.6 rad/s would have turned it by 170 degrees).
  EXPECT_LT(std::fabs(headingErrorDeg(Quat{}, filter.output().attitude)), 1.0);
}

TEST(HeadingEstimate, AGapInTheFieldTeachesTheBiasAndAClearDisagreementBecomesTheReference) {
  // Errors only: the field says the heading is off by psi.
  HeadingEstimate h;
  const double dt = 0.02;
  h.reset(0.01 * 0.01);
  h.start(dt);
  double error = 0.0;        // true heading minus estimate, rad
  double biasError = 0.004;  // rad/s about up, not yet known
  auto step = [&](bool field, bool clean) {
    h.predict(dt, 0.0, 0.0);
    error -= biasError * dt;
    if (!field) return;
    const HeadingEstimate::Correction c = h.correct(error, dt, true, clean, 1.0, 0.0);
    error -= c.heading;
    biasError -= c.bias;
  };
  for (int i = 0; i < 3000; ++i) step(true, true);  // 60 s with the field
  EXPECT_LT(std::fabs(biasError), 0.001);
  EXPECT_LT(std::fabs(error), 0.2 * kDeg);
  // 40 s without: the heading drifts, and its variance says by how much.
  biasError = 0.002;
  for (int i = 0; i < 2000; ++i) step(false, false);
  const double drift = std::fabs(error);
  EXPECT_NEAR(drift, 0.08, 0.01);
  EXPECT_GT(std::sqrt(h.headingVar()), 0.3 * drift);
  // The field comes back: the heading and, from the drift over the gap,
  // much of the bias are corrected.
  for (int i = 0; i < 500; ++i) step(true, true);
  EXPECT_LT(std::fabs(error), 1.0 * kDeg);
  EXPECT_LT(std::fabs(biasError), 0.0015);

  // A jump of 40 degrees: refused while the field is suspect, taken as the
  // new reference once clean for long enough.
  error = 40.0 * kDeg;
  for (int i = 0; i < 1000; ++i) step(true, false);
  EXPECT_GT(error / kDeg, 36.0);  // not followed (what moved is the bias left over the 20 s)
  for (int i = 0; i < 1000; ++i) step(true, true);
  EXPECT_LT(std::fabs(error), 2.0 * kDeg);
}

TEST(HeadingEstimate, ASteadyDisagreementOnAFieldCleanOnlyNowAndThenIsTakenButAWanderingOneIsNot) {
  // A heading 120 degrees off (an attitude lost and found wrongly) on a
  // field that passes every test only half of each second (a walking
  // device's dip swings with its tilt): the disagreement holds, so its
  // clean time counts though interrupted, and the heading comes back.
  const double dt = 0.02;
  auto run = [&](bool wandering) {
    HeadingEstimate h;
    h.reset(0.002 * 0.002);
    h.start(dt);
    for (int i = 0; i < 500; ++i) h.correct(0.0, dt, true, true, 1.0, 0.0);  // settled on the right heading
    double error = 120.0 * kDeg;
    for (int i = 0; i < 2500; ++i) {  // 50 s
      h.predict(dt, 0.0, 0.0);
      const bool clean = (i / 25) % 2 == 0;
      // A disturbance the device walks through: the field's error swings
      // by 80 degrees over 4 s, whatever the heading's.
      const double psi = wandering ? 120.0 * kDeg * std::sin(2.0 * kPi * i * dt / 8.0) : error;
      const HeadingEstimate::Correction c = h.correct(psi, dt, true, clean, 1.0, 0.0);
      error -= c.heading;
    }
    return error / kDeg;
  };
  EXPECT_LT(std::fabs(run(false)), 3.0);
  EXPECT_GT(std::fabs(run(true)), 100.0);  // never taken: the heading stays where the gyroscope carries it
}

// A device carried along: sensor readings of attitude q with linear
// acceleration lin (g, earth frame) and the gyroscope's rate w plus bias.
void feed(CompassFilter& filter, double t, const Quat& q, const Vec3& lin, const Vec3& w, const Vec3& bias) {
  const Vec3 acc = rotateBack(q, Vec3{0, 0, 1} + lin);
  const Vec3 field = rotateBack(q, kField);
  const Vec3 g = w + bias;
  filter.update(t, acc, &field, FieldQuality{}, &g);
}

TEST(CompassFilter, ShakenBackAndForthTheTiltHolds) {
  // Back and forth along one axis at 1.3 Hz with sharp pushes and gentle
  // returns (zero mean: the device goes nowhere), tilted 20 degrees, no
  // rotation: weighing the readings by their size would tilt by degrees.
  CompassFilter filter;
  const Quat q = fromRotationVector({20.0 * kDeg, 0.0, 0.0});
  double worst = 0.0;
  for (int i = 1; i <= 3000; ++i) {
    const double t = 0.02 * i;
    const double phase = 2.0 * kPi * 1.3 * t;
    const double a = 1.0 * std::sin(phase) + 0.6 * std::cos(2.0 * phase);
    feed(filter, t, q, {a, 0.0, 0.0}, {}, {});
    // (The first seconds are left out: while the tilt settles its error
    // turns the field's heading, which the heading takes partly for a bias.)
    if (t > 20.0) worst = std::fmax(worst, tiltErrorDeg(q, filter.output().attitude));
  }
  EXPECT_LT(worst, 1.5);
}

TEST(CompassFilter, ARawGyroscopeOnADeviceNeverStill) {
  // A raw bias of the size an uncompensated phone gyroscope has, on a device
  // that sways and turns the whole time.
  CompassFilter filter;
  const Vec3 bias{0.1, -0.025, 0.01};
  Quat q = fromRotationVector({0.1, 0.0, 0.0});
  double worstLate = 0.0;
  for (int i = 1; i <= 6000; ++i) {
    const double t = 0.02 * i;
    const Vec3 w{0.3 * std::sin(1.1 * t), 0.25 * std::cos(0.7 * t), 0.2 * std::sin(0.23 * t)};
    q = normalised(q * fromRotationVector(0.02 * w));
    feed(filter, t, q, {}, w, bias);
    if (t > 60.0) worstLate = std::fmax(worstLate, std::fabs(headingErrorDeg(q, filter.output().attitude)));
  }
  EXPECT_LT(worstLate, 3.0);
  EXPECT_LT(norm(filter.gyroBias() - bias), 0.01);
  // The stated uncertainty covers what is left.
  EXPECT_LT(filter.gyroBiasSigma(), 0.02);
  const Vec3 left = filter.gyroBias() - bias;
  EXPECT_LT(std::fmax(std::fabs(left.x), std::fmax(std::fabs(left.y), std::fabs(left.z))), 3.0 * filter.gyroBiasSigma());
}

}  // namespace
}  // namespace quelta::compass
