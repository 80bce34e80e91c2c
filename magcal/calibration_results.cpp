#include "core/float_to_int.h"
#include "core/log.h"
#include "magcal/calibrator.h"

namespace quelta {

int32_t Calibrator::calMag(float* out) {
  for (int32_t k = 0; k < 3; ++k) state.dCalMagdata[k] = state.dMagdata[k] - state.dSphereOffset[k];
  if (state.iCalLogMode == 1) {
    logLine("TRVQX4e20180725 dSphereOffset %f %f %f\n", static_cast<double>(state.dSphereOffset[0]),
            static_cast<double>(state.dSphereOffset[1]),
            static_cast<double>(state.dSphereOffset[2]));
    logLine("TRVQX4e20180725 dCalMagdata %f %f %f\n", static_cast<double>(state.dCalMagdata[0]),
            static_cast<double>(state.dCalMagdata[1]), static_cast<double>(state.dCalMagdata[2]));
  }
  for (int32_t k = 0; k < 3; ++k) out[k] = state.dCalMagdata[k];
  logLine("TRVQX4e20180206 calimag %d %d %d\n", milliUnits(state.dCalMagdata[0]),
          milliUnits(state.dCalMagdata[1]), milliUnits(state.dCalMagdata[2]));
  return state.iCalBufferCount;
}

// The field GetCalMag calibrated, with the offset in force now added back.
void Calibrator::rawMag(float* out) const {
  for (int32_t k = 0; k < 3; ++k) out[k] = state.dCalMagdata[k] + state.dSphereOffset[k];
}

int32_t Calibrator::offset(float* out) const {
  for (int32_t k = 0; k < 3; ++k) out[k] = state.dSphereOffset[k];
  return 1;
}

int32_t Calibrator::calPara(float* out) {
  for (int32_t k = 0; k < 3; ++k) out[k] = state.dSphereOffset[k];
  logLine("TRVQX4e20180206 dSphereOffset %d %d %d\n", milliUnits(state.dSphereOffset[0]),
          milliUnits(state.dSphereOffset[1]), milliUnits(state.dSphereOffset[2]));
  out[3] = state.dSphereRadius;
  out[4] = state.dMagHorizontal;
  out[5] = state.dMagVertical;
  out[6] = state.dMagInclination;
  if (state.bNewCalPara == 1) {
    state.bNewCalPara = 0;
    return 1;
  }
  return 0;
}

int32_t Calibrator::saturation() {
  const uint8_t flag = state.bMagSaturation;
  if (flag == 1) state.bMagSaturation = 0;
  return flag;
}

}  // namespace quelta
