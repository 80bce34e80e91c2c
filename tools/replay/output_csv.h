// The per-sample output table of a replay.
#pragma once

#include <cstdio>
#include <vector>

#include "tools/replay/replay_row.h"

namespace quelta::replay {

// Header, then one row per sample. Floats are written with 9 significant
// digits, enough to read back the exact float.
void writeOutputCsv(FILE* out, const std::vector<ReplayRow>& rows);

}  // namespace quelta::replay
