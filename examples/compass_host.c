// SPDX-License-Identifier: Apache-2.0
/* A minimal host of QueltaAlgo.so: the four services fed sample by sample.
 *
 * The sensors here are simulated: a device turned slowly through every
 * direction in a 0.5 gauss field inclined 60 degrees, with a hard-iron
 * offset on its magnetometer. A real host reads its sensors instead. The
 * program prints what the library found and exits with status 1 when the
 * calibration did not find the offset.
 *
 * Build against an installed QueltaAlgo:
 *   CMake:      find_package(QueltaAlgo) and link QueltaAlgo::QueltaAlgo
 *               (examples/CMakeLists.txt)
 *   pkg-config: cc compass_host.c $(pkg-config --cflags --libs QueltaAlgo) -lm
 */
#include <math.h>
#include <stdio.h>

#include "QueltaAlgo.h"

static const double kPi = 3.14159265358979323846;
static const double kOffset[3] = {0.12, -0.25, 0.08}; /* gauss */

/* Accelerometer (g) and magnetometer (gauss) of the simulated device at time
 * t: the earth's field and gravity seen through the device's attitude
 * (heading, pitch and roll that keep changing), plus the hard iron. */
static void read_sensors(double t, float acc[3], float mag[3]) {
  const double field[3] = {0.0, 0.25, -0.433}; /* east, north, up */
  const double yaw = 2.0 * kPi * 0.13 * t;
  const double pitch = 1.3 * sin(2.0 * kPi * 0.071 * t);
  const double roll = 1.1 * sin(2.0 * kPi * 0.043 * t + 1.0);
  const double cy = cos(yaw), sy = sin(yaw), cp = cos(pitch), sp = sin(pitch);
  const double cr = cos(roll), sr = sin(roll);
  /* Device-to-world rotation R = Rz(yaw) Rx(pitch) Ry(roll); the device
   * sees world vectors through its transpose. */
  const double r[3][3] = {
      {cy * cr - sy * sp * sr, -sy * cp, cy * sr + sy * sp * cr},
      {sy * cr + cy * sp * sr, cy * cp, sy * sr - cy * sp * cr},
      {-cp * sr, sp, cp * cr}};
  for (int k = 0; k < 3; ++k) {
    acc[k] = (float)r[2][k]; /* gravity's reaction, up */
    mag[k] = (float)(r[0][k] * field[0] + r[1][k] * field[1] + r[2][k] * field[2] + kOffset[k]);
  }
}

int main(void) {
  /* once (optional: these are the values the library holds from load; a
   * host that kept a calibration hands it over in storedCal) */
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float storedCal[4] = {0.0f, 0.0f, 0.0f, 0.5f}; /* zero offset: none stored */
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thresholds[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8}; /* 20 ms between sample sets, azimuth windows */
  const float dt = 0.020f;              /* seconds */
  float acc[3], mag[3], calMag[3], azimuthPitchRoll[3], rate[3], quaternionXYZW[4];
  float calibration[7] = {0};
  int accuracy = 0, fits = 0;

  AlgoInitial(axis, storedCal, pool, thresholds, paraC, NULL);
  for (int i = 0; i < 60 * 50; ++i) {
    read_sensors(i * (double)dt, acc, mag);
    /* per sample set */
    MainAlgorithmProcess(acc, mag, mag, 0, -1);
    GetCalMag(calMag);               /* always first after MainAlgorithmProcess */
    GetCalOri(azimuthPitchRoll);
    accuracy = GetMagAccuracy();
    if (GetCalPara(calibration)) ++fits; /* a new fit: calibration[0..3] is worth keeping */
    CalcQueltaGyro(calMag, acc, 0, -1, dt);   GetCalGyr(rate);
    CalcQueltaRotVec(calMag, acc, 0);         GetCalRov(quaternionXYZW);
  }

  printf("QueltaAlgo %s: accuracy %d after %d accepted fits\n", QUELTA_ALGO_VERSION_STRING,
         accuracy, fits);
  printf("offset %.4f %.4f %.4f gauss (true %.4f %.4f %.4f), radius %.4f gauss\n",
         calibration[0], calibration[1], calibration[2], kOffset[0], kOffset[1], kOffset[2],
         calibration[3]);
  printf("azimuth %.1f pitch %.1f roll %.1f deg; rate %.3f %.3f %.3f rad/s; "
         "rotation vector %.3f %.3f %.3f %.3f\n",
         azimuthPitchRoll[0], azimuthPitchRoll[1], azimuthPitchRoll[2], rate[0], rate[1], rate[2],
         quaternionXYZW[0], quaternionXYZW[1], quaternionXYZW[2], quaternionXYZW[3]);
  for (int k = 0; k < 3; ++k) {
    if (accuracy != 3 || fabs(calibration[k] - kOffset[k]) > 0.01) {
      fprintf(stderr, "the calibration did not find the offset\n");
      return 1;
    }
  }
  return 0;
}
