// Feeds a recording through the library's C interface, sample by sample,
// in the order a host calls it, and hands what it reports to the caller as
// it goes: nothing is kept per sample. The library keeps process-wide
// state: one replay per process.
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
  // Called now and then with the number of samples done (total is 0 when
  // not known in advance), and once more at the end.
  std::function<void(size_t done, size_t total)> progress;
  // Called before each sample is given to the library, with its index and
  // time: lets a log callback say which sample a line belongs to.
  std::function<void(size_t index, double t)> beforeSample;
};

// Supplies the next sample; false at the end of the recording.
using SampleSource = std::function<bool(RecordedSample& sample)>;
// Receives each sample with what the library reported for it.
using RowSink = std::function<void(const RecordedSample& sample, const ReplayRow& row)>;

// Replays the samples of source; period is the recording's nominal sample
// interval (s), which the library is initialised with. total, if known,
// is only used for progress. Returns the number of samples replayed.
size_t replayStream(const SampleSource& source, double period, size_t total, const DriverOptions& options,
                    const RowSink& sink);

// Replays a recording held in memory and returns every row.
std::vector<ReplayRow> replayRecording(const Recording& recording, const DriverOptions& options);

}  // namespace quelta::replay
