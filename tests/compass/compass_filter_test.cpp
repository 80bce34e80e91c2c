// SPDX-License-Identifier: Apache-2.0
// The compass filter on simulated devices with known truth: conventions of
// the angles, start-up, gyroscope bias, turning, disturbances, the filter
// without gyroscope, awkward input, and the C interface.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "quelta/compass/compass.h"
#include "quelta/compass/compass_filter.h"
#include "tests/compass/attitude_errors.h"
#include "quelta/quelta.h"
#include "tests/support/allocation_counter.h"

namespace quelta::compass {
namespace {

// Earth field with 60 degrees of dip, gauss, east-north-up.
const Vec3 kField{0.0, 0.25, -0.433};

struct Truth {
  Quat attitude;  // device to east-north-up
  Vec3 rate;      // device frame, rad/s
};

// Sensor readings of a device in attitude q: specific force of gravity plus
// linear acceleration (earth frame, g), field plus disturbance (earth frame).
Vec3 accOf(const Quat& q, Vec3 linear = {}) { return rotateBack(q, Vec3{0, 0, 1} + linear); }
Vec3 fieldOf(const Quat& q, Vec3 extra = {}) { return rotateBack(q, kField + extra); }


// Runs the filter over a motion given as a rate profile, starting from q0.
// Calls check(t, truth) after each sample.
struct Motion {
  double rate = 50.0;      // Hz
  double jitter = 0.0;     // fraction of the period, deterministic
  Vec3 gyroBias;
  bool gyro = true;
  std::function<Vec3(double)> rateAt = [](double) { return Vec3{}; };  // device frame
  std::function<Vec3(double)> linearAt = [](double) { return Vec3{}; };
  std::function<Vec3(double)> disturbanceAt = [](double) { return Vec3{}; };

