// SPDX-License-Identifier: Apache-2.0
// The calibration and the orientation as the host sees them: one sample
// intake both read, the calibrator and the orientation, combined where the
// host reads them. The exported functions (compass_exports.cpp) are one-line
// forwards to the process-wide instance.
#pragma once

#include <cstdint>

#include "intake/sample_intake.h"
#include "magcal/calibrator.h"
#include "orientation/orientation.h"

namespace quelta {

// AlgoInitial's positional arrays, unpacked.
struct HostSetUp {
  IntakeSettings intake;
  CalibrationSettings calibration;
  StoredCalibration stored;
  OrientationSettings orientation;
};

// paraAxis[9], paraInit[4], paraPool[8], paraThd[3], paraC[3] as QueltaAlgo.h
// describes them.
HostSetUp unpackHostSetUp(const float* paraAxis, const float* paraInit, const float* paraPool,
                          const float* paraThd, const int32_t* paraC);

class Compass {
 public:
  // AlgoInitial, after the callback registration.
  int32_t configure(const HostSetUp& setUp);
  // MainAlgorithmProcess.
  int32_t process(const float* acc, const float* mag, const float* probe, int32_t restart,
                  int32_t logMode) {
    intake_.take(acc, mag, probe);
    calibrator_.process(intake_, restart, logMode);
    return 1;
  }

  // GetCalMag computes the calibrated field; GetRawMag and GetCalOri read the
  // field as of its last call (the host calls it first in every sample set).
  int32_t calibrateLatestField(float* out) {
    return calibrator_.calibrateLatestField(intake_, out);
  }
  void rawFieldOfLastCalibratedField(float* out) const;
  int32_t orientationFromLastCalibratedField(float* out);

  int32_t calibrationParameters(float* out);  // GetCalPara
  int32_t offset(float* out) const;           // GetOffset
  int32_t accuracy() const { return calibrator_.accuracy(); }
  int32_t takeSaturation() { return calibrator_.takeSaturation(); }

  const SampleIntake& intake() const { return intake_; }
  const Calibrator& calibrator() const { return calibrator_; }
  const Orientation& orientation() const { return orientation_; }

 private:
  SampleIntake intake_;
  Calibrator calibrator_;
  Orientation orientation_;
};

// The field GetCalMag calibrated, with the offset in force now added back.
inline void Compass::rawFieldOfLastCalibratedField(float* out) const {
  (calibrator_.lastCalibratedField() + calibrator_.offset()).store(out);
}

inline int32_t Compass::orientationFromLastCalibratedField(float* out) {
  const CalibrationValues values = {calibrator_.offset(), calibrator_.radius(),
                                    calibrator_.accuracy(), calibrator_.settings().accStillVariance,
                                    calibrator_.lastCalibratedField()};
  return orientation_.compute(intake_, values, out);
}

// Offset and radius from the calibration, the field geometry from the
// orientation: offset x, y, z, radius, horizontal, vertical, inclination.
inline int32_t Compass::calibrationParameters(float* out) {
  const int32_t fresh = calibrator_.takeParameters(out, &out[3]);
  const FieldGeometry& geometry = orientation_.fieldGeometry();
  out[4] = geometry.horizontal;
  out[5] = geometry.vertical;
  out[6] = geometry.inclination;
  return fresh;
}

inline int32_t Compass::offset(float* out) const {
  calibrator_.offset().store(out);
  return 1;
}

// The process-wide instance behind the exported functions.
Compass& defaultCompass();

}  // namespace quelta
