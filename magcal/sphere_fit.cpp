// SPDX-License-Identifier: Apache-2.0
#include "magcal/sphere_fit.h"

#include <cmath>

#include "magcal/calibration_log.h"

namespace quelta {

namespace {

void swapRows(double a[4][4], int32_t r1, int32_t r2) {
  for (int32_t j = 0; j < 4; ++j) {
    const double t = a[r1][j];
    a[r1][j] = a[r2][j];
    a[r2][j] = t;
  }
}

void swapColumns(double a[4][4], int32_t c1, int32_t c2) {
  for (int32_t i = 0; i < 4; ++i) {
    const double t = a[i][c1];
    a[i][c1] = a[i][c2];
    a[i][c2] = t;
  }
}

}  // namespace

bool invert4x4(double a[4][4]) {
  int32_t pivotRow[4] = {0, 0, 0, 0};
  int32_t pivotCol[4] = {0, 0, 0, 0};
  for (int32_t k = 0; k < 4; ++k) {
    // Largest remaining magnitude; on ties the first in row-major order wins.
    double d = 0.0;
    for (int32_t i = k; i < 4; ++i) {
      for (int32_t j = k; j < 4; ++j) {
        if (std::fabs(a[i][j]) > d) {
          d = std::fabs(a[i][j]);
          pivotRow[k] = i;
          pivotCol[k] = j;
        }
      }
    }
    if (d + 1.0 == 1.0) {
      logLine(kCalibrationLog.singularMatrix, 0);
      return false;
    }
    if (pivotRow[k] != k) swapRows(a, k, pivotRow[k]);
    if (pivotCol[k] != k) swapColumns(a, k, pivotCol[k]);

    a[k][k] = 1.0 / a[k][k];
    for (int32_t j = 0; j < 4; ++j) {
      if (j != k) a[k][j] = a[k][j] * a[k][k];
    }
    for (int32_t i = 0; i < 4; ++i) {
      if (i == k) continue;
      for (int32_t j = 0; j < 4; ++j) {
        if (j != k) a[i][j] = a[i][j] - a[i][k] * a[k][j];
      }
    }
    for (int32_t i = 0; i < 4; ++i) {
      if (i != k) a[i][k] = -a[i][k] * a[k][k];
    }
  }
  // The exchanges come back out transposed: row swaps as column swaps and
  // column swaps as row swaps, last step first.
  for (int32_t k = 3; k >= 0; --k) {
    if (pivotCol[k] != k) swapRows(a, k, pivotCol[k]);
    if (pivotRow[k] != k) swapColumns(a, k, pivotRow[k]);
  }
  return true;
}

SphereFitResult fitSphere(const CalibrationPool::Samples& pool, int32_t n, float ratioLow,
                          float ratioHigh, int32_t logMode) {
  SphereFitResult result;

  // Design rows (x, y, z, 1) and right-hand side -(x^2 + y^2 + z^2); the
  // squares are taken in single precision, as the samples are.
  double design[CalibrationPool::kCapacity][4];
  double rhs[CalibrationPool::kCapacity];
  for (int32_t i = 0; i < n; ++i) {
    const Vec3f p = Vec3f::load(pool[i]);
    rhs[i] = static_cast<double>(-squaredNorm(p));
    design[i][0] = static_cast<double>(p.x);
    design[i][1] = static_cast<double>(p.y);
    design[i][2] = static_cast<double>(p.z);
    design[i][3] = 1.0;
  }

  // Normal equations, accumulated sample by sample.
  double normal[4][4];
  for (int32_t r = 0; r < 4; ++r) {
    for (int32_t j = 0; j < 4; ++j) {
      double sum = 0.0;
      for (int32_t i = 0; i < n; ++i) sum = sum + design[i][r] * design[i][j];
      normal[r][j] = sum;
    }
  }
  if (!invert4x4(normal)) return result;

  double atb[4];
  for (int32_t r = 0; r < 4; ++r) {
    double sum = 0.0;
    for (int32_t i = 0; i < n; ++i) sum = sum + design[i][r] * rhs[i];
    atb[r] = sum;
  }
  double coef[4];  // D, E, F, G
  for (int32_t r = 0; r < 4; ++r) {
    double sum = 0.0;
    for (int32_t j = 0; j < 4; ++j) sum = sum + normal[r][j] * atb[j];
    coef[r] = sum;
  }

  const Vec3f centre = {static_cast<float>(-0.5 * coef[0]), static_cast<float>(-0.5 * coef[1]),
                        static_cast<float>(-0.5 * coef[2])};
  const float radius =
      static_cast<float>(std::sqrt(static_cast<double>(squaredNorm(centre)) - coef[3]));
  result.offset = centre;
  result.radius = radius;

  // A NaN radius fails here too.
  if (!(radius > 0.2f && radius < 0.8f)) return result;

  // Every sample must lie near the fitted sphere.
  for (int32_t i = 0; i < n; ++i) {
    const float distance = norm(Vec3f::load(pool[i]) - centre);
    const float ratio = distance / radius;
    if (ratio > ratioHigh || ratio < ratioLow) {
      logLine(kCalibrationLog.sampleOffSphere, logMode, i, static_cast<double>(distance),
              static_cast<double>(radius), static_cast<double>(ratio));
      return result;
    }
  }
  result.accepted = true;
  return result;
}

}  // namespace quelta
