// SPDX-License-Identifier: Apache-2.0
// The streaming pieces behind the summary, the comparison and the report:
// exact figures on constructed runs, and the bounds that let a recording of
// any length be summarised in fixed memory and a small report.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <regex>

#include "tools/replay/attitude_math.h"
#include "tools/replay/html_report.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_driver.h"
#include "tools/replay/summary.h"
#include "tools/replay/svg_chart.h"

namespace quelta::replay {
namespace {

double absoluteCost(const std::vector<double>& angles, double at) {
  double sum = 0.0;
  for (double a : angles) sum += std::fabs(wrapDeg(a - at));
  return sum;
}

TEST(CircularMedian, MinimisesTheMeanAbsoluteDifferenceAroundTheCircle) {
  std::mt19937 random(3);
  for (const double centre : {0.0, 179.7, -120.0}) {
    // A cluster across the wrap when centred at 179.7, plus outliers anywhere.
    std::normal_distribution<double> spread(centre, 4.0);
    std::uniform_real_distribution<double> anywhere(-180.0, 180.0);
    std::vector<double> angles;
    CircularHistogram histogram;
    for (int i = 0; i < 2001; ++i) {
      angles.push_back(wrapDeg(i % 5 == 0 ? anywhere(random) : spread(random)));
      histogram.add(angles.back());
    }
    histogram.add(std::numeric_limits<double>::quiet_NaN());  // ignored
    EXPECT_EQ(histogram.count(), angles.size());
    // The least cost over the data points (an optimum lies on one of them).
    double best = 0.0, bestCost = std::numeric_limits<double>::infinity();
    for (double a : angles) {
      const double c = absoluteCost(angles, a);
      if (c < bestCost) {
        bestCost = c;
        best = a;
      }
    }
    const double median = histogram.median();
    EXPECT_LE(absoluteCost(angles, median), bestCost + angles.size() * kAngleResolutionDeg) << centre;
    EXPECT_NEAR(wrapDeg(median - best), 0.0, 0.5) << centre;
  }
}

TEST(ErrorStatistics, RmsAndMaximumExactMedianToTheResolution) {
  ErrorStatistics stats(180.0, kAngleResolutionDeg);
  for (double e : {3.0, -4.0, 0.5, 250.0, 1.25}) stats.add(e);
  stats.add(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(stats.count(), 5u);
  EXPECT_DOUBLE_EQ(stats.max(), 250.0);  // beyond the histogram, still exact
  EXPECT_NEAR(stats.rms(), std::sqrt((9.0 + 16.0 + 0.25 + 62500.0 + 1.5625) / 5.0), 1e-12);
  EXPECT_NEAR(stats.median(), 3.0, kAngleResolutionDeg);
}

ReplayRow rowAt(double t, int accuracy) {
  ReplayRow row;
  row.t = t;
  row.accuracy = accuracy;
  row.rotVec = {0, 0, 0, 1};
  return row;
}

TEST(SummaryBuilder, EveryDropWithItsLevelsAndLength) {
  // 3 from 1 s, a fall to 0 at 2 s back to 3 at 2.5 s; then 3 -> 2 at 4 s,
  // 2 -> 1 at 4.2 s, 1 -> 2 at 4.4 s, 2 -> 3 at 5 s; 3 -> 1 at 6 s to the end (6.9 s).
  SummaryBuilder builder("run.csv", 0.1);
  for (int i = 0; i < 70; ++i) {
    const double t = 0.1 * i;
    int level = t < 1.0 - 1e-9 ? 0 : 3;
    if (t > 2.0 - 1e-9 && t < 2.5 - 1e-9) level = 0;
    if (t > 4.0 - 1e-9 && t < 5.0 - 1e-9) level = (t > 4.2 - 1e-9 && t < 4.4 - 1e-9) ? 1 : 2;
    if (t > 6.0 - 1e-9) level = 1;
    ReplayRow row = rowAt(t, level);
    row.newCalibration = i == 10 || i == 25;
    if (i == 33) row.vgyro[1] = std::numeric_limits<float>::infinity();
    if (i == 34) row.orientation[0] = std::numeric_limits<float>::quiet_NaN();
    builder.add(row);
  }
  const Summary s = builder.finish();
  ASSERT_EQ(s.drops.size(), 4u);
  const double expected[4][4] = {{2.0, 3, 0, 0.5}, {4.0, 3, 1, 1.0}, {4.2, 2, 1, 0.2}, {6.0, 3, 1, 1.0}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(s.drops[i].at, expected[i][0], 1e-9) << i;
    EXPECT_EQ(s.drops[i].from, expected[i][1]) << i;
    EXPECT_EQ(s.drops[i].lowest, expected[i][2]) << i;
    EXPECT_NEAR(s.drops[i].duration, expected[i][3], 1e-9) << i;
    EXPECT_EQ(s.drops[i].recovered, i < 3) << i;
  }
  // Time at each level adds up to the whole run, the last sample's interval included.
  EXPECT_NEAR(s.timeAtAccuracy[0], 1.0 + 0.5, 1e-9);
  EXPECT_NEAR(s.timeAtAccuracy[1], 0.2 + 1.0, 1e-9);
  EXPECT_NEAR(s.timeAtAccuracy[2], 0.8, 1e-9);
  EXPECT_NEAR(s.timeAtAccuracy[3], 7.0 - 1.5 - 1.2 - 0.8, 1e-9);
  EXPECT_EQ(s.acceptedFits, 2);
  EXPECT_EQ(s.nonFiniteSamples, 2u);
  ASSERT_TRUE(s.firstNonFiniteAt);
  EXPECT_NEAR(*s.firstNonFiniteAt, 3.3, 1e-9);
  EXPECT_EQ(s.firstNonFiniteOutput, "virtual gyroscope");

  const std::string text = formatSummary(s, ReferenceComparison{});
  for (const char* line : {"accuracy drops   4\n", "  at 2.00 s from 3 to 0 for 0.50 s\n",
                           "  at 6.00 s from 3 to 1 for 1.00 s (to the end)\n",
                           "non-finite       2 samples with outputs that are not finite numbers, first at 3.30 s "
                           "(virtual gyroscope)\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\nin\n" << text;
  }
}

TEST(ReferenceComparator, StreamsThroughItsSpillAndCountsMissingReferences) {
  // Long enough to spill to the temporary file several times.
  ReferenceComparator comparator(true, true);
  const int n = 20000;
  for (int i = 0; i < n; ++i) {
    RecordedSample sample;
    sample.t = 0.01 * i;
    const double heading = std::fmod(7.0 * i, 360.0);
    sample.attitude = headingRotation(heading);
    sample.hasAttitude = i % 100 != 7;  // a gap in the motion capture
    sample.hasGyro = i % 50 != 3;
    ReplayRow row = rowAt(sample.t, i < 1000 ? 2 : 3);
    const Quat estimate = headingRotation(heading - 21.25 + (i % 2 == 0 ? 0.5 : -0.5));
    row.rotVec = {static_cast<float>(estimate[1]), static_cast<float>(estimate[2]), static_cast<float>(estimate[3]),
                  static_cast<float>(estimate[0])};
    row.orientation[0] = static_cast<float>(std::fmod(heading - 21.25 + 360.0, 360.0));
    comparator.add(sample, row);
  }
  size_t visited = 0, compared = 0;
  bool inOrder = true;
  const ReferenceComparison result = comparator.finish([&](const SampleErrors& e) {
    inOrder = inOrder && e.index == visited && std::fabs(e.t - 0.01 * static_cast<double>(visited)) < 1e-12;
    if (!std::isnan(e.rotationVectorDeg)) ++compared;
    ++visited;
  });
  EXPECT_TRUE(inOrder);
  EXPECT_EQ(visited, static_cast<size_t>(n));
  EXPECT_EQ(result.missingAttitude, static_cast<size_t>(n / 100));
  EXPECT_EQ(result.missingGyro, static_cast<size_t>(n / 50));
  ASSERT_TRUE(result.calibratedOnly && result.rotationVector && result.azimuth);
  // Samples at accuracy 3 with a reference, alone.
  EXPECT_EQ(compared, static_cast<size_t>(n - 1000 - (n - 1000) / 100));
  EXPECT_EQ(result.rotationVector->count, compared);
  EXPECT_NEAR(result.rotationVector->alignmentDeg, 21.25, 0.51);
  EXPECT_NEAR(result.rotationVector->maxDeg, 1.0, 0.01);  // +-0.5 around an alignment within [-0.5, 0.5]
  EXPECT_NEAR(result.azimuth->alignmentDeg, 21.25, 0.001);
  EXPECT_LT(result.azimuth->maxDeg, 0.01);
}

TEST(RowPipeline, DeliversEveryPairInOrderBeforeFinishReturns) {
  std::vector<double> seen;
  size_t mismatched = 0;
  RowPipeline pipeline([&](const RecordedSample& sample, const ReplayRow& row) {
    seen.push_back(sample.t);
    if (row.t != sample.t) ++mismatched;
  });
  const int n = 10007;  // not a whole number of batches
  for (int i = 0; i < n; ++i) {
    RecordedSample sample;
    sample.t = i;
    pipeline.add(sample, rowAt(i, 3));
  }
  pipeline.finish();
  ASSERT_EQ(seen.size(), static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) ASSERT_EQ(seen[i], i);
  EXPECT_EQ(mismatched, 0u);
  pipeline.finish();  // a second time does nothing
}

TEST(Envelope, KeepsSpikesWrapsAndGapsInFixedMemory) {
  Envelope plain;
  Envelope heading(360.0, 0.0);
  const size_t n = 1000000;
  for (size_t i = 0; i < n; ++i) {
    const double t = 0.02 * static_cast<double>(i);
    plain.add(t, i == 777777 ? 50.0 : (i >= 400000 && i < 500000 ? std::nan("") : 1.0));
    heading.add(t, std::fmod(359.0 + 0.001 * static_cast<double>(i % 4000), 360.0));  // circles around north
  }
  EXPECT_EQ(plain.buckets().size(), Envelope::kBuckets);
  double highest = 0.0;
  int breaks = 0;
  size_t counted = 0;
  for (const auto& b : plain.buckets()) {
    highest = std::max(highest, b.hi);
    breaks += b.breakBefore ? 1 : 0;
    counted += b.count;
  }
  EXPECT_EQ(highest, 50.0);
  EXPECT_EQ(breaks, 1);
  EXPECT_EQ(counted, n - 100000);
  // Tracked across north: every bucket spans at most the 4 degrees actually swept.
  for (const auto& b : heading.buckets()) {
    if (b.count > 0) EXPECT_LE(b.hi - b.lo, 4.0 + 1e-9);
  }
}

TEST(Report, StaysSmallForALongNoisyRun) {
  ReportBuilder builder("long.csv", true, true);
  std::mt19937 random(5);
  std::normal_distribution<double> noise(0.0, 1.0);
  RecordedSample sample;
  sample.hasGyro = sample.hasAttitude = true;
  for (int i = 0; i < 300000; ++i) {
    ReplayRow row = rowAt(0.02 * i, i % 997 == 0 ? 2 : 3);
    for (int k = 0; k < 3; ++k) {
      row.vgyro[k] = static_cast<float>(noise(random));
      row.rawField[k] = static_cast<float>(0.5 * noise(random));
      row.offset[k] = static_cast<float>(0.01 * noise(random));
      sample.gyro[k] = noise(random);
    }
    row.orientation = {static_cast<float>(std::fmod(360.0 + 90.0 * noise(random), 360.0)),
                       static_cast<float>(60.0 * noise(random)), static_cast<float>(30.0 * noise(random))};
    builder.add(sample, row);
    SampleErrors errors;
    errors.t = row.t;
    errors.rotationVectorDeg = std::fabs(noise(random));
    errors.azimuthDeg = noise(random);
    errors.referenceAngles = {std::fmod(360.0 + 90.0 * noise(random), 360.0), 10.0 * noise(random), noise(random)};
    builder.addErrors(errors);
  }
  // Every drop of accuracy is listed, up to a bound that keeps the page small.
  std::vector<AccuracyDrop> drops;
  for (int i = 0; i < 1500; ++i) drops.push_back({10.0 * i, 3, i % 3, 1.25, i + 1 < 1500});
  const std::string html = builder.render("summary\n", drops);
  EXPECT_LT(html.size(), 2u * 1024 * 1024);
  EXPECT_NE(html.find("1500 drops of accuracy"), std::string::npos);
  EXPECT_NE(html.find("<tr><td>9990.00</td><td>3</td><td>0</td><td>1.25</td></tr>"), std::string::npos);
  EXPECT_EQ(html.find("<td>10000.00</td>"), std::string::npos);
  EXPECT_NE(html.find("and 500 more"), std::string::npos);
  EXPECT_NE(html.find("every 16th sample"), std::string::npos);
  // The legend explains the line styles; each reference series is dashed.
  EXPECT_NE(html.find("dashed lines are the reference"), std::string::npos);
  const std::regex dashedReference("reference gyroscope</text>");
  EXPECT_TRUE(std::regex_search(html, dashedReference));
  EXPECT_EQ(html.find("nan"), std::string::npos);
}

}  // namespace
}  // namespace quelta::replay
