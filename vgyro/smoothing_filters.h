// SPDX-License-Identifier: Apache-2.0
// Smoothing filters between ring buffers: each call reads the newest samples
// of a source buffer and appends one smoothed sample to a destination buffer.
// Result 0 when a sample was appended, 1 when the call was refused (the
// destination is then untouched). Single precision throughout.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"

namespace quelta {

// The median sorts one axis at a time in fixed scratch of this many floats;
// longer windows are refused (the library's own windows are 3 samples).
constexpr int32_t kMaxMedianWindow = 64;

// Per-axis median of the newest n samples (fewer while the source is young).
// Refuses a dim mismatch, n above the source capacity or above
// kMaxMedianWindow, and an empty window.
int32_t medianFilter(const DataBuffer& in, DataBuffer& out, int32_t n);

// Per-axis mean of the newest n samples (fewer while the source is young).
// Refuses a dim mismatch and n above the source capacity. An empty window
// (n < 1 or an empty source) appends not-a-number values, as 0 / 0 would.
int32_t movingMeanFilter(const DataBuffer& in, DataBuffer& out, int32_t n);

// Direct-form recursive filter
//   y[t] = (sum b[i] x[t-i] - sum_{i>=1} a[i] y[t-i]) / a[0],
// x from the source history, y from the destination history. Until both
// histories are long enough the newest input is passed through unchanged.
int32_t recursiveLowPass(const DataBuffer& in, DataBuffer& out, const float* b, const float* a,
                         int32_t nb, int32_t na);

// y[1] = 0.045035005 (x[1] + x[0]) + 0.90993 y[0]; the caller shifts the state.
inline int32_t firstOrderLowPass(const float* x, float* y) {
  y[1] = (0.045035005f * x[1] + 0.045035005f * x[0]) + 0.90993f * y[0];
  return 0;
}

}  // namespace quelta
