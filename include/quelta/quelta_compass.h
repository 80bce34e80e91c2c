/* The compass: attitude (device to east-north-up), azimuth, pitch
 * and roll, gravity, linear acceleration, angular rate and a heading
 * accuracy estimate from timestamped accelerometer, calibrated magnetic
 * field and, when the device has one, gyroscope samples (any rate from 10 to
 * 400 Hz, irregular intervals). The raw magnetometer is calibrated inside
 * by the magnetic layer (quelta_magnetic.h); hosts that calibrate it
 * themselves pass the calibrated field to quelta_compass_update_calibrated.
 *
 *   quelta_compass c;                       // caller-owned, no heap
 *   quelta_compass_init(&c);
 *   quelta_compass_restore_calibration(&c, saved, sizeof saved);  // optional
 *   per sample set:
 *     quelta_compass_update(&c, t, acc, raw_field, gyro_or_null);
 *     quelta_compass_get_output(&c, &out);
 *   quelta_compass_save_calibration(&c, record);                  // e.g. at shutdown
 *
 * Caller-owned state, no heap, no globals: any number of instances. Every
 * function is reentrant for distinct instances. */
#ifndef QUELTA_QUELTA_COMPASS_H
#define QUELTA_QUELTA_COMPASS_H

#include <stdint.h>

#include "quelta/quelta_export.h"
#include "quelta/quelta_magnetic.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The state, opaque; initialise with quelta_compass_init before use. */
#define QUELTA_COMPASS_STATE_SIZE 24576
typedef struct quelta_compass {
  uint64_t opaque[QUELTA_COMPASS_STATE_SIZE / 8];
} quelta_compass;

/* What the host (or the magnetic layer) knows of the field it passes. */
typedef struct quelta_compass_field_quality {
  int32_t disturbed;                 /* nonzero: the field is known to be disturbed */
  int32_t calibration_accuracy;      /* 0..3 */
  double disturbance_score;          /* 0 clean, >= 1 disturbed */
  double calibration_heading_error_deg;
} quelta_compass_field_quality;

#define QUELTA_COMPASS_FLAG_CALIBRATING 0x1u
#define QUELTA_COMPASS_FLAG_MAGNETIC_DISTURBANCE 0x2u
#define QUELTA_COMPASS_FLAG_ACCELERATING 0x4u
#define QUELTA_COMPASS_FLAG_NO_HEADING 0x8u
#define QUELTA_COMPASS_FLAG_GYROSCOPE 0x10u
#define QUELTA_COMPASS_FLAG_RESTING 0x20u

typedef struct quelta_compass_output {
  double t;                    /* s, time of the last sample */
  double quaternion[4];        /* w, x, y, z: device to east-north-up */
  double azimuth_deg;          /* [0, 360), clockwise from north to the levelled top edge */
  double pitch_deg;            /* (-180, 180], positive when the top edge dips */
  double roll_deg;             /* [-90, 90], positive when the right edge rises */
  double gravity[3];           /* g, device frame, +1 g along up */
  double linear_acceleration[3]; /* g, device frame */
  double angular_rate[3];      /* rad/s, device frame: bias-corrected gyroscope, or derived */
  double gyro_bias[3];         /* rad/s */
  double heading_accuracy_deg; /* estimated heading error */
  int32_t accuracy;            /* 0..3 */
  uint32_t flags;              /* QUELTA_COMPASS_FLAG_* */
} quelta_compass_output;

/* Sets up state with the default tuning. Returns 0, or -1 for null. */
QUELTA_LAYER_API int32_t quelta_compass_init(quelta_compass* state);
/* Forgets the attitude, keeps tuning and declination. Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_reset(quelta_compass* state);
/* Declination in degrees east: headings then refer to true north. */
QUELTA_LAYER_API int32_t quelta_compass_set_declination(quelta_compass* state, double declination_deg);
/* The field expected at the device's location (e.g. from the field model):
 * strength in gauss, dip in degrees (positive below the horizon). Helps the
 * calibration; an invalid pair forgets it. Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_set_expected_field(quelta_compass* state, double strength_gauss,
                                                           double dip_deg);
/* One sample set at time t (s): acc in g (3), raw magnetometer in gauss (3,
 * or null when this set has none), gyro in rad/s (3, or null). Returns 0,
 * or -1 for a null or uninitialised state or null acc. */
QUELTA_LAYER_API int32_t quelta_compass_update(quelta_compass* state, double t, const double* acc,
                                               const double* raw_field, const double* gyro);
/* As quelta_compass_update with a field the host has calibrated itself (3,
 * or null) and what it knows of it (or null: calibrated, not disturbed);
 * the layer's calibration is bypassed. */
QUELTA_LAYER_API int32_t quelta_compass_update_calibrated(quelta_compass* state, double t, const double* acc,
                                                          const double* field,
                                                          const quelta_compass_field_quality* quality,
                                                          const double* gyro);
/* The magnetic calibration's quality: accuracy, reason, coverage, ...
 * Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_calibration_quality(const quelta_compass* state,
                                                                quelta_mag_quality* out);
/* Save and restore the magnetic calibration (QUELTA_MAG_RECORD_* results). */
QUELTA_LAYER_API int32_t quelta_compass_save_calibration(const quelta_compass* state,
                                                         uint8_t record[QUELTA_MAG_RECORD_SIZE]);
QUELTA_LAYER_API int32_t quelta_compass_restore_calibration(quelta_compass* state, const uint8_t* record,
                                                            size_t size);
/* Copies the latest outputs. Returns 0, or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_output(const quelta_compass* state, quelta_compass_output* out);

#ifdef __cplusplus
}
#endif

#endif
