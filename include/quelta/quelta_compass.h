// SPDX-License-Identifier: Apache-2.0
/* The compass: attitude (device to east-north-up, or north-east-down on
 * request), azimuth, pitch and roll, gravity, linear acceleration, angular
 * rate and a heading accuracy estimate from timestamped accelerometer,
 * magnetometer and, when the device has one, gyroscope samples (any rate
 * from 10 to 400 Hz, irregular intervals).
 *
 * Raw or calibrated field: quelta_compass_update takes the magnetometer's
 * RAW (uncalibrated) reading, hard and soft iron included, and calibrates it
 * inside with the magnetic layer (quelta_magnetic.h). A host that calibrates
 * the field itself (e.g. from an operating system that reports a calibrated
 * field) passes it to quelta_compass_update_calibrated instead, and the
 * layer's own calibration is bypassed.
 *
 *   quelta_compass c;                       // caller-owned, no heap
 *   quelta_compass_init(&c);
 *   quelta_compass_set_units(&c, &units);   // optional: s/ms/us/ns, g or m/s^2, gauss/uT/nT, axes, frame
 *   quelta_compass_restore_calibration(&c, saved, sizeof saved);  // optional
 *   per sample set:
 *     quelta_compass_update(&c, t, acc, raw_field, gyro_or_null);
 *     quelta_compass_get_output(&c, &out);
 *   or over whole arrays at once: quelta_compass_run(&c, n, t, acc, raw_field, gyro, outs, cals, codes);
 *   quelta_compass_save_calibration(&c, record);                  // e.g. at shutdown
 *
 * Units: by default time in seconds, acceleration in g, field in gauss,
 * angular rate in rad/s, the sensors' axes taken as the device's (x right, y
 * towards the top edge, z out of the screen) and the attitude referred to
 * east-north-up. quelta_compass_set_units changes the input units, the axes
 * and the output frame; samples whose values contradict the units set are
 * refused with a QUELTA_COMPASS_ERROR_*_UNIT code (see below).
 *
 * Caller-owned state, no heap, no globals: any number of instances. Every
 * function is reentrant for distinct instances; one thread at a time per
 * instance.
 *
 * Return codes of every int32_t function below:
 *    0  done.
 *   -1  a null or uninitialised state, or a required pointer is null.
 *   -2 .. -19   an input refused as faulty (see the codes defined below, if any).
 *   -20 .. -29  a settings value that is not valid, or a sample whose values
 *               contradict the units set (QUELTA_COMPASS_ERROR_*). A refused
 *               sample changes nothing in the compass: the outputs stay those
 *               of the last accepted sample.
 *   save/restore return QUELTA_MAG_RECORD_* codes (0 or positive) or -1. */
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

/* What the host knows of the calibrated field it passes to
 * quelta_compass_update_calibrated. */
typedef struct quelta_compass_field_quality {
  int32_t disturbed;                 /* nonzero: the field is known to be disturbed */
  int32_t calibration_accuracy;      /* 0..3 of the host's calibration (caps the output's accuracy) */
  double disturbance_score;          /* 0 clean, >= 1 disturbed */
  double calibration_heading_error_deg; /* estimated RMS heading error the calibration leaves, degrees */
} quelta_compass_field_quality;

/* Flags of quelta_compass_output.flags. */
/* The magnetic calibration is not yet at accuracy 3 (keep moving the device). */
#define QUELTA_COMPASS_FLAG_CALIBRATING 0x1u
/* The field is disturbed (magnets, metal, a changing field): the heading is
 * carried by the gyroscope, or without one is suspect; heading_accuracy_deg
 * says how far to trust it. */
#define QUELTA_COMPASS_FLAG_MAGNETIC_DISTURBANCE 0x2u
/* The accelerometer disagrees with gravity (the device accelerates): tilt
 * is held by the gyroscope. */
#define QUELTA_COMPASS_FLAG_ACCELERATING 0x4u
/* No usable field yet (none given, or the raw field not yet calibrated): the
 * azimuth and the attitude's rotation about the vertical are ARBITRARY
 * numbers; show no heading. Pitch, roll, gravity and linear acceleration are
 * valid. While it is set, heading_accuracy_deg is 180 and accuracy is 0. */
#define QUELTA_COMPASS_FLAG_NO_HEADING 0x8u
/* The last sample set had a gyroscope reading. */
#define QUELTA_COMPASS_FLAG_GYROSCOPE 0x10u
/* The device has been still (gyroscope and accelerometer steady) for a
 * second or more: the gyroscope bias is being learnt. */
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
 *                                       once calibrated (beyond 100 gauss the
 *                                       units' check answers first:
 *                                       QUELTA_COMPASS_ERROR_FIELD_UNIT)
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

