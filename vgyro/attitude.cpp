#include "vgyro/attitude.h"

#include <cmath>

#include "core/vector_math.h"

namespace quelta {

namespace {

void unitOrZero(const float* v, float* out) {
  const float n = norm2(v, 3);
  if (static_cast<double>(n) < 1e-10) {
    out[0] = out[1] = out[2] = 0.0f;
    return;
  }
  out[0] = v[0] / n;
  out[1] = v[1] / n;
  out[2] = v[2] / n;
}

// Scale of the three components besides the dominant one when a diagonal term
// leads: 0.5 / t, or 0 rather than a division by zero.
float dominantFactor(float t) { return t == 0.0f ? 0.0f : 0.5f / t; }

}  // namespace

void cn2bFromMagAcc(const float* mag, const float* acc, float* Cn2b) {
  float up[3];
  unitOrZero(acc, up);
  // East from the raw acceleration: only its direction matters here.
  float eastRaw[3];
  cross(mag, acc, eastRaw);
  float east[3];
  unitOrZero(eastRaw, east);
  float north[3];
  cross(up, east, north);
  for (int i = 0; i < 3; ++i) {
    Cn2b[3 * i + 0] = east[i];
    Cn2b[3 * i + 1] = north[i];
    Cn2b[3 * i + 2] = up[i];
  }
}

void dcmToQuat(const float* m, float* q) {
  float w, x, y, z;
  const float tr = (m[0] + m[4]) + m[8];
  if (tr > 0.0f) {
    w = static_cast<float>(std::sqrt(static_cast<double>(tr + 1.0f)) * 0.5);
    const float s = 0.25f / w;
    x = s * (m[5] - m[7]);
    y = s * (m[6] - m[2]);
    z = s * (m[1] - m[3]);
  } else if (m[4] > m[0] && m[4] > m[8]) {
    const float t = std::sqrt(((m[4] - m[0]) - m[8]) + 1.0f);
    y = t * 0.5f;
    const float f = dominantFactor(t);
    w = f * (m[6] - m[2]);
    x = f * (m[1] + m[3]);
    z = f * (m[5] + m[7]);
  } else if (m[8] > m[0]) {
    const float t = std::sqrt(((m[8] - m[0]) - m[4]) + 1.0f);
    z = t * 0.5f;
    const float f = dominantFactor(t);
    w = f * (m[1] - m[3]);
    x = f * (m[6] + m[2]);
    y = f * (m[5] + m[7]);
  } else {
    const float t = std::sqrt(((m[0] - m[4]) - m[8]) + 1.0f);
    x = t * 0.5f;
    const float f = dominantFactor(t);
    w = f * (m[5] - m[7]);
    y = f * (m[1] + m[3]);
    z = f * (m[6] + m[2]);
  }
  const float unnormalised[4] = {w, x, y, z};
  const float n = norm2(unnormalised, 4);
  if (static_cast<double>(n) < 1e-10) return;
  q[0] = w / n;
  q[1] = x / n;
  q[2] = y / n;
  q[3] = z / n;
}

}  // namespace quelta
