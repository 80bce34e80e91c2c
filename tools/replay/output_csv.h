// The per-sample output table of a replay, written row by row as the
// replay goes.
#pragma once

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/replay/replay_row.h"

namespace quelta::replay {

void writeOutputCsvHeader(FILE* out);
// One row. Floats are written in the shortest form that reads back as the
// exact same float; times with 9 significant digits.
void writeOutputCsvRow(FILE* out, const ReplayRow& row);

// The compass engine's table: the columns above whose meaning is the same
// (without pool and saturation), then its own.
void writeCompassCsvHeader(FILE* out);
void writeCompassCsvRow(FILE* out, const ReplayRow& row);

// Header, then one row per sample.
void writeOutputCsv(FILE* out, const std::vector<ReplayRow>& rows);

// Writes the table on a thread of its own, so that formatting the numbers
// overlaps the replay: rows are handed over in batches, in order.
class OutputCsvWriter {
 public:
  // Writes the header; compass: the compass engine's table.
  explicit OutputCsvWriter(FILE* out, bool compass = false);
  ~OutputCsvWriter();                   // finish()es
  OutputCsvWriter(const OutputCsvWriter&) = delete;
  OutputCsvWriter& operator=(const OutputCsvWriter&) = delete;

  void add(const ReplayRow& row);
  // Returns once every row added is written to the stream.
  void finish();

 private:
  static constexpr size_t kBatch = 4096;
  void handOver();
  void work();

  FILE* out_;
  bool compass_;
  std::vector<ReplayRow> filling_;
  std::vector<ReplayRow> writing_;  // the writer's batch; empty when it is free
  bool done_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace quelta::replay
