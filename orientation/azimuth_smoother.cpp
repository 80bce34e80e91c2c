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

int32_t clampLength(int32_t length, int32_t capacity) {
  if (length < 1) return 1;
  if (length > capacity) return capacity;
  return length;
}

void unitPoint(float angleRad, float* p) {
  const double a = static_cast<double>(angleRad);
  p[0] = static_cast<float>(std::sin(a));
  p[1] = static_cast<float>(std::cos(a));
}

// Projects the point of phi on the unit circle onto the chord of its sector
// and mirrors it twice as far beyond the chord, which spreads the angles of
// the sector away from its middle while both ends stay where they are.
float correctWithinSector(float phi, float lo, float hi) {
  float p[2], p0[2], p1[2];
  unitPoint(phi, p);
  unitPoint(lo, p0);
  unitPoint(hi, p1);
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
  return hold(sectorCorrection(meanStage(median)));
}

// Lengths are clamped to the windows' capacities (below 1 counts as 1). A
// length that differs from the one in force empties that window, so a count
// left by a longer window can never run past the buffer.
void AzimuthSmoother::useWindowLengths(int32_t medianLength, int32_t meanLength) {
  const int32_t n1 = clampLength(medianLength, kMedianCapacity);
  if (n1 != iMedianLength) {
    resetMedianWindow();
    iMedianLength = n1;
  }
  const int32_t n2 = clampLength(meanLength, kMeanCapacity);
  if (n2 != iMeanLength) {
    resetMeanWindow();
    iMeanLength = n2;
  }
}

void AzimuthSmoother::resetMedianWindow() {
  iAziMedCount = 0;
  for (float& v : dAziMedBuf) v = 0.0f;
}

void AzimuthSmoother::resetMeanWindow() {
  iAziMeanCount = 0;
  for (float& v : dAziMeanBuf) v = 0.0f;
}

void AzimuthSmoother::lowPass(float east, float north, float* filtered) {
  if (!bAziLpfInit) {
    dAziLpfOut[0] = dAziLpfIn[0] = filtered[0] = east;
    dAziLpfOut[1] = dAziLpfIn[1] = filtered[1] = north;
    bAziLpfInit = true;
    return;
  }
  filtered[0] = (kLpfGain * east + kLpfGain * dAziLpfIn[0]) + kLpfPole * dAziLpfOut[0];
  filtered[1] = (kLpfGain * north + kLpfGain * dAziLpfIn[1]) + kLpfPole * dAziLpfOut[1];
  dAziLpfIn[0] = east;
  dAziLpfIn[1] = north;
  dAziLpfOut[0] = filtered[0];
  dAziLpfOut[1] = filtered[1];
}

// Clockwise from North towards East, in degrees.
float AzimuthSmoother::rawAzimuth(const float* filtered) {
  const float rad = static_cast<float>(
      std::atan2(static_cast<double>(filtered[0]), static_cast<double>(filtered[1])));
  return wrapDegrees(rad * 180.0f / kPiF);
}

// Once full, the buffer drops its oldest entry before the window is copied,
// so the window holds the newest azimuth twice. Until then the window also
// sees the entries not yet written.
float AzimuthSmoother::medianStage(float azimuth) {
  const int32_t length = iMedianLength;
  const int32_t n = iAziMedCount;
  dAziMedBuf[n] = azimuth;
  if (n + 1 == length) {
    for (int32_t j = 0; j < n; ++j) dAziMedBuf[j] = dAziMedBuf[j + 1];
  } else {
    iAziMedCount = n + 1;
  }

  float window[kMedianCapacity] = {};
  for (int32_t j = 0; j < length; ++j) window[j] = dAziMedBuf[j];
  bubbleSort(window, length);
  if (window[length - 1] - window[0] >= kStraddleSpan) {
    for (int32_t j = 0; j < length; ++j) {
      if (window[j] > kStraddleSpan) window[j] = window[j] - 360.0f;
    }
    bubbleSort(window, length);
  }
  return wrapDegrees(window[(length - 1) / 2]);
}

// 0 until the window has filled; then the mean of the window with the smaller
// group on either side of North moved across it (the low group on a tie).
float AzimuthSmoother::meanStage(float median) {
  const int32_t length = iMeanLength;
  const int32_t n = iAziMeanCount;
  dAziMeanBuf[n] = median;
  if (n + 1 != length) {
    iAziMeanCount = n + 1;
    return 0.0f;
  }

  float window[kMeanCapacity] = {};
  int32_t nLow = 0;
  int32_t nHigh = 0;
  for (int32_t j = 0; j < length; ++j) {
    window[j] = dAziMeanBuf[j];
    if (window[j] < kLowGroupBelow) ++nLow;
    if (window[j] > kHighGroupAbove) ++nHigh;
  }
  if (nLow != 0 && nHigh != 0) {
    for (int32_t j = 0; j < length; ++j) {
      if (nLow > nHigh) {
        if (window[j] > kHighGroupAbove) window[j] = window[j] - 360.0f;
      } else {
        if (window[j] < kLowGroupBelow) window[j] = window[j] + 360.0f;
      }
    }
  }
  float sum = 0.0f;
  for (int32_t j = 0; j < length; ++j) sum = sum + window[j];
  const float mean = sum / static_cast<float>(length);

  for (int32_t j = 0; j < length - 1; ++j) dAziMeanBuf[j] = dAziMeanBuf[j + 1];
  return mean;
}

// Corrects the angle within its 45-degree sector. An angle of 0 (start-up)
// gives 0; an angle exactly on a sector end is its own correction, so it is
// passed through as it stands.
float AzimuthSmoother::sectorCorrection(float mean) {
  const float wrapped = wrapDegrees(mean);
  const float phi = wrapped * kPiF / 180.0f;
  for (int32_t k = 0; k < 8; ++k) {
    const float lo = (static_cast<float>(k) * kPiF) * 0.25f;
    const float hi = (static_cast<float>(k + 1) * kPiF) * 0.25f;
    if (lo < phi && phi < hi) return correctWithinSector(phi, lo, hi);
  }
  if (!(phi > 0.0f)) return 0.0f;
  return wrapped;
}

// Changes below one degree are not reported; the difference is the plain
// one, so a step across North always counts as a change.
float AzimuthSmoother::hold(float corrected) {
  if (!(std::fabs(corrected - dAzimuthOut) < 1.0f)) dAzimuthOut = corrected;
  return dAzimuthOut;
}

}  // namespace quelta
