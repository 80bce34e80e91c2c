#include "tools/replay/cli_options.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace quelta::replay {

const char* usageText() {
  return "usage: quelta-replay [RECORDING] [options]\n"
         "Replays a sensor recording (CSV) through calibration, orientation, virtual\n"
         "gyroscope and rotation vector and prints a summary. Without RECORDING the\n"
         "bundled recording is replayed.\n"
         "\n"
         "  --out FILE.csv          one output row per sample\n"
         "  --report FILE.html      self-contained visual report\n"
         "  --log FILE              the library's log lines\n"
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
         "  --help                  this text\n"
         "\n"
         "Recording columns: t (s), ax ay az, mx my mz; optional gx gy gz (reference\n"
         "gyroscope, rad/s) and qw qx qy qz (reference device-to-east-north-up attitude).\n"
         "Exit status: 0 success, 1 bad input or output failure, 2 usage error.\n";
}

bool parseOptions(const std::vector<std::string>& args, Options& out, std::string& problem) {
  out = Options{};
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--help" || arg == "-h") {
      out.help = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) {
      if (!out.recording.empty()) {
        problem = "more than one recording given: '" + out.recording + "' and '" + arg + "'";
        return false;
      }
      out.recording = arg;
      continue;
    }
    static const char* const kValueOptions[] = {"--out",  "--report", "--log",        "--log-mode", "--calibration",
                                                "--acc-unit", "--mag-unit", "--axis", "--pool", "--thresholds",
                                                "--windows"};
    if (std::find(std::begin(kValueOptions), std::end(kValueOptions), arg) == std::end(kValueOptions)) {
      problem = "unknown option " + arg;
      return false;
    }
    if (i + 1 >= args.size()) {
      problem = "option " + arg + " needs a value";
      return false;
    }
    const std::string& value = args[++i];
    bool ok = true;
    if (arg == "--out") {
      out.outCsv = value;
    } else if (arg == "--report") {
      out.reportHtml = value;
    } else if (arg == "--log") {
      out.logFile = value;
    } else if (arg == "--log-mode") {
      char* end = nullptr;
      const long mode = std::strtol(value.c_str(), &end, 10);
      ok = !value.empty() && *end == '\0' && mode >= -1000 && mode <= 1000;
      out.logMode = static_cast<int>(mode);
    } else if (arg == "--calibration") {
      out.calibrationFile = value;
    } else if (arg == "--acc-unit") {
      ok = value == "g" || value == "m/s2" || value == "mps2";
      out.units.acc = value == "g" ? AccUnit::G : AccUnit::MetresPerSecond2;
    } else if (arg == "--mag-unit") {
      ok = value == "gauss" || value == "uT";
      out.units.mag = value == "gauss" ? MagUnit::Gauss : MagUnit::Microtesla;
    } else if (arg == "--axis") {
      std::array<float, 9> v{};
      ok = parseList(value, v);
      if (ok) out.setup.axis = v;
    } else if (arg == "--pool") {
      std::array<float, 8> v{};
      ok = parseList(value, v);
      if (ok) out.setup.pool = v;
    } else if (arg == "--thresholds") {
      std::array<float, 3> v{};
      ok = parseList(value, v);
      if (ok) out.setup.thresholds = v;
    } else if (arg == "--windows") {
      std::array<int32_t, 2> v{};
      ok = parseList(value, v);
      if (ok) out.setup.windows = v;
    }
    if (!ok) {
      problem = "bad value '" + value + "' for " + arg;
      return false;
    }
  }
  return true;
}

}  // namespace quelta::replay
