// SPDX-License-Identifier: Apache-2.0
// Feeds a recording through the library's C interface, sample by sample,
// in the order a host calls it, and hands what it reports to the caller as
// it goes: nothing is kept per sample. The library keeps process-wide
// state: one replay per process.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
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
  // The pipelines need a field on every row: a row without one (a sensor at
  // a lower rate) gets the previous row's, and rows before the first
  // reading get this one (gauss; the recording's first field reading).
  std::array<double, 3> firstField{};
  // Called now and then with the number of samples done (total is 0 when
  // not known in advance), and once more at the end.
  std::function<void(size_t done, size_t total)> progress;
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

// Hands each sample and its row to a sink running on a thread of its own,
// in order, in batches: whatever the sink does with them (writing the
// output table, the summary, the comparison, the report) overlaps the
// replay itself.
class RowPipeline {
 public:
  explicit RowPipeline(RowSink sink);
  ~RowPipeline();  // finish()es
  RowPipeline(const RowPipeline&) = delete;
  RowPipeline& operator=(const RowPipeline&) = delete;

  void add(const RecordedSample& sample, const ReplayRow& row);
  // Returns once the sink has had every pair added.
  void finish();

 private:
  static constexpr size_t kBatch = 2048;
  using Batch = std::vector<std::pair<RecordedSample, ReplayRow>>;
  void handOver();
  void work();

  RowSink sink_;
  Batch filling_;
  Batch working_;  // the sink's batch; empty when it is free
  bool done_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

// Replays a recording held in memory and returns every row.
std::vector<ReplayRow> replayRecording(const Recording& recording, const DriverOptions& options);

}  // namespace quelta::replay
