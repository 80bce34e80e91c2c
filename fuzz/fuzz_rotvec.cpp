// SPDX-License-Identifier: Apache-2.0
// The rotation vector on an instance of its own (the exported functions are
// one-line forwards to the same class): arbitrary
// samples, log modes and hold thresholds, runs of steady or turning samples
// that carry it through both moving-mean stages, and GetCn2bAcc on its own.
// Every input starts from a fresh instance.
//
// Besides memory safety it checks the recovery the fusion promises: once the
// last 35 calls have all had finite inputs of sane size (|v| <= 1e18, so sums
// of 30 and squares stay finite), the published quaternion, gravity and
// linear acceleration are finite and the quaternion has unit length. A NaN
// or infinite sample poisons the 30-sample mean for 30 calls and the mean of
// six means for 5 more; nothing may keep it longer.
#include <cmath>
#include <cstdint>

#include "QueltaAlgo.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_log.h"
#include "rotvec/rotation_vector.h"
#include "tools/sim/device_sim.h"

namespace {

using quelta::fuzz::FuzzInput;

constexpr int32_t kRecoveryCalls = 35;
// Calls per input: past both moving means twice, few enough to keep
// executions fast.
constexpr int32_t kCallBudget = 200;

struct Run {
  quelta::OwnedRotationVector& rv;
  int32_t tameCalls = 0;  // consecutive calls with tame inputs, this one included
  int32_t callsLeft = kCallBudget;

  void call(const float* mag, const float* acc, int32_t logMode) {
    if (callsLeft <= 0) return;
    --callsLeft;
    rv.fusion.update(mag, acc, logMode);
    const bool tame = quelta::fuzz::tame(mag, 3) && quelta::fuzz::tame(acc, 3);
    tameCalls = tame ? tameCalls + 1 : 0;
    if (tameCalls >= kRecoveryCalls) checkRecovered();
  }

  void checkRecovered() const {
    float rov[4], gravity[3], linear[3];
    rv.fusion.copyRotationVector(rov);
    rv.fusion.copyGravity(gravity);
    rv.fusion.copyLinearAcceleration(linear);
    FUZZ_CHECK(quelta::fuzz::allFinite(rov, 4));
    FUZZ_CHECK(quelta::fuzz::allFinite(gravity, 3));
    FUZZ_CHECK(quelta::fuzz::allFinite(linear, 3));
    const double n = std::sqrt(static_cast<double>(rov[0]) * rov[0] +
                               static_cast<double>(rov[1]) * rov[1] +
                               static_cast<double>(rov[2]) * rov[2] +
                               static_cast<double>(rov[3]) * rov[3]);
    FUZZ_CHECK(std::fabs(n - 1.0) < 1e-3);
  }
};

int32_t logMode(FuzzInput& in) {
  const uint8_t b = in.byte();
  return b < 128 ? (b & 1) : in.count();
}

// A device turning about a fuzzed axis at a fuzzed rate, samples 1/50 s
// apart, with optional offsets: drives the means through real motion.
void turningRun(FuzzInput& in, Run& run) {
  const int32_t calls = in.byte() % 48 + 1;
  const quelta::sim::Vec3 axis{in.value(), in.value(), in.value()};
  const double rate = static_cast<double>(in.byte()) / 16.0;  // rad/s
  const int32_t mode = logMode(in);
  quelta::sim::Device device;
  quelta::sim::Quat attitude = quelta::sim::attitudeFromHeadingPitchRoll(
      in.byte() * 1.5, in.byte() * 0.7 - 90.0, in.byte() * 0.7 - 90.0);
  const quelta::sim::Quat step = quelta::sim::quatFromAxisAngle(axis, rate * 0.02);
  const bool turning = std::isfinite(step.w) && std::isfinite(step.x) &&
                       std::isfinite(step.y) && std::isfinite(step.z);
  for (int32_t i = 0; i < calls; ++i) {
    const quelta::sim::SensorSample s = device.read(attitude);
    run.call(s.mag, s.acc, mode);
    if (turning) attitude = quelta::sim::quatMultiply(attitude, step);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  RegisterLogCallback(nullptr);
  quelta::OwnedRotationVector rv;
  FuzzInput in(data, size);
  Run run{rv};
  while (!in.exhausted() && run.callsLeft > 0) {
    switch (in.byte() % 6) {
      case 0: {
        float mag[3], acc[3];
        in.values(mag, 3);
        in.values(acc, 3);
        run.call(mag, acc, logMode(in));
        break;
      }
      case 1: {  // the same sample repeatedly
        float mag[3], acc[3];
        in.values(mag, 3);
        in.values(acc, 3);
        const int32_t mode = logMode(in);
        const int32_t calls = in.byte() % 48 + 1;
        for (int32_t i = 0; i < calls; ++i) run.call(mag, acc, mode);
        break;
      }
      case 2: turningRun(in, run); break;
      case 3: rv.moveThreshold = in.value(); break;
      case 4: {
        float dir[8], cn2b[9];
        in.values(dir, 8);
        GetCn2bAcc(dir, cn2b);
        break;
      }
      default:
        RegisterLogCallback(in.byte() & 1 ? quelta::fuzz::formatLine : nullptr);
        break;
    }
  }
  float out[4];
  rv.fusion.copyRotationVector(out);
  rv.fusion.copyGravity(out);
  rv.fusion.copyLinearAcceleration(out);
  return 0;
}
