// SPDX-License-Identifier: Apache-2.0
#include "orientation/orientation.h"

#include <cmath>

#include "orientation/angle_wrap.h"
#include "orientation/orientation_log.h"

namespace quelta {

namespace {

constexpr float kMinSinA = 1e-7f;
// Floor of the norm when a direction is taken: an all-zero vector stays finite.
constexpr float kDirectionFloor = 1e-7f;
constexpr float kFlatHorizontalSquared = 1e-7f;
// Entry of the histories the orientation follows: nine samples behind the
// newest, so the mean vectors have seen both sides of a change.
constexpr int32_t kDelayedEntry = 20;

}  // namespace

void Orientation::configure(const OrientationSettings& settings) {
  settings_ = settings;
  logLine(kOrientationLog.windowLengths, 0, settings.medianWindow, settings.meanWindow);
}

int32_t Orientation::compute(const SampleIntake& intake, const CalibrationValues& cal, float* out) {
  Vec3f acc, mag;
  currentVectors(intake, cal, &acc, &mag);
  const Vec3f g = gravityDirection(intake, acc);
  const MeanAngle angle = meanAngle(intake, cal);
  measureFieldGeometry(intake, cal, angle);
  if (angle.sinA >= kMinSinA) rebuildMatrix(mag, g, angle);

  float east, north;
  levelledHeading(matrix_, &east, &north);
  out[0] = smoother_.smooth(east, north, settings_.medianWindow, settings_.meanWindow);
  out[1] = pitchDegrees(matrix_);
  out[2] = rollDegrees(matrix_);
  return 1;
}

// Until the histories are full: the latest acceleration and the field as
// GetCalMag calibrated it; then the delayed entry of the histories.
void Orientation::currentVectors(const SampleIntake& intake, const CalibrationValues& cal,
                                 Vec3f* acc, Vec3f* mag) {
  if (!intake.full()) {
    *acc = intake.acc();
    *mag = cal.calibratedField;
    return;
  }
  *acc = intake.accAt(kDelayedEntry);
  *mag = intake.fieldAt(kDelayedEntry) - cal.offset;
}

// Until the accelerometer variances exist the device is taken as level.
Vec3f Orientation::gravityDirection(const SampleIntake& intake, Vec3f acc) {
  const Vec3f var = intake.accVariance();
  const bool noVariance = var.x == 0.0f && var.y == 0.0f && var.z == 0.0f;
  return noVariance ? Vec3f{0.0f, 0.0f, 1.0f} : acc;
}

Orientation::MeanAngle Orientation::meanAngle(const SampleIntake& intake,
                                              const CalibrationValues& cal) {
  const Vec3f magDir = normalizedFloored(intake.fieldMean() - cal.offset, kDirectionFloor);
  const Vec3f accDir = normalizedFloored(intake.accMean(), kDirectionFloor);
  const float cosA = dot(magDir, accDir);
  if (cosA > 1.0f) return {1.0f, 0.0f};
  if (cosA < -1.0f) return {-1.0f, 0.0f};
  return {cosA, std::sqrt(1.0f - cosA * cosA)};
}

void Orientation::measureFieldGeometry(const SampleIntake& intake, const CalibrationValues& cal,
                                       MeanAngle angle) {
  if (cal.accuracy != 3) return;
  const Vec3f var = intake.accVariance();
  const float still = cal.accStillVariance;
  if (!(var.x < still) || !(var.y < still) || !(var.z < still)) return;
  geometry_.horizontal = std::fabs(angle.sinA * cal.radius);
  geometry_.vertical = std::fabs(angle.cosA * cal.radius);
  geometry_.inclination = static_cast<float>(std::asin(static_cast<double>(-angle.cosA)) * 180.0 /
                                             static_cast<double>(kPiF));
}

// East = m' x g', normalised; North is built from the current directions with
// the angle of the mean ones, so it is stored as computed, not renormalised.
void Orientation::rebuildMatrix(Vec3f mag, Vec3f g, MeanAngle angle) {
  const Vec3f m1 = normalizedFloored(mag, kDirectionFloor);
  const Vec3f g1 = normalizedFloored(g, kDirectionFloor);
  const Vec3f eHat = normalizedFloored(cross(g1, m1), kDirectionFloor);
  const float p = 1.0f / angle.sinA;
  const float q = -angle.cosA / angle.sinA;
  const Vec3f north = p * m1 + q * g1;
  for (int32_t i = 0; i < 3; ++i) {
    matrix_[i][0] = -eHat[i];
    matrix_[i][1] = north[i];
    matrix_[i][2] = g1[i];
  }
}

void levelledHeading(const float (&m)[3][3], float* east, float* north) {
  const float* row1 = m[1];
  const float* row2 = m[2];
  float ux = 0.0f, uy = 0.0f, theta = 0.0f;
  const float h2 = row2[0] * row2[0] + row2[1] * row2[1];
  if (!(h2 < kFlatHorizontalSquared)) {
    const double h = std::sqrt(static_cast<double>(h2));
    ux = static_cast<float>(static_cast<double>(row2[1]) / h);
    uy = static_cast<float>(static_cast<double>(-row2[0]) / h);
    theta = static_cast<float>(std::acos(unitClamped(row2[2])));
  }
  const double s = std::sin(static_cast<double>(theta));
  const double c = std::cos(static_cast<double>(theta));
  const double omc = 1.0 - c;
  const double dux = ux, duy = uy;
  const double vx = row1[0], vy = row1[1], vz = row1[2];

  const float crossX = (row1[1] * ux) * uy;
  const float crossY = (row1[0] * ux) * uy;
  const float uxSquared = ux * ux;
  const float uySquared = uy * uy;
  *east = static_cast<float>(s * duy * vz + (omc * crossX + (c + omc * uxSquared) * vx));
  *north = static_cast<float>((omc * crossY + (c + omc * uySquared) * vy) - s * dux * vz);
}

float pitchDegrees(const float (&m)[3][3]) {
  const float r = static_cast<float>(std::asin(unitClamped(m[1][2]))) * (-180.0f) / kPiF;
  if (m[2][2] < 0.0f && r > 0.0f) return 180.0f - r;
  if (m[2][2] < 0.0f && r < 0.0f) return -180.0f - r;
  return r;
}

float rollDegrees(const float (&m)[3][3]) {
  return static_cast<float>(std::asin(unitClamped(m[0][2]))) * 180.0f / kPiF;
}

}  // namespace quelta
