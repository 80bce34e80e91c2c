// SPDX-License-Identifier: Apache-2.0
// Degree helpers shared by the orientation stages.
#pragma once

namespace quelta {

// The single-precision pi the orientation uses for its degree conversions.
constexpr float kPiF = 3.1415927f;

// Brings an angle from [-360, 720) into [0, 360): below 0 add a turn, then at
// 360 or more take one off. NaN and -0 pass through unchanged.
inline float wrapDegrees(float deg) {
  if (deg < 0.0f) deg = deg + 360.0f;
  if (deg >= 360.0f) deg = deg - 360.0f;
  return deg;
}

// Argument for acos/asin: values rounding pushed just past +-1 are pulled
// back so they cannot turn into NaN; every value in range passes unchanged.
inline double unitClamped(float v) {
  if (v > 1.0f) return 1.0;
  if (v < -1.0f) return -1.0;
  return static_cast<double>(v);
}

}  // namespace quelta
