// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#if QUELTA_REPLAY_HAVE_ZLIB
#include <zlib.h>
#endif

#include "tests/replay/shared_recordings.h"
#include "tools/replay/recording.h"

namespace quelta::replay {
namespace {

bool parse(const std::string& text, Recording& out, InputError& error, Units units = {}) {
  return parseRecording(text, "rec.csv", units, out, error);
}

std::string errorOf(const std::string& text, Units units = {}) {
  Recording recording;
  InputError error;
  EXPECT_FALSE(parse(text, recording, error, units));
  return error.describe();
}

#if QUELTA_REPLAY_HAVE_ZLIB
std::string gzip(const std::string& text) {
  z_stream z{};
  EXPECT_EQ(deflateInit2(&z, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(deflateBound(&z, text.size()) + 32, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = reinterpret_cast<Bytef*>(&out[0]);
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}
#endif

// A recording long enough to cross the reader's internal buffers.
std::string longRecording(size_t rows) {
  std::string text = "t,ax,ay,az,mx,my,mz,qw,qx,qy,qz\n";
  char line[160];
  for (size_t i = 0; i < rows; ++i) {
    const bool gap = i % 7 == 3;
    std::snprintf(line, sizeof line, "%.2f,0.01,-0.02,%.6f,0.1,%.6f,-0.3,%s\n", 0.02 * static_cast<double>(i),
                  1.0 + 1e-6 * static_cast<double>(i), 0.2 + 1e-6 * static_cast<double>(i),
                  gap ? "nan,nan,nan,nan" : "1,0,0,0");
    text += line;
  }
  return text;
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
  EXPECT_TRUE(first.hasGyro && first.hasAttitude);
  EXPECT_DOUBLE_EQ(recording.samples[1].acc[1], 1.0);
  EXPECT_EQ(recording.samples[1].attitude[3], 0.5);
  EXPECT_NEAR(recording.duration(), 0.02, 1e-12);
  EXPECT_EQ(recording.missingGyro + recording.missingAttitude, 0u);

  // Without reference columns; the nominal period ignores an odd gap.
  std::string plain = "t,ax,ay,az,mx,my,mz\n";
  for (double t : {0.0, 0.02, 0.04, 0.06, 0.5, 0.52, 0.54}) plain += std::to_string(t) + ",0,0,1,0.1,0.2,0.3\n";
  ASSERT_TRUE(parse(plain, recording, error));
  EXPECT_FALSE(recording.hasGyro || recording.hasAttitude);
  EXPECT_FALSE(recording.samples[0].hasGyro || recording.samples[0].hasAttitude);
  EXPECT_NEAR(recording.nominalPeriod(), 0.02, 1e-12);
}

// What real recordings and spreadsheets produce: a byte-order mark, header
// names in capitals and in quotes, gaps in the motion capture.
TEST(Recording, AcceptsRealWorldHeadersAndMissingReferenceValues) {
  const std::string text =
      "\xEF\xBB\xBF\"T\",\"AX\",Ay,\" az\" ,MX,my,\"M\"\"z\",GX,gy,gz,QW,qx,qy,qz\n"
      "0,0,0,1,0.1,0.2,0.3,0.1,0.2,0.3,1,0,0,0\n"
      "0.02,0,0,1,0.1,0.2,0.3,,,,nan,NaN,-nan,NAN\n"
      "0.04,0,0,1,0.1,0.2,0.3,0.1,0.2,0.3,0.5,nan,0.5,0.5\n"
      "0.06,0,0,1,0.1,0.2,\"0.3\",0.1,,0.3,0,1,0,0\n";
  // "M""z" unquotes to M"z, which is no known column: mz is missing.
  EXPECT_EQ(errorOf(text),
            "rec.csv:1:53: missing required column 'mz' (the header has 14 columns: T, AX, Ay,  az, MX, my, M\"z, GX, "
            "gy, gz, QW, qx, qy, qz)");
  std::string fixed = text;
  fixed.replace(fixed.find("\"M\"\"z\""), 6, "\"Mz\"");
  Recording recording;
  InputError error;
  ASSERT_TRUE(parse(fixed, recording, error)) << error.describe();
  ASSERT_EQ(recording.samples.size(), 4u);
  const bool gyro[] = {true, false, true, false};
  const bool attitude[] = {true, false, false, true};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(recording.samples[i].hasGyro, gyro[i]) << i;
    EXPECT_EQ(recording.samples[i].hasAttitude, attitude[i]) << i;
  }
  EXPECT_EQ(recording.missingGyro, 2u);
  EXPECT_EQ(recording.missingAttitude, 2u);
  // A missing reference leaves neutral values, never NaN.
  EXPECT_EQ(recording.samples[2].attitude, (std::array<double, 4>{1, 0, 0, 0}));
  EXPECT_EQ(recording.samples[3].gyro, (std::array<double, 3>{0, 0, 0}));
  EXPECT_EQ(recording.samples[3].attitude[1], 1.0);
  EXPECT_EQ(recording.samples[0].mag[2], 0.3);
  EXPECT_EQ(recording.samples[3].mag[2], 0.3);  // quoted values are numbers too

  // A reference value that is there must still be a finite number.
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz,qw,qx,qy,qz\n0,0,0,1,0.1,0.2,0.3,inf,0,0,0\n"),
            "rec.csv:2:21: column 'qw': 'inf' is not a finite number (leave it empty or write nan where the "
            "reference is missing)");
}

// An Android logger's file: its own column names, nanosecond times, and the
// field (a slower sensor) only on some rows.
TEST(Recording, ReadsAnAndroidLoggersNamesTimesAndRowsWithoutAField) {
  ColumnNames names;
  std::string problem;
  ASSERT_TRUE(parseColumnNames("t=timestamp_ns,ax=acc_x,ay=acc_y,az=acc_z,mx=mag_x,my=mag_y,mz=MAG_Z,gx=gyro_x,"
                               "gy=gyro_y,gz=gyro_z",
                               names, problem))
      << problem;
  const std::string text =
      "timestamp_ns,acc_x,acc_y,acc_z,mag_x,mag_y,mag_z,gyro_x,gyro_y,gyro_z,t\n"
      "3600000000000,0,0,9.80665,20,0,-40,0.1,0,0,99\n"
      "3600020000000,0,0,9.80665,,,,,,,98\n"
      "3600040000000,0,0,9.80665,nan,NaN,nan,0,0.2,0,97\n"
      "3600060000000,0,0,9.80665,21,1,-41,0,0,0.3,96\n";
  Units units;
  units.acc = AccUnit::MetresPerSecond2;
  units.mag = MagUnit::Microtesla;
  units.time = TimeUnit::Nanoseconds;
  Recording r;
  InputError error;
  ASSERT_TRUE(parseRecording(text, "log.csv", units, r, error, names)) << error.describe();
  ASSERT_EQ(r.samples.size(), 4u);
  // Whole nanoseconds divide exactly: 3600.02 s is the double 3600.02 reads as;
  // the file's own "t" column is ignored once t is named elsewhere.
  EXPECT_EQ(r.samples[1].t, 3600.02);
  EXPECT_EQ(r.samples[0].acc[2], 9.80665 * (1.0 / 9.80665));
  EXPECT_EQ(r.samples[0].mag[0], 20.0 * 0.01);
  EXPECT_TRUE(r.samples[0].hasMag && r.samples[3].hasMag);
  EXPECT_FALSE(r.samples[1].hasMag || r.samples[2].hasMag);
  EXPECT_EQ(r.samples[2].mag, (std::array<double, 3>{0, 0, 0}));
  EXPECT_EQ(r.missingMag, 2u);
  EXPECT_TRUE(r.hasGyro);
  EXPECT_EQ(r.missingGyro, 1u);
  EXPECT_EQ(r.samples[2].gyro[1], 0.2);

  // A row with part of the field is broken, not a slower sensor.
  Recording broken;
  EXPECT_FALSE(parseRecording("t,ax,ay,az,mx,my,mz\n0,0,0,1,0.2,,0.3\n", "rec.csv", {}, broken, error));
  EXPECT_EQ(error.describe(), "rec.csv:2:13: column 'my': no value");
  // A named column that is not there is reported under both names.
  EXPECT_FALSE(parseRecording("time,ax,ay,az,mx,my,mz\n0,0,0,1,0.2,0,0.3\n", "rec.csv", {}, broken, error,
                              ColumnNames{{{"t", "timestamp_ns"}}}));
  EXPECT_NE(error.describe().find("missing required column 'timestamp_ns' (named for t)"), std::string::npos)
      << error.describe();
  EXPECT_FALSE(parseRecording("t,ax,ay,az,mx,my,mz\n0,0,0,1,0.2,0,0.3\n", "rec.csv", {}, broken, error,
                              ColumnNames{{{"gx", "gyro_x"}}}));
  EXPECT_NE(error.describe().find("missing column 'gyro_x' (named for gx)"), std::string::npos) << error.describe();
  // What --columns refuses.
  for (const char* bad : {"", "t", "t=", "w=x", "t=a,t=b", "t=a,ax=A", "t=a,"}) {
    EXPECT_FALSE(parseColumnNames(bad, names, problem)) << bad;
  }
}

TEST(Recording, BadInputIsLocatedByLineAndColumn) {
  const std::string header = "t,ax,ay,az,mx,my,mz\n";
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,mz\n0,0,0,1,0,0\n"),
            "rec.csv:1:17: missing required column 'my' (the header has 6 columns: t, ax, ay, az, mx, mz)");
  EXPECT_EQ(errorOf("0,0,0,1,0.1,0.2,0.3\n"),
            "rec.csv:1:1: no header row: the first row must name the columns (t, ax, ay, az, mx, my, mz)");
  EXPECT_EQ(errorOf("t;ax;ay;az;mx;my;mz\n0;0;0;1;0;0;0\n"),
            "rec.csv:1:1: the columns are separated by ';': the recording needs commas");
  EXPECT_EQ(errorOf(std::string("\xFF\xFEt\0,\0a\0x\0", 10)), "rec.csv:1:1: the recording is UTF-16 text: save it as UTF-8 or ASCII");
  EXPECT_EQ(errorOf("time\n"), "rec.csv:1:5: missing required column 't' (the header has 1 column: time)");
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz, AX\n"), "rec.csv:1:22: duplicate column 'AX'");
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz,gx,gy\n"), "rec.csv:1:21: reference gyroscope needs all of gx, gy, gz");
  EXPECT_EQ(errorOf("t,ax,ay,az,mx,my,mz,x,qw\n"), "rec.csv:1:23: reference attitude needs all of qw, qx, qy, qz");
  EXPECT_EQ(errorOf("t,ax,\"ay,az,mx,my,mz\n"), "rec.csv:1:6: quote not closed");
  EXPECT_EQ(errorOf("t,ax,\"ay\"x,az,mx,my,mz\n"), "rec.csv:1:10: text after a closing quote");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2,0.3\n0.1,0, abc ,1,0.1,0.2,0.3\n"),
            "rec.csv:3:8: column 'ay': 'abc' is not a finite number");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,,0.3\n"), "rec.csv:2:13: column 'my': no value");
  for (const char* bad : {"nan", "1e999", "inf", "0x1p3"}) {
    EXPECT_EQ(errorOf(header + "0,0,0,1,0.1," + bad + ",0.3\n"),
              std::string("rec.csv:2:13: column 'my': '") + bad + "' is not a finite number");
  }
  // Finite as a double is not enough: the library computes in float. The
  // limit applies after the unit conversion.
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,1e39,0.3\n"), "rec.csv:2:13: column 'my': '1e39' is beyond the range of a float");
  EXPECT_EQ(errorOf(header + "0,0,-3.5e38,1,0.1,0.2,0.3\n"),
            "rec.csv:2:5: column 'ay': '-3.5e38' is beyond the range of a float");
  Recording recording;
  InputError error;
  EXPECT_TRUE(parse(header + "0,0,0,1,0.1,3.5e38,0.3\n", recording, error, {AccUnit::G, MagUnit::Microtesla}));
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,3.5e41,0.3\n", {AccUnit::G, MagUnit::Microtesla}),
            "rec.csv:2:13: column 'my': '3.5e41' is beyond the range of a float");

  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2,0.3\n# gap\n0,0,0,1,0.1,0.2,0.3\n"),
            "rec.csv:4:1: time 0 does not increase (previous sample at line 2)");
  EXPECT_EQ(errorOf(header + "1,0,0,1,0.1,0.2,0.3\n0.5,0,0,1,0.1,0.2,0.3\n"),
            "rec.csv:3:1: time 0.5 does not increase (previous sample at line 2)");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2\n"), "rec.csv:2:16: expected 7 values, found 6");
  EXPECT_EQ(errorOf(header + "0,0,0,1,0.1,0.2,0.3,9\n"), "rec.csv:2:21: expected 7 values, found 8");
  EXPECT_EQ(errorOf(""), "rec.csv: empty recording: no header row");
  EXPECT_EQ(errorOf("# only a comment\n\n"), "rec.csv: empty recording: no header row");
  EXPECT_EQ(errorOf(header), "rec.csv: no samples after the header row");
  EXPECT_EQ(errorOf(header + std::string(2 * 1024 * 1024, '0')),
            "rec.csv:2: line longer than 1048576 bytes: not a recording");
}

