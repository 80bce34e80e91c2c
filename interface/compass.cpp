// SPDX-License-Identifier: Apache-2.0
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

}  // namespace quelta
