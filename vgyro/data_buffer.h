// Ring-buffer operations on DataBuffer records. A record points at storage of
// dim planes of len floats: component j of the sample in slot s lives at
// j * len + s, so a sample is gathered and scattered component by component.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"

namespace quelta {

inline void bufferNew(DataBuffer& buf, float* storage, int32_t dim, int32_t len) {
  buf.data = storage;
  buf.dim = dim;
  buf.len = len;
  buf.index = -1;
  buf.full = 0;
  buf.count = 0;
}

// Empties the record; storage keeps its old (now unreachable) values.
inline void bufferClear(DataBuffer& buf) {
  buf.index = -1;
  buf.full = 0;
  buf.count = 0;
}

// Slot of the k-th newest sample (k = 0 newest), or -1 when there is none.
// Negative k is not a sample position either.
inline int32_t sampleSlot(const DataBuffer& buf, int32_t k) {
  if (k < 0 || k >= buf.len) return -1;
  int32_t slot = buf.index - k;
  if (slot < 0) {
    if (buf.full == 0) return -1;
    slot = slot + buf.len;
  }
  return slot;
}

// Component j of the k-th newest sample, 0 when there is no such sample.
inline float sampleComponent(const DataBuffer& buf, int32_t k, int32_t j) {
  const int32_t slot = sampleSlot(buf, k);
  return slot < 0 ? 0.0f : buf.data[j * buf.len + slot];
}

// The slot the next put writes to.
inline int32_t nextPutSlot(const DataBuffer& buf) {
  const int32_t next = buf.index + 1;
  return next == buf.len ? 0 : next;
}

// Advances the write position after the next put's slot has been written.
// full turns 1 only with the put that wraps back to slot 0.
inline void commitPut(DataBuffer& buf) {
  buf.index = buf.index + 1;
  if (buf.index == buf.len) {
    buf.index = 0;
    buf.full = 1;
    buf.count = buf.len;
  } else {
    buf.count = buf.full == 1 ? buf.len : buf.index + 1;
  }
}

inline void bufferPut(DataBuffer& buf, const float* sample) {
  const int32_t slot = nextPutSlot(buf);
  for (int32_t j = 0; j < buf.dim; ++j) buf.data[j * buf.len + slot] = sample[j];
  commitPut(buf);
}

// 0 and the sample in out, or 1 and dim zeros when there is no such sample.
inline int32_t bufferGet(const DataBuffer& buf, float* out, int32_t k) {
  const int32_t slot = sampleSlot(buf, k);
  if (slot < 0) {
    for (int32_t j = 0; j < buf.dim; ++j) out[j] = 0.0f;
    return 1;
  }
  for (int32_t j = 0; j < buf.dim; ++j) out[j] = buf.data[j * buf.len + slot];
  return 0;
}

}  // namespace quelta
