#include <gtest/gtest.h>

#include <cmath>

#include "tools/replay/attitude_math.h"
#include "tools/replay/reference_comparison.h"
#include "tools/sim/device_sim.h"

namespace quelta::replay {
namespace {

Quat fromSim(const sim::Quat& q) { return {q.w, q.x, q.y, q.z}; }

Quat attitude(double heading, double pitch, double roll) {
  return fromSim(sim::attitudeFromHeadingPitchRoll(heading, pitch, roll));
}

std::array<float, 4> libraryOrder(const Quat& q) {
  return {static_cast<float>(q[1]), static_cast<float>(q[2]), static_cast<float>(q[3]), static_cast<float>(q[0])};
}

TEST(AttitudeMath, AnglesFollowTheOrientationConventions) {
  // Flat, top edge 30 degrees east of north.
  Angles a = anglesOf(attitude(30.0, 0.0, 0.0));
  EXPECT_NEAR(a.azimuth, 30.0, 1e-9);
  EXPECT_NEAR(a.pitch, 0.0, 1e-9);
  EXPECT_NEAR(a.roll, 0.0, 1e-9);
  EXPECT_NEAR(a.tiltDeg, 0.0, 1e-6);
  // Top edge raised by 20 degrees: pitch -20; the azimuth is unchanged by levelling.
  a = anglesOf(attitude(300.0, 20.0, 0.0));
  EXPECT_NEAR(a.azimuth, 300.0, 1e-9);
  EXPECT_NEAR(a.pitch, -20.0, 1e-9);
  EXPECT_NEAR(a.tiltDeg, 20.0, 1e-9);
  // Rolled about the top edge: the right edge goes down by 25 degrees.
  a = anglesOf(attitude(90.0, 0.0, 25.0));
  EXPECT_NEAR(a.roll, -25.0, 1e-9);
  EXPECT_NEAR(a.azimuth, 90.0, 1e-9);
  // Screen facing down: pitch folds beyond 90.
  a = anglesOf(attitude(0.0, 150.0, 0.0));
  EXPECT_NEAR(a.pitch, -150.0, 1e-9);
  EXPECT_NEAR(a.tiltDeg, 150.0, 1e-9);

  EXPECT_EQ(wrapDeg(190.0), -170.0);
  EXPECT_EQ(wrapDeg(-180.0), -180.0);
  EXPECT_EQ(wrapDeg(540.0), -180.0);
  EXPECT_NEAR(rotationAngleDeg(attitude(0.0, 0.0, -40.0)), 40.0, 1e-9);
  EXPECT_NEAR(rotationAngleDeg(headingRotation(-179.0)), 179.0, 1e-9);
}

TEST(ReferenceComparison, FindsTheHeadingAlignmentAndMeasuresWhatRemains) {
  // The estimate sees the same motion with north turned by 12.5 degrees
  // and a small tilt error on every tenth sample.
  Recording recording;
  recording.hasGyro = true;
  recording.hasAttitude = true;
  std::vector<ReplayRow> rows;
  for (int i = 0; i < 400; ++i) {
    const double heading = 350.0 + 2.0 * i;  // several wraps
    const double pitch = 30.0 * std::sin(i * 0.05);
    RecordedSample sample;
    sample.t = 0.02 * i;
    sample.attitude = attitude(heading, pitch, 10.0);
    sample.gyro = {0.1 * i, -0.2, 0.0};
    recording.samples.push_back(sample);

    ReplayRow row;
    row.t = sample.t;
    const double tiltError = i % 10 == 0 ? 2.0 : 0.0;
    const Quat estimate = attitude(heading - 12.5, pitch + tiltError, 10.0);
    row.rotVec = libraryOrder(estimate);
    row.orientation = {static_cast<float>(anglesOf(estimate).azimuth), 0.0f, 0.0f};
    row.vgyro = {static_cast<float>(0.1 * i + 0.3), -0.2f, 0.4f};
    rows.push_back(row);
  }
  rows[0].rotVec = {0, 0, 0, 0};  // not yet published: left out

  const ReferenceComparison result = compareWithReference(recording, rows);
  ASSERT_TRUE(result.gyro && result.rotationVector && result.azimuth);
  EXPECT_NEAR(result.gyro->rmsAxis[0], 0.3, 1e-6);
  EXPECT_NEAR(result.gyro->rmsAxis[1], 0.0, 1e-6);
  EXPECT_NEAR(result.gyro->rms, 0.5, 1e-6);

  EXPECT_NEAR(result.rotationVector->alignmentDeg, 12.5, 0.01);
  EXPECT_EQ(result.rotationVector->count, 399u);
  EXPECT_NEAR(result.rotationVector->maxDeg, 2.0, 0.02);
  EXPECT_NEAR(result.rotationVector->rmsDeg, 2.0 / std::sqrt(10.0), 0.02);
  EXPECT_TRUE(std::isnan(result.rotationVectorErrorDeg[0]));

  EXPECT_NEAR(result.azimuth->alignmentDeg, 12.5, 0.05);
  EXPECT_LT(result.azimuth->maxDeg, 0.5);
  EXPECT_EQ(result.azimuth->count, 400u);
  // Reference angles are shifted onto the estimate's north.
  EXPECT_NEAR(result.referenceAngles[5][0], rows[5].orientation[0], 0.05);
}

TEST(ReferenceComparison, AngleOffsetHandlesWrapAround) {
  EXPECT_NEAR(bestAngleOffset({359.0, 1.0, 3.0}, {2.0, 4.0, 6.0}), -3.0, 1e-3);
  EXPECT_NEAR(bestAngleOffset({179.0, -179.0}, {0.0, 2.0}), 179.0, 1e-3);
}

TEST(ReferenceComparison, NoReferenceColumnsNoComparison) {
  Recording recording;
  recording.samples.resize(3);
  const ReferenceComparison result = compareWithReference(recording, std::vector<ReplayRow>(3));
  EXPECT_FALSE(result.gyro || result.rotationVector || result.azimuth);
}

}  // namespace
}  // namespace quelta::replay
