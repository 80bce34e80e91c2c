// SPDX-License-Identifier: Apache-2.0
/* The earth's main field from the World Magnetic Model 2025 (WMM2025).
 *
 * For a place (geodetic latitude and longitude on WGS-84, height above the
 * ellipsoid) and a date (decimal year): the field's north, east and down
 * components, its horizontal and total intensity, inclination, declination
 * (the angle from true north to magnetic north, east positive) and grid
 * variation, with their yearly rates of change. The coefficients are compiled
 * in; every function is reentrant and allocates nothing.
 *
 * The model's coefficients are a work of the United States Government, not
 * subject to copyright protection in the United States (17 U.S.C. 403).
 *
 * Units: nT for the field (1 gauss = 100000 nT), degrees for angles, metres
 * for the height. A decimal year is year + (day of year - 1) / days in year:
 * 2025-01-01 is 2025.0. */
#ifndef QUELTA_QUELTA_GEOMAG_H
#define QUELTA_QUELTA_GEOMAG_H

#include <stdint.h>

#include "quelta/quelta_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Return values. Errors are negative; the outputs are then NaN. */
#define QUELTA_GEOMAG_OK 0
#define QUELTA_GEOMAG_ERROR_NULL (-1)      /* a required pointer is NULL */
#define QUELTA_GEOMAG_ERROR_LATITUDE (-2)  /* not finite or outside -90..90 */
#define QUELTA_GEOMAG_ERROR_LONGITUDE (-3) /* not finite */
#define QUELTA_GEOMAG_ERROR_HEIGHT (-4)    /* not finite or outside -1000 km..100000 km */
#define QUELTA_GEOMAG_ERROR_YEAR (-5)      /* not finite or outside 1900..2100 */
#define QUELTA_GEOMAG_ERROR_DATE (-6)      /* not a valid YYYY-MM-DD date */

/* Warning flags (a result is still computed). */
#define QUELTA_GEOMAG_CAUTION_ZONE 0x1u     /* H < 6000 nT: declination needs caution */
#define QUELTA_GEOMAG_BLACKOUT_ZONE 0x2u    /* H < 2000 nT: declination unreliable (CAUTION set too) */
#define QUELTA_GEOMAG_OUTSIDE_VALIDITY 0x4u /* date outside 2025.0..2030.0: extrapolated */
#define QUELTA_GEOMAG_OUTSIDE_HEIGHT 0x8u   /* height outside -1 km..850 km, the model's range */

#define QUELTA_GEOMAG_CAUTION_NT 6000.0
#define QUELTA_GEOMAG_BLACKOUT_NT 2000.0

typedef struct quelta_geomag_field {
  double x_nt; /* north */
  double y_nt; /* east */
  double z_nt; /* down */
  double h_nt; /* horizontal intensity */
  double f_nt; /* total intensity */
  double inclination_deg; /* dip below the horizontal, positive downward */
  double declination_deg; /* from true north to the horizontal field, east positive, -180..180 */
  /* Declination less the grid's convergence in polar stereographic grids:
   * D - longitude north of 55 N, D + longitude south of 55 S, NaN between. */
  double grid_variation_deg;
  /* Yearly rates of change (secular variation). */
  double x_dot_nt;
  double y_dot_nt;
  double z_dot_nt;
  double h_dot_nt;
  double f_dot_nt;
  double inclination_dot_deg;
  double declination_dot_deg;
  uint32_t flags; /* QUELTA_GEOMAG_* warning flags */
} quelta_geomag_field;

/* What the calibration and disturbance detection expect, in the units of
 * the magnetometer: gauss. */
typedef struct quelta_geomag_expected {
  double strength_gauss;   /* |B| */
  double horizontal_gauss; /* H */
  double down_gauss;       /* Z, positive downward */
  double dip_deg;          /* inclination: angle below the horizontal, positive downward */
  double angle_to_gravity_deg; /* between the field and gravity (down): 90 - dip */
  double declination_deg;  /* true heading = magnetic heading + declination */
  uint32_t flags;          /* QUELTA_GEOMAG_* warning flags */
} quelta_geomag_expected;

/* The model's field at a place and date. Returns QUELTA_GEOMAG_OK or an error. */
QUELTA_LAYER_API int quelta_geomag_field_at(double latitude_deg, double longitude_deg, double height_m,
                                            double decimal_year, quelta_geomag_field* out);

/* Strength, dip and declination at a place and date, for the other parts of
 * the library. Returns QUELTA_GEOMAG_OK or an error. */
QUELTA_LAYER_API int quelta_geomag_expected_at(double latitude_deg, double longitude_deg, double height_m,
                                               double decimal_year, quelta_geomag_expected* out);

/* Declination alone, degrees; NaN on bad input. flags may be NULL. */
QUELTA_LAYER_API double quelta_geomag_declination(double latitude_deg, double longitude_deg, double height_m,
                                                  double decimal_year, uint32_t* flags);

/* Decimal year of a Gregorian calendar date at 00:00: year + (day of year - 1) / days in year. */
QUELTA_LAYER_API int quelta_geomag_decimal_year(int year, int month, int day, double* out);

/* The same from the text "YYYY-MM-DD": date must point at a NUL-terminated
 * string, exactly ten characters long. It is read one character at a time
 * and reading stops at the first character that cannot belong to such a
 * date (the terminating NUL included), so nothing past the string's end is
 * ever read. QUELTA_GEOMAG_ERROR_DATE for anything else, including trailing
 * characters; QUELTA_GEOMAG_ERROR_NULL for a NULL pointer. */
QUELTA_LAYER_API int quelta_geomag_decimal_year_from_text(const char* date, double* out);

/* Short English descriptions of a return value and of one warning flag
 * (a single QUELTA_GEOMAG_* bit). Never NULL; constant strings. */
QUELTA_LAYER_API const char* quelta_geomag_status_text(int status);
QUELTA_LAYER_API const char* quelta_geomag_flag_text(uint32_t flag);

/* The model compiled in: its name ("WMM-2025") and validity in decimal years. */
QUELTA_LAYER_API const char* quelta_geomag_model_name(void);
QUELTA_LAYER_API double quelta_geomag_valid_from(void);
QUELTA_LAYER_API double quelta_geomag_valid_until(void);

#ifdef __cplusplus
}
#endif

#endif
