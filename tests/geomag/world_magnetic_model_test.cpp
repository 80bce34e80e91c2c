// SPDX-License-Identifier: Apache-2.0
// The World Magnetic Model against its official test values, at the poles,
// at the edges of its zones and validity, and the date conversion.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "quelta/geomag/world_magnetic_model.h"
#include "quelta/quelta.h"
#include "tests/support/allocation_counter.h"

namespace {

using quelta::geomag::Location;
using quelta::geomag::Status;
using quelta::geomag::WorldMagneticModel;

struct TestValue {
  double v[19];  // the file's 19 fields, in its order
};

std::vector<TestValue> read_test_values() {
  std::vector<TestValue> rows;
  std::ifstream in(QUELTA_WMM_DATA_DIR "/WMM2025_TEST_VALUES.txt");
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    TestValue row{};
    for (double& value : row.v) {
      std::string token;
      fields >> token;
      value = token == "NaN" ? std::nan("") : std::stod(token);
    }
    rows.push_back(row);
  }
  return rows;
}

quelta_geomag_field field_at(double lat, double lon, double height_km, double year) {
  quelta_geomag_field f;
  EXPECT_EQ(quelta_geomag_field_at(lat, lon, height_km * 1000.0, year, &f), QUELTA_GEOMAG_OK);
  return f;
}

// Every official test value within one unit of its last printed digit: X Y Z
// H F and their rates to 0.1 nT, the angles and their rates to 0.01 degree.
TEST(WorldMagneticModel, MatchesEveryOfficialTestValue) {
  const std::vector<TestValue> rows = read_test_values();
  ASSERT_EQ(rows.size(), 12u) << "data/wmm/WMM2025_TEST_VALUES.txt";
  const char* names[19] = {"date", "height", "lat", "lon", "X", "Y", "Z", "H", "F", "I", "D", "GV",
                           "Xdot", "Ydot", "Zdot", "Hdot", "Fdot", "Idot", "Ddot"};
  double worst_units[19] = {};
  for (const TestValue& row : rows) {
    const auto& t = row.v;
    const quelta_geomag_field f = field_at(t[2], t[3], t[1], t[0]);
    const double got[19] = {t[0], t[1], t[2], t[3], f.x_nt, f.y_nt, f.z_nt, f.h_nt, f.f_nt,
                            f.inclination_deg, f.declination_deg, f.grid_variation_deg,
                            f.x_dot_nt, f.y_dot_nt, f.z_dot_nt, f.h_dot_nt, f.f_dot_nt,
                            f.inclination_dot_deg, f.declination_dot_deg};
    for (int i = 4; i < 19; ++i) {
      const bool angle = i == 9 || i == 10 || i == 11 || i == 17 || i == 18;
      const double unit = angle ? 0.01 : 0.1;
      if (std::isnan(t[i])) {
        EXPECT_TRUE(std::isnan(got[i])) << names[i] << " at " << t[2] << "," << t[3];
        continue;
      }
      const double units = std::fabs(got[i] - t[i]) / unit;
      worst_units[i] = std::fmax(worst_units[i], units);
      EXPECT_LE(units, 1.0 + 1e-9) << names[i] << " at " << t[0] << " " << t[1] << " km " << t[2] << ","
                                   << t[3] << ": " << got[i] << " against " << t[i];
    }
    EXPECT_EQ(f.flags, 0u);
  }
  std::string worst = "worst deviation, in units of the last printed digit:";
  for (int i = 4; i < 19; ++i) {
    char text[48];
    std::snprintf(text, sizeof text, " %s %.3f", names[i], worst_units[i]);
    worst += text;
  }
  std::printf("%s\n", worst.c_str());
}

// The gauss view for the other layers and the declination shortcut agree
// with the field: at 80 N 0 E, 2025.0: F 55178.5 nT, H 6523.2, Z 54791.5,
// I 83.21, D 1.28 (test values).
TEST(WorldMagneticModel, ExpectedFieldInGaussAndDeclinationShortcut) {
  quelta_geomag_expected e;
  ASSERT_EQ(quelta_geomag_expected_at(80.0, 0.0, 0.0, 2025.0, &e), QUELTA_GEOMAG_OK);
  EXPECT_NEAR(e.strength_gauss, 0.551785, 1e-6);
  EXPECT_NEAR(e.horizontal_gauss, 0.065232, 1e-6);
  EXPECT_NEAR(e.down_gauss, 0.547915, 1e-6);
  EXPECT_NEAR(e.dip_deg, 83.21, 0.01);
  EXPECT_NEAR(e.angle_to_gravity_deg, 90.0 - 83.21, 0.01);
  EXPECT_NEAR(e.declination_deg, 1.28, 0.01);
  EXPECT_EQ(e.flags, 0u);

  const quelta_geomag_field f = field_at(-80.0, 240.0, 0.1, 2026.25);
  uint32_t flags = 99;
  EXPECT_EQ(quelta_geomag_declination(-80.0, 240.0, 100.0, 2026.25, &flags), f.declination_deg);
  EXPECT_EQ(flags, f.flags);
  EXPECT_TRUE(std::isnan(quelta_geomag_declination(91.0, 0.0, 0.0, 2026.0, nullptr)));
}

