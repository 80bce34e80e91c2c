#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "tools/recording_sim/handheld_motion.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_driver.h"
#include "tools/replay/summary.h"

namespace quelta::replay {
namespace {

std::string capturedLog;

int captureLog(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  capturedLog += line;
  return n;
}

Recording simulated(double seconds, sim::Vec3 offset) {
  sim::RecordingPlan plan;
  plan.durationSeconds = seconds;
  plan.hardIron = offset;
  plan.declinationDeg = 5.0;
  Recording recording;
  InputError error;
  EXPECT_TRUE(parseRecording(sim::simulateHandheldRecording(plan), "sim", {}, recording, error))
      << error.describe();
  return recording;
}

const ReplayRow& rowAt(const std::vector<ReplayRow>& rows, double t) {
  for (const ReplayRow& row : rows) {
    if (row.t >= t - 1e-9) return row;
  }
  return rows.back();
}

TEST(ReplayDriver, CalibratesAndTracksTheSimulatedHand) {
  const Recording recording = simulated(25.0, {-0.21, 0.09, 0.15});
  DriverOptions options;
  options.log = captureLog;
  const std::vector<ReplayRow> rows = replayRecording(recording, options);
  ASSERT_EQ(rows.size(), recording.samples.size());

  const Summary summary = summarise(recording, rows);
  ASSERT_TRUE(summary.accuracyReached[2]);
  EXPECT_LT(*summary.accuracyReached[2], 19.0);  // within the figure-eight
  EXPECT_EQ(summary.finalAccuracy, 3);
  EXPECT_NEAR(summary.offset[0], -0.21, 0.003);
  EXPECT_NEAR(summary.offset[1], 0.09, 0.003);
  EXPECT_NEAR(summary.offset[2], 0.15, 0.003);
  EXPECT_NEAR(summary.radius, 0.5, 0.005);
  EXPECT_GE(summary.acceptedFits, 1);
  // Still and level after the figure-eight: the field's geometry is measured.
  EXPECT_NEAR(summary.geometry[2], 60.0, 1.0);
  EXPECT_NEAR(summary.geometry[0], 0.25, 0.005);

  // At rest, flat, heading 20 degrees after the figure-eight.
  const ReplayRow& still = rowAt(rows, 22.5);
  const double fieldStrength = std::hypot(still.calField[0], still.calField[1], still.calField[2]);
  EXPECT_NEAR(fieldStrength, 0.5, 0.005);
  EXPECT_NEAR(still.orientation[0], 20.0, 2.0);
  EXPECT_NEAR(still.orientation[1], 0.0, 1.0);
  EXPECT_NEAR(still.orientation[2], 0.0, 1.0);
  EXPECT_LT(std::fabs(still.vgyro[0]) + std::fabs(still.vgyro[1]) + std::fabs(still.vgyro[2]), 0.02);
  EXPECT_NEAR(still.gravity[2], 1.0, 0.01);
  EXPECT_LT(std::fabs(still.linearAcc[2]), 0.01);

  // Against the reference: the alignment finds the declination.
  const ReferenceComparison reference = compareWithReference(recording, rows);
  ASSERT_TRUE(reference.gyro && reference.rotationVector && reference.azimuth);
  EXPECT_LT(reference.gyro->rms, reference.gyro->referenceRms);
  EXPECT_NEAR(reference.rotationVector->alignmentDeg, 5.0, 2.0);
  const size_t stillIndex = static_cast<size_t>(&still - rows.data());
  EXPECT_LT(reference.rotationVectorErrorDeg[stillIndex], 2.0);
  EXPECT_LT(std::fabs(reference.azimuthErrorDeg[stillIndex]), 4.0);

  // The library's log lines reached the callback given to the driver.
  EXPECT_NE(capturedLog.find("calimag"), std::string::npos);
}

TEST(ReplayDriver, StartsFromAStoredCalibration) {
  const Recording recording = simulated(2.0, {0.12, -0.25, 0.08});
  DriverOptions options;
  options.setup.stored = {0.12f, -0.25f, 0.08f, 0.5f};
  const std::vector<ReplayRow> rows = replayRecording(recording, options);
  EXPECT_EQ(rows.front().accuracy, 3);
  EXPECT_EQ(rows.front().offset, (std::array<float, 3>{0.12f, -0.25f, 0.08f}));
  const ReplayRow& last = rows.back();
  EXPECT_NEAR(std::hypot(last.calField[0], last.calField[1], last.calField[2]), 0.5, 0.005);
}

}  // namespace
}  // namespace quelta::replay
