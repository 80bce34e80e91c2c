// Helpers shared by the rotation-vector tests: a capturing log callback and a
// reference run on a fresh instance.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "QueltaAlgo.h"
#include "rotvec/rotation_vector.h"

namespace rotvec_test {

struct LoggedLine {
  std::string format;
  std::string text;
};

inline std::vector<LoggedLine>& loggedLines() {
  static std::vector<LoggedLine> lines;
  return lines;
}

inline int captureLog(const char* fmt, ...) {
  char buffer[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buffer, sizeof buffer, fmt, args);
  va_end(args);
  loggedLines().push_back({fmt, buffer});
  return 0;
}

inline std::string formatted(const char* fmt, double a, double b, double c, double d) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, fmt, a, b, c, d);
  return buffer;
}

// What one call on a fresh instance publishes for this pair (no smoothing,
// every value published).
struct FirstCall {
  float rov[4];
  float gravity[3];
  float linear[3];
};

inline FirstCall firstCallOf(const float* mag, const float* acc) {
  quelta::OwnedRotationVector fresh;
  fresh.moveThreshold = 0.0f;
  fresh.fusion.update(mag, acc, 0);
  FirstCall r{};
  for (int i = 0; i < 4; ++i) r.rov[i] = fresh.rov[i];
  for (int i = 0; i < 3; ++i) {
    r.gravity[i] = fresh.gravity[i];
    r.linear[i] = fresh.linear[i];
  }
  return r;
}

}  // namespace rotvec_test
