// SPDX-License-Identifier: Apache-2.0
// The earth's main field from a World Magnetic Model release (WMM2025 by
// default): spherical-harmonic synthesis of degree and order 12 on WGS-84.
//
// The type holds only a reference to a constant coefficient table, so it is
// cheap to copy, and every call is reentrant: no state, no heap. The C
// interface in include/quelta/quelta_geomag.h calls this.
#ifndef QUELTA_GEOMAG_WORLD_MAGNETIC_MODEL_H
#define QUELTA_GEOMAG_WORLD_MAGNETIC_MODEL_H

#include <cstdint>

#include "quelta/geomag/wmm_model.h"
#include "quelta/quelta_geomag.h"

namespace quelta {
namespace geomag {

using Field = quelta_geomag_field;
using Expected = quelta_geomag_expected;

enum class Status : int {
  ok = QUELTA_GEOMAG_OK,
  null_pointer = QUELTA_GEOMAG_ERROR_NULL,
  bad_latitude = QUELTA_GEOMAG_ERROR_LATITUDE,
  bad_longitude = QUELTA_GEOMAG_ERROR_LONGITUDE,
  bad_height = QUELTA_GEOMAG_ERROR_HEIGHT,
  bad_year = QUELTA_GEOMAG_ERROR_YEAR,
  bad_date = QUELTA_GEOMAG_ERROR_DATE,
};

// A place: geodetic latitude and longitude on WGS-84 (degrees), height above
// the ellipsoid (metres, as a GPS gives it).
struct Location {
  double latitude_deg;
  double longitude_deg;
  double height_m;
};

class WorldMagneticModel {
 public:
  constexpr WorldMagneticModel() : model_(&kWmm2025) {}
  constexpr explicit WorldMagneticModel(const WmmModel& model) : model_(&model) {}

  // The field at a place and date (decimal year). On an error every value of
  // `out` is NaN and its flags are 0.
  Status field(const Location& where, double decimal_year, Field& out) const;

  // Strength, dip and declination in gauss and degrees (from field()).
  Status expected(const Location& where, double decimal_year, Expected& out) const;

  const char* name() const { return model_->name; }
  double valid_from() const { return model_->epoch; }
  double valid_until() const { return model_->valid_until; }

 private:
  const WmmModel* model_;
};

// Decimal year of a Gregorian date at 00:00: year + (day of year - 1) / days
// in the year, so 2025-01-01 is 2025.0 and 2028-07-02 is 2028.5.
Status decimal_year(int year, int month, int day, double& out);

// The same from exactly "YYYY-MM-DD".
Status decimal_year_from_text(const char* date, double& out);

}  // namespace geomag
}  // namespace quelta

#endif
