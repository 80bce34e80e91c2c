// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/cli_options.h"

#include "include/QueltaAlgo.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace quelta::replay {

const char* usageText() {
  return "usage: quelta-replay [RECORDING] [options]\n"
         "Replays a sensor recording (CSV, or CSV compressed with gzip; - reads\n"
         "standard input) through libquelta's compass (or, with --engine algo, the\n"
         "fixed pipelines of QueltaAlgo.so) and prints a summary; errors against the\n"
         "recording's reference columns are judged from 10 s after the start. Without\n"
         "RECORDING the bundled recording is replayed. Every option takes its value as\n"
         "a separate argument or after '=' (--out out.csv, --out=out.csv).\n"
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
         "  --time-unit s|ms|us|ns  unit of the recording's times (default s; Android's\n"
         "                          SensorEvent.timestamp is in ns)\n"
         "  --columns KEY=NAME,...  header names of the columns, by meaning, where they\n"
         "                          differ: KEY is one of t ax ay az mx my mz gx gy gz\n"
         "                          qw qx qy qz (for instance t=timestamp_ns,ax=acc_x)\n"
         "  --axis A,B,...,I        axis matrix, 9 values row-major\n"
         "  --pool MIN,MID,FULL,EARLY,LATE,LOW,HIGH,MAXDIST\n"
         "                          pool counts, spacings (gauss), ratio band\n"
         "  --thresholds MOVING,FROZEN,STILL\n"
         "                          variance thresholds\n"
         "  --windows MEDIAN,MEAN   azimuth smoothing window lengths\n"
         "  --engine compass|algo   what replays the recording: libquelta's compass\n"
         "                          (default: hard- and soft-iron calibration, disturbance,\n"
         "                          attitude filter) or the fixed pipelines of QueltaAlgo.so\n"
         "  --location LAT,LON[,HEIGHT_M]\n"
         "                          where the recording was made (degrees, height in metres\n"
         "                          above the ellipsoid, default 0); with --date the field\n"
         "                          model gives the compass the expected strength and dip\n"
         "                          and the declination, so headings refer to true north\n"
         "  --date YYYY-MM-DD       when the recording was made (with --location)\n"
         "  --gyro                  feed the recording's gx gy gz to the compass; its rate is\n"
         "                          then compared with the rate derived from the reference\n"
         "                          attitude\n"
         "  --version               the version\n"
         "  --help                  this text\n"
         "\n"
         "Recording columns (header names in any case, quoted or not): t, ax ay az,\n"
         "mx my mz; optional gx gy gz (gyroscope, rad/s) and qw qx qy qz (reference\n"
         "device-to-east-north-up attitude). Rows of sensors at different rates may\n"
         "leave the field or gyroscope cells empty (or nan): the compass gets no\n"
         "reading of that sensor there, the fixed pipelines the previous field.\n"
         "Reference values may be empty or nan where the reference has none; those\n"
         "samples are left out of the comparisons. A warning before the replay says\n"
         "when the data contradict the units (for instance a field in microtesla read\n"
         "as gauss, or times in nanoseconds read as seconds).\n"
         "--log, --log-mode, --axis, --pool, --thresholds and --windows set up the fixed\n"
         "pipelines; --location, --date and --gyro the compass. --calibration is the\n"
         "compass's saved calibration record (restored when the file exists, written\n"
         "when the run ends with a better calibration), or with --engine algo the\n"
         "fixed pipelines' calibration file.\n"
         "Exit status: 0 success, 1 bad input or output failure, 2 usage error.\n";
}

