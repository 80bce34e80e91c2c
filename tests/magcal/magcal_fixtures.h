// SPDX-License-Identifier: Apache-2.0
// Helpers of the calibration tests: points on a known sphere and a rig of
// intake and calibrator fed sample by sample.
#pragma once

#include "intake/sample_intake.h"
#include "magcal/calibrator.h"
#include "tests/support/log_capture.h"
#include "tools/sim/device_sim.h"

namespace magcal_test {

using quelta::test::capturedLines;
using quelta::test::startCapture;
using Lines = std::vector<std::string>;

struct Point {
  float v[3];
};

// The i-th of n points spread over a sphere, visited with a stride so that
// every prefix of the sequence already spans the sphere.
inline Point spherePoint(int i, int n, float radius, const float* centre) {
  const quelta::sim::Vec3 d = quelta::sim::fibonacciDirection((i * 13) % n, n);
  return {{static_cast<float>(centre[0] + radius * d.x), static_cast<float>(centre[1] + radius * d.y),
           static_cast<float>(centre[2] + radius * d.z)}};
}

constexpr float kUp[3] = {0.0f, 0.0f, 1.0f};

// A calibrator and the intake it reads, as MainAlgorithmProcess drives them.
struct Rig {
  quelta::SampleIntake intake;
  quelta::Calibrator cal;

  // A stored calibration (accuracy 3) or none, with the given settings.
  void configure(const quelta::CalibrationSettings& settings, float x, float y, float z, float radius) {
    cal.configure(settings, quelta::StoredCalibration{{x, y, z}, radius});
  }
  void configure(float x, float y, float z, float radius) {
    configure(quelta::kDefaultCalibrationSettings, x, y, z, radius);
  }

  void process(const float* acc, const float* mag, const float* probe, int restart = 0, int mode = 0) {
    intake.take(acc, mag, probe);
    cal.process(intake, restart, mode);
  }
  void feed(const float* mag, int mode = 0) { process(kUp, mag, mag, 0, mode); }
  void feed(float x, float y, float z, int mode = 0) {
    const float mag[3] = {x, y, z};
    feed(mag, mode);
  }
  int count() const { return cal.pool().count(); }
};

}  // namespace magcal_test
