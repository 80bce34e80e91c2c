// A sensor recording as read from CSV: one sample per row, a header naming
// the columns. Required: t (s), ax ay az, mx my mz. Optional reference
// columns: gx gy gz (gyroscope, rad/s) and qw qx qy qz (device to
// east-north-up attitude). Values are converted to g and gauss on reading.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace quelta::replay {

enum class AccUnit { G, MetresPerSecond2 };
enum class MagUnit { Gauss, Microtesla };

struct Units {
  AccUnit acc = AccUnit::G;
  MagUnit mag = MagUnit::Gauss;
};

struct RecordedSample {
  double t = 0.0;                        // seconds
  std::array<double, 3> acc{};           // g
  std::array<double, 3> mag{};           // gauss
  std::array<double, 3> gyro{};          // rad/s, when hasGyro
  std::array<double, 4> attitude{1, 0, 0, 0};  // w, x, y, z, when hasAttitude
};

struct Recording {
  std::string name;  // file name, for messages and the summary
  bool hasGyro = false;
  bool hasAttitude = false;
  std::vector<RecordedSample> samples;

  double duration() const;
  // Median interval between samples, robust to the odd dropped sample.
  double nominalPeriod() const;
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

// Parses CSV text. Returns false and fills error on the first problem.
// Blank lines and lines starting with '#' are skipped; unknown columns are
// ignored.
bool parseRecording(const std::string& text, const std::string& fileName, const Units& units,
                    Recording& out, InputError& error);

// Reads and parses a file.
bool readRecording(const std::string& path, const Units& units, Recording& out, InputError& error);

}  // namespace quelta::replay
