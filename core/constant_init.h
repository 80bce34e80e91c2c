// QUELTA_CONSTANT_INIT on a namespace-scope object demands constant
// initialisation: the compiler refuses the build if a static constructor
// would have to run when the library loads. Every process-wide instance
// behind the C interface carries it.
#pragma once

#if defined(__clang__)
#define QUELTA_CONSTANT_INIT [[clang::require_constant_initialization]]
#elif defined(__GNUC__) && __GNUC__ >= 10
#define QUELTA_CONSTANT_INIT __constinit
#else
#define QUELTA_CONSTANT_INIT
#endif
