// The pipeline's fixed-geometry filters against the general filters they
// stand in for: same storage bits and the same record after every call, over
// resets, NaN, signed zeros and ties, and on records of another geometry.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tools/sim/device_sim.h"
#include "vgyro/data_buffer.h"
#include "vgyro/pipeline_filters.h"
#include "vgyro/smoothing_filters.h"

namespace quelta {
namespace {

// A source and destination pair, twice: one driven by the general filter,
// one by the fixed-geometry filter.
template <int32_t InLen, int32_t OutLen>
struct Twin {
  float inData[2][3 * InLen] = {};
  float outData[2][3 * OutLen] = {};
  DataBuffer in[2], out[2];

  Twin() {
    for (int t = 0; t < 2; ++t) {
      bufferNew(in[t], inData[t], 3, InLen);
      bufferNew(out[t], outData[t], 3, OutLen);
    }
  }

  void clear() {
    for (int t = 0; t < 2; ++t) {
      bufferClear(in[t]);
      bufferClear(out[t]);
    }
  }

  void put(const float* v) {
    bufferPut(in[0], v);
    pipeline::put<InLen>(in[1], v);
  }

  void expectSame(int step) const {
    SCOPED_TRACE(step);
    EXPECT_EQ(0, std::memcmp(inData[0], inData[1], sizeof inData[0]));
    EXPECT_EQ(0, std::memcmp(outData[0], outData[1], sizeof outData[0]));
    for (const auto* pair : {in, out}) {
      EXPECT_EQ(pair[0].index, pair[1].index);
      EXPECT_EQ(pair[0].full, pair[1].full);
      EXPECT_EQ(pair[0].count, pair[1].count);
    }
    float newest[2][3];
    bufferGet(out[0], newest[0], 0);
    pipeline::getNewest<OutLen>(out[1], newest[1]);
    EXPECT_EQ(0, std::memcmp(newest[0], newest[1], sizeof newest[0]));
  }
};

// Values that probe the comparisons: ties, signed zeros, NaN and infinity
// among ordinary samples, and a run of negative zeros (sums started from +0
// turn them positive).
float probeValue(sim::Random& random, int step, int component) {
  if (step >= 300 && step < 306) return -0.0f;
  switch ((step * 3 + component) % 23) {
    case 4: return std::nanf("");
    case 9: return -0.0f;
    case 10: return 0.0f;
    case 15: return INFINITY;
    case 17: return 0.25f;
    case 18: return 0.25f;
    default: return static_cast<float>(random.uniform(-1.0, 1.0));
  }
}

constexpr float kB[2] = {0.06f, 0.06f};
constexpr float kA[2] = {1.0f, -0.88f};

TEST(PipelineFilters, MatchTheGeneralFiltersBitForBit) {
  sim::Random random(3);
  Twin<3, 2> median;
  Twin<2, 3> lowPass;
  Twin<3, 3> mean;
  Twin<2, 1> rateLowPass;
  for (int step = 0; step < 600; ++step) {
    if (step % 97 == 50) {
      median.clear();
      lowPass.clear();
      mean.clear();
      rateLowPass.clear();
    }
    float v[3];
    for (int j = 0; j < 3; ++j) v[j] = probeValue(random, step, j);

    median.put(v);
    medianFilter(median.in[0], median.out[0], 3);
    pipeline::medianOf3<3, 2>(median.in[1], median.out[1]);
    median.expectSame(step);

    lowPass.put(v);
    recursiveLowPass(lowPass.in[0], lowPass.out[0], kB, kA, 2, 2);
    pipeline::lowPass2<2, 3>(lowPass.in[1], lowPass.out[1], kB, kA);
    lowPass.expectSame(step);

    mean.put(v);
    movingMeanFilter(mean.in[0], mean.out[0], 3);
    pipeline::meanOf3<3, 3>(mean.in[1], mean.out[1]);
    mean.expectSame(step);

    rateLowPass.put(v);
    recursiveLowPass(rateLowPass.in[0], rateLowPass.out[0], kB, kA, 2, 2);
    pipeline::lowPass2<2, 1>(rateLowPass.in[1], rateLowPass.out[1], kB, kA);
    rateLowPass.expectSame(step);
  }
}

TEST(PipelineFilters, RecordsOfAnotherGeometryTakeTheGeneralPath) {
  // A host may rebind an exported record: a capacity of 4, or 2 components.
  float generalIn[12] = {}, generalOut[12] = {}, fixedIn[12] = {}, fixedOut[12] = {};
  DataBuffer gIn, gOut, fIn, fOut;
  for (int32_t dim : {3, 2}) {
    const int32_t len = dim == 3 ? 2 : 4;
    bufferNew(gIn, generalIn, dim, 4);
    bufferNew(gOut, generalOut, dim, len);
    bufferNew(fIn, fixedIn, dim, 4);
    bufferNew(fOut, fixedOut, dim, len);
    for (int step = 0; step < 9; ++step) {
      const float v[3] = {0.5f * step, -1.0f + step, 3.0f - 0.25f * step * step};
      bufferPut(gIn, v);
      pipeline::put<3>(fIn, v);
      EXPECT_EQ(medianFilter(gIn, gOut, 3), 0);
      pipeline::medianOf3<3, 2>(fIn, fOut);
      ASSERT_EQ(0, std::memcmp(generalIn, fixedIn, sizeof generalIn)) << dim << " " << step;
      ASSERT_EQ(0, std::memcmp(generalOut, fixedOut, sizeof generalOut)) << dim << " " << step;
      EXPECT_EQ(gOut.index, fOut.index);
      EXPECT_EQ(gOut.count, fOut.count);
    }
  }
}

}  // namespace
}  // namespace quelta
