// SPDX-License-Identifier: Apache-2.0
/* An Android-style host of the compass (libquelta): the sensors' values as
 * an Android app receives them in SensorEvent (nanosecond timestamps since
 * boot, m/s^2, microtesla), a magnetometer mounted a quarter turn round on
 * the board, the gyroscope at 100 Hz and the magnetometer at 50 Hz, and the
 * calibration saved at the end of one session and restored in the next.
 *
 * The sensors are simulated: a phone turned through every direction in the
 * field of Paris, with a phone's hard iron on its magnetometer. The program
 * exits with status 1 when the second session's heading is not right from
 * its first seconds.
 *
 * Build against an installed libquelta:
 *   CMake:      find_package(QueltaAlgo COMPONENTS Quelta), link QueltaAlgo::quelta
 *   pkg-config: cc compass_heading.c $(pkg-config --cflags --libs quelta) -lm
 */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "quelta/quelta.h"

static const double kPi = 3.14159265358979323846;
static const double kG = 9.80665;                         /* m/s^2 per g */
static const double kHardIronUt[3] = {60.0, -70.0, 410.0}; /* a phone's own field, uT, magnetometer axes */

/* The simulated phone: attitude q (w, x, y, z, device to east-north-up),
 * turned at a body rate that keeps changing: through every direction while
 * it calibrates, or held level and turned about the vertical as a walker
 * holds a map. */
typedef struct phone {
  double q[4];
  double rate[3];      /* rad/s, device axes */
  double field_enu[3]; /* uT */
  int level;           /* 1: held level */
} phone;

static void quat_rotate(const double q[4], const double v[3], int inverse, double out[3]) {
  const double s = inverse ? -1.0 : 1.0;
  const double u[3] = {s * q[1], s * q[2], s * q[3]};
  const double t[3] = {2.0 * (u[1] * v[2] - u[2] * v[1]), 2.0 * (u[2] * v[0] - u[0] * v[2]),
                       2.0 * (u[0] * v[1] - u[1] * v[0])};
  out[0] = v[0] + q[0] * t[0] + (u[1] * t[2] - u[2] * t[1]);
  out[1] = v[1] + q[0] * t[1] + (u[2] * t[0] - u[0] * t[2]);
  out[2] = v[2] + q[0] * t[2] + (u[0] * t[1] - u[1] * t[0]);
}

static void phone_step(phone* p, double t, double dt) {
  const double tilt = p->level ? 0.1 : 1.0;
  p->rate[0] = tilt * 0.9 * sin(0.31 * t);
  p->rate[1] = tilt * 0.7 * cos(0.23 * t);
  p->rate[2] = 0.8 * sin(0.17 * t + 1.0);
  const double angle = dt * sqrt(p->rate[0] * p->rate[0] + p->rate[1] * p->rate[1] + p->rate[2] * p->rate[2]);
  const double k = angle > 0.0 ? sin(0.5 * angle) / angle * dt : 0.5 * dt;
  const double r[4] = {cos(0.5 * angle), k * p->rate[0], k * p->rate[1], k * p->rate[2]};
  const double* q = p->q;
  const double n[4] = {q[0] * r[0] - q[1] * r[1] - q[2] * r[2] - q[3] * r[3],
                       q[0] * r[1] + q[1] * r[0] + q[2] * r[3] - q[3] * r[2],
                       q[0] * r[2] - q[1] * r[3] + q[2] * r[0] + q[3] * r[1],
                       q[0] * r[3] + q[1] * r[2] - q[2] * r[1] + q[3] * r[0]};
  const double len = sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2] + n[3] * n[3]);
  for (int i = 0; i < 4; ++i) p->q[i] = n[i] / len;
}

/* What the app receives: accelerometer in m/s^2 and gyroscope in rad/s in
 * the device's axes, magnetometer in uT in its own axes (turned a quarter
 * round: its x is the device's y, its y the device's -x). */
static void phone_read(const phone* p, double acc[3], double gyro[3], double mag[3]) {
  const double up[3] = {0.0, 0.0, 1.0};
  double g[3], b[3];
  quat_rotate(p->q, up, 1, g);
  quat_rotate(p->q, p->field_enu, 1, b);
  for (int i = 0; i < 3; ++i) {
    acc[i] = kG * g[i];
    gyro[i] = p->rate[i];
  }
  mag[0] = b[1] + kHardIronUt[0];
  mag[1] = -b[0] + kHardIronUt[1];
  mag[2] = b[2] + kHardIronUt[2];
}

/* True azimuth of the top edge (device y), degrees from true north. */
static double true_azimuth(const phone* p) {
  const double top[3] = {0.0, 1.0, 0.0};
  double w[3];
  quat_rotate(p->q, top, 0, w);
  return fmod(atan2(w[0], w[1]) * 180.0 / kPi + 360.0, 360.0);
}

/* Angle between the compass's attitude and the true one, degrees. */
static double attitude_error(const phone* p, const quelta_compass_output* out) {
  const double d = fabs(p->q[0] * out->quaternion[0] + p->q[1] * out->quaternion[1] +
                        p->q[2] * out->quaternion[2] + p->q[3] * out->quaternion[3]);
  return 2.0 * acos(d < 1.0 ? d : 1.0) * 180.0 / kPi;
}

/* The compass as this app sets it up: Android's units, the magnetometer's
 * mounting, the field and declination of the place. */