TEST(Recording, FileProblemsNameTheReason) {
  Recording recording;
  InputError error;
  EXPECT_FALSE(readRecording("/nonexistent/rec.csv", {}, recording, error));
  EXPECT_EQ(error.describe(), "/nonexistent/rec.csv: cannot open the recording: No such file or directory");
  const std::string directory = testing::TempDir();
  EXPECT_FALSE(readRecording(directory, {}, recording, error));
  EXPECT_EQ(error.describe(), directory + ": cannot read the recording: Is a directory");
}

// The streaming reader returns exactly what the whole-file reader does, in
// order, whatever was peeked ahead, and counts the gaps in the reference.
TEST(RecordingReader, StreamsPeeksAndCounts) {
  const std::string text = longRecording(20000);  // about 1 MB: many read chunks
  Recording whole;
  InputError error;
  ASSERT_TRUE(parse(text, whole, error)) << error.describe();
  ASSERT_EQ(whole.samples.size(), 20000u);
  EXPECT_EQ(whole.missingAttitude, 2857u);  // rows 3, 10, 17, ...

  RecordingReader reader;
  ASSERT_TRUE(reader.openBytes(text, "stream.csv", {})) << reader.error().describe();
  EXPECT_TRUE(reader.hasAttitudeColumns());
  EXPECT_FALSE(reader.hasGyroColumns());
  const std::vector<RecordedSample>& first = reader.peek(1000);
  ASSERT_EQ(first.size(), 1000u);
  EXPECT_EQ(first[999].t, whole.samples[999].t);
  EXPECT_EQ(reader.samplesRead(), 0u);  // peeking consumes nothing
  EXPECT_NEAR(nominalPeriod(first), 0.02, 1e-9);

  RecordedSample sample;
  size_t i = 0;
  while (reader.next(sample)) {
    ASSERT_LT(i, whole.samples.size());
    const RecordedSample& want = whole.samples[i];
    ASSERT_TRUE(sample.t == want.t && sample.acc == want.acc && sample.mag == want.mag &&
                sample.hasAttitude == want.hasAttitude && sample.attitude == want.attitude)
        << "sample " << i;
    ++i;
    if (i == 500) {
      EXPECT_EQ(reader.peek(3000).size(), 3000u);  // peek again midway
    }
  }
  EXPECT_FALSE(reader.failed()) << reader.error().describe();
  EXPECT_EQ(i, 20000u);
  EXPECT_EQ(reader.samplesRead(), 20000u);
  EXPECT_EQ(reader.missingAttitude(), 2857u);
  EXPECT_FALSE(reader.next(sample));  // stays at the end

  // An error after good samples: they come first, then the error, which a
  // peek already shows.
  RecordingReader broken;
  ASSERT_TRUE(broken.openBytes("t,ax,ay,az,mx,my,mz\n0,0,0,1,0,0,0\n0.02,0,0,1,0,0,x\n", "b.csv", {}));
  EXPECT_EQ(broken.peek(10).size(), 1u);
  EXPECT_TRUE(broken.failed());
  EXPECT_TRUE(broken.next(sample));
  EXPECT_FALSE(broken.next(sample));
  EXPECT_EQ(broken.error().describe(), "b.csv:3:16: column 'mz': 'x' is not a finite number");
}

