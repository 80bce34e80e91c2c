// The exported virtual-gyroscope functions. The building blocks getWMag,
// deviceRotationMode and myRand act on the process-wide axis memory, detector
// and generator, and the process-wide pipeline shares those same three, so
// for instance the generator's sequence runs on across the pipeline's draws
// and the host's own calls of myRand. All defaults are constant-initialised.
#include "QueltaAlgo.h"
#include "vgyro/attitude.h"
#include "vgyro/data_buffer.h"
#include "vgyro/filter_compensation.h"
#include "vgyro/smoothing_filters.h"
#include "vgyro/virtual_gyro.h"

namespace quelta {
namespace {

FieldRateEstimator defaultFieldRate;
RotationModeDetector defaultRotationMode;
RandomGenerator defaultRandom;
VirtualGyro defaultGyro{
    GyroParts{kExportedGyroBuffers, &defaultFieldRate, &defaultRotationMode, &defaultRandom}};

}  // namespace
}  // namespace quelta

extern "C" {

QUELTA_API void bfNew(DataBuffer* buf, float* storage, int32_t dim, int32_t len) {
  quelta::bufferNew(*buf, storage, dim, len);
}
QUELTA_API void bfClear(DataBuffer* buf) { quelta::bufferClear(*buf); }
QUELTA_API void bfPut(DataBuffer* buf, const float* sample) { quelta::bufferPut(*buf, sample); }
QUELTA_API int32_t bfGet(const DataBuffer* buf, float* out, int32_t k) {
  return quelta::bufferGet(*buf, out, k);
}
QUELTA_API void CreateDataBuffer(void) { quelta::createBuffers(quelta::kExportedGyroBuffers); }
QUELTA_API void ClearDataBuffer(void) { quelta::clearBuffers(quelta::kExportedGyroBuffers); }

QUELTA_API int32_t medFilter(const DataBuffer* in, DataBuffer* out, int32_t n) {
  return quelta::medianFilter(*in, *out, n);
}
QUELTA_API int32_t meanFilter(const DataBuffer* in, DataBuffer* out, int32_t n) {
  return quelta::movingMeanFilter(*in, *out, n);
}
QUELTA_API int32_t LPF(const DataBuffer* in, DataBuffer* out, const float* b, const float* a,
                       int32_t nb, int32_t na) {
  return quelta::recursiveLowPass(*in, *out, b, a, nb, na);
}
QUELTA_API int32_t LPF1(const float* x, float* y) { return quelta::firstOrderLowPass(x, y); }

QUELTA_API void getCn2bMagAcc(const float* mag, const float* acc, float* Cn2b) {
  quelta::cn2bFromMagAcc(mag, acc, Cn2b);
}
QUELTA_API void dcm2Quat(const float* Cn2b, float* q) { quelta::dcmToQuat(Cn2b, q); }
QUELTA_API void getWMag(const DataBuffer* buf, float* out, float dt) {
  quelta::defaultFieldRate.rate(*buf, out, dt);
}

QUELTA_API uint8_t deviceRotationMode(const float* w, int32_t restart, float dt) {
  return quelta::defaultRotationMode.update(w, restart, dt);
}
QUELTA_API void filterCompensation(float* gain, const float* w, const float* b, const float* a,
                                   int32_t nb, int32_t na, float dt) {
  quelta::filterCompensation(gain, w, b, a, nb, na, dt);
}
QUELTA_API float myRand(int32_t seed, int32_t reseed) {
  return quelta::defaultRandom.next(seed, reseed);
}

QUELTA_API void CalcQueltaGyro(const float* mag, const float* acc, int32_t algoRestart,
                               int32_t iGyroLogMode, float ts) {
  quelta::defaultGyro.process(mag, acc, algoRestart, iGyroLogMode, ts);
}
QUELTA_API void GetCalGyr(float* out) { quelta::defaultGyro.calGyr(out); }
QUELTA_API void GetRotVec_InVG(float* out) { quelta::defaultGyro.rotVecInVG(out); }

}  // extern "C"
