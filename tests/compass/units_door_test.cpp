// SPDX-License-Identifier: Apache-2.0
// The compass's door (quelta_compass_set_units): an Android-style host
// (nanoseconds, m/s^2, microtesla, a sensor mounted turned) gets the same
// compass as a host in the native units; values that contradict the units
// draw their own codes and leave no trace; the batch call is a loop of
// single calls to the bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "quelta/compass/compass_math.h"
#include "quelta/quelta.h"

namespace quelta::compass {
namespace {

// A phone turned about every axis at 128 Hz (times exact in binary and in
// nanoseconds): accelerometer (g), raw field with the hard iron of a phone
// (gauss) and gyroscope (rad/s), device axes.
struct Phone {
  std::vector<double> t, acc, field, gyro;
};

Phone turningPhone(double seconds) {
  const Vec3 earth{0.0, 0.25, -0.433};    // gauss, east-north-up, 60 degrees of dip
  const Vec3 hardIron{0.6, -0.7, 4.1};    // gauss, a phone's own field
  Phone p;
  Quat q{1, 0, 0, 0};
  const double dt = 1.0 / 128.0;
  for (int i = 0; i * dt < seconds; ++i) {
    const double t = i * dt;
    const Vec3 w{1.0 * std::sin(0.31 * t), 0.8 * std::cos(0.23 * t), 0.9 * std::sin(0.17 * t + 1.0)};
    q = normalised(q * fromRotationVector(dt * w));
    const Vec3 a = rotateBack(q, {0, 0, 1}), b = rotateBack(q, earth) + hardIron;
    p.t.push_back(t);
    p.acc.insert(p.acc.end(), {a.x, a.y, a.z});
    p.field.insert(p.field.end(), {b.x, b.y, b.z});
    p.gyro.insert(p.gyro.end(), {w.x, w.y, w.z});
  }
  return p;
}

// sensor = M^T * device: what a sensor mounted with remap M reads.
void toSensor(const double m[9], const double* device, double* sensor) {
  for (int c = 0; c < 3; ++c) sensor[c] = m[c] * device[0] + m[3 + c] * device[1] + m[6 + c] * device[2];
}

TEST(CompassUnits, AndroidUnitsAndATurnedSensorGiveTheSameCompass) {
  const Phone p = turningPhone(60.0);
  const size_t n = p.t.size();
  static quelta_compass native, android;
  ASSERT_EQ(quelta_compass_init(&native), 0);
  ASSERT_EQ(quelta_compass_init(&android), 0);
  quelta_compass_units u;
  ASSERT_EQ(quelta_compass_units_default(&u), 0);
  u.time_unit = QUELTA_COMPASS_TIME_NS;
  u.acc_unit = QUELTA_COMPASS_ACC_MS2;
  u.field_unit = QUELTA_COMPASS_FIELD_UT;
  u.output_frame = QUELTA_COMPASS_FRAME_NED;
  ASSERT_EQ(quelta_compass_axes(QUELTA_COMPASS_AXES_ROTATED_90, u.field_axes), 0);  // the magnetometer turned
  ASSERT_EQ(quelta_compass_axes(QUELTA_COMPASS_AXES_FRD, u.acc_axes), 0);
  ASSERT_EQ(quelta_compass_axes(QUELTA_COMPASS_AXES_FRD, u.gyro_axes), 0);
  ASSERT_EQ(quelta_compass_set_units(&android, &u), 0);
  ASSERT_EQ(quelta_compass_set_expected_field(&native, 0.5, 60.0), 0);
  ASSERT_EQ(quelta_compass_set_expected_field(&android, 50.0, 60.0), 0);  // uT now

  const double boot = 3.6e12;  // ns since boot: an hour
  quelta_compass_output a, b;
  int reachedAccuracy3 = 0;
  for (size_t i = 0; i < n; ++i) {
    double acc[3], field[3], gyro[3];
    toSensor(u.acc_axes, &p.acc[3 * i], acc);
    toSensor(u.field_axes, &p.field[3 * i], field);
    toSensor(u.gyro_axes, &p.gyro[3 * i], gyro);
    for (int k = 0; k < 3; ++k) {
      acc[k] *= 9.80665;
      field[k] *= 100.0;
    }
    const double tNs = boot + p.t[i] * 1e9;
    ASSERT_EQ(quelta_compass_update(&native, p.t[i], &p.acc[3 * i], &p.field[3 * i], &p.gyro[3 * i]), 0);
    ASSERT_EQ(quelta_compass_update(&android, tNs, acc, field, gyro), 0) << i;
    ASSERT_EQ(quelta_compass_get_output(&native, &a), 0);
    ASSERT_EQ(quelta_compass_get_output(&android, &b), 0);
    EXPECT_EQ(b.t, tNs);  // the host's own time back
    ASSERT_EQ(a.flags, b.flags) << "t=" << p.t[i];
    ASSERT_EQ(a.accuracy, b.accuracy) << "t=" << p.t[i];
    reachedAccuracy3 += a.accuracy == 3;
  }
  EXPECT_GT(reachedAccuracy3, 0);
  // The sensors' values differ by the unit conversions' rounding only: the
  // same compass to well below a thousandth of a degree.
  EXPECT_NEAR(std::remainder(a.azimuth_deg - b.azimuth_deg, 360.0), 0.0, 1e-3);
  EXPECT_NEAR(a.pitch_deg, b.pitch_deg, 1e-3);
  EXPECT_NEAR(a.roll_deg, b.roll_deg, 1e-3);
  EXPECT_NEAR(a.heading_accuracy_deg, b.heading_accuracy_deg, 1e-3);
  // Gravity comes back in m/s^2 (device axes), the attitude towards
  // north-east-down: the same rotation with east and north swapped and up
  // turned down.
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(b.gravity[k], 9.80665 * a.gravity[k], 1e-4);
  const Quat enu{a.quaternion[0], a.quaternion[1], a.quaternion[2], a.quaternion[3]};
  const Quat ned{b.quaternion[0], b.quaternion[1], b.quaternion[2], b.quaternion[3]};
  const Vec3 top{0, 1, 0};
  const Vec3 e = rotate(enu, top), d = rotate(ned, top);
  EXPECT_NEAR(d.x, e.y, 1e-5);
  EXPECT_NEAR(d.y, e.x, 1e-5);
  EXPECT_NEAR(d.z, -e.z, 1e-5);
}

// Every contradiction the door knows, each with its own code; a refused
// sample changes nothing the host can read, and a unit wrong from the
// start never produces a calibration or a heading.
TEST(CompassUnits, ValuesThatContradictTheUnitsAreRefusedWithTheirOwnCode) {
  const Phone p = turningPhone(40.0);
  const size_t n = p.t.size();
  static quelta_compass c;
  quelta_compass_output before, after;

  // A raw field in microtesla given as gauss (a phone's 390 uT): refused at once.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  ASSERT_EQ(quelta_compass_get_output(&c, &before), 0);
  const double raw390[3] = {60.0, -70.0, 380.0};
  EXPECT_EQ(quelta_compass_update(&c, 0.0, &p.acc[0], raw390, &p.gyro[0]), QUELTA_COMPASS_ERROR_FIELD_UNIT);
  ASSERT_EQ(quelta_compass_get_output(&c, &after), 0);
  EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);

