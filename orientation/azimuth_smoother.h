// The chain that turns the levelled heading vector into the reported
// azimuth: low-pass filter, degrees, median window, mean window, sector
// correction and a one-degree hold. Each stage handles North (0 / 360) in its
// own way. All state starts at zero and survives recalibration.
#pragma once

#include <cstdint>

namespace quelta {

class AzimuthSmoother {
 public:
  static constexpr int32_t kMedianCapacity = 31;
  static constexpr int32_t kMeanCapacity = 30;

  // Azimuth in degrees, [0, 360), of the heading (east, north). The window
  // lengths are read on every call; see useWindowLengths for their limits.
  float smooth(float east, float north, int32_t medianLength, int32_t meanLength);

  // The stages, in the order smooth() runs them.
  void useWindowLengths(int32_t medianLength, int32_t meanLength);
  void lowPass(float east, float north, float* filtered);
  static float rawAzimuth(const float* filtered);
  float medianStage(float azimuth);
  float meanStage(float median);
  static float sectorCorrection(float mean);
  float hold(float corrected);

  // Low-pass filter: previous input and output, east and north.
  bool bAziLpfInit = false;
  float dAziLpfIn[2] = {0.0f, 0.0f};
  float dAziLpfOut[2] = {0.0f, 0.0f};

  // Median window of raw azimuths and mean window of medians, oldest first.
  int32_t iAziMedCount = 0;
  float dAziMedBuf[kMedianCapacity] = {};
  int32_t iAziMeanCount = 0;
  float dAziMeanBuf[kMeanCapacity] = {};

  // Window lengths in force; 0 until the first call.
  int32_t iMedianLength = 0;
  int32_t iMeanLength = 0;

  float dAzimuthOut = 0.0f;  // azimuth reported last

 private:
  void resetMedianWindow();
  void resetMeanWindow();
};

}  // namespace quelta
