// SPDX-License-Identifier: Apache-2.0
#include "vgyro/gyro_buffers.h"

#include "vgyro/data_buffer.h"

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
