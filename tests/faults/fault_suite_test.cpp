// SPDX-License-Identifier: Apache-2.0
// The fault suite, short form: every fault of the matrix on a simulated
// walk, over the C interface, against the same walk without the fault
// (tools/faults runs the same on the real recordings). And what the door
// and the sensor watch do, sample set by sample set.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "quelta/quelta_compass.h"
#include "tests/support/allocation_counter.h"
#include "tools/faults/fault_injection.h"

namespace {

using quelta::faults::Fault;
using quelta::faults::FaultKind;
using quelta::faults::SampleSet;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Walk {
  double offset[3];
  std::vector<SampleSet> stream;
  explicit Walk(double seconds) : stream(quelta::faults::simulatedWalk(seconds, 7, offset)) {}
};

const Walk& walk() {
  static const Walk w(185.0);
  return w;
}

// Every fault of the matrix at 40 s: 60 s after it ends the heading is back
// within 3 degrees of the no-fault run's and its accuracy estimate within
// 3 times + 5 degrees of that run's; from the fault's start on, whatever it
// did to the heading is covered by the estimate (2 times + 2 degrees). The
// gyroscope's bias is the one fault that lasts: the compass then tracks
// without it, and only the cover is asked of it.
TEST(FaultSuite, SimulatedWalkRecoversFromEveryFaultAndSaysSoHonestly) {
  const Walk& w = walk();
  quelta::faults::RunOptions options;
  options.referenceOffset = w.offset;
  const quelta::faults::Trace clean = quelta::faults::run(w.stream, Fault{}, options);
  for (const Fault& f : quelta::faults::faultMatrix(40.0)) {
    SCOPED_TRACE(f.name);
    const quelta::faults::Trace faulty = quelta::faults::run(w.stream, f, options);
    const quelta::faults::Verdict v = quelta::faults::judge(clean, faulty, f, 20.0);
    ASSERT_TRUE(v.evaluated);
    if (f.kind == FaultKind::GyroBias) {
      // A bias that lasts leaves the compass tracking without the gyroscope:
      // the heading follows, the estimate is the tracker's own. The known gap
      // in the cover, bounded at what it is today: the heading turns away in
      // the seconds the detection takes.
      EXPECT_LE(v.worstHeadingDiffDeg, 4.0);
      EXPECT_LE(v.worstUncovered, 4.0);
      continue;
    }
    EXPECT_LE(v.worstHeadingDiffDeg, 3.0);
    EXPECT_LE(v.worstAccuracyRatio, 1.0);
    EXPECT_LE(v.worstUncovered, 1.0);
  }
}

// A sample set no sensor can deliver is refused whole with the code of the
// input at fault and leaves the state bit for bit as it was; the values just
// inside the limits are taken. The door allocates nothing.
TEST(FaultSuite, RefusedSampleSetsLeaveNoTrace) {
  static quelta_compass c, before;
  ASSERT_EQ(quelta_compass_init(&c), 0);
  const Walk& w = walk();
  for (size_t i = 0; i < 1500; ++i) {
    const SampleSet& s = w.stream[i];
    ASSERT_EQ(quelta_compass_update(&c, s.t, s.acc, s.field, s.gyro), 0);
  }
  const SampleSet& s = w.stream[1500];
  const double rate = 2000.0 * 3.141592653589793 / 180.0;  // rad/s
  struct Case {
    double t;
    double acc[3], field[3], gyro[3];
    int32_t code;
  };
  const double* a = s.acc;
  const double* m = s.field;
  const double* g = s.gyro;
  const Case cases[] = {
      {kNaN, {a[0], a[1], a[2]}, {m[0], m[1], m[2]}, {g[0], g[1], g[2]}, QUELTA_COMPASS_ERROR_TIME},
      {s.t, {a[0], kNaN, a[2]}, {m[0], m[1], m[2]}, {g[0], g[1], g[2]}, QUELTA_COMPASS_ERROR_ACCELEROMETER},
      {s.t, {0.0, 0.0, 32.01}, {m[0], m[1], m[2]}, {g[0], g[1], g[2]}, QUELTA_COMPASS_ERROR_ACCELEROMETER},
      {s.t, {a[0], a[1], a[2]}, {kNaN, 0.0, 0.0}, {g[0], g[1], g[2]}, QUELTA_COMPASS_ERROR_FIELD},
      {s.t, {a[0], a[1], a[2]}, {m[0], -INFINITY, m[2]}, {g[0], g[1], g[2]}, QUELTA_COMPASS_ERROR_FIELD},
      {s.t, {a[0], a[1], a[2]}, {w.offset[0] + 10.01, w.offset[1], w.offset[2]}, {g[0], g[1], g[2]},
       QUELTA_COMPASS_ERROR_FIELD},
      {s.t, {a[0], a[1], a[2]}, {m[0], m[1], m[2]}, {0.0, 0.0, 1e200}, QUELTA_COMPASS_ERROR_GYROSCOPE},
      {s.t, {a[0], a[1], a[2]}, {m[0], m[1], m[2]}, {57.0, 0.0, 0.0}, QUELTA_COMPASS_ERROR_GYROSCOPE},
      {s.t, {a[0], a[1], a[2]}, {m[0], m[1], m[2]}, {0.0, -rate * 1.001, 0.0}, QUELTA_COMPASS_ERROR_GYROSCOPE},
  };
  // (A field beyond 100 gauss is the units' business: the door refuses it
  // as a unit contradiction, QUELTA_COMPASS_ERROR_FIELD_UNIT.)
  const double huge[3] = {1e30, 1e30, 1e30};
  EXPECT_EQ(quelta_compass_update(&c, s.t, a, huge, g), QUELTA_COMPASS_ERROR_FIELD_UNIT);
  quelta::test::AllocationCounter heap;
  for (const Case& k : cases) {
    std::memcpy(&before, &c, sizeof c);
    EXPECT_EQ(quelta_compass_update(&c, k.t, k.acc, k.field, k.gyro), k.code);
    EXPECT_EQ(std::memcmp(&before, &c, sizeof c), 0) << "code " << k.code;
  }
  quelta_compass_field_quality q{0, 3, kNaN, 1.0};
  EXPECT_EQ(quelta_compass_update_calibrated(&c, s.t, a, m, &q, g), QUELTA_COMPASS_ERROR_QUALITY);
  q = {0, 4, 0.0, 1.0};
  EXPECT_EQ(quelta_compass_update_calibrated(&c, s.t, a, m, &q, g), QUELTA_COMPASS_ERROR_QUALITY);
  EXPECT_EQ(std::memcmp(&before, &c, sizeof c), 0);
  // Just inside every limit: taken.
  const double hard[3] = {0.0, 0.0, 31.9};
  const double fast[3] = {rate * 0.999, -rate * 0.999, 0.0};
  EXPECT_EQ(quelta_compass_update(&c, s.t, hard, m, fast), 0);
  EXPECT_EQ(heap.count(), 0);
}

// The host's clock: a time an hour ahead once, an hour back for good, a
// repeat. Each restarts the time base on that sample set (flagged); the
// output carries the host's time, and the attitude keeps following the
// device (it does not freeze until the clock catches up).
TEST(FaultSuite, ClockFaultsRestartTheTimeBase) {
  static quelta_compass c;
  ASSERT_EQ(quelta_compass_init(&c), 0);
  const Walk& w = walk();
  quelta_compass_output out;
  double azimuthAtStep = 0.0;
  for (size_t i = 0; i < 5000; ++i) {
    const SampleSet& s = w.stream[i];
    double t = s.t;
    if (i == 2000) t += 3600.0;        // once ahead
    if (i >= 3000) t -= 3600.0;        // back for good
    if (i == 4000) t = s.t - 3600.0 - 0.02;  // a repeat of the last time
    ASSERT_EQ(quelta_compass_update(&c, t, s.acc, s.field, s.gyro), 0);
    ASSERT_EQ(quelta_compass_get_output(&c, &out), 0);
    EXPECT_EQ(out.t, t);
    const bool restart = i == 2000 || i == 2001 || i == 3000 || i == 4000;
    EXPECT_EQ((out.flags & QUELTA_COMPASS_FLAG_TIME_RESTART) != 0, restart) << "sample set " << i;
    if (i == 3000) azimuthAtStep = out.azimuth_deg;
    if (i == 3200) EXPECT_GT(std::fabs(quelta::faults::angleDiffDeg(out.azimuth_deg, azimuthAtStep)), 5.0);
    if (i > 2100) {
      EXPECT_LT(std::fabs(quelta::faults::angleDiffDeg(out.azimuth_deg, s.truthAzimuthDeg)), 8.0) << "sample set " << i;
    }
  }
}

// A real gap (five seconds without samples) over which the device turned:
// the attitude is found again from the samples after it, not carried over.
TEST(FaultSuite, AGapOverATurnFindsTheHeadingAgain) {
  const Walk& w = walk();
  // The five seconds after 40 s in which the heading turns the most.
  size_t from = 0;
  double most = 0.0;
  for (size_t i = 2000; i + 250 < w.stream.size(); i += 25) {
    const double turn = std::fabs(quelta::faults::angleDiffDeg(w.stream[i + 250].truthAzimuthDeg, w.stream[i].truthAzimuthDeg));
    if (turn > most) {
      most = turn;
      from = i;
    }
  }
  ASSERT_GT(most, 45.0);
  static quelta_compass c;
  ASSERT_EQ(quelta_compass_init(&c), 0);
  quelta_compass_output out;
  double biasBefore[3] = {0.0, 0.0, 0.0};
  for (size_t i = 0; i < from + 250 + 50; ++i) {
    if (i >= from && i < from + 250) continue;
    const SampleSet& s = w.stream[i];
    ASSERT_EQ(quelta_compass_update(&c, s.t, s.acc, s.field, s.gyro), 0);
    ASSERT_EQ(quelta_compass_get_output(&c, &out), 0);
    if (i + 1 == from) std::memcpy(biasBefore, out.gyro_bias, sizeof biasBefore);
    if (i == from + 250) {
      EXPECT_NE(out.flags & QUELTA_COMPASS_FLAG_TIME_RESTART, 0u);
      // The attitude starts over, what is known of the gyroscope does not.
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(out.gyro_bias[k], biasBefore[k], 1e-3);
      // A heading from one reading of a device in motion is not claimed to
      // be better than its tilt allows.
      EXPECT_GT(out.heading_accuracy_deg, 20.0);
    }
  }
  // One second after the gap.
  EXPECT_LT(std::fabs(quelta::faults::angleDiffDeg(out.azimuth_deg, w.stream[from + 299].truthAzimuthDeg)), 8.0);
}

// Samples lost without a gap in the times (a spliced stream): between two
// sample sets the device jumps by the turn of the walk's lost stretch while
// the gyroscope turned by next to nothing. The attitude is found again from
// the samples after the splice, and until it is the estimate says so.
TEST(FaultSuite, ASplicedStreamFindsTheAttitudeAgain) {
  const Walk& w = walk();
  // Splice at 90 s onto the walk 30 s later, where its heading differs most.
  const size_t at = 4500;
  size_t to = at + 1500;
  double most = 0.0;
  for (size_t j = at + 1000; j < at + 2500 && j < w.stream.size(); j += 10) {
    const double* g = w.stream[j].gyro;
    if (std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]) > 1.0) continue;  // a turn that explains the jump
    const double d = std::fabs(quelta::faults::angleDiffDeg(w.stream[j].truthAzimuthDeg, w.stream[at].truthAzimuthDeg));
    if (d > most) {
      most = d;
      to = j;
    }
  }
  ASSERT_GT(most, 60.0);
  static quelta_compass c;
  ASSERT_EQ(quelta_compass_init(&c), 0);
  quelta_compass_output out;
  for (size_t i = 0; i < at + 250; ++i) {
    const SampleSet& s = w.stream[i < at ? i : to + (i - at)];
    const double t = 0.02 * static_cast<double>(i);  // the times run on regardless
    ASSERT_EQ(quelta_compass_update(&c, t, s.acc, s.field, s.gyro), 0);
    ASSERT_EQ(quelta_compass_get_output(&c, &out), 0);
    if (i < at) continue;
    const double error = std::fabs(quelta::faults::angleDiffDeg(out.azimuth_deg, s.truthAzimuthDeg));
    EXPECT_LE(error, 2.0 * out.heading_accuracy_deg + 2.0) << "at " << t << " s";
  }
  // Five seconds after the splice.
  EXPECT_LT(std::fabs(quelta::faults::angleDiffDeg(out.azimuth_deg, w.stream[to + 249].truthAzimuthDeg)), 5.0);
}

