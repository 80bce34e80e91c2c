// The calibration pool holds 35 samples whatever the configuration says:
// pool counts beyond the capacity, below 1, NaN or saturated, changed in the
// middle of a run, at accuracy 0 to 2 and in the refinement at accuracy 3.
// A write past the pool shows as an out-of-bounds index under the sanitizers
// and as a count above 35 here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

const float kAxis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kNoStoredCalibration[4] = {0.0f, 0.0f, 0.0f, 0.5f};
const float kStoredCalibration[4] = {0.12f, -0.25f, 0.08f, 0.5f};
const float kThresholds[3] = {0.1f, 2e-5f, 2e-4f};
const int32_t kWindows[3] = {20, 11, 8};
const float kUp[3] = {0.0f, 0.0f, 1.0f};

void configure(float minCount, float midCount, float fullCount, const float* stored) {
  const float pool[8] = {minCount, midCount, fullCount, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  AlgoInitial(kAxis, stored, pool, kThresholds, kWindows, nullptr);
}

// Feeds samples spread over the device's field sphere (radius 0.5 about the
// hard-iron offset) and returns the largest pool count GetCalMag reported.
int32_t largestPoolCount(int calls, int first = 0) {
  int32_t largest = 0;
  for (int i = first; i < first + calls; ++i) {
    const quelta::sim::Vec3 d = quelta::sim::fibonacciDirection((i * 13) % 64, 64);
    const float mag[3] = {static_cast<float>(0.12 + 0.5 * d.x), static_cast<float>(-0.25 + 0.5 * d.y),
                          static_cast<float>(0.08 + 0.5 * d.z)};
    MainAlgorithmProcess(kUp, mag, mag, 0, 0);
    float field[3];
    largest = std::max(largest, GetCalMag(field));
  }
  return largest;
}

TEST(PoolCapacity, CountsBeyondTheCapacityFillThePoolAndFitIt) {
  const float huge = 1e9f;
  const float counts[][3] = {{6.0f, 16.0f, 36.0f}, {6.0f, 16.0f, huge}, {huge, huge, huge},
                             {6.0f, 16.0f, std::numeric_limits<float>::infinity()}};
  for (const auto& c : counts) {
    SCOPED_TRACE(c[2]);
    configure(c[0], c[1], c[2], kNoStoredCalibration);
    MainAlgorithmProcess(kUp, kUp, kUp, 1, 0);  // empty pool
    EXPECT_EQ(largestPoolCount(120), 35);
    // The full fit runs on the 35 samples the pool could hold.
    EXPECT_EQ(GetMagAccuracy(), 3);
  }
}

TEST(PoolCapacity, CountsBelowOneNeverGrowThePool) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float counts[][3] = {{0.0f, 0.0f, 0.0f}, {-5.0f, -5.0f, -5.0f}, {nan, nan, nan},
                             {-3e9f, -3e9f, -3e9f}, {0.0f, 0.0f, 0.99f}};
  for (const auto& c : counts) {
    configure(c[0], c[1], c[2], kNoStoredCalibration);
    MainAlgorithmProcess(kUp, kUp, kUp, 1, 0);
    // One sample opens the pool, the next one fits it (and fails: one sample).
    EXPECT_LE(largestPoolCount(80), 1);
    EXPECT_EQ(GetMagAccuracy(), 0);
  }
}

TEST(PoolCapacity, RefinementAtAccuracyThreeStopsAtTheCapacity) {
  configure(6.0f, 16.0f, 1e9f, kStoredCalibration);
  ASSERT_EQ(GetMagAccuracy(), 3);
  EXPECT_EQ(largestPoolCount(120), 35);
  EXPECT_EQ(GetMagAccuracy(), 3);
  float para[7];
  EXPECT_EQ(GetCalPara(para), 1);  // the refit on 35 samples was accepted
  EXPECT_NEAR(para[3], 0.5f, 0.01f);
}

TEST(PoolCapacity, CountsChangedMidRunKeepThePoolInBounds) {
  configure(6.0f, 16.0f, 32.0f, kNoStoredCalibration);
  EXPECT_EQ(largestPoolCount(20), 20);
  ASSERT_EQ(GetMagAccuracy(), 2);

  // Lowered below the current fill: the next call fits the 20 samples.
  configure(6.0f, 16.0f, 10.0f, kNoStoredCalibration);
  EXPECT_LE(largestPoolCount(1, 20), 20);
  EXPECT_EQ(GetMagAccuracy(), 3);

  // Raised beyond the capacity halfway through a fill, at accuracy 0 and 3.
  for (const float* stored : {kNoStoredCalibration, kStoredCalibration}) {
    configure(6.0f, 16.0f, 32.0f, stored);
    MainAlgorithmProcess(kUp, kUp, kUp, 1, 0);
    largestPoolCount(20, 30);
    configure(6.0f, 16.0f, 1e9f, stored);
    EXPECT_EQ(largestPoolCount(100, 50), 35);
  }
}

}  // namespace
