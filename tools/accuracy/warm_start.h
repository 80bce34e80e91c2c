// SPDX-License-Identifier: Apache-2.0
// Warm start: every phone recording replayed through the whole compass
// starting from the calibration that the compass saved at the end of the
// same device's calibration recording (another day for most recordings).
#pragma once

#include <string>
#include <vector>

#include "tools/accuracy/recording_set.h"

namespace quelta::accuracy {

// Prints the warm-start table (Markdown) for the phone recordings among
// recordings; the calibration recordings are read from directory.
void printWarmStart(const std::string& directory, const std::vector<TruthRecording>& recordings);

}  // namespace quelta::accuracy