// A dead gyroscope and a stuck field axis are left out while they last
// (flagged) and taken back after; the no-fault walk never leaves either out.
TEST(FaultSuite, StuckSensorsAreLeftOutWhileTheFaultLasts) {
  const Walk& w = walk();
  quelta::faults::RunOptions options;
  const quelta::faults::Trace clean = quelta::faults::run(w.stream, Fault{}, options);
  for (uint32_t f : clean.flags)
    ASSERT_EQ(f & (QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT | QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT), 0u);
  struct Case {
    Fault fault;
    uint32_t flag;
    double detectedWithin;  // s after the start
    double backWithin;      // s after the end
  };
  const Case cases[] = {
      {{FaultKind::GyroDead, 40.0, 10.0, 0.0, "dead"}, QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT, 2.0, 0.1},
      {{FaultKind::FieldAxisStuck, 40.0, 20.0, 0.0, "stuck axis"}, QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT, 2.0, 2.5},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.fault.name);
    const quelta::faults::Trace t = quelta::faults::run(w.stream, k.fault, options);
    double firstOut = -1.0, lastOut = -1.0;
    for (size_t i = 0; i < t.t.size(); ++i) {
      if ((t.flags[i] & k.flag) == 0) continue;
      if (firstOut < 0.0) firstOut = t.t[i];
      lastOut = t.t[i];
    }
    EXPECT_GE(firstOut, k.fault.start);
    EXPECT_LE(firstOut, k.fault.start + k.detectedWithin);
    EXPECT_GE(lastOut, k.fault.end() - 0.1);
    EXPECT_LE(lastOut, k.fault.end() + k.backWithin);
  }
}

