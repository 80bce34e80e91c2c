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
  bool help = false;
};

// Parses argv[1..]. False with a message in problem on a usage error.
bool parseOptions(const std::vector<std::string>& args, Options& out, std::string& problem);

const char* usageText();

}  // namespace quelta::replay
