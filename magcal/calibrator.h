// The hard-iron calibrator: configuration, histories, pool and results of one
// magnetometer. The exported C functions act on defaultCalibrator(); tests and
// hosts with several magnetometers can create their own instances.
#pragma once

#include <cstdint>

#include "magcal/calibration_state.h"

namespace quelta {

class Calibrator {
 public:
  CalibrationState state;

  // AlgoInitial without the callback registration (the callback is
  // process-wide; the C layer registers it first).
  int32_t initial(const float* paraAxis, const float* paraInit, const float* paraPool,
                  const float* paraThd, const int32_t* paraC);

  // MainAlgorithmProcess.
  int32_t process(const float* acc, const float* mag, const float* satMag, int32_t iReStart,
                  int32_t iCalLogMode);

  // Result accessors (GetCalMag, GetRawMag, GetOffset, GetCalPara,
  // GetMagAccuracy, GetMagSaturation).
  int32_t calMag(float* out);
  void rawMag(float* out) const;
  int32_t offset(float* out) const;
  int32_t calPara(float* out);
  int32_t accuracy() const { return state.iMagAccuracy; }
  int32_t saturation();
};

// The process-wide instance behind the C interface.
Calibrator& defaultCalibrator();

}  // namespace quelta
