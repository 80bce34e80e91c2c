// Cost of one full sample of the compass filter through libquelta's C
// interface, with and without gyroscope, on a tumbling hand-held motion
// (4096 samples at 50 Hz, replayed in a loop). The magnetic calibration is
// not included here: the field is passed calibrated.
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
  double acc[3], field[3], gyro[3];
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
      out[i] = {t, {a.x, a.y, a.z}, {m.x, m.y, m.z}, {w.x + 0.01, w.y - 0.01, w.z}};
    }
    return out;
  }();
  return samples;
}

void runCompass(benchmark::State& state, bool withGyro) {
  const std::vector<Sample>& samples = motion();
  quelta_compass compass;
  quelta_compass_init(&compass);
  quelta_compass_output out;
  size_t i = 0;
  double t0 = 0.0;
  for (auto _ : state) {
    const Sample& s = samples[i];
    quelta_compass_update(&compass, t0 + s.t, s.acc, s.field, nullptr, withGyro ? s.gyro : nullptr);
    quelta_compass_get_output(&compass, &out);
    benchmark::DoNotOptimize(out);
    if (++i == samples.size()) {
      i = 0;
      t0 += samples.back().t;
    }
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_CompassSampleWithGyro(benchmark::State& state) { runCompass(state, true); }
void BM_CompassSampleWithoutGyro(benchmark::State& state) { runCompass(state, false); }
BENCHMARK(BM_CompassSampleWithGyro);
BENCHMARK(BM_CompassSampleWithoutGyro);

}  // namespace

BENCHMARK_MAIN();
