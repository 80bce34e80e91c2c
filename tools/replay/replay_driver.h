// Feeds a recording through the library's C interface, sample by sample,
// in the order a host calls it, and collects what it reports. The library
// keeps process-wide state: one replay per process.
#pragma once

#include <functional>
#include <vector>

#include "QueltaAlgo.h"
#include "tools/replay/algo_setup.h"
#include "tools/replay/recording.h"
#include "tools/replay/replay_row.h"

namespace quelta::replay {

struct DriverOptions {
  AlgoSetup setup;
  LogCallback log = nullptr;  // registered through AlgoInitial
  int32_t logMode = 1;        // given to all three pipelines
  // Called now and then with the number of samples done.
  std::function<void(size_t done, size_t total)> progress;
};

std::vector<ReplayRow> replayRecording(const Recording& recording, const DriverOptions& options);

}  // namespace quelta::replay
