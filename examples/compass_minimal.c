// SPDX-License-Identifier: Apache-2.0
/* The smallest host of the compass (libquelta): one caller-owned state,
 * one call per sample set, the heading and how far to trust it.
 *
 * The sensors here are simulated: a device turned slowly through every
 * direction in a 0.5 gauss field inclined 60 degrees, with a hard-iron
 * offset on its magnetometer, sampled at 50 Hz, then held still for the
 * last ten seconds of the minute. A real host reads its
 * sensors instead. The program prints the heading and exits with status 1
 * when the compass did not calibrate itself or reports no heading.
 *
 * Build against an installed QueltaAlgo:
 *   CMake:      find_package(QueltaAlgo COMPONENTS Quelta) and link
 *               QueltaAlgo::quelta (examples/CMakeLists.txt)
 *   pkg-config: cc compass_minimal.c $(pkg-config --cflags --libs quelta) -lm
 */
#include <math.h>
#include <stdio.h>

#include "quelta/quelta.h"

static const double kPi = 3.14159265358979323846;
static const double kOffset[3] = {0.12, -0.25, 0.08}; /* gauss */

/* Accelerometer (g) and raw magnetometer (gauss) of the simulated device at
 * time t: gravity and the earth's field seen through an attitude that keeps
 * changing, plus the hard iron. */
static void read_sensors(double time, double acc[3], double mag[3]) {
  const double field[3] = {0.0, 0.25, -0.433}; /* east, north, up */
  const double t = time < 50.0 ? time : 50.0;   /* still from 50 s on */
  const double yaw = 2.0 * kPi * 0.13 * t;
  const double pitch = 1.3 * sin(2.0 * kPi * 0.071 * t);
  const double roll = 1.1 * sin(2.0 * kPi * 0.043 * t + 1.0);
  const double cy = cos(yaw), sy = sin(yaw), cp = cos(pitch), sp = sin(pitch);
  const double cr = cos(roll), sr = sin(roll);
  /* Device-to-world rotation R = Rz(yaw) Rx(pitch) Ry(roll). */
  const double r[3][3] = {
      {cy * cr - sy * sp * sr, -sy * cp, cy * sr + sy * sp * cr},
      {sy * cr + cy * sp * sr, cy * cp, sy * sr - cy * sp * cr},
      {-cp * sr, sp, cp * cr}};
  for (int k = 0; k < 3; ++k) {
    acc[k] = r[2][k];
    mag[k] = r[0][k] * field[0] + r[1][k] * field[1] + r[2][k] * field[2] + kOffset[k];
  }
}

int main(void) {
  static quelta_compass compass; /* caller-owned, 24 KiB: no heap, no globals */
  quelta_compass_output out;
  double acc[3], mag[3];
  quelta_compass_init(&compass);
  for (int i = 0; i < 60 * 50; ++i) {
    const double t = i * 0.02; /* seconds */
    read_sensors(t, acc, mag);
    /* per sample set: t in s, acc in g, raw field in gauss, gyroscope in rad/s or NULL */
    quelta_compass_update(&compass, t, acc, mag, NULL); /* no gyroscope */
    quelta_compass_get_output(&compass, &out);
  }
  if (!(out.flags & QUELTA_COMPASS_FLAG_NO_HEADING)) /* heading_accuracy_deg: estimated RMS error */
    printf("heading %.1f deg, within about %.1f deg\n", out.azimuth_deg, out.heading_accuracy_deg);

  quelta_mag_calibration calibration;
  quelta_compass_get_calibration(&compass, &calibration);
  printf("hard iron found: %.3f %.3f %.3f gauss (simulated: %.3f %.3f %.3f)\n", calibration.offset[0],
         calibration.offset[1], calibration.offset[2], kOffset[0], kOffset[1], kOffset[2]);
  int failures = (out.flags & QUELTA_COMPASS_FLAG_NO_HEADING) != 0 || out.accuracy < 2;
  for (int k = 0; k < 3; ++k) failures += fabs(calibration.offset[k] - kOffset[k]) > 0.02;
  return failures == 0 ? 0 : 1;
}
