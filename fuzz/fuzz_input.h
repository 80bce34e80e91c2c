// SPDX-License-Identifier: Apache-2.0
// Turns the fuzzer's bytes into the arguments of library calls. Floats come
// partly from a table of values that break arithmetic (NaN, infinities,
// denormals, -0, values near the float limits), partly as raw bit patterns
// and partly as plausible sensor magnitudes, so that the fuzzer reaches the
// deep states (a full calibration, a rotating virtual gyroscope) as well as
// the hostile ones. Reading past the end yields zeros: every input is usable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace quelta::fuzz {

// A violated expectation: report and abort, so libFuzzer keeps the input.
#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

inline float floatFromBits(uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

inline uint32_t bitsOf(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  return bits;
}

// Values that break arithmetic, and the library's own thresholds and limits.
inline const float kSpecialFloats[] = {
    std::numeric_limits<float>::quiet_NaN(),
    -std::numeric_limits<float>::quiet_NaN(),
    floatFromBits(0x7fc12345u),  // NaN with a payload
    floatFromBits(0x7f800001u),  // signalling NaN
    std::numeric_limits<float>::infinity(),
    -std::numeric_limits<float>::infinity(),
    0.0f,
    -0.0f,
    std::numeric_limits<float>::denorm_min(),
    -std::numeric_limits<float>::denorm_min(),
    1e-40f,  // denormal
    std::numeric_limits<float>::min(),
    std::numeric_limits<float>::max(),
    -std::numeric_limits<float>::max(),
    1e38f,
    -1e38f,
    1e20f,
    -1e19f,
    1e-30f,
    1e-10f,
    1e-7f,
    1e-5f,
    1.0f,
    -1.0f,
    0.5f,
    -0.5f,
    2.0f,
    3.1415927f,
    9.81f,
    0.2f,
    0.8f,
    0.1f,
    1.4f,
    0.85f,
    1.15f,
    0.01f,
    0.005f,
    0.03f,
    2147483648.0f,
    -2147483648.0f,
    4294967296.0f,
};

inline const int32_t kSpecialInts[] = {
    0,  1,  -1, 2,  3,  5,  6,  11, 16, 29,   30,   31,     32,    33,
    34, 35, 36, 37, 63, 64, 65, 100, 1000, -20, -1000, 20,  50,
    std::numeric_limits<int32_t>::max(),
    std::numeric_limits<int32_t>::min(),
    std::numeric_limits<int32_t>::max() - 1,
    std::numeric_limits<int32_t>::min() + 1,
};

template <typename T, size_t N>
constexpr size_t countOf(const T (&)[N]) {
  return N;
}

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool exhausted() const { return pos_ >= size_; }

  uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  uint32_t bits32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | byte();
    return v;
  }

  int32_t int32() {
    const uint32_t b = bits32();
    int32_t v;
    std::memcpy(&v, &b, sizeof v);
    return v;
  }

  // Uniform enough over [lo, hi], lo <= hi, hi - lo < 65536.
  int32_t intIn(int32_t lo, int32_t hi) {
    const uint32_t span = static_cast<uint32_t>(hi - lo) + 1u;
    const uint32_t raw = (static_cast<uint32_t>(byte()) << 8) | byte();
    return lo + static_cast<int32_t>(raw % span);
  }

  // Counts, lengths, modes and flags: the values at and around the limits
  // the library cares about, small ones, or anything.
  int32_t count() {
    switch (byte() % 4) {
      case 0: return kSpecialInts[byte() % countOf(kSpecialInts)];
      case 1: return static_cast<int8_t>(byte());
      case 2: return byte();
      default: return int32();
    }
  }

  float value() {
    switch (byte() % 8) {
      case 0:
      case 1: return kSpecialFloats[byte() % countOf(kSpecialFloats)];
      case 2: return floatFromBits(bits32());
      case 3:
      case 4: return static_cast<float>(static_cast<int16_t>(bits16())) / 32768.0f;  // gauss, g
      case 5: return static_cast<float>(static_cast<int16_t>(bits16())) / 1024.0f;
      case 6: return static_cast<float>(static_cast<int8_t>(byte())) * 1e-8f;  // near zero
      default: return static_cast<float>(static_cast<int16_t>(bits16())) / 8.0f;
    }
  }

  void values(float* out, int32_t n) {
    for (int32_t i = 0; i < n; ++i) out[i] = value();
  }

 private:
  uint32_t bits16() { return (static_cast<uint32_t>(byte()) << 8) | byte(); }

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// Mostly no restart, sometimes 1, now and then any interesting integer.
inline int32_t restartFlag(FuzzInput& in) {
  const uint8_t b = in.byte();
  return b < 200 ? 0 : (b < 240 ? 1 : in.count());
}

// Mostly the modes 0 to 2, now and then any interesting integer.
inline int32_t logModeUpTo2(FuzzInput& in) {
  const uint8_t b = in.byte();
  return b < 128 ? b % 3 : in.count();
}

// True when every component is finite and small enough that sums of 30 and
// squares stay finite in single precision.
inline bool tame(const float* v, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    if (!(v[i] >= -1e18f && v[i] <= 1e18f)) return false;
  }
  return true;
}

inline bool allFinite(const float* v, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    if (!(v[i] - v[i] == 0.0f)) return false;
  }
  return true;
}

}  // namespace quelta::fuzz
