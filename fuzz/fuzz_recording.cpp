// SPDX-License-Identifier: Apache-2.0
// The replay tool's recording reader on CSV text, as the tool uses it: open,
// peek at the first samples, then stream them all. Header resolution (any
// case, quotes, byte-order mark), field splitting, number parsing, missing
// reference values, unit conversion, every refusal.
// Input: a units byte (fuzz_recording_checks.h), a peek-count byte, the file.
//
// Checked besides memory safety: a refusal carries a message and a place
// (a column only with a line); an accepted recording has at least one
// sample, finite and strictly increasing times, sensor values finite as the
// floats handed to the library, finite references only where the header
// has their columns and counts of missing references that match the
// samples; peeking changes nothing: the same bytes read without a peek give
// the same samples and the same error.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_recording_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const quelta::replay::Units units = quelta::fuzz::unitsFromByte(data[0]);
  const size_t peekCount = data[1];
  const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
  const quelta::fuzz::Reading peeked = quelta::fuzz::readAll(text, units, peekCount);
  if (peekCount > 0) {
    const quelta::fuzz::Reading streamed = quelta::fuzz::readAll(text, units, 0);
    FUZZ_CHECK(quelta::fuzz::sameReading(peeked, streamed));
  }
  return 0;
}
