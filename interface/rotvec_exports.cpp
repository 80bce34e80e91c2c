// SPDX-License-Identifier: Apache-2.0
// The exported rotation-vector objects and functions, one-line forwards to
// the process-wide fusion instance, which publishes into the exported
// objects and reads its hold threshold from movethd at every call.
#include "QueltaAlgo.h"
#include "core/attitude.h"
#include "interface/constant_init.h"
#include "rotvec/rotation_vector.h"

extern "C" {

QUELTA_API float fOutRov[4] = {};
QUELTA_API float fGravityAcc[3] = {};
QUELTA_API float fLinearAcc[3] = {};
QUELTA_API float movethd = quelta::kDefaultRotationVectorSettings.moveThreshold;

}  // extern "C"

namespace {
QUELTA_CONSTANT_INIT quelta::RotationVectorFusion rotationVector{
    quelta::RotationVectorOutputs{fOutRov, fGravityAcc, fLinearAcc, &movethd}};
}  // namespace

extern "C" {

QUELTA_API void CalcQueltaRotVec(const float* mag, const float* acc, int32_t iRovLogMode) {
  rotationVector.update(mag, acc, iRovLogMode);
}
QUELTA_API void GetCn2bAcc(const float* fMagAccDir, float* Cn2b) {
  quelta::cn2bByFieldAcrossGravity(fMagAccDir, Cn2b);
}
QUELTA_API void GetCalRov(float* out) { rotationVector.copyRotationVector(out); }
QUELTA_API void GetQueltaGravityAcc(float* out) { rotationVector.copyGravity(out); }
QUELTA_API void GetQueltaLinearAcc(float* out) { rotationVector.copyLinearAcceleration(out); }

}  // extern "C"
