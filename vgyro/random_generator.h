// SPDX-License-Identifier: Apache-2.0
// Minimal-standard linear congruential generator, x' = 48271 x mod (2^31 - 1),
// computed with Schrage's method so nothing overflows 32 bits. Seeded on
// first use (or on request), then it runs on.
#pragma once

#include <cstdint>

namespace quelta {

class RandomGenerator {
 public:
  // Uniform in [-1, 1). A negative seed is taken modulo 2^31 - 1, zero as 1;
  // the seed is used only when reseed != 0 or on the first draw.
  float next(int32_t seed, int32_t reseed);

 private:
  int32_t state_ = 1;    // 1 .. 2147483646 once seeded
  uint8_t seeded_ = 0;   // state_ has been seeded
};

}  // namespace quelta