/* The outputs of the last accepted sample. Device-frame vectors are in the
 * device's axes, after the axis remap of quelta_compass_set_units. */
typedef struct quelta_compass_output {
  double t;                    /* time of the last accepted sample, in the time unit set (default s) */
  double quaternion[4];        /* w, x, y, z: device to east-north-up (or north-east-down, if set), unit */
  double azimuth_deg;          /* [0, 360), clockwise from north (magnetic, or true with a declination)
                                  to the levelled top edge (+y); arbitrary while FLAG_NO_HEADING is set */
  double pitch_deg;            /* (-180, 180], positive when the top edge dips */
  double roll_deg;             /* [-90, 90], positive when the right edge rises */
  double gravity[3];           /* device frame, in the acceleration unit set (default g): what the
                                  accelerometer reads at rest, pointing up; magnitude 1 g */
  double linear_acceleration[3]; /* device frame, acceleration unit set: the accelerometer less gravity */
  double angular_rate[3];      /* rad/s, device frame: the gyroscope less its bias, or without a
                                  gyroscope the rate derived from the attitude's change */
  double gyro_bias[3];         /* rad/s, device frame: the bias estimate subtracted from the gyroscope */
  double heading_accuracy_deg; /* the estimated RMS error of azimuth_deg, degrees, 1 to 180: it
                                  adds the calibration's heading error, a noise floor, the drift
                                  since the field was last used and the field's recent disagreement.
                                  180 means unknown (no heading yet). */
  int32_t accuracy;            /* 0..3 from heading_accuracy_deg: 3 when <= 10 deg, 2 when <= 20,
                                  1 when <= 45, else 0; never above the calibration's own
                                  accuracy (quelta_mag_quality.accuracy). */
  uint32_t flags;              /* QUELTA_COMPASS_FLAG_* */
} quelta_compass_output;

/* Units, axes and frame at the door (quelta_compass_set_units). */
#define QUELTA_COMPASS_TIME_S 0   /* seconds (default) */
#define QUELTA_COMPASS_TIME_MS 1  /* milliseconds */
#define QUELTA_COMPASS_TIME_US 2  /* microseconds */
#define QUELTA_COMPASS_TIME_NS 3  /* nanoseconds (e.g. Android's SensorEvent.timestamp) */

#define QUELTA_COMPASS_ACC_G 0    /* standard gravity, 9.80665 m/s^2 (default) */
#define QUELTA_COMPASS_ACC_MS2 1  /* m/s^2 (e.g. Android) */

#define QUELTA_COMPASS_FIELD_GAUSS 0 /* gauss (default) */
#define QUELTA_COMPASS_FIELD_UT 1    /* microtesla, 0.01 gauss (e.g. Android) */
#define QUELTA_COMPASS_FIELD_NT 2    /* nanotesla, 0.00001 gauss */

#define QUELTA_COMPASS_FRAME_ENU 0 /* quaternion: device to east-north-up (default) */
#define QUELTA_COMPASS_FRAME_NED 1 /* quaternion: device to north-east-down */

/* Named axis remaps for quelta_compass_axes. Each maps the sensor's axes to
 * the device's (x right, y towards the top edge, z out of the screen). */
#define QUELTA_COMPASS_AXES_AS_IS 0      /* the sensor's axes are the device's (default) */
#define QUELTA_COMPASS_AXES_ROTATED_90 1 /* sensor turned 90 deg anticlockwise about z: its x is the device's y */
#define QUELTA_COMPASS_AXES_ROTATED_180 2 /* turned 180 deg about z */
#define QUELTA_COMPASS_AXES_ROTATED_270 3 /* turned 270 deg anticlockwise about z: its x is the device's -y */
#define QUELTA_COMPASS_AXES_FRD 4        /* sensor x forward (top edge), y right, z down (vehicle/aircraft) */
#define QUELTA_COMPASS_AXES_FACE_DOWN 5  /* turned 180 deg about y: its x is the device's -x, its z is -z */

/* Units, axes and output frame. Every matrix is row-major and maps a
 * sensor's reading into the device's axes (device = M * sensor); it must be
 * orthogonal (a rotation, or a reflection for a left-handed sensor), each
 * row and column of length 1 within 1e-6. Per sensor, as sensor hubs mount
 * the magnetometer differently from the accelerometer and gyroscope. */
