// SPDX-License-Identifier: Apache-2.0
// Change detection: a new hard iron (adopted quickly, strength and dip
// held) against a passing disturbance; a lasting change restarts.
#include "quelta/magnetic/mag_detail.h"

namespace quelta::magnetic {

using namespace detail;

bool Calibrator::checkChange(Vec3d m, Vec3d up) {
  // Is this block explained by the stored model?
  const Vec3d h = apply(m);
  const double hn = norm(h);
  const double tol = std::max(kInconsistentRel * cal_.strength, 4.0 * quality_.residualGauss);
  double dev = std::fabs(hn - cal_.strength);
  if (knownUp(up)) dev = std::max(dev, std::fabs(dot(h, up) - cal_.vertical) / 1.5);
  const bool bad = dev > tol;
  const double k = kBlockSeconds / (kShareTau + kBlockSeconds);
  inconsistentShare_ += k * ((bad ? 1.0 : 0.0) - inconsistentShare_);
  if (bad && inconsistentSince_ < 0.0) {
    inconsistentSince_ = clock_;
    sinceChange_.forget();
  }
  if (!bad && inconsistentShare_ < 0.3) inconsistentSince_ = -1.0;
  unstable_ = inconsistentShare_ > 0.5;

  if (inconsistentSince_ >= 0.0 && inconsistentShare_ > 0.6 &&
      clock_ - inconsistentSince_ >= kChangeMinSeconds && clock_ - lastChangeTry_ >= kChangeRetry) {
    lastChangeTry_ = clock_;
    // The blocks since the change began.
    Slot recent[kRecent];
    const int n = recentBlocks(recent, inconsistentSince_ - 0.2);
    // Contradicted for long and explained by no new offset: the field
    // around the device has changed (or the first calibration was made in a
    // disturbed place). Start again from the recent blocks; the calibration
    // before stays in memory should the old field come back.
    if (clock_ - inconsistentSince_ >= kRestartSeconds && inconsistentShare_ > kRestartShare && n >= kChangeMinBlocks &&
        rotationKnowsChange()) {
      previous_ = quality_.accuracy >= 2 ? cal_ : Calibration{};
      heldStrength_ = 0.0;
      restartStore(recent, n);
      rotation_ = sinceChange_;
      haveReplaced_ = false;
      restart_ = true;
      ++quality_.restarts;
      lastFit_ = -1e9;
      refit();
      return false;
    }
    // The calibration before the last change explains the blocks again.
    if (n >= 8 && previous_.model != Model::None) {
      double rel[kRecent];
      for (int i = 0; i < n; ++i) {
        const Vec3d hp = previous_.softIron * (recent[i].m - previous_.offset);
        rel[i] = std::fabs(norm(hp) / previous_.strength - 1.0);
      }
      if (median(rel, n) < kPreviousMaxRel) {
        const Calibration back = previous_;
        adopt(back, recent, n, nullptr);
        return false;
      }
    }
    if (n >= kChangeMinBlocks) {
      // A new hard iron keeps the strength and the dip: hold them.
      Calibration start = cal_;
      Calibration lin;
      if (initialSphere(recent, n, lin)) {
        start.offset = lin.offset;
      } else {
        Vec3d mean;
        for (int i = 0; i < n; ++i) mean = mean + recent[i].m;
        start.offset = (1.0 / n) * mean;
      }
      FitResult r;
      // Held only when the stored calibration was good; else the priors of
      // a first calibration.
      const bool trusted = quality_.accuracy >= 2;
      const bool haveUp = cal_.vertical != 0.0;
      double ps = kPlausibleStrength, pss = kPlausibleStrengthSigma;
      double pv = kPlausibleVertical, pvs = kPlausibleVerticalSigma;
      if (trusted) {
        ps = cal_.strength;
        pss = kHeldStrengthSigma * ps;
        pv = cal_.vertical;
        pvs = haveUp ? kHeldVerticalSigma * ps : 0.0;
      } else if (expected_.known && expected_.strengthGauss > 0.0) {
        ps = expected_.strengthGauss;
        pss = kExpectedSigma * ps;
        pv = -ps * std::sin(expected_.dipDeg / kDeg);
        pvs = kExpectedSigma * ps;
      }
      const bool ok = fit(recent, n, start, false, true, ps, pss, pv, pvs, r);
      // The recent blocks must fit the new offset far better than the old one,
      // and the offset must have moved by more than the model's misfit.
      double oldMisfit[kRecent];
      for (int i = 0; i < n; ++i) oldMisfit[i] = std::fabs(norm(apply(recent[i].m)) - cal_.strength);
      const double oldResidual = 1.4826 * median(oldMisfit, n);
      if (ok && r.residual < std::max(kChangeMaxResidual, 2.0 * quality_.residualGauss) &&
          r.residual * kChangeGain < oldResidual && norm(r.cal.offset - cal_.offset) > tol &&
          r.headingErrorDeg < kChangeMaxHeadingDeg && r.coverage >= kChangeMinCoverage &&
          (!trusted || std::fabs(r.cal.strength / cal_.strength - 1.0) < 0.1) &&
          (!haveGyro_ || (rotationKnowsChange() &&
                          sinceChange_.misfitDifference(cal_.offset, r.cal.offset) > kAdoptChi2))) {
        Calibration next = cal_;
        next.offset = r.cal.offset;
        next.strength = r.cal.strength;
        next.vertical = r.cal.vertical;
        adopt(next, recent, n, &r);
        return false;
      }
    }
  }
  updateQuality(nullptr);
  // Blocks far off the model stay out of the store once the calibration is good.
  // Far beyond any plausible misfit, they never enter.
  if (dev > kNeverStoreRel * cal_.strength) return false;
  return quality_.accuracy < 2 || dev < 2.0 * tol;
}

void Calibrator::adopt(const Calibration& c, const Slot* recent, int n, const FitResult* r) {
  const bool trusted = quality_.accuracy >= 2 || r == nullptr;
  heldStrength_ = trusted ? c.strength : 0.0;
  heldVertical_ = c.vertical;
  // Only a good calibration is worth returning to.
  previous_ = quality_.accuracy >= 2 ? cal_ : Calibration{};
  cal_ = c;
  restored_ = false;
  calChanged_ = true;
  ++quality_.newHardIron;
  // The store restarts from the blocks since the change; the rotations
  // seen before it speak of the old offset.
  restartStore(recent, n);
  rotation_ = sinceChange_;
  haveReplaced_ = false;
  unstable_ = false;
  lastFit_ = clock_;
  newSinceFit_ = 0;
  if (r != nullptr) {
    FitResult q = *r;
    q.cal = cal_;
    updateQuality(&q);
  } else {
    updateQuality(nullptr);
  }
}

bool Calibrator::rotationKnowsChange() const {
  // With a gyroscope, the turns since the contradiction began must pin every
  // component of the offset: else the change may be the environment.
  return !haveGyro_ || sinceChange_.minInformation() > 1.0 / (kUncalibratedSigma * kUncalibratedSigma);
}

}  // namespace quelta::magnetic
