// Small single-precision vector routines. Sums run from 0 in index order;
// the order is part of the result, so keep it.
#pragma once

#include <cmath>
#include <cstdint>

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

// |v| of a 3-vector as ((x^2 + y^2) + z^2), the norm used across the fusion code.
inline float norm3(const float* v) { return std::sqrt((v[0] * v[0] + v[1] * v[1]) + v[2] * v[2]); }

// v / max(|v|, 1e-7) for a 3-vector: the floor keeps an all-zero vector
// finite, and a NaN norm stays NaN (so no fmaxf).
inline void normalizeFloored3(const float* v, float* out) {
  const float n = norm3(v);
  const float d = n < 1e-7f ? 1e-7f : n;
  out[0] = v[0] / d;
  out[1] = v[1] / d;
  out[2] = v[2] / d;
}

inline float dot(const float* a, const float* b, int32_t n) {
  float sum = 0.0f;
  for (int32_t i = 0; i < n; ++i) sum = sum + a[i] * b[i];
  return sum;
}

// out must not overlap a or b.
inline void cross(const float* a, const float* b, float* out) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
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
