// SPDX-License-Identifier: Apache-2.0
// Least-squares sphere fit of the calibration pool: the centre is the
// hard-iron offset, the radius the field magnitude. Free functions on plain
// data, so the solver can be exercised without a calibrator.
#pragma once

#include <cstdint>

#include "magcal/calibration_pool.h"

namespace quelta {

struct SphereFitResult {
  bool accepted = false;  // the fit passed the radius and spread tests
  Vec3f offset;           // gauss
  float radius = 0.5f;    // gauss
};

// Inverts the 4x4 row-major matrix a in place (Gauss-Jordan, complete
// pivoting). Returns false, logging the singular-matrix line, when a pivot is
// too small to change 1.0; a is then left partly transformed.
bool invert4x4(double a[4][4]);

// Fits x^2 + y^2 + z^2 + Dx + Ey + Fz + G = 0 to samples 0..n-1 of the pool.
// n must lie in 1..kCapacity (n <= 0 fails as singular). The fit is accepted
// when 0.2 < radius < 0.8 and every sample's distance from the centre,
// divided by the radius, lies within [ratioLow, ratioHigh].
SphereFitResult fitSphere(const CalibrationPool::Samples& pool, int32_t n, float ratioLow,
                          float ratioHigh, int32_t logMode);

}  // namespace quelta
