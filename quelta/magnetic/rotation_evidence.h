// SPDX-License-Identifier: Apache-2.0
// What the gyroscope says about the magnetometer's hard-iron offset.
//
// Between two instants the Earth's field, seen from the device, turns exactly
// as the device turns: with the rotation dR from the first instant to the
// second (device axes then to device axes before),
//     m2 - c = dR^T (m1 - c)   =>   (I - dR^T) c = m2 - dR^T m1,
// which is linear in the offset c. Each pair of readings about half a second
// apart gives one such row A c = y; the information matrix J = sum A^T A /
// noise^2 says which components of c the turns so far determine and how
// well (a turn about one axis fixes the two components across it). A change
// of the field without a turn (translation through a gradient, a passing
// magnet, a tap) has A = 0 and teaches nothing, and a pair whose residual the
// known part of c cannot explain is set aside as the environment.
//
// A gyroscope bias the rate still carries turns the field further by the
// same angle per second; once the offset is roughly known the rows estimate
// that remaining bias jointly with it (six unknowns), and the offset's
// evidence is the rows' with the bias marginalised.
//
// Old rows fade with a time constant, so the evidence follows a slowly
// changing device field; a hard-iron change found by other means clears it.
// Fixed size, no heap; one quaternion step per sample, one 3x3 update per
// pair.
#pragma once

#include "quelta/math/qmath.h"

namespace quelta::magnetic {

class RotationEvidence {
 public:
  RotationEvidence() { reset(); }
  void reset();

  // One gyroscope sample (rad/s, bias removed) over the dt seconds that led
  // to it, with the field sample of the same instant (gauss, raw device
  // axes) or null when there is none.
  void update(double dt, const Vec3d* field, const Vec3d& rate);

  // How far the rate's bias may still be off (rad/s, 1-sigma): part of each
  // row's noise.
  void setRateError(double radPerS) { rateError_ = radPerS > 0.0 ? radPerS : 0.0; }

  // Forgets the rows (the device's own field has changed).
  void forget();

  // Rows accepted so far (since the last forget).
  int rows() const { return rows_; }
  // The information about c, 1/gauss^2 (with the rows' own scatter where it
  // exceeds the noise they were weighed with).
  M3 information() const;
  // Smallest eigenvalue of the information, 1/gauss^2 (its inverse square
  // root is the standard deviation of the worst-known component).
  double minInformation() const;
  // The offset the rows point to, with a Gaussian prior (centre, sigma in
  // gauss) standing in for what they do not determine.
  Vec3d solve(const Vec3d& prior, double priorSigma) const;
  // How much worse the rows fit offset a than offset b, in units of their
  // noise (chi-square difference; > 0 when b explains them better).
  double misfitDifference(const Vec3d& a, const Vec3d& b) const;
  // J c - z: the gradient of half the rows' misfit at offset c.
  Vec3d excess(const Vec3d& c) const { return (1.0 / noiseScale()) * (info_ * c - z_); }
  // The rows' scatter against the noise they were weighed with (>= 1).
  double noiseScale() const { return meanR2_ > 3.0 ? meanR2_ / 3.0 : 1.0; }
  // The part of a move of the offset (gauss) along directions the rows know
  // less well than sigma gauss: (sigma^2 J + I)^-1 move.
  Vec3d unknownPart(const Vec3d& move, double sigma) const;
  // The gyroscope bias (rad/s) left after the shared estimate that the rows
  // point to (zero until the offset is known).
  Vec3d remainingBias() const;
  // The standard deviation (gauss) of the offset along unit direction u,
  // given the rows and a prior of sigma priorSigma.
  double sigmaAlong(const Vec3d& u, double priorSigma) const;

 private:
  void closePair(const Vec3d& second);
  void clearRows();
  void marginalise();  // info_, z_ from the joint rows
  void solveAll(double (&theta)[6], double (&p)[6][6]) const;

  // The rows over the offset and the gyroscope's remaining bias (rad/s),
  // sum H^T H / noise^2 and H^T y / noise^2, and the offset's part with the
  // bias unknown.
  double info6_[6][6];
  double z6_[6];
  M3 info_;     // 1/gauss^2
  Vec3d z_;
  int rows_ = 0;
  int rejected_ = 0;  // rows rejected since the last accepted one
  // The pair being built: the first reading and the rotation since.
  Vec3d first_;
  Vec3d lastRate_;  // rad/s, the previous sample's
  double q_[4] = {1.0, 0.0, 0.0, 0.0};  // device now -> device at the first reading
  double elapsed_ = 0.0;                // s since the first reading
  bool open_ = false;
  // Running mean of the accepted rows' squared normalised residual (three
  // components: 3 when the noise model holds).
  double meanR2_ = 3.0;
  double rateError_ = 0.01;  // rad/s
};

}  // namespace quelta::magnetic
