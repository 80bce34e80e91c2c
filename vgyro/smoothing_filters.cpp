// SPDX-License-Identifier: Apache-2.0
#include "vgyro/smoothing_filters.h"

#include <limits>

#include "core/vector_math.h"
#include "vgyro/data_buffer.h"

namespace quelta {

namespace {

// Window over what the source holds: n, or fewer while it has not wrapped.
// (Callers have refused n above the source capacity.)
int32_t effectiveWindow(const DataBuffer& in, int32_t n) {
  const int32_t held = slotsOf(in).count();
  return held < n ? held : n;
}

// Every filter writes its result component by component straight into the
// destination's next slot. Each component reads only its own plane, so the
// history a later component reads is still intact.
void writeComponent(DataBuffer& out, int32_t slot, int32_t j, float value) {
  out.data[j * out.len + slot] = value;
}

}  // namespace

int32_t medianFilter(const DataBuffer& in, DataBuffer& out, int32_t n) {
  if (in.dim != out.dim) return 1;
  if (in.len < n) return 1;
  if (n > kMaxMedianWindow) return 1;
  const int32_t m = effectiveWindow(in, n);
  if (m < 1) return 1;

  float row[kMaxMedianWindow];
  const RingSlots outSlots = slotsOf(out);
  const int32_t slot = outSlots.nextSlot();
  for (int32_t j = 0; j < in.dim; ++j) {
    for (int32_t i = 0; i < m; ++i) row[i] = sampleComponent(in, i, j);
    bubbleSort(row, m);
    const float median = (m % 2 == 1) ? row[m / 2] : (row[m / 2 - 1] + row[m / 2]) * 0.5f;
    writeComponent(out, slot, j, median);
  }
  commitPut(out, outSlots);
  return 0;
}

int32_t movingMeanFilter(const DataBuffer& in, DataBuffer& out, int32_t n) {
  if (in.dim != out.dim) return 1;
  if (in.len < n) return 1;
  const int32_t m = effectiveWindow(in, n);

  const RingSlots outSlots = slotsOf(out);
  const int32_t slot = outSlots.nextSlot();
  for (int32_t j = 0; j < in.dim; ++j) {
    float value = std::numeric_limits<float>::quiet_NaN();
    if (m >= 1) {
      float sum = 0.0f;
      for (int32_t i = 0; i < m; ++i) sum = sum + sampleComponent(in, i, j);
      value = sum / static_cast<float>(m);
    }
    writeComponent(out, slot, j, value);
  }
  commitPut(out, outSlots);
  return 0;
}

int32_t recursiveLowPass(const DataBuffer& in, DataBuffer& out, const float* b, const float* a,
                         int32_t nb, int32_t na) {
  const int64_t feedbackTaps = static_cast<int64_t>(na) - 1;
  if (in.len < nb) return 1;
  if (out.len < feedbackTaps) return 1;

  const RingSlots outSlots = slotsOf(out);
  const int32_t slot = outSlots.nextSlot();
  // (The capacity checks above make a full ring hold enough taps.)
  const bool warmingUp = slotsOf(in).count() < nb || slotsOf(out).count() < feedbackTaps;
  if (warmingUp) {
    // Start from the raw input rather than from zeros.
    for (int32_t j = 0; j < out.dim; ++j) writeComponent(out, slot, j, sampleComponent(in, 0, j));
    commitPut(out, outSlots);
    return 0;
  }

  for (int32_t j = 0; j < out.dim; ++j) {
    float feedForward = 0.0f;
    for (int32_t i = 0; i < nb; ++i) feedForward = feedForward + b[i] * sampleComponent(in, i, j);
    float feedback = 0.0f;
    for (int32_t i = 1; i < na; ++i) feedback = feedback + a[i] * sampleComponent(out, i - 1, j);
    writeComponent(out, slot, j, (feedForward - feedback) / a[0]);
  }
  commitPut(out, outSlots);
  return 0;
}

}  // namespace quelta
