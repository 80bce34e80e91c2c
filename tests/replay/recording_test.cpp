#include <gtest/gtest.h>

#include "tools/replay/recording.h"

namespace quelta::replay {
namespace {

bool parse(const std::string& text, Recording& out, InputError& error, Units units = {}) {
  return parseRecording(text, "rec.csv", units, out, error);
}

std::string errorOf(const std::string& text) {
  Recording recording;
  InputError error;
  EXPECT_FALSE(parse(text, recording, error));
  return error.describe();
}

TEST(Recording, ReadsColumnsInAnyOrderConvertsUnitsAndSkipsNoise) {
  const std::string text =
      "# made by hand\r\n"
      "mz, my ,mx,az,ay,ax,extra,t,qw,qx,qy,qz,gx,gy,gz\r\n"
      "\r\n"
      "-40,20,10,9.80665,0,0,whatever,0.5,1,0,0,0,0.1,0.2,0.3\r\n"
      "-40,20,10,0,9.80665,0,,0.52,0.5,0.5,0.5,0.5,0,0,-1e-2\r\n";
  Recording recording;
  InputError error;
  ASSERT_TRUE(parse(text, recording, error, {AccUnit::MetresPerSecond2, MagUnit::Microtesla})) << error.describe();
  ASSERT_EQ(recording.samples.size(), 2u);
  EXPECT_TRUE(recording.hasGyro && recording.hasAttitude);
  const RecordedSample& first = recording.samples[0];
  EXPECT_EQ(first.t, 0.5);
  EXPECT_DOUBLE_EQ(first.acc[2], 1.0);
  EXPECT_DOUBLE_EQ(first.mag[0], 0.1);
  EXPECT_DOUBLE_EQ(first.mag[2], -0.4);
  EXPECT_EQ(first.gyro[2], 0.3);
  EXPECT_DOUBLE_EQ(recording.samples[1].acc[1], 1.0);
  EXPECT_EQ(recording.samples[1].attitude[3], 0.5);
  EXPECT_NEAR(recording.duration(), 0.02, 1e-12);

  // Without reference columns; the nominal period ignores an odd gap.
  std::string plain = "t,ax,ay,az,mx,my,mz\n";
  for (double t : {0.0, 0.02, 0.04, 0.06, 0.5, 0.52, 0.54}) plain += std::to_string(t) + ",0,0,1,0.1,0.2,0.3\n";
  ASSERT_TRUE(parse(plain, recording, error));
  EXPECT_FALSE(recording.hasGyro || recording.hasAttitude);
  EXPECT_NEAR(recording.nominalPeriod(), 0.02, 1e-12);
}

TEST(Recording, BadInputIsLocatedByLineAndColumn) {
  const std::string header = "t,ax,ay,az,mx,my,mz\n";
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,mz\n0,0,0,1,0,0\n"), "rec.csv:1: missing required column 'my'");
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz, ax\n"), "rec.csv:1:22: duplicate column 'ax'");
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz,gx,gy\n"), "rec.csv:1: reference gyroscope needs all of gx, gy, gz");
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz,qw\n"), "rec.csv:1: reference attitude needs all of qw, qx, qy, qz");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2,0.3\n0.1,0, abc ,1,0.1,0.2,0.3\n"),
            "rec.csv:3:8: column 'ay': 'abc' is not a finite number");
  for (const char* bad : {"", "nan", "1e999"}) {
    EXPECT_EQ(errorOf(header + "0,0,0,1,0.1," + bad + ",0.3\n"),
              std::string("rec.csv:2:13: column 'my': '") + bad + "' is not a finite number");
  }
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2,0.3\n# gap\n0,0,0,1,0.1,0.2,0.3\n"),
            "rec.csv:4:1: time 0 does not increase (previous sample at line 2)");
  EXPECT_EQ(errorOf(header + "1,0,0,1,0.1,0.2,0.3\n0.5,0,0,1,0.1,0.2,0.3\n"),
            "rec.csv:3:1: time 0.5 does not increase (previous sample at line 2)");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2\n"), "rec.csv:2:16: expected 7 values, found 6");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2,0.3,9\n"), "rec.csv:2:21: expected 7 values, found 8");
  EXPECT_EQ(errorOf(""), "rec.csv: empty recording: no header row");
  EXPECT_EQ(errorOf("# only a comment\n\n"), "rec.csv: empty recording: no header row");
  EXPECT_EQ(errorOf(header), "rec.csv: no samples after the header row");
  Recording recording;
  InputError error;
  EXPECT_FALSE(readRecording("/nonexistent/rec.csv", {}, recording, error));
  EXPECT_EQ(error.describe(), "/nonexistent/rec.csv: cannot open the recording");
}

}  // namespace
}  // namespace quelta::replay
