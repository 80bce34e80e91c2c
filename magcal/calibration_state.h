// The hard-iron calibration's configuration, results and run-time state, with
// the values they hold from library load until AlgoInitial changes them.
// Shared by the calibrator and the orientation, which reads the histories and
// writes the field geometry.
#pragma once

#include <cstdint>

#include "magcal/history30.h"

namespace quelta {

constexpr int32_t kCalPoolCapacity = 35;

struct CalibrationConfig {
  float dMagAxisMatrix[3][3] = {{1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}};
  int32_t iMinCalCount = 6;    // pool count from which an accepted partial fit grades 1
  int32_t iMidCalCount = 16;   // ... grades 2
  int32_t iFullCalCount = 32;  // pool count that triggers the full fit
  float dMinDistEarly = 0.1f;  // gauss
  float dMinDistLate = 0.1f;   // gauss
  float dRatioLow = 0.85f;
  float dRatioHigh = 1.15f;
  float dMaxDist = 1.4f;       // gauss
  float dAccVarThd = 0.1f;     // accelerometer variance above which the device moves
  float dMagVarThd = 2e-5f;    // probe variance below which an axis is frozen
  float dAccStillThd = 2e-4f;  // accelerometer variance below which the device is still
  int32_t iSampleRate = 50;    // samples per second
  int32_t paraC[3] = {20, 11, 8};  // sample period ms, azimuth median and mean window lengths
};

struct CalibrationState {
  CalibrationConfig config;

  // Result and the copy every failure falls back to.
  float dSphereOffset[3] = {0.0f, 0.0f, 0.0f};
  float dSphereRadius = 0.5f;
  float dSavedOffset[3] = {0.0f, 0.0f, 0.0f};
  float dSavedRadius = 0.5f;
  int32_t iMagAccuracy = 0;
  uint8_t bNewCalPara = 0;

  // Latest sample.
  float dMagdata[3] = {};     // field after the axis matrix
  float dCalMagdata[3] = {};  // dMagdata - dSphereOffset, computed by GetCalMag
  int32_t iCalLogMode = 0;
  float dAccData[3] = {};
  float dSatMagData[3] = {};

  // 30-sample histories and watches.
  int32_t iHistoryCount = 0;
  History30 dAccHistory;
  History30 dMagHistory;
  History30 dSatMagHistory;
  uint8_t bHistoryInit = 0;
  float dAccVariance[3] = {};
  int32_t iSatCount = 0;
  uint8_t bMagSaturation = 0;
  int32_t iQualityDownCount = 0;

  // Sample pool.
  float dCalBuffer[kCalPoolCapacity][3] = {};
  int32_t iCalBufferCount = 0;
  float dMinDist = 0.1f;

  // Field geometry, written by the orientation.
  float dMagHorizontal = 0.0f;
  float dMagVertical = 0.0f;
  float dMagInclination = 0.0f;
};

}  // namespace quelta
