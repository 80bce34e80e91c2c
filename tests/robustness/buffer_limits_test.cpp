// SPDX-License-Identifier: Apache-2.0
// Ring-buffer reads and filter windows outside the pipeline's own use: a
// negative k, empty windows, windows longer than the median's scratch, tap
// counts at the int32 limits. Buffers here sit on heap blocks of exactly
// dim x len floats, so a read or write past them is reported by the
// sanitizers; the results say what the library does instead.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

#include "QueltaAlgo.h"

namespace {

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

struct HeapBuffer {
  std::unique_ptr<float[]> storage;
  DataBuffer record{};

  HeapBuffer(int32_t dim, int32_t len) : storage(new float[static_cast<size_t>(dim * len)]()) {
    bfNew(&record, storage.get(), dim, len);
  }
  void put(float x, float y, float z) {
    const float s[3] = {x, y, z};
    bfPut(&record, s);
  }
  // The newest entry; false if there is none.
  bool newest(float* out) { return bfGet(&record, out, 0) == 0; }
};

TEST(BufferLimits, NegativeKReadsNothing) {
  HeapBuffer buf(3, 2);
  buf.put(1, 2, 3);
  buf.put(4, 5, 6);  // index 1: slot index - k would be past the end
  for (int32_t k : {-1, -2, -3, kMin}) {
    float out[3] = {7, 7, 7};
    EXPECT_EQ(bfGet(&buf.record, out, k), 1) << k;
    EXPECT_TRUE(out[0] == 0.0f && out[1] == 0.0f && out[2] == 0.0f) << k;
  }
  float out[3];
  EXPECT_EQ(bfGet(&buf.record, out, kMax), 1);
  EXPECT_TRUE(buf.newest(out) && out[2] == 6.0f);
  // The exported one-slot buffer: k = -1 would land on the next storage plane.
  CreateDataBuffer();
  bfPut(&bfWFilter, out);
  EXPECT_EQ(bfGet(&bfWFilter, out, -1), 1);
}

TEST(BufferLimits, MedianRefusesEmptyWindowsAndWindowsBeyondItsScratch) {
  HeapBuffer empty(3, 3), source(3, 80), destination(3, 2);
  EXPECT_EQ(medFilter(&empty.record, &destination.record, 3), 1);
  for (int i = 0; i < 80; ++i) source.put(static_cast<float>(i + 1), 0.0f, -1.0f);
  for (int32_t n : {0, -1, kMin, 65, 80, kMax}) EXPECT_EQ(medFilter(&source.record, &destination.record, n), 1) << n;
  EXPECT_EQ(destination.record.index, -1);  // refusals append nothing
  // The longest window the scratch takes: the newest 64 of 1..80 are 17..80.
  float out[3];
  ASSERT_EQ(medFilter(&source.record, &destination.record, 64), 0);
  ASSERT_TRUE(destination.newest(out));
  EXPECT_TRUE(out[0] == 48.5f && out[2] == -1.0f);
}

TEST(BufferLimits, MeanOfAnEmptyWindowIsNotANumber) {
  HeapBuffer empty(3, 3), source(3, 3), destination(3, 3);
  source.put(1, 2, 3);
  float out[3];
  for (int32_t n : {0, -4, kMin}) {
    ASSERT_EQ(meanFilter(&source.record, &destination.record, n), 0) << n;
    ASSERT_TRUE(destination.newest(out));
    EXPECT_TRUE(std::isnan(out[0]) && std::isnan(out[1]) && std::isnan(out[2]));
  }
  ASSERT_EQ(meanFilter(&empty.record, &destination.record, 3), 0);
  EXPECT_TRUE(destination.newest(out) && std::isnan(out[0]));
  EXPECT_EQ(meanFilter(&source.record, &destination.record, 4), 1);  // longer than the source
}

TEST(BufferLimits, LowPassTapCountsAtTheLimits) {
  HeapBuffer source(3, 3), destination(3, 3);
  source.put(1, 2, 3);
  source.put(1, 2, 3);
  const float b[2] = {0.06f, 0.06f}, a[2] = {1.0f, -0.88f};
  // More taps than samples, feedback past capacity, and both at the limit.
  for (const auto& taps : {std::pair<int32_t, int32_t>{4, 2}, {2, 5}, {kMax, 2}, {2, kMax}}) {
    EXPECT_EQ(LPF(&source.record, &destination.record, b, a, taps.first, taps.second), 1) << taps.first;
  }
  EXPECT_EQ(destination.record.index, -1);
  // No feedback and no feed-forward: 0 / a[0].
  float out[3];
  ASSERT_EQ(LPF(&source.record, &destination.record, b, a, kMin, kMin), 0);
  EXPECT_TRUE(destination.newest(out) && out[0] == 0.0f);
}

}  // namespace
