// SPDX-License-Identifier: Apache-2.0
// The magnetic layer's C interface over caller-owned state.
#include <cmath>
#include <new>

#include "quelta/api/magnetic_c_convert.h"

using quelta::magnetic::Calibrator;

static_assert(sizeof(Calibrator) <= sizeof(quelta_mag_state), "quelta_mag_state too small");
static_assert(alignof(Calibrator) <= alignof(quelta_mag_state), "quelta_mag_state alignment");
static_assert(quelta::magnetic::kRecordSize == QUELTA_MAG_RECORD_SIZE, "record size");

namespace {

Calibrator* self(quelta_mag_state* s) { return reinterpret_cast<Calibrator*>(s->opaque); }
const Calibrator* self(const quelta_mag_state* s) { return reinterpret_cast<const Calibrator*>(s->opaque); }

}  // namespace

extern "C" {

QUELTA_LAYER_API void quelta_mag_init(quelta_mag_state* state) {
  if (state == nullptr) return;
  // Construct in the caller's storage (placement: no allocation).
  ::new (static_cast<void*>(state->opaque)) Calibrator();
}

QUELTA_LAYER_API void quelta_mag_reset(quelta_mag_state* state) {
  if (state != nullptr) self(state)->reset();
}

QUELTA_LAYER_API void quelta_mag_set_expected_field(quelta_mag_state* state, double strength_gauss,
                                                    double dip_deg) {
  if (state == nullptr) return;
  const bool forget = std::isfinite(strength_gauss) && strength_gauss <= 0.0;
  if (!forget && !quelta::api::plausibleExpectedField(strength_gauss, dip_deg)) return;
  self(state)->setExpectedField(quelta::api::expectedFieldOf(strength_gauss, dip_deg));
}

QUELTA_LAYER_API int quelta_mag_update(quelta_mag_state* state, double t, const double mag[3],
                                       const double acc[3], quelta_mag_sample* out) {
  if (state == nullptr) return 0;
  const quelta::magnetic::SampleOutput o = self(state)->update(t, mag, acc);
  if (out != nullptr) quelta::api::copySample(o, out);
  return o.valid ? 1 : 0;
}

QUELTA_LAYER_API void quelta_mag_get_calibration(const quelta_mag_state* state, quelta_mag_calibration* out) {
  if (state == nullptr || out == nullptr) return;
  quelta::api::copyCalibration(self(state)->calibration(), out);
}

QUELTA_LAYER_API void quelta_mag_get_quality(const quelta_mag_state* state, quelta_mag_quality* out) {
  if (state == nullptr || out == nullptr) return;
  quelta::api::copyQuality(self(state)->quality(), out);
}

QUELTA_LAYER_API void quelta_mag_apply(const quelta_mag_state* state, const double raw[3], double calibrated[3]) {
  if (state == nullptr || raw == nullptr || calibrated == nullptr) return;
  self(state)->apply(quelta::Vec3d::load(raw)).store(calibrated);
}

QUELTA_LAYER_API int quelta_mag_save(const quelta_mag_state* state, uint8_t record[QUELTA_MAG_RECORD_SIZE]) {
  if (state == nullptr || record == nullptr) return QUELTA_MAG_RECORD_NO_CALIBRATION;
  uint8_t (&rec)[quelta::magnetic::kRecordSize] = *reinterpret_cast<uint8_t (*)[quelta::magnetic::kRecordSize]>(record);
  return static_cast<int>(self(state)->save(rec));
}

QUELTA_LAYER_API int quelta_mag_restore(quelta_mag_state* state, const uint8_t* record, size_t size) {
  if (state == nullptr) return QUELTA_MAG_RECORD_TRUNCATED;
  return static_cast<int>(self(state)->restore(record, size));
}

QUELTA_LAYER_API const char* quelta_mag_reason_text(int reason) {
  if (reason < 0 || reason > 5) return "unknown";
  return quelta::magnetic::reasonText(static_cast<quelta::magnetic::Reason>(reason));
}

QUELTA_LAYER_API const char* quelta_mag_record_text(int status) {
  if (status < 0 || status > 6) return "unknown";
  return quelta::magnetic::recordStatusText(static_cast<quelta::magnetic::RecordStatus>(status));
}

}  // extern "C"
