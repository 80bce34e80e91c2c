// SPDX-License-Identifier: Apache-2.0
// Cost per call of the exported entry points, through QueltaAlgo.so as a host
// loads it, on the hand-held recording at 50 sample sets per second.
// Every benchmark reports the time per call and a calls-per-second counter;
// the calibration benchmarks also report the accuracy they ran at.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "QueltaAlgo.h"
#include "bench/hand_held_run.h"

namespace quelta::bench {
namespace {

constexpr int kRecordingLength = 8192;  // a power of two: the replay wraps with a mask
constexpr int kWarmUpSets = 3000;       // the calibration settles and refits once

const std::vector<sim::SensorSample>& recording() {
  static const std::vector<sim::SensorSample> samples = handHeldRecording(kRecordingLength);
  return samples;
}

const std::vector<sim::SensorSample>& calibratedRecording() {
  static const std::vector<sim::SensorSample> samples = handHeldRecording(kRecordingLength, false);
  return samples;
}

const sim::SensorSample& sampleAt(const std::vector<sim::SensorSample>& r, size_t i) {
  return r[i & (kRecordingLength - 1)];
}

// With repetitions: the fastest repetition, next to the median, as the
// figure least disturbed by other work on the machine.
double fastest(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void reportRate(benchmark::State& state, const char* name) {
  state.counters[name] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// Calibrated from the start and kept fresh by refits: the steady state of a
// compass in use.
size_t warmUpCalibrated() {
  initialiseCalibration(true);
  const auto& r = recording();
  size_t i = 0;
  for (; i < kWarmUpSets; ++i) fullSampleSet(sampleAt(r, i));
  return i;
}

void BM_MainAlgorithmProcess_Accuracy3(benchmark::State& state) {
  const auto& r = recording();
  size_t i = warmUpCalibrated();
  for (auto _ : state) {
    const sim::SensorSample& s = sampleAt(r, i++);
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, kSilent);
  }
  reportRate(state, "calls/s");
  state.counters["accuracy"] = GetMagAccuracy();
}
BENCHMARK(BM_MainAlgorithmProcess_Accuracy3)->ComputeStatistics("min", fastest);

// An uncalibrated device being turned: the pool grows and the first partial
// fits run. When a fit lifts the accuracy, the host starts over at 0.
void BM_MainAlgorithmProcess_Accuracy0(benchmark::State& state) {
  initialiseCalibration(false);
  const auto& r = recording();
  size_t i = 0;
  int32_t restart = 1;
  int64_t restarts = 0;
  for (auto _ : state) {
    const sim::SensorSample& s = sampleAt(r, i++);
    MainAlgorithmProcess(s.acc, s.mag, s.mag, restart, kSilent);
    restart = 0;
    if (GetMagAccuracy() != 0) {
      initialiseCalibration(false);
      restart = 1;
      ++restarts;
    }
  }
  reportRate(state, "calls/s");
  state.counters["sets/restart"] =
      restarts == 0 ? 0.0 : static_cast<double>(state.iterations()) / static_cast<double>(restarts);
}
BENCHMARK(BM_MainAlgorithmProcess_Accuracy0)->ComputeStatistics("min", fastest);

// Sample sets of the recording from the calibrated state on, with the share
// of sets at accuracy 3 and the refit rate as counters.
template <typename SampleSet>
void runCalibratedSets(benchmark::State& state, SampleSet sampleSet) {
  const auto& r = recording();
  size_t i = warmUpCalibrated();
  int64_t atAccuracy3 = 0;
  int64_t refits = 0;
  for (auto _ : state) {
    const CalibrationStatus status = sampleSet(sampleAt(r, i++));
    atAccuracy3 += status.accuracy == 3;
    refits += status.newParameters;
  }
  reportRate(state, "sets/s");
  state.counters["accuracy3"] =
      benchmark::Counter(static_cast<double>(atAccuracy3), benchmark::Counter::kAvgIterations);
  state.counters["refits/1000"] = benchmark::Counter(
      1000.0 * static_cast<double>(refits), benchmark::Counter::kAvgIterations);
}

void BM_CalibrationSampleSet(benchmark::State& state) {
  runCalibratedSets(state, [](const sim::SensorSample& s) {
    float calibrated[3];
    return calibrationSampleSet(s, calibrated);
  });
}
BENCHMARK(BM_CalibrationSampleSet)->ComputeStatistics("min", fastest);

void BM_CalcQueltaGyro(benchmark::State& state) {
  const auto& r = calibratedRecording();
  size_t i = 0;
  for (auto _ : state) {
    const sim::SensorSample& s = sampleAt(r, i++);
    CalcQueltaGyro(s.mag, s.acc, 0, kSilent, kInterval);
  }
  reportRate(state, "calls/s");
}
BENCHMARK(BM_CalcQueltaGyro)->ComputeStatistics("min", fastest);

void BM_CalcQueltaRotVec(benchmark::State& state) {
  const auto& r = calibratedRecording();
  size_t i = 0;
  for (auto _ : state) {
    const sim::SensorSample& s = sampleAt(r, i++);
    CalcQueltaRotVec(s.mag, s.acc, kSilent);
  }
  reportRate(state, "calls/s");
}
BENCHMARK(BM_CalcQueltaRotVec)->ComputeStatistics("min", fastest);

void BM_FullSampleSet(benchmark::State& state) {
  runCalibratedSets(state, [](const sim::SensorSample& s) { return fullSampleSet(s); });
}
BENCHMARK(BM_FullSampleSet)->ComputeStatistics("min", fastest);

}  // namespace
}  // namespace quelta::bench

BENCHMARK_MAIN();
