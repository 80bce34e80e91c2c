#include "rotvec/cn2b_from_directions.h"

#include <cmath>

namespace quelta {

namespace {

// Completes the east entry Cr0 of row r so the row has unit length. d is the
// row's component of up x north, so east = north x up is positive when d < 0.
// A row already longer than unit length is shrunk instead and gets no east
// entry.
void completeRow(float* C, int r, float t, float d) {
  float* row = C + 3 * r;
  if (t > 1.0f) {
    const double len = std::sqrt(static_cast<double>(t));
    row[1] = static_cast<float>(static_cast<double>(row[1]) / len);
    row[2] = static_cast<float>(static_cast<double>(row[2]) / len);
    row[0] = 0.0f;
  } else {
    const float east = std::sqrt(1.0f - t);
    row[0] = d < 0.0f ? east : -east;
  }
}

}  // namespace

void cn2bFromDirections(const float* magAccDir, float* C) {
  const float* h = magAccDir;
  const float* g = magAccDir + 3;
  const float sinA = magAccDir[6];
  const float cosA = magAccDir[7];

  // Up: gravity as given.
  C[2] = g[0];
  C[5] = g[1];
  C[8] = g[2];
  // North: the field's part across gravity, scaled to unit length.
  C[1] = (h[0] - cosA * g[0]) / sinA;
  C[4] = (h[1] - cosA * g[1]) / sinA;
  C[7] = (h[2] - cosA * g[2]) / sinA;

  // East, row by row in the order 2, 0, 1; each row sees what the earlier
  // ones left (a shrunk row changes the later rows' inputs).
  completeRow(C, 2, C[8] * C[8] + C[7] * C[7], C[4] * C[2] - C[1] * C[5]);
  completeRow(C, 0, C[2] * C[2] + C[1] * C[1], C[7] * C[5] - C[4] * C[8]);
  completeRow(C, 1, C[5] * C[5] + C[4] * C[4], C[8] * C[1] - C[7] * C[2]);
}

}  // namespace quelta
