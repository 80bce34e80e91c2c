// SPDX-License-Identifier: Apache-2.0
// The calibration and the orientation through the exported functions:
// AlgoInitial with any configuration (pool counts and spacings, window
// lengths including 0, negatives and huge ones, NaN thresholds, any stored
// calibration), then arbitrary sample sets, restarts and log modes, runs of
// samples spread over a sphere that take the pool through its partial and
// full fits, runs of one repeated sample (histories, variances, quality and
// saturation watches), and every accessor and GetCalOri in between.
// Every input starts from the state of a freshly loaded library.
//
// Checked besides memory safety: accuracy 0 to 3, pool count 0 to 35, the
// one-shot flags 0 or 1, azimuth in [0, 360), pitch in [-180, 180] and roll
// in [-90, 90] (or NaN).
#include <cmath>
#include <cstdint>

#include "QueltaAlgo.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_log.h"
#include "interface/compass.h"
#include "tools/sim/device_sim.h"

namespace {

using quelta::fuzz::FuzzInput;

// Sample sets per input: enough for a full fit and what follows it, few
// enough to keep executions fast.
constexpr int32_t kSampleSetBudget = 160;
int32_t gSampleSetsLeft = 0;

void freshLibrary() {
  quelta::defaultCompass() = quelta::Compass{};
  RegisterLogCallback(nullptr);
}

bool nanOr(float v, float lo, float hi) { return v != v || (v >= lo && v <= hi); }

void readResults(FuzzInput& in) {
  float out[7];
  switch (in.byte() % 6) {
    case 0: GetRawMag(out); break;
    case 1: FUZZ_CHECK(GetOffset(out) == 1); break;
    case 2: {
      const int32_t fresh = GetCalPara(out);
      FUZZ_CHECK(fresh == 0 || fresh == 1);
      break;
    }
    case 3: {
      const int32_t saturated = GetMagSaturation();
      FUZZ_CHECK(saturated == 0 || saturated == 1);
      break;
    }
    case 4: {
      const int32_t pooled = GetCalMag(out);
      FUZZ_CHECK(pooled >= 0 && pooled <= 35);
      break;
    }
    default: {
      FUZZ_CHECK(GetCalOri(out) == 1);
      FUZZ_CHECK(out[0] != out[0] || (out[0] >= 0.0f && out[0] < 360.0f));
      FUZZ_CHECK(nanOr(out[1], -180.0f, 180.0f));
      FUZZ_CHECK(nanOr(out[2], -90.0f, 90.0f));
      break;
    }
  }
  const int32_t accuracy = GetMagAccuracy();
  FUZZ_CHECK(accuracy >= 0 && accuracy <= 3);
}

// One sample set as a host processes it: the sample, then the calibrated
// field and the orientation.
void sampleSet(const float* acc, const float* mag, const float* sat, int32_t restart,
               int32_t mode) {
  if (gSampleSetsLeft <= 0) return;
  --gSampleSetsLeft;
  FUZZ_CHECK(MainAlgorithmProcess(acc, mag, sat, restart, mode) == 1);
  float out[3];
  const int32_t pooled = GetCalMag(out);
  FUZZ_CHECK(pooled >= 0 && pooled <= 35);
  FUZZ_CHECK(GetCalOri(out) == 1);
  FUZZ_CHECK(out[0] != out[0] || (out[0] >= 0.0f && out[0] < 360.0f));
}

// Pool counts as floats: the interesting integers, their neighbours, or any
// float (NaN, huge, negative, fractional).
float poolCount(FuzzInput& in) {
  return in.byte() & 1 ? static_cast<float>(in.count()) + 0.25f * (in.byte() % 4) : in.value();
}

void initial(FuzzInput& in) {
  float axis[9] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
  if (in.byte() & 1) in.values(axis, 9);
  float init[4] = {0.0f, 0.0f, 0.0f, 0.5f};
  if (in.byte() & 1) in.values(init, 4);
  float pool[8] = {6.0f, 16.0f, 32.0f, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const uint8_t which = in.byte();
  for (int32_t i = 0; i < 3; ++i) {
    if (which & (1 << i)) pool[i] = poolCount(in);
  }
  for (int32_t i = 3; i < 8; ++i) {
    if (which & (1 << i)) pool[i] = in.value();
  }
  float thd[3] = {0.1f, 2e-5f, 2e-4f};
  if (in.byte() & 1) in.values(thd, 3);
  int32_t c[3] = {20, 11, 8};
  const uint8_t windows = in.byte();
  for (int32_t i = 0; i < 3; ++i) {
    if (windows & (1 << i)) c[i] = in.count();
  }
  const LogCallback callback = in.byte() & 1 ? quelta::fuzz::formatLine : nullptr;
  FUZZ_CHECK(AlgoInitial(axis, init, pool, thd, c, callback) == 1);
}

// Samples spread over a sphere of fuzzed centre and radius, device tilted as
// fuzzed: what a user waving the device produces.
void sphereRun(FuzzInput& in) {
  const int32_t calls = in.byte() % 64 + 1;
  const int32_t spread = in.byte() % 64 + 8;
  const int32_t first = in.byte();
  float centre[3];
  in.values(centre, 3);
  const float radius = in.byte() & 1 ? in.value() : 0.5f;
  float acc[3] = {0.0f, 0.0f, 1.0f};
  if (in.byte() & 1) in.values(acc, 3);
  const int32_t mode = logModeUpTo2(in);
  for (int32_t i = 0; i < calls; ++i) {
    const quelta::sim::Vec3 d = quelta::sim::fibonacciDirection((first + i) % spread, spread);
    const float mag[3] = {centre[0] + radius * static_cast<float>(d.x),
                          centre[1] + radius * static_cast<float>(d.y),
                          centre[2] + radius * static_cast<float>(d.z)};
    sampleSet(acc, mag, mag, 0, mode);
  }
}

// One sample set repeated: fills the histories, drives the variances to zero
// and the quality watch towards its limit.
void steadyRun(FuzzInput& in) {
  float acc[3], mag[3], sat[3];
  in.values(acc, 3);
  in.values(mag, 3);
  in.values(sat, 3);
  const int32_t mode = logModeUpTo2(in);
  const int32_t calls = in.byte() % 64 + 1;
  for (int32_t i = 0; i < calls; ++i) sampleSet(acc, mag, sat, 0, mode);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  freshLibrary();
  gSampleSetsLeft = kSampleSetBudget;
  FuzzInput in(data, size);
  while (!in.exhausted() && gSampleSetsLeft > 0) {
    switch (in.byte() % 7) {
      case 0: initial(in); break;
      case 1:
      case 2: {
        float acc[3], mag[3], sat[3];
        in.values(acc, 3);
        in.values(mag, 3);
        in.values(sat, 3);
        const int32_t restart = restartFlag(in);
        sampleSet(acc, mag, sat, restart, logModeUpTo2(in));
        break;
      }
      case 3: sphereRun(in); break;
      case 4: steadyRun(in); break;
      case 5: readResults(in); break;
      default:
        RegisterLogCallback(in.byte() & 1 ? quelta::fuzz::formatLine : nullptr);
        break;
    }
  }
  return 0;
}
