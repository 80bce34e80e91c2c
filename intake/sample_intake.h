// SPDX-License-Identifier: Apache-2.0
// The sample intake both the calibration and the orientation read: the axis
// mapping of the field and the 30-sample histories of the accelerometer, the
// mapped field and the saturation probe, with their means and variances.
// Nothing else lives here; the services read it and never write it.
#pragma once

#include <cstdint>

#include "core/ring.h"
#include "core/vec3.h"

namespace quelta {

struct IntakeSettings {
  // Axis matrix, row-major, dimensionless: a field sample is multiplied as a
  // row vector.
  float axisMatrix[3][3] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}};
};

inline constexpr IntakeSettings kDefaultIntakeSettings{};

class SampleIntake {
 public:
  static constexpr int32_t kHistoryLength = 30;

  IntakeSettings settings;

  // Maps and stores one sample set.
  void take(const float* acc, const float* mag, const float* probe);

  bool full() const { return history_.full(); }
  int32_t count() const { return history_.count(); }
  // The last take() dropped the oldest set and recomputed the variances.
  bool windowMoved() const { return windowMoved_; }

  // The latest sample set: acceleration (host unit), field after the axis
  // matrix (gauss).
  Vec3f acc() const { return acc_; }
  Vec3f field() const { return field_; }

  // Entry k of the histories, 0 the oldest; k below count().
  Vec3f accAt(int32_t k) const { return Vec3f::load(entry(k).acc); }
  Vec3f fieldAt(int32_t k) const { return Vec3f::load(entry(k).field); }

  // Per-axis means of all 30 entries, summed oldest to newest, whatever the
  // fill count says: entries not yet written count as they stand (gravity
  // along z for the acceleration, zero for the field).
  Vec3f accMean() const { return meanOf(accMean_); }
  Vec3f fieldMean() const { return meanOf(fieldMean_); }

  // Population variances of the last full window, per axis: acceleration in
  // (host unit)^2, probe in gauss^2. Zero until the histories first overflow;
  // the probe's is current only while windowMoved().
  Vec3f accVariance() const { return accVariance_; }
  Vec3f probeVariance() const { return probeVariance_; }

 private:
  // One entry of the histories; each vector has a fourth, always-zero lane so
  // the three axes are summed side by side.
  struct SampleSet {
    alignas(16) float acc[4];
    alignas(16) float field[4];
    alignas(16) float probe[4];
  };

  const SampleSet& entry(int32_t k) const {
    return history_.slot(history_.slots().heldNewestFirst(history_.count() - 1 - k));
  }
  Vec3f meanOf(const float* lanes) const {
    if (!meansValid_) computeMeans();
    return Vec3f::load(lanes);
  }
  void computeMeans() const;
  void computeVariances();

  Vec3f acc_;
  Vec3f field_;
  bool primed_ = false;  // the acceleration history starts as gravity along z
  bool windowMoved_ = false;
  Ring<SampleSet, kHistoryLength> history_;
  Vec3f accVariance_;
  Vec3f probeVariance_;
  // Means of the current entries, kept until the next take(): the
  // calibration's variances and the orientation need them for the same
  // samples.
  alignas(16) mutable float accMean_[4] = {};
  alignas(16) mutable float fieldMean_[4] = {};
  mutable bool meansValid_ = false;
};

}  // namespace quelta
