#include <cstring>

#include "core/float_to_int.h"
#include "core/log.h"
#include "magcal/calibrator.h"

namespace quelta {

int32_t Calibrator::initial(const float* paraAxis, const float* paraInit, const float* paraPool,
                            const float* paraThd, const int32_t* paraC) {
  CalibrationConfig& cfg = state.config;
  std::memcpy(cfg.dMagAxisMatrix, paraAxis, sizeof cfg.dMagAxisMatrix);

  // A stored offset of exactly zero (either sign) means "no calibration";
  // anything else, NaN included, is adopted as a full calibration.
  if (paraInit[0] == 0.0f && paraInit[1] == 0.0f && paraInit[2] == 0.0f) {
    state.iMagAccuracy = 0;
  } else {
    for (int32_t k = 0; k < 3; ++k) {
      state.dSphereOffset[k] = paraInit[k];
      state.dSavedOffset[k] = paraInit[k];
    }
    state.dSphereRadius = paraInit[3];
    state.dSavedRadius = paraInit[3];
    state.iMagAccuracy = 3;
  }
  logLine("TRVQX4e_2020103 iMagAccuracy in initial %d\n", state.iMagAccuracy);

  cfg.iMinCalCount = truncToInt32(paraPool[0]);
  cfg.iMidCalCount = truncToInt32(paraPool[1]);
  cfg.iFullCalCount = truncToInt32(paraPool[2]);
  std::memcpy(&cfg.dMinDistEarly, &paraPool[3], sizeof(float));
  std::memcpy(&cfg.dMinDistLate, &paraPool[4], sizeof(float));
  std::memcpy(&cfg.dRatioLow, &paraPool[5], sizeof(float));
  std::memcpy(&cfg.dRatioHigh, &paraPool[6], sizeof(float));
  std::memcpy(&cfg.dMaxDist, &paraPool[7], sizeof(float));

  std::memcpy(&cfg.dAccVarThd, &paraThd[0], sizeof(float));
  std::memcpy(&cfg.dMagVarThd, &paraThd[1], sizeof(float));
  std::memcpy(&cfg.dAccStillThd, &paraThd[2], sizeof(float));

  // paraC[0] is the sample period in milliseconds (1000 / x cannot overflow).
  cfg.iSampleRate = paraC[0] == 0 ? 0 : 1000 / paraC[0];
  for (int32_t k = 0; k < 3; ++k) cfg.paraC[k] = paraC[k];
  logLine("TRVQX4e20171117 paraC[1]= %d paraC[2]= %d \n", cfg.paraC[1], cfg.paraC[2]);
  return 1;
}

}  // namespace quelta
