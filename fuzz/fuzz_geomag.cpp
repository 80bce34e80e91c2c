// SPDX-License-Identifier: Apache-2.0
// Every entry point of the field model with arbitrary places, heights and
// dates (NaN, infinities, the poles, the limits of the ranges) and
// arbitrary date texts. Checked: the return value is a documented one; on
// success every value is finite and in range, on an error the outputs are
// NaN; the three ways to the declination agree; a date text that parses
// agrees with the same date given as numbers.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "fuzz/fuzz_input.h"
#include "quelta/quelta_geomag.h"

namespace {

using quelta::fuzz::FuzzInput;

constexpr uint32_t kAllFlags = QUELTA_GEOMAG_CAUTION_ZONE | QUELTA_GEOMAG_BLACKOUT_ZONE |
                               QUELTA_GEOMAG_OUTSIDE_VALIDITY | QUELTA_GEOMAG_OUTSIDE_HEIGHT;

bool isStatus(int s) { return s <= QUELTA_GEOMAG_OK && s >= QUELTA_GEOMAG_ERROR_DATE; }

// Latitudes and the like: a value from the table of awkward ones, or one
// spread over the valid range and a little beyond.
double coordinate(FuzzInput& in, double range) {
  const uint8_t b = in.byte();
  if (b < 64) return in.value();
  const int32_t raw = static_cast<int16_t>((in.byte() << 8) | in.byte());
  return raw / 32767.0 * range * 1.1;
}

void checkField(FuzzInput& in) {
  const double lat = coordinate(in, 90.0), lon = coordinate(in, 360.0), h = coordinate(in, 1e6);
  const double year = 2025.0 + coordinate(in, 100.0);
  quelta_geomag_field f;
  const int s = quelta_geomag_field_at(lat, lon, h, year, &f);
  FUZZ_CHECK(isStatus(s));
  quelta_geomag_expected e;
  FUZZ_CHECK(quelta_geomag_expected_at(lat, lon, h, year, &e) == s);
  uint32_t flags = 0;
  const double d = quelta_geomag_declination(lat, lon, h, year, in.byte() & 1 ? &flags : nullptr);
  if (s != QUELTA_GEOMAG_OK) {
    FUZZ_CHECK(std::isnan(f.f_nt) && std::isnan(f.declination_deg) && std::isnan(e.strength_gauss) && std::isnan(d));
    return;
  }
  const double v[] = {f.x_nt, f.y_nt, f.z_nt, f.h_nt, f.f_nt, f.inclination_deg, f.x_dot_nt, f.y_dot_nt,
                      f.z_dot_nt, f.h_dot_nt, f.f_dot_nt, f.inclination_dot_deg};
  for (double x : v) FUZZ_CHECK(std::isfinite(x));
  FUZZ_CHECK(f.f_nt > 0.0 && f.h_nt >= 0.0 && std::fabs(f.inclination_deg) <= 90.0);
  FUZZ_CHECK((f.flags & ~kAllFlags) == 0);
  if (f.h_nt > 0.0) FUZZ_CHECK(f.declination_deg >= -180.0 && f.declination_deg <= 180.0);
  FUZZ_CHECK(std::isfinite(e.strength_gauss) && std::fabs(e.strength_gauss - f.f_nt / 1e5) <= 1e-9 * e.strength_gauss);
  FUZZ_CHECK(e.flags == f.flags);
  FUZZ_CHECK((std::isnan(d) && std::isnan(f.declination_deg)) || d == f.declination_deg);
}

void checkDates(FuzzInput& in) {
  const int y = in.byte() < 128 ? 1900 + in.intIn(-5, 205) : in.count();
  const int m = in.byte() < 200 ? in.intIn(0, 13) : in.count();
  const int dd = in.byte() < 200 ? in.intIn(0, 32) : in.count();
  double year = 0.0;
  const int s = quelta_geomag_decimal_year(y, m, dd, &year);
  FUZZ_CHECK(s == QUELTA_GEOMAG_OK || s == QUELTA_GEOMAG_ERROR_DATE || s == QUELTA_GEOMAG_ERROR_YEAR);
  if (s == QUELTA_GEOMAG_OK) FUZZ_CHECK(year >= y && year < y + 1.0);
  // The same date as text, or the fuzzer's bytes; always NUL-terminated.
  char text[16];
  int n = 0;
  if (in.byte() < 128 && y >= 0 && y <= 9999 && m >= 0 && m <= 99 && dd >= 0 && dd <= 99) {
    text[n++] = static_cast<char>('0' + y / 1000);
    text[n++] = static_cast<char>('0' + y / 100 % 10);
    text[n++] = static_cast<char>('0' + y / 10 % 10);
    text[n++] = static_cast<char>('0' + y % 10);
    text[n++] = '-';
    text[n++] = static_cast<char>('0' + m / 10);
    text[n++] = static_cast<char>('0' + m % 10);
    text[n++] = '-';
    text[n++] = static_cast<char>('0' + dd / 10);
    text[n++] = static_cast<char>('0' + dd % 10);
    if (in.byte() < 32) text[n++] = static_cast<char>(in.byte());
    double fromText = 0.0;
    text[n] = '\0';
    const int st = quelta_geomag_decimal_year_from_text(text, &fromText);
    if (n == 10) {
      FUZZ_CHECK(st == s);
      if (st == QUELTA_GEOMAG_OK) FUZZ_CHECK(fromText == year);
    } else {
      FUZZ_CHECK(st == QUELTA_GEOMAG_OK ? text[10] == '\0' : isStatus(st));
    }
  } else {
    const int len = in.byte() % 15;
    for (n = 0; n < len; ++n) text[n] = static_cast<char>(in.byte());
    text[n] = '\0';
    double fromText = 0.0;
    const int st = quelta_geomag_decimal_year_from_text(text, &fromText);
    FUZZ_CHECK(isStatus(st));
    FUZZ_CHECK(st == QUELTA_GEOMAG_OK ? std::isfinite(fromText) : std::isnan(fromText));
  }
  FUZZ_CHECK(quelta_geomag_decimal_year_from_text(nullptr, &year) == QUELTA_GEOMAG_ERROR_NULL);
  FUZZ_CHECK(quelta_geomag_decimal_year(y, m, dd, nullptr) == QUELTA_GEOMAG_ERROR_NULL);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  for (int call = 0; call < 3 && !in.exhausted(); ++call) {
    const uint8_t op = in.byte();
    if (op < 140) {
      checkField(in);
    } else if (op < 230) {
      checkDates(in);
    } else {
      FUZZ_CHECK(quelta_geomag_status_text(in.count()) != nullptr);
      FUZZ_CHECK(quelta_geomag_flag_text(in.bits32()) != nullptr);
      FUZZ_CHECK(std::strcmp(quelta_geomag_model_name(), "WMM-2025") == 0);
      FUZZ_CHECK(quelta_geomag_valid_from() < quelta_geomag_valid_until());
      quelta_geomag_field f;
      FUZZ_CHECK(quelta_geomag_field_at(0, 0, 0, 2026, nullptr) == QUELTA_GEOMAG_ERROR_NULL);
      FUZZ_CHECK(quelta_geomag_field_at(0, 0, 0, 2026, &f) == QUELTA_GEOMAG_OK);
    }
  }
  return 0;
}
