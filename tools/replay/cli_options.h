// Command line of quelta-replay.
#pragma once

#include <string>
#include <vector>

#include "tools/replay/algo_setup.h"
#include "tools/replay/recording.h"

namespace quelta::replay {

struct Options {
  std::string recording;        // empty: the bundled recording
  std::string outCsv;           // --out
  std::string reportHtml;       // --report
  std::string logFile;          // --log
  int logMode = 1;              // --log-mode, for all three pipelines
  std::string calibrationFile;  // --calibration
  Units units;                  // --acc-unit, --mag-unit
  SetupOverrides setup;         // --axis, --pool, --thresholds, --windows
  bool help = false;             // --help, -h
  bool version = false;          // --version
};

// Parses argv[1..]. Every option with a value takes it as --name=value or
// --name value; "-" names standard input, and after "--" every argument is
// taken for a recording. False with a message in problem on a usage error.
bool parseOptions(const std::vector<std::string>& args, Options& out, std::string& problem);

const char* usageText();

// "quelta-replay VERSION\n", the library's version from its header.
std::string versionText();

}  // namespace quelta::replay
