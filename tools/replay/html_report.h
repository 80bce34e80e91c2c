// The visual report of a replay: one self-contained HTML file with inline
// SVG plots (no scripts, nothing fetched).
#pragma once

#include <string>
#include <vector>

#include "tools/replay/recording.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_row.h"

namespace quelta::replay {

std::string renderReport(const Recording& recording, const std::vector<ReplayRow>& rows,
                         const std::string& summaryText, const ReferenceComparison& reference);

}  // namespace quelta::replay
