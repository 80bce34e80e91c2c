// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tests/support/log_capture.h"
#include "tools/recording_sim/handheld_motion.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_driver.h"
#include "tools/replay/summary.h"

namespace quelta::replay {
namespace {

TEST(ReplayDriver, CalibratesAndTracksTheSimulatedHand) {
  sim::RecordingPlan plan;
  plan.durationSeconds = 25.0;
  const double truth[3] = {-0.21, 0.09, 0.15};
  plan.hardIron = {truth[0], truth[1], truth[2]};
  plan.declinationDeg = 5.0;
  Recording recording;
  InputError error;
  ASSERT_TRUE(parseRecording(sim::simulateHandheldRecording(plan), "sim", {}, recording, error)) << error.describe();
  DriverOptions options;
  options.log = test::captureLine;
  const std::vector<ReplayRow> rows = replayRecording(recording, options);
  ASSERT_EQ(rows.size(), recording.samples.size());

  const Summary summary = summarise(recording, rows);
  ASSERT_TRUE(summary.accuracyReached[2]);
  EXPECT_LT(*summary.accuracyReached[2], 19.0);  // within the figure-eight
  EXPECT_TRUE(summary.finalAccuracy == 3 && summary.acceptedFits >= 1);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(summary.offset[k], truth[k], 0.003) << k;
  EXPECT_NEAR(summary.radius, 0.5, 0.005);
  // Still and level after the figure-eight: the field's geometry is measured.
  EXPECT_NEAR(summary.geometry[2], 60.0, 1.0);
  EXPECT_NEAR(summary.geometry[0], 0.25, 0.005);

  // At rest, flat, heading 20 degrees after the figure-eight.
  size_t at = 0;
  while (rows[at].t < 22.5 - 1e-9) ++at;
  const ReplayRow& still = rows[at];
  EXPECT_NEAR(std::hypot(still.calField[0], still.calField[1], still.calField[2]), 0.5, 0.005);
  EXPECT_NEAR(still.orientation[0], 20.0, 2.0);
  EXPECT_NEAR(still.orientation[1], 0.0, 1.0);
  EXPECT_NEAR(still.orientation[2], 0.0, 1.0);
  EXPECT_LT(std::fabs(still.vgyro[0]) + std::fabs(still.vgyro[1]) + std::fabs(still.vgyro[2]), 0.02);
  EXPECT_NEAR(still.gravity[2], 1.0, 0.01);
  EXPECT_LT(std::fabs(still.linearAcc[2]), 0.01);

  // Against the reference: the alignment finds the declination.
  std::vector<SampleErrors> perSample;
  const ReferenceComparison reference = compareWithReference(recording, rows, &perSample);
  ASSERT_TRUE(reference.gyro && reference.rotationVector && reference.azimuth);
  EXPECT_LT(reference.gyro->rms, reference.gyro->referenceRms);
  EXPECT_NEAR(reference.rotationVector->alignmentDeg, 5.0, 2.0);
  EXPECT_LT(perSample[at].rotationVectorDeg, 2.0);
  EXPECT_LT(std::fabs(perSample[at].azimuthDeg), 4.0);
  // The library's log lines reached the callback given to the driver.
  EXPECT_GT(test::countLinesStartingWith("TRVQX4e20180206 calimag "), 0);
}

}  // namespace
}  // namespace quelta::replay
