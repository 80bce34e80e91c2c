// The 30-sample histories against a plain shifting array summed axis by axis:
// the ring, the side-by-side sums and the kept mean give the same bits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "magcal/calibrator.h"
#include "tools/sim/device_sim.h"

namespace quelta {
namespace {

struct ShiftingHistory {
  float entry[30][3] = {};
  int count = 0;

  void add(const float* v) {
    if (count == 30) {
      std::memmove(entry[0], entry[1], sizeof(float) * 29 * 3);
      count = 29;
    }
    std::memcpy(entry[count++], v, sizeof(float) * 3);
  }
  float mean(int axis) const {
    float sum = 0.0f;
    for (int k = 0; k < 30; ++k) sum = sum + entry[k][axis];
    return sum / 30.0f;
  }
  float variance(int axis) const {
    const float m = mean(axis);
    float sum = 0.0f;
    for (int k = 0; k < 30; ++k) sum = sum + (entry[k][axis] - m) * (entry[k][axis] - m);
    return sum / 30.0f;
  }
};

uint32_t bits(float v) {
  uint32_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

TEST(HistoryRing, EntriesMeansAndVariancesMatchAShiftingHistory) {
  Calibrator cal;
  ShiftingHistory acc, mag, probe;
  const float up[3] = {0.0f, 0.0f, 1.0f};
  for (int k = 0; k < 30; ++k) acc.add(up);  // the gravity preset
  acc.count = 0;
  sim::Random random(11);
  for (int i = 0; i < 200; ++i) {
    float a[3], m[3];
    for (int j = 0; j < 3; ++j) {
      a[j] = static_cast<float>(random.uniform(-1.5, 1.5));
      m[j] = static_cast<float>(random.uniform(-0.6, 0.6));
    }
    if (i == 120) a[1] = -0.0f;
    if (i == 150) m[2] = INFINITY;  // NaN through the axis matrix, gone 30 samples on
    cal.process(a, m, m, 0, 2);
    acc.add(a);
    mag.add(cal.state.dMagdata);  // the sample through the axis matrix
    probe.add(m);
    for (int k = 0; k < 30; ++k) {
      for (int j = 0; j < 3; ++j) {
        ASSERT_EQ(bits(cal.state.dAccHistory.at(k)[j]), bits(acc.entry[k][j])) << i << " " << k;
        ASSERT_EQ(bits(cal.state.dMagHistory.at(k)[j]), bits(mag.entry[k][j])) << i << " " << k;
      }
    }
    float accMean[3], magMean[3];
    MeanOf30(cal.state.dAccHistory, accMean);
    MeanOf30(cal.state.dMagHistory, magMean);
    for (int j = 0; j < 3; ++j) {
      EXPECT_EQ(bits(accMean[j]), bits(acc.mean(j))) << i;
      EXPECT_EQ(bits(magMean[j]), bits(mag.mean(j))) << i;
      if (i >= 30) EXPECT_EQ(bits(cal.state.dAccVariance[j]), bits(acc.variance(j))) << i;
    }
    // The two watched histories' variances and the field's mean, side by side.
    float accVariance[3], probeVariance[3];
    variancesTogether(cal.state.dAccHistory, accVariance, cal.state.dSatMagHistory, probeVariance,
                      cal.state.dMagHistory);
    MeanOf30(cal.state.dMagHistory, magMean);
    for (int j = 0; j < 3; ++j) {
      EXPECT_EQ(bits(accVariance[j]), bits(acc.variance(j))) << i;
      EXPECT_EQ(bits(probeVariance[j]), bits(probe.variance(j))) << i;
      EXPECT_EQ(bits(magMean[j]), bits(mag.mean(j))) << i;
    }
  }
}

TEST(HistoryRing, AKeptMeanIsDroppedWhenAnEntryChanges) {
  History30 h;
  const float one[3] = {3.0f, 6.0f, 9.0f};
  float mean[3];
  MeanOf30(h, mean);
  EXPECT_EQ(mean[0], 0.0f);
  h.store(7, one);
  MeanOf30(h, mean);
  EXPECT_EQ(mean[0], 0.1f);
  EXPECT_EQ(mean[2], 0.3f);
  h.shiftIn(one);  // entry 0 drops out, one more 3.0 comes in
  MeanOf30(h, mean);
  EXPECT_EQ(mean[1], 0.4f);
  EXPECT_EQ(h.at(29)[1], 6.0f);
  EXPECT_EQ(h.at(6)[2], 9.0f);
}

}  // namespace
}  // namespace quelta
