// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/log_prefix.h"

#include <cstdarg>
#include <cstring>
#include <string>

namespace quelta::replay {

namespace {

struct LogState {
  FILE* stream = nullptr;
  bool setup = true;
  size_t index = 0;
  double t = 0.0;
  bool atLineStart = true;
};

LogState state;

void writePrefix() {
  if (state.setup) {
    std::fputs("[setup] ", state.stream);
  } else {
    std::fprintf(state.stream, "[#%zu t=%.3f] ", state.index, state.t);
  }
}

}  // namespace

void setLogStream(FILE* stream) { state = LogState{stream}; }

void setLogSample(size_t index, double t) {
  state.setup = false;
  state.index = index;
  state.t = t;
}

int prefixedLog(const char* format, ...) {
  if (state.stream == nullptr) return 0;
  char small[512];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    return length;
  }
  std::string large;
  const char* text = small;
  if (static_cast<size_t>(length) >= sizeof small) {
    large.resize(static_cast<size_t>(length) + 1);
    std::vsnprintf(&large[0], large.size(), format, again);
    text = large.c_str();
  }
  va_end(again);

  const char* end = text + length;
  while (text < end) {
    if (state.atLineStart) writePrefix();
    const char* newline = static_cast<const char*>(std::memchr(text, '\n', static_cast<size_t>(end - text)));
    const char* stop = newline ? newline + 1 : end;
    std::fwrite(text, 1, static_cast<size_t>(stop - text), state.stream);
    state.atLineStart = newline != nullptr;
    text = stop;
  }
  return length;
}

}  // namespace quelta::replay
