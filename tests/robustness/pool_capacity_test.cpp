// SPDX-License-Identifier: Apache-2.0
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

const float kNoStoredCalibration[4] = {0.0f, 0.0f, 0.0f, 0.5f};
const float kStoredCalibration[4] = {0.12f, -0.25f, 0.08f, 0.5f};
const float kUp[3] = {0.0f, 0.0f, 1.0f};
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Sets the pool counts and, with restart, empties the pool.
void configure(float minCount, float midCount, float fullCount, const float* stored, bool restart = true) {
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float pool[8] = {minCount, midCount, fullCount, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thresholds[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t windows[3] = {20, 11, 8};
  AlgoInitial(axis, stored, pool, thresholds, windows, nullptr);
  if (restart) MainAlgorithmProcess(kUp, kUp, kUp, 1, 0);
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

TEST(PoolCapacity, CountsOutsideOneToTheCapacity) {
  // Beyond the capacity: the pool fills to 35 and the full fit runs on them.
  const float above[][3] = {{6, 16, 36}, {6, 16, 1e9f}, {1e9f, 1e9f, 1e9f}, {6, 16, kInf}};
  for (const auto& c : above) {
    configure(c[0], c[1], c[2], kNoStoredCalibration);
    EXPECT_EQ(largestPoolCount(120), 35) << c[2];
    EXPECT_EQ(GetMagAccuracy(), 3) << c[2];
  }
  // Below 1: one sample opens the pool, the next one fits it (and fails: one sample).
  const float below[][3] = {{0, 0, 0}, {-5, -5, -5}, {kNaN, kNaN, kNaN}, {-3e9f, -3e9f, -3e9f}, {0, 0, 0.99f}};
  for (const auto& c : below) {
    configure(c[0], c[1], c[2], kNoStoredCalibration);
    EXPECT_LE(largestPoolCount(80), 1) << c[0];
    EXPECT_EQ(GetMagAccuracy(), 0) << c[0];
  }
}

TEST(PoolCapacity, CountsChangedMidRunKeepThePoolInBounds) {
  configure(6.0f, 16.0f, 32.0f, kNoStoredCalibration, false);
  EXPECT_EQ(largestPoolCount(20), 20);
  ASSERT_EQ(GetMagAccuracy(), 2);
  // Lowered below the current fill: the next call fits the 20 samples.
  configure(6.0f, 16.0f, 10.0f, kNoStoredCalibration, false);
  EXPECT_LE(largestPoolCount(1, 20), 20);
  EXPECT_EQ(GetMagAccuracy(), 3);
  // Raised beyond the capacity halfway through a fill, at accuracy 0 and 3.
  for (const float* stored : {kNoStoredCalibration, kStoredCalibration}) {
    configure(6.0f, 16.0f, 32.0f, stored);
    largestPoolCount(20, 30);
    configure(6.0f, 16.0f, 1e9f, stored, false);
    EXPECT_EQ(largestPoolCount(100, 50), 35);
  }
  // The refinement at accuracy 3 stops at the capacity too, and its refit on 35 samples is accepted.
  float para[7];
  EXPECT_TRUE(GetMagAccuracy() == 3 && GetCalPara(para) == 1);
  EXPECT_NEAR(para[3], 0.5f, 0.01f);
}

}  // namespace
