// SPDX-License-Identifier: Apache-2.0
// A fixed, deterministic run for instruction counting under callgrind:
// warm-up sample sets until the calibration is settled at accuracy 3, then
// the measured sample sets inside quelta_measured_sample_sets, which the
// callgrind command collects alone (--toggle-collect). Prints what ran.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/hand_held_run.h"

using quelta::bench::CalibrationStatus;

extern "C" __attribute__((noinline)) int quelta_measured_sample_sets(
    const quelta::sim::SensorSample* samples, int count, int* refits) {
  int atAccuracy3 = 0;
  for (int i = 0; i < count; ++i) {
    const CalibrationStatus status = quelta::bench::fullSampleSet(samples[i]);
    atAccuracy3 += status.accuracy == 3;
    *refits += status.newParameters;
  }
  return atAccuracy3;
}

int main(int argc, char** argv) {
  const int measured = argc > 1 ? std::atoi(argv[1]) : 10000;
  constexpr int kWarmUp = 3000;
  const std::vector<quelta::sim::SensorSample> samples =
      quelta::bench::handHeldRecording(kWarmUp + measured);
  quelta::bench::initialiseCalibration(true);
  int refits = 0;
  for (int i = 0; i < kWarmUp; ++i) quelta::bench::fullSampleSet(samples[i]);
  const int atAccuracy3 = quelta_measured_sample_sets(samples.data() + kWarmUp, measured, &refits);
  std::printf("%d sample sets measured, %d at accuracy 3, %d refits accepted\n", measured,
              atAccuracy3, refits);
  return 0;
}
