// SPDX-License-Identifier: Apache-2.0
// The calibration's and the orientation's exported functions: one-line
// forwards to the process-wide compass.
#include "QueltaAlgo.h"
#include "interface/compass.h"
#include "interface/constant_init.h"

namespace {
QUELTA_CONSTANT_INIT quelta::Compass compass;
}  // namespace

quelta::Compass& quelta::defaultCompass() { return compass; }

extern "C" {

QUELTA_API int32_t AlgoInitial(const float* paraAxis, const float* paraInit, const float* paraPool,
                               const float* paraThd, const int32_t* paraC,
                               LogCallback logCallback) {
  RegisterLogCallback(logCallback);
  return compass.configure(quelta::unpackHostSetUp(paraAxis, paraInit, paraPool, paraThd, paraC));
}

QUELTA_API int32_t MainAlgorithmProcess(const float* acc, const float* mag, const float* satMag,
                                        int32_t iReStart, int32_t iCalLogMode) {
  return compass.process(acc, mag, satMag, iReStart, iCalLogMode);
}

QUELTA_API int32_t GetCalMag(float* out) { return compass.calibrateLatestField(out); }

QUELTA_API void GetRawMag(float* out) { compass.rawFieldOfLastCalibratedField(out); }

QUELTA_API int32_t GetCalOri(float* out) { return compass.orientationFromLastCalibratedField(out); }

QUELTA_API int32_t GetOffset(float* out) { return compass.offset(out); }

QUELTA_API int32_t GetCalPara(float* out) { return compass.calibrationParameters(out); }

QUELTA_API int32_t GetMagAccuracy(void) { return compass.accuracy(); }

QUELTA_API int32_t GetMagSaturation(void) { return compass.takeSaturation(); }

}  // extern "C"
