// SPDX-License-Identifier: Apache-2.0
// The compass's C interface over caller-owned storage.
#include <cmath>
#include <cstring>
#include <new>

#include "quelta/api/compass_c_units.h"
#include "quelta/api/magnetic_c_convert.h"
#include "quelta/compass/compass.h"
#include "quelta/quelta_compass.h"

namespace {

using quelta::compass::Compass;

// The object sits after a header word that says it was initialised.
constexpr uint64_t kMagic = 0x51434f4d50415353ull;  // "QCOMPASS"
constexpr size_t kOffset = 16;

static_assert(sizeof(Compass) + kOffset <= sizeof(quelta_compass), "the compass state outgrew its storage");
static_assert(alignof(Compass) <= 16, "storage alignment");
static_assert(quelta::magnetic::kRecordSize == QUELTA_MAG_RECORD_SIZE, "record size");

void* place(quelta_compass* state) { return reinterpret_cast<unsigned char*>(state->opaque) + kOffset; }

Compass* self(quelta_compass* state) {
  if (state == nullptr || state->opaque[0] != kMagic) return nullptr;
  return std::launder(reinterpret_cast<Compass*>(place(state)));
}
const Compass* self(const quelta_compass* state) { return self(const_cast<quelta_compass*>(state)); }

// The door's state sits at the end of the storage. A sample set the compass
// refuses after the door has converted it must leave no trace there either:
// that part of the storage is kept aside until the compass has spoken.
constexpr size_t kDoorBytes = quelta::api::kDoorStateBytes;
constexpr size_t kDoorAt = sizeof(quelta_compass) - kDoorBytes;
static_assert(kDoorAt >= kOffset, "storage");

class DoorKept {
 public:
  explicit DoorKept(const quelta_compass* state) { std::memcpy(bytes_, tail(state), kDoorBytes); }
  void restore(quelta_compass* state) const { std::memcpy(tail(state), bytes_, kDoorBytes); }

 private:
  static unsigned char* tail(const quelta_compass* state) {
    return const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(state->opaque)) + kDoorAt;
  }
  unsigned char bytes_[kDoorBytes];
};

void copy3(const quelta::compass::Vec3& v, double* out) {
  out[0] = v.x;
  out[1] = v.y;
  out[2] = v.z;
}

}  // namespace