#if QUELTA_REPLAY_HAVE_ZLIB
TEST(RecordingReader, ReadsGzipByContentIncludingConcatenatedMembers) {
  const std::string text = longRecording(30000);
  Recording plain;
  Recording packed;
  InputError error;
  ASSERT_TRUE(parse(text, plain, error)) << error.describe();
  ASSERT_TRUE(parse(gzip(text), packed, error)) << error.describe();
  ASSERT_EQ(packed.samples.size(), plain.samples.size());
  EXPECT_EQ(packed.samples.back().mag, plain.samples.back().mag);
  EXPECT_EQ(packed.missingAttitude, plain.missingAttitude);

  // gzip a b > c: two members make one recording.
  const size_t half = text.find('\n', text.size() / 2) + 1;
  ASSERT_TRUE(parse(gzip(text.substr(0, half)) + gzip(text.substr(half)), packed, error)) << error.describe();
  EXPECT_EQ(packed.samples.size(), plain.samples.size());
  std::string emptyMembers;
  const std::string emptyMember = gzip("");
  for (int i = 0; i < 100000; ++i) emptyMembers += emptyMember;
  ASSERT_TRUE(parse(emptyMembers + gzip(text) + emptyMembers, packed, error)) << error.describe();
  EXPECT_EQ(packed.samples.size(), plain.samples.size());

  // A truncated or damaged file is an error, not a shorter recording.
  const std::string whole = gzip(text);
  EXPECT_EQ(errorOf(whole.substr(0, whole.size() - 4)), "rec.csv:30002: the compressed recording ends early (truncated file?)");
  std::string damaged = whole;
  damaged[damaged.size() - 6] ^= 0x55;  // in the checksum
  EXPECT_EQ(errorOf(damaged), "rec.csv:30002: corrupt compressed data (incorrect data check)");
  EXPECT_EQ(errorOf(whole + "junk"), "rec.csv:30002: unexpected data after the end of the compressed recording");
}
#else
TEST(RecordingReader, SaysWhenItCannotDecompress) {
  EXPECT_EQ(errorOf(std::string("\x1f\x8b\x08\x00", 4)),
            "rec.csv:1: a gzip-compressed recording, and this build has no zlib: decompress it first (gunzip)");
}
#endif

