// SPDX-License-Identifier: Apache-2.0
#include "tools/faults/fault_injection.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "quelta/quelta_compass.h"
#include "tools/sim/device_sim.h"

namespace quelta::faults {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kHour = 3600.0;  // s
constexpr double kDegPerRad = 57.29577951308232;

bool within(const Fault& f, double t) { return t >= f.start && t < f.start + f.duration; }
bool firstOf(const Fault& f, double t, bool started) { return t >= f.start && !started; }

}  // namespace

double angleDiffDeg(double a, double b) {
  double d = std::fmod(a - b, 360.0);
  if (d > 180.0) d -= 360.0;
  if (d <= -180.0) d += 360.0;
  return d;
}

double headingDiffDeg(const double* a, const double* b) {
  // r = a * conj(b): the world-frame rotation from b to a; its turn about up.
  const double w = a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
  const double z = -a[0] * b[3] + a[3] * b[0] - a[1] * b[2] + a[2] * b[1];
  return angleDiffDeg(2.0 * std::atan2(z, w) * kDegPerRad, 0.0);
}

std::vector<Fault> faultMatrix(double start) {
  return {
      {FaultKind::ClockJumpAhead, start, 0.0, 0.0, "clock one hour ahead once"},
      {FaultKind::ClockStepBack, start, 0.0, 0.0, "clock steps back an hour"},
      {FaultKind::ClockStuck, start, 5.0, 0.0, "clock stuck 5 s"},
      {FaultKind::FieldHuge, start, 0.0, 1e30, "field 1e30 once"},
      {FaultKind::FieldHuge, start, 0.0, 1e200, "field 1e200 once"},
      {FaultKind::GyroHuge, start, 0.0, 1e200, "gyroscope 1e200 once"},
      {FaultKind::GyroHuge, start, 0.0, 57.0, "gyroscope 57 rad/s once"},
      {FaultKind::AccHuge, start, 0.0, 1e30, "accelerometer 1e30 once"},
      {FaultKind::NotFinite, start, 1.0, 0.0, "NaN everywhere 1 s"},
      {FaultKind::GyroDead, start, 10.0, 0.0, "gyroscope dead 10 s"},
      {FaultKind::GyroStuck, start, 10.0, 0.0, "gyroscope stuck 10 s"},
      {FaultKind::GyroBias, start, 0.0, 0.5, "gyroscope bias 0.5 rad/s"},
      {FaultKind::FieldSaturated, start, 60.0, 0.15, "field clipped at 0.15 gauss 60 s"},
      {FaultKind::FieldAxisStuck, start, 60.0, 0.0, "field axis stuck 60 s"},
      {FaultKind::FieldOutage, start, 10.0, 0.0, "field outage 10 s"},
  };
}

Injector::Injector(const Fault& fault, const double offset[3]) : fault_(fault) {
  for (int i = 0; i < 3; ++i) offset_[i] = offset != nullptr ? offset[i] : 0.0;
}

SampleSet Injector::apply(const SampleSet& in) {
  SampleSet s = in;
  const double t = in.t;
  const bool first = firstOf(fault_, t, started_);
  const bool during = fault_.duration > 0.0 ? within(fault_, t) : first;
  if (first) {
    started_ = true;
    held_ = in;
  }
  switch (fault_.kind) {
    case FaultKind::None:
      break;
    case FaultKind::ClockJumpAhead:
      if (first) s.t += kHour;
      break;
    case FaultKind::ClockStepBack:
      if (t >= fault_.start) s.t -= kHour;
      break;
    case FaultKind::ClockStuck:
      if (during) s.t = held_.t;
      break;
    case FaultKind::FieldHuge:
      if (during) s.field[0] = s.field[1] = s.field[2] = fault_.value;
      break;
    case FaultKind::GyroHuge:
      if (during) s.gyro[0] = s.gyro[1] = s.gyro[2] = fault_.value;
      break;
    case FaultKind::AccHuge:
      if (during) s.acc[0] = s.acc[1] = s.acc[2] = fault_.value;
      break;
    case FaultKind::NotFinite:
      if (during) {
        s.t = kNaN;
        for (int i = 0; i < 3; ++i) s.acc[i] = s.field[i] = s.gyro[i] = kNaN;
      }
      break;
    case FaultKind::GyroDead:
      if (during) s.gyro[0] = s.gyro[1] = s.gyro[2] = 0.0;
      break;
    case FaultKind::GyroStuck:
      if (during) std::memcpy(s.gyro, held_.gyro, sizeof s.gyro);
      break;
    case FaultKind::GyroBias:
      if (t >= fault_.start)
        for (double& g : s.gyro) g += fault_.value;
      break;
    case FaultKind::FieldSaturated:
      if (during)
        for (int i = 0; i < 3; ++i)
          s.field[i] = std::fmax(offset_[i] - fault_.value, std::fmin(offset_[i] + fault_.value, s.field[i]));
      break;
    case FaultKind::FieldAxisStuck:
      if (during) s.field[0] = held_.field[0];
      break;
    case FaultKind::FieldOutage:
      if (during) s.hasField = false;
      break;
  }
  return s;
}

