// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/replay_driver.h"

#include <cmath>

#include "tools/replay/log_prefix.h"

namespace quelta::replay {

namespace {

std::array<float, 3> toFloats(const std::array<double, 3>& v) {
  return {static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2])};
}

void initialise(double period, const DriverOptions& options) {
  const AlgoSetup& setup = options.setup;
  const long periodMs = std::lround(period * 1000.0);
  const int32_t paraC[3] = {static_cast<int32_t>(periodMs), setup.windows[0], setup.windows[1]};
  AlgoInitial(setup.axis.data(), setup.stored.data(), setup.pool.data(), setup.thresholds.data(), paraC,
              options.log);
}

}  // namespace

size_t replayStream(const SampleSource& source, double period, size_t total, const DriverOptions& options,
                    const RowSink& sink) {
  initialise(period, options);
  const int32_t mode = options.logMode;
  // Progress every percent when the total is known, else every 64k samples.
  const size_t progressStep = total > 0 ? total / 100 + 1 : 65536;
  RecordedSample sample;
  ReplayRow row;
  size_t count = 0;
  double previousT = 0.0;
  std::array<double, 3> heldField = options.firstField;
  while (source(sample)) {
    if (count == 0) previousT = sample.t - period;
    if (sample.hasMag) heldField = sample.mag;
    const std::array<float, 3> acc = toFloats(sample.acc);
    const std::array<float, 3> mag = toFloats(heldField);
    row = ReplayRow{};
    row.t = sample.t;
    row.fieldMissing = !sample.hasMag;
    setLogSample(count, sample.t);  // the prefix of the library's log lines

    // Calibration and orientation: the field itself is the saturation probe.
    MainAlgorithmProcess(acc.data(), mag.data(), mag.data(), 0, mode);
    row.poolCount = GetCalMag(row.calField.data());
    GetRawMag(row.rawField.data());
    GetCalOri(row.orientation.data());
    row.accuracy = GetMagAccuracy();
    float parameters[7];
    row.newCalibration = GetCalPara(parameters) == 1;
    row.offset = {parameters[0], parameters[1], parameters[2]};
    row.radius = parameters[3];
    row.geometry = {parameters[4], parameters[5], parameters[6]};
    row.saturation = GetMagSaturation() == 1;

    // Virtual gyroscope and rotation vector, both on the calibrated field.
    const float interval = static_cast<float>(sample.t - previousT);
    previousT = sample.t;
    CalcQueltaGyro(row.calField.data(), acc.data(), 0, mode, interval);
    GetCalGyr(row.vgyro.data());
    GetRotVec_InVG(row.vgyroQuat.data());
    CalcQueltaRotVec(row.calField.data(), acc.data(), mode);
    GetCalRov(row.rotVec.data());
    GetQueltaGravityAcc(row.gravity.data());
    GetQueltaLinearAcc(row.linearAcc.data());

    sink(sample, row);
    ++count;
    if (options.progress && count % progressStep == 0) options.progress(count, total);
  }
  if (options.progress) options.progress(count, total);
  return count;
}

RowPipeline::RowPipeline(RowSink sink) : sink_(std::move(sink)) {
  filling_.reserve(kBatch);
  working_.reserve(kBatch);
  thread_ = std::thread([this] { work(); });
}

RowPipeline::~RowPipeline() { finish(); }

void RowPipeline::add(const RecordedSample& sample, const ReplayRow& row) {
  filling_.emplace_back(sample, row);
  if (filling_.size() == kBatch) handOver();
}

void RowPipeline::handOver() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return working_.empty(); });
  working_.swap(filling_);
  changed_.notify_all();
}

void RowPipeline::finish() {
  if (!thread_.joinable()) return;
  if (!filling_.empty()) handOver();
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return working_.empty(); });
    done_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void RowPipeline::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return done_ || !working_.empty(); });
    if (working_.empty()) return;  // done, and nothing left
    lock.unlock();
    for (const auto& [sample, row] : working_) sink_(sample, row);
    lock.lock();
    working_.clear();
    changed_.notify_all();
  }
}

std::vector<ReplayRow> replayRecording(const Recording& recording, const DriverOptions& options) {
  std::vector<ReplayRow> rows;
  rows.reserve(recording.samples.size());
  size_t next = 0;
  replayStream(
      [&](RecordedSample& sample) {
        if (next == recording.samples.size()) return false;
        sample = recording.samples[next++];
        return true;
      },
      recording.nominalPeriod(), recording.samples.size(), options,
      [&rows](const RecordedSample&, const ReplayRow& row) { rows.push_back(row); });
  return rows;
}

}  // namespace quelta::replay
