// The last 30 three-axis samples, oldest first. Entry k is the (k+1)-th
// sample while filling; once full, entry 0 is the oldest and entry 29 the
// newest, and every new sample pushes the oldest out.
//
// Stored as a ring: a new sample overwrites the oldest in place instead of
// moving the other 29, and the entries are read from the oldest on, so every
// sum over the history still runs oldest to newest. Each entry has a fourth,
// always-zero lane, so the three axes can be summed side by side. The mean
// is kept until the history changes: the driver and the orientation both
// need it for the same samples.
#pragma once

#include <cstdint>

#include "core/float4.h"

namespace quelta {

struct History30 {
  static constexpr int32_t kLength = 30;
  static constexpr int32_t kLanes = 4;  // x, y, z and a zero lane

  alignas(16) float ring[kLength][kLanes] = {};
  int32_t oldest = 0;  // ring slot of entry 0
  alignas(16) mutable float cachedMean[kLanes] = {};
  mutable bool meanValid = false;

  const float* at(int32_t k) const { return ring[slot(k)]; }

  void store(int32_t k, const float* v) {
    float* e = ring[slot(k)];
    e[0] = v[0];
    e[1] = v[1];
    e[2] = v[2];
    meanValid = false;
  }

  // Drops entry 0 and appends v as entry 29.
  void shiftIn(const float* v) {
    store(0, v);
    oldest = oldest + 1 == kLength ? 0 : oldest + 1;
  }

  // Calls visit(entry) for entries 0 to 29 in order.
  template <typename Visit>
  void forEachOldestFirst(Visit visit) const {
    for (int32_t s = oldest; s < kLength; ++s) visit(ring[s]);
    for (int32_t s = 0; s < oldest; ++s) visit(ring[s]);
  }

  // Per-axis mean of all 30 entries (see MeanOf30) in lanes 0 to 2; lane 3
  // is 0. Valid until the history changes.
  const float* meanLanes() const {
    if (!meanValid) {
      Float4 sum = {0.0f, 0.0f, 0.0f, 0.0f};
      forEachOldestFirst([&sum](const float* e) { sum = sum + load4(e); });
      store4(cachedMean, sum / 30.0f);
      meanValid = true;
    }
    return cachedMean;
  }

 private:
  int32_t slot(int32_t k) const {
    const int32_t s = oldest + k;
    return s >= kLength ? s - kLength : s;
  }
};

// Population variances of two histories, and the mean of a third, that move
// together (the same ring position, as the driver's histories always do):
// each axis about its mean, summed oldest to newest. The histories are summed
// side by side so that their chains of additions run at the same time. All
// three means are kept; the third is there for the orientation, which needs
// it for the same samples.
inline void variancesTogether(const History30& a, float* varianceA, const History30& b,
                              float* varianceB, const History30& meanOnly) {
  const int32_t n = History30::kLength;
  const int32_t first = a.oldest;
  Float4 sumA = {0.0f, 0.0f, 0.0f, 0.0f};
  Float4 sumB = {0.0f, 0.0f, 0.0f, 0.0f};
  Float4 sumC = {0.0f, 0.0f, 0.0f, 0.0f};
  auto addEntries = [&](int32_t s) {
    sumA = sumA + load4(a.ring[s]);
    sumB = sumB + load4(b.ring[s]);
    sumC = sumC + load4(meanOnly.ring[s]);
  };
  for (int32_t s = first; s < n; ++s) addEntries(s);
  for (int32_t s = 0; s < first; ++s) addEntries(s);
  const Float4 meanA = sumA / 30.0f;
  const Float4 meanB = sumB / 30.0f;
  store4(a.cachedMean, meanA);
  store4(b.cachedMean, meanB);
  store4(meanOnly.cachedMean, sumC / 30.0f);
  a.meanValid = b.meanValid = meanOnly.meanValid = true;

  sumA = sumB = Float4{0.0f, 0.0f, 0.0f, 0.0f};
  auto addSquares = [&](int32_t s) {
    const Float4 dA = load4(a.ring[s]) - meanA;
    const Float4 dB = load4(b.ring[s]) - meanB;
    sumA = sumA + dA * dA;
    sumB = sumB + dB * dB;
  };
  for (int32_t s = first; s < n; ++s) addSquares(s);
  for (int32_t s = 0; s < first; ++s) addSquares(s);
  const Float4 vA = sumA / 30.0f;
  const Float4 vB = sumB / 30.0f;
  for (int32_t axis = 0; axis < 3; ++axis) {
    varianceA[axis] = vA[axis];
    varianceB[axis] = vB[axis];
  }
}

// Per-axis mean of all 30 entries, summed oldest to newest in single
// precision, whatever the fill count says.
inline void MeanOf30(const History30& h, float* out) {
  const float* mean = h.meanLanes();
  out[0] = mean[0];
  out[1] = mean[1];
  out[2] = mean[2];
}

}  // namespace quelta
