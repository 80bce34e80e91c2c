#include "orientation/orientation.h"

#include <cmath>

#include "core/vector_math.h"
#include "orientation/angle_wrap.h"
#include "orientation/orientation_log.h"

namespace quelta {

namespace {

constexpr float kMinSinA = 1e-7f;
constexpr float kFlatHorizontalSquared = 1e-7f;
// Entry of the histories the orientation follows: nine samples behind the
// newest, so the mean vectors have seen both sides of a change.
constexpr int32_t kDelayedEntry = 20;

void subtract(const float* a, const float* b, float* out) {
  out[0] = a[0] - b[0];
  out[1] = a[1] - b[1];
  out[2] = a[2] - b[2];
}

}  // namespace

void Orientation::configure(const OrientationSettings& settings) {
  settings_ = settings;
  logLine(kOrientationLog.windowLengths, 0, settings.medianWindow, settings.meanWindow);
}

int32_t Orientation::compute(const SampleIntake& intake, const CalibrationValues& cal, float* out) {
  float acc[3], mag[3], g[3];
  currentVectors(intake, cal, acc, mag);
  gravityDirection(intake, acc, g);
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
                                 float* acc, float* mag) {
  if (!intake.full()) {
    for (int32_t k = 0; k < 3; ++k) {
      acc[k] = intake.acc()[k];
      mag[k] = cal.calibratedField[k];
    }
    return;
  }
  const float* a = intake.accAt(kDelayedEntry);
  for (int32_t k = 0; k < 3; ++k) acc[k] = a[k];
  subtract(intake.fieldAt(kDelayedEntry), cal.offset, mag);
}

// Until the accelerometer variances exist the device is taken as level.
void Orientation::gravityDirection(const SampleIntake& intake, const float* acc, float* g) {
  const float* var = intake.accVariance();
  const bool noVariance = var[0] == 0.0f && var[1] == 0.0f && var[2] == 0.0f;
  g[0] = noVariance ? 0.0f : acc[0];
  g[1] = noVariance ? 0.0f : acc[1];
  g[2] = noVariance ? 1.0f : acc[2];
}

Orientation::MeanAngle Orientation::meanAngle(const SampleIntake& intake,
                                              const CalibrationValues& cal) {
  float meanMag[3], meanAcc[3], magDir[3], accDir[3];
  intake.fieldMean(meanMag);
  subtract(meanMag, cal.offset, meanMag);
  intake.accMean(meanAcc);
  normalizeFloored3(meanMag, magDir);
  normalizeFloored3(meanAcc, accDir);

  const float cosA = (magDir[0] * accDir[0] + magDir[1] * accDir[1]) + magDir[2] * accDir[2];
  if (cosA > 1.0f) return {1.0f, 0.0f};
  if (cosA < -1.0f) return {-1.0f, 0.0f};
  return {cosA, std::sqrt(1.0f - cosA * cosA)};
}

void Orientation::measureFieldGeometry(const SampleIntake& intake, const CalibrationValues& cal,
                                       MeanAngle angle) {
  if (cal.accuracy != 3) return;
  const float* var = intake.accVariance();
  for (int32_t k = 0; k < 3; ++k) {
    if (!(var[k] < cal.accStillVariance)) return;
  }
  geometry_.horizontal = std::fabs(angle.sinA * cal.radius);
  geometry_.vertical = std::fabs(angle.cosA * cal.radius);
  geometry_.inclination = static_cast<float>(std::asin(static_cast<double>(-angle.cosA)) * 180.0 /
                                             static_cast<double>(kPiF));
}

// East = g' x m'; North is built from the current directions with the angle
// of the mean ones, so it is stored as computed, not renormalised.
void Orientation::rebuildMatrix(const float* mag, const float* g, MeanAngle angle) {
  float m1[3], g1[3], e[3], eHat[3];
  normalizeFloored3(mag, m1);
  normalizeFloored3(g, g1);
  e[0] = m1[2] * g1[1] - m1[1] * g1[2];
  e[1] = m1[0] * g1[2] - m1[2] * g1[0];
  e[2] = m1[1] * g1[0] - m1[0] * g1[1];
  normalizeFloored3(e, eHat);

  const float p = 1.0f / angle.sinA;
  const float q = -angle.cosA / angle.sinA;
  for (int32_t i = 0; i < 3; ++i) {
    matrix_[i][0] = -eHat[i];
    matrix_[i][1] = p * m1[i] + q * g1[i];
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
