// SPDX-License-Identifier: Apache-2.0
// The exported math routines: one-line forwards to the value types' helpers
// (core/vec3.h, core/complex_math.h) and the n-element routines
// (core/vector_math.h). Every forward loads its operands before it stores,
// so an output may overlap an input.
#include "QueltaAlgo.h"
#include "core/complex_math.h"
#include "core/vec3.h"
#include "core/vector_math.h"

namespace {
using quelta::Complexf;
using quelta::Quatf;
using quelta::Vec3f;
}  // namespace

extern "C" {

QUELTA_API float norm2(const float* v, int32_t n) { return quelta::norm2(v, n); }
QUELTA_API float dot(const float* a, const float* b, int32_t n) { return quelta::dot(a, b, n); }
QUELTA_API void cross(const float* a, const float* b, float* out) {
  quelta::cross(Vec3f::load(a), Vec3f::load(b)).store(out);
}
QUELTA_API void vecNormalize(const float* v, float* out, int32_t n) { quelta::vecNormalize(v, out, n); }
QUELTA_API void sort(float* v, int32_t n) { quelta::bubbleSort(v, n); }
QUELTA_API float mean(const float* v, int32_t n) { return quelta::mean(v, n); }

QUELTA_API void quatConj(const float* q, float* out) { conj(Quatf::load(q)).store(out); }
QUELTA_API void quatMultiply(const float* p, const float* q, float* out) {
  (Quatf::load(p) * Quatf::load(q)).store(out);
}
QUELTA_API void quatNormalize(const float* q, float* out) {
  Quatf r = Quatf::load(q);
  if (quelta::normalizePositiveW(r, 1e-10)) r.store(out);
}

QUELTA_API float ComplexAbs(const float* z) { return magnitude(Complexf::load(z)); }
QUELTA_API void ComplexConj(const float* z, float* out) { conj(Complexf::load(z)).store(out); }
QUELTA_API void ComplexInv(const float* z, float* out) { inverse(Complexf::load(z)).store(out); }
QUELTA_API void ComplexAdd(const float* a, const float* b, float* out) {
  (Complexf::load(a) + Complexf::load(b)).store(out);
}
QUELTA_API void ComplexSub(const float* a, const float* b, float* out) {
  (Complexf::load(a) - Complexf::load(b)).store(out);
}
QUELTA_API void ComplexMultiply(const float* a, const float* b, float* out) {
  (Complexf::load(a) * Complexf::load(b)).store(out);
}
QUELTA_API void ComplexMultiplyReal(const float* z, float r, float* out) {
  (Complexf::load(z) * r).store(out);
}
QUELTA_API void ComplexDivide(const float* a, const float* b, float* out) {
  (Complexf::load(a) / Complexf::load(b)).store(out);
}
QUELTA_API void ComplexExp(const float* z, int32_t n, float* out) {
  power(Complexf::load(z), n).store(out);
}

}  // extern "C"
