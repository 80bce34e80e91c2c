// Median, mean and recursive low-pass between ring buffers, and LPF1.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "QueltaAlgo.h"

namespace {

// A ring buffer with its own storage.
struct Buffer {
  std::vector<float> storage;
  DataBuffer rec;
  Buffer(int32_t dim, int32_t len) : storage(dim * len, -99.0f) { bfNew(&rec, storage.data(), dim, len); }
  void put(float x, float y, float z) {
    const float s[3] = {x, y, z};
    bfPut(&rec, s);
  }
  std::vector<float> newest() const {
    std::vector<float> out(rec.dim);
    EXPECT_EQ(bfGet(&rec, out.data(), 0), 0);
    return out;
  }
};

using V = std::vector<float>;

TEST(MedianFilter, FiltersYoungSourcesOverWhatTheyHoldAndTakesTheMiddlePerAxis) {
  Buffer src(3, 3), dst(3, 2);
  src.put(4.0f, 1.0f, -2.0f);
  ASSERT_EQ(medFilter(&src.rec, &dst.rec, 3), 0);
  EXPECT_EQ(dst.newest(), (V{4.0f, 1.0f, -2.0f}));  // one sample: itself

  src.put(1.0f, 2.0f, -3.0f);
  ASSERT_EQ(medFilter(&src.rec, &dst.rec, 3), 0);
  EXPECT_EQ(dst.newest(), (V{2.5f, 1.5f, -2.5f}));  // two samples: their average

  // Per axis, newest first: x 5, 1, 4 -> 4; y 2, 2, 1 -> 2; z 9, -3, -2 -> -2.
  src.put(5.0f, 2.0f, 9.0f);
  ASSERT_EQ(medFilter(&src.rec, &dst.rec, 3), 0);
  EXPECT_EQ(dst.newest(), (V{4.0f, 2.0f, -2.0f}));

  // Wrapped source: the newest three only (x 3, 5, 1 -> 3; y 2, 2, 2; z 9, 9, -3 -> 9).
  src.put(3.0f, 2.0f, 9.0f);
  ASSERT_EQ(medFilter(&src.rec, &dst.rec, 3), 0);
  EXPECT_EQ(dst.newest(), (V{3.0f, 2.0f, 9.0f}));
  EXPECT_EQ(dst.rec.full, 1);
  EXPECT_EQ(dst.rec.count, 2);

  // A window of 2 on the same source: (3 + 5) / 2, (2 + 2) / 2, (9 + 9) / 2.
  ASSERT_EQ(medFilter(&src.rec, &dst.rec, 2), 0);
  EXPECT_EQ(dst.newest(), (V{4.0f, 2.0f, 9.0f}));
}

TEST(MedianFilter, RefusalsLeaveTheDestinationUntouched) {
  Buffer src(3, 3), dst(3, 2), narrow(2, 2);
  Buffer empty(3, 3);
  src.put(1, 2, 3);
  EXPECT_EQ(medFilter(&src.rec, &narrow.rec, 3), 1);  // other width
  EXPECT_EQ(medFilter(&src.rec, &dst.rec, 4), 1);     // longer than the source
  EXPECT_EQ(medFilter(&empty.rec, &dst.rec, 3), 1);   // empty window
  EXPECT_EQ(medFilter(&src.rec, &dst.rec, 0), 1);
  EXPECT_EQ(dst.rec.index, -1);
  EXPECT_EQ(narrow.rec.index, -1);
  EXPECT_EQ(dst.storage, std::vector<float>(6, -99.0f));

  // Beyond the fixed scratch the call is refused even if the source is long.
  Buffer longSource(1, 100), out(1, 1);
  for (int i = 0; i < 100; ++i) {
    const float v = static_cast<float>(i);
    bfPut(&longSource.rec, &v);
  }
  EXPECT_EQ(medFilter(&longSource.rec, &out.rec, 65), 1);
  EXPECT_EQ(out.rec.index, -1);
  ASSERT_EQ(medFilter(&longSource.rec, &out.rec, 64), 0);
  EXPECT_EQ(out.newest(), (V{67.5f}));  // median of 36 .. 99
}

TEST(MeanFilter, DividesByTheSamplesHeldAndRefusesLikeTheMedian) {
  Buffer src(3, 3), dst(3, 3), narrow(2, 3);
  src.put(1.0f, 10.0f, -4.0f);
  src.put(2.0f, 20.0f, 5.0f);
  ASSERT_EQ(meanFilter(&src.rec, &dst.rec, 3), 0);
  EXPECT_EQ(dst.newest(), (V{1.5f, 15.0f, 0.5f}));  // divided by 2, not 3
  src.put(6.0f, 0.0f, 2.0f);
  src.put(0.3f, 0.6f, 0.9f);
  ASSERT_EQ(meanFilter(&src.rec, &dst.rec, 3), 0);
  // Summed newest first from 0, then divided in float.
  const float x = ((0.0f + 0.3f) + 6.0f) + 2.0f;
  EXPECT_EQ(dst.newest()[0], x / 3.0f);
  EXPECT_EQ(dst.rec.count, 2);

  EXPECT_EQ(meanFilter(&src.rec, &narrow.rec, 3), 1);
  EXPECT_EQ(meanFilter(&src.rec, &dst.rec, 4), 1);
  EXPECT_EQ(dst.rec.count, 2);
}

TEST(MeanFilter, EmptyWindowAppendsNotANumber) {
  Buffer empty(3, 3), src(3, 3), dst(3, 3);
  ASSERT_EQ(meanFilter(&empty.rec, &dst.rec, 3), 0);
  for (float v : dst.newest()) EXPECT_TRUE(std::isnan(v));
  src.put(1, 2, 3);
  ASSERT_EQ(meanFilter(&src.rec, &dst.rec, 0), 0);
  for (float v : dst.newest()) EXPECT_TRUE(std::isnan(v));
  EXPECT_EQ(dst.rec.count, 2);
}

const float kB[2] = {0.06f, 0.06f};
const float kA[2] = {1.0f, -0.88f};

TEST(LowPassFilter, WarmsUpWithTheRawInputThenRunsTheDifferenceEquation) {
  Buffer src(3, 2), dst(3, 3);
  src.put(1.0f, -2.0f, 4.0f);
  ASSERT_EQ(LPF(&src.rec, &dst.rec, kB, kA, 2, 2), 0);
  EXPECT_EQ(dst.newest(), (V{1.0f, -2.0f, 4.0f}));

  src.put(3.0f, 0.5f, 4.0f);
  ASSERT_EQ(LPF(&src.rec, &dst.rec, kB, kA, 2, 2), 0);
  const float x[2] = {3.0f, 1.0f};  // newest input, previous input; previous output 1
  const float expected = ((0.0f + kB[0] * x[0]) + kB[1] * x[1] - (0.0f + kA[1] * 1.0f)) / kA[0];
  EXPECT_EQ(dst.newest()[0], expected);
  EXPECT_NEAR(dst.newest()[0], 0.06 * 3 + 0.06 * 1 + 0.88 * 1, 1e-6);

  // A constant passes exactly.
  Buffer in(3, 2), out(3, 3);
  for (int i = 0; i < 12; ++i) {
    in.put(3.7f, 3.7f, 3.7f);
    ASSERT_EQ(LPF(&in.rec, &out.rec, kB, kA, 2, 2), 0);
    for (float v : out.newest()) ASSERT_EQ(v, 3.7f) << "call " << i;
  }
}

TEST(LowPassFilter, FeedsBackFromACapacityOneDestination) {
  const float b[2] = {0.15f, 0.15f};
  const float a[2] = {1.0f, -0.7f};
  Buffer src(3, 2), dst(3, 1);
  src.put(2.0f, 0.0f, 0.0f);
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_EQ(dst.newest()[0], 2.0f);
  src.put(0.0f, 0.0f, 0.0f);
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_NEAR(dst.newest()[0], 0.15 * 2 + 0.7 * 2, 1e-6);
  src.put(0.0f, 0.0f, 0.0f);
  ASSERT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_NEAR(dst.newest()[0], 0.7 * 1.7, 1e-6);
}

TEST(LowPassFilter, RefusesTapsBeyondEitherCapacity) {
  const float b[3] = {0.3f, 0.3f, 0.4f};
  const float a[3] = {1.0f, 0.0f, 0.0f};
  Buffer src(3, 2), dst(3, 1);
  src.put(1, 1, 1);
  EXPECT_EQ(LPF(&src.rec, &dst.rec, b, a, 3, 2), 1);
  EXPECT_EQ(LPF(&src.rec, &dst.rec, b, a, 2, 3), 1);
  EXPECT_EQ(dst.rec.index, -1);
  // From an empty source the warm-up appends zeros.
  Buffer empty(3, 2);
  ASSERT_EQ(LPF(&empty.rec, &dst.rec, b, a, 2, 2), 0);
  EXPECT_EQ(dst.newest(), (V{0.0f, 0.0f, 0.0f}));
}

TEST(FirstOrderLowPass, PassesAConstantAndLeavesTheStateToTheCaller) {
  const float x[2] = {1.0f, 1.0f};
  float y[2] = {1.0f, 0.0f};
  EXPECT_EQ(LPF1(x, y), 0);
  EXPECT_EQ(y[1], 1.0f);
  EXPECT_EQ(y[0], 1.0f);
}

}  // namespace
