// SPDX-License-Identifier: Apache-2.0
// The calibrator's sample path: clock, gravity, block averaging, the
// candidate's gravity window, and the refit that chooses between fits.
#include "quelta/magnetic/mag_detail.h"

namespace quelta::magnetic {

using namespace detail;

const char* reasonText(Reason r) {
  switch (r) {
    case Reason::None: return "calibrated";
    case Reason::Collecting: return "collecting directions: keep moving the device";
    case Reason::TurnOtherAxis: return "turn the device about another axis";
    case Reason::FieldUnstable: return "field unstable: move away from magnets and metal";
    case Reason::StrengthMismatch: return "field strength differs from the expected: magnetic environment";
    case Reason::NoSamples: return "no valid magnetometer samples";
  }
  return "unknown";
}

void Calibrator::reset() {
  // Member by member: no large temporary on the stack.
  cal_ = Calibration{};
  quality_ = Quality{};
  priorOffsetSigma_ = 0.0;
  priorOffset_ = Vec3d{};
  clock_ = 0.0;
  lastT_ = 0.0;
  haveT_ = false;
  gravity_ = Vec3d{};
  accNorm_ = 0.0;
  haveGravity_ = false;
  historyHead_ = 0;
  historyCount_ = 0;
  blockMag_ = Vec3d{};
  blockAcc_ = Vec3d{};
  blockCount_ = 0;
  blockAccCount_ = 0;
  blockStart_ = 0.0;
  blockAccDev_ = 0.0;
  count_ = 0;
  lastFit_ = -1e9;
  fitInterval_ = kFitInterval;
  lastOffer_ = -1e9;
  newSinceFit_ = 0;
  recentHead_ = 0;
  recentCount_ = 0;
  inconsistentSince_ = -1.0;
  inconsistentShare_ = 0.0;
  lastChangeTry_ = -1e9;
  unstable_ = false;
  previous_ = Calibration{};
  restart_ = false;
  heldStrength_ = 0.0;
  heldVertical_ = 0.0;
  devStrength_ = 0.0;
  devDip_ = 0.0;
  gravityNoise_ = 0.0;
  refDipDeg_ = 0.0;
  refDipFor_[0] = refDipFor_[1] = 0.0;
  flag_ = false;
  calChanged_ = false;
  headingErrorRaw_ = 180.0;
  rotation_.reset();
  sinceChange_.reset();
  haveGyro_ = false;
  turnSinceOffer_ = 0.0;
  upAtOffer_ = Vec3d{};
  lastBlockM_ = Vec3d{};
  lastBlockUp_ = Vec3d{};
  lastBlockAccDev_ = 0.0;
  replaced_ = Calibration{};
  haveReplaced_ = false;
  restored_ = false;
}

SampleOutput Calibrator::update(double t, const double mag[3], const double acc[3], const double gyro[3]) {
  SampleOutput out;
  calChanged_ = false;

  double interval = 0.0;
  const double dt = advanceClock(t, interval);

  // Gravity.
  double accDev = 1.0;
  double accAngleSq = 8100.0;
  if (acc != nullptr) {
    const Vec3d a{acc[0], acc[1], acc[2]};
    const double an = norm(a);
    if (isFinite(a) && an > 1e-9 && an < 1e9) {
      if (!haveGravity_) {
        gravity_ = a;
        accNorm_ = an;
        haveGravity_ = true;
      } else {
        const double k = dt / (kGravityTau + dt);
        gravity_ = gravity_ + k * (a - gravity_);
        accNorm_ += dt / (kAccNormTau + dt) * (an - accNorm_);
      }
      accDev = norm(a - gravity_) / accNorm_;
      // Squared angle from gravity, degrees^2 (2 (1 - cos) is the squared
      // angle for small angles, and grows with it up to 180 degrees).
      accAngleSq = 2.0 * (1.0 - clampUnit(dot(a, gravity_) / (an * norm(gravity_)))) * kDeg * kDeg;
    }
  }
  const Vec3d up = haveGravity_ ? unitOrZero(gravity_) : Vec3d{};

  const Vec3d m{mag ? mag[0] : 0.0, mag ? mag[1] : 0.0, mag ? mag[2] : 0.0};
  const double mn = norm(m);
  const bool valid = mag != nullptr && isFinite(m) && mn > 1e-9 && mn < 100.0;
  // The rotation since the last sample: evidence about the offset (the turn
  // counts even when this field sample is unusable).
  if (gyro != nullptr) turn(interval, dt, valid ? &m : nullptr, gyro);
  if (!valid) {
    out.accuracy = quality_.accuracy;
    return out;
  }
  out.valid = true;
  if (quality_.reason == Reason::NoSamples) quality_.reason = Reason::Collecting;

  // Block averaging.
  if (blockCount_ == 0) {
    blockStart_ = clock_;
    blockMag_ = Vec3d{};
    blockAcc_ = Vec3d{};
    blockAccCount_ = 0;
    blockAccDev_ = 0.0;
  }
  blockMag_ = blockMag_ + m;
  ++blockCount_;
  if (haveGravity_ && acc != nullptr && accDev < 1.0) {
    blockAcc_ = blockAcc_ + Vec3d{acc[0], acc[1], acc[2]};
    blockAccDev_ += accDev;
    ++blockAccCount_;
  }
  if (clock_ - blockStart_ >= kBlockSeconds || blockCount_ >= kBlockMaxSamples) endBlock();

  const Vec3d h = apply(m);
  out.calibrated = h;
  out.strength = norm(h);
  const bool haveUp = knownUp(up);
  if (haveUp) out.dipDeg = std::asin(clampUnit(-dot(h, up) / std::max(out.strength, 1e-12))) * kDeg;
  disturbance(out.strength, haveUp && accDev < kStaticAccDev, accAngleSq, dt, out);
  out.newCalibration = calChanged_;
  out.accuracy = quality_.accuracy;
  return out;
}

void Calibrator::endBlock() {
  Block& nb = history_[historyHead_];
  nb.m = (1.0 / blockCount_) * blockMag_;
  nb.hasAcc = blockAccCount_ == blockCount_;
  nb.acc = nb.hasAcc ? (1.0 / blockAccCount_) * blockAcc_ : Vec3d{};
  lastBlockAccDev_ = blockAccCount_ > 0 ? blockAccDev_ / blockAccCount_ : 1.0;
  historyHead_ = (historyHead_ + 1) % kHistory;
  if (historyCount_ < kHistory) ++historyCount_;
  blockCount_ = 0;
  // The latest block sets the heading error's horizontal field.
  lastBlockM_ = nb.m;
  lastBlockUp_ = nb.hasAcc ? unitOrZero(nb.acc) : (haveGravity_ ? unitOrZero(gravity_) : Vec3d{});
  // The candidate is the block in the middle of the window.
  const int window = 2 * kGravityHalfWindow + 1;
  if (historyCount_ < window) {
    updateQuality(nullptr);
    return;
  }
  const Block& mid = history_[(historyHead_ - 1 - kGravityHalfWindow + 2 * kHistory) % kHistory];
  const Vec3d m = mid.m;
  // Gravity: the accelerometer averaged over the widest window centred on
  // the candidate whose two halves still agree in direction (walking steps
  // average out; a turning device keeps a short window).
  Vec3d up;
  if (mid.hasAcc && accNorm_ > 0.0) {
    auto at = [&](int back) -> const Block& { return history_[(historyHead_ - 1 - back + 2 * kHistory) % kHistory]; };
    Vec3d left, right;
    int count = 1;
    for (int k = 1; k <= kGravityHalfWindow; ++k) {
      const Block& older = at(kGravityHalfWindow + k);
      const Block& newer = at(kGravityHalfWindow - k);
      if (!older.hasAcc || !newer.hasAcc) break;
      const Vec3d l = left + older.acc;
      const Vec3d r = right + newer.acc;
      if (dot(unitOrZero(l), unitOrZero(r)) < kGravityHalvesCos) break;
      left = l;
      right = r;
      count = 1 + 2 * k;
    }
    const Vec3d sum = mid.acc + left + right;
    // Near the usual size: the device is not accelerating on average.
    if (std::fabs(norm(sum) / count / accNorm_ - 1.0) < kGravityMaxDev) up = unitOrZero(sum);
  }
  Slot& r = recent_[recentHead_];
  r.m = m;
  r.up = up;
  r.t = clock_;
  r.nn = -1;
  r.nnDist = 0.0;
  recentHead_ = (recentHead_ + 1) % kRecent;
  if (recentCount_ < kRecent) ++recentCount_;

  bool offer = true;
  if (cal_.model != Model::None) offer = checkChange(m, up);
  // Once settled with a full store, new blocks only refresh it: a few a
  // second are plenty.
  const bool throttled = count_ == kSlots && quality_.accuracy >= 3 && clock_ - lastOffer_ < kSettledOfferSeconds;
  if (offer && !throttled && turnedSinceOffer(up)) {
    lastOffer_ = clock_;
    offerCandidate(m, up);
    turnSinceOffer_ = 0.0;
    upAtOffer_ = up;
  }

  // Fits often while converging, rarely once calibrated.
  // (and less often while fits keep bringing nothing new).
  const double interval = quality_.accuracy >= 3 ? std::max(kSettledFitInterval, fitInterval_) : fitInterval_;
  if (count_ >= kMinSlots && newSinceFit_ > 0 && clock_ - lastFit_ >= interval) {
    refit();
  } else {
    updateQuality(nullptr);
  }
}

double Calibrator::advanceClock(double t, double& interval) {
  // Only forward, gaps clamped; interval is the true one (0 when unknown).
  double dt = 0.0;
  interval = 0.0;
  if (std::isfinite(t)) {
    if (haveT_) {
      interval = t - lastT_;
      if (!(interval > 0.0)) interval = 0.0;
      dt = interval > kMaxGap ? kMaxGap : interval;
    }
    lastT_ = t;
    haveT_ = true;
  }
  clock_ += dt;
  return dt;
}

void Calibrator::forgetRotations() {
  rotation_.forget();
  sinceChange_.forget();
  updateQuality(nullptr);
}

void Calibrator::rotate(double t, const double gyro[3]) {
  double interval = 0.0;
  const double dt = advanceClock(t, interval);
  if (gyro != nullptr) turn(interval, dt, nullptr, gyro);
}

void Calibrator::turn(double interval, double dt, const Vec3d* field, const double gyro[3]) {
  const Vec3d w{gyro[0], gyro[1], gyro[2]};
  if (!isFinite(w)) return;
  rotation_.update(interval, field, w);
  if (inconsistentSince_ >= 0.0) sinceChange_.update(interval, field, w);
  turnSinceOffer_ += norm(w) * dt;
  haveGyro_ = true;
}

bool Calibrator::turnedSinceOffer(Vec3d up) const {
  if (haveGyro_) return turnSinceOffer_ >= kStoreTurnDeg / kDeg;
  // Without a gyroscope: a tilt shows a turn; a device at rest does not
  // turn; anything else may be a turn about the vertical.
  if (!knownUp(up) || !knownUp(upAtOffer_)) return true;
  if (dot(up, upAtOffer_) < std::cos(kStoreTurnDeg / kDeg)) return true;
  return lastBlockAccDev_ > kStillAccDev;
}

bool Calibrator::clearlyBetter(const FitResult& r) const {
  if (haveGyro_) {
    // The rotations decide: the new offset must explain them clearly better;
    // a fitted calibration is refined by any fit they do not contradict.
    const double gain = rotation_.misfitDifference(cal_.offset, r.cal.offset);
    // ... and lie where the rotations place it.
    const Vec3d best = rotation_.solve(r.cal.offset, kUncalibratedSigma);
    if (rotation_.misfitDifference(r.cal.offset, best) > kAdoptChi2) return false;
    // A calibration in use moves only where the rotations know the way:
    // along directions they leave open (turns about one axis only), no
    // further than a sensor's own uncertainty.
    const Vec3d move = r.cal.offset - cal_.offset;
    if (cal_.model != Model::None && norm(rotation_.unknownPart(move, kUncalibratedSigma)) > kUncalibratedSigma)
      return false;
    if (gain > kAdoptChi2) return true;
    if (cal_.model == Model::None || gain < -1.0) return false;
    // A refinement: small, or along a direction the rotations know (where
    // the gain above has judged it).
    const double size = norm(move);
    return size < kRefineStep || rotation_.sigmaAlong((1.0 / size) * move, kUncalibratedSigma) < 0.5 * size;
  }
  if (cal_.model != Model::None) return true;
  // Without a gyroscope the raw field gives way only to a fit that explains
  // the stored samples' strengths far better.
  double strengths[kSlots];
  for (int i = 0; i < count_; ++i) strengths[i] = norm(slots_[i].m);
  const double r0 = median(strengths, count_);
  for (int i = 0; i < count_; ++i) strengths[i] = std::fabs(norm(slots_[i].m) - r0);
  const double scale0 = 1.4826 * median(strengths, count_);
  return r.residual < kClearlyBetterRatio * scale0 && scale0 - r.residual > kNoiseFloor;
}

void Calibrator::refit() {
  lastFit_ = clock_;
  newSinceFit_ = 0;
  Calibration start = cal_;
  // The rotations roll back a fit that turned out worse than the one before.
  if (haveGyro_ && haveReplaced_ && replaced_.model != Model::None &&
      rotation_.misfitDifference(cal_.offset, replaced_.offset) > kAdoptChi2) {
    cal_ = replaced_;
    haveReplaced_ = false;
    calChanged_ = true;
  }
  if ((cal_.model == Model::None || restart_) && !initialSphere(slots_, count_, start)) return;
  // Where the rotations know the offset, they give the start.
  if (haveGyro_ && rotation_.minInformation() > 1.0 / (kUncalibratedSigma * kUncalibratedSigma))
    start.offset = rotation_.solve(start.offset, 10.0);
  if (restart_) start.softIron = cal_.softIron;
  restart_ = false;
  double ps = kPlausibleStrength, pss = kPlausibleStrengthSigma;
  double pv = kPlausibleVertical, pvs = kPlausibleVerticalSigma;
  if (heldStrength_ > 0.0) {
    if (count_ >= kHeldUntilSlots) {
      heldStrength_ = 0.0;
    } else {
      ps = heldStrength_;
      pss = kHeldStrengthSigma * ps;
      pv = heldVertical_;
      pvs = heldVertical_ != 0.0 ? kHeldVerticalSigma * ps : 0.0;
    }
  }
  if (expected_.known && expected_.strengthGauss > 0.0) {
    ps = expected_.strengthGauss;
    pss = kExpectedSigma * ps;
    pv = -ps * std::sin(expected_.dipDeg / kDeg);
    pvs = kExpectedSigma * ps;
  }
  FitResult r;
  bool ok = fit(slots_, count_, start, true, false, ps, pss, pv, pvs, r);
  // (Not again while a good calibration stays as rough as it was.)
  const bool settled = quality_.accuracy >= 3 && r.residual < 1.5 * quality_.residualGauss;
  if (!ok || (r.residual > kPoorFit && !settled)) {
    // Rough or failed: other starts compete, judged by how many stored
    // samples they explain (the store may hold disturbed samples).
    int best = ok ? inliers(r.cal, slots_, count_) : -1;
    Calibration alt;
    FitResult q;
    if (initialSphere(slots_, count_, alt) && fit(slots_, count_, alt, true, false, ps, pss, pv, pvs, q)) {
      const int k = inliers(q.cal, slots_, count_);
      if (k > best) {
        best = k;
        r = q;
        ok = true;
      }
    }
    Slot recent[kRecent];
    const int n = recentBlocks(recent, -1e300);
    if (n >= kChangeMinBlocks && initialSphere(recent, n, alt) &&
        fit(recent, n, alt, false, false, ps, pss, pv, pvs, q) && fit(slots_, count_, q.cal, true, false, ps, pss, pv, pvs, q)) {
      const int k = inliers(q.cal, slots_, count_);
      if (k > best) {
        best = k;
        r = q;
        ok = true;
      }
    }
  }
  // Fits that bring nothing new come less and less often.
  const double longer = std::min(2.0 * fitInterval_, quality_.accuracy >= 3 ? kQuietFitInterval : kSettledFitInterval);
  if (!ok || !clearlyBetter(r)) {
    fitInterval_ = longer;
    updateQuality(nullptr);
    return;
  }
  const bool moved = cal_.model == Model::None || r.cal.model != cal_.model ||
                     norm(r.cal.offset - cal_.offset) > kRefineStep;
  fitInterval_ = moved ? kFitInterval : longer;
  const bool changed = cal_.model == Model::None || norm(r.cal.offset - cal_.offset) > 1e-4 ||
                       r.cal.model != cal_.model;
  if (changed && (cal_.model == Model::None || norm(r.cal.offset - cal_.offset) > kUncalibratedSigma)) {
    replaced_ = cal_;
    haveReplaced_ = true;
  }
  cal_ = r.cal;
  restored_ = false;
  if (changed) calChanged_ = true;
  updateQuality(&r);
}

}  // namespace quelta::magnetic
