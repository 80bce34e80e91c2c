// SPDX-License-Identifier: Apache-2.0
// Scoring one engine's run on one recording against the optical truth:
// heading, tilt, attitude and rate errors as sums of squares (so recordings
// pool by adding), and the engine's own heading accuracy next to the actual
// heading error of every judged sample.
#pragma once

#include <cmath>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tools/accuracy/engines.h"
#include "tools/accuracy/recording_set.h"

namespace quelta::accuracy {

struct Sums {
  double heading2[3] = {0, 0, 0};  // deg^2: all, at rest, in motion
  double tilt2[3] = {0, 0, 0};
  size_t n[3] = {0, 0, 0};
  double attitude2 = 0;
  size_t nAttitude = 0;
  double rate2 = 0;  // (rad/s)^2
  size_t nRate = 0;

  void add(const Sums& o);
  static double rms(double s, size_t n) { return n == 0 ? NAN : std::sqrt(s / static_cast<double>(n)); }
  double heading(int k = 0) const { return rms(heading2[k], n[k]); }
  double tilt(int k = 0) const { return rms(tilt2[k], n[k]); }
  double attitude() const { return rms(attitude2, nAttitude); }
  double rate() const { return rms(rate2, nRate); }
};

struct Result {
  Sums sums;
  double timeToAccuracy3 = NAN;                                // s from the start
  std::vector<std::pair<double, double>> reportedVsActual;  // degrees: estimate, actual error
};

// Errors of run from judgeFrom seconds after the start, on the samples with truth.
Result measure(const TruthRecording& truth, const replay::Recording& rec, const EngineRun& run, double judgeFrom);

// v with the given digits, "–" when not finite.
std::string fmt(double v, int digits = 1);

}  // namespace quelta::accuracy
