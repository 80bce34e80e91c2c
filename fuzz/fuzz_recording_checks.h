// What every reading of a recording must give, accepted or refused; shared
// by the plain and the compressed recording targets.
#pragma once

#include <cmath>
#include <cstdint>

#include "fuzz/fuzz_input.h"
#include "tools/replay/recording.h"

namespace quelta::fuzz {

inline replay::Units unitsFromByte(uint8_t byte) {
  replay::Units units;
  units.acc = (byte & 1) ? replay::AccUnit::MetresPerSecond2 : replay::AccUnit::G;
  units.mag = (byte & 2) ? replay::MagUnit::Microtesla : replay::MagUnit::Gauss;
  return units;
}

inline bool finiteAsFloat(double v) { return std::isfinite(static_cast<float>(v)); }

inline void checkReaderResult(bool accepted, const replay::Recording& recording,
                              const replay::InputError& error) {
  if (!accepted) {
    FUZZ_CHECK(!error.message.empty());
    FUZZ_CHECK(error.line >= 0 && error.column >= 0);
    FUZZ_CHECK(error.column == 0 || error.line > 0);
    return;
  }
  FUZZ_CHECK(!recording.samples.empty());
  double previous = -INFINITY;
  for (const replay::RecordedSample& s : recording.samples) {
    FUZZ_CHECK(std::isfinite(s.t) && s.t > previous);
    previous = s.t;
    for (int k = 0; k < 3; ++k) {
      FUZZ_CHECK(finiteAsFloat(s.acc[k]) && finiteAsFloat(s.mag[k]));
    }
  }
}

}  // namespace quelta::fuzz
