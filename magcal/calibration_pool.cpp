// SPDX-License-Identifier: Apache-2.0
#include "magcal/calibration_pool.h"

#include <cmath>

namespace quelta {

namespace {

// How each growing phase treats a sample. A sample too close is always
// dropped; one too far always restarts the pool.
struct PhaseRule {
  PoolPhase phase;
  float CalibrationSettings::*minDistance;  // null: keep the one in force
  bool logRejection;                        // log too close and too far
  bool fallBackWhenTooFar;                  // accuracy 0, saved calibration back
};

constexpr PhaseRule kPhaseRules[] = {
    // phase            min distance                           log    fall back
    {PoolPhase::kEarly, &CalibrationSettings::minDistanceEarly, true, false},
    {PoolPhase::kLate, &CalibrationSettings::minDistanceLate, false, true},
    {PoolPhase::kRefine, nullptr, false, false},
};

constexpr bool rulesInPhaseOrder() {
  for (int32_t i = 0; i < 3; ++i) {
    if (static_cast<int32_t>(kPhaseRules[i].phase) != i) return false;
  }
  return true;
}
static_assert(rulesInPhaseOrder(), "kPhaseRules is indexed by the growing phase");

}  // namespace

int32_t CalibrationPool::fullCount(const CalibrationSettings& settings) {
  // Counts below 1 need no bound: the full fit then follows the early
  // phase directly.
  const int32_t full = settings.fullPoolCount;
  return full > kCapacity ? kCapacity : full;
}

PoolPhase CalibrationPool::phase(bool refining, const CalibrationSettings& settings) const {
  const int32_t full = fullCount(settings);
  if (refining) return count_ >= full ? PoolPhase::kRefit : PoolPhase::kRefine;
  // Written as count + 1 < min so that no configured value can overflow; the
  // early phase also stops at the capacity.
  if (count_ + 1 < settings.minPoolCount && count_ < kCapacity) return PoolPhase::kEarly;
  return count_ < full ? PoolPhase::kLate : PoolPhase::kFull;
}

PoolOffer CalibrationPool::offer(PoolPhase phase, Vec3f sample,
                                 const CalibrationSettings& settings) {
  const PhaseRule& rule = kPhaseRules[static_cast<int32_t>(phase)];
  if (rule.minDistance != nullptr) minDistance_ = settings.*rule.minDistance;
  const Scan scan = scanFor(sample, settings.maxDistance);
  PoolOffer result{scan.verdict, false, count_, scan.distance, rule.logRejection, false};

  switch (result.verdict) {
    case PoolVerdict::kTooClose:
      return result;
    case PoolVerdict::kTooFar:
      count_ = 0;
      result.fallBack = rule.fallBackWhenTooFar;
      // Far from a later sample: dropped. Far from the first: it opens the
      // fresh pool.
      if (scan.index != 0) return result;
      result.position = 0;
      break;
    case PoolVerdict::kAdmitted:
      break;
  }
  append(result.position, sample);
  result.pooled = true;
  return result;
}

// The pooled samples in order; the first one too close (checked first) or
// too far decides.
CalibrationPool::Scan CalibrationPool::scanFor(Vec3f sample, float maxDistance) const {
  for (int32_t i = 0; i < count_; ++i) {
    const float distance = norm(Vec3f::load(samples_[i]) - sample);
    if (distance < minDistance_) return {PoolVerdict::kTooClose, i, distance};
    if (distance > maxDistance) return {PoolVerdict::kTooFar, i, distance};
  }
  return {PoolVerdict::kAdmitted, count_, 0.0f};
}

void CalibrationPool::append(int32_t position, Vec3f sample) {
  sample.store(samples_[position]);
  count_ = position + 1;
}

}  // namespace quelta
