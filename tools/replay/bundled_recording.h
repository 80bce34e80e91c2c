// SPDX-License-Identifier: Apache-2.0
// Where the recording bundled with the project lives: installed beside the
// program, or in the source tree it was built from.
#pragma once

#include <string>

namespace quelta::replay {

// Empty when it cannot be found.
std::string findBundledRecording();

}  // namespace quelta::replay
