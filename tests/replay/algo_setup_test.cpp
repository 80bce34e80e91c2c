#include <gtest/gtest.h>

#include "tools/replay/algo_setup.h"
#include "tools/replay/cli_options.h"

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
  EXPECT_TRUE(parseCalibrationFile("\n# nothing\n", read, problem));
  EXPECT_FALSE(read.offset);
}

TEST(Options, CommandLineOverridesAndUsageErrors) {
  Options options;
  std::string problem;
  ASSERT_TRUE(parseOptions({"rec.csv", "--out", "o.csv", "--acc-unit", "m/s2", "--mag-unit", "uT", "--axis",
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

}  // namespace
}  // namespace quelta::replay