typedef struct quelta_compass_units {
  int32_t time_unit;      /* QUELTA_COMPASS_TIME_*; in ms, us or ns the compass counts from the first sample */
  int32_t acc_unit;       /* QUELTA_COMPASS_ACC_* (also the unit of gravity and linear_acceleration) */
  int32_t field_unit;     /* QUELTA_COMPASS_FIELD_* (also of quelta_compass_set_expected_field) */
  int32_t output_frame;   /* QUELTA_COMPASS_FRAME_* */
  double acc_axes[9];     /* accelerometer to device */
  double field_axes[9];   /* magnetometer to device */
  double gyro_axes[9];    /* gyroscope to device */
} quelta_compass_units;

/* Settings refused by quelta_compass_set_units (nothing is changed). */
#define QUELTA_COMPASS_ERROR_UNITS (-20) /* an unknown unit or frame code */
#define QUELTA_COMPASS_ERROR_AXES (-21)  /* an axis matrix that is not orthogonal (or not finite) */
/* Samples whose values contradict the units set: refused, nothing changes.
 * Each check has a physical reason and acts on values no sensor in the
 * declared unit produces; a host whose samples draw one of these codes has
 * the unit wrong, not a faulty sensor. */
/* Times: beyond 1e10 s (317 years), or five intervals in a row longer than
 * 1 s or shorter than 50 us (the compass serves 10 to 400 Hz): e.g.
 * nanoseconds given as seconds, or seconds as milliseconds. */
#define QUELTA_COMPASS_ERROR_TIME_UNIT (-22)
/* Accelerometer: its magnitude, averaged over about 2 s, above 4 g or below
 * 0.3 g (no hand-held device sustains either): e.g. m/s^2 given as g (9.8
 * "g" at rest) or g as m/s^2. Exact zero vectors are left to the fault
 * checks. */
#define QUELTA_COMPASS_ERROR_ACC_UNIT (-23)
/* Field: a magnitude above 100 gauss (beyond any magnetometer's range), or
 * averaged over about 2 s above 15 gauss or below 0.02 gauss (the earth's
 * field is 0.22 to 0.67 gauss, a device's hard iron a few gauss at most):
 * e.g. microtesla given as gauss (a raw 390 "gauss", a calibrated 50
 * "gauss") or gauss as microtesla. */
#define QUELTA_COMPASS_ERROR_FIELD_UNIT (-24)

/* Sets up state with the default tuning. Returns 0, or -1 for null. */
QUELTA_LAYER_API int32_t quelta_compass_init(quelta_compass* state);
/* Forgets the attitude, keeps tuning and declination. Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_reset(quelta_compass* state);
/* Declination in degrees east (-180..180): headings then refer to true
 * north. Returns 0, -1, or QUELTA_COMPASS_ERROR_SETTING. */
QUELTA_LAYER_API int32_t quelta_compass_set_declination(quelta_compass* state, double declination_deg);
/* The field expected at the device's location (e.g. from the field model):
 * strength in the field unit set (gauss by default), dip in degrees
 * (positive below the horizon). Helps the calibration. A strength of zero
 * or less forgets it; otherwise the strength must lie within 0.15..0.8
 * gauss and the dip within -90..90 degrees. Returns 0, -1, or
 * QUELTA_COMPASS_ERROR_SETTING (the previous setting is kept). */
QUELTA_LAYER_API int32_t quelta_compass_set_expected_field(quelta_compass* state, double strength_gauss,
                                                           double dip_deg);