extern "C" {

QUELTA_LAYER_API int32_t quelta_compass_init(quelta_compass* state) {
  if (state == nullptr) return -1;
  new (place(state)) Compass();
  state->opaque[0] = kMagic;
  quelta::api::openDoor(state);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_reset(quelta_compass* state) {
  Compass* c = self(state);
  if (c == nullptr) return -1;
  c->reset();
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_set_declination(quelta_compass* state, double declination_deg) {
  Compass* c = self(state);
  if (c == nullptr) return -1;
  if (!std::isfinite(declination_deg) || std::fabs(declination_deg) > 180.0) return QUELTA_COMPASS_ERROR_SETTING;
  c->setDeclination(declination_deg);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_set_expected_field(quelta_compass* state, double strength_gauss,
                                                           double dip_deg) {
  Compass* c = self(state);
  if (c == nullptr) return -1;
  // Zero or negative strength forgets the expected field; anything else must
  // be a field the earth could have.
  const double gauss = strength_gauss / quelta::api::fieldPerGauss(state);
  const bool forget = std::isfinite(gauss) && gauss <= 0.0;
  if (!forget && !quelta::api::plausibleExpectedField(gauss, dip_deg)) return QUELTA_COMPASS_ERROR_SETTING;
  c->setExpectedField(quelta::api::expectedFieldOf(gauss, dip_deg));
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_update(quelta_compass* state, double t, const double* acc,
                                               const double* raw_field, const double* gyro) {
  Compass* c = self(state);
  if (c == nullptr || acc == nullptr) return -1;
  DoorKept kept(state);
  quelta::api::DoorSample s;
  const int32_t units = quelta::api::enterDoor(state, t, acc, raw_field, gyro, s);
  if (units != 0) return units;
  const int32_t code = c->update(s.t, s.acc, raw_field != nullptr ? &s.field : nullptr, gyro != nullptr ? &s.gyro : nullptr);
  if (code != 0) kept.restore(state);
  return code;
}

QUELTA_LAYER_API int32_t quelta_compass_update_calibrated(quelta_compass* state, double t, const double* acc,
                                                          const double* field,
                                                          const quelta_compass_field_quality* quality,
                                                          const double* gyro) {
  Compass* c = self(state);
  if (c == nullptr || acc == nullptr) return -1;
  quelta::compass::FieldQuality q;
  if (quality != nullptr) {
    if (!std::isfinite(quality->disturbance_score) || !std::isfinite(quality->calibration_heading_error_deg) ||
        quality->disturbance_score < 0.0 || quality->calibration_heading_error_deg < 0.0 ||
        quality->calibration_heading_error_deg > 180.0 || quality->calibration_accuracy < 0 ||
        quality->calibration_accuracy > 3)
      return QUELTA_COMPASS_ERROR_QUALITY;
    q.disturbed = quality->disturbed != 0;
    q.disturbanceScore = quality->disturbance_score;
    q.calibrationAccuracy = quality->calibration_accuracy;
    q.calibrationHeadingErrorDeg = quality->calibration_heading_error_deg;
  }
  DoorKept kept(state);
  quelta::api::DoorSample s;
  const int32_t units = quelta::api::enterDoor(state, t, acc, field, gyro, s);
  if (units != 0) return units;
  const int32_t code =
      c->updateCalibrated(s.t, s.acc, field != nullptr ? &s.field : nullptr, q, gyro != nullptr ? &s.gyro : nullptr);
  if (code != 0) kept.restore(state);
  return code;
}

QUELTA_LAYER_API int32_t quelta_compass_get_output(const quelta_compass* state, quelta_compass_output* out) {
  const Compass* c = self(state);
  if (c == nullptr || out == nullptr) return -1;
  const quelta::compass::CompassOutput& o = c->output();
  out->t = o.t;
  out->quaternion[0] = o.attitude.w;
  out->quaternion[1] = o.attitude.x;
  out->quaternion[2] = o.attitude.y;
  out->quaternion[3] = o.attitude.z;
  out->azimuth_deg = o.azimuthDeg;
  out->pitch_deg = o.pitchDeg;
  out->roll_deg = o.rollDeg;
  copy3(o.gravity, out->gravity);
  copy3(o.linearAcc, out->linear_acceleration);
  copy3(o.rate, out->angular_rate);
  copy3(o.gyroBias, out->gyro_bias);
  out->heading_accuracy_deg = o.headingAccuracyDeg;
  out->accuracy = o.accuracy;
  out->flags = o.flags;
  quelta::api::leaveDoor(state, out);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_get_calibration_quality(const quelta_compass* state,
                                                                quelta_mag_quality* out) {
  const Compass* c = self(state);
  if (c == nullptr || out == nullptr) return -1;
  quelta::api::copyQuality(c->calibrator().quality(), out);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_save_calibration(const quelta_compass* state,
                                                         uint8_t record[QUELTA_MAG_RECORD_SIZE]) {
  const Compass* c = self(state);
  if (c == nullptr || record == nullptr) return -1;
  uint8_t(&r)[quelta::magnetic::kRecordSize] = *reinterpret_cast<uint8_t(*)[quelta::magnetic::kRecordSize]>(record);
  return static_cast<int32_t>(c->calibrator().save(r));
}

QUELTA_LAYER_API int32_t quelta_compass_restore_calibration(quelta_compass* state, const uint8_t* record,
                                                            size_t size) {
  Compass* c = self(state);
  if (c == nullptr) return -1;
  if (record == nullptr) return QUELTA_MAG_RECORD_TRUNCATED;
  return static_cast<int32_t>(c->calibrator().restore(record, size));
}

QUELTA_LAYER_API int32_t quelta_compass_get_calibration(const quelta_compass* state, quelta_mag_calibration* out) {
  const Compass* c = self(state);
  if (c == nullptr || out == nullptr) return -1;
  quelta::api::copyCalibration(c->calibrator().calibration(), out);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_get_field(const quelta_compass* state, quelta_mag_sample* out) {
  const Compass* c = self(state);
  if (c == nullptr || out == nullptr) return -1;
  quelta::api::copySample(c->field(), out);
  return 0;
}

}  // extern "C"
