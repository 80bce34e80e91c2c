// SPDX-License-Identifier: Apache-2.0
// The per-sample output table of a replay, written row by row as the
// replay goes.
#pragma once

#include <cstdio>
#include <vector>

#include "tools/replay/replay_row.h"

namespace quelta::replay {

void writeOutputCsvHeader(FILE* out);
// One row. Floats are written in the shortest form that reads back as the
// exact same float; times with 9 significant digits.
void writeOutputCsvRow(FILE* out, const ReplayRow& row);

// The compass engine's table: the columns above whose meaning is the same
// (without pool and saturation), then its own.
void writeCompassCsvHeader(FILE* out);
void writeCompassCsvRow(FILE* out, const ReplayRow& row);

// Header, then one row per sample.
void writeOutputCsv(FILE* out, const std::vector<ReplayRow>& rows);

}  // namespace quelta::replay
