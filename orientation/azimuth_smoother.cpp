// SPDX-License-Identifier: Apache-2.0
#include "orientation/azimuth_smoother.h"

#include <cmath>

#include "core/vector_math.h"
#include "orientation/angle_wrap.h"

namespace quelta {

namespace {

// First-order low-pass filter y1 = k (x1 + x0) + a y0.
constexpr float kLpfGain = 0.045035005f;
constexpr float kLpfPole = 0.90993f;

// A span this wide means the window straddles North.
constexpr float kStraddleSpan = 300.0f;
// Mean-window groups on either side of North.
constexpr float kLowGroupBelow = 60.0f;
constexpr float kHighGroupAbove = 300.0f;

constexpr float kMinChordSquared = 1e-7f;

void unitPoint(float angleRad, float* p) {
  const double a = static_cast<double>(angleRad);
  p[0] = static_cast<float>(std::sin(a));
  p[1] = static_cast<float>(std::cos(a));
}

// Start of sector k (end of sector k - 1) in radians.
float sectorAngle(int32_t k) { return (static_cast<float>(k) * kPiF) * 0.25f; }

// Projects the point of phi on the unit circle onto the chord between the
// sector's ends p0 and p1 and mirrors it twice as far beyond the chord, which
// spreads the angles of the sector away from its middle while both ends stay
// where they are.
float correctWithinSector(float phi, const float* p0, const float* p1) {
  float p[2];
  unitPoint(phi, p);
  const float dx = p1[0] - p0[0];
  const float dy = p1[1] - p0[1];
  float d = dx * dx + dy * dy;
  if (d >= 0.0f && d < kMinChordSquared) d = kMinChordSquared;
  if (d < 0.0f && d > -kMinChordSquared) d = -kMinChordSquared;
  const float t = ((p[0] - p0[0]) * dx + (p[1] - p0[1]) * dy) / d;
  const float qx = p0[0] + t * dx;
  const float qy = p0[1] + t * dy;
  const float x = qx + 2.0f * (qx - p[0]);
  const float y = qy + 2.0f * (qy - p[1]);
  const double deg = std::atan2(static_cast<double>(x), static_cast<double>(y)) * 180.0 /
                     static_cast<double>(kPiF);
  return wrapDegrees(static_cast<float>(deg));
}

}  // namespace

float AzimuthSmoother::smooth(float east, float north, int32_t medianLength, int32_t meanLength) {
  useWindowLengths(medianLength, meanLength);
  float filtered[2];
  lowPass(east, north, filtered);
  const float median = medianStage(rawAzimuth(filtered));
  return hold(sectorCorrection(meanStage(median), sectorEnds_));
}

void AzimuthSmoother::useWindowLengths(int32_t medianLength, int32_t meanLength) {
  const int32_t n1 =
      medianLength < 1 ? 1 : (medianLength > kMedianCapacity ? kMedianCapacity : medianLength);
  if (n1 != azimuths_.length()) azimuths_.setLength(n1);
  const int32_t n2 = meanLength < 1 ? 1 : (meanLength > kMeanCapacity ? kMeanCapacity : meanLength);
  if (n2 != medians_.length()) medians_.setLength(n2);
}

void AzimuthSmoother::lowPass(float east, float north, float* filtered) {
  if (!lowPassPrimed_) {
    lowPassOut_[0] = lowPassIn_[0] = filtered[0] = east;
    lowPassOut_[1] = lowPassIn_[1] = filtered[1] = north;
    lowPassPrimed_ = true;
    return;
  }
  filtered[0] = (kLpfGain * east + kLpfGain * lowPassIn_[0]) + kLpfPole * lowPassOut_[0];
  filtered[1] = (kLpfGain * north + kLpfGain * lowPassIn_[1]) + kLpfPole * lowPassOut_[1];
  lowPassIn_[0] = east;
  lowPassIn_[1] = north;
  lowPassOut_[0] = filtered[0];
  lowPassOut_[1] = filtered[1];
}

// Clockwise from North towards East, in degrees.
float AzimuthSmoother::rawAzimuth(const float* filtered) {
  const float rad = static_cast<float>(
      std::atan2(static_cast<double>(filtered[0]), static_cast<double>(filtered[1])));
  return wrapDegrees(rad * 180.0f / kPiF);
}

// The median of a window as long as the ring: once the ring is full, its
// entries but the oldest and then the newest again (the newest counts
// twice); until then the entries held, the rest of the window 0.
float AzimuthSmoother::medianStage(float azimuth) {
  azimuths_.push(azimuth);
  const int32_t length = azimuths_.length();
  float held[kMedianCapacity + 1];
  int32_t j = 0;
  azimuths_.forEachOldestFirst([&held, &j](float v) { held[j++] = v; });
  if (!azimuths_.full()) {
    for (; j < length; ++j) held[j] = 0.0f;
    return medianAcrossNorth(held, length);
  }
  held[length] = azimuth;
  return medianAcrossNorth(held + 1, length);
}

float AzimuthSmoother::medianAcrossNorth(float* window, int32_t length) {
  bubbleSort(window, length);
  if (window[length - 1] - window[0] >= kStraddleSpan) {
    for (int32_t j = 0; j < length; ++j) {
      if (window[j] > kStraddleSpan) window[j] = window[j] - 360.0f;
    }
    bubbleSort(window, length);
  }
  return wrapDegrees(window[(length - 1) / 2]);
}

// 0 until the ring has filled; then the mean of its entries with the smaller
// group on either side of North moved across it (the low group on a tie).
float AzimuthSmoother::meanStage(float median) {
  medians_.push(median);
  if (!medians_.full()) return 0.0f;
  return meanAcrossNorth(medians_);
}

float AzimuthSmoother::meanAcrossNorth(const MeanWindow& window) {
  float values[kMeanCapacity];
  int32_t n = 0;
  int32_t nLow = 0;
  int32_t nHigh = 0;
  window.forEachOldestFirst([&](float v) {
    values[n++] = v;
    if (v < kLowGroupBelow) ++nLow;
    if (v > kHighGroupAbove) ++nHigh;
  });
  float sum = 0.0f;
  if (nLow != 0 && nHigh != 0 && nLow > nHigh) {
    for (int32_t j = 0; j < n; ++j)
      sum = sum + (values[j] > kHighGroupAbove ? values[j] - 360.0f : values[j]);
  } else if (nLow != 0 && nHigh != 0) {
    for (int32_t j = 0; j < n; ++j)
      sum = sum + (values[j] < kLowGroupBelow ? values[j] + 360.0f : values[j]);
  } else {
    for (int32_t j = 0; j < n; ++j) sum = sum + values[j];
  }
  return sum / static_cast<float>(n);
}

// Corrects the angle within its 45-degree sector. An angle of 0 (start-up)
// gives 0; an angle exactly on a sector end is its own correction, so it is
// passed through as it stands.
float AzimuthSmoother::sectorCorrection(float mean, SectorEnds& ends) {
  const float wrapped = wrapDegrees(mean);
  const float phi = wrapped * kPiF / 180.0f;
  for (int32_t k = 0; k < 8; ++k) {
    if (sectorAngle(k) < phi && phi < sectorAngle(k + 1)) {
      return correctWithinSector(phi, ends.at(k), ends.at(k + 1));
    }
  }
  if (!(phi > 0.0f)) return 0.0f;
  return wrapped;
}

const float* AzimuthSmoother::SectorEnds::at(int32_t k) {
  if ((known & (1u << k)) == 0) {
    unitPoint(sectorAngle(k), point[k]);
    known |= 1u << k;
  }
  return point[k];
}

// Changes below one degree are not reported; the difference is the plain
// one, so a step across North always counts as a change.
float AzimuthSmoother::hold(float corrected) {
  if (!(std::fabs(corrected - reported_) < 1.0f)) reported_ = corrected;
  return reported_;
}

bool AzimuthSmoother::filterFinite() const {
  for (int32_t k = 0; k < 2; ++k) {
    if (!std::isfinite(lowPassIn_[k]) || !std::isfinite(lowPassOut_[k])) return false;
  }
  return true;
}

bool AzimuthSmoother::windowsFinite() const {
  bool finite = true;
  azimuths_.forEachOldestFirst([&finite](float v) { finite = finite && std::isfinite(v); });
  medians_.forEachOldestFirst([&finite](float v) { finite = finite && std::isfinite(v); });
  return finite;
}

}  // namespace quelta
