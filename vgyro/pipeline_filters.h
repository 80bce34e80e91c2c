// The smoothing chain's filters for the geometry the pipeline gives its own
// buffers: 3 components and capacities known at compile time. The arithmetic
// is the general filters' (smoothing_filters.h), operation for operation and
// in the same order; what goes is the per-component slot arithmetic and the
// loops of unknown length. Whenever a record lacks that geometry, or a window
// is still short after a reset, the general filter runs instead.
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

// Slot of the k-th newest sample (0 <= k < Len), -1 when there is none.
template <int32_t Len>
inline int32_t slotOf(const DataBuffer& buf, int32_t k) {
  int32_t slot = buf.index - k;
  if (slot < 0) {
    if (buf.full == 0) return -1;
    slot = slot + Len;
  }
  return slot;
}

// True when the buffer holds at least n samples.
inline bool holds(const DataBuffer& buf, int32_t n) {
  return buf.full != 0 || buf.index + 1 >= n;
}

template <int32_t Len>
inline int32_t nextSlot(const DataBuffer& buf) {
  const int32_t next = buf.index + 1;
  return next == Len ? 0 : next;
}

template <int32_t Len>
inline void commit(DataBuffer& buf) {
  buf.index = buf.index + 1;
  if (buf.index == Len) {
    buf.index = 0;
    buf.full = 1;
    buf.count = Len;
  } else {
    buf.count = buf.full == 1 ? Len : buf.index + 1;
  }
}

template <int32_t Len>
inline void put(DataBuffer& buf, const float* sample) {
  if (!hasGeometry<Len>(buf)) {
    bufferPut(buf, sample);
    return;
  }
  const int32_t slot = nextSlot<Len>(buf);
  float* data = buf.data;
  data[slot] = sample[0];
  data[Len + slot] = sample[1];
  data[2 * Len + slot] = sample[2];
  commit<Len>(buf);
}

// The newest sample, zeros when the buffer is empty.
template <int32_t Len>
inline void getNewest(const DataBuffer& buf, float* out) {
  if (!hasGeometry<Len>(buf)) {
    bufferGet(buf, out, 0);
    return;
  }
  const int32_t slot = slotOf<Len>(buf, 0);
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
  if (!hasGeometry<InLen>(in) || !hasGeometry<OutLen>(out) || !holds(in, 3)) {
    medianFilter(in, out, 3);
    return;
  }
  const int32_t s0 = slotOf<InLen>(in, 0), s1 = slotOf<InLen>(in, 1), s2 = slotOf<InLen>(in, 2);
  const int32_t slot = nextSlot<OutLen>(out);
  for (int32_t j = 0; j < kDim; ++j) {
    const float* plane = in.data + j * InLen;
    float row[3] = {plane[s0], plane[s1], plane[s2]};
    bubbleSort(row, 3);
    out.data[j * OutLen + slot] = row[1];
  }
  commit<OutLen>(out);
}

// meanFilter(in, out, 3).
template <int32_t InLen, int32_t OutLen>
inline void meanOf3(const DataBuffer& in, DataBuffer& out) {
  static_assert(InLen >= 3, "the window must fit the source");
  if (!hasGeometry<InLen>(in) || !hasGeometry<OutLen>(out) || !holds(in, 3)) {
    movingMeanFilter(in, out, 3);
    return;
  }
  const int32_t s0 = slotOf<InLen>(in, 0), s1 = slotOf<InLen>(in, 1), s2 = slotOf<InLen>(in, 2);
  const int32_t slot = nextSlot<OutLen>(out);
  for (int32_t j = 0; j < kDim; ++j) {
    const float* plane = in.data + j * InLen;
    float sum = 0.0f;
    sum = sum + plane[s0];
    sum = sum + plane[s1];
    sum = sum + plane[s2];
    out.data[j * OutLen + slot] = sum / 3.0f;
  }
  commit<OutLen>(out);
}

// LPF(in, out, b, a, 2, 2): y = (b0 x0 + b1 x1 - a1 y1) / a0, the sums
// started from zero as the general filter starts them.
template <int32_t InLen, int32_t OutLen>
inline void lowPass2(const DataBuffer& in, DataBuffer& out, const float* b, const float* a) {
  static_assert(InLen >= 2 && OutLen >= 1, "the taps must fit the buffers");
  if (!hasGeometry<InLen>(in) || !hasGeometry<OutLen>(out) || !holds(in, 2) ||
      !holds(out, 1)) {
    recursiveLowPass(in, out, b, a, 2, 2);
    return;
  }
  const int32_t x0 = slotOf<InLen>(in, 0), x1 = slotOf<InLen>(in, 1);
  const int32_t y1 = slotOf<OutLen>(out, 0);
  const int32_t slot = nextSlot<OutLen>(out);
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
  commit<OutLen>(out);
}

}  // namespace quelta::pipeline
