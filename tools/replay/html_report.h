// SPDX-License-Identifier: Apache-2.0
// The visual report of a replay: one self-contained HTML file with inline
// SVG plots (no scripts, nothing fetched). It is gathered as the replay
// goes: time series as per-column minimum/maximum envelopes, the field
// cloud as a thinned sample, so the file stays small (well under 2 MB) and
// quick to draw for a recording of any length.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/replay/recording.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_row.h"
#include "tools/replay/summary.h"
#include "tools/replay/svg_chart.h"

namespace quelta::replay {

class ReportBuilder {
 public:
  ReportBuilder(std::string recordingName, bool hasGyro, bool hasAttitude);
  // The rows come from the compass engine: its disturbance and heading
  // accuracy are drawn too. rateFromAttitude: the reference rate is the one
  // the comparison derives from the reference attitude (SampleErrors).
  void setCompass(bool rateFromAttitude);
  // First pass: every sample with what the library reported.
  void add(const RecordedSample& sample, const ReplayRow& row);
  // Second pass: the errors against the reference (from ReferenceComparator::finish).
  void addErrors(const SampleErrors& errors);
  // The summary's text heads the page; its drops of accuracy are listed in
  // full below the calibration plots (up to kDropsInReport).
  std::string render(const std::string& summaryText, const std::vector<AccuracyDrop>& drops = {}) const;

  static constexpr size_t kDropsInReport = 1000;

  // Field samples kept for the cloud plots at most.
  static constexpr size_t kCloudPoints = 20000;

  // The heading accuracy plot's scale, degrees: where an estimate is useful.
  // Larger values (180: unknown) are drawn in a marked strip above it.
  static constexpr double kHeadingScaleDeg = 30.0;

 private:
  using EnvelopePtr = std::shared_ptr<Envelope>;
  std::string name_;
  bool hasGyro_;
  bool hasAttitude_;
  bool compass_ = false;
  bool rateFromAttitude_ = false;
  size_t samples_ = 0;
  double firstT_ = 0.0;
  ReplayRow last_;
  EnvelopePtr accuracy_, offset_[3], radius_;
  EnvelopePtr azimuth_, pitch_, roll_;
  EnvelopePtr referenceAzimuth_, referencePitch_, referenceRoll_;
  EnvelopePtr vgyro_[3], referenceGyro_[3];
  EnvelopePtr rotationVectorError_, azimuthError_;
  EnvelopePtr disturbance_, disturbed_, headingAccuracy_, calibrationHeadingError_, actualHeadingError_;
  EnvelopePtr headingError_, tiltError_;
  EnvelopePtr outputAccuracy_[4], flags_[6];  // raised (1) while at that level / while the flag is set
  EnvelopePtr coverage_, fittedStrength_, expectedStrength_, residual_, softIron_[6];
  // Every stride-th raw field sample; the stride doubles when full.
  std::vector<std::array<float, 3>> cloud_;
  size_t stride_ = 1;
};

// Renders the report of a replay held in memory.
std::string renderReport(const Recording& recording, const std::vector<ReplayRow>& rows,
                         const std::string& summaryText);

}  // namespace quelta::replay
