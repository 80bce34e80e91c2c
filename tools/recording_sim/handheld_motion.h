// SPDX-License-Identifier: Apache-2.0
// A scripted minute of a hand-held device, for the bundled recording and
// the replay tests: still, a figure-eight calibration motion, turns, tilts
// and a turn while tilted, with still periods between. Attitudes are
// device to east-north-up (magnetic north); motions are eased so the
// angular rate is continuous.
#pragma once

#include <string>

#include "tools/sim/device_sim.h"

namespace quelta::sim {

constexpr double kHandheldScriptSeconds = 60.0;

// Attitude at time t (seconds from the start of the script).
Quat handheldAttitude(double t);
// Angular rate in device axes, rad/s, as a gyroscope would measure it.
Vec3 handheldAngularRate(double t);
// Linear acceleration in east-north-up, g: only the calibration motion moves
// the hand.
Vec3 handheldLinearAcceleration(double t);

struct RecordingPlan {
  double durationSeconds = kHandheldScriptSeconds;
  double rateHz = 50.0;
  uint64_t seed = 12345;
  Vec3 hardIron{0.12, -0.25, 0.08};  // gauss
  double fieldGauss = 0.5;
  double inclinationDeg = 60.0;
  // Heading of magnetic north east of the reference's north, degrees: the
  // reference attitude is written against the reference north.
  double declinationDeg = 0.0;
  double magNoiseGauss = 0.002;
  double accNoiseG = 0.003;
  bool withReference = true;  // gx gy gz and qw qx qy qz columns
  bool accInMetresPerSecond2 = false;
  bool magInMicrotesla = false;
};

// The whole recording as CSV text, with '#' lines naming its truth first.
std::string simulateHandheldRecording(const RecordingPlan& plan);

}  // namespace quelta::sim
