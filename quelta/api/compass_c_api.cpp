// The compass filter's C interface over caller-owned storage.
#include <new>

#include "quelta/compass/compass_filter.h"
#include "quelta/quelta_compass.h"

namespace {

using quelta::compass::CompassFilter;
constexpr uint32_t kMagic = 0x51434d50u;  // "QCMP"

static_assert(sizeof(CompassFilter) <= sizeof(static_cast<quelta_compass*>(nullptr)->storage),
              "the compass state outgrew its storage");
static_assert(alignof(CompassFilter) <= alignof(double), "storage alignment");

CompassFilter* filterOf(quelta_compass* state) {
  if (state == nullptr || state->magic != kMagic) return nullptr;
  return std::launder(reinterpret_cast<CompassFilter*>(state->storage));
}
const CompassFilter* filterOf(const quelta_compass* state) {
  if (state == nullptr || state->magic != kMagic) return nullptr;
  return std::launder(reinterpret_cast<const CompassFilter*>(state->storage));
}

void copy3(const quelta::compass::Vec3& v, double* out) {
  out[0] = v.x;
  out[1] = v.y;
  out[2] = v.z;
}

}  // namespace

extern "C" {

QUELTA_LAYER_API int32_t quelta_compass_init(quelta_compass* state) {
  if (state == nullptr) return -1;
  new (state->storage) CompassFilter();
  state->magic = kMagic;
  state->reserved = 0;
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_reset(quelta_compass* state) {
  CompassFilter* filter = filterOf(state);
  if (filter == nullptr) return -1;
  filter->reset();
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_set_declination(quelta_compass* state, double declination_deg) {
  CompassFilter* filter = filterOf(state);
  if (filter == nullptr || !std::isfinite(declination_deg)) return -1;
  filter->setDeclination(declination_deg);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_update(quelta_compass* state, double t, const double* acc,
                                               const double* field,
                                               const quelta_compass_field_quality* quality,
                                               const double* gyro) {
  CompassFilter* filter = filterOf(state);
  if (filter == nullptr || acc == nullptr) return -1;
  quelta::compass::FieldQuality q;
  if (quality != nullptr) {
    q.disturbed = quality->disturbed != 0;
    q.disturbanceScore = quality->disturbance_score;
    q.calibrationAccuracy = quality->calibration_accuracy;
    q.calibrationHeadingErrorDeg = quality->calibration_heading_error_deg;
  }
  const quelta::compass::Vec3 a{acc[0], acc[1], acc[2]};
  quelta::compass::Vec3 m, g;
  if (field != nullptr) m = {field[0], field[1], field[2]};
  if (gyro != nullptr) g = {gyro[0], gyro[1], gyro[2]};
  filter->update(t, a, field != nullptr ? &m : nullptr, q, gyro != nullptr ? &g : nullptr);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_get_output(const quelta_compass* state, quelta_compass_output* out) {
  const CompassFilter* filter = filterOf(state);
  if (filter == nullptr || out == nullptr) return -1;
  const quelta::compass::CompassOutput& o = filter->output();
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
  return 0;
}

}  // extern "C"
