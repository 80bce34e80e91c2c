// SPDX-License-Identifier: Apache-2.0
// Every log text of the calibration, with the log modes that let it through.
#pragma once

#include "core/log.h"

namespace quelta {

struct CalibrationLogTexts {
  LogText initialAccuracy{LogGate::kAlways, "TRVQX4e_2020103 iMagAccuracy in initial %d\n"};
  LogText restart{LogGate::kTrace, "QUELTA6a20180530 ReStart=%d \n"};
  LogText poolCount{LogGate::kTrace, "QUELTA6a2018 iCalBufferCount=%d \n"};
  LogText poolOpened{LogGate::kTrace, "queltagbp 000 i=%d %f %f %f\n"};
  LogText tooClose{LogGate::kTrace, "QUELTA6a20180725 dTempDistance small =%f \n"};
  LogText tooFar{LogGate::kTrace, "QUELTA6a20180725 dTempDistance big =%f \n"};
  LogText pooledEarly{LogGate::kTrace, "queltagbp 111 i=%d %f %f %f\n"};
  LogText tooFarFallBack{LogGate::kTrace, "TRVQX4e  quality down111 %d"};
  LogText pooledLate{LogGate::kTrace, "queltagbp 222 i=%d %f %f %f\n"};
  LogText partialFitVerdict{LogGate::kTrace, "QUELTA6a objSP.iMagCalisOK = %d"};
  LogText partialFitRejected{LogGate::kTrace, "TRVQX4e quality 222 %d\n"};
  LogText partialFitAdopted{LogGate::kTrace,
                            "QUELTA6a accu=%d calioffset =%f %f %f dSphereRadius=%f \n"};
  LogText fullFitAdopted{LogGate::kTrace, "TRVQX4e quality 4 %d\n"};
  LogText fullFitResult{
      LogGate::kTrace,
      "queltagbp SphereOffset %lf %lf %lf Radius= %lf Accuracy= %d iMagCalisOK= %d\n\n"};
  LogText offSphereCount{LogGate::kAlways, "TRVQX4e20171117 qualitydown %d\n"};
  LogText offSphereDowngrade{LogGate::kTrace, "TRVQX4e needcali quality 444 %d califlag= %d\n"};
  LogText calibrationOffset{LogGate::kDetail, "TRVQX4e20180725 dSphereOffset %f %f %f\n"};
  LogText calibratedField{LogGate::kDetail, "TRVQX4e20180725 dCalMagdata %f %f %f\n"};
  LogText calibratedFieldMilli{LogGate::kAlways, "TRVQX4e20180206 calimag %d %d %d\n"};
  LogText offsetMilli{LogGate::kAlways, "TRVQX4e20180206 dSphereOffset %d %d %d\n"};
  LogText singularMatrix{LogGate::kAlways, "MatInv Err******"};
  LogText sampleOffSphere{LogGate::kTrace,
                          "queltagbp MCP cali failed!!! i=%d dDistance=%f dRadius=%f dRatio=%f\n"};
};

inline constexpr CalibrationLogTexts kCalibrationLog{};

}  // namespace quelta
