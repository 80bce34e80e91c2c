// Trace lines of the calibration: emitted only while the host's log mode is
// 0 or 1 (compared unsigned) and a callback is registered.
#pragma once

#include <cstdint>

#include "core/log.h"

namespace quelta {

template <typename... Args>
inline void traceLine(int32_t iCalLogMode, const char* fmt, Args... args) {
  if (logModeAtMost(iCalLogMode, 1)) logLine(fmt, args...);
}

}  // namespace quelta
