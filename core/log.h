// Internal logging helpers. Every site reads log_func at that moment and
// skips the line when it is null; the library never formats text itself.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"

namespace quelta {

// Hands a fixed format and its values to the host's callback, if any.
// Floats must be passed as double (%f) or as int32 (%d) by the caller.
template <typename... Args>
inline void logLine(const char* fmt, Args... args) {
  LogCallback callback = log_func;
  if (callback != nullptr) {
    callback(fmt, args...);
  }
}

// For sites whose values take work to prepare: prepare them only when a
// line can be emitted at all.
inline bool logEnabled() { return log_func != nullptr; }

// Log modes are compared as unsigned values, so a negative mode is "large"
// and silences every line that depends on it.
inline bool logModeAtMost(int32_t mode, uint32_t most) {
  return static_cast<uint32_t>(mode) <= most;
}

}  // namespace quelta
