// SPDX-License-Identifier: Apache-2.0
// The magnetic calibrator end to end on simulated devices with known truth:
// soft and hard iron, near-level motion, irregular and broken input, a new
// hard iron and a passing disturbance.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "quelta/magnetic/mag_calibrator.h"
#include "tools/sim/magnetic_sim.h"

namespace {

using quelta::Vec3d;
using quelta::magnetic::Calibrator;
using quelta::magnetic::Model;
using quelta::magnetic::SampleOutput;
using quelta::sim::Quat;
using quelta::sim::SoftIronDevice;

constexpr double kDeg = 57.29577951308232;

// Heading of the calibrated field levelled by the true attitude, against the
// true heading of the field (north).
double headingErrorDeg(const Calibrator& cal, const Quat& q, const double raw[3]) {
  return quelta::sim::levelledHeadingErrorDeg(q, cal.apply(Vec3d::load(raw)));
}

template <typename Motion>
void feed(Calibrator& cal, SoftIronDevice& dev, Motion motion, double from, double to, double rate) {
  double mag[3], acc[3];
  for (double t = from; t < to; t += 1.0 / rate) {
    dev.read(motion(t), mag, acc);
    cal.update(t, mag, acc);
  }
}

TEST(MagneticCalibration, SoftAndHardIronFromUnevenHandMotion) {
  SoftIronDevice dev;
  Calibrator cal;
  double mag[3], acc[3];
  for (double t = 0.0; t < 120.0; t += 0.02) {
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    cal.update(t, mag, acc);
  }
  // The heading error the calibration leaves, over attitudes all round
  // (noise-free readings: the noise is not the calibration's).
  SoftIronDevice exact = dev;
  exact.noiseGauss = 0.0;
  double worstHeading = 0.0;
  for (int i = 0; i < 400; ++i) {
    const quelta::sim::Vec3 d = quelta::sim::fibonacciDirection(i, 400);
    const Quat q = quelta::sim::attitudeFromHeadingPitchRoll(0.9 * i, std::asin(d.z) * kDeg * 0.95, 40.0 * d.x);
    exact.read(q, mag, acc);
    worstHeading = std::fmax(worstHeading, std::fabs(headingErrorDeg(cal, q, mag)));
  }
  const auto& c = cal.calibration();
  ASSERT_EQ(c.model, Model::Ellipsoid);
  EXPECT_LT(dev.shapeError(c.softIron), 0.01);
  EXPECT_LT(worstHeading, 1.0);
  EXPECT_EQ(cal.quality().accuracy, 3);
  EXPECT_LT(cal.quality().headingErrorDeg, 3.0);  // floored for real devices
  EXPECT_NEAR(quelta::det(c.softIron), 1.0, 1e-9);
  // Offset in the raw frame: exactly the hard iron, whatever the scale.
  EXPECT_NEAR(c.offset.x, dev.hardIron.x, 0.005);
  EXPECT_NEAR(c.offset.y, dev.hardIron.y, 0.005);
  EXPECT_NEAR(c.offset.z, dev.hardIron.z, 0.005);
}

TEST(MagneticCalibration, NearLevelMotionPinsTheVerticalOffset) {
  // Only a few degrees of tilt: gravity pins the offset along the vertical.
  // Known field strength and dip pin it as well, and sooner.
  for (const bool expected : {false, true}) {
    SCOPED_TRACE(expected ? "with expected field" : "tilt only");
    SoftIronDevice dev;
    for (auto& row : dev.distortion)
      for (int j = 0; j < 3; ++j) row[j] = 0.0;
    dev.distortion[0][0] = dev.distortion[1][1] = dev.distortion[2][2] = 1.0;
    Calibrator cal;
    if (expected) cal.setExpectedField({dev.field.strengthGauss, dev.field.inclinationDeg, true});
    feed(cal, dev, quelta::sim::textingMotion, 0.0, 60.0, 50.0);
    const auto& c = cal.calibration();
    EXPECT_EQ(c.model, Model::Sphere);
    EXPECT_NEAR(c.offset.x, dev.hardIron.x, 0.01);
    EXPECT_NEAR(c.offset.y, dev.hardIron.y, 0.01);
    EXPECT_NEAR(c.offset.z, dev.hardIron.z, 0.02);
    EXPECT_NEAR(c.strength, dev.field.strengthGauss, 0.02);
    EXPECT_GE(cal.quality().accuracy, 2);
  }
}

TEST(MagneticCalibration, AnyRateIrregularTimestampsAndBrokenSamples) {
  // The same motion at 20 Hz with jitter, repeated and backward timestamps, a
  // long gap, NaN, infinity and dead-sensor zeros ends at the same offset as
  // a clean 100 Hz run.
  SoftIronDevice clean;
  Calibrator reference;
  feed(reference, clean, quelta::sim::unevenHandMotion, 0.0, 90.0, 100.0);

  SoftIronDevice dev;
  Calibrator cal;
  quelta::sim::Random jitter(99);
  double mag[3], acc[3];
  int refused = 0;
  double t = 0.0;
  for (int i = 0; t < 90.0; ++i) {
    t += 0.05 * jitter.uniform(0.5, 1.5);
    if (i == 600) t += 20.0;  // a gap
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    double stamp = t;
    if (i % 37 == 0) stamp = t - 3.0;  // backwards
    if (i % 41 == 0) stamp = t - 0.05; // repeat-ish
    if (i % 53 == 0) mag[1] = NAN;
    if (i % 59 == 0) mag[2] = INFINITY;
    if (i % 61 == 0) mag[0] = mag[1] = mag[2] = 0.0;
    if (i % 67 == 0) acc[0] = NAN;
    const SampleOutput o = cal.update(stamp, mag, acc);
    refused += !o.valid;
    ASSERT_TRUE(std::isfinite(o.calibrated.x) && std::isfinite(o.disturbance));
  }
  EXPECT_GT(refused, 50);
  const double nanMag[3] = {NAN, NAN, NAN};
  EXPECT_FALSE(cal.update(NAN, nanMag, nullptr).valid);
  const auto& a = cal.calibration();
  const auto& b = reference.calibration();
  EXPECT_LT(quelta::norm(a.offset - b.offset), 0.01);
  EXPECT_LT(dev.shapeError(a.softIron), 0.03);
  EXPECT_EQ(cal.quality().accuracy, 3);
}

TEST(MagneticCalibration, NewHardIronIsAdoptedAndItsRemovalUndone) {
  SoftIronDevice dev;
  Calibrator cal;
  feed(cal, dev, quelta::sim::unevenHandMotion, 0.0, 60.0, 50.0);
  const Vec3d before = cal.calibration().offset;
  ASSERT_EQ(cal.quality().accuracy, 3);

  // A magnet fixed to the device: every sample shifts by the same vector.
  const quelta::sim::Vec3 original = dev.hardIron;
  dev.hardIron = {original.x + 0.25, original.y - 0.15, original.z + 0.55};
  double adoptedAfter = -1.0;
  double mag[3], acc[3];
  int flaggedLate = 0;
  for (double t = 60.0; t < 90.0; t += 0.02) {
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    const SampleOutput o = cal.update(t, mag, acc);
    const Vec3d truth{dev.hardIron.x, dev.hardIron.y, dev.hardIron.z};
    if (adoptedAfter < 0.0 && quelta::norm(cal.calibration().offset - truth) < 0.03) adoptedAfter = t - 60.0;
    if (t > 80.0) flaggedLate += o.disturbed;
  }
  EXPECT_GE(adoptedAfter, 0.0);
  EXPECT_LT(adoptedAfter, 10.0);
  EXPECT_EQ(flaggedLate, 0);  // a new hard iron is not a disturbance for ever
  EXPECT_GE(cal.quality().newHardIron, 1);

  // The magnet goes: back to the first calibration.
  dev.hardIron = original;
  double backAfter = -1.0;
  for (double t = 90.0; t < 110.0; t += 0.02) {
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    cal.update(t, mag, acc);
    if (backAfter < 0.0 && quelta::norm(cal.calibration().offset - before) < 0.03) backAfter = t - 90.0;
  }
  EXPECT_GE(backAfter, 0.0);
  EXPECT_LT(backAfter, 10.0);
}

TEST(MagneticCalibration, PassingDisturbanceIsFlaggedNotAdopted) {
  SoftIronDevice dev;
  Calibrator cal;
  feed(cal, dev, quelta::sim::unevenHandMotion, 0.0, 60.0, 50.0);
  const Vec3d before = cal.calibration().offset;
  const int changes = cal.quality().newHardIron;
  double mag[3], acc[3];
  int flagged = 0, judged = 0, flaggedAfter = 0;
  for (double t = 60.0; t < 80.0; t += 0.02) {
    // Steel nearby for 6 s: the field in the world changes by 40 % of its strength.
    const bool near = t >= 62.0 && t < 68.0;
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc, near ? quelta::sim::Vec3{0.12, -0.1, 0.1} : quelta::sim::Vec3{});
    const SampleOutput o = cal.update(t, mag, acc);
    if (near && t > 62.5) {
      ++judged;
      flagged += o.disturbed;
    }
    if (t > 70.0) flaggedAfter += o.disturbed;
  }
  EXPECT_GT(flagged, 0.9 * judged);
  EXPECT_EQ(flaggedAfter, 0);
  EXPECT_EQ(cal.quality().newHardIron, changes);
  EXPECT_LT(quelta::norm(cal.calibration().offset - before), 0.005);
  EXPECT_EQ(cal.quality().accuracy, 3);
}

