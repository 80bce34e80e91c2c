// SPDX-License-Identifier: Apache-2.0
// The layer's version, for hosts that load libquelta.so at run time.
#include "quelta/quelta.h"

extern "C" QUELTA_LAYER_API const char* quelta_version(void) { return QUELTA_VERSION_STRING; }