bool parseOptions(const std::vector<std::string>& args, Options& out, std::string& problem) {
  out = Options{};
  bool optionsEnded = false;  // after "--" every argument is a recording
  std::vector<std::string> given;  // options with a value, as named
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
    if (name == "--help" || name == "-h" || name == "--version" || name == "--gyro") {
      if (equals != std::string::npos) {
        problem = "option " + name + " takes no value";
        return false;
      }
      (name == "--version" ? out.version : name == "--gyro" ? out.gyro : out.help) = true;
      continue;
    }
    static const char* const kValueOptions[] = {"--out",  "--report", "--log",        "--log-mode", "--calibration",
                                                "--acc-unit", "--mag-unit", "--time-unit", "--columns", "--axis", "--pool", "--thresholds",
                                                "--windows", "--engine", "--location", "--date"};
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
    given.push_back(name);
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
    } else if (name == "--time-unit") {
      static const std::pair<const char*, TimeUnit> kTimeUnits[] = {
          {"s", TimeUnit::Seconds}, {"ms", TimeUnit::Milliseconds}, {"us", TimeUnit::Microseconds},
          {"ns", TimeUnit::Nanoseconds}};
      ok = false;
      for (const auto& [text, unit] : kTimeUnits) {
        if (value == text) {
          out.units.time = unit;
          ok = true;
        }
      }
    } else if (name == "--columns") {
      std::string why;
      ok = parseColumnNames(value, out.columns, why);
      if (!ok) {
        problem = "bad value '" + value + "' for --columns: " + why + " (KEY=NAME,...)";
        return false;
      }
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
    } else if (name == "--engine") {
      ok = value == "algo" || value == "compass";
      out.engine = value == "compass" ? Engine::Compass : Engine::Algo;
    } else if (name == "--location") {
      Location location;
      ok = parseLocation(value, location);
      if (ok) out.location = location;
    } else if (name == "--date") {
      ok = parseDate(value);
      if (ok) out.date = value;
    } else if (name == "--windows") {
      std::array<int32_t, 2> v{};
      ok = parseList(value, v);
      if (ok) out.setup.windows = v;
    }
    if (!ok) {
      problem = "bad value '" + value + "' for " + name;
      if (name == "--location") problem += " (LAT,LON[,HEIGHT_M]: degrees, height in metres)";
      if (name == "--date") problem += " (YYYY-MM-DD)";
      return false;
    }
  }
  // Options of one engine are refused with the other, rather than ignored.
  auto named = [&given](const char* option) { return std::find(given.begin(), given.end(), option) != given.end(); };
  if (out.engine == Engine::Algo) {
    for (const char* option : {"--location", "--date"}) {
      if (named(option)) {
        problem = std::string("option ") + option + " needs --engine compass";
        return false;
      }
    }
    if (out.gyro) {
      problem = "option --gyro needs --engine compass";
      return false;
    }
  } else {
    for (const char* option : {"--log", "--log-mode", "--axis", "--pool", "--thresholds", "--windows"}) {
      if (named(option)) {
        problem = std::string("option ") + option + " sets up the fixed pipelines (--engine algo), not the compass";
        return false;
      }
    }
    if (out.location.has_value() != !out.date.empty()) {
      problem = "--location and --date go together: the field model needs both";
      return false;
    }
  }
  return true;
}

namespace {

// A finite number filling the whole text.
bool parseNumber(const std::string& text, double& out) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  errno = 0;
  out = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno == 0 && std::isfinite(out);
}

}  // namespace

bool parseLocation(const std::string& text, Location& out) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    parts.push_back(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  if (parts.size() < 2 || parts.size() > 3) return false;
  Location l;
  if (!parseNumber(parts[0], l.latitudeDeg) || !parseNumber(parts[1], l.longitudeDeg)) return false;
  if (parts.size() == 3 && !parseNumber(parts[2], l.heightM)) return false;
  // Heights as the field model takes them: -1 km to 100 000 km.
  if (std::fabs(l.latitudeDeg) > 90.0 || l.longitudeDeg < -180.0 || l.longitudeDeg > 360.0 || l.heightM < -1000.0 ||
      l.heightM > 1.0e8) {
    return false;
  }
  out = l;
  return true;
}

bool parseDate(const std::string& text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  const int year = std::stoi(text.substr(0, 4)), month = std::stoi(text.substr(5, 2)), day = std::stoi(text.substr(8, 2));
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  // The years the field model takes at all (it warns outside its validity).
  if (year < 1900 || year > 2100 || month < 1 || month > 12 || day < 1) return false;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

std::string versionText() { return std::string("quelta-replay ") + QUELTA_ALGO_VERSION_STRING + "\n"; }

}  // namespace quelta::replay
