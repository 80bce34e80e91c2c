// Cost of the magnetic layer per sample: calibration (store, fits, quality)
// and disturbance together, through the C interface, averaged over a whole
// simulated minute of hand-held motion from the first sample (convergence
// included) at 50 Hz and at 200 Hz (the fits are time-based, so their share
// per sample falls with the rate), with a magnet attached half-way (change
// detection and adoption), and over five minutes at 50 Hz.
#include <benchmark/benchmark.h>

#include <vector>

#include "quelta/quelta_magnetic.h"
#include "tools/sim/magnetic_sim.h"

namespace {

struct Stream {
  std::vector<double> t, mag, acc;
};

Stream makeStream(double rate, bool magnet, double seconds) {
  Stream s;
  quelta::sim::SoftIronDevice dev;
  double mag[3], acc[3];
  for (double t = 0.0; t < seconds; t += 1.0 / rate) {
    if (magnet && t >= seconds / 2) dev.hardIron = {0.2, 0.1, 2.5};
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    s.t.push_back(t);
    s.mag.insert(s.mag.end(), mag, mag + 3);
    s.acc.insert(s.acc.end(), acc, acc + 3);
  }
  return s;
}

void run(benchmark::State& state, double rate, bool magnet, double seconds = 60.0) {
  const Stream s = makeStream(rate, magnet, seconds);
  static quelta_mag_state cal;
  quelta_mag_sample out;
  const size_t n = s.t.size();
  for (auto _ : state) {
    quelta_mag_init(&cal);
    for (size_t i = 0; i < n; ++i) quelta_mag_update(&cal, s.t[i], &s.mag[3 * i], &s.acc[3 * i], &out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
  state.counters["ns_per_sample"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(n) * 1e-9,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_MagneticPerSample50Hz(benchmark::State& state) { run(state, 50.0, false); }
void BM_MagneticPerSample200Hz(benchmark::State& state) { run(state, 200.0, false); }
void BM_MagneticPerSampleMagnet50Hz(benchmark::State& state) { run(state, 50.0, true); }
// Five minutes: mostly the calibrated steady state.
void BM_MagneticPerSample50HzFiveMinutes(benchmark::State& state) { run(state, 50.0, false, 300.0); }

}  // namespace

BENCHMARK(BM_MagneticPerSample50Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSample200Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSampleMagnet50Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSample50HzFiveMinutes)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
