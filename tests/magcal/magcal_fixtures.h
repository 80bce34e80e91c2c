// Helpers of the calibration tests: points on a known sphere and a sample
// feeder for a calibrator instance.
#pragma once

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

inline void feed(quelta::Calibrator& cal, const float* mag, int mode = 0) { cal.process(kUp, mag, mag, 0, mode); }

inline void feed(quelta::Calibrator& cal, float x, float y, float z, int mode = 0) {
  const float mag[3] = {x, y, z};
  feed(cal, mag, mode);
}

}  // namespace magcal_test
