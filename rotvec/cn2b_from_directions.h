// Direction cosine matrix from a unit field and a unit gravity direction.
#pragma once

namespace quelta {

// magAccDir: unit field h (3), unit acceleration g (3), sinA, cosA of the
// angle between them. Cn2b: 9 floats row-major; columns east, north, up in
// device coordinates.
void cn2bFromDirections(const float* magAccDir, float* Cn2b);

}  // namespace quelta
