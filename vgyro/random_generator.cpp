// SPDX-License-Identifier: Apache-2.0
#include "vgyro/random_generator.h"

namespace quelta {

namespace {
constexpr int32_t kModulus = 2147483647;  // 2^31 - 1
constexpr int32_t kMultiplier = 48271;
constexpr int32_t kQuotient = 44488;      // kModulus / kMultiplier
constexpr int32_t kRemainder = 3399;      // kModulus % kMultiplier
constexpr float kScale = 4.656613e-10f;   // 2^-31
}  // namespace

float RandomGenerator::next(int32_t seed, int32_t reseed) {
  int32_t s = seed;
  if (s < 0) s = s + kModulus;
  if (s == 0) s = 1;
  if (reseed != 0 || seeded_ == 0) {
    state_ = s;
    seeded_ = 1;
  }

  int32_t x = state_;
  const int32_t hi = x / kQuotient;
  const int32_t lo = x - hi * kQuotient;
  x = kMultiplier * lo - kRemainder * hi;
  if (x <= 0) x = x + kModulus;

  const float u = static_cast<float>(x) * kScale;
  state_ = x;
  return static_cast<float>(static_cast<double>(u) * 2.0 - 1.0);
}

}  // namespace quelta
