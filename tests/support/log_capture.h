// SPDX-License-Identifier: Apache-2.0
// Captures the library's log lines, formatted as a printf-style host would.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "QueltaAlgo.h"

namespace quelta::test {

inline std::vector<std::string>& capturedLines() {
  static std::vector<std::string> lines;
  return lines;
}

inline int captureLine(const char* fmt, ...) {
  char text[512];
  va_list args;
  va_start(args, fmt);
  const int n = std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  capturedLines().push_back(text);
  return n;
}

// Registers the capturing callback and forgets earlier lines.
inline void startCapture() {
  capturedLines().clear();
  RegisterLogCallback(captureLine);
}

inline int countLinesStartingWith(const std::string& prefix) {
  int n = 0;
  for (const std::string& line : capturedLines()) n += line.compare(0, prefix.size(), prefix) == 0;
  return n;
}

}  // namespace quelta::test