// At a pole the geodetic frame turns with the longitude: the place is the
// same, so H, Z, F and the grid variation (declination less the longitude in
// the north, plus it in the south) do not depend on the longitude given. The
// east component there comes from its limit, which must join the general
// synthesis a few centimetres away.
TEST(WorldMagneticModel, PolesAreOnePlaceAndJoinTheirSurroundings) {
  for (const double pole : {90.0, -90.0}) {
    for (const double height_km : {0.0, 100.0}) {
      const quelta_geomag_field ref = field_at(pole, 0.0, height_km, 2027.0);
      for (const double lon : {0.0, 45.0, 123.4, -170.0, 180.0}) {
        SCOPED_TRACE(testing::Message() << "pole " << pole << " lon " << lon << " height " << height_km);
        const quelta_geomag_field f = field_at(pole, lon, height_km, 2027.0);
        EXPECT_NEAR(f.h_nt, ref.h_nt, 1e-6);
        EXPECT_NEAR(f.z_nt, ref.z_nt, 1e-6);
        EXPECT_NEAR(f.f_nt, ref.f_nt, 1e-6);
        EXPECT_NEAR(f.grid_variation_deg, ref.grid_variation_deg, 1e-9);
        EXPECT_NEAR(f.h_dot_nt, ref.h_dot_nt, 1e-6);

        // 1e-6 degree (11 cm) off the pole the general path runs.
        const double near = pole > 0.0 ? pole - 1e-6 : pole + 1e-6;
        const quelta_geomag_field g = field_at(near, lon, height_km, 2027.0);
        EXPECT_NEAR(f.x_nt, g.x_nt, 0.01);
        EXPECT_NEAR(f.y_nt, g.y_nt, 0.01);
        EXPECT_NEAR(f.z_nt, g.z_nt, 0.01);
        EXPECT_NEAR(f.y_dot_nt, g.y_dot_nt, 0.001);
        EXPECT_NEAR(f.declination_deg, g.declination_deg, 1e-5);
        EXPECT_EQ(f.flags, g.flags);
      }
    }
  }
  // The horizontal field at the geographic poles is far from zero in 2025.
  EXPECT_GT(field_at(90.0, 0.0, 0.0, 2025.0).h_nt, 1000.0);
}

// Longitudes are taken modulo 360.
TEST(WorldMagneticModel, LongitudeWrapsAround) {
  const quelta_geomag_field a = field_at(-33.9, 151.2, 0.05, 2028.0);
  for (const double lon : {151.2 - 360.0, 151.2 + 720.0}) {
    const quelta_geomag_field b = field_at(-33.9, lon, 0.05, 2028.0);
    EXPECT_NEAR(a.x_nt, b.x_nt, 1e-6);
    EXPECT_NEAR(a.y_nt, b.y_nt, 1e-6);
    EXPECT_NEAR(a.z_nt, b.z_nt, 1e-6);
    EXPECT_NEAR(a.declination_deg, b.declination_deg, 1e-9);
  }
}

