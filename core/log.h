// SPDX-License-Identifier: Apache-2.0
// Internal logging. Every service keeps its log texts in one table of
// LogText entries; each entry names the host log modes it is written in (its
// gate), and every line goes out through logLine, which reads log_func at that
// moment and skips the line when it is null. The library never formats text
// itself.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"

namespace quelta {

// Which of the host's log modes let a line through. Modes are compared as
// unsigned values, so a negative mode is "large" and only kAlways lines pass.
enum class LogGate : uint8_t {
  kAlways,  // whatever the mode
  kTrace,   // modes 0 and 1
  kDetail,  // mode 1 only
};

struct LogText {
  LogGate gate;
  const char* format;  // printf-style: %d takes int32_t, %f and %lf double
};

inline bool logGateOpen(LogGate gate, int32_t mode) {
  switch (gate) {
    case LogGate::kTrace:
      return static_cast<uint32_t>(mode) <= 1u;
    case LogGate::kDetail:
      return mode == 1;
    case LogGate::kAlways:
      break;
  }
  return true;
}

// For lines whose values take work to prepare: prepare them only when the
// line will be written.
inline bool logWanted(const LogText& text, int32_t mode) {
  return log_func != nullptr && logGateOpen(text.gate, mode);
}

// Hands the text's format and its values to the host's callback, if the gate
// lets the line through. Floats go as double (%f) or as int32 (%d).
template <typename... Args>
inline void logLine(const LogText& text, int32_t mode, Args... args) {
  const LogCallback callback = log_func;
  if (callback != nullptr && logGateOpen(text.gate, mode)) callback(text.format, args...);
}

}  // namespace quelta
