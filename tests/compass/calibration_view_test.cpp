// SPDX-License-Identifier: Apache-2.0
// What a host (the replay tool among them) reads of the compass's magnetic
// layer through the C interface: the calibration in use and the last field
// sample agree with each other, with the quality report and with the truth of
// a simulated device with hard and soft iron.
#include <gtest/gtest.h>

#include <cmath>

#include "quelta/compass/compass_math.h"
#include "quelta/quelta.h"

namespace quelta::compass {
namespace {

TEST(CompassCInterface, CalibrationAndLastFieldSampleAsTheLayerHasThem) {
  const Vec3 earth{0.0, 0.25, -0.433};  // gauss, east-north-up, 60 degrees of dip
  const Vec3 hardIron{0.6, -0.6, 4.1};
  // A symmetric soft iron with determinant 1 (gains 0.95..1.05, small cross terms).
  const double soft[3][3] = {{1.05, 0.03, 0.0}, {0.03, 0.95, -0.02}, {0.0, -0.02, 1.0}};
  static quelta_compass state;
  quelta_mag_sample field;
  quelta_mag_calibration calibration;
  ASSERT_EQ(quelta_compass_init(&state), 0);
  // Before any field the view is empty, not garbage.
  ASSERT_EQ(quelta_compass_get_field(&state, &field), 0);
  ASSERT_EQ(quelta_compass_get_calibration(&state, &calibration), 0);
  EXPECT_EQ(field.valid, 0);
  EXPECT_EQ(calibration.model, QUELTA_MAG_MODEL_NONE);

  Quat q{1, 0, 0, 0};
  double t = 0.0;
  int newCalibrations = 0;
  for (int i = 0; i < 50 * 90; ++i) {
    const Vec3 w{1.2 * std::sin(0.31 * t), 0.9 * std::cos(0.23 * t), 0.8 * std::sin(0.17 * t + 1.0)};
    q = normalised(q * fromRotationVector(0.02 * w));
    t += 0.02;
    const Vec3 acc = rotateBack(q, {0, 0, 1}), b = rotateBack(q, earth);
    const double bv[3] = {b.x, b.y, b.z};
    double raw[3];
    for (int r = 0; r < 3; ++r) raw[r] = soft[r][0] * bv[0] + soft[r][1] * bv[1] + soft[r][2] * bv[2];
    raw[0] += hardIron.x;
    raw[1] += hardIron.y;
    raw[2] += hardIron.z;
    const double a[3] = {acc.x, acc.y, acc.z};
    ASSERT_EQ(quelta_compass_update(&state, t, a, raw, nullptr), 0);
    ASSERT_EQ(quelta_compass_get_field(&state, &field), 0);
    ASSERT_EQ(quelta_compass_get_calibration(&state, &calibration), 0);
    ASSERT_EQ(field.valid, 1);
    newCalibrations += field.new_calibration;
    if (calibration.model == QUELTA_MAG_MODEL_NONE) continue;
    // The field reported is the calibration reported applied to this raw sample.
    for (int r = 0; r < 3; ++r) {
      double c = 0.0;
      for (int k = 0; k < 3; ++k) c += calibration.soft_iron[3 * r + k] * (raw[k] - calibration.offset[k]);
      ASSERT_NEAR(field.calibrated[r], c, 1e-9) << "t=" << t;
    }
  }
  EXPECT_GT(newCalibrations, 0);
  quelta_mag_quality quality;
  ASSERT_EQ(quelta_compass_get_calibration_quality(&state, &quality), 0);
  EXPECT_EQ(quality.accuracy, 3);
  EXPECT_EQ(field.accuracy, quality.accuracy);
  EXPECT_DOUBLE_EQ(calibration.strength, quality.fitted_strength);
  EXPECT_EQ(field.disturbed, 0);
  EXPECT_LT(field.disturbance, 1.0);
  // The truth: offset, strength and dip.
  EXPECT_NEAR(calibration.offset[0], hardIron.x, 0.01);
  EXPECT_NEAR(calibration.offset[1], hardIron.y, 0.01);
  EXPECT_NEAR(calibration.offset[2], hardIron.z, 0.01);
  EXPECT_NEAR(calibration.dip_deg, 60.0, 2.0);
  // The soft-iron matrix undoes the device's: estimate times truth is a
  // multiple of the identity.
  EXPECT_EQ(calibration.model, QUELTA_MAG_MODEL_ELLIPSOID);
  double m[3][3];
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      m[r][c] = 0.0;
      for (int k = 0; k < 3; ++k) m[r][c] += calibration.soft_iron[3 * r + k] * soft[k][c];
    }
  }
  const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                     m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                     m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
  const double scale = std::cbrt(det);
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(m[r][c] / scale, r == c ? 1.0 : 0.0, 0.02) << r << c;
  }
  EXPECT_NEAR(field.strength, std::sqrt(field.calibrated[0] * field.calibrated[0] +
                                        field.calibrated[1] * field.calibrated[1] +
                                        field.calibrated[2] * field.calibrated[2]),
              1e-9);
  EXPECT_EQ(quelta_compass_get_field(nullptr, &field), -1);
  EXPECT_EQ(quelta_compass_get_calibration(&state, nullptr), -1);
}

}  // namespace
}  // namespace quelta::compass
