// SPDX-License-Identifier: Apache-2.0
// The figures of a replay that a person reads first, and their text. The
// figures are gathered sample by sample (SummaryBuilder), so a recording of
// any length is summarised in fixed memory.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tools/replay/recording.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_row.h"

namespace quelta::replay {

// A fall of the calibration accuracy: when, from which level to the lowest
// level reached before it came back, and for how long it stayed below the
// level it fell from (to the end of the recording if it never came back).
struct AccuracyDrop {
  double at = 0.0;  // s
  int from = 0;
  int lowest = 0;
  double duration = 0.0;  // s
  bool recovered = false;
};

// What the compass engine adds to the summary.
struct CompassSummary {
  std::string setup;                      // engine line: gyroscope, field model
  CompassRow last;                        // the final sample's quality, soft iron, ...
  std::string reasonText;                 // the library's text for last.reason (set by the caller)
  size_t disturbedSamples = 0;            // disturbance flag raised
  double disturbedTime = 0.0;             // s
  float maxDisturbance = 0.0f;
  double firstHeadingAt = 0.0;            // s, first sample without the no-heading flag
  bool headingReported = false;
  double headingAccuracySum = 0.0;        // over the samples at accuracy 3
  size_t headingAccuracyCount = 0;
};

struct Summary {
  std::string recording;
  size_t samples = 0;
  double duration = 0.0;  // s, first to last sample
  double rate = 0.0;      // Hz, from the median interval
  std::array<std::optional<double>, 3> accuracyReached;  // first time at level >= 1, 2, 3
  std::array<double, 4> timeAtAccuracy{};                // s at each level 0..3
  std::vector<AccuracyDrop> drops;                       // in time order
  int finalAccuracy = 0;
  std::array<float, 3> offset{};
  float radius = 0.0f;
  int acceptedFits = 0;
  std::optional<double> lastAcceptedAt;
  std::array<float, 3> geometry{};  // horizontal, vertical (gauss), inclination (deg)
  int saturations = 0;
  size_t fieldMissing = 0;  // rows without a field reading in the recording
  // Samples with an output that is not a finite number, and the first one.
  size_t nonFiniteSamples = 0;
  std::optional<double> firstNonFiniteAt;
  std::string firstNonFiniteOutput;  // names of the outputs affected there
  std::optional<CompassSummary> compass;  // --engine compass
};

class SummaryBuilder {
 public:
  // period: the recording's nominal sample interval (s), for the rate and
  // for the time the last sample stands for.
  SummaryBuilder(std::string recordingName, double period);
  // The rows come from the compass engine; setup describes it for the summary.
  void setCompass(std::string setup);
  void add(const ReplayRow& row);
  Summary finish();

 private:
  Summary s_;
  double period_;
  double firstT_ = 0.0;
  double previousT_ = 0.0;
  int previousLevel_ = 0;
  bool previousDisturbed_ = false;
  std::vector<size_t> openDrops_;  // indices into s_.drops, outermost first
};

Summary summarise(const Recording& recording, const std::vector<ReplayRow>& rows);

// At most this many drops are listed one by one; the rest are counted.
constexpr size_t kDropsListed = 20;

std::string formatSummary(const Summary& summary, const ReferenceComparison& reference);

}  // namespace quelta::replay
