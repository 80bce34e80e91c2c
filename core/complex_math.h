// SPDX-License-Identifier: Apache-2.0
// Complex numbers: one value type, templated on the scalar like Vec3. Each
// helper fixes its evaluation order; the exported Complex* routines
// (interface/math_exports.cpp) load and store (re, im) pairs around them.
#pragma once

#include <cmath>
#include <cstdint>

namespace quelta {

template <typename S>
struct Complex {
  S re = S(0), im = S(0);

  static constexpr Complex load(const S* p) { return {p[0], p[1]}; }
  constexpr void store(S* p) const {
    p[0] = re;
    p[1] = im;
  }
};

using Complexf = Complex<float>;

template <typename S>
constexpr Complex<S> operator+(const Complex<S>& a, const Complex<S>& b) {
  return {a.re + b.re, a.im + b.im};
}
template <typename S>
constexpr Complex<S> operator-(const Complex<S>& a, const Complex<S>& b) {
  return {a.re - b.re, a.im - b.im};
}
// {a.re b.re - a.im b.im, a.re b.im + a.im b.re}
template <typename S>
constexpr Complex<S> operator*(const Complex<S>& a, const Complex<S>& b) {
  return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}
template <typename S>
constexpr Complex<S> operator*(const Complex<S>& z, S r) {
  return {z.re * r, z.im * r};
}
template <typename S>
constexpr Complex<S> conj(const Complex<S>& z) {
  return {z.re, -z.im};
}
// sqrt(re^2 + im^2)
template <typename S>
inline S magnitude(const Complex<S>& z) {
  return std::sqrt(z.re * z.re + z.im * z.im);
}
// 1 / z as conj(z) / |z|^2.
template <typename S>
constexpr Complex<S> inverse(const Complex<S>& z) {
  const S d = z.re * z.re + z.im * z.im;
  return {z.re / d, -z.im / d};
}
// a / b as a conj(b) / |b|^2.
template <typename S>
constexpr Complex<S> operator/(const Complex<S>& a, const Complex<S>& b) {
  const S d = b.re * b.re + b.im * b.im;
  return {(b.re * a.re + b.im * a.im) / d, (a.im * b.re - a.re * b.im) / d};
}

// z^n by repeated multiplication, z for every n < 2. Each step forms the
// product as (z.re p.re - z.im p.im, p.re z.im + z.re p.im): the imaginary
// part in its own order, not operator*'s.
template <typename S>
constexpr Complex<S> power(const Complex<S>& z, int32_t n) {
  Complex<S> p = z;
  for (int32_t i = 1; i < n; ++i) p = {z.re * p.re - z.im * p.im, p.re * z.im + z.re * p.im};
  return p;
}

}  // namespace quelta
