// SPDX-License-Identifier: Apache-2.0
// The World Magnetic Model through libquelta.so's C interface: one full
// field (with its rates) and one expected field for the other layers, at
// places spread over the globe so no branch is always taken.
#include <benchmark/benchmark.h>

#include "quelta/quelta_geomag.h"

namespace {

struct Place {
  double lat, lon, height_m;
};
constexpr Place kPlaces[8] = {{47.4, 8.5, 400.0},   {-33.9, 151.2, 20.0}, {64.1, -21.9, 0.0},
                              {0.0, 120.0, 0.0},    {-80.0, 240.0, 1e5},  {35.7, 139.7, 40.0},
                              {86.0, 140.0, 0.0},   {-54.8, -68.3, 10.0}};

void BM_GeomagFieldAt(benchmark::State& state) {
  quelta_geomag_field f;
  unsigned i = 0;
  for (auto _ : state) {
    const Place& p = kPlaces[i++ & 7u];
    benchmark::DoNotOptimize(quelta_geomag_field_at(p.lat, p.lon, p.height_m, 2026.5, &f));
    benchmark::DoNotOptimize(f);
  }
}
BENCHMARK(BM_GeomagFieldAt);

void BM_GeomagExpectedAt(benchmark::State& state) {
  quelta_geomag_expected e;
  unsigned i = 0;
  for (auto _ : state) {
    const Place& p = kPlaces[i++ & 7u];
    benchmark::DoNotOptimize(quelta_geomag_expected_at(p.lat, p.lon, p.height_m, 2026.5, &e));
    benchmark::DoNotOptimize(e);
  }
}
BENCHMARK(BM_GeomagExpectedAt);

}  // namespace

BENCHMARK_MAIN();