// A gyroscope whose bias (0.5 rad/s on every axis) is beyond what can be
// learnt is dropped, and the host is told so: within a few seconds the
// flag is raised and stays.
TEST(FaultSuite, AnUnlearnableBiasIsFlaggedAsLeftOut) {
  const Walk& w = walk();
  quelta::faults::RunOptions options;
  const Fault bias{FaultKind::GyroBias, 0.0, 0.0, 0.5, "bias"};
  const quelta::faults::Trace t = quelta::faults::run(w.stream, bias, options);
  ASSERT_FALSE(t.t.empty());
  double firstOut = -1.0;
  size_t outAfter = 0, after = 0;
  for (size_t i = 0; i < t.t.size(); ++i) {
    const bool out = (t.flags[i] & QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) != 0;
    if (out && firstOut < 0.0) firstOut = t.t[i] - t.t[0];
    if (firstOut >= 0.0) {
      ++after;
      outAfter += out;
    }
  }
  EXPECT_GE(firstOut, 0.0);
  EXPECT_LE(firstOut, 10.0);  // s: a few of the health checks' 3 s blocks
  EXPECT_GT(static_cast<double>(outAfter), 0.95 * static_cast<double>(after));
}

// A device lying still whose gyroscope reads 0.3 rad/s about x, beyond the
// bias the compass can learn: the gyroscope is dropped (the compass tracks
// without it) and the host sees it flagged as left out.
TEST(FaultSuite, ARestingGyroscopeFarOffIsFlaggedAsLeftOut) {
  static quelta_compass compass;
  ASSERT_EQ(quelta_compass_init(&compass), 0);
  const double acc[3] = {0.0, 0.0, 1.0};      // g, lying flat
  const double field[3] = {0.0, 0.25, -0.433};  // gauss, top edge north
  const double gyro[3] = {0.3, 0.0, 0.0};      // rad/s
  quelta_compass_output out{};
  double firstOut = -1.0;
  for (int i = 0; i < 20 * 50; ++i) {
    const double t = 0.02 * i;
    ASSERT_EQ(quelta_compass_update(&compass, t, acc, field, gyro), 0);
    ASSERT_EQ(quelta_compass_get_output(&compass, &out), 0);
    if (firstOut < 0.0 && (out.flags & QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) != 0) firstOut = t;
  }
  EXPECT_GE(firstOut, 0.0);
  EXPECT_NE(out.flags & QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT, 0u);
  EXPECT_EQ(out.flags & QUELTA_COMPASS_FLAG_GYROSCOPE, 0u);
}

}  // namespace
