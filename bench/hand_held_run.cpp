// SPDX-License-Identifier: Apache-2.0
#include "bench/hand_held_run.h"

#include <cstddef>

namespace quelta::bench {

std::vector<sim::SensorSample> handHeldRecording(int count, bool withHardIron) {
  sim::Device device;
  device.accNoiseG = 0.002;
  if (!withHardIron) device.hardIron = {0.0, 0.0, 0.0};
  std::vector<sim::SensorSample> samples;
  samples.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    samples.push_back(device.read(sim::handHeldMotion(kInterval * i)));
  }
  return samples;
}

void initialiseCalibration(bool storedCalibration) {
  const sim::Device device;
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  float stored[4] = {0.0f, 0.0f, 0.0f, 0.5f};
  if (storedCalibration) {
    stored[0] = static_cast<float>(device.hardIron.x);
    stored[1] = static_cast<float>(device.hardIron.y);
    stored[2] = static_cast<float>(device.hardIron.z);
    stored[3] = static_cast<float>(device.field.strengthGauss);
  }
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thresholds[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8};
  AlgoInitial(axis, stored, pool, thresholds, paraC, nullptr);
}

}  // namespace quelta::bench
