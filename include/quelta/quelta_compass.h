/* The compass filter: attitude (device to east-north-up), azimuth, pitch
 * and roll, gravity, linear acceleration, angular rate and a heading
 * accuracy estimate from timestamped accelerometer, calibrated magnetic
 * field and, when the device has one, gyroscope samples (any rate from 10 to
 * 400 Hz, irregular intervals).
 *
 * Caller-owned state, no heap, no globals: any number of instances. Every
 * function is reentrant for distinct instances. */
#ifndef QUELTA_QUELTA_COMPASS_H
#define QUELTA_QUELTA_COMPASS_H

#include <stdint.h>

#include "quelta/quelta_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The state, opaque; initialise with quelta_compass_init before use. */
typedef struct quelta_compass {
  uint32_t magic;
  uint32_t reserved;
  double storage[160];
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
/* One sample set at time t (s): acc in g (3), field calibrated in gauss (3,
 * or null when this set has none), quality (or null: calibrated, not
 * disturbed), gyro in rad/s (3, or null). Returns 0, or -1 for a null or
 * uninitialised state or null acc. */
QUELTA_LAYER_API int32_t quelta_compass_update(quelta_compass* state, double t, const double* acc,
                                               const double* field,
                                               const quelta_compass_field_quality* quality,
                                               const double* gyro);
/* Copies the latest outputs. Returns 0, or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_output(const quelta_compass* state, quelta_compass_output* out);

#ifdef __cplusplus
}
#endif

#endif
