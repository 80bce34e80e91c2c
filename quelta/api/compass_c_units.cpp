// SPDX-License-Identifier: Apache-2.0
// The compass's door: units, axes and frame, and the checks of values that
// contradict the units set (quelta_compass_set_units).
#include "quelta/api/compass_c_units.h"

#include <cmath>
#include <cstring>
#include <new>

#include "quelta/compass/compass.h"

namespace quelta::api {

namespace {

using compass::Vec3;

// The contradiction checks. Each limit lies far beyond what a sensor in the
// declared unit reads, and close to nothing a wrong unit gives.
constexpr double kMaxTimeS = 1e10;           // s (317 years): no clock in seconds reads more
constexpr double kLongIntervalS = 1.0;       // s: 10 times the longest interval at 10 Hz
constexpr double kShortIntervalS = 50e-6;    // s: 20 kHz, beyond any accelerometer's output rate
constexpr int kIntervalRun = 5;              // intervals in a row that make a stream, not a pause
constexpr double kMeanTau = 2.0;             // s, time constant of the magnitude means
constexpr double kMaxMeanAccG = 4.0;         // g: no hand-held device sustains it for seconds
constexpr double kMinMeanAccG = 0.3;         // g: seconds of near free fall (a fall of tens of metres)
constexpr double kMaxFieldGauss = 100.0;     // gauss: beyond any magnetometer's range (about 50 gauss)
constexpr double kMaxMeanFieldGauss = 15.0;  // gauss: earth (0.67 at most) and a device's hard iron
constexpr double kMinMeanFieldGauss = 0.02;  // gauss: a tenth of the weakest earth field (0.22)
// One reading's pull on a mean is capped: a spike is a fault, not a unit,
// and must not hold the mean past a limit for long.
constexpr double kAccCapG = 40.0;            // g, beyond any accelerometer's range
constexpr double kFieldCapGauss = 150.0;     // gauss, beyond any magnetometer's range
constexpr double kStandardGravity = 9.80665; // m/s^2 per g

constexpr uint64_t kDoorMagic = 0x51444f4f52554e54ull;  // "QDOORUNT"
constexpr uint64_t kCompassMagic = 0x51434f4d50415353ull;  // "QCOMPASS", as quelta_compass_init writes it

struct Door {
  Door() { quelta_compass_units_default(&units); }

  uint64_t magic = kDoorMagic;
  quelta_compass_units units;
  double perSecond = 1.0;  // host time units per second
  double perG = 1.0;       // host acceleration units per g
  double perGauss = 1.0;   // host field units per gauss
  bool remap[3] = {false, false, false};  // acc, field, gyro: not the identity
  // Clocks in ms, us or ns count from boot or from 1970: the compass gets
  // the time since the first sample, taken in the host's own unit (whole
  // nanoseconds subtract exactly), so that the sample grid survives.
  bool originSet = false;
  double origin = 0.0;  // host time unit
  // The watch.
  bool timeSeen = false;
  double lastT = 0.0;  // s, the last finite time seen
  int longRun = 0;
  int shortRun = 0;
  bool accSeen = false;
  double accMean = 0.0;  // g
  bool fieldSeen = false;
  double lastFieldT = 0.0;  // s
  double fieldMean = 0.0;   // gauss
  // The last accepted sample's time, in seconds and as the host gave it.
  double acceptedT = 0.0;
  double acceptedHostT = 0.0;
};

constexpr size_t kDoorSize = (sizeof(Door) + 15) / 16 * 16;
constexpr size_t kCompassEnd = 16 + sizeof(compass::Compass);  // the object after its header words
static_assert(kCompassEnd + kDoorSize <= sizeof(quelta_compass), "the door has no room beside the compass");
static_assert(alignof(Door) <= 16, "door alignment");
static_assert(kDoorSize <= kDoorStateBytes, "the door outgrew what a refusal keeps aside");

void* doorPlace(const quelta_compass* state) {
  return const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(state->opaque)) +
         sizeof(quelta_compass) - kDoorSize;
}

Door& doorOf(quelta_compass* state) {
  Door* d = std::launder(reinterpret_cast<Door*>(doorPlace(state)));
  if (d->magic != kDoorMagic) d = new (doorPlace(state)) Door();
  return *d;
}

const Door* doorOf(const quelta_compass* state) {
  const Door* d = std::launder(reinterpret_cast<const Door*>(doorPlace(state)));
  return d->magic == kDoorMagic ? d : nullptr;
}

void identity(double m[9]) {
  for (int i = 0; i < 9; ++i) m[i] = (i % 4 == 0) ? 1.0 : 0.0;
}

bool isIdentity(const double m[9]) {
  for (int i = 0; i < 9; ++i)
    if (m[i] != ((i % 4 == 0) ? 1.0 : 0.0)) return false;
  return true;
}

// Orthogonal within 1e-6: M * M^T is the identity.
bool orthogonal(const double m[9]) {
  for (int i = 0; i < 9; ++i)
    if (!std::isfinite(m[i])) return false;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      const double d = m[3 * r] * m[3 * c] + m[3 * r + 1] * m[3 * c + 1] + m[3 * r + 2] * m[3 * c + 2];
      if (std::fabs(d - (r == c ? 1.0 : 0.0)) > 1e-6) return false;
    }
  }
  return true;
}

