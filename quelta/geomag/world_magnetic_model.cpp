// SPDX-License-Identifier: Apache-2.0
// Spherical-harmonic synthesis of the World Magnetic Model.
//
// 1. The geodetic place (WGS-84) becomes geocentric spherical coordinates.
// 2. Each Gauss coefficient moves linearly from the epoch: g(t) = g + (t - t0) g_dot.
// 3. The potential's gradient gives the field in the geocentric frame (north
//    along the geocentric meridian, east, toward the centre), with Schmidt
//    semi-normalised associated Legendre functions of sin(geocentric latitude).
// 4. A rotation about east by the difference of the two latitudes turns it
//    into the geodetic frame: X north, Y east, Z down along the ellipsoid normal.
// The secular variation (the rates) is the same linear synthesis applied to
// g_dot and h_dot.
#include "quelta/geomag/world_magnetic_model.h"

#include <cmath>

namespace quelta {
namespace geomag {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDegToRad = kPi / 180.0;
constexpr double kRadToDeg = 180.0 / kPi;

// WGS-84 ellipsoid (km) and the model's reference radius (km).
constexpr double kWgs84A = 6378.137;
constexpr double kWgs84F = 1.0 / 298.257223563;
constexpr double kWgs84E2 = kWgs84F * (2.0 - kWgs84F);
constexpr double kReferenceRadius = 6371.2;

// Heights the model is made for (km), and what we refuse to compute at all.
constexpr double kModelHeightMin = -1.0;
constexpr double kModelHeightMax = 850.0;
constexpr double kHeightMinKm = -1000.0;
constexpr double kHeightMaxKm = 100000.0;
constexpr double kYearMin = 1900.0;
constexpr double kYearMax = 2100.0;

// Below this cosine of the geocentric latitude (about 0.6 mm from the axis)
// the east component takes its limit at the pole.
constexpr double kPoleCosine = 1e-10;

constexpr int kN = kWmmDegree;
constexpr int kTerms = kWmmTerms;

// Geodetic latitude's sine and cosine, exact at the poles.
void geodetic_sin_cos(double latitude_deg, double& s, double& c) {
  if (latitude_deg == 90.0) {
    s = 1.0;
    c = 0.0;
  } else if (latitude_deg == -90.0) {
    s = -1.0;
    c = 0.0;
  } else {
    const double phi = latitude_deg * kDegToRad;
    s = std::sin(phi);
    c = std::cos(phi);
  }
}

// Schmidt semi-normalised P_n^m(sin phi) and dP_n^m/dphi for n <= 12, from
// x = sin phi and y = cos phi (y >= 0):
//   P_0^0 = 1, P_1^1 = y, P_n^n = sqrt((2n-1)/(2n)) y P_{n-1}^{n-1}   (n >= 2)
//   P_n^m = ((2n-1) x P_{n-1}^m - sqrt((n-1)^2 - m^2) P_{n-2}^m) / sqrt(n^2 - m^2)
// and their derivatives by differentiating the same recursions (dx/dphi = y,
// dy/dphi = -x), which stay regular at the poles.
void legendre(double x, double y, double* p, double* dp) {
  p[0] = 1.0;
  dp[0] = 0.0;
  for (int n = 1; n <= kN; ++n) {
    // The sectoral term from the previous diagonal.
    const int nn = wmm_index(n, n);
    const int prev = wmm_index(n - 1, n - 1);
    const double k = (n == 1) ? 1.0 : std::sqrt((2.0 * n - 1.0) / (2.0 * n));
    p[nn] = k * y * p[prev];
    dp[nn] = k * (y * dp[prev] - x * p[prev]);
    for (int m = 0; m < n; ++m) {
      const int i = wmm_index(n, m);
      const int i1 = wmm_index(n - 1, m);
      const double a = (2.0 * n - 1.0) / std::sqrt(static_cast<double>(n * n - m * m));
      double pv = a * x * p[i1];
      double dv = a * (y * p[i1] + x * dp[i1]);
      if (n - 2 >= m) {
        const int i2 = wmm_index(n - 2, m);
        const double b = std::sqrt(static_cast<double>((n - 1) * (n - 1) - m * m) /
                                   static_cast<double>(n * n - m * m));
        pv -= b * p[i2];
        dv -= b * dp[i2];
      }
      p[i] = pv;
      dp[i] = dv;
    }
  }
}

// Geocentric components (north along the geocentric meridian, east, down to
// the centre) of the field whose coefficients are c.g + dt c.g_dot, ... or,
// with rates = true, of the coefficients c.g_dot, c.h_dot.
struct Geocentric {
  double north;
  double east;
  double down;
};

struct Synthesis {
  const WmmModel& model;
  const double* p;
  const double* dp;
  const double* cos_m;  // cos(m lambda), m = 0..12
  const double* sin_m;
  const double* ratio;  // (a/r)^(n+2), n = 0..12
  double x;             // sin(geocentric latitude)
  double y;             // cos(geocentric latitude)

