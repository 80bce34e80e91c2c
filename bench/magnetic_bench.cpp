// SPDX-License-Identifier: Apache-2.0
// Cost of the magnetic layer per sample: calibration (store, fits, quality)
// and disturbance together, through the C interface, averaged over a whole
// simulated minute of hand-held motion from the first sample (convergence
// included) at 50 Hz and at 200 Hz (the fits are time-based, so their share
// per sample falls with the rate), with a magnet attached half-way (change
// detection and adoption), and over five minutes at 50 Hz; and with the
// gyroscope (the rotations' evidence about the offset, as the compass runs
// the calibration) at 50 Hz.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "quelta/magnetic/mag_calibrator.h"
#include "quelta/quelta_magnetic.h"
#include "tools/sim/magnetic_sim.h"

namespace {

struct Stream {
  std::vector<double> t, mag, acc, gyro;
};

// The mean body rate (rad/s, device axes) between two attitudes dt apart.
void bodyRate(const quelta::sim::Quat& a, const quelta::sim::Quat& b, double dt, double out[3]) {
  quelta::sim::Quat d = quelta::sim::quatMultiply(quelta::sim::quatConjugate(a), b);
  if (d.w < 0.0) d = {-d.w, -d.x, -d.y, -d.z};
  const double s = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
  const double k = s > 1e-15 ? 2.0 * std::atan2(s, d.w) / (s * dt) : 2.0 / dt;
  out[0] = k * d.x;
  out[1] = k * d.y;
  out[2] = k * d.z;
}

Stream makeStream(double rate, bool magnet, double seconds) {
  Stream s;
  quelta::sim::SoftIronDevice dev;
  double mag[3], acc[3];
  for (double t = 0.0; t < seconds; t += 1.0 / rate) {
    if (magnet && t >= seconds / 2) dev.hardIron = {0.2, 0.1, 2.5};
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    double w[3];
    bodyRate(quelta::sim::unevenHandMotion(t - 1.0 / rate), quelta::sim::unevenHandMotion(t), 1.0 / rate, w);
    s.gyro.insert(s.gyro.end(), w, w + 3);
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
// With the gyroscope, through the calibrator the compass holds.
void BM_MagneticPerSampleWithGyro50Hz(benchmark::State& state) {
  const Stream s = makeStream(50.0, false, 60.0);
  static quelta::magnetic::Calibrator cal;
  quelta::magnetic::SampleOutput out;
  const size_t n = s.t.size();
  for (auto _ : state) {
    cal.reset();
    for (size_t i = 0; i < n; ++i) out = cal.update(s.t[i], &s.mag[3 * i], &s.acc[3 * i], &s.gyro[3 * i]);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
  state.counters["ns_per_sample"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(n) * 1e-9,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
void BM_MagneticPerSample200Hz(benchmark::State& state) { run(state, 200.0, false); }
void BM_MagneticPerSampleMagnet50Hz(benchmark::State& state) { run(state, 50.0, true); }
// Five minutes: mostly the calibrated steady state.
void BM_MagneticPerSample50HzFiveMinutes(benchmark::State& state) { run(state, 50.0, false, 300.0); }

}  // namespace

BENCHMARK(BM_MagneticPerSample50Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSampleWithGyro50Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSample200Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSampleMagnet50Hz)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MagneticPerSample50HzFiveMinutes)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
