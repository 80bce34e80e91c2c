// The magnetic layer's C interface over caller-owned state.
#include <cmath>
#include <new>

#include "quelta/magnetic/mag_calibrator.h"
#include "quelta/quelta_magnetic.h"

using quelta::magnetic::Calibrator;

static_assert(sizeof(Calibrator) <= sizeof(quelta_mag_state), "quelta_mag_state too small");
static_assert(alignof(Calibrator) <= alignof(quelta_mag_state), "quelta_mag_state alignment");
static_assert(quelta::magnetic::kRecordSize == QUELTA_MAG_RECORD_SIZE, "record size");

namespace {

Calibrator* self(quelta_mag_state* s) { return reinterpret_cast<Calibrator*>(s->opaque); }
const Calibrator* self(const quelta_mag_state* s) { return reinterpret_cast<const Calibrator*>(s->opaque); }

constexpr double kDeg = 57.29577951308232;

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
  quelta::magnetic::ExpectedField f;
  if (std::isfinite(strength_gauss) && std::isfinite(dip_deg) && strength_gauss > 0.0 &&
      strength_gauss < 10.0 && std::fabs(dip_deg) <= 90.0) {
    f.strengthGauss = strength_gauss;
    f.dipDeg = dip_deg;
    f.known = true;
  }
  self(state)->setExpectedField(f);
}

QUELTA_LAYER_API int quelta_mag_update(quelta_mag_state* state, double t, const double mag[3],
                                       const double acc[3], quelta_mag_sample* out) {
  if (state == nullptr) return 0;
  const quelta::magnetic::SampleOutput o = self(state)->update(t, mag, acc);
  if (out != nullptr) {
    out->calibrated[0] = o.calibrated.x;
    out->calibrated[1] = o.calibrated.y;
    out->calibrated[2] = o.calibrated.z;
    out->strength = o.strength;
    out->dip_deg = o.dipDeg;
    out->strength_deviation = o.strengthDeviation;
    out->dip_deviation_deg = o.dipDeviationDeg;
    out->disturbance = o.disturbance;
    out->disturbed = o.disturbed ? 1 : 0;
    out->accuracy = o.accuracy;
    out->new_calibration = o.newCalibration ? 1 : 0;
    out->valid = o.valid ? 1 : 0;
  }
  return o.valid ? 1 : 0;
}

QUELTA_LAYER_API void quelta_mag_get_calibration(const quelta_mag_state* state, quelta_mag_calibration* out) {
  if (state == nullptr || out == nullptr) return;
  const quelta::magnetic::Calibration& c = self(state)->calibration();
  out->offset[0] = c.offset.x;
  out->offset[1] = c.offset.y;
  out->offset[2] = c.offset.z;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) out->soft_iron[3 * i + j] = c.softIron.m[i][j];
  out->strength = c.strength;
  const double ratio = c.strength > 0.0 ? -c.vertical / c.strength : 0.0;
  out->dip_deg = std::asin(ratio < -1.0 ? -1.0 : (ratio > 1.0 ? 1.0 : ratio)) * kDeg;
  out->model = static_cast<int>(c.model);
}

QUELTA_LAYER_API void quelta_mag_get_quality(const quelta_mag_state* state, quelta_mag_quality* out) {
  if (state == nullptr || out == nullptr) return;
  const quelta::magnetic::Quality& q = self(state)->quality();
  out->accuracy = q.accuracy;
  out->reason = static_cast<int>(q.reason);
  out->coverage = q.coverage;
  out->residual_gauss = q.residualGauss;
  out->fitted_strength = q.fittedStrength;
  out->expected_strength = q.expectedStrength;
  out->heading_error_deg = q.headingErrorDeg;
  out->samples = q.samples;
  out->new_hard_iron = q.newHardIron;
}

QUELTA_LAYER_API void quelta_mag_apply(const quelta_mag_state* state, const double raw[3], double calibrated[3]) {
  if (state == nullptr || raw == nullptr || calibrated == nullptr) return;
  const quelta::V3 h = self(state)->apply({raw[0], raw[1], raw[2]});
  calibrated[0] = h.x;
  calibrated[1] = h.y;
  calibrated[2] = h.z;
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
