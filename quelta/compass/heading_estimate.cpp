// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/heading_estimate.h"

namespace quelta::compass {

namespace {

constexpr double kUnknownHeadingVar = kPi * kPi;  // rad^2: nothing known of the heading

}  // namespace

HeadingEstimate::HeadingEstimate(const HeadingSettings& settings) : settings_(settings) { reset(0.0); }

void HeadingEstimate::reset(double biasVar) {
  hh_ = hhSeen_ = kUnknownHeadingVar;
  hb_ = 0.0;
  bb_ = startBiasVar_ = biasVar;
  psiLp_ = 0.0;
  psiPrimed_ = false;
  jitterSq_ = 0.0;
  steadyTime_ = 0.0;
  anchored_ = false;
  anchorAge_ = 0.0;
  anchor_ = 0.0;
  carried_ = 0.0;
}

// The low-passed disagreement against where it stood when it began: it may
// wander by what the field's noise over the low-pass and the bias still
// unknown about up explain (a gyroscope's drift over the time since), not
// more. Returns false (and anchors anew) when it wandered further.
bool HeadingEstimate::trackSteadiness(double dt, double fieldDensity) {
  if (!anchored_) {
    anchored_ = true;
    anchor_ = psiLp_;
    anchorAge_ = 0.0;
    return true;
  }
  anchorAge_ += dt;
  const double wander = settings_.gate * std::sqrt(fieldDensity / settings_.innovationTau) + settings_.gateFloorDeg * kDeg +
                        std::sqrt(bb_) * anchorAge_;
  if (std::fabs(wrapPi(psiLp_ - anchor_)) <= wander) return true;
  anchor_ = psiLp_;
  anchorAge_ = 0.0;
  return false;
}

void HeadingEstimate::start(double dt, double tiltVar) {
  hh_ = hhSeen_ = minOf(settings_.fieldNoise * settings_.fieldNoise / (dt > 0.0 ? dt : 0.02) + tiltVar,
                        kUnknownHeadingVar);
  hb_ = 0.0;
  carried_ = 0.0;
}

void HeadingEstimate::predict(double dt, double angle, double biasGrowth) {
  // The heading error e grows as e' = -b (b: the bias error about up).
  const double scale = settings_.scaleError * angle;
  const double growth = dt * (dt * bb_ - 2.0 * hb_) + dt * settings_.gyroNoise * settings_.gyroNoise + scale * scale;
  hh_ += growth;
  hhSeen_ = minOf(hhSeen_ + growth, kUnknownHeadingVar);
  hb_ -= dt * bb_;
  bb_ += biasGrowth;
  if (hh_ > kUnknownHeadingVar) hh_ = kUnknownHeadingVar;
  carried_ += dt;
}

void HeadingEstimate::pinBias(double biasVar) {
  if (biasVar >= bb_) return;
  // The bias error shrinks; its correlation with the heading error shrinks alike.
  hb_ *= std::sqrt(biasVar / bb_);
  bb_ = biasVar;
}

HeadingEstimate::Correction HeadingEstimate::correct(double psi, double dt, bool follow, bool clean, double weight,
                                                    double tiltNoise, double settleNoise, double biasShare) {
  Correction c;
  if (!(dt > 0.0)) return c;
  const double k = dt / (dt + settings_.innovationTau);
  // The low-pass follows the disagreement, not its wraps.
  const double jitter = psiPrimed_ ? wrapPi(psi - psiLp_) : 0.0;
  psiLp_ = psiPrimed_ ? wrapPi(psiLp_ + k * jitter) : psi;
  psiPrimed_ = true;
  // The field's own noise, measured: how far each reading strays from the
  // low-passed disagreement (a walking or running device's field jitters
  // far more than a still one's).
  const double kNoise = dt / (dt + settings_.noiseTau);
  jitterSq_ += kNoise * (jitter * jitter - jitterSq_);
  // The field heading's noise density (rad^2 s): its floor or its measured jitter.
  const double fieldDensity = maxOf(settings_.fieldNoise * settings_.fieldNoise, jitterSq_ * settings_.innovationTau);
  // Whether the disagreement still says what it said when it began: a
  // wrong heading shows the same disagreement whatever the device does,
  // a disturbance the device moves through does not.
  const bool consistent = trackSteadiness(dt, fieldDensity);
  if (!follow || !(weight > 0.0)) {
    if (!consistent) steadyTime_ = 0.0;
    return c;
  }
  // What the low-passed disagreement may be when both agree: the field's
  // noise over the low-pass, the heading's own uncertainty, a floor.
  const double density = fieldDensity + tiltNoise + settleNoise;
  const double noise = density / settings_.innovationTau;
  const double floor = settings_.gateFloorDeg * kDeg;
  const double allowed = settings_.gate * std::sqrt(noise + hh_) + floor;
  // A single reading may stray by its jitter as well; beyond that a jump has
  // begun that the low-pass has not caught up with yet.
  const double allowedNow = settings_.gate * std::sqrt(noise + jitterSq_ + hh_) + floor;
  if ((std::fabs(psiLp_) > allowed || std::fabs(psi) > allowedNow) && hh_ < kUnknownHeadingVar) {
    // Not followed, unless the field keeps saying the same, and is clean
    // by every other test for long enough while it does: then it is the new
    // reference. A field clean only now and then (a walking device's dip
    // swings with its tilt) counts its clean time, however interrupted, as
    // long as the disagreement holds steady.
    if (!consistent) steadyTime_ = 0.0;
    if (clean) steadyTime_ += dt;
    if (steadyTime_ < settings_.acceptTime) return c;
    // The heading knows no better than the disagreement, and the bias no
    // better than the drift that would explain it since the field was last
    // followed (but never less than at the start).
    hh_ = minOf(hh_ + psiLp_ * psiLp_, kUnknownHeadingVar);
    hhSeen_ = minOf(hhSeen_ + psiLp_ * psiLp_, kUnknownHeadingVar);
    const double drift = psiLp_ / maxOf(carried_, settings_.acceptTime);
    bb_ = minOf(bb_ + drift * drift, maxOf(bb_, startBiasVar_));
    steadyTime_ = 0.0;
    anchored_ = false;
  } else {
    steadyTime_ = 0.0;
    anchored_ = false;
  }
  // Kalman update with the field's heading, its noise per sample the
  // density over dt, less where the field is trusted less.
  const double r = density / (dt * weight);
  const double s = hh_ + r;
  const double kh = hh_ / s, kb = biasShare * hb_ / s;
  c.heading = kh * psi;
  c.bias = kb * psi;
  c.followed = true;
  // The variance the field's own noise leaves (what is reported): without
  // the tilt's share, which only makes the field less informative.
  const double rSeen = (density - tiltNoise) / (dt * weight);
  hhSeen_ -= hhSeen_ * hhSeen_ / (hhSeen_ + rSeen);
  const double hh = hh_, hb = hb_;
  hh_ -= kh * hh;
  hb_ -= kh * hb;
  bb_ -= kb * hb;
  psiLp_ = wrapPi(psiLp_ - c.heading);
  carried_ = 0.0;
  return c;
}

}  // namespace quelta::compass
