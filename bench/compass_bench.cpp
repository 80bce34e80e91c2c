// Cost of one full sample of the compass through libquelta's C interface,
// on a tumbling hand-held motion (4096 samples at 50 Hz with a phone-sized
// hard iron, replayed in a loop): the raw field calibrated inside by the
// magnetic layer, with and without gyroscope; and the filter alone on a
// field calibrated by the host.
#include <benchmark/benchmark.h>

#include <cmath>
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

}  // namespace

BENCHMARK_MAIN();