// Caution (H < 6000 nT) and blackout (H < 2000 nT) zones, the validity of
// the model in time (2025.0..2030.0) and height (-1..850 km).
TEST(WorldMagneticModel, ZoneValidityAndHeightFlags) {
  struct Case {
    double lat, lon, height_km, year;
    uint32_t flags;
  };
  const uint32_t caution = QUELTA_GEOMAG_CAUTION_ZONE;
  const uint32_t blackout = QUELTA_GEOMAG_CAUTION_ZONE | QUELTA_GEOMAG_BLACKOUT_ZONE;
  const Case cases[] = {
      {86.0, 140.0, 0.0, 2025.0, blackout},  // H about 93 nT, near the north magnetic pole
      {-64.0, 135.0, 0.0, 2025.0, blackout}, // H about 139 nT, near the south magnetic pole
      {-66.0, 130.0, 0.0, 2025.0, caution},  // H about 2888 nT
      {80.0, 0.0, 0.0, 2025.0, 0},           // H 6523.2 nT: just outside the caution zone
      {0.0, 120.0, 0.0, 2024.999, QUELTA_GEOMAG_OUTSIDE_VALIDITY},
      {0.0, 120.0, 0.0, 2030.0, 0},
      {0.0, 120.0, 0.0, 2030.001, QUELTA_GEOMAG_OUTSIDE_VALIDITY},
      {0.0, 120.0, 0.0, 1970.0, QUELTA_GEOMAG_OUTSIDE_VALIDITY},
      {0.0, 120.0, 850.0, 2026.0, 0},
      {0.0, 120.0, 850.5, 2026.0, QUELTA_GEOMAG_OUTSIDE_HEIGHT},
      {0.0, 120.0, -1.0, 2026.0, 0},
      {0.0, 120.0, -1.5, 2026.0, QUELTA_GEOMAG_OUTSIDE_HEIGHT},
      {86.0, 140.0, 0.0, 2031.0, blackout | QUELTA_GEOMAG_OUTSIDE_VALIDITY},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.lat << "," << c.lon << " " << c.height_km << " km " << c.year);
    const quelta_geomag_field f = field_at(c.lat, c.lon, c.height_km, c.year);
    EXPECT_EQ(f.flags, c.flags) << "H " << f.h_nt;
    EXPECT_EQ((f.flags & QUELTA_GEOMAG_CAUTION_ZONE) != 0, f.h_nt < 6000.0);
    EXPECT_EQ((f.flags & QUELTA_GEOMAG_BLACKOUT_ZONE) != 0, f.h_nt < 2000.0);
    quelta_geomag_expected e;
    ASSERT_EQ(quelta_geomag_expected_at(c.lat, c.lon, c.height_km * 1000.0, c.year, &e), QUELTA_GEOMAG_OK);
    EXPECT_EQ(e.flags, c.flags);
  }
  EXPECT_EQ(quelta_geomag_valid_from(), 2025.0);
  EXPECT_EQ(quelta_geomag_valid_until(), 2030.0);
  EXPECT_STREQ(quelta_geomag_model_name(), "WMM-2025");
}

// Values that cannot be a place or a date are refused, and every output is
// then NaN, so a careless caller cannot take them for a field.
TEST(WorldMagneticModel, RefusesWhatIsNotAPlaceOrADate) {
  const double nan = std::nan("");
  const double inf = INFINITY;
  struct Case {
    double lat, lon, height_m, year;
    int status;
  };
  const Case cases[] = {
      {90.000001, 0.0, 0.0, 2026.0, QUELTA_GEOMAG_ERROR_LATITUDE},
      {-91.0, 0.0, 0.0, 2026.0, QUELTA_GEOMAG_ERROR_LATITUDE},
      {nan, 0.0, 0.0, 2026.0, QUELTA_GEOMAG_ERROR_LATITUDE},
      {10.0, inf, 0.0, 2026.0, QUELTA_GEOMAG_ERROR_LONGITUDE},
      {10.0, nan, 0.0, 2026.0, QUELTA_GEOMAG_ERROR_LONGITUDE},
      {10.0, 0.0, nan, 2026.0, QUELTA_GEOMAG_ERROR_HEIGHT},
      {10.0, 0.0, -2.0e6, 2026.0, QUELTA_GEOMAG_ERROR_HEIGHT},
      {10.0, 0.0, 0.0, nan, QUELTA_GEOMAG_ERROR_YEAR},
      {10.0, 0.0, 0.0, -inf, QUELTA_GEOMAG_ERROR_YEAR},
      {10.0, 0.0, 0.0, 2100.5, QUELTA_GEOMAG_ERROR_YEAR},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.lat << "," << c.lon << " " << c.height_m << " m " << c.year);
    quelta_geomag_field f;
    f.flags = 77;
    EXPECT_EQ(quelta_geomag_field_at(c.lat, c.lon, c.height_m, c.year, &f), c.status);
    EXPECT_TRUE(std::isnan(f.x_nt) && std::isnan(f.h_nt) && std::isnan(f.declination_deg) &&
                std::isnan(f.grid_variation_deg) && std::isnan(f.declination_dot_deg));
    EXPECT_EQ(f.flags, 0u);
    quelta_geomag_expected e;
    EXPECT_EQ(quelta_geomag_expected_at(c.lat, c.lon, c.height_m, c.year, &e), c.status);
    EXPECT_TRUE(std::isnan(e.strength_gauss) && std::isnan(e.dip_deg) && std::isnan(e.declination_deg));
    EXPECT_STRNE(quelta_geomag_status_text(c.status), "unknown status");
  }
  EXPECT_EQ(quelta_geomag_field_at(0.0, 0.0, 0.0, 2026.0, nullptr), QUELTA_GEOMAG_ERROR_NULL);
  EXPECT_EQ(quelta_geomag_expected_at(0.0, 0.0, 0.0, 2026.0, nullptr), QUELTA_GEOMAG_ERROR_NULL);
}

