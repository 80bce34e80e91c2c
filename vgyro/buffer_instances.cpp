// The exported ring-buffer records and their storage. All zero at load; the
// first CreateDataBuffer (or the pipeline's first call) binds them.
#include "vgyro/gyro_buffers.h"
#include "vgyro/data_buffer.h"

extern "C" {

QUELTA_API DataBuffer bfMagRaw, bfMagMed, bfMagLPF, bfMagMean;
QUELTA_API DataBuffer bfAccRaw, bfAccMed, bfAccLPF, bfAccMean;
QUELTA_API DataBuffer bfWRaw, bfWFilter;

QUELTA_API float bfMagRawData[9], bfMagMedData[6], bfMagLPFData[9], bfMagMeanData[9];
QUELTA_API float bfAccRawData[9], bfAccMedData[6], bfAccLPFData[9], bfAccMeanData[9];
QUELTA_API float bfWRawData[6], bfWFilterData[3];

}  // extern "C"

namespace quelta {

namespace {
template <typename Action>
void forEachBuffer(const GyroBuffers& b, Action action) {
  action(b.magRaw);
  action(b.magMed);
  action(b.magLPF);
  action(b.magMean);
  action(b.accRaw);
  action(b.accMed);
  action(b.accLPF);
  action(b.accMean);
  action(b.wRaw);
  action(b.wFilter);
}
}  // namespace

void createBuffers(const GyroBuffers& buffers) {
  forEachBuffer(buffers, [](const BufferBinding& b) {
    bufferNew(*b.record, b.storage, kGyroSampleDim, b.len);
  });
}

void clearBuffers(const GyroBuffers& buffers) {
  forEachBuffer(buffers, [](const BufferBinding& b) { bufferClear(*b.record); });
}

}  // namespace quelta
