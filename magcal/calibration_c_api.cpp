// The calibration's exported functions: a thin layer over the process-wide
// calibrator.
#include "QueltaAlgo.h"
#include "magcal/calibrator.h"

namespace quelta {

namespace {
// Constant-initialised: no constructor runs at load.
Calibrator gDefaultCalibrator;
}  // namespace

Calibrator& defaultCalibrator() { return gDefaultCalibrator; }

}  // namespace quelta

extern "C" {

QUELTA_API int32_t AlgoInitial(const float* paraAxis, const float* paraInit, const float* paraPool,
                               const float* paraThd, const int32_t* paraC,
                               LogCallback logCallback) {
  RegisterLogCallback(logCallback);
  return quelta::defaultCalibrator().initial(paraAxis, paraInit, paraPool, paraThd, paraC);
}

QUELTA_API int32_t MainAlgorithmProcess(const float* acc, const float* mag, const float* satMag,
                                        int32_t iReStart, int32_t iCalLogMode) {
  return quelta::defaultCalibrator().process(acc, mag, satMag, iReStart, iCalLogMode);
}

QUELTA_API int32_t GetCalMag(float* out) { return quelta::defaultCalibrator().calMag(out); }

QUELTA_API void GetRawMag(float* out) { quelta::defaultCalibrator().rawMag(out); }

QUELTA_API int32_t GetOffset(float* out) { return quelta::defaultCalibrator().offset(out); }

QUELTA_API int32_t GetCalPara(float* out) { return quelta::defaultCalibrator().calPara(out); }

QUELTA_API int32_t GetMagAccuracy(void) { return quelta::defaultCalibrator().accuracy(); }

QUELTA_API int32_t GetMagSaturation(void) { return quelta::defaultCalibrator().saturation(); }

}  // extern "C"
