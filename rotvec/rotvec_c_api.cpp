// The exported rotation-vector objects and functions, acting on the one
// process-wide fusion instance.
#include "QueltaAlgo.h"
#include "rotvec/cn2b_from_directions.h"
#include "rotvec/rotation_vector.h"
#include "core/constant_init.h"

extern "C" {

QUELTA_API float fOutRov[4] = {};
QUELTA_API float fGravityAcc[3] = {};
QUELTA_API float fLinearAcc[3] = {};
QUELTA_API float movethd = quelta::kDefaultMoveThreshold;

}  // extern "C"

namespace quelta {

namespace {
QUELTA_CONSTANT_INIT RotationVectorFusion gRotationVector{
    RotationVectorOutputs{fOutRov, fGravityAcc, fLinearAcc, &movethd}};
}  // namespace

RotationVectorFusion& defaultRotationVector() { return gRotationVector; }

}  // namespace quelta

extern "C" {

QUELTA_API void CalcQueltaRotVec(const float* mag, const float* acc, int32_t iRovLogMode) {
  quelta::gRotationVector.update(mag, acc, iRovLogMode);
}

QUELTA_API void GetCn2bAcc(const float* fMagAccDir, float* Cn2b) {
  quelta::cn2bFromDirections(fMagAccDir, Cn2b);
}

QUELTA_API void GetCalRov(float* out) { quelta::gRotationVector.copyRotationVector(out); }

QUELTA_API void GetQueltaGravityAcc(float* out) { quelta::gRotationVector.copyGravity(out); }

QUELTA_API void GetQueltaLinearAcc(float* out) {
  quelta::gRotationVector.copyLinearAcceleration(out);
}

}  // extern "C"
