// SPDX-License-Identifier: Apache-2.0
// Ring buffers and the median, mean and low-pass filters between them, and
// the pipeline's fixed-geometry filters against the general ones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"
#include "vgyro/data_buffer.h"
#include "vgyro/pipeline_filters.h"
#include "vgyro/smoothing_filters.h"

namespace {

using V = std::vector<float>;
using I = std::vector<int32_t>;

// A ring buffer with its own storage, pre-filled with -99.
struct Buffer {
  V storage;
  DataBuffer rec;
  Buffer(int32_t dim, int32_t len) : storage(dim * len, -99.0f) { bfNew(&rec, storage.data(), dim, len); }
  void put(V s) { bfPut(&rec, s.data()); }
  V get(int32_t k = 0, int32_t result = 0) const {
    V out(rec.dim, -7.0f);
    EXPECT_EQ(bfGet(&rec, out.data(), k), result) << "k=" << k;
    return out;
  }
  I state() const { return {rec.index, rec.full, rec.count}; }
};

const V kZero{0.0f, 0.0f, 0.0f};

TEST(RingBuffer, FillsWrapsAndBecomesFullOnlyOnTheWrappingPut) {
  Buffer buf(3, 3);
  buf.put({1, 2, 3});
  buf.put({4, 5, 6});
  // Components are planes: x of slots 0..2, then y, then z; slot 2 untouched.
  EXPECT_EQ(buf.storage, (V{1, 4, -99, 2, 5, -99, 3, 6, -99}));
  buf.put({7, 8, 9});
  EXPECT_EQ(buf.state(), (I{2, 0, 3}));  // holds len samples, yet not full
  EXPECT_EQ(buf.get(2), (V{1, 2, 3}));
  EXPECT_EQ(buf.get(3, 1), kZero);
  buf.put({10, 11, 12});
  EXPECT_EQ(buf.state(), (I{0, 1, 3}));
  EXPECT_EQ(buf.get(0), (V{10, 11, 12}));
  EXPECT_EQ(buf.get(2), (V{4, 5, 6}));
  EXPECT_EQ(buf.get(-1, 1), kZero);  // negative k is refused, never a stale slot
  bfClear(&buf.rec);
  EXPECT_EQ(buf.state(), (I{-1, 0, 0}));
  EXPECT_EQ(buf.storage[0], 10.0f);  // values stay, unreachable
  EXPECT_EQ(buf.get(0, 1), kZero);
}

TEST(SmoothingFilters, MedianAndMeanOverYoungAndWrappedSourcesAndTheirRefusals) {
  Buffer src(3, 3), dst(3, 2);
  const struct {
    V put;
    int32_t window;
    V median;
  } steps[] = {
      {{4, 1, -2}, 3, {4, 1, -2}},           // one sample: itself
      {{1, 2, -3}, 3, {2.5f, 1.5f, -2.5f}},  // two samples: their average
      {{5, 2, 9}, 3, {4, 2, -2}},            // newest first: x 5 1 4, y 2 2 1, z 9 -3 -2
      {{3, 2, 9}, 3, {3, 2, 9}},             // wrapped: the newest three only
      {{}, 2, {4, 2, 9}},                    // a window of 2: the average of the two newest
  };
  for (const auto& s : steps) {
    if (!s.put.empty()) src.put(s.put);
    ASSERT_EQ(medFilter(&src.rec, &dst.rec, s.window), 0);
    EXPECT_EQ(dst.get(), s.median);
  }

  Buffer in(3, 3), out(3, 3), empty(3, 3);
  in.put({1, 10, -4});
  in.put({2, 20, 5});
  ASSERT_EQ(meanFilter(&in.rec, &out.rec, 3), 0);
  EXPECT_EQ(out.get(), (V{1.5f, 15.0f, 0.5f}));  // divided by 2, not 3
  ASSERT_EQ(meanFilter(&empty.rec, &out.rec, 3), 0);  // an empty window appends not-a-number
  EXPECT_TRUE(std::isnan(out.get()[1]));

  // Refusals leave the destination untouched.
  Buffer narrow(2, 2), lpfOne(3, 1), untouched(3, 2);
  const float b[3] = {0.3f, 0.3f, 0.4f}, a[3] = {1.0f, 0.0f, 0.0f};
  EXPECT_EQ(medFilter(&src.rec, &narrow.rec, 3), 1);  // other width
  EXPECT_EQ(medFilter(&src.rec, &untouched.rec, 4), 1);     // longer than the source
  EXPECT_EQ(medFilter(&empty.rec, &untouched.rec, 3), 1);   // empty window
  EXPECT_EQ(meanFilter(&src.rec, &narrow.rec, 3), 1);
  EXPECT_EQ(meanFilter(&src.rec, &untouched.rec, 4), 1);
  EXPECT_EQ(LPF(&src.rec, &lpfOne.rec, b, a, 2, 3), 1);  // feedback taps beyond the destination
  EXPECT_EQ(untouched.storage, V(6, -99.0f));
  EXPECT_TRUE(untouched.rec.index == -1 && narrow.rec.index == -1 && lpfOne.rec.index == -1);
}

TEST(SmoothingFilters, LowPassWarmsUpWithTheRawInputThenRunsTheDifferenceEquation) {
  const float b[2] = {0.06f, 0.06f}, a[2] = {1.0f, -0.88f};
  Buffer src(3, 2), dst(3, 3);
  src.put({1, -2, 4});
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_EQ(dst.get(), (V{1, -2, 4}));
  src.put({3, 0.5f, 4});
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  // Newest input 3, previous input 1, previous output 1.
  EXPECT_EQ(dst.get()[0], ((0.0f + b[0] * 3.0f) + b[1] * 1.0f - (0.0f + a[1] * 1.0f)) / a[0]);
  bfClear(&src.rec);
  bfClear(&dst.rec);
  for (int i = 0; i < 12; ++i) {  // a constant passes exactly
    src.put({3.7f, 3.7f, 3.7f});
    LPF(&src.rec, &dst.rec, b, a, 2, 2);
    ASSERT_EQ(dst.get(), V(3, 3.7f)) << i;
  }
  // A capacity-one destination feeds back its only sample.
  const float b2[2] = {0.15f, 0.15f}, a2[2] = {1.0f, -0.7f};
  Buffer pulse(3, 2), one(3, 1);
  for (float x : {2.0f, 0.0f, 0.0f}) {
    pulse.put({x, 0, 0});
    ASSERT_EQ(LPF(&pulse.rec, &one.rec, b2, a2, 2, 2), 0);
  }
  EXPECT_NEAR(one.get()[0], 0.7 * (0.15 * 2 + 0.7 * 2), 1e-6);

  const float x[2] = {1.0f, 1.0f};
  float y[2] = {1.0f, 0.0f};
  EXPECT_EQ(LPF1(x, y), 0);
  EXPECT_EQ(V(y, y + 2), (V{1.0f, 1.0f}));
}

}  // namespace

