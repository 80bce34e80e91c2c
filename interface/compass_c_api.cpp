// The calibration's and the orientation's exported functions: one-line
// forwards to the process-wide compass.
#include "QueltaAlgo.h"
#include "interface/compass.h"
#include "interface/constant_init.h"

namespace quelta {

namespace {
QUELTA_CONSTANT_INIT Compass gCompass;
}  // namespace

Compass& defaultCompass() { return gCompass; }

}  // namespace quelta

extern "C" {

QUELTA_API int32_t AlgoInitial(const float* paraAxis, const float* paraInit, const float* paraPool,
                               const float* paraThd, const int32_t* paraC,
                               LogCallback logCallback) {
  RegisterLogCallback(logCallback);
  return quelta::gCompass.configure(
      quelta::unpackHostSetUp(paraAxis, paraInit, paraPool, paraThd, paraC));
}

QUELTA_API int32_t MainAlgorithmProcess(const float* acc, const float* mag, const float* satMag,
                                        int32_t iReStart, int32_t iCalLogMode) {
  return quelta::gCompass.process(acc, mag, satMag, iReStart, iCalLogMode);
}

QUELTA_API int32_t GetCalMag(float* out) { return quelta::gCompass.calibrateLatestField(out); }

QUELTA_API void GetRawMag(float* out) { quelta::gCompass.rawFieldOfLastCalibratedField(out); }

QUELTA_API int32_t GetCalOri(float* out) {
  return quelta::gCompass.orientationFromLastCalibratedField(out);
}

QUELTA_API int32_t GetOffset(float* out) { return quelta::gCompass.offset(out); }

QUELTA_API int32_t GetCalPara(float* out) { return quelta::gCompass.calibrationParameters(out); }

QUELTA_API int32_t GetMagAccuracy(void) { return quelta::gCompass.accuracy(); }

QUELTA_API int32_t GetMagSaturation(void) { return quelta::gCompass.takeSaturation(); }

}  // extern "C"
