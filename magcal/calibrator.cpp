// SPDX-License-Identifier: Apache-2.0
#include "magcal/calibrator.h"

#include <cmath>

#include "core/float_to_int.h"
#include "magcal/calibration_log.h"

namespace quelta {

namespace {

constexpr int32_t kSaturationCount = 11;  // moving samples with a frozen probe axis
constexpr int32_t kOffSphereSeconds = 5;  // off-sphere time before a downgrade
// Entry of the histories the off-sphere watch checks: the middle one.
constexpr int32_t kWatchedEntry = 15;

}  // namespace

void Calibrator::configure(const CalibrationSettings& settings, const StoredCalibration& stored) {
  settings_ = settings;
  // A stored offset of exactly zero (either sign) means "no calibration";
  // anything else, NaN included, is adopted as a full calibration.
  if (stored.offset[0] == 0.0f && stored.offset[1] == 0.0f && stored.offset[2] == 0.0f) {
    accuracy_ = 0;
  } else {
    offset_ = Vec3f::load(stored.offset);
    savedOffset_ = offset_;
    radius_ = stored.radius;
    savedRadius_ = stored.radius;
    accuracy_ = 3;
  }
  logLine(kCalibrationLog.initialAccuracy, logMode_, accuracy_);
}

void Calibrator::process(const SampleIntake& intake, int32_t restart, int32_t logMode) {
  logMode_ = logMode;
  if (restart == 1) {
    logLine(kCalibrationLog.restart, logMode, 1);
    pool_.clear();
  }
  if (intake.windowMoved()) watchSaturation(intake.accVariance(), intake.probeVariance());

  if (accuracy_ == 0) {
    poolStep(intake.field());
    return;
  }
  if (intake.full() && watchOffSphere(intake)) return;
  if (accuracy_ >= 1 && accuracy_ <= 3) poolStep(intake.field());
}

void Calibrator::watchSaturation(Vec3f accVariance, Vec3f probeVariance) {
  const float moving = settings_.accMovingVariance;
  if (accVariance.x <= moving && accVariance.y <= moving && accVariance.z <= moving) {
    frozenProbeCount_ = 0;
    return;
  }
  // A saturated axis stops following the motion: its variance collapses.
  const float frozen = settings_.probeFrozenVariance;
  if (probeVariance.x < frozen || probeVariance.y < frozen || probeVariance.z < frozen) {
    frozenProbeCount_ = frozenProbeCount_ + 1;
  } else {
    frozenProbeCount_ = 0;
  }
  if (frozenProbeCount_ >= kSaturationCount) {
    saturated_ = true;
    frozenProbeCount_ = 0;
  }
}

bool Calibrator::watchOffSphere(const SampleIntake& intake) {
  const float ratio = norm(intake.fieldAt(kWatchedEntry) - offset_) / radius_;
  // The lower bound is a double constant; a NaN ratio counts as in range.
  if (static_cast<double>(ratio) < 0.2 || ratio > 3.0f) {
    if (offSphereCount_ < INT32_MAX) offSphereCount_ = offSphereCount_ + 1;
  } else {
    offSphereCount_ = 0;
  }

  const int64_t limit = int64_t{kOffSphereSeconds} * settings_.sampleRate;
  if (offSphereCount_ < limit) return false;
  logLine(kCalibrationLog.offSphereCount, logMode_, offSphereCount_);
  accuracy_ = 0;
  pool_.clear();
  logLine(kCalibrationLog.offSphereDowngrade, logMode_, 0, 1);
  return true;
}

// Accuracy 0 to 2 grow the pool in the early and late phases and end with
// the full fit; accuracy 3 keeps the calibration fresh with a pool of its own.
void Calibrator::poolStep(Vec3f field) {
  const bool refining = accuracy_ == 3;
  if (!refining) logLine(kCalibrationLog.poolCount, logMode_, pool_.count());
  if (pool_.empty()) {
    pool_.open(field);
    if (!refining) {
      logLine(kCalibrationLog.poolOpened, logMode_, 0, static_cast<double>(field.x),
              static_cast<double>(field.y), static_cast<double>(field.z));
    }
    return;
  }

  const PoolPhase phase = pool_.phase(refining, settings_);
  if (phase == PoolPhase::kFull) {
    fullFit();
    return;
  }
  if (phase == PoolPhase::kRefit) {
    refit();
    return;
  }

  const PoolOffer offer = pool_.offer(phase, field, settings_);
  if (offer.verdict != PoolVerdict::kAdmitted && offer.logRejection) {
    const LogText& text =
        offer.verdict == PoolVerdict::kTooClose ? kCalibrationLog.tooClose : kCalibrationLog.tooFar;
    logLine(text, logMode_, static_cast<double>(offer.distance));
  }
  if (offer.fallBack) {
    accuracy_ = 0;
    logLine(kCalibrationLog.tooFarFallBack, logMode_, 0);
    restoreSaved();
  }
  if (!offer.pooled) return;

  const LogText& pooled =
      phase == PoolPhase::kEarly ? kCalibrationLog.pooledEarly : kCalibrationLog.pooledLate;
  if (phase != PoolPhase::kRefine) {
    logLine(pooled, logMode_, offer.position, static_cast<double>(field.x),
            static_cast<double>(field.y), static_cast<double>(field.z));
  }
  if (phase == PoolPhase::kLate) partialFit(offer.position + 1);
}

// Accepted, the fit grades 1 or 2 by the count; rejected, the partially
// fitted offset in force stays and only the grade drops.
void Calibrator::partialFit(int32_t n) {
  const SphereFitResult fit = fitPool(n);
  logLine(kCalibrationLog.partialFitVerdict, logMode_, fit.accepted ? 1 : 0);
  if (!fit.accepted) {
    pool_.clear();
    accuracy_ = 0;
    logLine(kCalibrationLog.partialFitRejected, logMode_, 0);
    return;
  }
  if (n >= settings_.midPoolCount) {
    accuracy_ = 2;
  } else if (n >= settings_.minPoolCount) {
    accuracy_ = 1;
  }
  offset_ = fit.offset;
  radius_ = fit.radius;
  logLine(kCalibrationLog.partialFitAdopted, logMode_, accuracy_, static_cast<double>(offset_.x),
          static_cast<double>(offset_.y), static_cast<double>(offset_.z),
          static_cast<double>(radius_));
}

// The current sample only triggers the fit; it is not pooled.
void Calibrator::fullFit() {
  const SphereFitResult fit = fitPool(pool_.count());
  if (fit.accepted) {
    adoptFullFit(fit);
    logLine(kCalibrationLog.fullFitAdopted, logMode_, 3);
  } else {
    accuracy_ = 0;
    restoreSaved();
  }
  logLine(kCalibrationLog.fullFitResult, logMode_, static_cast<double>(offset_.x),
          static_cast<double>(offset_.y), static_cast<double>(offset_.z),
          static_cast<double>(radius_), accuracy_, fit.accepted ? 1 : 0);
  pool_.clear();
}

// A rejected refit keeps the calibration in force; either way the
// refinement pool starts over.
void Calibrator::refit() {
  const SphereFitResult fit = fitPool(pool_.count());
  if (fit.accepted) adoptFullFit(fit);
  pool_.clear();
}

SphereFitResult Calibrator::fitPool(int32_t n) const {
  return fitSphere(pool_.samples(), n, settings_.ratioLow, settings_.ratioHigh, logMode_);
}

void Calibrator::adoptFullFit(const SphereFitResult& fit) {
  accuracy_ = 3;
  newParameters_ = true;
  offset_ = fit.offset;
  savedOffset_ = fit.offset;
  radius_ = fit.radius;
  savedRadius_ = fit.radius;
}

void Calibrator::restoreSaved() {
  offset_ = savedOffset_;
  radius_ = savedRadius_;
}

int32_t Calibrator::calibrateLatestField(const SampleIntake& intake, float* out) {
  lastCalibratedField_ = intake.field() - offset_;
  const Vec3f c = lastCalibratedField_;
  logLine(kCalibrationLog.calibrationOffset, logMode_, static_cast<double>(offset_.x),
          static_cast<double>(offset_.y), static_cast<double>(offset_.z));
  logLine(kCalibrationLog.calibratedField, logMode_, static_cast<double>(c.x),
          static_cast<double>(c.y), static_cast<double>(c.z));
  c.store(out);
  if (logWanted(kCalibrationLog.calibratedFieldMilli, logMode_)) {
    logLine(kCalibrationLog.calibratedFieldMilli, logMode_, milliUnits(c.x), milliUnits(c.y),
            milliUnits(c.z));
  }
  return pool_.count();
}

int32_t Calibrator::takeParameters(float* offset, float* radius) {
  offset_.store(offset);
  if (logWanted(kCalibrationLog.offsetMilli, logMode_)) {
    logLine(kCalibrationLog.offsetMilli, logMode_, milliUnits(offset_.x), milliUnits(offset_.y),
            milliUnits(offset_.z));
  }
  *radius = radius_;
  if (!newParameters_) return 0;
  newParameters_ = false;
  return 1;
}

int32_t Calibrator::takeSaturation() {
  const bool flag = saturated_;
  saturated_ = false;
  return flag ? 1 : 0;
}

}  // namespace quelta
