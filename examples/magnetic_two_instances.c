// SPDX-License-Identifier: Apache-2.0
/* A host of libquelta's magnetic layer with two magnetometers: two
 * independent calibrators in caller-owned state, fed with a synthetic
 * turning device, the first one's calibration saved to a record and
 * restored into a fresh third instance, and a damaged record refused.
 *
 *   cc magnetic_two_instances.c $(pkg-config --cflags --libs quelta) -lm
 *
 * Exit status 0 when every step behaves. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <quelta/quelta.h>

/* Two devices with their own hard iron, turning in the hand. */
static void reading(double t, const double offset[3], double mag[3], double acc[3]) {
  const double heading = 0.6 * t, pitch = 0.8 * sin(0.7 * t), roll = 0.6 * sin(1.1 * t + 0.5);
  /* Earth's field (east, north, up), gauss: 0.45 gauss dipping 60 degrees. */
  const double field[3] = {0.0, 0.45 * cos(1.0472), -0.45 * sin(1.0472)};
  const double up[3] = {0.0, 0.0, 1.0};
  /* World to device: rotate by -heading about up, then -pitch about x, -roll about y. */
  const double ch = cos(heading), sh = sin(heading), cp = cos(pitch), sp = sin(pitch), cr = cos(roll), sr = sin(roll);
  const double *v[2] = {field, up};
  double *out[2] = {mag, acc};
  for (int k = 0; k < 2; ++k) {
    double x = ch * v[k][0] - sh * v[k][1], y = sh * v[k][0] + ch * v[k][1], z = v[k][2];
    double y2 = cp * y + sp * z, z2 = -sp * y + cp * z;
    double x3 = cr * x - sr * z2, z3 = sr * x + cr * z2;
    out[k][0] = x3;
    out[k][1] = y2;
    out[k][2] = z3;
  }
  for (int i = 0; i < 3; ++i) mag[i] += offset[i];
}

int main(void) {
  static quelta_mag_state first, second, restored; /* caller-owned, 32 KiB each */
  const double offsetA[3] = {0.6, -0.7, 4.1}, offsetB[3] = {-0.2, 0.3, 0.1};
  quelta_mag_init(&first);
  quelta_mag_init(&second);
  quelta_mag_set_expected_field(&second, 0.45, 60.0); /* e.g. from the field model */

  quelta_mag_sample out;
  double mag[3], acc[3];
  for (int i = 0; i < 50 * 60; ++i) {
    const double t = i * 0.02;
    reading(t, offsetA, mag, acc);
    quelta_mag_update(&first, t, mag, acc, &out);
    reading(1.3 * t, offsetB, mag, acc);
    quelta_mag_update(&second, t, mag, acc, &out);
  }

  quelta_mag_calibration c;
  quelta_mag_quality q;
  int failures = 0;
  const quelta_mag_state* states[2] = {&first, &second};
  const double* truth[2] = {offsetA, offsetB};
  for (int k = 0; k < 2; ++k) {
    quelta_mag_get_calibration(states[k], &c);
    quelta_mag_get_quality(states[k], &q);
    printf("magnetometer %d: offset %.3f %.3f %.3f gauss, strength %.3f, dip %.1f deg, accuracy %d, "
           "heading error ~%.1f deg (%s)\n",
           k + 1, c.offset[0], c.offset[1], c.offset[2], c.strength, c.dip_deg, q.accuracy, q.heading_error_deg,
           quelta_mag_reason_text(q.reason));
    for (int i = 0; i < 3; ++i) failures += fabs(c.offset[i] - truth[k][i]) > 0.02;
    failures += q.accuracy < 3;
  }

  /* Save the first calibration, e.g. at shutdown, and restore it at start-up. */
  uint8_t record[QUELTA_MAG_RECORD_SIZE];
  if (quelta_mag_save(&first, record) != QUELTA_MAG_RECORD_OK) ++failures;
  quelta_mag_init(&restored);
  int status = quelta_mag_restore(&restored, record, sizeof record);
  printf("restore: %s\n", quelta_mag_record_text(status));
  failures += status != QUELTA_MAG_RECORD_OK;
  const double raw[3] = {0.7, -0.5, 3.8};
  double a[3], b[3];
  quelta_mag_apply(&first, raw, a);
  quelta_mag_apply(&restored, raw, b);
  failures += memcmp(a, b, sizeof a) != 0;

  /* A damaged or truncated record is refused and changes nothing. */
  record[40] ^= 0x10;
  status = quelta_mag_restore(&restored, record, sizeof record);
  printf("damaged record: %s\n", quelta_mag_record_text(status));
  failures += status == QUELTA_MAG_RECORD_OK;
  status = quelta_mag_restore(&restored, record, 100);
  printf("truncated record: %s\n", quelta_mag_record_text(status));
  failures += status != QUELTA_MAG_RECORD_TRUNCATED;

  printf(failures ? "FAILED\n" : "ok\n");
  return failures ? 1 : 0;
}