Vec3 mapped(const double* v, const double m[9], bool remap, double perUnit) {
  Vec3 s{v[0] / perUnit, v[1] / perUnit, v[2] / perUnit};
  if (!remap) return s;
  return {m[0] * s.x + m[1] * s.y + m[2] * s.z, m[3] * s.x + m[4] * s.y + m[5] * s.z,
          m[6] * s.x + m[7] * s.y + m[8] * s.z};
}

bool finiteNonZero(const Vec3& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z) && (v.x != 0.0 || v.y != 0.0 || v.z != 0.0);
}

// A running mean with a time constant in seconds; dt is clamped so that a
// time fault cannot make one sample the whole mean.
void follow(double& mean, bool& seen, double value, double cap, double dt) {
  if (!std::isfinite(value)) return;
  value = std::fmin(value, cap);
  if (!seen) {
    mean = value;
    seen = true;
    return;
  }
  if (!(dt > 0.0)) return;
  const double step = std::fmin(dt, kMeanTau);
  mean += step / (step + kMeanTau) * (value - mean);
}

// Watches the times (t since the origin, absolute as the clock reads, both
// in seconds); true when they contradict the time unit.
bool timeContradicts(Door& d, double t, double absolute) {
  if (!std::isfinite(t)) return false;  // a fault, not a unit: for the fault checks
  bool wrong = std::fabs(absolute) > kMaxTimeS;
  if (d.timeSeen) {
    const double dt = t - d.lastT;
    d.longRun = dt > kLongIntervalS ? d.longRun + 1 : 0;
    if (dt > 0.0) d.shortRun = dt < kShortIntervalS ? d.shortRun + 1 : 0;
    wrong = wrong || d.longRun >= kIntervalRun || d.shortRun >= kIntervalRun;
  }
  d.timeSeen = true;
  d.lastT = t;
  return wrong;
}

}  // namespace

void openDoor(quelta_compass* state) { new (doorPlace(state)) Door(); }

double fieldPerGauss(const quelta_compass* state) {
  const Door* d = doorOf(state);
  return d != nullptr ? d->perGauss : 1.0;
}

int32_t enterDoor(quelta_compass* state, double t, const double* acc, const double* field, const double* gyro,
                  DoorSample& out) {
  Door& d = doorOf(state);
  const double previousT = d.lastT;
  const double absolute = t / d.perSecond;
  out.t = absolute;
  if (d.perSecond != 1.0 && std::isfinite(t)) {
    if (!d.originSet) {
      d.originSet = true;
      d.origin = t;
    }
    out.t = (t - d.origin) / d.perSecond;
  }
  const bool timeWrong = timeContradicts(d, out.t, absolute);
  const double dt = out.t - previousT;

  out.acc = mapped(acc, d.units.acc_axes, d.remap[0], d.perG);
  bool accWrong = false;
  if (finiteNonZero(out.acc)) {
    follow(d.accMean, d.accSeen, norm(out.acc), kAccCapG, dt);
    accWrong = d.accMean > kMaxMeanAccG || d.accMean < kMinMeanAccG;
  }

  bool fieldWrong = false;
  if (field != nullptr) {
    out.field = mapped(field, d.units.field_axes, d.remap[1], d.perGauss);
    if (finiteNonZero(out.field)) {
      const double strength = norm(out.field);
      follow(d.fieldMean, d.fieldSeen, strength, kFieldCapGauss, out.t - d.lastFieldT);
      d.lastFieldT = out.t;
      fieldWrong = strength > kMaxFieldGauss || d.fieldMean > kMaxMeanFieldGauss || d.fieldMean < kMinMeanFieldGauss;
    }
  }
  if (gyro != nullptr) out.gyro = mapped(gyro, d.units.gyro_axes, d.remap[2], 1.0);

  if (timeWrong) return QUELTA_COMPASS_ERROR_TIME_UNIT;
  if (accWrong) return QUELTA_COMPASS_ERROR_ACC_UNIT;
  if (fieldWrong) return QUELTA_COMPASS_ERROR_FIELD_UNIT;
  d.acceptedT = out.t;
  d.acceptedHostT = t;
  return 0;
}

