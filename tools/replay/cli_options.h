// SPDX-License-Identifier: Apache-2.0
// Command line of quelta-replay.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/replay/algo_setup.h"
#include "tools/replay/recording.h"

namespace quelta::replay {

enum class Engine { Algo, Compass };

// Where the recording was made: degrees, height in metres above the ellipsoid.
struct Location {
  double latitudeDeg = 0.0;
  double longitudeDeg = 0.0;
  double heightM = 0.0;
};

struct Options {
  std::string recording;        // empty: the bundled recording
  std::string outCsv;           // --out
  std::string reportHtml;       // --report
  std::string logFile;          // --log
  int logMode = 1;              // --log-mode, for all three pipelines
  std::string calibrationFile;  // --calibration
  Units units;                  // --acc-unit, --mag-unit, --time-unit
  ColumnNames columns;          // --columns KEY=NAME,...
  SetupOverrides setup;         // --axis, --pool, --thresholds, --windows
  Engine engine = Engine::Compass;  // --engine compass|algo
  std::optional<Location> location;  // --location LAT,LON[,HEIGHT_M] (compass)
  std::string date;                  // --date YYYY-MM-DD (compass), empty when not given
  bool gyro = false;                 // --gyro: feed gx gy gz to the compass
  bool help = false;             // --help, -h
  bool version = false;          // --version
};

// Parses argv[1..]. Every option with a value takes it as --name=value or
// --name value; "-" names standard input, and after "--" every argument is
// taken for a recording. False with a message in problem on a usage error.
bool parseOptions(const std::vector<std::string>& args, Options& out, std::string& problem);

const char* usageText();

// "LAT,LON[,HEIGHT_M]": latitude -90..90, longitude -180..360, height in
// metres (default 0) within what the field model accepts.
bool parseLocation(const std::string& text, Location& out);
// "YYYY-MM-DD", a real calendar date in the years 1900 to 2100.
bool parseDate(const std::string& text);

// "quelta-replay VERSION\n", the library's version from its header.
std::string versionText();

}  // namespace quelta::replay