// Every shared real recording reads as it is, compressed, nan gaps included.
TEST(RecordingReader, ReadsEverySharedRecording) {
  const std::vector<shared::SharedRecording> recordings = shared::sharedRecordings(QUELTA_SHARED_RECORDINGS);
  if (recordings.empty()) GTEST_SKIP() << "no shared recordings";
#if !QUELTA_REPLAY_HAVE_ZLIB
  GTEST_SKIP() << "built without zlib";
#endif
  for (const shared::SharedRecording& recording : recordings) {
    RecordingReader reader;
    ASSERT_TRUE(reader.open(recording.path, {})) << reader.error().describe();
    RecordedSample sample;
    size_t withAttitude = 0;
    while (reader.next(sample)) withAttitude += sample.hasAttitude;
    ASSERT_FALSE(reader.failed()) << reader.error().describe();
    // Every row the sidecar announces is read, none invented.
    EXPECT_GT(reader.samplesRead(), 0u) << recording.path;
    if (recording.sidecarRows >= 0) EXPECT_EQ(reader.samplesRead(), static_cast<size_t>(recording.sidecarRows)) << recording.path;
    EXPECT_TRUE(reader.hasAttitudeColumns() && reader.hasGyroColumns());
    EXPECT_EQ(withAttitude + reader.missingAttitude(), reader.samplesRead());
    if (recording.name.find("_calib_") != std::string::npos) {
      EXPECT_EQ(withAttitude, 0u) << recording.path;  // calibration recordings have no truth at all
    }
    if (recording.name == "broad_21_fast_combined") {
      EXPECT_GT(reader.missingAttitude(), 0u);  // starts with a gap
      EXPECT_GT(withAttitude, reader.samplesRead() / 2);
    }
  }
}

}  // namespace
}  // namespace quelta::replay
