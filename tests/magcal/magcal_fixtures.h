// Helpers of the calibration tests: a capturing log callback, points on a
// known sphere and a sample feeder for a calibrator instance.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "QueltaAlgo.h"
#include "magcal/calibrator.h"
#include "tools/sim/device_sim.h"

namespace magcal_test {

inline std::vector<std::string>& lines() {
  static std::vector<std::string> captured;
  return captured;
}

inline int captureLog(const char* fmt, ...) {
  char buf[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  lines().push_back(buf);
  return 0;
}

inline void startCapture() {
  lines().clear();
  RegisterLogCallback(captureLog);
}

inline int countPrefix(const std::string& prefix) {
  int n = 0;
  for (const std::string& line : lines()) n += line.rfind(prefix, 0) == 0 ? 1 : 0;
  return n;
}

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

inline void feed(quelta::Calibrator& cal, const float* mag, int mode = 0) {
  cal.process(kUp, mag, mag, 0, mode);
}

inline void feed(quelta::Calibrator& cal, float x, float y, float z, int mode = 0) {
  const float mag[3] = {x, y, z};
  feed(cal, mag, mode);
}

}  // namespace magcal_test
