// SPDX-License-Identifier: Apache-2.0
// Azimuth, pitch and roll from the shared sample intake and the calibration's
// values. Keeps the orientation matrix between calls (rows: device x, y, z;
// columns: their East, North, Up components), levels the device y axis to get
// the heading and smooths it. While the calibration is complete and the
// device still, it also measures the field's geometry.
#pragma once

#include <cstdint>

#include "core/vec3.h"
#include "intake/sample_intake.h"
#include "orientation/azimuth_smoother.h"

namespace quelta {

struct OrientationSettings {
  int32_t medianWindow = 11;  // samples: azimuth median window, clamped to 1..31
  int32_t meanWindow = 8;     // samples: azimuth mean window, clamped to 1..30
};

inline constexpr OrientationSettings kDefaultOrientationSettings{};

// What the orientation needs of the calibration, handed over as values.
struct CalibrationValues {
  Vec3f offset;            // gauss
  float radius;            // gauss
  int32_t accuracy;        // 0 to 3
  float accStillVariance;  // (acc unit)^2: below it on every axis the device is still
  Vec3f calibratedField;   // gauss: the field as GetCalMag last calibrated it
};

// The field's geometry, measured while the calibration is complete and the
// device still; it keeps its last values otherwise.
struct FieldGeometry {
  float horizontal = 0.0f;   // gauss
  float vertical = 0.0f;     // gauss
  float inclination = 0.0f;  // degrees, positive with the field pointing down
};

// Read-outs of an orientation matrix (rows: device x, y, z; columns: East,
// North, Up). Arguments of asin and acos are clamped to [-1, 1].
// Pitch in degrees, positive with the top edge down; screen-down attitudes
// continue past +-90.
float pitchDegrees(const float (&m)[3][3]);
// Roll in degrees, positive with the right edge up.
float rollDegrees(const float (&m)[3][3]);
// The device y axis rotated about the horizontal axis that brings the device
// z axis to Up: its East and North components.
void levelledHeading(const float (&m)[3][3], float* east, float* north);

class Orientation {
 public:
  // AlgoInitial: the window lengths for the next calls.
  void configure(const OrientationSettings& settings);

  // GetCalOri: out = azimuth [0, 360), pitch (-180, 180], roll [-90, 90] in
  // degrees. Returns 1.
  int32_t compute(const SampleIntake& intake, const CalibrationValues& cal, float* out);

  const OrientationSettings& settings() const { return settings_; }
  const FieldGeometry& fieldGeometry() const { return geometry_; }
  const float (&matrix() const)[3][3] { return matrix_; }
  const AzimuthSmoother& smoother() const { return smoother_; }

 private:
  // Angle between the mean field and the mean acceleration.
  struct MeanAngle {
    float cosA;
    float sinA;
  };

  static void currentVectors(const SampleIntake& intake, const CalibrationValues& cal, Vec3f* acc,
                             Vec3f* mag);
  static Vec3f gravityDirection(const SampleIntake& intake, Vec3f acc);
  static MeanAngle meanAngle(const SampleIntake& intake, const CalibrationValues& cal);
  void measureFieldGeometry(const SampleIntake& intake, const CalibrationValues& cal,
                            MeanAngle angle);
  void rebuildMatrix(Vec3f mag, Vec3f g, MeanAngle angle);

  OrientationSettings settings_;
  float matrix_[3][3] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}};
  FieldGeometry geometry_;
  AzimuthSmoother smoother_;
};

}  // namespace quelta
