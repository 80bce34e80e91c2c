// SPDX-License-Identifier: Apache-2.0
// Ring-buffer operations on DataBuffer records. A record points at storage of
// dim planes of len floats: component j of the sample in slot s lives at
// j * len + s, so a sample is gathered and scattered component by component.
//
// The record's fields (index of the newest slot, full, count) are the host's
// view of the library's one ring arithmetic, RingSlots (core/ring.h): every
// slot here, in the general filters and in the pipeline's fixed-geometry
// filters, comes from slotsOf and is committed through commitPut.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"
#include "core/ring.h"

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

// The record's ring position over len slots: buf.len, or the same capacity
// known at compile time where the geometry is fixed.
inline RingSlots slotsOf(const DataBuffer& buf, int32_t len) {
  return RingSlots(len, buf.index, buf.full != 0 ? len : buf.index + 1);
}
inline RingSlots slotsOf(const DataBuffer& buf) { return slotsOf(buf, buf.len); }

// Records the put into slots.nextSlot() (slots as read before the put). The
// full flag turns 1 only with the put that wraps back to slot 0, so a record
// holding len samples after its first pass is not yet full.
inline void commitPut(DataBuffer& buf, RingSlots slots) {
  const bool wraps = slots.newestSlot() == slots.length() - 1;
  slots.commit();
  if (wraps) buf.full = 1;
  buf.index = slots.newestSlot();
  buf.count = slots.count();
}

// Component j of the k-th newest sample (k = 0 newest), 0 when there is no
// such sample (negative k included).
inline float sampleComponent(const DataBuffer& buf, int32_t k, int32_t j) {
  const int32_t slot = slotsOf(buf).newestFirst(k);
  return slot < 0 ? 0.0f : buf.data[j * buf.len + slot];
}

inline void bufferPut(DataBuffer& buf, const float* sample) {
  const RingSlots slots = slotsOf(buf);
  const int32_t slot = slots.nextSlot();
  for (int32_t j = 0; j < buf.dim; ++j) buf.data[j * buf.len + slot] = sample[j];
  commitPut(buf, slots);
}

// 0 and the sample in out, or 1 and dim zeros when there is no such sample.
inline int32_t bufferGet(const DataBuffer& buf, float* out, int32_t k) {
  const int32_t slot = slotsOf(buf).newestFirst(k);
  if (slot < 0) {
    for (int32_t j = 0; j < buf.dim; ++j) out[j] = 0.0f;
    return 1;
  }
  for (int32_t j = 0; j < buf.dim; ++j) out[j] = buf.data[j * buf.len + slot];
  return 0;
}

}  // namespace quelta
