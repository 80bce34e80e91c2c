// The figures of a replay that a person reads first, and their text.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tools/replay/recording.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_row.h"

namespace quelta::replay {

struct Summary {
  std::string recording;
  size_t samples = 0;
  double duration = 0.0;  // s
  double rate = 0.0;      // Hz, from the median interval
  std::array<std::optional<double>, 3> accuracyReached;  // first time at level >= 1, 2, 3
  int finalAccuracy = 0;
  std::array<float, 3> offset{};
  float radius = 0.0f;
  int acceptedFits = 0;
  std::optional<double> lastAcceptedAt;
  std::array<float, 3> geometry{};  // horizontal, vertical (gauss), inclination (deg)
  int saturations = 0;
};

Summary summarise(const Recording& recording, const std::vector<ReplayRow>& rows);

std::string formatSummary(const Summary& summary, const ReferenceComparison& reference);

}  // namespace quelta::replay
