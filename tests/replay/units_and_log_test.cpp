// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tools/recording_sim/handheld_motion.h"
#include "tests/replay/shared_recordings.h"
#include "tools/replay/log_prefix.h"
#include "tools/replay/recording.h"
#include "tools/replay/units_check.h"

namespace quelta::replay {
namespace {

std::vector<RecordedSample> firstSamples(const sim::RecordingPlan& plan, const Units& units) {
  RecordingReader reader;
  EXPECT_TRUE(reader.openBytes(sim::simulateHandheldRecording(plan), "sim", units)) << reader.error().describe();
  return reader.peek(kUnitsCheckSamples);
}

bool mentions(const std::vector<std::string>& warnings, const std::string& option) {
  for (const std::string& warning : warnings) {
    if (warning.find(option) != std::string::npos) return true;
  }
  return false;
}

TEST(UnitsCheck, WarnsWhenTheDataContradictTheDeclaredUnits) {
  sim::RecordingPlan plan;
  plan.durationSeconds = 25.0;
  plan.withReference = false;
  const Units gGauss{};
  const Units si{AccUnit::MetresPerSecond2, MagUnit::Microtesla};
  EXPECT_TRUE(checkUnits(firstSamples(plan, gGauss), gGauss).empty());

  // The same motion written in m/s2 and microtesla, read without the options.
  sim::RecordingPlan siPlan = plan;
  siPlan.accInMetresPerSecond2 = true;
  siPlan.magInMicrotesla = true;
  const std::vector<std::string> warnings = checkUnits(firstSamples(siPlan, gGauss), gGauss);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_NE(warnings[0].find("the accelerometer's median magnitude is 9.8"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[0].find("(use --acc-unit m/s2)"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[1].find("looks like microtesla (use --mag-unit uT)"), std::string::npos) << warnings[1];
  EXPECT_TRUE(checkUnits(firstSamples(siPlan, si), si).empty());

  // The other way round: g and gauss declared as m/s2 and microtesla.
  const std::vector<std::string> reverse = checkUnits(firstSamples(plan, si), si);
  ASSERT_EQ(reverse.size(), 2u);
  EXPECT_TRUE(mentions(reverse, "(use --acc-unit g)") && mentions(reverse, "(use --mag-unit gauss)"));

  // A phone's own offset of about 4 gauss is still gauss, and one option
  // at a time is judged on its own.
  plan.hardIron = {0.6, -0.7, 4.1};
  EXPECT_TRUE(checkUnits(firstSamples(plan, gGauss), gGauss).empty());
  const std::vector<std::string> accOnly = checkUnits(firstSamples(plan, {AccUnit::MetresPerSecond2, MagUnit::Gauss}),
                                                      {AccUnit::MetresPerSecond2, MagUnit::Gauss});
  ASSERT_EQ(accOnly.size(), 1u);
  EXPECT_TRUE(mentions(accOnly, "--acc-unit g"));
}

// The shared real recordings in g and gauss pass; converted to m/s2 and
// microtesla (as another tool would write them) they are caught.
TEST(UnitsCheck, SharedRecordingsPassAndTheirSiVersionsAreCaught) {
  const std::vector<shared::SharedRecording> recordings = shared::sharedRecordings(QUELTA_SHARED_RECORDINGS);
  if (recordings.empty()) GTEST_SKIP() << "no shared recordings";
#if !QUELTA_REPLAY_HAVE_ZLIB
  GTEST_SKIP() << "built without zlib";
#endif
  for (const shared::SharedRecording& recording : recordings) {
    RecordingReader reader;
    ASSERT_TRUE(reader.open(recording.path, {})) << reader.error().describe();
    std::vector<RecordedSample> samples = reader.peek(kUnitsCheckSamples);
    ASSERT_FALSE(samples.empty()) << recording.path;
    if (recording.sidecarRows >= 0) {
      EXPECT_EQ(samples.size(), std::min<size_t>(kUnitsCheckSamples, static_cast<size_t>(recording.sidecarRows)));
    }
    const std::vector<std::string> none = checkUnits(samples, {});
    EXPECT_TRUE(none.empty()) << recording.path << ": " << none.front();
    // As an Android logger writes them: nanoseconds since boot, m/s2, uT.
    for (RecordedSample& s : samples) {
      s.t = s.t * 1e9 + 3.6e12;
      for (int k = 0; k < 3; ++k) {
        s.acc[k] *= 9.80665;
        s.mag[k] *= 100.0;
      }
    }
    const std::vector<std::string> caught = checkUnits(samples, {});
    EXPECT_TRUE(caught.size() == 3 && mentions(caught, "--acc-unit m/s2") && mentions(caught, "--mag-unit uT") &&
                mentions(caught, "--time-unit ns"))
        << recording.path;
    // Milliseconds are told apart from nanoseconds, and the right unit is quiet.
    for (RecordedSample& s : samples) s.t /= 1e6;
    const Units si{AccUnit::MetresPerSecond2, MagUnit::Microtesla};
    const std::vector<std::string> inMs = checkUnits(samples, si);
    EXPECT_TRUE(inMs.size() == 1 && mentions(inMs, "--time-unit ms")) << recording.path;
    for (RecordedSample& s : samples) s.t /= 1e3;
    EXPECT_TRUE(checkUnits(samples, si).empty()) << recording.path;
  }
}

std::string readBack(FILE* file) {
  std::fflush(file);
  std::rewind(file);
  std::string text;
  char buffer[4096];
  size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, got);
  return text;
}

TEST(LogPrefix, EveryLineStartsWithTheSampleAndTime) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  setLogStream(file);
  EXPECT_EQ(prefixedLog("set up %d\n", 7), 9);
  setLogSample(120, 2.4);
  prefixedLog("part ");  // a line in two calls gets one prefix
  prefixedLog("%s\nsecond %.2f\n", "one", 0.5);
  setLogSample(121, 2.42);
  const std::string longText(1500, 'x');  // beyond the formatting buffer
  EXPECT_EQ(prefixedLog("%s\n", longText.c_str()), 1501);
  EXPECT_EQ(readBack(file), "[setup] set up 7\n"
                            "[#120 t=2.400] part one\n"
                            "[#120 t=2.400] second 0.50\n"
                            "[#121 t=2.420] " + longText + "\n");
  setLogStream(nullptr);
  EXPECT_EQ(prefixedLog("dropped\n"), 0);
  std::fclose(file);
}

}  // namespace
}  // namespace quelta::replay
