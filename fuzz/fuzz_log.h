// SPDX-License-Identifier: Apache-2.0
// A log callback that formats every line with vsnprintf, so the arguments the
// library hands over are read exactly as a printf-style host reads them. The
// formats may only use %d, %f and %lf: anything else would make a real host's
// printf read arguments that are not there.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "fuzz/fuzz_input.h"

namespace quelta::fuzz {

inline void checkConversions(const char* fmt) {
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == 'd' || *p == 'f' || *p == '%') continue;
    FUZZ_CHECK(p[0] == 'l' && p[1] == 'f');
    ++p;
  }
}

inline volatile unsigned gLogSink = 0;

inline int formatLine(const char* fmt, ...) {
  checkConversions(fmt);
  char text[1024];
  va_list args;
  va_start(args, fmt);
  const int n = std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  FUZZ_CHECK(n >= 0);
  gLogSink = gLogSink + static_cast<unsigned>(n) + static_cast<unsigned char>(text[0]);
  return n;
}

}  // namespace quelta::fuzz
