// The last 30 three-axis samples, oldest first. Entry k is the (k+1)-th
// sample while filling; once full, entry 0 is the oldest and entry 29 the
// newest, and every new sample pushes the oldest out.
#pragma once

#include <cstdint>

namespace quelta {

struct History30 {
  static constexpr int32_t kLength = 30;

  float entry[kLength][3] = {};

  const float* at(int32_t k) const { return entry[k]; }
  float* at(int32_t k) { return entry[k]; }

  void store(int32_t k, const float* v) {
    entry[k][0] = v[0];
    entry[k][1] = v[1];
    entry[k][2] = v[2];
  }

  // Drops entry 0 and appends v as entry 29.
  void shiftIn(const float* v) {
    for (int32_t k = 0; k < kLength - 1; ++k) store(k, entry[k + 1]);
    store(kLength - 1, v);
  }
};

// Per-axis mean of all 30 entries, summed oldest to newest in single
// precision, whatever the fill count says.
inline void MeanOf30(const History30& h, float* out) {
  for (int32_t axis = 0; axis < 3; ++axis) {
    float sum = 0.0f;
    for (int32_t k = 0; k < History30::kLength; ++k) sum = sum + h.at(k)[axis];
    out[axis] = sum / 30.0f;
  }
}

}  // namespace quelta
