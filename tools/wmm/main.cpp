// SPDX-License-Identifier: Apache-2.0
// quelta-wmm: the World Magnetic Model's field at one place and date.
//
//   quelta-wmm LAT LON HEIGHT_KM DECIMAL_YEAR
//
// prints X Y Z H F (nT), inclination and declination (degrees) on one line,
// in the order and precision of the model's test-value file. DECIMAL_YEAR may
// also be a date, YYYY-MM-DD. Warnings (date outside the model's validity,
// caution and blackout zones, height outside the model's range) go to stderr;
// the values are still printed. Exit status: 0 values printed, 1 bad value,
// 2 usage.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quelta/quelta_geomag.h"

namespace {

void usage(std::FILE* to) {
  std::fprintf(to,
               "usage: quelta-wmm LAT LON HEIGHT_KM DECIMAL_YEAR\n"
               "  LAT, LON      geodetic latitude and longitude on WGS-84, degrees (north, east positive)\n"
               "  HEIGHT_KM     height above the WGS-84 ellipsoid, km\n"
               "  DECIMAL_YEAR  e.g. 2027.5, or a date YYYY-MM-DD\n"
               "prints: X Y Z H F (nT) inclination declination (degrees)\n");
}

bool parse_number(const char* text, double& out) {
  if (*text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtod(text, &end);
  return end != text && *end == '\0' && errno != ERANGE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
    usage(stdout);
    return 0;
  }
  if (argc != 5) {
    usage(stderr);
    return 2;
  }
  const char* names[4] = {"LAT", "LON", "HEIGHT_KM", "DECIMAL_YEAR"};
  double v[4] = {0.0, 0.0, 0.0, 0.0};
  for (int i = 0; i < 4; ++i) {
    const char* arg = argv[i + 1];
    if (i == 3 && std::strlen(arg) == 10 && arg[4] == '-') {
      const int status = quelta_geomag_decimal_year_from_text(arg, &v[i]);
      if (status != QUELTA_GEOMAG_OK) {
        std::fprintf(stderr, "quelta-wmm: %s '%s': %s\n", names[i], arg, quelta_geomag_status_text(status));
        return 1;
      }
    } else if (!parse_number(arg, v[i])) {
      std::fprintf(stderr, "quelta-wmm: %s '%s' is not a number\n", names[i], arg);
      usage(stderr);
      return 2;
    }
  }

  quelta_geomag_field f;
  const int status = quelta_geomag_field_at(v[0], v[1], v[2] * 1000.0, v[3], &f);
  if (status != QUELTA_GEOMAG_OK) {
    std::fprintf(stderr, "quelta-wmm: %s\n", quelta_geomag_status_text(status));
    return 1;
  }
  for (uint32_t bit = 1; bit != 0 && bit <= f.flags; bit <<= 1) {
    // BLACKOUT implies CAUTION: say only the stronger one.
    if (bit == QUELTA_GEOMAG_CAUTION_ZONE && (f.flags & QUELTA_GEOMAG_BLACKOUT_ZONE)) continue;
    if (f.flags & bit) std::fprintf(stderr, "quelta-wmm: warning: %s\n", quelta_geomag_flag_text(bit));
  }
  std::printf("%.1f %.1f %.1f %.1f %.1f %.2f %.2f\n", f.x_nt, f.y_nt, f.z_nt, f.h_nt, f.f_nt, f.inclination_deg,
              f.declination_deg);
  return 0;
}
