// SPDX-License-Identifier: Apache-2.0
// The exported log callback and its registration.
#include "QueltaAlgo.h"

extern "C" {

QUELTA_API LogCallback log_func = nullptr;

QUELTA_API void RegisterLogCallback(LogCallback fn) { log_func = fn; }

}  // extern "C"