// Dates: year + (day of year - 1) / days in the year, Gregorian leap years.
TEST(WorldMagneticModel, CalendarDatesToDecimalYears) {
  struct Case {
    int year, month, day;
    double expected;  // NaN: refused
  };
  const double bad = std::nan("");
  const Case cases[] = {
      {2025, 1, 1, 2025.0},
      {2028, 7, 2, 2028.5},                  // day 184 of 366
      {2027, 7, 2, 2027.0 + 182.0 / 365.0},  // day 183 of 365
      {2025, 12, 31, 2025.0 + 364.0 / 365.0},
      {2024, 12, 31, 2024.0 + 365.0 / 366.0},
      {2024, 3, 1, 2024.0 + 60.0 / 366.0},
      {2025, 3, 1, 2025.0 + 59.0 / 365.0},
      {2024, 2, 29, 2024.0 + 59.0 / 366.0},
      {2000, 2, 29, 2000.0 + 59.0 / 366.0},  // divisible by 400: leap
      {2100, 2, 29, bad},                    // divisible by 100: not leap
      {2025, 2, 29, bad},
      {2025, 4, 31, bad},
      {2025, 13, 1, bad},
      {2025, 0, 10, bad},
      {2025, 6, 0, bad},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.year << "-" << c.month << "-" << c.day);
    double out = 0.0;
    const int status = quelta_geomag_decimal_year(c.year, c.month, c.day, &out);
    if (std::isnan(c.expected)) {
      EXPECT_EQ(status, QUELTA_GEOMAG_ERROR_DATE);
      EXPECT_TRUE(std::isnan(out));
    } else {
      EXPECT_EQ(status, QUELTA_GEOMAG_OK);
      EXPECT_NEAR(out, c.expected, 1e-12);
      char text[16];
      std::snprintf(text, sizeof text, "%04d-%02d-%02d", c.year, c.month, c.day);
      double from_text = 0.0;
      EXPECT_EQ(quelta_geomag_decimal_year_from_text(text, &from_text), QUELTA_GEOMAG_OK);
      EXPECT_EQ(from_text, out);
    }
  }
  for (const char* text : {"2025-1-01", "2025-01-1", "2025-01-01 ", " 2025-01-01", "2025/01/01", "20250101", "",
                           "2025-02-30", "2025-0a-01", "-025-01-01"}) {
    double out = 0.0;
    EXPECT_EQ(quelta_geomag_decimal_year_from_text(text, &out), QUELTA_GEOMAG_ERROR_DATE) << "'" << text << "'";
    EXPECT_TRUE(std::isnan(out));
  }
  double out = 0.0;
  EXPECT_EQ(quelta_geomag_decimal_year_from_text(nullptr, &out), QUELTA_GEOMAG_ERROR_NULL);
  EXPECT_EQ(quelta_geomag_decimal_year_from_text("2025-01-01", nullptr), QUELTA_GEOMAG_ERROR_NULL);
  EXPECT_EQ(quelta_geomag_decimal_year(2025, 1, 1, nullptr), QUELTA_GEOMAG_ERROR_NULL);
}

// Hosts call it from any thread and at any rate: no heap, and any number of
// model objects give the same bits.
TEST(WorldMagneticModel, AllocatesNothingAndRepeatsItself) {
  quelta_geomag_field first;
  quelta_geomag_field again;
  quelta_geomag_expected e;
  double year = 0.0;
  int64_t allocations = 0;
  {
    quelta::test::AllocationCounter counter;
    ASSERT_EQ(quelta_geomag_field_at(47.4, 8.5, 500.0, 2026.7, &first), QUELTA_GEOMAG_OK);
    ASSERT_EQ(quelta_geomag_expected_at(-90.0, 0.0, 0.0, 2031.0, &e), QUELTA_GEOMAG_OK);
    ASSERT_EQ(quelta_geomag_decimal_year_from_text("2026-09-13", &year), QUELTA_GEOMAG_OK);
    const WorldMagneticModel model;
    ASSERT_EQ(model.field(Location{47.4, 8.5, 500.0}, 2026.7, again), Status::ok);
    allocations = counter.count();
  }
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(first.x_nt, again.x_nt);
  EXPECT_EQ(first.y_nt, again.y_nt);
  EXPECT_EQ(first.z_nt, again.z_nt);
  EXPECT_EQ(first.declination_dot_deg, again.declination_dot_deg);
  EXPECT_EQ(first.flags, again.flags);
}

}  // namespace
