// The exported math routines: thin wrappers over the inline versions that the
// fusion code uses directly.
#include "QueltaAlgo.h"
#include "core/complex_math.h"
#include "core/quaternion.h"
#include "core/vector_math.h"

extern "C" {

QUELTA_API float norm2(const float* v, int32_t n) { return quelta::norm2(v, n); }
QUELTA_API float dot(const float* a, const float* b, int32_t n) { return quelta::dot(a, b, n); }
QUELTA_API void cross(const float* a, const float* b, float* out) { quelta::cross(a, b, out); }
QUELTA_API void vecNormalize(const float* v, float* out, int32_t n) { quelta::vecNormalize(v, out, n); }
QUELTA_API void sort(float* v, int32_t n) { quelta::bubbleSort(v, n); }
QUELTA_API float mean(const float* v, int32_t n) { return quelta::mean(v, n); }

QUELTA_API void quatConj(const float* q, float* out) { quelta::quatConj(q, out); }
QUELTA_API void quatMultiply(const float* p, const float* q, float* out) { quelta::quatMultiply(p, q, out); }
QUELTA_API void quatNormalize(const float* q, float* out) { quelta::quatNormalize(q, out); }

QUELTA_API float ComplexAbs(const float* z) { return quelta::complexAbs(z); }
QUELTA_API void ComplexConj(const float* z, float* out) { quelta::complexConj(z, out); }
QUELTA_API void ComplexInv(const float* z, float* out) { quelta::complexInv(z, out); }
QUELTA_API void ComplexAdd(const float* a, const float* b, float* out) { quelta::complexAdd(a, b, out); }
QUELTA_API void ComplexSub(const float* a, const float* b, float* out) { quelta::complexSub(a, b, out); }
QUELTA_API void ComplexMultiply(const float* a, const float* b, float* out) { quelta::complexMultiply(a, b, out); }
QUELTA_API void ComplexMultiplyReal(const float* z, float r, float* out) { quelta::complexMultiplyReal(z, r, out); }
QUELTA_API void ComplexDivide(const float* a, const float* b, float* out) { quelta::complexDivide(a, b, out); }
QUELTA_API void ComplexExp(const float* z, int32_t n, float* out) { quelta::complexPower(z, n, out); }

}  // extern "C"
