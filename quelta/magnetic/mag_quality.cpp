// SPDX-License-Identifier: Apache-2.0
// The calibration's quality report and the per-sample disturbance score.
#include "quelta/magnetic/mag_detail.h"

namespace quelta::magnetic {

using namespace detail;

void Calibrator::updateQuality(const FitResult* r) {
  if (r != nullptr) {
    headingErrorRaw_ = r->headingErrorDeg;
    quality_.coverage = r->coverage;
    quality_.residualGauss = r->residual;
    quality_.samples = count_;
  }
  quality_.fittedStrength = cal_.strength;
  quality_.expectedStrength = expected_.known ? expected_.strengthGauss : 0.0;
  quality_.headingErrorDeg = currentHeadingError();
  const double he = quality_.headingErrorDeg;
  const int acc = he <= kAccuracy3Deg ? 3 : he <= kAccuracy2Deg ? 2 : he <= kAccuracy1Deg ? 1 : 0;
  quality_.accuracy = acc;
  Reason reason = Reason::None;
  if (cal_.model == Model::None) {
    reason = Reason::Collecting;
  } else if (unstable_) {
    reason = Reason::FieldUnstable;
  } else if (expected_.known && expected_.strengthGauss > 0.0 &&
             std::fabs(cal_.strength / expected_.strengthGauss - 1.0) > 0.15) {
    reason = Reason::StrengthMismatch;
  } else if (acc < 3) {
    reason = quality_.coverage < 0.25 ? Reason::Collecting : Reason::TurnOtherAxis;
  }
  quality_.reason = reason;
}

double Calibrator::headingErrorOf(double sigma) const {
  const Vec3d h = apply(lastBlockM_);
  double horizontal = norm(h);
  if (knownUp(lastBlockUp_)) horizontal = norm(h - dot(h, lastBlockUp_) * lastBlockUp_);
  if (!(horizontal > 1e-3)) return 180.0;
  return std::min(180.0, std::atan2(sigma, horizontal) * kDeg);
}

double Calibrator::currentHeadingError() const {
  if (cal_.model == Model::None) {
    // The raw field as it comes: usable while its strength is the Earth's
    // and the rotations do not contradict a zero offset, with the
    // uncertainty of a sensor that arrives calibrated, less what the
    // rotations have confirmed across the horizontal field.
    const double strength = norm(lastBlockM_);
    if (!(strength > kMinStrength && strength < kMaxStrength)) return 180.0;
    if (!haveGyro_) return headingErrorOf(kUncalibratedSigma);
    const Vec3d zero;
    if (rotation_.misfitDifference(zero, rotation_.solve(zero, kUncalibratedSigma)) > kAdoptChi2) return 180.0;
    Vec3d across = unitOrZero(cross(lastBlockUp_, lastBlockM_));
    if (!knownUp(lastBlockUp_) || norm(across) == 0.0) return headingErrorOf(kUncalibratedSigma);
    return headingErrorOf(rotation_.sigmaAlong(across, kUncalibratedSigma));
  }
  double err = headingErrorRaw_;
  if (restored_) {
    // A restored calibration may have drifted since it was saved, until the
    // rotations or a fit confirm it.
    const Vec3d across = unitOrZero(cross(lastBlockUp_, apply(lastBlockM_)));
    const double sigma = haveGyro_ && norm(across) > 0.0 ? rotation_.sigmaAlong(across, kSessionDrift) : kSessionDrift;
    const double drift = headingErrorOf(sigma);
    err = std::sqrt(err * err + drift * drift);
  }
  if (haveGyro_ && rotation_.rows() > 0) {
    // Where the rotations place the offset elsewhere, the heading is off by
    // as much.
    const Vec3d moved = rotation_.solve(cal_.offset, kUncalibratedSigma) - cal_.offset;
    const double extra = headingErrorOf(norm(moved));
    err = std::sqrt(err * err + extra * extra);
  }
  return std::min(180.0, err);
}

void Calibrator::disturbance(double strength, bool dipUsable, double accAngleSq, double dt, SampleOutput& out) {
  if (cal_.model == Model::None) {
    out.disturbance = 0.0;
    out.disturbed = false;
    return;
  }
  const double k = dt / (kDisturbTau + dt);
  devStrength_ += k * ((strength / cal_.strength - 1.0) - devStrength_);
  if (dipUsable) {
    if (cal_.vertical != refDipFor_[0] || cal_.strength != refDipFor_[1]) {
      refDipDeg_ = std::asin(clampUnit(-cal_.vertical / cal_.strength)) * kDeg;
      refDipFor_[0] = cal_.vertical;
      refDipFor_[1] = cal_.strength;
    }
    devDip_ += k * ((out.dipDeg - refDipDeg_) - devDip_);
  }
  // The dip is only as good as gravity: its tolerance grows while the
  // accelerometer moves about its low-passed direction.
  gravityNoise_ += dt / (kGravityNoiseTau + dt) * (accAngleSq - gravityNoise_);
  const double dipScale = std::sqrt(kDipScaleDeg * kDipScaleDeg + kGravityNoiseGain * kGravityNoiseGain * gravityNoise_);
  const double score = std::max(std::fabs(devStrength_) / kStrengthScale, std::fabs(devDip_) / dipScale);
  if (score > kFlagOn) flag_ = true;
  if (score < kFlagOff) flag_ = false;
  out.strengthDeviation = devStrength_;
  out.dipDeviationDeg = devDip_;
  out.disturbance = score;
  out.disturbed = flag_;
}

}  // namespace quelta::magnetic
