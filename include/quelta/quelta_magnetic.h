// SPDX-License-Identifier: Apache-2.0
/* libquelta magnetic layer: online hard- and soft-iron calibration of a
 * magnetometer with a quality report, a per-sample magnetic disturbance
 * score, and a save/restore record.
 *
 * Raw and calibrated: the calibrator takes the magnetometer's RAW reading
 * (the sensor's output in gauss, with the device's hard and soft iron in it)
 * and gives the CALIBRATED field, calibrated = soft_iron * (raw - offset):
 * the earth's field (plus any disturbance) in the device's axes. Units:
 * gauss (1 gauss = 100 uT), seconds, degrees.
 *
 * Reentrant: every call works on a caller-owned quelta_mag_state; no
 * globals, no heap. Any number of independent instances (e.g. a host with
 * two magnetometers). Not thread-safe per instance: one thread at a time
 * per state.
 *
 * Typical use:
 *   quelta_mag_state* s = ...;            // static, on the stack or malloc'ed
 *   quelta_mag_init(s);
 *   quelta_mag_restore(s, saved, sizeof saved);   // optional, checked
 *   for each sample:
 *     quelta_mag_update(s, t, raw_field, accelerometer, &out);
 *     ... out.calibrated, out.accuracy, out.disturbed ...
 *   quelta_mag_save(s, record);          // e.g. at shutdown
 */
#ifndef QUELTA_MAGNETIC_H
#define QUELTA_MAGNETIC_H

#include <stddef.h>
#include <stdint.h>

#include "quelta/quelta_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque state of one calibrator: 32 KiB reserved (about 15 KiB used),
 * 8-byte aligned. Allocate it anywhere (static, stack, heap); call
 * quelta_mag_init before use. It holds no pointers, so a copy (memcpy) is an
 * independent calibrator. quelta_mag_update needs up to about 24 KiB of
 * stack while it fits. */
#define QUELTA_MAG_STATE_SIZE 32768
typedef struct quelta_mag_state {
  uint64_t opaque[QUELTA_MAG_STATE_SIZE / 8];
} quelta_mag_state;

/* Size of the save/restore record, bytes (fixed, little-endian). */
#define QUELTA_MAG_RECORD_SIZE 128

/* Calibration model. */
#define QUELTA_MAG_MODEL_NONE 0      /* not calibrated yet */
#define QUELTA_MAG_MODEL_SPHERE 1    /* offset only (soft iron kept) */
#define QUELTA_MAG_MODEL_ELLIPSOID 2 /* offset and soft-iron matrix fitted */

/* Why the calibration is not (yet) at accuracy 3. */
#define QUELTA_MAG_REASON_NONE 0              /* calibrated */
#define QUELTA_MAG_REASON_COLLECTING 1        /* keep moving the device */
#define QUELTA_MAG_REASON_TURN_OTHER_AXIS 2   /* turn the device about another axis */
#define QUELTA_MAG_REASON_FIELD_UNSTABLE 3    /* field changes: magnets or metal nearby */
#define QUELTA_MAG_REASON_STRENGTH_MISMATCH 4 /* strength far from the expected one */
#define QUELTA_MAG_REASON_NO_SAMPLES 5        /* no valid magnetometer sample yet */

/* Results of quelta_mag_restore / quelta_mag_save. */
#define QUELTA_MAG_RECORD_OK 0
#define QUELTA_MAG_RECORD_TRUNCATED 1
#define QUELTA_MAG_RECORD_BAD_MAGIC 2
#define QUELTA_MAG_RECORD_OTHER_VERSION 3
#define QUELTA_MAG_RECORD_BAD_CHECKSUM 4
#define QUELTA_MAG_RECORD_BAD_VALUES 5
#define QUELTA_MAG_RECORD_NO_CALIBRATION 6

/* What one sample gives. */
typedef struct quelta_mag_sample {
  double calibrated[3];       /* field, gauss, device axes */
  double strength;            /* |calibrated|, gauss */
  double dip_deg;             /* angle of the field below the horizon (0 without accelerometer) */
  double strength_deviation;  /* smoothed strength / fitted strength - 1 */
  double dip_deviation_deg;   /* smoothed dip minus the fitted dip */
  double disturbance;         /* score: 0 undisturbed, 1 at the flag's threshold */
  int disturbed;              /* 1: magnetically disturbed (score >= 1), don't trust the heading */
  int accuracy;               /* 0..3, as quelta_mag_quality.accuracy */
  int new_calibration;        /* 1: the calibration changed with this sample */
  int valid;                  /* 0: the sample was refused (NaN, infinity, all zero) */
} quelta_mag_sample;

