// SPDX-License-Identifier: Apache-2.0
// The virtual gyroscope with arbitrary samples, restarts, intervals and log
// modes, runs of a turning device that take it into the rotating mode, and
// its building blocks (rotation mode, filter compensation, generator) with
// arbitrary arguments. A log callback formats every line.
//
// Each sample set goes to a fresh independent pipeline (the same code over
// its own buffers and state, so a finding reproduces from its input alone)
// and to the process-wide one behind CalcQueltaGyro, whose state carries over
// from earlier inputs as it would in a long-running host.
#include <cmath>
#include <cstdint>
#include <memory>

#include "QueltaAlgo.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_log.h"
#include "tools/sim/device_sim.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::fuzz::FuzzInput;

constexpr int32_t kMaxTaps = 16;
// Sample sets per input: enough to enter and leave the rotating mode and
// restart, few enough to keep executions fast.
constexpr int32_t kSampleSetBudget = 160;

float interval(FuzzInput& in) {
  const uint8_t b = in.byte();
  if (b < 160) return 0.01f;
  if (b < 200) return static_cast<float>(b - 150) * 0.001f;  // 0.01 to 0.05 s
  return in.value();
}

struct Pipelines {
  quelta::StandaloneVirtualGyro own;
  int32_t sampleSetsLeft = kSampleSetBudget;

  void process(const float* mag, const float* acc, int32_t restart, int32_t mode, float ts) {
    if (sampleSetsLeft <= 0) return;
    --sampleSetsLeft;
    own.gyro.process(mag, acc, restart, mode, ts);
    CalcQueltaGyro(mag, acc, restart, mode, ts);
    float rate[3], quat[4];
    own.gyro.copyRate(rate);
    own.gyro.copyAttitude(quat);
    GetCalGyr(rate);
    GetRotVec_InVG(quat);
  }
};

// A device turning about a fuzzed axis at up to 16 rad/s, with fuzzed
// interval: rotating mode, field rate, compensation.
void turningRun(FuzzInput& in, Pipelines& p) {
  const int32_t calls = in.byte() % 64 + 1;
  const quelta::sim::Vec3 axis{in.value(), in.value(), in.value()};
  const double rate = static_cast<double>(in.byte()) / 16.0;
  const float ts = interval(in);
  const int32_t mode = logModeUpTo2(in);
  quelta::sim::Device device;
  device.magNoiseGauss = static_cast<double>(in.byte()) * 1e-4;
  quelta::sim::Quat attitude = quelta::sim::attitudeFromHeadingPitchRoll(
      in.byte() * 1.5, in.byte() * 0.7 - 90.0, in.byte() * 0.7 - 90.0);
  const double dt = std::isfinite(ts) ? static_cast<double>(ts) : 0.01;
  const quelta::sim::Quat step = quelta::sim::quatFromAxisAngle(axis, rate * dt);
  const bool turning = std::isfinite(step.w) && std::isfinite(step.x) &&
                       std::isfinite(step.y) && std::isfinite(step.z);
  for (int32_t i = 0; i < calls; ++i) {
    const quelta::sim::SensorSample s = device.read(attitude);
    p.process(s.mag, s.acc, 0, mode, ts);
    if (turning) attitude = quelta::sim::quatMultiply(attitude, step);
  }
}

std::unique_ptr<float[]> coefficients(FuzzInput& in, int32_t& n) {
  n = in.intIn(-2, kMaxTaps);
  const int32_t size = n >= 1 ? n : 1;  // b[0] and a[0] are always read
  std::unique_ptr<float[]> c(new float[static_cast<size_t>(size)]);
  in.values(c.get(), size);
  return c;
}

void buildingBlocks(FuzzInput& in) {
  switch (in.byte() % 3) {
    case 0: {
      float w[3];
      in.values(w, 3);
      const uint8_t mode = deviceRotationMode(w, restartFlag(in), in.value());
      FUZZ_CHECK(mode == 0 || mode == 1);
      break;
    }
    case 1: {
      float gain[3], w[3];
      in.values(w, 3);
      int32_t nb, na;
      std::unique_ptr<float[]> b = coefficients(in, nb);
      std::unique_ptr<float[]> a = coefficients(in, na);
      filterCompensation(gain, w, b.get(), a.get(), nb, na, in.value());
      break;
    }
    default: {
      const float u = myRand(in.count(), in.byte() & 1);
      FUZZ_CHECK(u >= -1.0f && u <= 1.0f);
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  RegisterLogCallback(quelta::fuzz::formatLine);
  std::unique_ptr<Pipelines> pipelines(new Pipelines);
  while (!in.exhausted() && pipelines->sampleSetsLeft > 0) {
    switch (in.byte() % 6) {
      case 0:
      case 1: {
        float mag[3], acc[3];
        in.values(mag, 3);
        in.values(acc, 3);
        const int32_t restart = restartFlag(in);
        const int32_t mode = logModeUpTo2(in);
        pipelines->process(mag, acc, restart, mode, interval(in));
        break;
      }
      case 2: turningRun(in, *pipelines); break;
      case 3: buildingBlocks(in); break;
      case 4: {
        float x[2], y[2];
        in.values(x, 2);
        in.values(y, 2);
        LPF1(x, y);
        break;
      }
      default:
        RegisterLogCallback(in.byte() & 1 ? quelta::fuzz::formatLine : nullptr);
        break;
    }
  }
  return 0;
}
