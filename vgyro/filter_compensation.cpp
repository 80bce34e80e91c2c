#include "vgyro/filter_compensation.h"

#include <cmath>

namespace quelta {

namespace {

constexpr double kPi = 3.141592653589793;

struct Complex {
  float re;
  float im;
};

// c0 + sum_{k>=1} c[k] z^-k, with z^-k built afresh for each k by k - 1
// successive multiplications of z^-1 by z^-1.
Complex polynomialAt(const float* c, int32_t n, Complex zInv) {
  Complex sum{c[0], 0.0f};
  for (int32_t k = 1; k < n; ++k) {
    Complex power = zInv;
    for (int32_t step = 1; step < k; ++step) {
      power = {zInv.re * power.re - zInv.im * power.im, zInv.re * power.im + zInv.im * power.re};
    }
    sum.re = sum.re + c[k] * power.re;
    sum.im = sum.im + c[k] * power.im;
  }
  return sum;
}

}  // namespace

void filterCompensation(float* gain, const float* w, const float* b, const float* a, int32_t nb,
                        int32_t na, float dt) {
  for (int i = 0; i < 3; ++i) {
    const float rate = std::fabs(w[i]);
    if (static_cast<double>(rate) < 1e-7) {
      gain[i] = 1.0f;
      continue;
    }
    const double theta = static_cast<double>(rate * dt) / kPi;
    const float sn = static_cast<float>(std::sin(theta));
    const float cs = static_cast<float>(std::cos(theta));
    const float unit = cs * cs + sn * sn;
    const Complex zInv{cs / unit, -sn / unit};

    const Complex num = polynomialAt(b, nb, zInv);
    const Complex den = polynomialAt(a, na, zInv);
    const float denSq = den.im * den.im + den.re * den.re;
    const float re = (num.im * den.im + num.re * den.re) / denSq;
    const float im = (num.im * den.re - num.re * den.im) / denSq;
    gain[i] = 1.0f / std::sqrt(re * re + im * im);
  }
}

}  // namespace quelta
