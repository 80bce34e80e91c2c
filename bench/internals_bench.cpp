// SPDX-License-Identifier: Apache-2.0
// Internal steps that no exported function runs alone, linked from the static
// archive: the sphere fit of a full pool.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "magcal/sphere_fit.h"
#include "tools/sim/device_sim.h"

namespace quelta::bench {
namespace {

// A full pool as the calibration gathers it: 32 samples spread over the
// field sphere about the simulated hard-iron offset, with sensor noise.
void fillPool(CalibrationPool::Samples& pool, int n) {
  sim::Device device;
  sim::Random noise(7);
  for (int i = 0; i < n; ++i) {
    const sim::Vec3 d = sim::fibonacciDirection(i, n);
    const double r = device.field.strengthGauss;
    pool[i][0] = static_cast<float>(device.hardIron.x + r * d.x + noise.uniform(-0.002, 0.002));
    pool[i][1] = static_cast<float>(device.hardIron.y + r * d.y + noise.uniform(-0.002, 0.002));
    pool[i][2] = static_cast<float>(device.hardIron.z + r * d.z + noise.uniform(-0.002, 0.002));
  }
}

// With repetitions: the fastest repetition, next to the median.
double fastest(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void BM_SphereFit32(benchmark::State& state) {
  constexpr int kSamples = 32;
  CalibrationPool::Samples pool = {};
  fillPool(pool, kSamples);
  int32_t accepted = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pool);
    const SphereFitResult fit = fitSphere(pool, kSamples, 0.85f, 1.15f, 2);
    accepted = fit.accepted ? 1 : 0;
    benchmark::DoNotOptimize(fit);
  }
  state.counters["fits/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["accepted"] = accepted;
}
BENCHMARK(BM_SphereFit32)->ComputeStatistics("min", fastest);

}  // namespace
}  // namespace quelta::bench

BENCHMARK_MAIN();
