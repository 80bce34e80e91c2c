// SPDX-License-Identifier: Apache-2.0
// The replay tool's side of the compass engine: the rate judged against the
// rate derived from the reference attitude (for an engine fed the
// gyroscope), the compass lines of the summary, and the options that choose
// and set up the engine.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tools/replay/attitude_math.h"
#include "tools/replay/cli_options.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/summary.h"

namespace quelta::replay {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Attitude after turning at the constant device-frame rate w for t seconds
// from a tilted start.
Quat turned(const Vec3& w, double t) {
  const double n = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
  const double half = 0.5 * n * t;
  const Quat step = {std::cos(half), w[0] / n * std::sin(half), w[1] / n * std::sin(half), w[2] / n * std::sin(half)};
  const Quat start = {std::cos(0.3), std::sin(0.3), 0.0, 0.0};  // 34 degrees about x
  return multiply(start, step);
}

TEST(ReferenceComparator, RateFromTheReferenceAttitudeIsSettledOneSampleLate) {
  const Vec3 w = {0.4, -0.9, 1.3};  // rad/s
  const Vec3 bias = {0.03, 0.0, -0.04};
  const int n = 9000;  // beyond the records kept in memory: the delayed records spill too
  // A recorded gyroscope that is far off: fed to the engine, it must not be
  // what the rate is judged against.
  for (const bool fromAttitude : {true, false}) {
    ReferenceComparator comparator(true, true, fromAttitude);
    for (int i = 0; i < n; ++i) {
      RecordedSample sample;
      // Irregular intervals: the derivative takes the real time step.
      sample.t = 0.01 * i + (i % 3 == 0 ? 0.002 : 0.0);
      sample.attitude = turned(w, sample.t);
      sample.hasAttitude = i != 5000;  // a gap in the motion capture
      sample.hasGyro = true;
      sample.gyro = {w[0] + 1.0, w[1], w[2]};
      ReplayRow row;
      row.t = sample.t;
      row.accuracy = 3;
      row.rotVec = {static_cast<float>(sample.attitude[1]), static_cast<float>(sample.attitude[2]),
                    static_cast<float>(sample.attitude[3]), static_cast<float>(sample.attitude[0])};
      for (int k = 0; k < 3; ++k) row.vgyro[k] = static_cast<float>(w[k] + bias[k]);
      comparator.add(sample, row);
    }
    size_t visited = 0, withRate = 0;
    double worstRate = 0.0;
    const ReferenceComparison result = comparator.finish([&](const SampleErrors& e) {
      EXPECT_EQ(e.index, visited);
      ++visited;
      if (std::isnan(e.referenceRate[0])) return;
      ++withRate;
      for (int k = 0; k < 3; ++k) worstRate = std::max(worstRate, std::fabs(e.referenceRate[k] - w[k]));
    });
    EXPECT_EQ(visited, static_cast<size_t>(n));
    ASSERT_TRUE(result.gyro);
    EXPECT_EQ(result.rateFromAttitude, fromAttitude);
    const double biasLength = std::sqrt(bias[0] * bias[0] + bias[2] * bias[2]);
    if (fromAttitude) {
      // The first and the last sample and both neighbours of the gap have no
      // central difference.
      EXPECT_EQ(result.missingGyro, 4u);
      EXPECT_EQ(withRate, static_cast<size_t>(n - 4));
      EXPECT_EQ(result.gyro->count, static_cast<size_t>(n - 4));
      EXPECT_LT(worstRate, 2e-5);  // float storage and the chord of a constant turn
      EXPECT_NEAR(result.gyro->rms, biasLength, 1e-5);
      EXPECT_NEAR(result.gyro->rmsAxis[0], 0.03, 1e-5);
      EXPECT_NEAR(result.gyro->rmsAxis[1], 0.0, 1e-5);
      EXPECT_NEAR(result.gyro->rmsAxis[2], 0.04, 1e-5);
    } else {
      // Against the recorded gyroscope: 1 rad/s off on x.
      EXPECT_EQ(result.missingGyro, 0u);
      EXPECT_EQ(withRate, 0u);
      EXPECT_NEAR(result.gyro->rmsAxis[0], 0.97, 1e-5);
    }
    // The attitude comparison is the same either way.
    ASSERT_TRUE(result.rotationVector);
    EXPECT_EQ(result.missingAttitude, 1u);
    EXPECT_EQ(result.rotationVector->count, static_cast<size_t>(n - 1));
    EXPECT_LT(result.rotationVector->maxDeg, 0.01);
  }

  // A swinging turn: each sample's derived rate belongs to that sample, not
  // to its neighbour (one sample off would be 0.04 rad/s off here).
  {
    ReferenceComparator comparator(false, true, true);
    const Vec3 axis = {0.6, 0.0, 0.8};
    for (int i = 0; i < 500; ++i) {
      RecordedSample sample;
      sample.t = 0.01 * i;
      const double angle = std::sin(2.0 * sample.t), rate = 2.0 * std::cos(2.0 * sample.t);
      sample.attitude = {std::cos(0.5 * angle), axis[0] * std::sin(0.5 * angle), 0.0, axis[2] * std::sin(0.5 * angle)};
      sample.hasAttitude = true;
      ReplayRow row;
      row.t = sample.t;
      row.rotVec = {0, 0, 0, 1};
      for (int k = 0; k < 3; ++k) row.vgyro[k] = static_cast<float>(axis[k] * rate);
      comparator.add(sample, row);
    }
    const ReferenceComparison result = comparator.finish();
    ASSERT_TRUE(result.gyro);
    EXPECT_EQ(result.gyro->count, 498u);
    EXPECT_LT(result.gyro->rms, 2e-4);  // the central difference's own error, 8e-4 / 6 at most
    EXPECT_GT(result.gyro->referenceRms, 1.0);
  }

  // Without a reference attitude there is nothing to derive a rate from.
  ReferenceComparator none(true, false, true);
  RecordedSample sample;
  sample.hasGyro = true;
  none.add(sample, ReplayRow{});
  EXPECT_FALSE(none.finish().gyro);
}

TEST(ReferenceComparator, HeadingAtAnyTiltAndTiltAgreeWithTheirDefinitions) {
  // Attitudes all over the sphere (upright and upside down too) with
  // estimates off by a heading of 12 degrees plus a few degrees of every kind.
  ReferenceComparator comparator(false, true);
  std::vector<Quat> references, estimates;
  for (int i = 0; i < 400; ++i) {
    const double a = 0.37 * i, b = 0.23 * i + 1.0, c = 0.11 * i;
    const Quat reference = multiply(headingRotation(std::fmod(53.0 * i, 360.0)),
                                    multiply(Quat{std::cos(a), std::sin(a), 0, 0}, Quat{std::cos(b), 0, std::sin(b), 0}));
    const Quat error = multiply(headingRotation(-12.0 + 3.0 * std::sin(c)),
                                Quat{std::cos(0.03 * std::cos(c)), std::sin(0.03 * std::cos(c)), 0, 0});
    const Quat estimate = multiply(error, reference);
    RecordedSample sample;
    sample.t = 0.02 * i;
    sample.attitude = reference;
    sample.hasAttitude = true;
    ReplayRow row;
    row.t = sample.t;
    row.accuracy = 3;
    row.rotVec = {static_cast<float>(estimate[1]), static_cast<float>(estimate[2]), static_cast<float>(estimate[3]),
                  static_cast<float>(estimate[0])};
    comparator.add(sample, row);
    references.push_back(reference);
    estimates.push_back({row.rotVec[3], row.rotVec[0], row.rotVec[1], row.rotVec[2]});
  }
  std::vector<double> headings;
  double worstTilt = 0.0, largestTilt = 0.0;
  const ReferenceComparison result = comparator.finish([&](const SampleErrors& e) {
    const Quat& r = references[e.index];
    const Quat& m = estimates[e.index];
    worstTilt = std::max(worstTilt, std::fabs(e.tiltDeg - tiltErrorDeg(r, m)));
    largestTilt = std::max(largestTilt, e.tiltDeg);
    headings.push_back(e.headingDeg);
  });
  ASSERT_TRUE(result.heading && result.tilt && result.rotationVector);
  ASSERT_EQ(headings.size(), 400u);
  // The heading errors are the module's own, after the rotation vector's alignment.
  EXPECT_DOUBLE_EQ(result.heading->alignmentDeg, result.rotationVector->alignmentDeg);
  EXPECT_NEAR(result.heading->alignmentDeg, 12.0, 3.1);
  double worstHeading = 0.0;
  for (size_t i = 0; i < headings.size(); ++i) {
    // Reported minus reference, as the azimuth's: positive when the estimate
    // is clockwise of the truth (here by 3 sin c after the alignment).
    const double wanted = wrapDeg(result.heading->alignmentDeg - headingErrorDeg(references[i], estimates[i]));
    worstHeading = std::max(worstHeading, std::fabs(wrapDeg(headings[i] - wanted)));
    const double clockwise = 3.0 * std::sin(0.11 * static_cast<double>(i));
    if (std::fabs(clockwise) > 2.0) EXPECT_GT(headings[i] * clockwise, 0.0) << i;
  }
  EXPECT_LT(worstHeading, 0.01);
  EXPECT_LT(worstTilt, 0.01);
  EXPECT_GT(largestTilt, 1.0);  // the tilt part of the errors is seen
  EXPECT_LT(result.tilt->maxDeg, 3.5);
  EXPECT_LT(result.heading->maxDeg, 6.5);
  EXPECT_EQ(result.heading->count, 400u);
}

// Judged as the accuracy tool judges: every sample from the window's start
// on, whatever the accuracy; the start-up before it is left out.
TEST(ReferenceComparator, JudgesFromTheWindowWhateverTheAccuracy) {
  ReferenceComparator comparator(false, true);
  comparator.judgeFrom(1.0);
  for (int i = 0; i < 300; ++i) {
    RecordedSample sample;
    sample.t = 5.0 + 0.01 * i;  // the window counts from the first sample
    sample.attitude = {1, 0, 0, 0};
    sample.hasAttitude = true;
    ReplayRow row;
    row.t = sample.t;
    const bool early = i < 100;
    row.accuracy = early ? 3 : 1;
    // Off by 90 degrees of tilt at start-up, then by 2 degrees of heading on
    // every other sample.
    const Quat q = early ? Quat{std::sqrt(0.5), std::sqrt(0.5), 0, 0}
                         : headingRotation(i % 2 == 0 ? 2.0 : 0.0);
    row.rotVec = {static_cast<float>(q[1]), static_cast<float>(q[2]), static_cast<float>(q[3]),
                  static_cast<float>(q[0])};
    comparator.add(sample, row);
  }
  const ReferenceComparison result = comparator.finish();
  ASSERT_TRUE(result.judgedFromS && result.calibratedOnly && result.heading && result.tilt);
  EXPECT_EQ(result.heading->count, 200u);
  EXPECT_NEAR(result.tilt->maxDeg, 0.0, 1e-3);
  EXPECT_NEAR(result.heading->maxDeg, 2.0, 2e-3);
  Summary summary;
  summary.compass = CompassSummary{};
  const std::string text = formatSummary(summary, result);
  EXPECT_NE(text.find("over 200 samples from 1 s on at any tilt"), std::string::npos) << text;
  // Nothing to report is said as such, not as zeros: no calibration, no
  // fit, no disturbance, no heading, nothing compared.
  for (const char* line : {"offset           none (no calibration yet)\n", "accepted fits    none\n",
                           "soft iron        none (no calibration yet)\n", "disturbance      none flagged",
                           "first heading    none", "heading accuracy none at accuracy 3 (never reached), final 0.0 deg"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
  }
  ReferenceComparison nothing = result;
  nothing.heading->count = nothing.rotationVector->count = 0;
  const std::string empty = formatSummary(summary, nothing);
  EXPECT_NE(empty.find("heading          none: no sample from 1 s on with a reference value\n"), std::string::npos)
      << empty;
  EXPECT_EQ(empty.find("over 0 "), std::string::npos) << empty;
}

TEST(Summary, CompassLinesAndTheRateItWasJudgedAgainst) {
  SummaryBuilder builder("rec.csv", 0.02);
  builder.setCompass("gyroscope fed (gx gy gz); no location (headings to magnetic north)");
  for (int i = 0; i < 100; ++i) {
    ReplayRow row;
    row.t = 0.02 * i;
    row.accuracy = i < 50 ? 1 : 3;
    row.compass.disturbed = i >= 80 && i < 90;
    row.compass.disturbance = i == 85 ? 2.5f : 0.1f;
    row.compass.headingAccuracy = i < 50 ? 30.0f : (i < 75 ? 2.0f : 4.0f);
    row.compass.model = 2;
    row.compass.softIron = {1.02f, 0.01f, 0, 0.01f, 0.99f, 0, 0, 0, 0.99f};
    row.compass.coverage = 0.5f;
    row.compass.fittedStrength = 0.48f;
    row.compass.expectedStrength = 0.49f;
    row.compass.flags = 0x10u | 0x2u;
    builder.add(row);
  }
  Summary summary = builder.finish();
  ASSERT_TRUE(summary.compass);
  EXPECT_EQ(summary.compass->disturbedSamples, 10u);
  EXPECT_NEAR(summary.compass->disturbedTime, 0.2, 1e-9);
  summary.compass->reasonText = "calibrated";
  ReferenceComparison reference;
  reference.rateFromAttitude = true;
  reference.calibratedOnly = true;
  reference.gyro = GyroComparison{{0.01, 0.02, 0.03}, 0.04, 1.0, 48};
  const std::string text = formatSummary(summary, reference);
  EXPECT_NE(text.find("engine           compass, gyroscope fed (gx gy gz)"), std::string::npos) << text;
  EXPECT_NE(text.find("soft iron        1.0200 0.0100 0.0000 / 0.0100 0.9900 0.0000 / 0.0000 0.0000 0.9900 "
                      "(ellipsoid)"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("coverage 50 %"), std::string::npos) << text;
  EXPECT_NE(text.find("fitted 0.4800 gauss, expected 0.4900 gauss"), std::string::npos) << text;
  EXPECT_NE(text.find("flagged on 10 samples (10.0 %, 0.20 s), highest score 2.50"), std::string::npos) << text;
  EXPECT_NE(text.find("heading accuracy mean 3.0 deg at accuracy 3, final 4.0 deg"), std::string::npos) << text;
  EXPECT_NE(text.find("flags            magnetically disturbed, gyroscope"), std::string::npos) << text;
  EXPECT_NE(text.find("angular rate     RMS error 0.0400 rad/s (x 0.0100, y 0.0200, z 0.0300) against the rate from "
                      "the reference attitude over 48 calibrated samples"),
            std::string::npos)
      << text;
  // The fixed pipelines' lines are not there.
  EXPECT_EQ(text.find("field geometry"), std::string::npos);
  EXPECT_EQ(text.find("virtual gyro"), std::string::npos);
}

TEST(Options, EngineLocationDateAndGyro) {
  Options options;
  std::string problem;
  ASSERT_TRUE(parseOptions({"--engine=compass", "--location", "-33.87,151.21,58", "--date=2028-02-29", "--gyro"},
                           options, problem))
      << problem;
  EXPECT_EQ(options.engine, Engine::Compass);
  ASSERT_TRUE(options.location);
  EXPECT_DOUBLE_EQ(options.location->latitudeDeg, -33.87);
  EXPECT_DOUBLE_EQ(options.location->longitudeDeg, 151.21);
  EXPECT_DOUBLE_EQ(options.location->heightM, 58.0);
  EXPECT_EQ(options.date, "2028-02-29");
  EXPECT_TRUE(options.gyro);
  ASSERT_TRUE(parseOptions({"--engine", "compass", "--location=90,-180", "--date", "2025-12-31"}, options, problem));
  EXPECT_DOUBLE_EQ(options.location->heightM, 0.0);  // height defaults to sea level
  ASSERT_TRUE(parseOptions({}, options, problem));
  EXPECT_EQ(options.engine, Engine::Compass);  // the compass unless the fixed pipelines are asked for
  EXPECT_FALSE(options.location || options.gyro);

  Location location;
  for (const char* bad : {"48.1", "48.1,", ",11.6", "48.1,11.6,520,1", "90.01,0", "-91,0", "0,-180.5", "0,360.5",
                          "nan,0", "0,inf", "48.1,11.6,abc", "48.1, 11.6", "48.1,11.6,-2000", "1e999,0"}) {
    EXPECT_FALSE(parseLocation(bad, location)) << bad;
  }
  for (const char* good : {"2024-02-29", "2000-02-29", "2030-12-31", "2026-01-01"}) EXPECT_TRUE(parseDate(good)) << good;
  for (const char* bad : {"2026-02-29", "1900-02-29", "1899-12-31", "2101-01-01", "2026-13-01", "2026-00-10", "2026-04-31", "2026-1-01",
                          "26-01-01", "2026/01/01", "2026-01-01x", ""}) {
    EXPECT_FALSE(parseDate(bad)) << bad;
  }

  const std::pair<std::vector<std::string>, std::string> errors[] = {
      {{"--engine", "fast"}, "bad value 'fast' for --engine"},
      {{"--engine=compass", "--location=91,0", "--date=2026-01-01"},
       "bad value '91,0' for --location (LAT,LON[,HEIGHT_M]: degrees, height in metres)"},
      {{"--engine=compass", "--location=1,2", "--date=2026-02-30"}, "bad value '2026-02-30' for --date (YYYY-MM-DD)"},
      {{"--engine=compass", "--location=1,2"}, "--location and --date go together: the field model needs both"},
      {{"--engine=compass", "--date=2026-01-01"}, "--location and --date go together: the field model needs both"},
      {{"--engine=algo", "--location=1,2", "--date=2026-01-01"}, "option --location needs --engine compass"},
      {{"--engine=algo", "--gyro"}, "option --gyro needs --engine compass"},
      {{"--gyro=1"}, "option --gyro takes no value"},
      {{"--engine=compass", "--log=run.log"},
       "option --log sets up the fixed pipelines (--engine algo), not the compass"},
      {{"--log-mode=0", "--engine=compass"}, "option --log-mode sets up the fixed pipelines (--engine algo), not the compass"},
      {{"--log=lib.log"}, "option --log sets up the fixed pipelines (--engine algo), not the compass"}};
  for (const auto& [args, message] : errors) {
    EXPECT_FALSE(parseOptions(args, options, problem)) << args[0];
    EXPECT_EQ(problem, message);
  }
}

}  // namespace
}  // namespace quelta::replay
