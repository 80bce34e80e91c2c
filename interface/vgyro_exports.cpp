// SPDX-License-Identifier: Apache-2.0
// The exported virtual-gyroscope objects and functions, one-line forwards.
//
// The exported ring-buffer records and their storage are all zero at load;
// the first CreateDataBuffer (or the pipeline's first call) binds them. The
// building blocks getWMag, deviceRotationMode and myRand act on the
// process-wide axis memory, detector and generator, and the process-wide
// pipeline shares those same three, so for instance the generator's sequence
// runs on across the pipeline's draws and the host's own calls of myRand.
#include "QueltaAlgo.h"
#include "core/attitude.h"
#include "interface/constant_init.h"
#include "vgyro/data_buffer.h"
#include "vgyro/filter_compensation.h"
#include "vgyro/smoothing_filters.h"
#include "vgyro/virtual_gyro.h"

extern "C" {

QUELTA_API DataBuffer bfMagRaw, bfMagMed, bfMagLPF, bfMagMean;
QUELTA_API DataBuffer bfAccRaw, bfAccMed, bfAccLPF, bfAccMean;
QUELTA_API DataBuffer bfWRaw, bfWFilter;

QUELTA_API float bfMagRawData[9], bfMagMedData[6], bfMagLPFData[9], bfMagMeanData[9];
QUELTA_API float bfAccRawData[9], bfAccMedData[6], bfAccLPFData[9], bfAccMeanData[9];
QUELTA_API float bfWRawData[6], bfWFilterData[3];

}  // extern "C"

namespace {

using namespace quelta;

// The exported records and storage arrays, as the process-wide pipeline's.
constexpr GyroBuffers kExportedBuffers{
    {&bfMagRaw, bfMagRawData, kRawLen},     {&bfMagMed, bfMagMedData, kMedianLen},
    {&bfMagLPF, bfMagLPFData, kLowPassLen}, {&bfMagMean, bfMagMeanData, kMeanLen},
    {&bfAccRaw, bfAccRawData, kRawLen},     {&bfAccMed, bfAccMedData, kMedianLen},
    {&bfAccLPF, bfAccLPFData, kLowPassLen}, {&bfAccMean, bfAccMeanData, kMeanLen},
    {&bfWRaw, bfWRawData, kRateRawLen},     {&bfWFilter, bfWFilterData, kRateFilterLen}};

QUELTA_CONSTANT_INIT FieldRateEstimator fieldRate;
QUELTA_CONSTANT_INIT RotationModeDetector rotationMode;
QUELTA_CONSTANT_INIT RandomGenerator randomGenerator;
QUELTA_CONSTANT_INIT VirtualGyro virtualGyro{
    GyroParts{kExportedBuffers, &fieldRate, &rotationMode, &randomGenerator}};

}  // namespace

extern "C" {

QUELTA_API void bfNew(DataBuffer* buf, float* storage, int32_t dim, int32_t len) {
  bufferNew(*buf, storage, dim, len);
}
QUELTA_API void bfClear(DataBuffer* buf) { bufferClear(*buf); }
QUELTA_API void bfPut(DataBuffer* buf, const float* sample) { bufferPut(*buf, sample); }
QUELTA_API int32_t bfGet(const DataBuffer* buf, float* out, int32_t k) {
  return bufferGet(*buf, out, k);
}
QUELTA_API void CreateDataBuffer(void) { createBuffers(kExportedBuffers); }
QUELTA_API void ClearDataBuffer(void) { clearBuffers(kExportedBuffers); }

QUELTA_API int32_t medFilter(const DataBuffer* in, DataBuffer* out, int32_t n) {
  return medianFilter(*in, *out, n);
}
QUELTA_API int32_t meanFilter(const DataBuffer* in, DataBuffer* out, int32_t n) {
  return movingMeanFilter(*in, *out, n);
}
QUELTA_API int32_t LPF(const DataBuffer* in, DataBuffer* out, const float* b, const float* a,
                       int32_t nb, int32_t na) {
  return recursiveLowPass(*in, *out, b, a, nb, na);
}
QUELTA_API int32_t LPF1(const float* x, float* y) { return firstOrderLowPass(x, y); }

QUELTA_API void getCn2bMagAcc(const float* mag, const float* acc, float* Cn2b) {
  cn2bByCrossProducts(mag, acc, Cn2b);
}
QUELTA_API void dcm2Quat(const float* Cn2b, float* q) {
  Quatf r;
  if (quatFromCn2bByDominantTerm(Cn2b, r)) r.store(q);
}
QUELTA_API void getWMag(const DataBuffer* buf, float* out, float dt) {
  fieldRate.rate(*buf, out, dt);
}
QUELTA_API uint8_t deviceRotationMode(const float* w, int32_t restart, float dt) {
  return rotationMode.update(w, restart, dt);
}
QUELTA_API void filterCompensation(float* gain, const float* w, const float* b, const float* a,
                                   int32_t nb, int32_t na, float dt) {
  quelta::filterCompensation(gain, w, b, a, nb, na, dt);
}
QUELTA_API float myRand(int32_t seed, int32_t reseed) { return randomGenerator.next(seed, reseed); }

QUELTA_API void CalcQueltaGyro(const float* mag, const float* acc, int32_t algoRestart,
                               int32_t iGyroLogMode, float ts) {
  virtualGyro.process(mag, acc, algoRestart, iGyroLogMode, ts);
}
QUELTA_API void GetCalGyr(float* out) { virtualGyro.copyRate(out); }
QUELTA_API void GetRotVec_InVG(float* out) { virtualGyro.copyAttitude(out); }

}  // extern "C"
