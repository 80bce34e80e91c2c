// SPDX-License-Identifier: Apache-2.0
// How far an estimated attitude is from the truth, as the compass tests
// judge it: the heading error (the turn about the vertical) and the tilt
// error (the angle between the two up directions), degrees.
#pragma once

#include <cmath>

#include "quelta/compass/compass_filter.h"

namespace quelta::compass {

inline double headingErrorDeg(const Quat& truth, const Quat& estimate) {
  const Quat e = truth * conj(estimate);
  return wrapPi(2.0 * std::atan2(e.z, e.w)) / kDeg;
}

inline double tiltErrorDeg(const Quat& truth, const Quat& estimate) {
  const Vec3 a = rotateBack(truth, {0, 0, 1});
  const Vec3 b = rotateBack(estimate, {0, 0, 1});
  return std::atan2(norm(cross(a, b)), dot(a, b)) / kDeg;
}

}  // namespace quelta::compass
