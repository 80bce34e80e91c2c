// SPDX-License-Identifier: Apache-2.0
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
  // Flat; top edge raised; rolled with the right edge down; screen facing down (pitch folds past 90).
  const double cases[][7] = {{30, 0, 0, 30, 0, 0, 0},
                             {300, 20, 0, 300, -20, 0, 20},
                             {90, 0, 25, 90, 0, -25, 25},
                             {0, 150, 0, 0, -150, 0, 150}};  // heading pitch roll in, then azimuth pitch roll tilt out
  for (const auto& c : cases) {
    const Angles a = anglesOf(attitude(c[0], c[1], c[2]));
    EXPECT_NEAR(a.azimuth, c[3], 1e-9) << c[0];
    EXPECT_NEAR(a.pitch, c[4], 1e-9) << c[0];
    EXPECT_NEAR(a.roll, c[5], 1e-9) << c[0];
    EXPECT_NEAR(a.tiltDeg, c[6], 1e-6) << c[0];
  }
  EXPECT_TRUE(wrapDeg(190.0) == -170.0 && wrapDeg(-180.0) == -180.0 && wrapDeg(540.0) == -180.0);
  EXPECT_NEAR(rotationAngleDeg(attitude(0.0, 0.0, -40.0)), 40.0, 1e-9);
  EXPECT_NEAR(rotationAngleDeg(headingRotation(-179.0)), 179.0, 1e-9);
  EXPECT_NEAR(bestAngleOffset({359.0, 1.0, 3.0}, {2.0, 4.0, 6.0}), -3.0, 1e-3);
  EXPECT_NEAR(bestAngleOffset({179.0, -179.0}, {0.0, 2.0}), 179.0, 1e-3);
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
    sample.hasGyro = sample.hasAttitude = true;
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

  std::vector<SampleErrors> perSample;
  const ReferenceComparison result = compareWithReference(recording, rows, &perSample);
  ASSERT_EQ(perSample.size(), rows.size());
  ASSERT_TRUE(result.gyro && result.rotationVector && result.azimuth);
  EXPECT_NEAR(result.gyro->rmsAxis[0], 0.3, 1e-6);
  EXPECT_NEAR(result.gyro->rmsAxis[1], 0.0, 1e-6);
  EXPECT_NEAR(result.gyro->rms, 0.5, 1e-6);

  EXPECT_NEAR(result.rotationVector->alignmentDeg, 12.5, 0.01);
  EXPECT_EQ(result.rotationVector->count, 399u);
  EXPECT_NEAR(result.rotationVector->maxDeg, 2.0, 0.02);
  EXPECT_NEAR(result.rotationVector->rmsDeg, 2.0 / std::sqrt(10.0), 0.02);
  EXPECT_TRUE(std::isnan(perSample[0].rotationVectorDeg));

  EXPECT_NEAR(result.azimuth->alignmentDeg, 12.5, 0.05);
  EXPECT_LT(result.azimuth->maxDeg, 0.5);
  EXPECT_EQ(result.azimuth->count, 400u);
  // Reference angles are shifted onto the estimate's north.
  EXPECT_NEAR(perSample[5].referenceAngles[0], rows[5].orientation[0], 0.05);

  // Without reference columns there is nothing to compare.
  Recording bare;
  bare.samples.resize(3);
  const ReferenceComparison none = compareWithReference(bare, std::vector<ReplayRow>(3));
  EXPECT_FALSE(none.gyro || none.rotationVector || none.azimuth);
}

}  // namespace
}  // namespace quelta::replay
