// SPDX-License-Identifier: Apache-2.0
// What the accuracy tool prints after the per-recording table of a variant:
// the figures pooled by group (all, undisturbed, disturbed, each kind of
// device under each), the worst recording of each kind, the two folds
// (odd- and even-numbered recordings, sorted by name), the targets, and how
// well the engines' heading accuracy estimates cover the actual error.
#pragma once

#include <string>
#include <vector>

#include "tools/accuracy/scoring.h"

namespace quelta::accuracy {

struct Row {
  const TruthRecording* truth = nullptr;
  bool oddFold = false;  // odd-numbered (1st, 3rd, ...) among the recordings sorted by name
  Engine engine = Engine::CompassGyro;
  Result result;
};

// "board", "phone" or "iPhone" with "undisturbed" or "disturbed".
std::string kindOf(const TruthRecording& truth);

void printPooled(const std::vector<Row>& rows, const std::vector<Engine>& engines);
void printWorstOfEachKind(const std::vector<Row>& rows, const std::vector<Engine>& engines);
void printFolds(const std::vector<Row>& rows, const std::vector<Engine>& engines);
// The targets of the compass filter with gyroscope and ideal calibration.
void printTargets(const std::vector<Row>& rows);
// Bins of the reported heading accuracy against the actual error.
void printEstimateCoverage(const std::vector<Row>& rows, Engine engine);

}  // namespace quelta::accuracy
