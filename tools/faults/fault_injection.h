// SPDX-License-Identifier: Apache-2.0
// Fault injection over the compass's C interface: a stream of sample sets
// as a host would hand them over, one fault applied to it as a buggy or
// broken host or sensor would, and the run compared with the same stream
// without the fault. Shared by the fault suite (tests/faults, short
// simulated streams) and the long-form tool (tools/faults, the real
// recordings and the soak).
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace quelta::faults {

// One sample set, host's view: time in s, acc in g, raw field in gauss,
// gyroscope in rad/s.
struct SampleSet {
  double t = 0.0;
  double acc[3] = {0.0, 0.0, 1.0};
  double field[3] = {0.0, 0.0, 0.0};
  double gyro[3] = {0.0, 0.0, 0.0};
  bool hasField = true;
  bool hasGyro = true;
  double truthAzimuthDeg = 0.0;  // NaN where unknown
  double truth[4] = {NAN, NAN, NAN, NAN};  // w, x, y, z device to the reference frame; NaN where unknown
};

enum class FaultKind {
  None,
  ClockJumpAhead,   // one time an hour ahead, then the right times again
  ClockStepBack,    // from the start on, every time an hour earlier
  ClockStuck,       // the same time repeated for the duration, then right again
  FieldHuge,        // one field sample of `value` gauss on every axis
  GyroHuge,         // one gyroscope sample of `value` rad/s on every axis
  GyroDead,         // zeros for the duration
  GyroStuck,        // the reading at the start repeated for the duration
  GyroBias,         // `value` rad/s added on every axis from the start on
  FieldSaturated,   // every axis clipped to `value` gauss about the device's offset, for the duration
  FieldAxisStuck,   // the x axis holds its value at the start for the duration
  FieldOutage,      // no field for the duration
  NotFinite,        // every input NaN for the duration (the time too)
  AccHuge,          // one accelerometer sample of `value` g on every axis
};

struct Fault {
  FaultKind kind = FaultKind::None;
  double start = 0.0;      // s, stream time
  double duration = 0.0;   // s (0: one sample set)
  double value = 0.0;      // see FaultKind
  const char* name = "none";
  bool lasting() const { return kind == FaultKind::GyroBias || kind == FaultKind::ClockStepBack; }
  double end() const { return start + duration; }
};

// The faults of the matrix, starting at `start` s.
std::vector<Fault> faultMatrix(double start);

// Applies a fault to a stream, sample set by sample set. offset: the
// device's hard iron, gauss (what a saturating sensor clips about).
class Injector {
 public:
  Injector(const Fault& fault, const double offset[3]);
  // The sample set the host hands over instead of `in`.
  SampleSet apply(const SampleSet& in);

 private:
  Fault fault_;
  double offset_[3];
  bool started_ = false;
  SampleSet held_;  // the first sample set of the fault
};

// What one run over the C interface gives, per sample set of the stream.
struct Trace {
  std::vector<double> t;             // stream time
  std::vector<double> azimuthDeg;
  std::vector<double> quaternion;    // w, x, y, z per sample set: device to east-north-up
  std::vector<double> headingAccuracyDeg;
  std::vector<int> accuracy;
  std::vector<uint32_t> flags;
  std::vector<double> offsetGauss;   // |calibration offset - reference|, NaN without a reference
  std::vector<uint8_t> refusedAt;    // 1 where the call returned an error code (the output is the previous one)
  int64_t refused = 0;               // calls that returned an error code
  int64_t firstRefusalCode = 0;
};

struct RunOptions {
  const uint8_t* record = nullptr;  // calibration to restore first (QUELTA_MAG_RECORD_SIZE bytes)
  double declinationDeg = 0.0;
  const double* referenceOffset = nullptr;  // gauss, for Trace::offsetGauss
};

Trace run(const std::vector<SampleSet>& stream, const Fault& fault, const RunOptions& options);

// The verdict on one fault: the fault run against the no-fault run.
struct Verdict {
  double worstHeadingDiffDeg = 0.0;  // |azimuth difference| from 60 s after the fault ends on
  double worstAccuracyRatio = 0.0;   // heading accuracy estimate / (3 x no-fault's + 5 deg), same window
  double worstUncovered = 0.0;       // |azimuth difference| / (2 x reported + 2 deg) from the fault's start on
  // Where the stream has truth: how much worse than the no-fault run's the
  // fault run's heading error is (the reference frame's north aligned by
  // the no-fault run's median offset), same window as the difference.
  double worstExtraErrorDeg = NAN;
  int64_t refused = 0;
  bool evaluated = false;            // the stream lasts long enough after the fault
  bool passes() const {
    return evaluated && worstHeadingDiffDeg <= 3.0 && worstAccuracyRatio <= 1.0 && worstUncovered <= 1.0;
  }
};

// window: s of the comparison from 60 s after the fault ends (after the
// start for a lasting fault). Sample sets the compass refused are not
// judged: their output is the previous one, and the host was told. loop: s, the length of a recording played
// over and over (0: none); the 30 s after each seam, where the attitude
// jumps in both runs, are not compared.
Verdict judge(const Trace& clean, const Trace& faulty, const Fault& fault, double window, double loop = 0.0,
              const std::vector<SampleSet>* stream = nullptr);

// A simulated hand-held device: a calibration motion, then walking about
// with turns, at 50 Hz; truth in truthAzimuthDeg. offset: its hard iron.
std::vector<SampleSet> simulatedWalk(double seconds, uint64_t seed, double offset[3]);

double angleDiffDeg(double a, double b);  // a - b wrapped to (-180, 180]
// The heading difference of two attitudes (w, x, y, z, device to
// east-north-up): the turn about up between them, degrees in (-180, 180].
// Unlike the azimuth's difference it stays meaningful for an upright device.
double headingDiffDeg(const double* a, const double* b);

}  // namespace quelta::faults