  // A calibrated field in microtesla given as gauss (about 50 "gauss", below
  // the single-sample limit): refused on every sample, no calibration is
  // ever saved and the heading is never claimed.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  for (size_t i = 0; i < n; ++i) {
    double f[3];
    for (int k = 0; k < 3; ++k) f[k] = 100.0 * (p.field[3 * i + k] - (k == 2 ? 4.1 : k == 1 ? -0.7 : 0.6));
    ASSERT_EQ(quelta_compass_update(&c, p.t[i], &p.acc[3 * i], f, &p.gyro[3 * i]), QUELTA_COMPASS_ERROR_FIELD_UNIT);
  }
  uint8_t record[QUELTA_MAG_RECORD_SIZE];
  EXPECT_EQ(quelta_compass_save_calibration(&c, record), QUELTA_MAG_RECORD_NO_CALIBRATION);
  ASSERT_EQ(quelta_compass_get_output(&c, &after), 0);
  EXPECT_EQ(after.accuracy, 0);
  EXPECT_NE(after.flags & QUELTA_COMPASS_FLAG_NO_HEADING, 0u);

  // The field in gauss given as microtesla: far too weak.
  quelta_compass_units u;
  ASSERT_EQ(quelta_compass_init(&c), 0);
  ASSERT_EQ(quelta_compass_units_default(&u), 0);
  u.field_unit = QUELTA_COMPASS_FIELD_UT;
  ASSERT_EQ(quelta_compass_set_units(&c, &u), 0);
  EXPECT_EQ(quelta_compass_update(&c, 0.0, &p.acc[0], &p.field[0], nullptr), 0);  // 4.2 uT: still possible
  double earthOnly[3] = {0.0, 0.25, -0.433};
  int32_t last = 0;
  for (int i = 1; i < 300; ++i) last = quelta_compass_update(&c, 0.01 * i, &p.acc[0], earthOnly, nullptr);
  EXPECT_EQ(last, QUELTA_COMPASS_ERROR_FIELD_UNIT);

