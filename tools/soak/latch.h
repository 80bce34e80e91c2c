// SPDX-License-Identifier: Apache-2.0
// How long a quantity stays non-finite: episodes and the longest one, in
// sample sets; an episode still open at the end counts up to the end.
#pragma once

#include <cstdint>

namespace quelta::soak {

struct Latch {
  const char* name;
  int64_t since = -1;
  int64_t episodes = 0;
  int64_t longest = 0;
  bool openAtEnd = false;

  void observe(bool bad, int64_t t) {
    if (bad && since < 0) {
      since = t;
      ++episodes;
    } else if (!bad && since >= 0) {
      if (t - since > longest) longest = t - since;
      since = -1;
    }
  }

  void finish(int64_t t) {
    if (since < 0) return;
    openAtEnd = true;
    if (t - since > longest) longest = t - since;
  }
};

}  // namespace quelta::soak
