// SPDX-License-Identifier: Apache-2.0
// The shared intake: axis mapping, the gravity preset, the histories'
// order once they wrap, means and variances.
#include <cstring>

#include <gtest/gtest.h>

#include "intake/sample_intake.h"

TEST(SampleIntake, MapsAxesFillsHistoriesThenMovesAndComputesVariances) {
  quelta::SampleIntake intake;
  const float axes[3][3] = {{0, 2, 0}, {1, 0, 0}, {0, 0, -1}};
  std::memcpy(intake.settings.axisMatrix, axes, sizeof axes);
  for (int i = 0; i < 31; ++i) {
    const float acc[3] = {static_cast<float>(i), 0.5f, 1.0f};
    const float mag[3] = {0.25f * i, 0.25f, 0.5f};
    intake.take(acc, mag, acc);
    if (i == 0) {
      // The sample as a row vector times the matrix; the gravity preset
      // behind it counts in the means.
      EXPECT_TRUE(intake.field()[0] == 0.25f && intake.field()[2] == -0.5f);
      const quelta::Vec3f mean = intake.accMean();
      EXPECT_TRUE(mean.y == 0.5f / 30.0f && mean.z == 1.0f);
    }
    EXPECT_EQ(intake.windowMoved(), i == 30);
    if (i == 29) EXPECT_EQ(intake.accVariance()[0], 0.0f);  // first computed on the 31st
  }
  EXPECT_EQ(intake.count(), 30);
  EXPECT_EQ(intake.accAt(0)[0], 1.0f);
  EXPECT_EQ(intake.fieldAt(29)[1], 0.25f * 30 * 2);
  EXPECT_EQ(intake.probeVariance().x, intake.accVariance().x);  // the probe history, fed the same
  EXPECT_NEAR(intake.accVariance()[0], (30.0 * 30.0 - 1.0) / 12.0, 1e-4);  // 1..30
  EXPECT_EQ(intake.accVariance()[1], 0.0f);
  EXPECT_EQ(intake.fieldMean().y, 0.25f * 15.5f * 2);  // 1..30, oldest to newest
}