  Geocentric run(double dt, bool rates) const {
    double north = 0.0;
    double east = 0.0;
    double down = 0.0;
    for (int n = 1; n <= kN; ++n) {
      double sn = 0.0;
      double se = 0.0;
      double sd = 0.0;
      for (int m = 0; m <= n; ++m) {
        const int i = wmm_index(n, m);
        const WmmCoefficient& c = model.terms[i];
        const double g = rates ? c.g_dot : c.g + dt * c.g_dot;
        const double h = rates ? c.h_dot : c.h + dt * c.h_dot;
        const double along = g * cos_m[m] + h * sin_m[m];
        sn += along * dp[i];
        sd += along * p[i];
        se += m * (g * sin_m[m] - h * cos_m[m]) * p[i];
      }
      north -= ratio[n] * sn;
      down -= (n + 1) * ratio[n] * sd;
      east += ratio[n] * se;
    }
    if (y >= kPoleCosine) {
      east /= y;
    } else {
      east = pole_east(dt, rates);
    }
    return {north, east, down};
  }

  // At the pole only order 1 survives in the east component:
  //   P_n^1(sin phi) / cos phi -> sqrt(n (n+1) / 2) (+-1)^(n+1)  at sin phi = +-1.
  double pole_east(double dt, bool rates) const {
    const double s = x >= 0.0 ? 1.0 : -1.0;
    double east = 0.0;
    double sign = s * s;  // s^(n+1) for n = 1
    for (int n = 1; n <= kN; ++n) {
      const WmmCoefficient& c = model.terms[wmm_index(n, 1)];
      const double g = rates ? c.g_dot : c.g + dt * c.g_dot;
      const double h = rates ? c.h_dot : c.h + dt * c.h_dot;
      const double limit = std::sqrt(0.5 * n * (n + 1.0)) * sign;
      east += ratio[n] * (g * sin_m[1] - h * cos_m[1]) * limit;
      sign *= s;
    }
    return east;
  }
};

double wrap_degrees(double a) {
  // Into (-180, 180].
  a = std::fmod(a, 360.0);
  if (a > 180.0) a -= 360.0;
  if (a <= -180.0) a += 360.0;
  return a;
}

void fill_nan(Field& out) {
  const double nan = std::nan("");
  out.x_nt = out.y_nt = out.z_nt = out.h_nt = out.f_nt = nan;
  out.inclination_deg = out.declination_deg = out.grid_variation_deg = nan;
  out.x_dot_nt = out.y_dot_nt = out.z_dot_nt = out.h_dot_nt = out.f_dot_nt = nan;
  out.inclination_dot_deg = out.declination_dot_deg = nan;
  out.flags = 0;
}

}  // namespace

Status WorldMagneticModel::field(const Location& where, double decimal_year, Field& out) const {
  fill_nan(out);
  const double lat = where.latitude_deg;
  const double height_km = where.height_m / 1000.0;
  if (!std::isfinite(lat) || lat < -90.0 || lat > 90.0) return Status::bad_latitude;
  if (!std::isfinite(where.longitude_deg)) return Status::bad_longitude;
  if (!std::isfinite(height_km) || height_km < kHeightMinKm || height_km > kHeightMaxKm) return Status::bad_height;
  if (!std::isfinite(decimal_year) || decimal_year < kYearMin || decimal_year > kYearMax) return Status::bad_year;
  const double lon = wrap_degrees(where.longitude_deg);

  // 1. Geodetic to geocentric.
  double sin_lat = 0.0;
  double cos_lat = 0.0;
  geodetic_sin_cos(lat, sin_lat, cos_lat);
  const double rc = kWgs84A / std::sqrt(1.0 - kWgs84E2 * sin_lat * sin_lat);
  const double p_axis = (rc + height_km) * cos_lat;
  const double z_axis = (rc * (1.0 - kWgs84E2) + height_km) * sin_lat;
  const double r = std::sqrt(p_axis * p_axis + z_axis * z_axis);
  const double x = z_axis / r;  // sin of the geocentric latitude
  const double y = p_axis / r;  // cos of the geocentric latitude

  double p[kTerms];
  double dp[kTerms];
  legendre(x, y, p, dp);

  double cos_m[kN + 1];
  double sin_m[kN + 1];
  const double lambda = lon * kDegToRad;
  cos_m[0] = 1.0;
  sin_m[0] = 0.0;
  cos_m[1] = std::cos(lambda);
  sin_m[1] = std::sin(lambda);
  for (int m = 2; m <= kN; ++m) {
    cos_m[m] = cos_m[m - 1] * cos_m[1] - sin_m[m - 1] * sin_m[1];
    sin_m[m] = sin_m[m - 1] * cos_m[1] + cos_m[m - 1] * sin_m[1];
  }

  double ratio[kN + 1];
  const double a_over_r = kReferenceRadius / r;
  ratio[0] = a_over_r * a_over_r;
  for (int n = 1; n <= kN; ++n) ratio[n] = ratio[n - 1] * a_over_r;

  // 2. and 3.
  const Synthesis synthesis{*model_, p, dp, cos_m, sin_m, ratio, x, y};
  const double dt = decimal_year - model_->epoch;
  const Geocentric b = synthesis.run(dt, false);
  const Geocentric bd = synthesis.run(dt, true);

  // 4. Rotate by psi = geocentric - geodetic latitude.
  const double cos_psi = y * cos_lat + x * sin_lat;
  const double sin_psi = x * cos_lat - y * sin_lat;
  out.x_nt = b.north * cos_psi - b.down * sin_psi;
  out.y_nt = b.east;
  out.z_nt = b.north * sin_psi + b.down * cos_psi;
  out.x_dot_nt = bd.north * cos_psi - bd.down * sin_psi;
  out.y_dot_nt = bd.east;
  out.z_dot_nt = bd.north * sin_psi + bd.down * cos_psi;

  const double h2 = out.x_nt * out.x_nt + out.y_nt * out.y_nt;
  const double f2 = h2 + out.z_nt * out.z_nt;
  out.h_nt = std::sqrt(h2);
  out.f_nt = std::sqrt(f2);
  out.inclination_deg = std::atan2(out.z_nt, out.h_nt) * kRadToDeg;
  out.declination_deg = std::atan2(out.y_nt, out.x_nt) * kRadToDeg;
  if (lat > 55.0) {
    out.grid_variation_deg = wrap_degrees(out.declination_deg - lon);
  } else if (lat < -55.0) {
    out.grid_variation_deg = wrap_degrees(out.declination_deg + lon);
  }

  const double xy_dot = out.x_nt * out.x_dot_nt + out.y_nt * out.y_dot_nt;
  out.h_dot_nt = xy_dot / out.h_nt;
  out.f_dot_nt = (xy_dot + out.z_nt * out.z_dot_nt) / out.f_nt;
  out.declination_dot_deg = (out.x_nt * out.y_dot_nt - out.y_nt * out.x_dot_nt) / h2 * kRadToDeg;
  out.inclination_dot_deg = (out.h_nt * out.z_dot_nt - out.z_nt * out.h_dot_nt) / f2 * kRadToDeg;

  uint32_t flags = 0;
  if (out.h_nt < QUELTA_GEOMAG_CAUTION_NT) flags |= QUELTA_GEOMAG_CAUTION_ZONE;
  if (out.h_nt < QUELTA_GEOMAG_BLACKOUT_NT) flags |= QUELTA_GEOMAG_BLACKOUT_ZONE;
  if (decimal_year < model_->epoch || decimal_year > model_->valid_until) flags |= QUELTA_GEOMAG_OUTSIDE_VALIDITY;
  if (height_km < kModelHeightMin || height_km > kModelHeightMax) flags |= QUELTA_GEOMAG_OUTSIDE_HEIGHT;
  out.flags = flags;
  return Status::ok;
}

Status WorldMagneticModel::expected(const Location& where, double decimal_year, Expected& out) const {
  Field f;
  const Status status = field(where, decimal_year, f);
  constexpr double kNanoteslaPerGauss = 100000.0;
  out.strength_gauss = f.f_nt / kNanoteslaPerGauss;
  out.horizontal_gauss = f.h_nt / kNanoteslaPerGauss;
  out.down_gauss = f.z_nt / kNanoteslaPerGauss;
  out.dip_deg = f.inclination_deg;
  out.angle_to_gravity_deg = 90.0 - f.inclination_deg;
  out.declination_deg = f.declination_deg;
  out.flags = f.flags;
  return status;
}

namespace {

bool is_leap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

}  // namespace

Status decimal_year(int year, int month, int day, double& out) {
  static constexpr int kDaysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  static constexpr int kDaysIn[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  out = std::nan("");
  if (year < 1 || year > 9999 || month < 1 || month > 12) return Status::bad_date;
  const bool leap = is_leap(year);
  const int days_in_month = kDaysIn[month - 1] + ((month == 2 && leap) ? 1 : 0);
  if (day < 1 || day > days_in_month) return Status::bad_date;
  const int day_of_year = kDaysBefore[month - 1] + ((month > 2 && leap) ? 1 : 0) + day;
  out = year + (day_of_year - 1) / (leap ? 366.0 : 365.0);
  return Status::ok;
}

Status decimal_year_from_text(const char* date, double& out) {
  out = std::nan("");
  if (date == nullptr) return Status::null_pointer;
  // Exactly YYYY-MM-DD.
  int digits[8];
  int k = 0;
  for (int i = 0; i < 10; ++i) {
    const char c = date[i];
    if (i == 4 || i == 7) {
      if (c != '-') return Status::bad_date;
    } else {
      if (c < '0' || c > '9') return Status::bad_date;
      digits[k++] = c - '0';
    }
  }
  if (date[10] != '\0') return Status::bad_date;
  const int year = digits[0] * 1000 + digits[1] * 100 + digits[2] * 10 + digits[3];
  const int month = digits[4] * 10 + digits[5];
  const int day = digits[6] * 10 + digits[7];
  return decimal_year(year, month, day, out);
}

}  // namespace geomag
}  // namespace quelta
