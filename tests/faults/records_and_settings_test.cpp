// SPDX-License-Identifier: Apache-2.0
// What the library refuses besides sample sets: a restored calibration no
// magnetometer on earth can have (whatever its checksum), settings out of
// range; and two promises of the interface: the magnetic layer calibrates
// without an accelerometer, and the date parser reads no further than the
// string's end.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>

#include "quelta/quelta.h"
#include "tests/support/record_seal.h"
#include "tools/sim/magnetic_sim.h"

namespace {

// A record with a valid checksum: offset, soft iron (00 11 22 01 02 12), strength.
void makeRecord(uint8_t* rec, const double offset[3], const double soft[6], double strength) {
  const double v[14] = {offset[0], offset[1], offset[2], soft[0], soft[1], soft[2], soft[3],
                        soft[4],   soft[5],   strength,  0.8 * strength, 0.004, 2.0, 0.9};
  quelta::test_support::writeEllipsoidRecord(rec, QUELTA_MAG_RECORD_SIZE, v);
  quelta::test_support::sealRecord(rec, QUELTA_MAG_RECORD_SIZE);
}

// Soft iron with determinant 1 and eigenvalues (4, -0.5, -0.5): ones on the
// diagonal, 1.5 off it. Its diagonal and determinant look fine.
TEST(RecordsAndSettings, RestoreRefusesCalibrationsNoMagnetometerHas) {
  static quelta_mag_state s;
  quelta_mag_init(&s);
  uint8_t rec[QUELTA_MAG_RECORD_SIZE];
  const double offset[3] = {0.1, -0.2, 0.3};
  const double far[3] = {10.5, 0.0, 0.0};
  const double good[6] = {1.0, 1.0, 1.0, 0.0, 0.0, 0.0};
  const double indefinite[6] = {1.0, 1.0, 1.0, 1.5, 1.5, 1.5};
  // Eigenvalues 2.5, 0.4, 1: determinant 1, diagonal 1.45/1.45/1.
  const double stretched[6] = {1.45, 1.45, 1.0, 1.05, 0.0, 0.0};
  struct Case {
    const double* offset;
    const double* soft;
    double strength;
    int expected;
  };
  const Case cases[] = {
      {offset, good, 0.5, QUELTA_MAG_RECORD_OK},
      {offset, indefinite, 0.5, QUELTA_MAG_RECORD_BAD_VALUES},
      {offset, stretched, 0.5, QUELTA_MAG_RECORD_BAD_VALUES},
      {far, good, 0.5, QUELTA_MAG_RECORD_BAD_VALUES},
      {offset, good, 0.1, QUELTA_MAG_RECORD_BAD_VALUES},
      {offset, good, 0.9, QUELTA_MAG_RECORD_BAD_VALUES},
  };
  for (const Case& k : cases) {
    makeRecord(rec, k.offset, k.soft, k.strength);
    EXPECT_EQ(quelta_mag_restore(&s, rec, sizeof rec), k.expected);
    static quelta_compass c;
    quelta_compass_init(&c);
    EXPECT_EQ(quelta_compass_restore_calibration(&c, rec, sizeof rec), k.expected);
    quelta_mag_quality q;
    quelta_compass_get_calibration_quality(&c, &q);
    if (k.expected != QUELTA_MAG_RECORD_OK) EXPECT_EQ(q.accuracy, 0);
  }
}

TEST(RecordsAndSettings, SettersRefuseValuesOutOfRange) {
  static quelta_compass c;
  ASSERT_EQ(quelta_compass_init(&c), 0);
  EXPECT_EQ(quelta_compass_set_declination(&c, 1e300), QUELTA_COMPASS_ERROR_SETTING);
  EXPECT_EQ(quelta_compass_set_declination(&c, NAN), QUELTA_COMPASS_ERROR_SETTING);
  EXPECT_EQ(quelta_compass_set_declination(&c, 180.5), QUELTA_COMPASS_ERROR_SETTING);
  EXPECT_EQ(quelta_compass_set_declination(&c, -12.5), QUELTA_COMPASS_OK);
  EXPECT_EQ(quelta_compass_set_declination(nullptr, 1.0), QUELTA_COMPASS_ERROR_STATE);
  EXPECT_EQ(quelta_compass_set_expected_field(&c, 0.48, 62.0), QUELTA_COMPASS_OK);
  EXPECT_EQ(quelta_compass_set_expected_field(&c, 5.0, 62.0), QUELTA_COMPASS_ERROR_SETTING);
  EXPECT_EQ(quelta_compass_set_expected_field(&c, 0.48, 95.0), QUELTA_COMPASS_ERROR_SETTING);
  EXPECT_EQ(quelta_compass_set_expected_field(&c, INFINITY, 10.0), QUELTA_COMPASS_ERROR_SETTING);
  EXPECT_EQ(quelta_compass_set_expected_field(&c, 0.0, 0.0), QUELTA_COMPASS_OK);  // forgets it
}

// The header allows a null accelerometer: the calibration must still come.
TEST(RecordsAndSettings, MagneticLayerCalibratesWithoutAnAccelerometer) {
  static quelta_mag_state s;
  quelta_mag_init(&s);
  quelta::sim::SoftIronDevice dev;
  double mag[3], acc[3];
  for (double t = 0.0; t < 60.0; t += 0.02) {
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    quelta_mag_update(&s, t, mag, nullptr, nullptr);
  }
  quelta_mag_calibration cal;
  quelta_mag_get_calibration(&s, &cal);
  quelta_mag_quality q;
  quelta_mag_get_quality(&s, &q);
  EXPECT_GE(q.accuracy, 2);
  const double ex = cal.offset[0] - dev.hardIron.x, ey = cal.offset[1] - dev.hardIron.y,
               ez = cal.offset[2] - dev.hardIron.z;
  EXPECT_LT(std::sqrt(ex * ex + ey * ey + ez * ez), 0.02);
}

// The text date: read up to its NUL, never further (a buffer of exactly the
// string's size, so a sanitizer sees any read past it), and only a whole date.
TEST(RecordsAndSettings, DateTextIsReadToItsEndAndNoFurther) {
  double year = 0.0;
  EXPECT_EQ(quelta_geomag_decimal_year_from_text("2026-01-01", &year), QUELTA_GEOMAG_OK);
  EXPECT_EQ(year, 2026.0);
  for (const char* text : {"2026-0", "", "2026", "2026-01-0", "2026-01-01x", "2026-02-30", "2026/01/01"}) {
    const size_t n = std::strlen(text) + 1;
    std::unique_ptr<char[]> exact(new char[n]);
    std::memcpy(exact.get(), text, n);
    EXPECT_EQ(quelta_geomag_decimal_year_from_text(exact.get(), &year), QUELTA_GEOMAG_ERROR_DATE) << text;
    EXPECT_TRUE(std::isnan(year));
  }
}

}  // namespace
