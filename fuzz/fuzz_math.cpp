// SPDX-License-Identifier: Apache-2.0
// The exported vector, quaternion and complex routines on arbitrary values and
// lengths. Arrays are heap blocks of exactly the length passed (none for a
// length below 1), so any read or write past it is reported. Besides memory
// safety it checks what the header promises: in-place use gives the same bits
// as separate output, untouched outputs stay untouched, sort is a stable
// ascending permutation, quatNormalize yields a non-negative scalar part.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "QueltaAlgo.h"
#include "fuzz/fuzz_input.h"

namespace {

using quelta::fuzz::FuzzInput;
using quelta::fuzz::bitsOf;

constexpr int32_t kMaxLength = 256;
constexpr int32_t kMaxPower = 4096;
const float kSentinel = quelta::fuzz::floatFromBits(0x7fbadbadu);

struct Array {
  std::unique_ptr<float[]> data;
  int32_t n;
};

// A length as given to the routine and a block of exactly that many floats.
Array arrayOf(FuzzInput& in) {
  int32_t n = in.count();
  if (n > kMaxLength) n = n % (kMaxLength + 1);
  const int32_t size = n > 0 ? n : 0;
  Array a{std::unique_ptr<float[]>(new float[static_cast<size_t>(size)]), n};
  in.values(a.data.get(), size);
  return a;
}

bool sameBits(const float* a, const float* b, int32_t n) {
  return std::memcmp(a, b, sizeof(float) * static_cast<size_t>(n)) == 0;
}

bool anyNaN(const float* v, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    if (v[i] != v[i]) return true;
  }
  return false;
}

void vectorRoutines(FuzzInput& in) {
  Array a = arrayOf(in);
  const int32_t size = a.n > 0 ? a.n : 0;
  std::unique_ptr<float[]> b(new float[static_cast<size_t>(size)]);
  in.values(b.get(), size);
  (void)norm2(a.data.get(), a.n);
  (void)dot(a.data.get(), b.get(), a.n);
  (void)mean(a.data.get(), a.n);

  // vecNormalize: separate output (pre-filled) against in place.
  std::unique_ptr<float[]> out(new float[static_cast<size_t>(size)]);
  std::fill(out.get(), out.get() + size, kSentinel);
  vecNormalize(a.data.get(), out.get(), a.n);
  // Written unless the vector is empty or its norm (as norm2 computes it) is
  // below 1e-10; a NaN norm is written.
  const bool written = a.n >= 1 && !(static_cast<double>(norm2(a.data.get(), a.n)) < 1e-10);
  std::unique_ptr<float[]> inPlace(new float[static_cast<size_t>(size)]);
  std::copy(a.data.get(), a.data.get() + size, inPlace.get());
  vecNormalize(inPlace.get(), inPlace.get(), a.n);
  if (written) {
    FUZZ_CHECK(sameBits(out.get(), inPlace.get(), size));
  } else {
    for (int32_t i = 0; i < size; ++i) FUZZ_CHECK(bitsOf(out[i]) == bitsOf(kSentinel));
    FUZZ_CHECK(sameBits(inPlace.get(), a.data.get(), size));
  }

  // sort: NaN-free input ends as the stable ascending order of its values.
  std::unique_ptr<float[]> expected(new float[static_cast<size_t>(size)]);
  std::copy(a.data.get(), a.data.get() + size, expected.get());
  const bool checkable = !anyNaN(a.data.get(), size);
  sort(a.data.get(), a.n);
  if (checkable) {
    std::stable_sort(expected.get(), expected.get() + size);
    FUZZ_CHECK(sameBits(a.data.get(), expected.get(), size));
  }
}

void quaternionRoutines(FuzzInput& in) {
  float p[4], q[4], out[4], again[4];
  in.values(p, 4);
  in.values(q, 4);
  cross(p, q, out);
  quatMultiply(p, q, out);
  quatConj(p, out);
  std::memcpy(again, p, sizeof again);
  quatConj(again, again);
  FUZZ_CHECK(sameBits(out, again, 4));

  for (float& v : out) v = kSentinel;
  quatNormalize(q, out);
  std::memcpy(again, q, sizeof again);
  quatNormalize(again, again);
  if (static_cast<double>(norm2(q, 4)) < 1e-10) {
    for (float v : out) FUZZ_CHECK(bitsOf(v) == bitsOf(kSentinel));
    FUZZ_CHECK(sameBits(again, q, 4));  // untouched in place as well
  } else {
    FUZZ_CHECK(sameBits(out, again, 4));
    if (!anyNaN(out, 4)) FUZZ_CHECK(out[0] >= 0.0f);
  }
}

using ComplexUnary = void (*)(const float*, float*);
using ComplexBinary = void (*)(const float*, const float*, float*);

void complexRoutines(FuzzInput& in) {
  float a[2], b[2], out[2], again[2];
  in.values(a, 2);
  in.values(b, 2);
  (void)ComplexAbs(a);
  ComplexMultiply(a, b, out);
  ComplexDivide(a, b, out);

  const ComplexUnary unary[] = {ComplexConj, ComplexInv};
  for (ComplexUnary f : unary) {
    f(a, out);
    std::memcpy(again, a, sizeof again);
    f(again, again);
    FUZZ_CHECK(sameBits(out, again, 2));
  }
  const ComplexBinary binary[] = {ComplexAdd, ComplexSub};
  for (ComplexBinary f : binary) {
    f(a, b, out);
    std::memcpy(again, a, sizeof again);
    f(again, b, again);
    FUZZ_CHECK(sameBits(out, again, 2));
  }
  const float r = in.value();
  ComplexMultiplyReal(a, r, out);
  std::memcpy(again, a, sizeof again);
  ComplexMultiplyReal(again, r, again);
  FUZZ_CHECK(sameBits(out, again, 2));

  int32_t n = in.count();
  if (n > kMaxPower) n = n % (kMaxPower + 1);
  ComplexExp(a, n, out);
  if (n < 2) FUZZ_CHECK(sameBits(out, a, 2));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  while (!in.exhausted()) {
    switch (in.byte() % 3) {
      case 0: vectorRoutines(in); break;
      case 1: quaternionRoutines(in); break;
      default: complexRoutines(in); break;
    }
  }
  return 0;
}
