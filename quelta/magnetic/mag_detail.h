// SPDX-License-Identifier: Apache-2.0
// What the calibrator's files share: the settings (seconds and gauss) and
// the small helpers of the fits. Internal to quelta/magnetic.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "quelta/magnetic/mag_calibrator.h"

namespace quelta::magnetic::detail {

// One set of settings for every device and rate (seconds and gauss).
inline constexpr double kBlockSeconds = 0.08;     // samples averaged into one candidate
inline constexpr int kBlockMaxSamples = 400;      // ends a block even if the clock stalls
inline constexpr double kMaxGap = 0.5;            // longest interval the clock advances by
inline constexpr double kGravityTau = 0.25;       // low-pass of the accelerometer
inline constexpr double kAccNormTau = 2.0;        // the accelerometer's usual size
inline constexpr double kStaticAccDev = 0.25;     // block acc deviation above which gravity is unknown
inline constexpr int kGravityHalfWindow = 6;      // blocks each side of a candidate averaged for its gravity
inline constexpr double kGravityMaxDev = 0.15;    // window mean's size against the usual size
inline constexpr double kGravityHalvesCos = 0.9945;  // cos 6 degrees: the window's halves agree
inline constexpr double kMinSeparation = 0.05;    // between stored samples, share of the field strength
inline constexpr double kRefreshAge = 2.0;        // a stored sample this old is refreshed by a neighbour
inline constexpr double kFitInterval = 0.75;
inline constexpr double kSettledFitInterval = 3.0;
// s: the longest interval between fits while they bring nothing new (a
// device's own field drifts over minutes; sudden changes have their own path).
inline constexpr double kQuietFitInterval = 12.0;
// s between blocks offered to a full store once the calibration is settled.
inline constexpr double kSettledOfferSeconds = 0.4;
inline constexpr int kMinSlots = 10;
inline constexpr int kIterations = 5;
inline constexpr int kWarmIterations = 3;
inline constexpr double kNoiseFloor = 0.006;      // gauss, floor of the robust scale
// What one constant model leaves unexplained on real devices even where
// nothing disturbs (gravity errors while walking, small field gradients):
// the floor of the scale that the covariance (the heading error) uses.
inline constexpr double kModelNoise = 0.016;
// Without an expected field, the strength stays within the Earth's range.
inline constexpr double kPlausibleStrength = 0.45;
inline constexpr double kPlausibleStrengthSigma = 0.1;
// Without an expected field, a device that stays near level cannot tell the
// field dipping down from its mirror image dipping up; a weak prior takes
// the downward dip of the most populated latitudes until tilts decide.
// Hosts in the southern hemisphere set the expected field instead.
inline constexpr double kPlausibleVertical = -0.25;
inline constexpr double kPlausibleVerticalSigma = 0.25;
inline constexpr double kMinStrength = 0.15;
inline constexpr double kMaxStrength = 0.9;
inline constexpr double kHuber = 2.0;
inline constexpr double kMaxScaleRel = 0.04;      // cap of the robust scale, share of the strength
inline constexpr double kInlierRel = 0.05;        // a stored sample explained by a fit, share of the strength
inline constexpr double kPoorFit = 0.012;          // gauss: a fit this rough tries other starts
inline constexpr double kRejectSigmas = 6.0;
inline constexpr double kTypicalStrength = 0.45;  // before any fit
inline constexpr double kExpectedSigma = 0.05;    // share of the expected strength
// Ellipsoid only when the directions are covered well.
inline constexpr double kEllipsoidCoverage = 0.6;
inline constexpr double kEllipsoidMinEigen = 0.12;
inline constexpr int kEllipsoidMinSlots = 30;
// Heading error: covariance inflation (neighbouring blocks are correlated)
// and the floor of what the model cannot see.
inline constexpr double kCovInflation = 5.0;
inline constexpr double kFloorSphereDeg = 0.8;
inline constexpr double kFloorEllipsoidDeg = 0.4;
// Accuracy levels from the heading error estimate.
inline constexpr double kAccuracy3Deg = 4.0;
inline constexpr double kAccuracy2Deg = 8.0;
inline constexpr double kAccuracy1Deg = 25.0;
// Change detection (new hard iron against a disturbance).
inline constexpr double kInconsistentRel = 0.08;   // share of the strength
inline constexpr double kShareTau = 1.0;
inline constexpr double kNeverStoreRel = 0.5;      // misfit (share of the strength) that never enters the store
inline constexpr double kChangeMinSeconds = 1.0;
inline constexpr double kChangeRetry = 0.5;
inline constexpr double kChangeMaxResidual = 0.02;   // gauss, or twice the stored fit's
inline constexpr double kChangeMaxHeadingDeg = 10.0;
inline constexpr int kChangeMinBlocks = 20;
inline constexpr double kChangeGain = 3.0;
inline constexpr double kRestartSeconds = 15.0;      // contradicted this long: start again
inline constexpr double kRestartShare = 0.8;           // misfit of the old offset over the new one
inline constexpr double kChangeMinCoverage = 0.2;
inline constexpr double kPreviousMaxRel = 0.03;      // median misfit to return to the previous calibration
inline constexpr int kHeldUntilSlots = 40;
inline constexpr double kHeldStrengthSigma = 0.02;  // strength held in the change fit
inline constexpr double kHeldVerticalSigma = 0.03;
// Disturbance.
inline constexpr double kDisturbTau = 0.4;
inline constexpr double kStrengthScale = 0.10;   // relative strength deviation giving score 1
inline constexpr double kDipScaleDeg = 5.0;      // dip deviation giving score 1
inline constexpr double kGravityNoiseTau = 1.0;
inline constexpr double kGravityNoiseGain = 2.0;  // dip tolerance added per degree of accelerometer motion
inline constexpr double kFlagOn = 0.85;
inline constexpr double kFlagOff = 0.6;

// Evidence and never worse than none.
// A turn that moves the field by the store's separation (5 % of its
// strength): smaller turns bring no new direction, only the environment.
inline constexpr double kStoreTurnDeg = 3.0;
// Without a gyroscope: a block whose accelerometer deviates less than this
// (share of g) from gravity is a device at rest, which does not turn about
// the vertical either.
inline constexpr double kStillAccDev = 0.03;
// Chi-square (three offset components) by which the rotation evidence must
// prefer a new offset: one false adoption in a thousand.
inline constexpr double kAdoptChi2 = 16.0;
// Gauss: a refit moves the offset by less than this (the fit's own noise)
// without the rotations' support.
inline constexpr double kRefineStep = 0.003;
// Gauss: the offset a sensor that arrives calibrated may still have; the
// raw field is used with this uncertainty until the data say more.
inline constexpr double kUncalibratedSigma = 0.05;
// Gauss: how far a device's own field may move between sessions (a
// restored calibration is held no tighter than this).
inline constexpr double kSessionDrift = 0.05;
// Without a gyroscope a first fit replaces the raw field only when its
// residual is below this share of the raw field's, and lower by more than
// the noise floor.
inline constexpr double kClearlyBetterRatio = 0.5;

inline constexpr double kDeg = 57.29577951308232;

inline constexpr int kP = 11;  // c(3), soft-iron update (6), strength, vertical


inline bool knownUp(const Vec3d& up) { return up.x != 0.0 || up.y != 0.0 || up.z != 0.0; }

inline double clampUnit(double v) { return v < -1.0 ? -1.0 : (v > 1.0 ? 1.0 : v); }

inline double median(double* v, int n) {
  if (n <= 0) return 0.0;
  std::nth_element(v, v + n / 2, v + n);
  return v[n / 2];
}

// Partial derivatives of s^T dS d over the six entries of a symmetric dS
// (00, 11, 22, 01, 02, 12).
inline void symmetricJacobian(Vec3d s, Vec3d d, double* out) {
  out[0] = s.x * d.x;
  out[1] = s.y * d.y;
  out[2] = s.z * d.z;
  out[3] = s.x * d.y + s.y * d.x;
  out[4] = s.x * d.z + s.z * d.x;
  out[5] = s.y * d.z + s.z * d.y;
}

// The 26 cells of directions: faces, edges and corners of a cube. A
// direction belongs to the cell whose pattern of signs it follows, counting
// a component as zero when it is below tan(22.5 deg) of the largest.
inline double coverageOf(const Vec3d* dirs, int n) {
  uint32_t cells = 0;
  for (int i = 0; i < n; ++i) {
    const Vec3d u = dirs[i];
    const double big = std::max(std::fabs(u.x), std::max(std::fabs(u.y), std::fabs(u.z)));
    if (!(big > 0.0)) continue;
    const double cut = 0.41421356 * big;
    const int a = u.x > cut ? 2 : (u.x < -cut ? 0 : 1);
    const int b = u.y > cut ? 2 : (u.y < -cut ? 0 : 1);
    const int c = u.z > cut ? 2 : (u.z < -cut ? 0 : 1);
    cells |= 1u << (9 * a + 3 * b + c);  // 13 (all zero) cannot happen
  }
  int count = 0;
  for (uint32_t c = cells; c; c &= c - 1) ++count;
  return count / 26.0;
}

// Smallest eigenvalue of a symmetric positive semi-definite 3x3 matrix.
inline double minEigen(const M3& a) {
  const double p1 = a.m[0][1] * a.m[0][1] + a.m[0][2] * a.m[0][2] + a.m[1][2] * a.m[1][2];
  const double q = (a.m[0][0] + a.m[1][1] + a.m[2][2]) / 3.0;
  const double p2 = (a.m[0][0] - q) * (a.m[0][0] - q) + (a.m[1][1] - q) * (a.m[1][1] - q) +
                    (a.m[2][2] - q) * (a.m[2][2] - q) + 2.0 * p1;
  const double p = std::sqrt(p2 / 6.0);
  if (p < 1e-15) return q;
  M3 b;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) b.m[i][j] = (a.m[i][j] - (i == j ? q : 0.0)) / p;
  const double r = clampUnit(det(b) / 2.0);
  const double phi = std::acos(r) / 3.0;
  return q + 2.0 * p * std::cos(phi + 2.0943951023931953);
}

}  // namespace quelta::magnetic::detail