Trace run(const std::vector<SampleSet>& stream, const Fault& fault, const RunOptions& options) {
  static quelta_compass compass;  // 24 KiB: kept off the stack
  quelta_compass_init(&compass);
  if (options.record != nullptr) quelta_compass_restore_calibration(&compass, options.record, QUELTA_MAG_RECORD_SIZE);
  quelta_compass_set_declination(&compass, options.declinationDeg);
  Injector injector(fault, options.referenceOffset);
  Trace trace;
  const size_t n = stream.size();
  trace.t.reserve(n);
  trace.azimuthDeg.reserve(n);
  trace.quaternion.reserve(4 * n);
  trace.headingAccuracyDeg.reserve(n);
  trace.accuracy.reserve(n);
  trace.flags.reserve(n);
  trace.refusedAt.reserve(n);
  trace.offsetGauss.reserve(n);
  quelta_compass_output out;
  quelta_mag_calibration cal;
  for (const SampleSet& original : stream) {
    const SampleSet s = injector.apply(original);
    const int32_t rc = quelta_compass_update(&compass, s.t, s.acc, s.hasField ? s.field : nullptr,
                                             s.hasGyro ? s.gyro : nullptr);
    if (rc != 0) {
      if (trace.refused == 0) trace.firstRefusalCode = rc;
      ++trace.refused;
    }
    trace.refusedAt.push_back(rc != 0 ? 1 : 0);
    quelta_compass_get_output(&compass, &out);
    trace.t.push_back(original.t);
    trace.azimuthDeg.push_back(out.azimuth_deg);
    for (double c : out.quaternion) trace.quaternion.push_back(c);
    trace.headingAccuracyDeg.push_back(out.heading_accuracy_deg);
    trace.accuracy.push_back(out.accuracy);
    trace.flags.push_back(out.flags);
    double offsetError = kNaN;
    if (options.referenceOffset != nullptr) {
      quelta_compass_get_calibration(&compass, &cal);
      const double* r = options.referenceOffset;
      offsetError = std::sqrt((cal.offset[0] - r[0]) * (cal.offset[0] - r[0]) +
                              (cal.offset[1] - r[1]) * (cal.offset[1] - r[1]) +
                              (cal.offset[2] - r[2]) * (cal.offset[2] - r[2]));
    }
    trace.offsetGauss.push_back(offsetError);
  }
  return trace;
}

Verdict judge(const Trace& clean, const Trace& faulty, const Fault& fault, double window, double loop,
              const std::vector<SampleSet>* stream) {
  Verdict v;
  // The reference frame's north against the compass's: the no-fault run's
  // median heading offset.
  double align = NAN;
  if (stream != nullptr) {
    std::vector<double> offsets;
    for (size_t i = 0; i < clean.t.size() && i < stream->size(); ++i)
      if (std::isfinite((*stream)[i].truth[0]) && clean.t[i] > 30.0)
        offsets.push_back(headingDiffDeg(&clean.quaternion[4 * i], (*stream)[i].truth));
    if (!offsets.empty()) {
      std::nth_element(offsets.begin(), offsets.begin() + offsets.size() / 2, offsets.end());
      align = offsets[offsets.size() / 2];
      v.worstExtraErrorDeg = 0.0;
    }
  }
  v.refused = faulty.refused;
  const double from = (fault.lasting() ? fault.start : fault.end()) + 60.0;
  const double to = from + window;
  for (size_t i = 0; i < clean.t.size() && i < faulty.t.size(); ++i) {
    const double t = clean.t[i];
    if (t < fault.start || t > to) continue;
    if (loop > 0.0 && t > loop && std::fmod(t, loop) < 30.0) continue;
    if (i < faulty.refusedAt.size() && faulty.refusedAt[i] != 0) continue;
    const double diff = std::fabs(headingDiffDeg(&faulty.quaternion[4 * i], &clean.quaternion[4 * i]));
    v.worstUncovered = std::fmax(v.worstUncovered, diff / (2.0 * faulty.headingAccuracyDeg[i] + 2.0));
    if (t < from) continue;
    v.evaluated = true;
    v.worstHeadingDiffDeg = std::fmax(v.worstHeadingDiffDeg, diff);
    v.worstAccuracyRatio =
        std::fmax(v.worstAccuracyRatio, faulty.headingAccuracyDeg[i] / (3.0 * clean.headingAccuracyDeg[i] + 5.0));
    if (std::isfinite(align) && std::isfinite((*stream)[i].truth[0])) {
      const double* truth = (*stream)[i].truth;
      const double errClean = std::fabs(angleDiffDeg(headingDiffDeg(&clean.quaternion[4 * i], truth), align));
      const double errFault = std::fabs(angleDiffDeg(headingDiffDeg(&faulty.quaternion[4 * i], truth), align));
      v.worstExtraErrorDeg = std::fmax(v.worstExtraErrorDeg, errFault - errClean);
    }
  }
  return v;
}

