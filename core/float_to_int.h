// SPDX-License-Identifier: Apache-2.0
// Float-to-int32 conversion with the semantics of the 64-bit Arm target on
// every architecture: truncation toward zero, saturation at the int32 limits,
// NaN to 0. A plain cast is undefined out of range (and gives INT32_MIN on
// x86-64), so every conversion in the library goes through here.
#pragma once

#include <cstdint>

namespace quelta {

inline int32_t truncToInt32(double v) {
  if (v != v) return 0;
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(v);
}

inline int32_t truncToInt32(float v) { return truncToInt32(static_cast<double>(v)); }

// The calibration's "%d" log values: scaled by 1000 in single precision,
// then truncated.
inline int32_t milliUnits(float v) { return truncToInt32(v * 1000.0f); }

}  // namespace quelta
