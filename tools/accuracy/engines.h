// SPDX-License-Identifier: Apache-2.0
// The engines the accuracy tool compares, each run over a whole recording:
// the fixed pipelines of QueltaAlgo.so, the compass filter with and without
// gyroscope, and TRIAD on single samples and on 0.5 s means.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "tools/accuracy/recording_set.h"
#include "tools/replay/attitude_math.h"

namespace quelta::accuracy {

enum class Engine { Fixed, CompassGyro, CompassNoGyro, Triad, TriadMean, OwnCalGyro, OwnCalNoGyro };
const char* engineName(Engine engine);

struct EngineRun {
  std::vector<replay::Quat> attitude;   // device to east-north-up, NaN where none
  std::vector<replay::Vec3> rate;       // rad/s, device frame, NaN where none
  std::vector<double> reportedHeadingDeg;  // the engine's own heading accuracy, NaN where none
  std::vector<int> accuracy;            // 0..3, -1 where the engine has none
  std::vector<unsigned> flags;          // the compass filter's flags
};

// OwnCal*: the whole compass on the raw field, calibrated by the magnetic
// layer inside (no help from the truth).
// gyroBias (rad/s, device frame) is added to every gyroscope reading the
// compass filter gets.
// The TRIAD and compass engines are given the reference offset (an ideal
// calibration); the fixed pipelines calibrate the raw field themselves.
EngineRun runEngine(Engine engine, const TruthRecording& truth, const replay::Recording& recording,
                    const std::array<double, 3>& gyroBias);

}  // namespace quelta::accuracy
