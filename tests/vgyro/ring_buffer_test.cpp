// Ring buffers: position, full flag and count, plane-per-component storage,
// refused reads, and the exported instances.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"

namespace {

struct Sample {
  float v[3];
};

void expectRead(const DataBuffer& buf, int32_t k, int32_t result, Sample expected) {
  float out[3] = {-7.0f, -7.0f, -7.0f};
  EXPECT_EQ(bfGet(&buf, out, k), result) << "k=" << k;
  for (int j = 0; j < 3; ++j) EXPECT_EQ(out[j], expected.v[j]) << "k=" << k << " j=" << j;
}

void expectState(const DataBuffer& buf, int32_t index, int32_t full, int32_t count) {
  EXPECT_EQ(buf.index, index);
  EXPECT_EQ(buf.full, full);
  EXPECT_EQ(buf.count, count);
}

constexpr Sample kZero{{0.0f, 0.0f, 0.0f}};

TEST(RingBuffer, FillsWrapsAndBecomesFullOnlyOnTheWrappingPut) {
  float storage[9];
  for (float& f : storage) f = 99.0f;
  DataBuffer buf;
  bfNew(&buf, storage, 3, 3);
  EXPECT_EQ(buf.data, storage);
  expectState(buf, -1, 0, 0);
  expectRead(buf, 0, 1, kZero);

  const Sample s1{{1, 2, 3}}, s2{{4, 5, 6}}, s3{{7, 8, 9}}, s4{{10, 11, 12}};
  bfPut(&buf, s1.v);
  bfPut(&buf, s2.v);
  // Components are planes: x of slots 0..2, then y, then z; slot 2 untouched.
  const float planes[9] = {1, 4, 99, 2, 5, 99, 3, 6, 99};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(storage[i], planes[i]) << i;
  expectRead(buf, 1, 0, s1);
  expectRead(buf, 2, 1, kZero);

  bfPut(&buf, s3.v);
  expectState(buf, 2, 0, 3);  // holds len samples, yet not full
  expectRead(buf, 0, 0, s3);
  expectRead(buf, 2, 0, s1);
  expectRead(buf, 3, 1, kZero);

  bfPut(&buf, s4.v);
  expectState(buf, 0, 1, 3);
  EXPECT_EQ(storage[0], 10.0f);  // the oldest slot was overwritten
  expectRead(buf, 0, 0, s4);
  expectRead(buf, 1, 0, s3);
  expectRead(buf, 2, 0, s2);
  expectRead(buf, -1, 1, kZero);  // negative k is refused, never a stale slot

  bfClear(&buf);
  expectState(buf, -1, 0, 0);
  EXPECT_EQ(buf.len, 3);
  EXPECT_EQ(storage[0], 10.0f);  // values stay, unreachable
  expectRead(buf, 0, 1, kZero);
}

TEST(RingBuffer, ExportedInstancesAreCreatedAndClearedTogether) {
  CreateDataBuffer();
  const struct {
    DataBuffer* record;
    float* storage;
    int32_t len;
  } expected[] = {{&bfMagRaw, bfMagRawData, 3}, {&bfMagMed, bfMagMedData, 2},
                  {&bfMagLPF, bfMagLPFData, 3}, {&bfMagMean, bfMagMeanData, 3},
                  {&bfAccRaw, bfAccRawData, 3}, {&bfAccMed, bfAccMedData, 2},
                  {&bfAccLPF, bfAccLPFData, 3}, {&bfAccMean, bfAccMeanData, 3},
                  {&bfWRaw, bfWRawData, 2},     {&bfWFilter, bfWFilterData, 1}};
  const float sample[3] = {1, 2, 3};
  for (const auto& e : expected) {
    EXPECT_EQ(e.record->data, e.storage);
    EXPECT_EQ(e.record->dim, 3);
    EXPECT_EQ(e.record->len, e.len);
    expectState(*e.record, -1, 0, 0);
    for (int i = 0; i <= e.len; ++i) bfPut(e.record, sample);
    expectState(*e.record, 0, 1, e.len);
  }
  ClearDataBuffer();
  for (const auto& e : expected) {
    expectState(*e.record, -1, 0, 0);
    EXPECT_EQ(e.record->data, e.storage);
    EXPECT_EQ(e.record->len, e.len);
  }
}

}  // namespace
