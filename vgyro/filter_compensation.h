// SPDX-License-Identifier: Apache-2.0
// Gain that undoes the amplitude loss of a recursive filter b / a for a
// signal turning at rate w: per axis, the reciprocal of the filter's
// magnitude response at |w| * dt / pi radians per sample. 1 for a rate below
// 1e-7. Pure function, inline so that the pipeline's call is compiled for its
// own two-tap filter.
#pragma once

#include <cmath>
#include <cstdint>

#include "core/complex_math.h"

namespace quelta {

namespace filter_response {

constexpr double kPi = 3.141592653589793;

// c0 + sum_{k>=1} c[k] z^-k, with z^-k built afresh for each k by k - 1
// successive multiplications of z^-1 by z^-1.
inline Complexf polynomialAt(const float* c, int32_t n, Complexf zInv) {
  Complexf sum{c[0], 0.0f};
  for (int32_t k = 1; k < n; ++k) {
    Complexf power = zInv;
    for (int32_t step = 1; step < k; ++step) power = zInv * power;
    sum.re = sum.re + c[k] * power.re;
    sum.im = sum.im + c[k] * power.im;
  }
  return sum;
}

}  // namespace filter_response

inline void filterCompensation(float* gain, const float* w, const float* b, const float* a,
                               int32_t nb, int32_t na, float dt) {
  for (int i = 0; i < 3; ++i) {
    const float rate = std::fabs(w[i]);
    if (static_cast<double>(rate) < 1e-7) {
      gain[i] = 1.0f;
      continue;
    }
    const double theta = static_cast<double>(rate * dt) / filter_response::kPi;
    const float sn = static_cast<float>(std::sin(theta));
    const float cs = static_cast<float>(std::cos(theta));
    const float unit = cs * cs + sn * sn;
    const Complexf zInv{cs / unit, -sn / unit};

    const Complexf num = filter_response::polynomialAt(b, nb, zInv);
    const Complexf den = filter_response::polynomialAt(a, na, zInv);
    // num / den with its own order of terms (not operator/'s).
    const float denSq = den.im * den.im + den.re * den.re;
    const float re = (num.im * den.im + num.re * den.re) / denSq;
    const float im = (num.im * den.re - num.re * den.im) / denSq;
    gain[i] = 1.0f / std::sqrt(re * re + im * im);
  }
}

}  // namespace quelta