static int set_up(quelta_compass* c, const quelta_geomag_expected* here) {
  quelta_compass_units units;
  quelta_compass_init(c);
  quelta_compass_units_default(&units);
  units.time_unit = QUELTA_COMPASS_TIME_NS;
  units.acc_unit = QUELTA_COMPASS_ACC_MS2;
  units.field_unit = QUELTA_COMPASS_FIELD_UT;
  quelta_compass_axes(QUELTA_COMPASS_AXES_ROTATED_90, units.field_axes);
  if (quelta_compass_set_units(c, &units) != 0) return -1;
  quelta_compass_set_declination(c, here->declination_deg);
  return quelta_compass_set_expected_field(c, here->strength_gauss * 100.0, here->dip_deg); /* uT */
}

/* Feeds seconds of samples from boot_ns on; prints the heading every
 * print_every seconds. Returns the last output. */
static int session(quelta_compass* c, phone* p, int64_t boot_ns, double seconds, double print_every,
                   quelta_compass_output* out) {
  const double dt = 0.01; /* 100 Hz */
  for (int i = 0; i * dt < seconds; ++i) {
    const double t = i * dt;
    double acc[3], gyro[3], mag[3];
    phone_step(p, t, dt);
    phone_read(p, acc, gyro, mag);
    const int64_t timestamp = boot_ns + (int64_t)i * 10000000; /* SensorEvent.timestamp */
    /* The magnetometer at half the rate: no field in every other set. */
    const int32_t code = quelta_compass_update(c, (double)timestamp, acc, (i % 2 == 0) ? mag : NULL, gyro);
    if (code != 0) {
      fprintf(stderr, "sample refused: code %d\n", code);
      return -1;
    }
    quelta_compass_get_output(c, out);
    if (fmod(t + 0.5 * dt, print_every) < dt) {
      /* While NO_HEADING is set the azimuth means nothing: show none. */
      if (out->flags & QUELTA_COMPASS_FLAG_NO_HEADING) {
        printf("  %5.1f s  heading ---   (calibrating: keep turning the phone)\n", t);
      } else {
        printf("  %5.1f s  heading %5.1f deg, estimated error %4.1f deg, accuracy %d; attitude off by %.1f deg",
               t, out->azimuth_deg, out->heading_accuracy_deg, (int)out->accuracy, attitude_error(p, out));
        if (p->level) printf(", true heading %5.1f deg", true_azimuth(p));
        printf("\n");
      }
    }
  }
  return 0;
}

int main(void) {
  /* Paris, 35 m, 1 March 2026 (a real app asks the location service). */
  quelta_geomag_expected here;
  double year;
  quelta_geomag_decimal_year(2026, 3, 1, &year);
  if (quelta_geomag_expected_at(48.8566, 2.3522, 35.0, year, &here) != QUELTA_GEOMAG_OK) return 1;
  /* The earth's field in uT, east-north-up (true north): magnetic north
   * lies the declination east of true north. */
  phone p = {{1.0, 0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, 0};
  const double declination = here.declination_deg * kPi / 180.0;
  p.field_enu[0] = 100.0 * here.horizontal_gauss * sin(declination);
  p.field_enu[1] = 100.0 * here.horizontal_gauss * cos(declination);
  p.field_enu[2] = -100.0 * here.down_gauss;

  /* Android's values handed over with the default units (s, g, gauss)
   * are refused with a code that names the unit, never taken as 9.8 g and
   * 410-gauss fields. */
  static quelta_compass c;
  double acc[3], gyro[3], mag[3];
  quelta_compass_init(&c);
  phone_read(&p, acc, gyro, mag);
  const int32_t acc_code = quelta_compass_update(&c, 0.0, acc, NULL, gyro);
  acc[0] /= kG, acc[1] /= kG, acc[2] /= kG;
  quelta_compass_init(&c);
  const int32_t field_code = quelta_compass_update(&c, 0.0, acc, mag, gyro);
  printf("default units: m/s^2 refused with %d (ACC_UNIT), uT with %d (FIELD_UNIT)\n", (int)acc_code,
         (int)field_code);
  if (acc_code != QUELTA_COMPASS_ERROR_ACC_UNIT || field_code != QUELTA_COMPASS_ERROR_FIELD_UNIT) return 1;

  /* First session: the calibration is learnt while the phone turns. */
  quelta_compass_output out;
  uint8_t saved[QUELTA_MAG_RECORD_SIZE];
  printf("first session\n");
  if (set_up(&c, &here) != 0) return 1;
  if (session(&c, &p, INT64_C(3600000000000), 60.0, 10.0, &out) != 0) return 1;
  if (quelta_compass_save_calibration(&c, saved) != QUELTA_MAG_RECORD_OK) {
    fprintf(stderr, "no calibration to save\n");
    return 1;
  }

  /* Second session, another day, the phone held level: the saved
   * calibration gives a heading at once. */
  printf("second session, calibration restored\n");
  if (set_up(&c, &here) != 0) return 1;
  const int restored = quelta_compass_restore_calibration(&c, saved, sizeof saved);
  if (restored != QUELTA_MAG_RECORD_OK) {
    fprintf(stderr, "calibration refused: %s\n", quelta_mag_record_text(restored));
    return 1;
  }
  p.q[0] = 1.0, p.q[1] = p.q[2] = p.q[3] = 0.0;
  p.level = 1;
  if (session(&c, &p, INT64_C(90000000000000), 5.0, 1.0, &out) != 0) return 1;
  const double error = fabs(remainder(out.azimuth_deg - true_azimuth(&p), 360.0));
  printf("heading error after 5 s: %.1f deg (estimated %.1f)\n", error, out.heading_accuracy_deg);
  return (out.flags & QUELTA_COMPASS_FLAG_NO_HEADING) == 0 && error < 5.0 ? 0 : 1;
}
