// SPDX-License-Identifier: Apache-2.0
// A sensor recording as read from CSV: one sample per row, a header naming
// the columns. Required: t, ax ay az, mx my mz. Optional reference
// columns: gx gy gz (gyroscope, rad/s) and qw qx qy qz (device to
// east-north-up attitude). Values are converted to seconds, g and gauss on
// reading. Columns of other names (an Android logger's timestamp_ns,
// acc_x, ...) are given their meaning with ColumnNames.
//
// Sensors sampled at different rates leave cells empty: a row whose field
// (mx my mz) or gyroscope (gx gy gz) cells are all empty or "nan" carries
// no reading of that sensor (hasMag, hasGyro false).
//
// The file may be gzip-compressed (recognised by its content, not its name),
// may start with a UTF-8 byte-order mark, and "-" names standard input.
// Header names are matched in any letter case and may be quoted. Blank
// lines and lines starting with '#' are skipped; unknown columns are
// ignored. A reference value may be empty or "nan" where the reference has
// no value (motion capture loses sight of the device): the sample is then
// marked as having no reference and is left out of every comparison.
// Sensor values must be finite once converted to float.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quelta::replay {

enum class AccUnit { G, MetresPerSecond2 };
enum class MagUnit { Gauss, Microtesla };
enum class TimeUnit { Seconds, Milliseconds, Microseconds, Nanoseconds };

struct Units {
  AccUnit acc = AccUnit::G;
  MagUnit mag = MagUnit::Gauss;
  TimeUnit time = TimeUnit::Seconds;
};

// Seconds per unit of time, as a divisor: t_s = t / divisor (1, 1e3, 1e6,
// 1e9). Dividing keeps whole nanoseconds of a decimal time exact: 20000000
// ns reads as the same double as 0.02 s.
double timeDivisor(TimeUnit unit);
// "s", "ms", "us", "ns".
const char* timeUnitName(TimeUnit unit);

// Header names of the recording's columns, by meaning: rename[key] is the
// header name (any letter case) of the column that holds key (one of t ax
// ay az mx my mz gx gy gz qw qx qy qz). A key without a rename keeps its
// own name; a column named like a renamed key is then ignored.
struct ColumnNames {
  std::vector<std::pair<std::string, std::string>> rename;  // key, header name
};

// Parses "t=timestamp_ns,ax=acc_x,..." (what --columns takes). False with
// a reason in problem on an unknown key, a key given twice, two keys on one
// column or a missing name.
bool parseColumnNames(const std::string& text, ColumnNames& out, std::string& problem);

struct RecordedSample {
  double t = 0.0;                        // seconds
  std::array<double, 3> acc{};           // g
  std::array<double, 3> mag{};           // gauss, when hasMag (else 0)
  std::array<double, 3> gyro{};          // rad/s, when hasGyro
  std::array<double, 4> attitude{1, 0, 0, 0};  // w, x, y, z, when hasAttitude
  bool hasMag = true;        // this row has a field reading
  bool hasGyro = false;      // this sample has a reference rate
  bool hasAttitude = false;  // this sample has a reference attitude
};

// A problem with the input, located as precisely as it can be: line and
// column are 1-based, 0 when they do not apply.
struct InputError {
  std::string file;
  int line = 0;
  int column = 0;
  std::string message;

  std::string describe() const;  // "file:line:column: message"
};

// Reads a recording one sample at a time, holding only a small buffer, so
// that recordings of any length replay in constant memory.
//
//   RecordingReader reader;
//   if (!reader.open(path, units)) fail(reader.error().describe());
//   RecordedSample sample;
//   while (reader.next(sample)) { ... }
//   if (reader.failed()) fail(reader.error().describe());
//
// open() reads up to the header row. The first problem stops the reader:
// next() returns false from then on and error() says what and where. A
// recording without a single sample is an error too.
class RecordingReader {
 public:
  RecordingReader();
  ~RecordingReader();
  RecordingReader(const RecordingReader&) = delete;
  RecordingReader& operator=(const RecordingReader&) = delete;

  // A file, or standard input for "-". Messages name the file as given
  // ("-" as "standard input").
  bool open(const std::string& path, const Units& units, const ColumnNames& columns = {});
  // The same from bytes in memory (plain or gzip), named name in messages.
  bool openBytes(std::string bytes, const std::string& name, const Units& units, const ColumnNames& columns = {});

  // The next sample; false at the end of the recording or on an error.
  bool next(RecordedSample& sample);

  // Reads ahead so that up to count samples wait to be returned by next(),
  // and returns them (fewer at the end of the recording or before an
  // error, which then shows in failed()). next() still returns each of them.
  const std::vector<RecordedSample>& peek(size_t count);

  bool failed() const { return failed_; }
  const InputError& error() const { return error_; }

  const std::string& name() const { return name_; }  // as used in messages
  bool hasGyroColumns() const;      // the header has gx gy gz
  bool hasAttitudeColumns() const;  // the header has qw qx qy qz

  // Counts over the samples returned by next() so far.
  size_t samplesRead() const { return samplesRead_; }
  size_t missingMag() const { return missingMag_; }            // rows without a field reading
  size_t missingGyro() const { return missingGyro_; }          // with gyro columns, no value
  size_t missingAttitude() const { return missingAttitude_; }  // with attitude columns, no value

 private:
  struct Parser;
  bool start(const Units& units, const ColumnNames& columns);
  bool readSample(RecordedSample& sample);
  // Records a parse error at the current line and the given column; always false.
  bool failAt(const std::string& message, int column);

  std::unique_ptr<Parser> parser_;
  std::string name_;
  InputError error_;
  bool failed_ = false;
  std::vector<RecordedSample> ahead_;
  size_t aheadPos_ = 0;
  size_t samplesRead_ = 0;
  size_t missingMag_ = 0;
  size_t missingGyro_ = 0;
  size_t missingAttitude_ = 0;
};

// Median interval between samples, robust to the odd dropped sample; 0.02 s
// for fewer than two samples.
double nominalPeriod(const std::vector<RecordedSample>& samples);

// A whole recording in memory, for tests and small files.
struct Recording {
  std::string name;  // file name, for messages and the summary
  bool hasGyro = false;      // gyro columns present
  bool hasAttitude = false;  // attitude columns present
  size_t missingMag = 0;       // rows without a field reading
  size_t missingGyro = 0;      // samples whose reference rate is missing
  size_t missingAttitude = 0;  // samples whose reference attitude is missing
  std::vector<RecordedSample> samples;

  double duration() const;
  double nominalPeriod() const { return replay::nominalPeriod(samples); }
};

// Parses CSV text (plain or gzip). Returns false and fills error on the
// first problem.
bool parseRecording(const std::string& text, const std::string& fileName, const Units& units,
                    Recording& out, InputError& error, const ColumnNames& columns = {});

// Reads and parses a file ("-": standard input).
bool readRecording(const std::string& path, const Units& units, Recording& out, InputError& error,
                   const ColumnNames& columns = {});

}  // namespace quelta::replay
