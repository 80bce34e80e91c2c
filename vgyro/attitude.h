// Attitude from one field and one acceleration sample.
//   Cn2b: 3 x 3 direction cosine matrix, row-major, whose columns are east,
//         north and up in device coordinates (it maps ENU to device axes).
//   quaternion (w, x, y, z): the rotation from device axes to ENU, that is
//         the quaternion of the transpose of Cn2b.
#pragma once

namespace quelta {

// East = mag x acc, up = acc, north = up x east, each normalised; a vector
// too short to normalise (norm below 1e-10) becomes zero.
void cn2bFromMagAcc(const float* mag, const float* acc, float* Cn2b);

// Leaves q untouched when the result cannot be normalised. The sign of the
// result is not normalised: w may be negative.
void dcmToQuat(const float* Cn2b, float* q);

}  // namespace quelta
