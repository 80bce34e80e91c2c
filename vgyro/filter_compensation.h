// Gain that undoes the amplitude loss of a recursive filter b / a for a
// signal turning at rate w: per axis, the reciprocal of the filter's
// magnitude response at |w| * dt / pi radians per sample. 1 for a rate below
// 1e-7. Pure function.
#pragma once

#include <cstdint>

namespace quelta {

void filterCompensation(float* gain, const float* w, const float* b, const float* a, int32_t nb,
                        int32_t na, float dt);

}  // namespace quelta
