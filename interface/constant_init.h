// SPDX-License-Identifier: Apache-2.0
// Demands constant initialisation of a process-wide instance: no static
// constructor may run when the library loads.
#pragma once

#if defined(__clang__)
#define QUELTA_CONSTANT_INIT [[clang::require_constant_initialization]]
#elif defined(__GNUC__) && __GNUC__ >= 10
#define QUELTA_CONSTANT_INIT __constinit
#else
#define QUELTA_CONSTANT_INIT
#endif
