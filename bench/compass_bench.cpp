// SPDX-License-Identifier: Apache-2.0
// Cost of one full sample of the compass through libquelta's C interface,
// on a tumbling hand-held motion (4096 samples at 50 Hz with a phone-sized
// hard iron, replayed in a loop): the raw field calibrated inside by the
// magnetic layer, with and without gyroscope; and the filter alone on a
// field calibrated by the host.
//
// Instructions per sample of the filter alone (calibrated field, with
// gyroscope), a figure that unlike times is stable on a shared machine:
//
//   valgrind --tool=callgrind --toggle-collect=quelta_measured_filter_samples \
//     bench/quelta_bench_compass --count 20000
//
// and divide the summary by the count (the run first settles the filter
// for one pass of the motion, outside the measured function). The count
// includes the C interface's own work (the units check of the readings) and
// the whole compass's checks around the filter; callgrind_annotate's
// inclusive figure of CompassFilter::update is the filter alone.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quelta/compass/compass_math.h"
#include "quelta/quelta.h"

namespace {

using quelta::compass::Quat;
using quelta::compass::Vec3;

struct Sample {
  double t;
  double acc[3], raw[3], field[3], gyro[3];
};

const std::vector<Sample>& motion() {
  static const std::vector<Sample> samples = [] {
    std::vector<Sample> out(4096);
    Quat q;
    const Vec3 up{0, 0, 1}, field{0.0, 0.22, -0.35};
    for (size_t i = 0; i < out.size(); ++i) {
      const double t = 0.02 * static_cast<double>(i + 1);
      const Vec3 w{1.5 * std::sin(0.9 * t), 1.1 * std::cos(0.6 * t), 2.0 * std::sin(0.25 * t)};
      q = quelta::compass::normalised(q * quelta::compass::fromRotationVector(0.02 * w));
      const Vec3 a = quelta::compass::rotateBack(q, up + Vec3{0.1 * std::sin(11.0 * t), 0.0, 0.05 * std::cos(13.0 * t)});
      const Vec3 m = quelta::compass::rotateBack(q, field);
      const Vec3 raw = m + Vec3{0.6, -0.6, 4.1};
      out[i] = {t, {a.x, a.y, a.z}, {raw.x, raw.y, raw.z}, {m.x, m.y, m.z}, {w.x + 0.01, w.y - 0.01, w.z}};
    }
    return out;
  }();
  return samples;
}

quelta_compass compass;  // 24 KiB: not on the benchmark's stack

void runCompass(benchmark::State& state, bool withGyro, bool calibrated) {
  const std::vector<Sample>& samples = motion();
  quelta_compass_init(&compass);
  quelta_compass_output out;
  size_t i = 0;
  double t0 = 0.0;
  for (auto _ : state) {
    const Sample& s = samples[i];
    if (calibrated) {
      quelta_compass_update_calibrated(&compass, t0 + s.t, s.acc, s.field, nullptr, withGyro ? s.gyro : nullptr);
    } else {
      quelta_compass_update(&compass, t0 + s.t, s.acc, s.raw, withGyro ? s.gyro : nullptr);
    }
    quelta_compass_get_output(&compass, &out);
    benchmark::DoNotOptimize(out);
    if (++i == samples.size()) {
      i = 0;
      t0 += samples.back().t;
    }
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_CompassSampleWithGyro(benchmark::State& state) { runCompass(state, true, false); }
void BM_CompassSampleWithoutGyro(benchmark::State& state) { runCompass(state, false, false); }
void BM_CompassFilterOnlyWithGyro(benchmark::State& state) { runCompass(state, true, true); }
BENCHMARK(BM_CompassSampleWithGyro)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_CompassSampleWithoutGyro)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_CompassFilterOnlyWithGyro)->Repetitions(5)->ReportAggregatesOnly(true);


// n samples of the filter alone from sample first of the motion on.
__attribute__((noinline)) double filterSamples(quelta_compass* state, size_t first, size_t n, double t0) {
  const std::vector<Sample>& samples = motion();
  quelta_compass_output out;
  double sum = 0.0;
  for (size_t k = 0; k < n; ++k) {
    const size_t i = (first + k) % samples.size();
    const double wraps = static_cast<double>((first + k) / samples.size());
    const Sample& s = samples[i];
    quelta_compass_update_calibrated(state, t0 + wraps * samples.back().t + s.t, s.acc, s.field, nullptr, s.gyro);
    quelta_compass_get_output(state, &out);
    sum += out.azimuth_deg;
  }
  return sum;
}

}  // namespace

// The measured loop for callgrind (its callees are counted, the settling
// run before it is not).
extern "C" __attribute__((noinline)) double quelta_measured_filter_samples(quelta_compass* state, size_t n,
                                                                           double t0) {
  return filterSamples(state, 0, n, t0);
}

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--count") == 0) {
    const size_t n = static_cast<size_t>(std::strtoul(argv[2], nullptr, 10));
    quelta_compass_init(&compass);
    const double settle = filterSamples(&compass, 0, motion().size(), 0.0);
    const double sum = quelta_measured_filter_samples(&compass, n, motion().back().t);
    std::printf("%zu filter samples measured (%.3f)\n", n, settle + sum);
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
