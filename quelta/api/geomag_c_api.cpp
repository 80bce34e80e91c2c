// SPDX-License-Identifier: Apache-2.0
// C interface of the World Magnetic Model (include/quelta/quelta_geomag.h).
#include "quelta/quelta_geomag.h"

#include "quelta/geomag/world_magnetic_model.h"

namespace {

using quelta::geomag::Location;
using quelta::geomag::Status;
using quelta::geomag::WorldMagneticModel;

int code(Status s) { return static_cast<int>(s); }

}  // namespace

extern "C" {

QUELTA_LAYER_API int quelta_geomag_field_at(double latitude_deg, double longitude_deg, double height_m,
                                            double decimal_year, quelta_geomag_field* out) {
  if (out == nullptr) return QUELTA_GEOMAG_ERROR_NULL;
  return code(WorldMagneticModel().field(Location{latitude_deg, longitude_deg, height_m}, decimal_year, *out));
}

QUELTA_LAYER_API int quelta_geomag_expected_at(double latitude_deg, double longitude_deg, double height_m,
                                               double decimal_year, quelta_geomag_expected* out) {
  if (out == nullptr) return QUELTA_GEOMAG_ERROR_NULL;
  return code(WorldMagneticModel().expected(Location{latitude_deg, longitude_deg, height_m}, decimal_year, *out));
}

QUELTA_LAYER_API double quelta_geomag_declination(double latitude_deg, double longitude_deg, double height_m,
                                                  double decimal_year, uint32_t* flags) {
  quelta_geomag_field f;
  WorldMagneticModel().field(Location{latitude_deg, longitude_deg, height_m}, decimal_year, f);
  if (flags != nullptr) *flags = f.flags;
  return f.declination_deg;
}

QUELTA_LAYER_API int quelta_geomag_decimal_year(int year, int month, int day, double* out) {
  if (out == nullptr) return QUELTA_GEOMAG_ERROR_NULL;
  return code(quelta::geomag::decimal_year(year, month, day, *out));
}

QUELTA_LAYER_API int quelta_geomag_decimal_year_from_text(const char* date, double* out) {
  if (out == nullptr) return QUELTA_GEOMAG_ERROR_NULL;
  return code(quelta::geomag::decimal_year_from_text(date, *out));
}

QUELTA_LAYER_API const char* quelta_geomag_status_text(int status) {
  switch (status) {
    case QUELTA_GEOMAG_OK:
      return "ok";
    case QUELTA_GEOMAG_ERROR_NULL:
      return "a required pointer is NULL";
    case QUELTA_GEOMAG_ERROR_LATITUDE:
      return "latitude must be a number from -90 to 90 degrees";
    case QUELTA_GEOMAG_ERROR_LONGITUDE:
      return "longitude must be a finite number of degrees";
    case QUELTA_GEOMAG_ERROR_HEIGHT:
      return "height must be a number from -1000 km to 100000 km";
    case QUELTA_GEOMAG_ERROR_YEAR:
      return "decimal year must be a number from 1900 to 2100";
    case QUELTA_GEOMAG_ERROR_DATE:
      return "date must be a valid calendar date written YYYY-MM-DD";
    default:
      return "unknown status";
  }
}

QUELTA_LAYER_API const char* quelta_geomag_flag_text(uint32_t flag) {
  switch (flag) {
    case QUELTA_GEOMAG_CAUTION_ZONE:
      return "caution zone: horizontal field below 6000 nT, declination less reliable";
    case QUELTA_GEOMAG_BLACKOUT_ZONE:
      return "blackout zone: horizontal field below 2000 nT, declination unreliable";
    case QUELTA_GEOMAG_OUTSIDE_VALIDITY:
      return "date outside the model's validity (2025.0 to 2030.0): values extrapolated";
    case QUELTA_GEOMAG_OUTSIDE_HEIGHT:
      return "height outside the model's range (-1 km to 850 km)";
    default:
      return "unknown flag";
  }
}

QUELTA_LAYER_API const char* quelta_geomag_model_name(void) { return WorldMagneticModel().name(); }

QUELTA_LAYER_API double quelta_geomag_valid_from(void) { return WorldMagneticModel().valid_from(); }

QUELTA_LAYER_API double quelta_geomag_valid_until(void) { return WorldMagneticModel().valid_until(); }

}  // extern "C"
