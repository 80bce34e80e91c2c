// SPDX-License-Identifier: Apache-2.0
// quelta_compass_run: many sample sets in one call, each exactly as
// quelta_compass_update and quelta_compass_get_output would take it, so
// that a batch and a loop of single calls agree to the bit.
#include <cmath>

#include "quelta/quelta_compass.h"

namespace {

// A row of three NaN is "no reading in this set" (sensors at different
// rates); a partly finite row is a reading, faulty or not.
const double* readingOrNull(const double* rows, size_t i) {
  if (rows == nullptr) return nullptr;
  const double* r = rows + 3 * i;
  return (std::isnan(r[0]) && std::isnan(r[1]) && std::isnan(r[2])) ? nullptr : r;
}

}  // namespace

extern "C" {

QUELTA_LAYER_API int32_t quelta_compass_run(quelta_compass* state, size_t count, const double* t,
                                            const double* acc, const double* raw_field, const double* gyro,
                                            quelta_compass_output* out, quelta_mag_calibration* calibration,
                                            int32_t* codes) {
  quelta_compass_output probe;
  if (t == nullptr || acc == nullptr || quelta_compass_get_output(state, &probe) != 0) return -1;
  int32_t first = 0;
  for (size_t i = 0; i < count; ++i) {
    const int32_t code =
        quelta_compass_update(state, t[i], acc + 3 * i, readingOrNull(raw_field, i), readingOrNull(gyro, i));
    if (codes != nullptr) codes[i] = code;
    if (first == 0) first = code;
    if (out != nullptr) quelta_compass_get_output(state, out + i);
    if (calibration != nullptr) quelta_compass_get_calibration(state, calibration + i);
  }
  return first;
}

}  // extern "C"
