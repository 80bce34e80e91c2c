// SPDX-License-Identifier: Apache-2.0
// The replay tool's calibration-file reader: the file a host keeps its
// calibration in, read at start-up whatever is in it.
//
// Checked besides memory safety: a refusal names its place ("line:column: "
// with both at least 1); every accepted value is finite; an accepted file,
// written back as the tool writes it, reads back to the very same values
// (bit for bit), so a calibration survives any number of runs.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_input.h"
#include "tools/replay/algo_setup.h"

namespace {

using quelta::replay::AlgoSetup;
using quelta::replay::SetupOverrides;

template <typename T, size_t N>
bool allFinite(const std::array<T, N>& values) {
  for (T v : values) {
    if (!std::isfinite(static_cast<double>(v))) return false;
  }
  return true;
}

template <typename T, size_t N>
bool sameBits(const std::optional<std::array<T, N>>& a, const std::optional<std::array<T, N>>& b) {
  if (a.has_value() != b.has_value()) return false;
  return !a || std::memcmp(a->data(), b->data(), sizeof(T) * N) == 0;
}

// "12:3: ..." with both numbers at least 1.
bool locatedProblem(const std::string& problem) {
  size_t pos = 0;
  for (int part = 0; part < 2; ++part) {
    size_t digits = 0;
    unsigned long value = 0;
    while (pos < problem.size() && problem[pos] >= '0' && problem[pos] <= '9') {
      value = value * 10 + static_cast<unsigned long>(problem[pos] - '0');
      ++pos;
      ++digits;
      if (digits > 9) return false;
    }
    if (digits == 0 || value < 1 || pos >= problem.size() || problem[pos] != ':') return false;
    ++pos;
  }
  return pos < problem.size() && problem[pos] == ' ';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  SetupOverrides read;
  std::string problem;
  if (!quelta::replay::parseCalibrationFile(text, read, problem)) {
    FUZZ_CHECK(locatedProblem(problem));
    return 0;
  }
  if (read.offset) FUZZ_CHECK(allFinite(*read.offset));
  if (read.radius) FUZZ_CHECK(std::isfinite(*read.radius));
  if (read.axis) FUZZ_CHECK(allFinite(*read.axis));
  if (read.pool) FUZZ_CHECK(allFinite(*read.pool));
  if (read.thresholds) FUZZ_CHECK(allFinite(*read.thresholds));

  // Written back as after a run (offset and radius as the set-up holds them,
  // the other keys kept), then read again.
  AlgoSetup setup;
  read.applyTo(setup);
  const std::array<float, 3> offset{setup.stored[0], setup.stored[1], setup.stored[2]};
  const std::string written = quelta::replay::formatCalibrationFile(offset, setup.stored[3], read);
  SetupOverrides again;
  FUZZ_CHECK(quelta::replay::parseCalibrationFile(written, again, problem));
  FUZZ_CHECK(again.offset && std::memcmp(again.offset->data(), offset.data(), sizeof offset) == 0);
  FUZZ_CHECK(again.radius && std::memcmp(&*again.radius, &setup.stored[3], sizeof(float)) == 0);
  FUZZ_CHECK(sameBits(again.axis, read.axis));
  FUZZ_CHECK(sameBits(again.pool, read.pool));
  FUZZ_CHECK(sameBits(again.thresholds, read.thresholds));
  FUZZ_CHECK(sameBits(again.windows, read.windows));
  return 0;
}