TEST(MagneticCalibration, QualityExplainsWhatIsMissing) {
  Calibrator cal;
  EXPECT_EQ(cal.quality().reason, quelta::magnetic::Reason::NoSamples);
  EXPECT_EQ(cal.quality().accuracy, 0);
  // Held still: samples but no directions.
  SoftIronDevice dev;
  double mag[3], acc[3];
  for (double t = 0.0; t < 10.0; t += 0.02) {
    dev.read(quelta::sim::attitudeFromHeadingPitchRoll(30.0, 5.0, 0.0), mag, acc);
    cal.update(t, mag, acc);
  }
  EXPECT_EQ(cal.quality().reason, quelta::magnetic::Reason::Collecting);
  EXPECT_EQ(cal.calibration().model, Model::None);
  // Turning about one horizontal axis only (end over end): the offset along
  // that axis stays unknown, and the heading error says so.
  Calibrator oneAxis;
  feed(oneAxis, dev, [](double t) { return quelta::sim::attitudeFromHeadingPitchRoll(0.0, 57.3 * 0.6 * t, 0.0); },
       0.0, 30.0, 50.0);
  EXPECT_LT(oneAxis.quality().accuracy, 3);
  EXPECT_NE(oneAxis.quality().reason, quelta::magnetic::Reason::None);
}

}  // namespace
