// SPDX-License-Identifier: Apache-2.0
// The calibration pool: field samples spread over the sphere, collected for
// the fits. One component serves the three pools (early and late while the
// accuracy is 0 to 2, refinement at accuracy 3): an empty pool takes its
// first sample unchecked, every later one goes through one scan against the
// pooled samples, and what a phase does with a sample that is too close or
// too far is one row of the phase table (calibration_pool.cpp).
#pragma once

#include <cstdint>

#include "core/vec3.h"
#include "magcal/calibration_settings.h"

namespace quelta {

enum class PoolPhase : uint8_t {
  // Growing phases: the sample is offered to the pool.
  kEarly,   // accuracy 0-2, below the min count: spaced samples, no fit
  kLate,    // accuracy 0-2: a partial fit after every pooled sample
  kRefine,  // accuracy 3: spaced samples for a refit
  // Fitting phases: the sample only triggers the fit.
  kFull,   // accuracy 0-2, full count reached: the full fit, then a fresh pool
  kRefit,  // accuracy 3, full count reached: the refit, then a fresh pool
};

enum class PoolVerdict : uint8_t { kAdmitted, kTooClose, kTooFar };

// What offer() did with a sample.
struct PoolOffer {
  PoolVerdict verdict;
  bool pooled;        // the sample is in the pool now
  int32_t position;   // its index there, when pooled
  float distance;     // gauss, from the pooled sample that rejected it
  bool logRejection;  // the phase writes its rejections to the log
  bool fallBack;      // the phase drops back to the saved calibration
};

class CalibrationPool {
 public:
  static constexpr int32_t kCapacity = 35;
  using Samples = float[kCapacity][3];

  int32_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  const Samples& samples() const { return samples_; }

  void clear() { count_ = 0; }

  // First sample of an empty pool: taken without a check.
  void open(Vec3f sample) { append(0, sample); }

  // The phase of a non-empty pool.
  PoolPhase phase(bool refining, const CalibrationSettings& settings) const;

  // Scans the pool for a growing phase (kEarly, kLate, kRefine) and applies
  // the phase's rule: a sample too close is dropped; one too far restarts the
  // pool, which it opens itself when it was too far from the first sample.
  PoolOffer offer(PoolPhase phase, Vec3f sample, const CalibrationSettings& settings);

 private:
  struct Scan {
    PoolVerdict verdict;
    int32_t index;   // the pooled sample that decided
    float distance;  // gauss, from it
  };
  Scan scanFor(Vec3f sample, float maxDistance) const;
  void append(int32_t position, Vec3f sample);
  // The full-pool count, capped at the capacity.
  static int32_t fullCount(const CalibrationSettings& settings);

  float samples_[kCapacity][3] = {};
  int32_t count_ = 0;
  // Gauss. Set by the early and late phases; the refinement keeps the one in
  // force.
  float minDistance_ = 0.1f;
};

}  // namespace quelta
