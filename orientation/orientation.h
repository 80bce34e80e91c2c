// Azimuth, pitch and roll from the accelerometer and the calibrated field.
// Keeps the orientation matrix between calls (rows: device x, y, z; columns:
// their East, North, Up components), levels the device y axis to get the
// heading and smooths it. While the calibration is complete and the device
// still, it also measures the field's geometry into the calibration state.
#pragma once

#include <cstdint>

#include "magcal/calibration_state.h"
#include "orientation/azimuth_smoother.h"

namespace quelta {

// Angle between the mean field and the mean acceleration.
struct MeanAngle {
  float cosA;
  float sinA;
};

class Orientation {
 public:
  float dOriMatrix[3][3] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}};
  AzimuthSmoother smoother;

  // GetCalOri: out = azimuth [0, 360), pitch (-180, 180], roll [-90, 90] in
  // degrees. Reads the sample GetCalMag stored; returns 1.
  int32_t compute(CalibrationState& cal, float* out);

  // The steps, in the order compute() runs them.
  static void currentVectors(const CalibrationState& cal, float* acc, float* mag);
  static void gravityDirection(const CalibrationState& cal, const float* acc, float* g);
  static MeanAngle meanAngle(const CalibrationState& cal);
  static void updateFieldGeometry(CalibrationState& cal, MeanAngle angle);
  void rebuildMatrix(const float* mag, const float* g, MeanAngle angle);
  void levelledHeading(float* east, float* north) const;
  float pitch() const;
  float roll() const;
};

// The process-wide instance behind GetCalOri.
Orientation& defaultOrientation();

}  // namespace quelta