// The fixed-geometry filters must leave the same storage bits and the same
// record as the general filters after every call, over resets, NaN, signed
// zeros and ties, and on records of another geometry.
namespace quelta {
namespace {

// Ties, signed zeros, NaN and infinity among ordinary samples, and a run of
// negative zeros (sums started from +0 turn them positive).
float probeValue(sim::Random& random, int step, int component) {
  static const float probes[6] = {NAN, -0.0f, 0.0f, INFINITY, 0.25f, 0.25f};
  const int k = (step * 3 + component) % 23;
  if (step >= 300 && step < 306) return -0.0f;
  return k < 6 ? probes[k] : static_cast<float>(random.uniform(-1.0, 1.0));
}

// Drives twin records of the given geometry, one through the general filter
// and one through the stand-in built for (InLen, OutLen) x 3, which must take
// the general path on any other geometry.
template <int32_t InLen, int32_t OutLen, typename General, typename Fixed>
void expectSame(int32_t dim, int32_t inLen, int32_t outLen, General general, Fixed fixed) {
  sim::Random random(3);
  float inData[2][12] = {}, outData[2][12] = {};
  DataBuffer in[2], out[2];
  for (int step = 0; step < 600; ++step) {
    for (int t = 0; step % 97 == 0 && t < 2; ++t) {
      bufferNew(in[t], inData[t], dim, inLen);
      bufferNew(out[t], outData[t], dim, outLen);
    }
    float v[3], newest[2][3] = {};
    for (int j = 0; j < 3; ++j) v[j] = probeValue(random, step, j);
    bufferPut(in[0], v);
    pipeline::put<InLen>(in[1], v);
    general(in[0], out[0]);
    fixed(in[1], out[1]);
    bufferGet(out[0], newest[0], 0);
    pipeline::getNewest<OutLen>(out[1], newest[1]);
    SCOPED_TRACE(testing::Message() << "geometry " << dim << "x" << inLen << ">" << outLen << " step " << step);
    ASSERT_EQ(0, std::memcmp(inData[0], inData[1], sizeof inData[0]));
    ASSERT_EQ(0, std::memcmp(outData[0], outData[1], sizeof outData[0]));
    ASSERT_EQ(0, std::memcmp(newest[0], newest[1], sizeof newest[0]));
    for (const DataBuffer* pair : {in, out}) {
      ASSERT_TRUE(pair[0].index == pair[1].index && pair[0].full == pair[1].full && pair[0].count == pair[1].count);
    }
  }
}

TEST(PipelineFilters, MatchTheGeneralFiltersBitForBit) {
  static constexpr float b[2] = {0.06f, 0.06f}, a[2] = {1.0f, -0.88f};
  const auto median = [](DataBuffer& i, DataBuffer& o) { medianFilter(i, o, 3); };
  const auto fixedMedian = [](DataBuffer& i, DataBuffer& o) { pipeline::medianOf3<3, 2>(i, o); };
  const auto lowPass = [](DataBuffer& i, DataBuffer& o) { recursiveLowPass(i, o, b, a, 2, 2); };
  expectSame<3, 2>(3, 3, 2, median, fixedMedian);
  expectSame<2, 3>(3, 2, 3, lowPass, [](DataBuffer& i, DataBuffer& o) { pipeline::lowPass2<2, 3>(i, o, b, a); });
  expectSame<2, 1>(3, 2, 1, lowPass, [](DataBuffer& i, DataBuffer& o) { pipeline::lowPass2<2, 1>(i, o, b, a); });
  expectSame<3, 3>(3, 3, 3, [](DataBuffer& i, DataBuffer& o) { movingMeanFilter(i, o, 3); },
                   [](DataBuffer& i, DataBuffer& o) { pipeline::meanOf3<3, 3>(i, o); });
  // A host may rebind an exported record: a capacity of 4, or 2 components.
  expectSame<3, 2>(3, 4, 2, median, fixedMedian);
  expectSame<3, 2>(2, 3, 4, median, fixedMedian);
}

}  // namespace
}  // namespace quelta
