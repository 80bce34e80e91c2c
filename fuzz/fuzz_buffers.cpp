// SPDX-License-Identifier: Apache-2.0
// Ring buffers and smoothing filters called directly: the ten exported
// buffers (on their own storage, as CreateDataBuffer binds them) and four
// hand-made ones with arbitrary widths and capacities, each over a heap
// block of exactly dim x len floats. Puts, gets with any k, median and mean
// windows of any length, low-pass filters with any tap counts, field rates,
// across any pair of buffers (the same one twice included).
//
// Contract kept by the harness: a buffer's len matches the storage it owns;
// the coefficient arrays hold nb and na floats (at least one: the normaliser
// a[0] is always read); LPF gets buffers of equal width (it does not check);
// getWMag gets buffers at least three wide (it reads three components).
#include <cstdint>
#include <memory>

#include "QueltaAlgo.h"
#include "fuzz/fuzz_input.h"

namespace {

using quelta::fuzz::FuzzInput;

constexpr int32_t kMaxLen = 40;
constexpr int32_t kMaxDim = 6;
constexpr int32_t kMaxTaps = 64;  // longer tap lists are refused by every buffer here

struct OwnBuffer {
  DataBuffer record{};
  std::unique_ptr<float[]> storage;

  void create(int32_t dim, int32_t len) {
    const int32_t floats = (dim > 0 ? dim : 0) * len;
    storage.reset(new float[static_cast<size_t>(floats)]());
    bfNew(&record, storage.get(), dim, len);
  }
};

DataBuffer* const kExported[] = {&bfMagRaw, &bfMagMed,  &bfMagLPF, &bfMagMean, &bfAccRaw,
                                 &bfAccMed, &bfAccLPF, &bfAccMean, &bfWRaw,    &bfWFilter};
constexpr int32_t kExportedCount = 10;
constexpr int32_t kOwnCount = 4;

struct Buffers {
  OwnBuffer own[kOwnCount];

  Buffers() {
    for (int32_t i = 0; i < kOwnCount; ++i) own[i].create(3, i + 1);
  }

  DataBuffer* pick(FuzzInput& in) {
    const int32_t i = in.byte() % (kExportedCount + kOwnCount);
    return i < kExportedCount ? kExported[i] : &own[i - kExportedCount].record;
  }
};

// A block of exactly n floats (none for n < 1) filled from the input.
std::unique_ptr<float[]> block(FuzzInput& in, int32_t n) {
  const int32_t size = n > 0 ? n : 0;
  std::unique_ptr<float[]> p(new float[static_cast<size_t>(size)]);
  in.values(p.get(), size);
  return p;
}

// A tap count and its coefficients; counts past kMaxTaps get one float, as
// no buffer here is long enough to accept them.
int32_t taps(FuzzInput& in, std::unique_ptr<float[]>& coefficients) {
  const int32_t n = in.count();
  coefficients = block(in, n >= 1 && n <= kMaxTaps ? n : 1);
  return n;
}

void checkRecord(const DataBuffer& b) {
  FUZZ_CHECK(b.index >= -1 && b.index < b.len);
  FUZZ_CHECK(b.count >= 0 && b.count <= b.len);
  FUZZ_CHECK(b.full == 0 || b.full == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  CreateDataBuffer();
  Buffers buffers;
  while (!in.exhausted()) {
    switch (in.byte() % 10) {
      case 0: {
        OwnBuffer& b = buffers.own[in.byte() % kOwnCount];
        b.create(in.intIn(-2, kMaxDim), in.intIn(1, kMaxLen));
        break;
      }
      case 1: bfClear(buffers.pick(in)); break;
      case 2: in.byte() & 1 ? ClearDataBuffer() : CreateDataBuffer(); break;
      case 3: {
        DataBuffer* b = buffers.pick(in);
        std::unique_ptr<float[]> sample = block(in, b->dim);
        bfPut(b, sample.get());
        checkRecord(*b);
        break;
      }
      case 4: {
        const DataBuffer* b = buffers.pick(in);
        const int32_t k = in.count();
        std::unique_ptr<float[]> out = block(in, b->dim);
        const int32_t result = bfGet(b, out.get(), k);
        FUZZ_CHECK(result == 0 || result == 1);
        if (result == 1) {
          for (int32_t j = 0; j < b->dim; ++j) FUZZ_CHECK(out[j] == 0.0f);
        }
        break;
      }
      case 5:
      case 6: {
        const DataBuffer* source = buffers.pick(in);
        DataBuffer* destination = buffers.pick(in);
        const int32_t n = in.count();
        const DataBuffer before = *destination;
        const int32_t result = in.byte() & 1 ? medFilter(source, destination, n)
                                             : meanFilter(source, destination, n);
        FUZZ_CHECK(result == 0 || result == 1);
        if (result == 1) {
          FUZZ_CHECK(destination->index == before.index && destination->count == before.count &&
                     destination->full == before.full);
        }
        checkRecord(*destination);
        break;
      }
      case 7: {
        const DataBuffer* source = buffers.pick(in);
        DataBuffer* destination = buffers.pick(in);
        if (source->dim != destination->dim) break;
        std::unique_ptr<float[]> b, a;
        const int32_t nb = taps(in, b);
        const int32_t na = taps(in, a);
        const int32_t result = LPF(source, destination, b.get(), a.get(), nb, na);
        FUZZ_CHECK(result == 0 || result == 1);
        checkRecord(*destination);
        break;
      }
      case 8: {
        const DataBuffer* b = buffers.pick(in);
        if (b->dim < 3) break;
        float rate[3];
        getWMag(b, rate, in.value());
        break;
      }
      default: {
        float x[2], y[2];
        in.values(x, 2);
        in.values(y, 2);
        LPF1(x, y);
        break;
      }
    }
  }
  return 0;
}