  // Gravity in m/s^2 given as g: 9.8 "g" at rest.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  const double gravity[3] = {0.0, 0.0, 9.81};
  EXPECT_EQ(quelta_compass_update(&c, 0.0, gravity, &p.field[0], nullptr), QUELTA_COMPASS_ERROR_ACC_UNIT);
  // A spike is a fault, not a unit: whatever it draws itself, the samples
  // after it are taken.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  const double spike[3] = {1e30, 0.0, 0.0}, huge[3] = {1e30, 1e30, 1e30};
  for (size_t i = 0; i < 200; ++i) {
    const bool glitch = i == 100;
    const int32_t code = quelta_compass_update(&c, p.t[i], glitch ? spike : &p.acc[3 * i],
                                               glitch ? huge : &p.field[3 * i], &p.gyro[3 * i]);
    if (!glitch) ASSERT_EQ(code, 0) << i;
  }

  // Nanoseconds since boot given as seconds: refused at once.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  EXPECT_EQ(quelta_compass_update(&c, 3.6e12, &p.acc[0], &p.field[0], nullptr), QUELTA_COMPASS_ERROR_TIME_UNIT);
  // Milliseconds given as seconds (10 "s" between samples): five intervals
  // make a stream, not a pause; the first samples pass, then every one is refused.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  std::vector<int32_t> codes;
  for (int i = 0; i < 10; ++i) codes.push_back(quelta_compass_update(&c, 10.0 * i, &p.acc[3 * i], &p.field[3 * i], nullptr));
  const std::vector<int32_t> expected = {0, 0, 0, 0, 0, -22, -22, -22, -22, -22};
  EXPECT_EQ(codes, expected);
  // Seconds given as nanoseconds (1e-11 s between samples): the same the other way.
  ASSERT_EQ(quelta_compass_init(&c), 0);
  u = quelta_compass_units{};
  ASSERT_EQ(quelta_compass_units_default(&u), 0);
  u.time_unit = QUELTA_COMPASS_TIME_NS;
  ASSERT_EQ(quelta_compass_set_units(&c, &u), 0);
  for (int i = 0; i < 10; ++i) last = quelta_compass_update(&c, 0.01 * i, &p.acc[3 * i], &p.field[3 * i], nullptr);
  EXPECT_EQ(last, QUELTA_COMPASS_ERROR_TIME_UNIT);

