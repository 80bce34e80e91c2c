// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tools/replay/algo_setup.h"
#include "tools/replay/cli_options.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>

#include "include/QueltaAlgo.h"

namespace quelta::replay {
namespace {

TEST(CalibrationFile, RoundTripsExactFloatsAndKeepsTheOtherItems) {
  const std::string text =
      "# kept by a host\n"
      "offset 0.1 -0.25 8e-2   # gauss\n"
      "radius 0.49999\n"
      "axis 0 1 0 -1 0 0 0 0 1\n"
      "windows 5 4\n";
  SetupOverrides read;
  std::string problem;
  ASSERT_TRUE(parseCalibrationFile(text, read, problem)) << problem;
  ASSERT_TRUE(read.offset && read.radius && read.axis && read.windows);
  EXPECT_FALSE(read.pool || read.thresholds);
  EXPECT_EQ((*read.windows)[0], 5);

  AlgoSetup setup;
  read.applyTo(setup);
  EXPECT_EQ(setup.stored, (std::array<float, 4>{0.1f, -0.25f, 0.08f, 0.49999f}));
  EXPECT_EQ(setup.axis[1], 1.0f);
  EXPECT_EQ(setup.pool[2], 32.0f);  // untouched default

  // Writing back replaces offset and radius, keeps the rest, and reads back
  // bit for bit.
  const std::array<float, 3> fitted{0.123456789f, -1e-7f, 3.0f / 7.0f};
  SetupOverrides again;
  ASSERT_TRUE(parseCalibrationFile(formatCalibrationFile(fitted, 0.5123457f, read), again, problem)) << problem;
  EXPECT_EQ(*again.offset, fitted);
  EXPECT_EQ(*again.radius, 0.5123457f);
  EXPECT_TRUE(*again.axis == *read.axis && *again.windows == *read.windows && !again.pool);
}

TEST(CalibrationFile, ProblemsNameLineAndColumn) {
  SetupOverrides read;
  std::string problem;
  EXPECT_FALSE(parseCalibrationFile("offset 1 2 3\n  colour red\n", read, problem));
  EXPECT_EQ(problem, "2:3: unknown key 'colour'");
  EXPECT_FALSE(parseCalibrationFile("offset 1 2\n", read, problem));
  EXPECT_EQ(problem, "1:1: bad or missing values for 'offset'");
  EXPECT_FALSE(parseCalibrationFile("radius 0.5 0.6\n", read, problem));
  EXPECT_FALSE(parseCalibrationFile("windows 11 8.5\n", read, problem));
  EXPECT_FALSE(parseCalibrationFile("pool 6 16 32 0.1 0.1 0.85 1.15 x\n", read, problem));
  // Non-finite values, also one beyond the range of a float, are refused
  // where they stand: the file says which line to mend.
  EXPECT_FALSE(parseCalibrationFile("offset 0.1 0.2 0.3\nradius 0.5\noffset 0.1 nan 0.3\n", read, problem));
  EXPECT_EQ(problem, "3:1: bad or missing values for 'offset'");
  EXPECT_FALSE(parseCalibrationFile("radius 1e39\n", read, problem));
  EXPECT_FALSE(parseCalibrationFile("axis inf 0 0 0 1 0 0 0 1\n", read, problem));
  EXPECT_TRUE(parseCalibrationFile("\n# nothing\n", read, problem));
  EXPECT_FALSE(read.offset);
}

TEST(CalibrationFile, ReadingNamesTheFileAndTheReason) {
  SetupOverrides read;
  bool found = true;
  std::string problem;
  const std::string directory = testing::TempDir();
  EXPECT_TRUE(readCalibrationFile(directory + "/no-such.cal", read, found, problem));
  EXPECT_FALSE(found || read.offset);  // a first run: nothing stored yet
  EXPECT_FALSE(readCalibrationFile(directory, read, found, problem));
  EXPECT_EQ(problem, directory + ": cannot read the calibration: Is a directory");

  // As an editor may leave it: byte-order mark, CRLF.
  const std::string path = directory + "/calibration_file_test.cal";
  {
    std::ofstream file(path, std::ios::binary);
    file << "\xEF\xBB\xBFoffset 0.1 -0.25 0.08\r\nradius 0.5\r\n";
  }
  ASSERT_TRUE(readCalibrationFile(path, read, found, problem)) << problem;
  EXPECT_TRUE(found && read.offset && (*read.offset)[1] == -0.25f && read.radius && *read.radius == 0.5f);
  {
    std::ofstream file(path, std::ios::binary);
    file << "offset 0.1 -0.25 0.08\nradius 1e39\n";
  }
  EXPECT_FALSE(readCalibrationFile(path, read, found, problem));
  EXPECT_EQ(problem, path + ":2:1: bad or missing values for 'radius'");
  std::remove(path.c_str());
}

// AlgoInitial adopts any non-zero stored offset with its radius; the tool
// hands over only what the library itself could have fitted.
TEST(CalibrationFile, StoredCalibrationOutsideTheRadiusBandIsDropped) {
  AlgoSetup setup;
  setup.stored = {0.1f, -0.2f, 0.05f, 50.0f};
  EXPECT_EQ(dropImplausibleStoredCalibration(setup),
            "stored radius 50 gauss is outside the band the library accepts (0.2 to 0.8 gauss)");
  EXPECT_EQ(setup.stored, AlgoSetup{}.stored);

  for (float radius : {0.2f, 0.8f, 0.0f, -0.5f}) {
    setup.stored = {0.1f, -0.2f, 0.05f, radius};
    EXPECT_FALSE(storedCalibrationProblem(setup).empty()) << radius;
  }
  setup.stored = {0.1f, std::nanf(""), 0.05f, 0.5f};
  EXPECT_EQ(storedCalibrationProblem(setup), "stored calibration (offset 0.1 nan 0.05, radius 0.5) is not finite");
  setup.stored = {0.1f, -0.2f, 0.05f, std::numeric_limits<float>::infinity()};
  EXPECT_FALSE(storedCalibrationProblem(setup).empty());

  // Inside the band it is kept bit for bit; an all-zero offset means none,
  // whatever the radius says.
  const std::array<float, 4> good{0.1f, -0.2f, 0.05f, 0.21f};
  setup.stored = good;
  EXPECT_EQ(dropImplausibleStoredCalibration(setup), "");
  EXPECT_EQ(setup.stored, good);
  setup.stored = {0.0f, -0.0f, 0.0f, 50.0f};
  EXPECT_EQ(storedCalibrationProblem(setup), "");
}

TEST(Options, CommandLineOverridesAndUsageErrors) {
  Options options;
  std::string problem;
  ASSERT_TRUE(parseOptions({"rec.csv", "--engine=algo", "--out", "o.csv", "--acc-unit", "m/s2", "--mag-unit", "uT", "--axis",
                            "1,0,0,0,-1,0,0,0,-1", "--windows", "7,3", "--log-mode", "-1"},
                           options, problem))
      << problem;
  EXPECT_TRUE(options.recording == "rec.csv" && options.outCsv == "o.csv" && options.logMode == -1);
  EXPECT_TRUE(options.units.acc == AccUnit::MetresPerSecond2 && options.units.mag == MagUnit::Microtesla);
  AlgoSetup setup;
  options.setup.applyTo(setup);
  EXPECT_EQ(setup.axis[8], -1.0f);
  EXPECT_EQ(setup.windows, (std::array<int32_t, 2>{7, 3}));

  EXPECT_FALSE(parseOptions({"--pool", "6,16,32"}, options, problem));
  EXPECT_EQ(problem, "bad value '6,16,32' for --pool");
  EXPECT_FALSE(parseOptions({"--thresholds", "0.1,,0.2"}, options, problem));
  EXPECT_FALSE(parseOptions({"--windows", "7,3,"}, options, problem));
  EXPECT_FALSE(parseOptions({"--log-mode", "1x"}, options, problem));
  EXPECT_FALSE(parseOptions({"--report"}, options, problem));
  EXPECT_EQ(problem, "option --report needs a value");
}

TEST(Options, EqualsFormStandardInputVersionAndEndOfOptions) {
  Options options;
  std::string problem;
  ASSERT_TRUE(parseOptions({"--engine", "algo", "--out=o.csv", "--report=r=1.html", "--log", "l.txt", "--log-mode=-1", "--calibration=c",
                            "--acc-unit=m/s2", "--mag-unit=uT", "--axis=0,1,0,-1,0,0,0,0,1", "--pool=1,2,3,4,5,6,7,8",
                            "--thresholds=0.1,0.2,0.3", "--windows=5,4", "-"},
                           options, problem))
      << problem;
  EXPECT_EQ(options.recording, "-");
  EXPECT_EQ(options.outCsv, "o.csv");
  EXPECT_EQ(options.reportHtml, "r=1.html");  // only the first '=' separates
  EXPECT_TRUE(options.logFile == "l.txt" && options.logMode == -1 && options.calibrationFile == "c");
  EXPECT_TRUE(options.units.acc == AccUnit::MetresPerSecond2 && options.units.mag == MagUnit::Microtesla);
  EXPECT_TRUE(options.setup.axis && (*options.setup.axis)[1] == 1.0f && options.setup.pool &&
              (*options.setup.pool)[7] == 8.0f && options.setup.thresholds && options.setup.windows);
  EXPECT_FALSE(options.version || options.help);

  ASSERT_TRUE(parseOptions({"--version"}, options, problem));
  EXPECT_TRUE(options.version);
  EXPECT_EQ(versionText(), std::string("quelta-replay ") + QUELTA_ALGO_VERSION_STRING + "\n");
  ASSERT_TRUE(parseOptions({"--out", "x.csv", "--", "--odd-name.csv"}, options, problem));
  EXPECT_EQ(options.recording, "--odd-name.csv");

  const std::pair<std::vector<std::string>, std::string> errors[] = {
      {{"--out="}, "option --out needs a value"},
      {{"--help=yes"}, "option --help takes no value"},
      {{"--colour=red"}, "unknown option --colour"},
      {{"-x"}, "unknown option -x"},
      {{"--acc-unit=furlong"}, "bad value 'furlong' for --acc-unit"},
      {{"--engine=algo", "--log-mode=99999999999999999999"}, "bad value '99999999999999999999' for --log-mode"},
      {{"-", "rec.csv"}, "more than one recording given: '-' and 'rec.csv'"}};
  for (const auto& [args, message] : errors) {
    EXPECT_FALSE(parseOptions(args, options, problem)) << args[0];
    EXPECT_EQ(problem, message);
  }
}

}  // namespace
}  // namespace quelta::replay
