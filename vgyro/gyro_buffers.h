// SPDX-License-Identifier: Apache-2.0
// The ten ring buffers of one virtual-gyroscope pipeline: raw, median,
// low-pass and mean stages of the field and the acceleration, and the raw and
// smoothed angular rate. A binding names a record, its storage and capacity,
// so the same pipeline code runs on the exported buffers or on private ones.
#pragma once

#include <cstdint>

#include "QueltaAlgo.h"

namespace quelta {

constexpr int32_t kGyroSampleDim = 3;

// Capacities in samples of the smoothing chain's stages.
constexpr int32_t kRawLen = 3;
constexpr int32_t kMedianLen = 2;
constexpr int32_t kLowPassLen = 3;
constexpr int32_t kMeanLen = 3;
constexpr int32_t kRateRawLen = 2;
constexpr int32_t kRateFilterLen = 1;

struct BufferBinding {
  DataBuffer* record;
  float* storage;
  int32_t len;
};

struct GyroBuffers {
  BufferBinding magRaw, magMed, magLPF, magMean;
  BufferBinding accRaw, accMed, accLPF, accMean;
  BufferBinding wRaw, wFilter;
};

// Binds every record to its storage and empties it.
void createBuffers(const GyroBuffers& buffers);
// Empties every record; storage and bindings stay.
void clearBuffers(const GyroBuffers& buffers);

// Records and storage owned by one independent pipeline (the process-wide
// pipeline binds the exported ones instead).
struct OwnedGyroBuffers {
  DataBuffer magRaw{}, magMed{}, magLPF{}, magMean{};
  DataBuffer accRaw{}, accMed{}, accLPF{}, accMean{};
  DataBuffer wRaw{}, wFilter{};
  float magRawData[kGyroSampleDim * kRawLen]{};
  float magMedData[kGyroSampleDim * kMedianLen]{};
  float magLPFData[kGyroSampleDim * kLowPassLen]{};
  float magMeanData[kGyroSampleDim * kMeanLen]{};
  float accRawData[kGyroSampleDim * kRawLen]{};
  float accMedData[kGyroSampleDim * kMedianLen]{};
  float accLPFData[kGyroSampleDim * kLowPassLen]{};
  float accMeanData[kGyroSampleDim * kMeanLen]{};
  float wRawData[kGyroSampleDim * kRateRawLen]{};
  float wFilterData[kGyroSampleDim * kRateFilterLen]{};

  GyroBuffers bindings() {
    return {{&magRaw, magRawData, kRawLen},     {&magMed, magMedData, kMedianLen},
            {&magLPF, magLPFData, kLowPassLen}, {&magMean, magMeanData, kMeanLen},
            {&accRaw, accRawData, kRawLen},     {&accMed, accMedData, kMedianLen},
            {&accLPF, accLPFData, kLowPassLen}, {&accMean, accMeanData, kMeanLen},
            {&wRaw, wRawData, kRateRawLen},     {&wFilter, wFilterData, kRateFilterLen}};
  }
};

}  // namespace quelta
