#include "interface/compass.h"

#include <cstring>

#include "core/float_to_int.h"

namespace quelta {

HostSetUp unpackHostSetUp(const float* paraAxis, const float* paraInit, const float* paraPool,
                          const float* paraThd, const int32_t* paraC) {
  HostSetUp s;
  std::memcpy(s.intake.axisMatrix, paraAxis, sizeof s.intake.axisMatrix);
  for (int32_t k = 0; k < 3; ++k) s.stored.offset[k] = paraInit[k];
  s.stored.radius = paraInit[3];

  CalibrationSettings& c = s.calibration;
  c.minPoolCount = truncToInt32(paraPool[0]);
  c.midPoolCount = truncToInt32(paraPool[1]);
  c.fullPoolCount = truncToInt32(paraPool[2]);
  std::memcpy(&c.minDistanceEarly, &paraPool[3], sizeof(float));
  std::memcpy(&c.minDistanceLate, &paraPool[4], sizeof(float));
  std::memcpy(&c.ratioLow, &paraPool[5], sizeof(float));
  std::memcpy(&c.ratioHigh, &paraPool[6], sizeof(float));
  std::memcpy(&c.maxDistance, &paraPool[7], sizeof(float));
  std::memcpy(&c.accMovingVariance, &paraThd[0], sizeof(float));
  std::memcpy(&c.probeFrozenVariance, &paraThd[1], sizeof(float));
  std::memcpy(&c.accStillVariance, &paraThd[2], sizeof(float));
  // paraC[0] is the sample period in milliseconds (1000 / x cannot overflow).
  c.sampleRate = paraC[0] == 0 ? 0 : 1000 / paraC[0];

  s.orientation.medianWindow = paraC[1];
  s.orientation.meanWindow = paraC[2];
  return s;
}

int32_t Compass::configure(const HostSetUp& setUp) {
  intake_.settings = setUp.intake;
  calibrator_.configure(setUp.calibration, setUp.stored);
  orientation_.configure(setUp.orientation);
  return 1;
}

int32_t Compass::process(const float* acc, const float* mag, const float* probe, int32_t restart,
                         int32_t logMode) {
  intake_.take(acc, mag, probe);
  calibrator_.process(intake_, restart, logMode);
  return 1;
}

int32_t Compass::calibrateLatestField(float* out) {
  return calibrator_.calibrateLatestField(intake_, out);
}

// The field GetCalMag calibrated, with the offset in force now added back.
void Compass::rawFieldOfLastCalibratedField(float* out) const {
  const float* field = calibrator_.lastCalibratedField();
  const float* offset = calibrator_.offset();
  for (int32_t k = 0; k < 3; ++k) out[k] = field[k] + offset[k];
}

int32_t Compass::orientationFromLastCalibratedField(float* out) {
  CalibrationValues values;
  const float* offset = calibrator_.offset();
  const float* field = calibrator_.lastCalibratedField();
  for (int32_t k = 0; k < 3; ++k) {
    values.offset[k] = offset[k];
    values.calibratedField[k] = field[k];
  }
  values.radius = calibrator_.radius();
  values.accuracy = calibrator_.accuracy();
  values.accStillVariance = calibrator_.settings().accStillVariance;
  return orientation_.compute(intake_, values, out);
}

// Offset and radius from the calibration, the field geometry from the
// orientation: offset x, y, z, radius, horizontal, vertical, inclination.
int32_t Compass::calibrationParameters(float* out) {
  const int32_t fresh = calibrator_.takeParameters(out, &out[3]);
  const FieldGeometry& geometry = orientation_.fieldGeometry();
  out[4] = geometry.horizontal;
  out[5] = geometry.vertical;
  out[6] = geometry.inclination;
  return fresh;
}

int32_t Compass::offset(float* out) const {
  const float* offset = calibrator_.offset();
  for (int32_t k = 0; k < 3; ++k) out[k] = offset[k];
  return 1;
}

}  // namespace quelta
