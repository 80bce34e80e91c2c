#include "orientation/orientation.h"

#include <cmath>

#include "core/vector_math.h"
#include "orientation/angle_wrap.h"

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

int32_t Orientation::compute(CalibrationState& cal, float* out) {
  float acc[3], mag[3], g[3];
  currentVectors(cal, acc, mag);
  gravityDirection(cal, acc, g);
  const MeanAngle angle = meanAngle(cal);
  updateFieldGeometry(cal, angle);
  if (angle.sinA >= kMinSinA) rebuildMatrix(mag, g, angle);

  float east, north;
  levelledHeading(&east, &north);
  out[0] = smoother.smooth(east, north, cal.config.paraC[1], cal.config.paraC[2]);
  out[1] = pitch();
  out[2] = roll();
  return 1;
}

void Orientation::currentVectors(const CalibrationState& cal, float* acc, float* mag) {
  if (cal.iHistoryCount < History30::kLength) {
    for (int32_t k = 0; k < 3; ++k) {
      acc[k] = cal.dAccData[k];
      mag[k] = cal.dCalMagdata[k];
    }
    return;
  }
  const float* a = cal.dAccHistory.at(kDelayedEntry);
  for (int32_t k = 0; k < 3; ++k) acc[k] = a[k];
  subtract(cal.dMagHistory.at(kDelayedEntry), cal.dSphereOffset, mag);
}

// Until the accelerometer variances exist the device is taken as level.
void Orientation::gravityDirection(const CalibrationState& cal, const float* acc, float* g) {
  const float* var = cal.dAccVariance;
  const bool noVariance = var[0] == 0.0f && var[1] == 0.0f && var[2] == 0.0f;
  g[0] = noVariance ? 0.0f : acc[0];
  g[1] = noVariance ? 0.0f : acc[1];
  g[2] = noVariance ? 1.0f : acc[2];
}

MeanAngle Orientation::meanAngle(const CalibrationState& cal) {
  float meanMag[3], meanAcc[3], magDir[3], accDir[3];
  MeanOf30(cal.dMagHistory, meanMag);
  subtract(meanMag, cal.dSphereOffset, meanMag);
  MeanOf30(cal.dAccHistory, meanAcc);
  normalizeFloored3(meanMag, magDir);
  normalizeFloored3(meanAcc, accDir);

  const float cosA = (magDir[0] * accDir[0] + magDir[1] * accDir[1]) + magDir[2] * accDir[2];
  if (cosA > 1.0f) return {1.0f, 0.0f};
  if (cosA < -1.0f) return {-1.0f, 0.0f};
  return {cosA, std::sqrt(1.0f - cosA * cosA)};
}

void Orientation::updateFieldGeometry(CalibrationState& cal, MeanAngle angle) {
  if (cal.iMagAccuracy != 3) return;
  for (float var : cal.dAccVariance) {
    if (!(var < cal.config.dAccStillThd)) return;
  }
  cal.dMagHorizontal = std::fabs(angle.sinA * cal.dSphereRadius);
  cal.dMagVertical = std::fabs(angle.cosA * cal.dSphereRadius);
  cal.dMagInclination = static_cast<float>(std::asin(static_cast<double>(-angle.cosA)) * 180.0 /
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
    dOriMatrix[i][0] = -eHat[i];
    dOriMatrix[i][1] = p * m1[i] + q * g1[i];
    dOriMatrix[i][2] = g1[i];
  }
}

// Rotates the device y axis about the horizontal axis that brings the device
// z axis to Up, and keeps its East and North components.
void Orientation::levelledHeading(float* east, float* north) const {
  const float* row1 = dOriMatrix[1];
  const float* row2 = dOriMatrix[2];
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

// Positive with the top edge down; screen-down attitudes continue past +-90.
float Orientation::pitch() const {
  const float r = static_cast<float>(std::asin(unitClamped(dOriMatrix[1][2]))) * (-180.0f) / kPiF;
  if (dOriMatrix[2][2] < 0.0f && r > 0.0f) return 180.0f - r;
  if (dOriMatrix[2][2] < 0.0f && r < 0.0f) return -180.0f - r;
  return r;
}

float Orientation::roll() const {
  return static_cast<float>(std::asin(unitClamped(dOriMatrix[0][2]))) * 180.0f / kPiF;
}

}  // namespace quelta
