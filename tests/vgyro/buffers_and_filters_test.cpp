// Ring buffers and the median, mean and low-pass filters between them.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "QueltaAlgo.h"

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
  EXPECT_EQ(buf.state(), (I{-1, 0, 0}));
  EXPECT_EQ(buf.get(0, 1), kZero);
  buf.put({1, 2, 3});
  buf.put({4, 5, 6});
  // Components are planes: x of slots 0..2, then y, then z; slot 2 untouched.
  EXPECT_EQ(buf.storage, (V{1, 4, -99, 2, 5, -99, 3, 6, -99}));
  EXPECT_EQ(buf.get(1), (V{1, 2, 3}));
  EXPECT_EQ(buf.get(2, 1), kZero);
  buf.put({7, 8, 9});
  EXPECT_EQ(buf.state(), (I{2, 0, 3}));  // holds len samples, yet not full
  EXPECT_EQ(buf.get(2), (V{1, 2, 3}));
  EXPECT_EQ(buf.get(3, 1), kZero);
  buf.put({10, 11, 12});
  EXPECT_EQ(buf.state(), (I{0, 1, 3}));
  EXPECT_EQ(buf.storage[0], 10.0f);  // the oldest slot was overwritten
  EXPECT_EQ(buf.get(0), (V{10, 11, 12}));
  EXPECT_EQ(buf.get(2), (V{4, 5, 6}));
  EXPECT_EQ(buf.get(-1, 1), kZero);  // negative k is refused, never a stale slot
  bfClear(&buf.rec);
  EXPECT_EQ(buf.state(), (I{-1, 0, 0}));
  EXPECT_TRUE(buf.rec.len == 3 && buf.storage[0] == 10.0f);  // values stay, unreachable
  EXPECT_EQ(buf.get(0, 1), kZero);
}

TEST(RingBuffer, ExportedInstancesAreCreatedAndClearedTogether) {
  CreateDataBuffer();
  DataBuffer* const records[] = {&bfMagRaw, &bfMagMed, &bfMagLPF, &bfMagMean, &bfAccRaw,
                                 &bfAccMed, &bfAccLPF, &bfAccMean, &bfWRaw,    &bfWFilter};
  const float* const storage[] = {bfMagRawData, bfMagMedData, bfMagLPFData, bfMagMeanData, bfAccRawData,
                                  bfAccMedData, bfAccLPFData, bfAccMeanData, bfWRawData,    bfWFilterData};
  const int32_t lengths[] = {3, 2, 3, 3, 3, 2, 3, 3, 2, 1};
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(records[i]->data == storage[i] && records[i]->dim == 3 && records[i]->len == lengths[i]) << i;
    bfPut(records[i], kZero.data());
  }
  ClearDataBuffer();  // all of them, storage and length kept
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(records[i]->index == -1 && records[i]->count == 0 && records[i]->data == storage[i]) << i;
}

TEST(SmoothingFilters, MedianAndMeanOverYoungAndWrappedSources) {
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
  EXPECT_EQ(dst.state(), (I{0, 1, 2}));

  Buffer in(3, 3), out(3, 3), empty(3, 3);
  in.put({1, 10, -4});
  in.put({2, 20, 5});
  ASSERT_EQ(meanFilter(&in.rec, &out.rec, 3), 0);
  EXPECT_EQ(out.get(), (V{1.5f, 15.0f, 0.5f}));  // divided by 2, not 3
  in.put({1, 0, 2});
  in.put({16777216.0f, 0.6f, 0.9f});
  ASSERT_EQ(meanFilter(&in.rec, &out.rec, 3), 0);
  // Newest first from 0, in float: 2^24 + 1 rounds back to 2^24.
  EXPECT_EQ(out.get()[0], (((0.0f + 16777216.0f) + 1.0f) + 2.0f) / 3.0f);
  // An empty window appends not-a-number.
  ASSERT_EQ(meanFilter(&empty.rec, &out.rec, 3), 0);
  EXPECT_TRUE(std::isnan(out.get()[1]));
  ASSERT_EQ(meanFilter(&in.rec, &out.rec, 0), 0);
  EXPECT_TRUE(std::isnan(out.get()[2]));
}

TEST(SmoothingFilters, RefusalsLeaveTheDestinationUntouched) {
  Buffer src(3, 3), dst(3, 2), narrow(2, 2), empty(3, 3), lpfSource(3, 2), lpfOne(3, 1);
  src.put({1, 2, 3});
  lpfSource.put({1, 1, 1});
  const float b[3] = {0.3f, 0.3f, 0.4f}, a[3] = {1.0f, 0.0f, 0.0f};
  EXPECT_EQ(medFilter(&src.rec, &narrow.rec, 3), 1);  // other width
  EXPECT_EQ(medFilter(&src.rec, &dst.rec, 4), 1);     // longer than the source
  EXPECT_EQ(medFilter(&empty.rec, &dst.rec, 3), 1);   // empty window
  EXPECT_EQ(medFilter(&src.rec, &dst.rec, 0), 1);
  EXPECT_EQ(meanFilter(&src.rec, &narrow.rec, 3), 1);
  EXPECT_EQ(meanFilter(&src.rec, &dst.rec, 4), 1);
  EXPECT_EQ(LPF(&lpfSource.rec, &lpfOne.rec, b, a, 3, 2), 1);  // taps beyond either capacity
  EXPECT_EQ(LPF(&lpfSource.rec, &lpfOne.rec, b, a, 2, 3), 1);
  EXPECT_EQ(dst.storage, V(6, -99.0f));
  EXPECT_TRUE(dst.rec.index == -1 && narrow.rec.index == -1 && lpfOne.rec.index == -1);
  // Beyond the fixed scratch the median is refused even if the source is long.
  Buffer longSource(1, 100), out(1, 1);
  for (int i = 0; i < 100; ++i) longSource.put({static_cast<float>(i)});
  EXPECT_EQ(medFilter(&longSource.rec, &out.rec, 65), 1);
  EXPECT_EQ(out.rec.index, -1);
  ASSERT_EQ(medFilter(&longSource.rec, &out.rec, 64), 0);
  EXPECT_EQ(out.get(), (V{67.5f}));  // median of 36 .. 99
}

TEST(SmoothingFilters, LowPassWarmsUpWithTheRawInputThenRunsTheDifferenceEquation) {
  const float b[2] = {0.06f, 0.06f}, a[2] = {1.0f, -0.88f};
  Buffer src(3, 2), dst(3, 3), empty(3, 2);
  ASSERT_EQ(LPF(&empty.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_EQ(dst.get(), kZero);  // from an empty source the warm-up appends zeros
  src.put({1, -2, 4});
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_EQ(dst.get(), (V{1, -2, 4}));
  src.put({3, 0.5f, 4});
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  // Newest input 3, previous input 1, previous output 1.
  EXPECT_EQ(dst.get()[0], ((0.0f + b[0] * 3.0f) + b[1] * 1.0f - (0.0f + a[1] * 1.0f)) / a[0]);

  // A constant passes exactly.
  Buffer in(3, 2), out(3, 3);
  for (int i = 0; i < 12; ++i) {
    in.put({3.7f, 3.7f, 3.7f});
    ASSERT_EQ(LPF(&in.rec, &out.rec, b, a, 2, 2), 0);
    ASSERT_EQ(out.get(), V(3, 3.7f)) << "call " << i;
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
