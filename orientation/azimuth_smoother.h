// SPDX-License-Identifier: Apache-2.0
// The chain that turns the levelled heading vector into the reported
// azimuth: low-pass filter, degrees, median window, mean window, sector
// correction and a one-degree hold. Each stage handles North (0 / 360) in its
// own way. All state starts at zero and survives recalibration.
#pragma once

#include <cstdint>

#include "core/ring.h"

namespace quelta {

class AzimuthSmoother {
 public:
  static constexpr int32_t kMedianCapacity = 31;  // samples
  static constexpr int32_t kMeanCapacity = 30;    // samples
  using MeanWindow = Ring<float, kMeanCapacity>;

  // Azimuth in degrees, [0, 360), of the heading (east, north). The window
  // lengths (samples) are clamped to 1..capacity; a length that differs from
  // the one in force empties that window.
  float smooth(float east, float north, int32_t medianLength, int32_t meanLength);

  // The ends of the eight 45-degree sectors as points (sin, cos) on the unit
  // circle, k * pi / 4 for k = 0 to 8. They never change, so each is
  // computed once, on first use.
  struct SectorEnds {
    float point[9][2] = {};
    uint32_t known = 0;  // bit k: point[k] computed
    const float* at(int32_t k);
  };
  // Corrects an angle (degrees) within its 45-degree sector.
  static float sectorCorrection(float mean, SectorEnds& ends);

  // The window rules, on a window of azimuths in degrees that they reorder
  // or adjust in place. The median: the middle of the sorted window, taken
  // with the angles above 300 as negative when the window spans 300 or more.
  static float medianAcrossNorth(float* window, int32_t length);
  // The mean of a full window, oldest first, with the smaller group on
  // either side of North (below 60, above 300) moved across it; the low
  // group on a tie.
  static float meanAcrossNorth(const MeanWindow& window);

  // For watchdogs: the filter state and every window entry are finite.
  bool filterFinite() const;
  bool windowsFinite() const;

 private:
  void useWindowLengths(int32_t medianLength, int32_t meanLength);
  void lowPass(float east, float north, float* filtered);
  static float rawAzimuth(const float* filtered);
  float medianStage(float azimuth);
  float meanStage(float median);
  float hold(float corrected);

  // Low-pass filter: previous input and output, east and north.
  bool lowPassPrimed_ = false;
  float lowPassIn_[2] = {0.0f, 0.0f};
  float lowPassOut_[2] = {0.0f, 0.0f};

  // The latest raw azimuths and the latest medians (degrees); their lengths
  // are the window lengths in force.
  Ring<float, kMedianCapacity> azimuths_;
  MeanWindow medians_;

  float reported_ = 0.0f;  // degrees, the azimuth reported last
  SectorEnds sectorEnds_;
};

}  // namespace quelta
