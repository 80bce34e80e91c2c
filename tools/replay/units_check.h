// SPDX-License-Identifier: Apache-2.0
// A look at the first samples of a recording, before the replay, for data
// that contradict the declared units: an accelerometer in m/s^2 read as g
// (or the other way round), a field in microtesla read as gauss (or the
// other way round), times in nanoseconds (or ms, us) read as seconds. Each
// finding names the option that fixes it.
#pragma once

#include <string>
#include <vector>

#include "tools/replay/recording.h"

namespace quelta::replay {

// Samples the check looks at: the first 20 s at 50 Hz.
constexpr size_t kUnitsCheckSamples = 1000;

// Warnings, one sentence each; none when the data fit the units. samples
// are as read, converted with units.
std::vector<std::string> checkUnits(const std::vector<RecordedSample>& samples, const Units& units);

}  // namespace quelta::replay