/* One sample set at time t: acc (3), the RAW magnetometer reading (3, or
 * null when this set has none), gyro in rad/s (3, or null), in the units and
 * axes set (default s, g, gauss, the device's axes). Returns 0; -1 for a
 * null or uninitialised state or null acc; a QUELTA_COMPASS_ERROR_*_UNIT
 * code for values that contradict the units (the sample is then refused);
 * or one of QUELTA_COMPASS_ERROR_TIME .. _GYROSCOPE for an input no sensor
 * can deliver (refused whole, no trace in any state).
 *
 * Time: t is the host's clock, any origin. The compass follows it while it
 * moves forward by up to a few sample periods (five, and at least 0.1 s).
 *   - A step back or a repeated time restarts the time base: the sample set
 *     counts as one sample period after the last, the host's clock is
 *     followed from there; attitude, bias and calibration carry on.
 *   - A longer step forward is a gap: nothing is propagated across it.
 *     Unless gravity and the field show the device where it was (within
 *     20 degrees), the attitude is found again from the next samples (as at
 *     the start, from the accelerometer and the field; the heading accuracy
 *     says how far one reading of a moving device can be off until the tilt
 *     has settled, a few seconds); the calibration, the gyroscope's bias and
 *     what the field's strength and dip should be are kept either way.
 * Both set QUELTA_COMPASS_FLAG_TIME_RESTART on that sample set's output.
 *
 * Sensors: a gyroscope that repeats one reading exactly (zeros included)
 * while gravity and the field turn otherwise, or whose bias no filter could
 * learn (in the frame it carries, gravity and, once calibrated, the field
 * turn by more than a 0.2 rad/s bias explains: typically within 5 to 10 s,
 * 20 s for a bias about gravity only the field sees), is left out
 * (QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) and the compass tracks without
 * it until it reads again / is seen, over some blocks, to have a bias
 * within reach again; the turns it gave the calibration are then forgotten
 * (the calibration itself stays). A field with an axis stuck or
 * clipped while the device turns is left out
 * (QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT) until no axis has been for 2 s.
 * While no field steers the heading, heading_accuracy_deg grows with the
 * bias still unknown (0.01 rad/s) and shrinks again once the field is back. */
QUELTA_LAYER_API int32_t quelta_compass_update(quelta_compass* state, double t, const double* acc,
                                               const double* raw_field, const double* gyro);
/* As quelta_compass_update with a field the host has CALIBRATED itself (3,
 * or null) and what it knows of it (or null: calibrated, not disturbed);
 * the layer's calibration is bypassed. Same units, axes and return codes,
 * and QUELTA_COMPASS_ERROR_QUALITY for a quality out of range. */
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
/* Copies the outputs of the last accepted sample (before the first: the
 * identity attitude, FLAG_NO_HEADING, accuracy 0, heading accuracy 180).
 * Returns 0, or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_output(const quelta_compass* state, quelta_compass_output* out);
/* The magnetic calibration in use: calibrated = soft_iron * (raw - offset).
 * Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_calibration(const quelta_compass* state, quelta_mag_calibration* out);
/* What the magnetic layer made of the last raw field (calibrated field,
 * disturbance score and flag, whether the calibration changed with it).
 * All zero before the first field or after quelta_compass_update_calibrated.
 * Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_field(const quelta_compass* state, quelta_mag_sample* out);

/* Units, axes and output frame (see quelta_compass_units). Applied to every
 * sample from the next call on; the contradiction checks start afresh.
 * Returns 0, -1, QUELTA_COMPASS_ERROR_UNITS or QUELTA_COMPASS_ERROR_AXES
 * (then nothing changes). quelta_compass_reset keeps them. */
QUELTA_LAYER_API int32_t quelta_compass_set_units(quelta_compass* state, const quelta_compass_units* units);
/* The units in use. Returns 0 or -1. */
QUELTA_LAYER_API int32_t quelta_compass_get_units(const quelta_compass* state, quelta_compass_units* out);
/* The defaults: seconds, g, gauss, east-north-up, every axis matrix the
 * identity. Returns 0 or -1 for null. */
QUELTA_LAYER_API int32_t quelta_compass_units_default(quelta_compass_units* out);
/* Fills matrix (row-major, 9) with a named remap QUELTA_COMPASS_AXES_*.
 * Returns 0, -1 for null, or QUELTA_COMPASS_ERROR_AXES for an unknown name. */
QUELTA_LAYER_API int32_t quelta_compass_axes(int32_t named, double matrix[9]);

/* Runs count sample sets in one call, exactly as count calls of
 * quelta_compass_update followed by quelta_compass_get_output (the results
 * are the same to the bit):
 *   t            count times
 *   acc          count x 3, row-major
 *   raw_field    count x 3, or null when there is no magnetometer; a row of
 *                three NaN means "no field in this set" (sensors at
 *                different rates)
 *   gyro         count x 3, or null; a row of three NaN: no gyroscope reading
 *   out          count outputs, or null
 *   calibration  count calibrations in use after each set, or null
 *   codes        count return codes of the sets, or null
 * A refused set leaves its out and calibration rows as those of the last
 * accepted set. Returns 0 when every set was accepted, -1 for a null
 * state, t or acc (nothing is run), else the first nonzero code. */
QUELTA_LAYER_API int32_t quelta_compass_run(quelta_compass* state, size_t count, const double* t,
                                            const double* acc, const double* raw_field, const double* gyro,
                                            quelta_compass_output* out, quelta_mag_calibration* calibration,
                                            int32_t* codes);

#ifdef __cplusplus
}
#endif

#endif
