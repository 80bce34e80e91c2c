#include "tools/replay/cli_options.h"

#include "include/QueltaAlgo.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>

namespace quelta::replay {

const char* usageText() {
  return "usage: quelta-replay [RECORDING] [options]\n"
         "Replays a sensor recording (CSV, or CSV compressed with gzip; - reads\n"
         "standard input) through calibration, orientation, virtual gyroscope and\n"
         "rotation vector and prints a summary. Without RECORDING the bundled\n"
         "recording is replayed. Every option takes its value as a separate argument\n"
         "or after '=' (--out out.csv, --out=out.csv).\n"
         "\n"
         "  --out FILE.csv          one output row per sample\n"
         "  --report FILE.html      self-contained visual report\n"
         "  --log FILE              the library's log lines, each prefixed with the\n"
         "                          sample index and time (\"[#120 t=2.400] \")\n"
         "  --log-mode N            log mode of all three pipelines (default 1: all lines)\n"
         "  --calibration FILE      start from the stored calibration in FILE (if it\n"
         "                          exists) and write the final accepted one back\n"
         "  --acc-unit g|m/s2       accelerometer unit of the recording (default g)\n"
         "  --mag-unit gauss|uT     magnetometer unit of the recording (default gauss)\n"
         "  --axis A,B,...,I        axis matrix, 9 values row-major\n"
         "  --pool MIN,MID,FULL,EARLY,LATE,LOW,HIGH,MAXDIST\n"
         "                          pool counts, spacings (gauss), ratio band\n"
         "  --thresholds MOVING,FROZEN,STILL\n"
         "                          variance thresholds\n"
         "  --windows MEDIAN,MEAN   azimuth smoothing window lengths\n"
         "  --version               the version\n"
         "  --help                  this text\n"
         "\n"
         "Recording columns (header names in any case, quoted or not): t (s), ax ay az,\n"
         "mx my mz; optional gx gy gz (reference gyroscope, rad/s) and qw qx qy qz\n"
         "(reference device-to-east-north-up attitude). Reference values may be empty\n"
         "or nan where the reference has none; those samples are left out of the\n"
         "comparisons. A warning before the replay says when the data contradict the\n"
         "units (for instance a field in microtesla read as gauss).\n"
         "Exit status: 0 success, 1 bad input or output failure, 2 usage error.\n";
}

bool parseOptions(const std::vector<std::string>& args, Options& out, std::string& problem) {
  out = Options{};
  bool optionsEnded = false;  // after "--" every argument is a recording
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    // "-" (standard input) and anything after "--" name the recording.
    if (optionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
      if (!out.recording.empty()) {
        problem = "more than one recording given: '" + out.recording + "' and '" + arg + "'";
        return false;
      }
      out.recording = arg;
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    // --name=value or --name value
    const size_t equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    if (name == "--help" || name == "-h" || name == "--version") {
      if (equals != std::string::npos) {
        problem = "option " + name + " takes no value";
        return false;
      }
      (name == "--version" ? out.version : out.help) = true;
      continue;
    }
    static const char* const kValueOptions[] = {"--out",  "--report", "--log",        "--log-mode", "--calibration",
                                                "--acc-unit", "--mag-unit", "--axis", "--pool", "--thresholds",
                                                "--windows"};
    if (std::find(std::begin(kValueOptions), std::end(kValueOptions), name) == std::end(kValueOptions)) {
      problem = "unknown option " + name;
      return false;
    }
    std::string value;
    if (equals != std::string::npos) {
      value = arg.substr(equals + 1);
    } else if (i + 1 < args.size()) {
      value = args[++i];
    } else {
      problem = "option " + name + " needs a value";
      return false;
    }
    if (value.empty()) {
      problem = "option " + name + " needs a value";
      return false;
    }
    bool ok = true;
    if (name == "--out") {
      out.outCsv = value;
    } else if (name == "--report") {
      out.reportHtml = value;
    } else if (name == "--log") {
      out.logFile = value;
    } else if (name == "--log-mode") {
      char* end = nullptr;
      errno = 0;
      const long mode = std::strtol(value.c_str(), &end, 10);
      ok = *end == '\0' && errno == 0 && mode >= -1000 && mode <= 1000;
      out.logMode = static_cast<int>(mode);
    } else if (name == "--calibration") {
      out.calibrationFile = value;
    } else if (name == "--acc-unit") {
      ok = value == "g" || value == "m/s2" || value == "mps2";
      out.units.acc = value == "g" ? AccUnit::G : AccUnit::MetresPerSecond2;
    } else if (name == "--mag-unit") {
      ok = value == "gauss" || value == "uT";
      out.units.mag = value == "gauss" ? MagUnit::Gauss : MagUnit::Microtesla;
    } else if (name == "--axis") {
      std::array<float, 9> v{};
      ok = parseList(value, v);
      if (ok) out.setup.axis = v;
    } else if (name == "--pool") {
      std::array<float, 8> v{};
      ok = parseList(value, v);
      if (ok) out.setup.pool = v;
    } else if (name == "--thresholds") {
      std::array<float, 3> v{};
      ok = parseList(value, v);
      if (ok) out.setup.thresholds = v;
    } else if (name == "--windows") {
      std::array<int32_t, 2> v{};
      ok = parseList(value, v);
      if (ok) out.setup.windows = v;
    }
    if (!ok) {
      problem = "bad value '" + value + "' for " + name;
      return false;
    }
  }
  return true;
}

std::string versionText() { return std::string("quelta-replay ") + QUELTA_ALGO_VERSION_STRING + "\n"; }

}  // namespace quelta::replay
