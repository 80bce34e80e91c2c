// SPDX-License-Identifier: Apache-2.0
// The workload every benchmark replays: a recording of the simulated device
// turned in the hand (tools/sim), with the host's calling sequence for one
// sample set of each service. The host passes the calibrated field on to the
// virtual gyroscope and the rotation vector, as a compass service would.
#pragma once

#include <cstdint>
#include <vector>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace quelta::bench {

constexpr float kInterval = 0.02f;  // s, 50 sample sets per second
constexpr int32_t kSilent = 2;      // log mode that emits no line

// Sample sets of the hand-held motion, sampled at kInterval. Without the
// hard-iron offset the field is what GetCalMag hands on once calibrated.
std::vector<sim::SensorSample> handHeldRecording(int count, bool withHardIron = true);

// Installs the default configuration. With a stored calibration (the
// simulated hard-iron offset and field strength) the calibration starts at
// accuracy 3, as after a previous run; without, at accuracy 0.
void initialiseCalibration(bool storedCalibration);

// What the host learns about the calibration from one sample set.
struct CalibrationStatus {
  int32_t accuracy;       // GetMagAccuracy
  int32_t newParameters;  // GetCalPara: 1 after an accepted (re)fit
};

// What one sample set of the calibration costs a host: the driver, the
// calibrated field, the orientation and every result accessor.
inline CalibrationStatus calibrationSampleSet(const sim::SensorSample& s, float* calibrated) {
  float raw[3], offset[3], ori[3], para[7];
  MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, kSilent);
  GetCalMag(calibrated);
  GetRawMag(raw);
  GetOffset(offset);
  GetCalOri(ori);
  CalibrationStatus status;
  status.accuracy = GetMagAccuracy();
  GetMagSaturation();
  status.newParameters = GetCalPara(para);
  return status;
}

// All four services with their accessors, the calibrated field feeding the
// virtual gyroscope and the rotation vector.
inline CalibrationStatus fullSampleSet(const sim::SensorSample& s) {
  float calibrated[3], rate[3], quatInVG[4], rov[4], gravity[3], linear[3];
  const CalibrationStatus status = calibrationSampleSet(s, calibrated);
  CalcQueltaGyro(calibrated, s.acc, 0, kSilent, kInterval);
  GetCalGyr(rate);
  GetRotVec_InVG(quatInVG);
  CalcQueltaRotVec(calibrated, s.acc, kSilent);
  GetCalRov(rov);
  GetQueltaGravityAcc(gravity);
  GetQueltaLinearAcc(linear);
  return status;
}

}  // namespace quelta::bench
