// SPDX-License-Identifier: Apache-2.0
// The n-element single-precision routines behind the exported norm2, dot,
// vecNormalize, sort and mean. Sums run from 0 in index order; the order is
// part of the result, so keep it. (A sum started from +0 turns a leading -0
// product into +0: for three-vectors prefer the Vec3 helpers, core/vec3.h.)
#pragma once

#include <cmath>
#include <cstdint>

#include "core/vec3.h"

namespace quelta {

inline float sumOfSquares(const float* v, int32_t n) {
  float sum = 0.0f;
  for (int32_t i = 0; i < n; ++i) sum = sum + v[i] * v[i];
  return sum;
}

inline float norm2(const float* v, int32_t n) {
  if (n < 1) return 0.0f;
  return std::sqrt(sumOfSquares(v, n));
}

inline float dot(const float* a, const float* b, int32_t n) {
  float sum = 0.0f;
  for (int32_t i = 0; i < n; ++i) sum = sum + a[i] * b[i];
  return sum;
}

// Leaves out untouched for n < 1 or a norm below 1e-10 (compared in double).
inline void vecNormalize(const float* v, float* out, int32_t n) {
  if (n < 1) return;
  const float norm = std::sqrt(sumOfSquares(v, n));
  if (static_cast<double>(norm) < 1e-10) return;
  for (int32_t i = 0; i < n; ++i) out[i] = v[i] / norm;
}

// Bubble sort with one swap record for the whole call: once any pass has
// swapped, every remaining pass runs. NaN never compares greater, so it stays.
// (A flag rather than a count, and pass < n rather than pass <= n - 1: no
// length can overflow either.)
inline void bubbleSort(float* v, int32_t n) {
  bool swapped = false;
  for (int32_t pass = 1; pass < n; ++pass) {
    float carried = v[0];
    const int32_t walk = n - pass + 1;
    for (int32_t i = 1; i < walk; ++i) {
      const float e = v[i];
      if (carried > e) {
        v[i - 1] = e;
        v[i] = carried;
        swapped = true;
      } else {
        carried = e;
      }
    }
    if (!swapped) return;
  }
}

// n = 0 gives 0 / 0, not a number.
inline float mean(const float* v, int32_t n) {
  float sum = 0.0f;
  for (int32_t i = 0; i < n; ++i) sum = sum + v[i];
  return sum / static_cast<float>(n);
}

}  // namespace quelta
