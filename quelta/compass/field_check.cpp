// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/field_check.h"

namespace quelta::compass {

bool FieldCheck::check(double strength, double dip, bool hostDisturbed, bool newCalibration, double dt,
                       bool withGyro, double psi, double rate, double biasSigma, double tiltSigma,
                       bool tiltSettled) {
  if (newCalibration) age_ = 0.0;
  if (age_ <= 0.0) {
    strengthRef_ = strength;
    dipRef_ = dip;
  }
  const double strengthScore = std::fabs(strength / strengthRef_ - 1.0) / settings_.strengthTolerance;
  // Without a gyroscope the tilt, and with it the dip, is noisier.
  const double dipTolerance = settings_.dipToleranceDeg * kDeg * (withGyro ? 1.0 : settings_.trackDipScale) + tiltSigma;
  const double dipScore = std::fabs(dip - dipRef_) / dipTolerance;
  double score = tiltSettled ? maxOf(strengthScore, dipScore) : strengthScore;
  if (!tiltSettled) {
    // The turn test starts afresh once the tilt has settled.
    havePsi_ = false;
    turnRate_ = 0.0;
  } else if (withGyro) {
    // The field's heading against the gyroscope's: a clean field turns with
    // the device, so their difference stays put.
    if (havePsi_ && dt > 0.0) {
      const double k = dt / (dt + settings_.turnRateTau);
      turnRate_ += k * (wrapPi(psi - lastPsi_) / dt - turnRate_);
    }
    lastPsi_ = psi;
    havePsi_ = true;
    const double tolerance = settings_.turnRateTolDeg * kDeg + settings_.turnScaleError * std::fabs(rate) + biasSigma;
    score = maxOf(score, std::fabs(turnRate_) / tolerance);
  }
  const bool learning = age_ < settings_.learnTime;
  const bool own = !learning && (disturbed_ ? score > 0.7 : score > 1.0);
  const bool disturbed = own || hostDisturbed;
  disturbedTime_ = disturbed ? disturbedTime_ + dt : 0.0;
  // References: quick at first, slow afterwards, slower still while
  // disturbed, and they follow a change that lasts.
  double tau = settings_.referenceTau;
  if (disturbed && disturbedTime_ < settings_.relearnTime) tau *= 4.0;
  if (learning) tau = minOf(tau, 0.5 + age_);
  const double k = dt / (dt + tau);
  strengthRef_ += k * (strength - strengthRef_);
  dipRef_ += k * (dip - dipRef_);
  score_ = learning ? 0.0 : score;
  age_ += dt > 0.0 ? dt : 1e-3;
  disturbed_ = own;
  return disturbed;
}

}  // namespace quelta::compass
