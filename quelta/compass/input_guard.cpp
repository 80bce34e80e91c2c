// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/input_guard.h"

namespace quelta::compass {

namespace {

double largestAxis(const Vec3& v) { return std::fmax(std::fabs(v.x), std::fmax(std::fabs(v.y), std::fabs(v.z))); }

}  // namespace

void InputGuard::reset() { *this = InputGuard(settings_); }

Refusal InputGuard::check(double t, const Vec3& acc, const Vec3* field, const Vec3* gyro) const {
  if (!std::isfinite(t)) return Refusal::Time;
  if (!finite(acc) || !(norm(acc) <= settings_.maxSpecificForceG)) return Refusal::Accelerometer;
  if (field != nullptr && (!finite(*field) || !(norm(*field) <= settings_.maxFieldGauss))) return Refusal::Field;
  if (gyro != nullptr && (!finite(*gyro) || !(largestAxis(*gyro) <= settings_.maxRateDegPerS * kDeg)))
    return Refusal::Gyroscope;
  return Refusal::None;
}

TimeStep InputGuard::admit(double t) {
  TimeStep step;
  if (!started_) {
    started_ = true;
    period_ = settings_.firstPeriodS;
    lastHost_ = t;
    lastOwn_ = t;
    step.t = t;
    return step;
  }
  const double dt = t - lastHost_;
  const double gapAfter = std::fmax(settings_.gapPeriods * period_, settings_.gapFloorS);
  if (dt > 0.0 && dt <= gapAfter) {
    // The usual case: the host's clock, as it is (the offset is exactly zero
    // until the first restart).
    if (!periodKnown_) {
      period_ = dt;
      periodKnown_ = true;
    } else {
      period_ += dt / (dt + settings_.periodTau) * (dt - period_);
    }
    step.t = t + offset_;
  } else {
    // A step back, a repeat or a gap: the compass's clock moves on by one
    // period and the host's clock is followed from here.
    step.t = lastOwn_ + period_;
    offset_ = step.t - t;
    if (dt > 0.0) {
      step.gap = true;
      ++gaps_;
    } else {
      step.restart = true;
      ++restarts_;
    }
  }
  // The own clock never stands still or steps back, whatever the rounding.
  if (!(step.t > lastOwn_)) step.t = lastOwn_ + period_;
  step.dt = step.t - lastOwn_;
  lastHost_ = t;
  lastOwn_ = step.t;
  return step;
}

}  // namespace quelta::compass
