// SPDX-License-Identifier: Apache-2.0
// Four single-precision lanes computed side by side. +, -, * and / act on
// each lane alone with exactly the rounding of the scalar float operation, so
// a sum kept per lane is the very sum its scalar loop would form, in the same
// order: the three axes of a vector (and a spare lane) go through one
// instruction instead of three.
#pragma once

#include <cstring>

namespace quelta {

typedef float Float4 __attribute__((vector_size(16)));

inline Float4 load4(const float* p) {
  Float4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void store4(float* p, Float4 v) { std::memcpy(p, &v, sizeof v); }

}  // namespace quelta
