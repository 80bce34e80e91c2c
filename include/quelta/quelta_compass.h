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
#define QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT 0x40u /* the gyroscope is stuck, dead or its bias unlearnable: not used */
#define QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT 0x80u     /* a field axis is stuck or clipped: the field is not used */
#define QUELTA_COMPASS_FLAG_TIME_RESTART 0x100u      /* this sample set restarted the time base (see below) */

/* Return codes. 0 is success; -1 a null or uninitialised state (or a null
 * required pointer). A sample set with a value no sensor can deliver is
 * refused whole and leaves no trace in any state; the code names the input:
 *   QUELTA_COMPASS_ERROR_TIME           t not finite
 *   QUELTA_COMPASS_ERROR_ACCELEROMETER  acc not finite, or |acc| beyond 32 g
 *   QUELTA_COMPASS_ERROR_FIELD          field not finite, or beyond 10 gauss
 *                                       once calibrated
 *   QUELTA_COMPASS_ERROR_GYROSCOPE      gyro not finite, or beyond 2000 deg/s
 *                                       (34.9 rad/s) on some axis
 *   QUELTA_COMPASS_ERROR_QUALITY        a field quality out of range
 *                                       (accuracy 0..3, score >= 0, heading
 *                                       error 0..180 degrees, all finite)
 *   QUELTA_COMPASS_ERROR_SETTING        a setting not finite or out of range
 *                                       (the previous value is kept) */
#define QUELTA_COMPASS_OK 0
#define QUELTA_COMPASS_ERROR_STATE (-1)
#define QUELTA_COMPASS_ERROR_TIME (-2)
#define QUELTA_COMPASS_ERROR_ACCELEROMETER (-3)
#define QUELTA_COMPASS_ERROR_FIELD (-4)
#define QUELTA_COMPASS_ERROR_GYROSCOPE (-5)
#define QUELTA_COMPASS_ERROR_QUALITY (-6)
#define QUELTA_COMPASS_ERROR_SETTING (-7)

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
/* Declination in degrees east (-180..180): headings then refer to true
 * north. Returns 0, -1, or QUELTA_COMPASS_ERROR_SETTING. */
QUELTA_LAYER_API int32_t quelta_compass_set_declination(quelta_compass* state, double declination_deg);
/* The field expected at the device's location (e.g. from the field model):
 * strength in gauss, dip in degrees (positive below the horizon). Helps the
 * calibration. A strength of zero or less forgets it; otherwise the
 * strength must lie within 0.15..0.8 gauss and the dip within -90..90
 * degrees. Returns 0, -1, or QUELTA_COMPASS_ERROR_SETTING. */
QUELTA_LAYER_API int32_t quelta_compass_set_expected_field(quelta_compass* state, double strength_gauss,
                                                           double dip_deg);
/* One sample set at time t (s): acc in g (3), raw magnetometer in gauss (3,
 * or null when this set has none), gyro in rad/s (3, or null). Returns 0,
 * -1 for a null or uninitialised state or null acc, or a
 * QUELTA_COMPASS_ERROR_* code of a refused sample set.
 *
 * Time: t is the host's clock, any origin. The compass follows it while it
 * moves forward by up to a few sample periods (five, and at least 0.1 s).
 *   - A step back or a repeated time restarts the time base: the sample set
 *     counts as one sample period after the last, the host's clock is
 *     followed from there; attitude, bias and calibration carry on.
 *   - A longer step forward is a gap: nothing is propagated across it.
 *     Unless gravity and the field show the device where it was (within
 *     20 degrees), the attitude is found again from the next samples (as at
 *     the start, from the accelerometer and the field); the calibration is
 *     kept either way.
 * Both set QUELTA_COMPASS_FLAG_TIME_RESTART on that sample set's output.
 *
 * Sensors: a gyroscope that repeats one reading exactly (zeros included)
 * while the field or gravity turn, or whose bias cannot be learnt within
 * 0.2 rad/s, is left out (QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) and the
 * compass tracks without it until it reads again / its bias is plausible.
 * A field with an axis stuck or clipped while the device turns is left out
 * (QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT) until no axis has been for 2 s. */
QUELTA_LAYER_API int32_t quelta_compass_update(quelta_compass* state, double t, const double* acc,
                                               const double* raw_field, const double* gyro);
/* As quelta_compass_update with a field the host has calibrated itself (3,
 * or null) and what it knows of it (or null: calibrated, not disturbed);
 * the layer's calibration is bypassed. The same checks and codes as
 * quelta_compass_update, and QUELTA_COMPASS_ERROR_QUALITY. */
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
/* The magnetic calibration in use: calibrated = soft_iron * (raw - offset).
 * Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_calibration(const quelta_compass* state, quelta_mag_calibration* out);
/* What the magnetic layer made of the last raw field (calibrated field,
 * disturbance score and flag, whether the calibration changed with it).
 * All zero before the first field or after quelta_compass_update_calibrated.
 * Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_field(const quelta_compass* state, quelta_mag_sample* out);

#ifdef __cplusplus
}
#endif

#endif