void leaveDoor(const quelta_compass* state, quelta_compass_output* out) {
  const Door* d = doorOf(state);
  if (d == nullptr) return;
  if (d->perSecond != 1.0)
    out->t = out->t == d->acceptedT ? d->acceptedHostT : out->t * d->perSecond + d->origin;
  if (d->perG != 1.0) {
    for (int i = 0; i < 3; ++i) {
      out->gravity[i] *= d->perG;
      out->linear_acceleration[i] *= d->perG;
    }
  }
  if (d->units.output_frame == QUELTA_COMPASS_FRAME_NED) {
    // East-north-up to north-east-down is the half turn about the axis
    // halfway between east and north: (0, s, s, 0) with s = 1/sqrt(2),
    // applied on the left.
    const double s = std::sqrt(0.5);
    const double w = out->quaternion[0], x = out->quaternion[1], y = out->quaternion[2], z = out->quaternion[3];
    out->quaternion[0] = -s * (x + y);
    out->quaternion[1] = s * (w + z);
    out->quaternion[2] = s * (w - z);
    out->quaternion[3] = s * (y - x);
  }
}

}  // namespace quelta::api

extern "C" {

QUELTA_LAYER_API int32_t quelta_compass_units_default(quelta_compass_units* out) {
  if (out == nullptr) return -1;
  std::memset(out, 0, sizeof *out);
  out->time_unit = QUELTA_COMPASS_TIME_S;
  out->acc_unit = QUELTA_COMPASS_ACC_G;
  out->field_unit = QUELTA_COMPASS_FIELD_GAUSS;
  out->output_frame = QUELTA_COMPASS_FRAME_ENU;
  quelta::api::identity(out->acc_axes);
  quelta::api::identity(out->field_axes);
  quelta::api::identity(out->gyro_axes);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_axes(int32_t named, double matrix[9]) {
  if (matrix == nullptr) return -1;
  // Columns are where the sensor's x, y and z point in the device's axes.
  static const double kRemaps[6][9] = {
      {1, 0, 0, 0, 1, 0, 0, 0, 1},    // as is
      {0, -1, 0, 1, 0, 0, 0, 0, 1},   // rotated 90: sensor x = device y, sensor y = device -x
      {-1, 0, 0, 0, -1, 0, 0, 0, 1},  // rotated 180
      {0, 1, 0, -1, 0, 0, 0, 0, 1},   // rotated 270: sensor x = device -y, sensor y = device x
      {0, 1, 0, 1, 0, 0, 0, 0, -1},   // forward-right-down: x forward = y, y right = x, z down = -z
      {-1, 0, 0, 0, 1, 0, 0, 0, -1},  // face down: half turn about y
  };
  if (named < 0 || named >= 6) return QUELTA_COMPASS_ERROR_AXES;
  std::memcpy(matrix, kRemaps[named], sizeof kRemaps[named]);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_set_units(quelta_compass* state, const quelta_compass_units* units) {
  if (state == nullptr || units == nullptr || state->opaque[0] != quelta::api::kCompassMagic) return -1;
  static const double kPerSecond[] = {1.0, 1e3, 1e6, 1e9};
  static const double kPerG[] = {1.0, quelta::api::kStandardGravity};
  static const double kPerGauss[] = {1.0, 100.0, 100000.0};
  const quelta_compass_units& u = *units;
  if (u.time_unit < 0 || u.time_unit > 3 || u.acc_unit < 0 || u.acc_unit > 1 || u.field_unit < 0 ||
      u.field_unit > 2 || u.output_frame < 0 || u.output_frame > 1)
    return QUELTA_COMPASS_ERROR_UNITS;
  if (!quelta::api::orthogonal(u.acc_axes) || !quelta::api::orthogonal(u.field_axes) ||
      !quelta::api::orthogonal(u.gyro_axes))
    return QUELTA_COMPASS_ERROR_AXES;
  quelta::api::Door& d = *new (quelta::api::doorPlace(state)) quelta::api::Door();
  d.units = u;
  d.perSecond = kPerSecond[u.time_unit];
  d.perG = kPerG[u.acc_unit];
  d.perGauss = kPerGauss[u.field_unit];
  d.remap[0] = !quelta::api::isIdentity(u.acc_axes);
  d.remap[1] = !quelta::api::isIdentity(u.field_axes);
  d.remap[2] = !quelta::api::isIdentity(u.gyro_axes);
  return 0;
}

QUELTA_LAYER_API int32_t quelta_compass_get_units(const quelta_compass* state, quelta_compass_units* out) {
  if (state == nullptr || out == nullptr || state->opaque[0] != quelta::api::kCompassMagic) return -1;
  const quelta::api::Door* d = quelta::api::doorOf(state);
  if (d == nullptr) return quelta_compass_units_default(out);
  *out = d->units;
  return 0;
}

}  // extern "C"