  // Settings that are not valid change nothing.
  ASSERT_EQ(quelta_compass_units_default(&u), 0);
  u.field_unit = 7;
  EXPECT_EQ(quelta_compass_set_units(&c, &u), QUELTA_COMPASS_ERROR_UNITS);
  ASSERT_EQ(quelta_compass_units_default(&u), 0);
  u.gyro_axes[0] = 2.0;
  EXPECT_EQ(quelta_compass_set_units(&c, &u), QUELTA_COMPASS_ERROR_AXES);
  EXPECT_EQ(quelta_compass_axes(99, u.acc_axes), QUELTA_COMPASS_ERROR_AXES);
  ASSERT_EQ(quelta_compass_get_units(&c, &u), 0);
  EXPECT_EQ(u.time_unit, QUELTA_COMPASS_TIME_NS);
  EXPECT_EQ(u.field_unit, QUELTA_COMPASS_FIELD_GAUSS);
}

// quelta_compass_run is quelta_compass_update + get_output + get_calibration
// per row, to the bit; rows of NaN are "no reading".
TEST(CompassBatch, RunEqualsSingleCallsToTheBit) {
  Phone p = turningPhone(30.0);
  const size_t n = p.t.size();
  // The field at a quarter of the rate, the gyroscope missing now and then.
  for (size_t i = 0; i < n; ++i) {
    if (i % 4 != 0) p.field[3 * i] = p.field[3 * i + 1] = p.field[3 * i + 2] = NAN;
    if (i % 50 == 7) p.gyro[3 * i] = p.gyro[3 * i + 1] = p.gyro[3 * i + 2] = NAN;
  }
  static quelta_compass batch, single;
  ASSERT_EQ(quelta_compass_init(&batch), 0);
  ASSERT_EQ(quelta_compass_init(&single), 0);
  std::vector<quelta_compass_output> outs(n);
  std::vector<quelta_mag_calibration> cals(n);
  std::vector<int32_t> codes(n, 99);
  ASSERT_EQ(quelta_compass_run(&batch, n, p.t.data(), p.acc.data(), p.field.data(), p.gyro.data(), outs.data(),
                               cals.data(), codes.data()),
            0);
  int calibrated = 0;
  for (size_t i = 0; i < n; ++i) {
    const double* f = std::isnan(p.field[3 * i]) ? nullptr : &p.field[3 * i];
    const double* g = std::isnan(p.gyro[3 * i]) ? nullptr : &p.gyro[3 * i];
    ASSERT_EQ(quelta_compass_update(&single, p.t[i], &p.acc[3 * i], f, g), 0);
    quelta_compass_output o;
    quelta_mag_calibration cal;
    ASSERT_EQ(quelta_compass_get_output(&single, &o), 0);
    ASSERT_EQ(quelta_compass_get_calibration(&single, &cal), 0);
    ASSERT_EQ(codes[i], 0);
    ASSERT_EQ(std::memcmp(&o, &outs[i], sizeof o), 0) << "row " << i;
    // Field by field: the struct ends in padding.
    ASSERT_EQ(std::memcmp(cal.offset, cals[i].offset, sizeof cal.offset), 0) << "row " << i;
    ASSERT_EQ(std::memcmp(cal.soft_iron, cals[i].soft_iron, sizeof cal.soft_iron), 0) << "row " << i;
    ASSERT_EQ(std::memcmp(&cal.strength, &cals[i].strength, sizeof cal.strength), 0) << "row " << i;
    ASSERT_EQ(cal.model, cals[i].model) << "row " << i;
    calibrated += cal.model != QUELTA_MAG_MODEL_NONE;
  }
  EXPECT_GT(calibrated, 0);
  EXPECT_EQ(quelta_compass_run(nullptr, n, p.t.data(), p.acc.data(), nullptr, nullptr, nullptr, nullptr, nullptr), -1);
}

}  // namespace
}  // namespace quelta::compass
