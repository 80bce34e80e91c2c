// SPDX-License-Identifier: Apache-2.0
// Every log text of the orientation, with the log modes that let it through.
#pragma once

#include "core/log.h"

namespace quelta {

struct OrientationLogTexts {
  LogText windowLengths{LogGate::kAlways, "TRVQX4e20171117 paraC[1]= %d paraC[2]= %d \n"};
};

inline constexpr OrientationLogTexts kOrientationLog{};

}  // namespace quelta
