// SPDX-License-Identifier: Apache-2.0
// The smoothing chain's filters for the geometry the pipeline gives its own
// buffers: 3 components and capacities known at compile time. The arithmetic
// is the general filters' (smoothing_filters.h), operation for operation and
// in the same order, and the slots come from the same ring arithmetic
// (slotsOf, commitPut) with the capacity folded in; what goes is the
// per-component slot lookups and the loops of unknown length (the general
// filters cost about a quarter more per full sample set under callgrind).
// Whenever a record lacks that geometry, or a window is still short after a
// reset, the general filter runs instead.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"
#include "core/vector_math.h"
#include "vgyro/data_buffer.h"
#include "vgyro/smoothing_filters.h"

namespace quelta::pipeline {

constexpr int32_t kDim = 3;

template <int32_t Len>
inline bool hasGeometry(const DataBuffer& buf) {
  return buf.dim == kDim && buf.len == Len;
}

// The record's ring position with its capacity known at compile time: the
// same slot arithmetic as every other buffer operation, folded by the
// compiler.
template <int32_t Len>
inline RingSlots fixedSlots(const DataBuffer& buf) {
  return slotsOf(buf, Len);
}

template <int32_t Len>
inline void put(DataBuffer& buf, const float* sample) {
  if (!hasGeometry<Len>(buf)) {
    bufferPut(buf, sample);
    return;
  }
  const RingSlots slots = fixedSlots<Len>(buf);
  const int32_t slot = slots.nextSlot();
  float* data = buf.data;
  data[slot] = sample[0];
  data[Len + slot] = sample[1];
  data[2 * Len + slot] = sample[2];
  commitPut(buf, slots);
}

// The newest sample, zeros when the buffer is empty.
template <int32_t Len>
inline void getNewest(const DataBuffer& buf, float* out) {
  if (!hasGeometry<Len>(buf)) {
    bufferGet(buf, out, 0);
    return;
  }
  const int32_t slot = fixedSlots<Len>(buf).newestFirst(0);
  if (slot < 0) {
    out[0] = out[1] = out[2] = 0.0f;
    return;
  }
  const float* data = buf.data;
  out[0] = data[slot];
  out[1] = data[Len + slot];
  out[2] = data[2 * Len + slot];
}

// medFilter(in, out, 3).
template <int32_t InLen, int32_t OutLen>
inline void medianOf3(const DataBuffer& in, DataBuffer& out) {
  static_assert(InLen >= 3, "the window must fit the source");
  const RingSlots src = fixedSlots<InLen>(in);
  const RingSlots dst = fixedSlots<OutLen>(out);
  if (!hasGeometry<InLen>(in) || !hasGeometry<OutLen>(out) || src.count() < 3) {
    medianFilter(in, out, 3);
    return;
  }
  const int32_t s0 = src.heldNewestFirst(0), s1 = src.heldNewestFirst(1), s2 = src.heldNewestFirst(2);
  const int32_t slot = dst.nextSlot();
  for (int32_t j = 0; j < kDim; ++j) {
    const float* plane = in.data + j * InLen;
    float row[3] = {plane[s0], plane[s1], plane[s2]};
    bubbleSort(row, 3);
    out.data[j * OutLen + slot] = row[1];
  }
  commitPut(out, dst);
}

// meanFilter(in, out, 3).
template <int32_t InLen, int32_t OutLen>
inline void meanOf3(const DataBuffer& in, DataBuffer& out) {
  static_assert(InLen >= 3, "the window must fit the source");
  const RingSlots src = fixedSlots<InLen>(in);
  const RingSlots dst = fixedSlots<OutLen>(out);
  if (!hasGeometry<InLen>(in) || !hasGeometry<OutLen>(out) || src.count() < 3) {
    movingMeanFilter(in, out, 3);
    return;
  }
  const int32_t s0 = src.heldNewestFirst(0), s1 = src.heldNewestFirst(1), s2 = src.heldNewestFirst(2);
  const int32_t slot = dst.nextSlot();
  for (int32_t j = 0; j < kDim; ++j) {
    const float* plane = in.data + j * InLen;
    float sum = 0.0f;
    sum = sum + plane[s0];
    sum = sum + plane[s1];
    sum = sum + plane[s2];
    out.data[j * OutLen + slot] = sum / 3.0f;
  }
  commitPut(out, dst);
}

// LPF(in, out, b, a, 2, 2): y = (b0 x0 + b1 x1 - a1 y1) / a0, the sums
// started from zero as the general filter starts them.
template <int32_t InLen, int32_t OutLen>
inline void lowPass2(const DataBuffer& in, DataBuffer& out, const float* b, const float* a) {
  static_assert(InLen >= 2 && OutLen >= 1, "the taps must fit the buffers");
  const RingSlots src = fixedSlots<InLen>(in);
  const RingSlots dst = fixedSlots<OutLen>(out);
  if (!hasGeometry<InLen>(in) || !hasGeometry<OutLen>(out) || src.count() < 2 ||
      dst.count() < 1) {
    recursiveLowPass(in, out, b, a, 2, 2);
    return;
  }
  const int32_t x0 = src.heldNewestFirst(0), x1 = src.heldNewestFirst(1);
  const int32_t y1 = dst.heldNewestFirst(0);
  const int32_t slot = dst.nextSlot();
  for (int32_t j = 0; j < kDim; ++j) {
    const float* x = in.data + j * InLen;
    float* y = out.data + j * OutLen;
    float feedForward = 0.0f;
    feedForward = feedForward + b[0] * x[x0];
    feedForward = feedForward + b[1] * x[x1];
    float feedback = 0.0f;
    feedback = feedback + a[1] * y[y1];
    // The previous output is read before this component is written: with a
    // capacity of 1 both are the same slot.
    y[slot] = (feedForward - feedback) / a[0];
  }
  commitPut(out, dst);
}

}  // namespace quelta::pipeline
