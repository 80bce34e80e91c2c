// SPDX-License-Identifier: Apache-2.0
// The set-up handed to AlgoInitial, with the library's own defaults, and
// the small text file in which a host keeps its calibration across runs.
//
// Calibration file: one "key values..." line per item, '#' starts a comment.
//   offset X Y Z      stored hard-iron offset, gauss (all zero: none)
//   radius R          stored field radius, gauss
//   axis 9 values     axis matrix, row-major
//   pool 8 values     min, mid, full pool counts, min distance early and
//                     late, ratio low and high, max distance
//   thresholds 3      accelerometer moving variance, frozen probe variance,
//                     accelerometer still variance
//   windows 2         azimuth median and mean window lengths
// Only offset and radius are rewritten at the end of a run; the other keys
// are kept as they were.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace quelta::replay {

struct AlgoSetup {
  std::array<float, 9> axis{1, 0, 0, 0, 1, 0, 0, 0, 1};
  std::array<float, 4> stored{0, 0, 0, 0.5f};  // offset x, y, z, radius
  std::array<float, 8> pool{6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  std::array<float, 3> thresholds{0.1f, 2e-5f, 2e-4f};
  std::array<int32_t, 2> windows{11, 8};  // azimuth median, mean window
};

// Optional parts of the set-up: from the calibration file or the command
// line. Unset items leave the set-up as it is.
struct SetupOverrides {
  std::optional<std::array<float, 3>> offset;
  std::optional<float> radius;
  std::optional<std::array<float, 9>> axis;
  std::optional<std::array<float, 8>> pool;
  std::optional<std::array<float, 3>> thresholds;
  std::optional<std::array<int32_t, 2>> windows;

  void applyTo(AlgoSetup& setup) const;
};

// The library accepts a fitted field radius only inside this band (gauss);
// a stored calibration outside it cannot have come from the library.
constexpr float kMinStoredRadius = 0.2f;
constexpr float kMaxStoredRadius = 0.8f;

// Why the stored calibration in setup must not be handed to AlgoInitial
// (which adopts any non-zero offset as it is): a non-finite value, or a
// radius outside (kMinStoredRadius, kMaxStoredRadius). Empty when it may
// be, or when there is none (all-zero offset).
std::string storedCalibrationProblem(const AlgoSetup& setup);

// Replaces a stored calibration that storedCalibrationProblem refuses with
// "none" (zero offset, default radius) and returns the problem; empty when
// setup is left as it is.
std::string dropImplausibleStoredCalibration(AlgoSetup& setup);

// Parses a calibration file's text. On failure returns false with a
// "line:column: message" text in problem.
bool parseCalibrationFile(const std::string& text, SetupOverrides& out, std::string& problem);

// Reads the calibration file at path. A file that does not exist is no
// error: found is false and out is empty. Otherwise false with
// "path: reason" or "path:line:column: message" in problem.
bool readCalibrationFile(const std::string& path, SetupOverrides& out, bool& found, std::string& problem);

// Text of a calibration file: the offset and radius given, then the other
// items that are set in kept.
std::string formatCalibrationFile(const std::array<float, 3>& offset, float radius,
                                  const SetupOverrides& kept);

// Parses "a,b,c" into exactly N numbers (floats or int32). False on any
// malformed or missing value.
template <size_t N>
bool parseList(const std::string& text, std::array<float, N>& out);
template <size_t N>
bool parseList(const std::string& text, std::array<int32_t, N>& out);

}  // namespace quelta::replay