// Walking about: a minute of turning the device about all axes (the
// calibration motion), then a walk with a turn now and then, the device
// held in front and tilted a little.
std::vector<SampleSet> simulatedWalk(double seconds, uint64_t seed, double offset[3]) {
  sim::Device device;
  device.random = sim::Random(seed);
  device.accNoiseG = 0.01;
  sim::Random random(seed ^ 0x5eedull);
  for (int i = 0; i < 3; ++i) offset[i] = random.uniform(-0.4, 0.4);
  device.hardIron = {offset[0], offset[1], offset[2]};
  const double kCalibration = 25.0;  // s
  const double turnAt[4] = {random.uniform(0, 20), random.uniform(0, 20), random.uniform(0, 20), random.uniform(0, 20)};
  const auto attitude = [&](double t) {
    if (t < kCalibration) return sim::handHeldMotion(t);
    // Heading: where the calibration motion left it, plus a 90-degree turn
    // in each 25 s stretch (eased over 3 s) and a slow sway.
    const double base = 0.9 * kCalibration * kDegPerRad;
    const double u = t - kCalibration;
    const int stretch = static_cast<int>(u / 25.0);
    const double inStretch = u - 25.0 * stretch;
    const double turnStart = turnAt[stretch % 4];
    double turn = 0.0;
    if (inStretch > turnStart) turn = std::fmin(1.0, (inStretch - turnStart) / 3.0);
    turn = 0.5 - 0.5 * std::cos(3.141592653589793 * turn);
    const double heading = base + 90.0 * (stretch + turn) + 8.0 * std::sin(0.9 * u);
    const double pitch = 60.0 * std::sin(0.7 * kCalibration) * std::exp(-u) + 30.0 + 5.0 * std::sin(1.7 * u);
    const double roll = 40.0 * std::sin(1.1 * kCalibration + 0.5) * std::exp(-u) + 4.0 * std::sin(2.3 * u);
    return sim::attitudeFromHeadingPitchRoll(heading, pitch, roll);
  };
  const double dt = 0.02;
  const auto count = static_cast<size_t>(seconds / dt);
  std::vector<SampleSet> out(count);
  for (size_t k = 0; k < count; ++k) {
    const double t = dt * static_cast<double>(k);
    const sim::Quat q = attitude(t);
    const sim::SensorSample r = device.read(q);
    SampleSet& s = out[k];
    s.t = t;
    for (int i = 0; i < 3; ++i) {
      s.acc[i] = r.acc[i];
      s.field[i] = r.mag[i];
    }
    // The gyroscope: the mean rate over the interval before the sample.
    const sim::Quat change = sim::quatMultiply(sim::quatConjugate(attitude(t - dt)), q);
    const double sign = change.w < 0.0 ? -1.0 : 1.0;
    const double vn = std::sqrt(change.x * change.x + change.y * change.y + change.z * change.z);
    const double angle = 2.0 * std::atan2(vn, sign * change.w);
    const double k2 = vn > 0.0 ? sign * angle / vn / dt : 2.0 / dt;
    s.gyro[0] = static_cast<float>(k2 * change.x + random.uniform(-0.002, 0.002));
    s.gyro[1] = static_cast<float>(k2 * change.y + random.uniform(-0.002, 0.002));
    s.gyro[2] = static_cast<float>(k2 * change.z + random.uniform(-0.002, 0.002));
    // Truth: where the levelled top edge points.
    const sim::Vec3 y = sim::rotate(q, {0.0, 1.0, 0.0});
    const sim::Vec3 z = sim::rotate(q, {0.0, 0.0, 1.0});
    const sim::Vec3 top = z.z >= 0.0 ? y : sim::Vec3{-y.x, -y.y, -y.z};
    const double az = std::atan2(top.x, top.y) * kDegPerRad;
    s.truthAzimuthDeg = az < 0.0 ? az + 360.0 : az;
  }
  return out;
}

}  // namespace quelta::faults