/* The current calibration: calibrated = soft_iron * (raw - offset). */
typedef struct quelta_mag_calibration {
  double offset[3];           /* hard iron, gauss */
  double soft_iron[9];        /* symmetric 3x3, row-major, determinant 1 */
  double strength;            /* fitted field strength, gauss */
  double dip_deg;             /* fitted dip angle, degrees (positive: field below the horizon) */
  int model;                  /* QUELTA_MAG_MODEL_* */
} quelta_mag_calibration;

/* accuracy follows heading_error_deg: 3 when it is at most 4 degrees, 2 at
 * most 8, 1 at most 25, else 0 (and 0 while uncalibrated). */
typedef struct quelta_mag_quality {
  int accuracy;               /* 0 unreliable .. 3 good enough for a heading */
  int reason;                 /* QUELTA_MAG_REASON_* */
  double coverage;            /* share of directions seen, 0..1 (26 cells) */
  double residual_gauss;      /* robust rms of the fit's residuals */
  double fitted_strength;     /* gauss */
  double expected_strength;   /* gauss, 0 when no expected field is set */
  double heading_error_deg;   /* estimated RMS heading error the calibration leaves, degrees, from the
                                 fit's covariance over the orientations seen; 180 while uncalibrated */
  int samples;                /* stored samples behind the fit */
  int new_hard_iron;          /* times a changed offset (magnet attached/removed) was adopted */
} quelta_mag_quality;

/* Sets up a fresh calibrator. */
QUELTA_LAYER_API void quelta_mag_init(quelta_mag_state* state);

/* Forgets the calibration and the samples (the expected field stays). */
QUELTA_LAYER_API void quelta_mag_reset(quelta_mag_state* state);

/* The field expected at the device's location (e.g. from the field model):
 * strength in gauss and dip (inclination) in degrees, positive when the field
 * points below the horizon. Pins the calibration sooner and sets the
 * hemisphere. strength_gauss <= 0 clears it; a strength outside 0.15..0.8
 * gauss, a dip outside -90..90 degrees or a non-finite value is ignored
 * (the previous setting stays). */
QUELTA_LAYER_API void quelta_mag_set_expected_field(quelta_mag_state* state, double strength_gauss,
                                                    double dip_deg);

/* One sample. t: seconds, any origin; repeats, steps back and gaps are
 * tolerated. mag: RAW field in gauss (device axes). acc: accelerometer in any
 * unit (reads "up" at rest) or, better, a gravity estimate; NULL when there is
 * none. out may be NULL. Returns out->valid. */
QUELTA_LAYER_API int quelta_mag_update(quelta_mag_state* state, double t, const double mag[3],
                                       const double acc[3], quelta_mag_sample* out);

QUELTA_LAYER_API void quelta_mag_get_calibration(const quelta_mag_state* state,
                                                 quelta_mag_calibration* out);
QUELTA_LAYER_API void quelta_mag_get_quality(const quelta_mag_state* state, quelta_mag_quality* out);

/* Applies the current calibration to a raw field: soft_iron * (raw - offset). */
QUELTA_LAYER_API void quelta_mag_apply(const quelta_mag_state* state, const double raw[3],
                                       double calibrated[3]);

/* Writes the calibration record (QUELTA_MAG_RECORD_SIZE bytes). Returns
 * QUELTA_MAG_RECORD_OK, QUELTA_MAG_RECORD_NO_CALIBRATION, or
 * QUELTA_MAG_RECORD_BAD_VALUES when the calibration in use is one that
 * quelta_mag_restore would refuse (outside the limits below, e.g. fitted in
 * a field stronger than the earth's); the record is then zeroed. What is
 * saved always restores. */
QUELTA_LAYER_API int quelta_mag_save(const quelta_mag_state* state,
                                     uint8_t record[QUELTA_MAG_RECORD_SIZE]);

/* Checks a record (size, magic, version, checksum, value ranges) and adopts
 * it only when every check passes; otherwise the state is left unchanged.
 * The values must be a calibration a magnetometer on earth can have: soft
 * iron positive definite with eigenvalues within 0.5..2 (determinant 1),
 * |offset| below 10 gauss, strength within 0.15..0.8 gauss; anything else
 * is QUELTA_MAG_RECORD_BAD_VALUES even with a valid checksum.
 * Returns a QUELTA_MAG_RECORD_* code. */
QUELTA_LAYER_API int quelta_mag_restore(quelta_mag_state* state, const uint8_t* record,
                                        size_t size);

/* English texts for the codes above (static strings). */
QUELTA_LAYER_API const char* quelta_mag_reason_text(int reason);
QUELTA_LAYER_API const char* quelta_mag_record_text(int status);

#ifdef __cplusplus
}
#endif

#endif
