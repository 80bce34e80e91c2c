// Complex numbers as (re, im) float pairs.
#pragma once

#include <cmath>
#include <cstdint>

namespace quelta {

inline float complexAbs(const float* z) { return std::sqrt(z[0] * z[0] + z[1] * z[1]); }

inline void complexConj(const float* z, float* out) {
  out[0] = z[0];
  out[1] = -z[1];
}

inline void complexInv(const float* z, float* out) {
  const float re = z[0];
  const float im = z[1];
  const float d = re * re + im * im;
  out[0] = re / d;
  out[1] = -im / d;
}

inline void complexAdd(const float* a, const float* b, float* out) {
  out[0] = a[0] + b[0];
  out[1] = a[1] + b[1];
}

inline void complexSub(const float* a, const float* b, float* out) {
  out[0] = a[0] - b[0];
  out[1] = a[1] - b[1];
}

// out must not overlap a or b.
inline void complexMultiply(const float* a, const float* b, float* out) {
  out[0] = a[0] * b[0] - a[1] * b[1];
  out[1] = a[0] * b[1] + a[1] * b[0];
}

inline void complexMultiplyReal(const float* z, float r, float* out) {
  out[0] = z[0] * r;
  out[1] = z[1] * r;
}

// out must not overlap a or b.
inline void complexDivide(const float* a, const float* b, float* out) {
  const float d = b[0] * b[0] + b[1] * b[1];
  out[0] = (b[0] * a[0] + b[1] * a[1]) / d;
  out[1] = (a[1] * b[0] - a[0] * b[1]) / d;
}

// Integer power z^n by repeated multiplication; out = z for every n < 2.
// out must not overlap z.
inline void complexPower(const float* z, int32_t n, float* out) {
  out[0] = z[0];
  out[1] = z[1];
  for (int32_t i = 1; i < n; ++i) {
    const float re = z[0] * out[0] - z[1] * out[1];
    const float im = out[0] * z[1] + z[0] * out[1];
    out[0] = re;
    out[1] = im;
  }
}

}  // namespace quelta