  Quat go(CompassFilter& filter, Quat q0, double duration,
          const std::function<void(double, const Quat&)>& check = nullptr) const {
    Quat q = q0;
    double t = 0.0;
    int i = 0;
    while (t < duration) {
      const double period = (1.0 + jitter * std::sin(1.7 * i)) / rate;
      // Integrate the truth finely within the period; every sensor reports
      // its mean over the period, as anti-aliased sensors do.
      const int steps = 8;
      Vec3 mean, acc, field;
      for (int k = 0; k < steps; ++k) {
        const double tk = t + (k + 0.5) * period / steps;
        const Vec3 w = rateAt(tk);
        q = normalised(q * fromRotationVector((period / steps) * w));
        mean = mean + (1.0 / steps) * w;
        acc = acc + (1.0 / steps) * accOf(q, linearAt(tk));
        field = field + (1.0 / steps) * fieldOf(q, disturbanceAt(tk));
      }
      t += period;
      ++i;
      const Vec3 g = mean + gyroBias;
      filter.update(t, acc, &field, FieldQuality{}, gyro ? &g : nullptr);
      if (check) check(t, q);
    }
    return q;
  }
};

Quat fromAngles(double yawDeg, double pitchUpDeg, double rollDeg) {
  // Turn about up (clockwise from north), then tilt the top edge up, then
  // the right edge down about the device y axis.
  return aboutUp(-yawDeg * kDeg) * fromRotationVector({pitchUpDeg * kDeg, 0, 0}) *
         fromRotationVector({0, rollDeg * kDeg, 0});
}

TEST(CompassAngles, ConventionsOfTheFixedOrientationOutput) {
  struct Case {
    Quat q;
    double azimuth, pitch, roll;
  } cases[] = {
      {fromAngles(0, 0, 0), 0, 0, 0},
      {fromAngles(90, 0, 0), 90, 0, 0},      // top edge east
      {fromAngles(270, 0, 0), 270, 0, 0},
      {fromAngles(30, 20, 0), 30, -20, 0},   // top edge rises: negative pitch
      {fromAngles(30, -20, 0), 30, 20, 0},   // top edge dips: positive pitch
      {fromAngles(0, 0, -25), 0, 0, 25},     // right edge rises: positive roll
      {fromAngles(0, 180, 0), 180, 180, 0},  // screen down: pitch folds past 90, top edge points south
  };
  for (const Case& c : cases) {
    double azimuth, pitch, roll;
    anglesOf(c.q, azimuth, pitch, roll);
    EXPECT_NEAR(std::fmod(azimuth - c.azimuth + 540.0, 360.0) - 180.0, 0.0, 1e-9) << c.azimuth;
    EXPECT_NEAR(pitch, c.pitch, 1e-9);
    EXPECT_NEAR(roll, c.roll, 1e-9);
    // TRIAD from exact readings gives the attitude back.
    Quat triad;
    ASSERT_TRUE(attitudeFromVectors(accOf(c.q), fieldOf(c.q), triad));
    EXPECT_LT(std::fabs(headingErrorDeg(c.q, triad)) + tiltErrorDeg(c.q, triad), 1e-9);
  }
}

TEST(CompassFilter, StartsOnTheFirstSampleAndAppliesDeclination) {
  CompassFilter filter;
  const Quat q = fromAngles(123.0, 10.0, -5.0);
  filter.update(0.0, accOf(q), nullptr, FieldQuality{}, nullptr);
  EXPECT_TRUE(filter.output().flags & kFlagNoHeading);
  EXPECT_NEAR(tiltErrorDeg(q, filter.output().attitude), 0.0, 1e-9);
  const Vec3 field = fieldOf(q);
  filter.update(0.02, accOf(q), &field, FieldQuality{}, nullptr);
  EXPECT_FALSE(filter.output().flags & kFlagNoHeading);
  double azimuth, pitch, roll;
  anglesOf(q, azimuth, pitch, roll);
  EXPECT_NEAR(filter.output().azimuthDeg, azimuth, 1e-6);
  EXPECT_NEAR(filter.output().pitchDeg, pitch, 1e-6);
  EXPECT_NEAR(filter.output().rollDeg, roll, 1e-6);

  CompassFilter east;
  east.setDeclination(10.0);  // magnetic north lies 10 degrees east of true north
  east.update(0.0, accOf(q), &field, FieldQuality{}, nullptr);
  EXPECT_NEAR(east.output().azimuthDeg, azimuth + 10.0, 1e-6);
  // Gravity and linear acceleration from the attitude.
  const CompassOutput& o = east.output();
  const Vec3 acc = accOf(q);
  EXPECT_NEAR(norm(o.gravity - acc), 0.0, 1e-9);
  EXPECT_NEAR(norm(o.linearAcc), 0.0, 1e-9);
}

TEST(CompassFilter, LearnsAGyroscopeBiasAtRestAndWhileTurning) {
  const Vec3 bias{0.02, -0.02, 0.02};
  {
    CompassFilter filter;
    Motion run;
    run.gyroBias = bias;
    const Quat q = run.go(filter, fromAngles(40, 5, 5), 20.0);
    EXPECT_LT(norm(filter.output().gyroBias - bias), 0.002);
    EXPECT_TRUE(filter.output().flags & kFlagResting);
    EXPECT_LT(std::fabs(headingErrorDeg(q, filter.output().attitude)), 0.5);
  }
  {
    // Never still: a slow tumble about a changing axis.
    CompassFilter filter;
    Motion run;
    run.gyroBias = bias;
    run.rateAt = [](double t) { return Vec3{0.3 * std::sin(0.5 * t), 0.25 * std::cos(0.37 * t), 0.4}; };
    double worst = 0.0;
    const Quat q = run.go(filter, fromAngles(0, 0, 0), 300.0, [&](double t, const Quat& truth) {
      if (t > 200.0) worst = std::fmax(worst, std::fabs(headingErrorDeg(truth, filter.output().attitude)));
    });
    // Learning from the pulls alone is slow (tens of seconds per step).
    EXPECT_LT(worst, 4.0);
    EXPECT_LT(norm(filter.output().gyroBias - bias), 0.015);
    EXPECT_LT(tiltErrorDeg(q, filter.output().attitude), 2.0);
  }
}

TEST(CompassFilter, FastTurnsAtAnyRateWithIrregularIntervals) {
  for (double rate : {10.0, 50.0, 400.0}) {
    CompassFilter filter;
    Motion run;
    run.rate = rate;
    run.jitter = 0.3;
    run.rateAt = [](double t) { return Vec3{2.0 * std::sin(1.1 * t), 1.5 * std::cos(0.7 * t), 3.0 * std::sin(0.3 * t)}; };
    double worstHeading = 0.0, worstTilt = 0.0;
    run.go(filter, fromAngles(200, 30, 10), 30.0, [&](double t, const Quat& truth) {
      if (t < 5.0) return;
      worstHeading = std::fmax(worstHeading, std::fabs(headingErrorDeg(truth, filter.output().attitude)));
      worstTilt = std::fmax(worstTilt, tiltErrorDeg(truth, filter.output().attitude));
    });
    // At 10 Hz a reading spans up to 0.4 rad of turn about a changing axis.
    const double bound = rate < 20.0 ? 2.0 : 1.0;
    EXPECT_LT(worstHeading, bound) << rate;
    EXPECT_LT(worstTilt, bound) << rate;
  }
}

TEST(CompassFilter, GyroscopeCarriesTheHeadingThroughADisturbance) {
  CompassFilter filter;
  Motion run;
  run.rateAt = [](double t) { return Vec3{0.0, 0.0, 0.3 * std::sin(0.4 * t)}; };
  // A steel object nearby: strength up by a third, direction off by 20 degrees.
  run.disturbanceAt = [](double t) { return t > 20.0 && t < 35.0 ? Vec3{0.2, -0.1, -0.2} : Vec3{}; };
  double worst = 0.0;
  bool flagged = false;
  double accuracyDuring = 0.0, accuracyBefore = 0.0;
  run.go(filter, fromAngles(10, 0, 0), 60.0, [&](double t, const Quat& truth) {
    if (t > 5.0) worst = std::fmax(worst, std::fabs(headingErrorDeg(truth, filter.output().attitude)));
    if (t > 22.0 && t < 35.0) flagged = flagged || (filter.output().flags & kFlagMagneticDisturbance);
    if (t > 19.0 && t < 19.05) accuracyBefore = filter.output().headingAccuracyDeg;
    if (t > 34.0 && t < 34.05) accuracyDuring = filter.output().headingAccuracyDeg;
  });
  EXPECT_TRUE(flagged);
  // Held for the first 10 s, then followed slowly as the references come round.
  EXPECT_LT(worst, 4.0);
  EXPECT_GT(accuracyDuring, accuracyBefore);  // the estimate grows while the gyroscope alone carries
  EXPECT_FALSE(filter.output().flags & kFlagMagneticDisturbance);
}

TEST(CompassFilter, AccelerationShocksAndSustainedAcceleration) {
  CompassFilter filter;
  Motion run;
  // Taps every second (the very first sample one of them): 3 g for 40 ms
  // and the rebound (a tapped device stays where it is), then 0.3 g
  // sideways for 5 s.
  run.linearAt = [](double t) {
    if (t < 20.0) {
      const double phase = std::fmod(t, 1.0);
      return phase < 0.04 ? Vec3{3.0, 0.0, 0.0} : (phase < 0.08 ? Vec3{-3.0, 0.0, 0.0} : Vec3{});
    }
    return t < 25.0 ? Vec3{0.0, 0.3, 0.0} : Vec3{};
  };
  double worstTaps = 0.0, worstSustained = 0.0, after = 0.0;
  bool accelerating = false;
  const Quat q = run.go(filter, fromAngles(0, 10, 0), 40.0, [&](double t, const Quat& truth) {
    const double e = tiltErrorDeg(truth, filter.output().attitude);
    if (t > 1.0 && t < 20.0) worstTaps = std::fmax(worstTaps, e);
    if (t > 20.0 && t < 25.0) worstSustained = std::fmax(worstSustained, e);
    if (t > 35.0) after = std::fmax(after, e);
    if (t > 21.0 && t < 25.0) accelerating = accelerating || (filter.output().flags & kFlagAccelerating);
  });
  // A 3 g tap tilts a plain accelerometer by 72 degrees; the limited pull
  // of each sample on the earth-frame mean keeps it to a few degrees.
  EXPECT_LT(worstTaps, 3.0);
  // 0.3 g tilts a plain accelerometer by 16.7 degrees; the filter follows
  // slowly and recovers.
  EXPECT_LT(worstSustained, 16.0);
  // Part of the sustained pull was taken for a bias; it unwinds within the
  // bias loop's ten seconds or so instead of sustaining the wrong tilt.
  EXPECT_LT(after, 1.0);
  EXPECT_LT(tiltErrorDeg(q, filter.output().attitude), 0.6);
  EXPECT_TRUE(accelerating);
}

TEST(CompassFilter, WithoutGyroscopeFollowsTurnsAndDerivesTheRate) {
  CompassFilter filter;
  Motion run;
  run.gyro = false;
  run.rateAt = [](double t) { return t > 5.0 && t < 15.0 ? Vec3{0.0, 0.0, 0.5} : Vec3{}; };
  double rateDuring = 0.0;
  const Quat q = run.go(filter, fromAngles(0, 20, 0), 25.0, [&](double t, const Quat&) {
    if (t > 10.0 && t < 10.05) rateDuring = filter.output().rate.z;
  });
  EXPECT_NEAR(rateDuring, 0.5, 0.1);
  EXPECT_LT(std::fabs(headingErrorDeg(q, filter.output().attitude)), 0.5);
  EXPECT_LT(tiltErrorDeg(q, filter.output().attitude), 0.5);
}

TEST(CompassFilter, AwkwardInputKeepsTheOutputsFiniteWithoutHeap) {
  CompassFilter filter;
  const Quat q = fromAngles(77, 0, 0);
  const Vec3 acc = accOf(q), field = fieldOf(q), gyro{};
  const double nan = std::nan("");
  const Vec3 bad{nan, 1.0, INFINITY}, zero{};
  test::AllocationCounter allocations;
  double t = 0.0;
  for (int i = 0; i < 500; ++i) {
    t += (i % 7 == 0) ? -0.05 : (i % 11 == 0 ? 0.0 : (i % 97 == 0 ? 30.0 : 0.02));
    filter.update(t, i % 5 == 0 ? bad : acc, i % 3 == 0 ? &bad : (i % 13 == 0 ? &zero : &field), FieldQuality{},
                  i % 4 == 0 ? &bad : &gyro);
    const CompassOutput& o = filter.output();
    ASSERT_TRUE(std::isfinite(o.attitude.w + o.attitude.x + o.attitude.y + o.attitude.z + o.azimuthDeg +
                              o.pitchDeg + o.rollDeg + o.headingAccuracyDeg + o.rate.x + o.gyroBias.z));
  }
  filter.update(INFINITY, acc, &field, FieldQuality{}, &gyro);
  EXPECT_EQ(allocations.count(), 0);
  EXPECT_LT(std::fabs(headingErrorDeg(q, filter.output().attitude)), 1.0);
}

TEST(CompassCInterface, TwoInstancesAndTheSameAnswersAsTheClass) {
  static quelta_compass a, b;
  ASSERT_EQ(quelta_compass_init(&a), 0);
  ASSERT_EQ(quelta_compass_init(&b), 0);
  ASSERT_EQ(quelta_compass_set_declination(&b, -5.0), 0);
  CompassFilter reference;
  const Quat q = fromAngles(300, -15, 8);
  const Vec3 acc = accOf(q), field = fieldOf(q);
  const double accArray[3] = {acc.x, acc.y, acc.z}, fieldArray[3] = {field.x, field.y, field.z};
  const double gyro[3] = {0.0, 0.0, 0.0};
  const quelta_compass_field_quality quality = {0, 2, 0.0, 3.0};
  for (int i = 0; i < 100; ++i) {
    const double t = 0.02 * i;
    ASSERT_EQ(quelta_compass_update_calibrated(&a, t, accArray, fieldArray, &quality, gyro), 0);
    ASSERT_EQ(quelta_compass_update_calibrated(&b, t, accArray, fieldArray, nullptr, nullptr), 0);
    const Vec3 g{0.0, 0.0, 0.0};
    FieldQuality fq;
    fq.calibrationAccuracy = 2;
    fq.calibrationHeadingErrorDeg = 3.0;
    reference.update(t, acc, &field, fq, &g);
  }
  quelta_compass_output oa, ob;
  ASSERT_EQ(quelta_compass_get_output(&a, &oa), 0);
  ASSERT_EQ(quelta_compass_get_output(&b, &ob), 0);
  const CompassOutput& r = reference.output();
  EXPECT_EQ(oa.quaternion[0], r.attitude.w);
  EXPECT_EQ(oa.quaternion[3], r.attitude.z);
  EXPECT_EQ(oa.heading_accuracy_deg, r.headingAccuracyDeg);
  EXPECT_EQ(oa.flags, r.flags);
  EXPECT_TRUE(oa.flags & QUELTA_COMPASS_FLAG_CALIBRATING);
  EXPECT_TRUE(oa.flags & QUELTA_COMPASS_FLAG_GYROSCOPE);
  EXPECT_LE(oa.accuracy, 2);
  EXPECT_NEAR(std::fmod(ob.azimuth_deg - oa.azimuth_deg + 360.0, 360.0), 355.0, 1e-6);
  // Misuse is refused.
  static quelta_compass junk{};
  EXPECT_EQ(quelta_compass_update(&junk, 0.0, accArray, nullptr, nullptr), -1);
  EXPECT_EQ(quelta_compass_update_calibrated(&a, 0.0, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(quelta_compass_get_output(nullptr, &oa), -1);
  EXPECT_EQ(quelta_compass_init(nullptr), -1);
  ASSERT_EQ(quelta_compass_reset(&a), 0);
  ASSERT_EQ(quelta_compass_get_output(&a, &oa), 0);
  EXPECT_TRUE(oa.flags & QUELTA_COMPASS_FLAG_NO_HEADING);
}

// A device with its own hard iron, turned by hand through many directions:
// the whole compass calibrates the raw field, then heads right; a second
// compass restored from the saved calibration heads right at once.
TEST(CompassCInterface, CalibratesTheRawFieldAndRestoresTheCalibration) {
  const Vec3 hardIron{0.6, -0.6, 4.1};  // ten times the earth's field, as a phone's
  static quelta_compass first, second;
  ASSERT_EQ(quelta_compass_init(&first), 0);
  Quat q = fromAngles(30, 0, 0);
  double t = 0.0;
  double worstLate = 0.0;
  bool calibrating = false;
  test::AllocationCounter allocations;  // calibration included: still no heap
  for (int i = 0; i < 50 * 90; ++i) {
    const Vec3 w{1.2 * std::sin(0.31 * t), 0.9 * std::cos(0.23 * t), 0.8 * std::sin(0.17 * t + 1.0)};
    q = normalised(q * fromRotationVector(0.02 * w));
    t += 0.02;
    const Vec3 acc = accOf(q), raw = fieldOf(q) + hardIron;
    const double a[3] = {acc.x, acc.y, acc.z}, m[3] = {raw.x, raw.y, raw.z}, g[3] = {w.x, w.y, w.z};
    ASSERT_EQ(quelta_compass_update(&first, t, a, m, g), 0);
    quelta_compass_output out;
    ASSERT_EQ(quelta_compass_get_output(&first, &out), 0);
    if (t < 1.0) calibrating = calibrating || (out.flags & QUELTA_COMPASS_FLAG_CALIBRATING);
    if (t > 60.0) {
      const Quat e{out.quaternion[0], out.quaternion[1], out.quaternion[2], out.quaternion[3]};
      worstLate = std::fmax(worstLate, std::fabs(headingErrorDeg(q, e)));
    }
  }
  EXPECT_EQ(allocations.count(), 0);
  EXPECT_TRUE(calibrating);
  EXPECT_LT(worstLate, 2.0);
  quelta_mag_quality quality;
  ASSERT_EQ(quelta_compass_get_calibration_quality(&first, &quality), 0);
  EXPECT_EQ(quality.accuracy, 3);

  uint8_t record[QUELTA_MAG_RECORD_SIZE];
  ASSERT_EQ(quelta_compass_save_calibration(&first, record), QUELTA_MAG_RECORD_OK);
  ASSERT_EQ(quelta_compass_init(&second), 0);
  EXPECT_EQ(quelta_compass_restore_calibration(&second, record, sizeof record - 1), QUELTA_MAG_RECORD_TRUNCATED);
  ASSERT_EQ(quelta_compass_restore_calibration(&second, record, sizeof record), QUELTA_MAG_RECORD_OK);
  const Quat still = fromAngles(250, 10, -5);
  const Vec3 acc = accOf(still), raw = fieldOf(still) + hardIron;
  const double a[3] = {acc.x, acc.y, acc.z}, m[3] = {raw.x, raw.y, raw.z};
  ASSERT_EQ(quelta_compass_update(&second, 0.0, a, m, nullptr), 0);
  quelta_compass_output out;
  ASSERT_EQ(quelta_compass_get_output(&second, &out), 0);
  const Quat e{out.quaternion[0], out.quaternion[1], out.quaternion[2], out.quaternion[3]};
  EXPECT_LT(std::fabs(headingErrorDeg(still, e)), 1.0);
}

}  // namespace
}  // namespace quelta::compass
