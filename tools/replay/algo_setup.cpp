// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/algo_setup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace quelta::replay {

namespace {

bool parseFloat(const std::string& text, float& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtof(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno != ERANGE && std::isfinite(value);
}

bool parseInt(const std::string& text, int32_t& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long parsed = std::strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + text.size() || errno == ERANGE || parsed < INT32_MIN || parsed > INT32_MAX) {
    return false;
  }
  value = static_cast<int32_t>(parsed);
  return true;
}

std::vector<std::string> splitOn(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream stream(text);
  while (std::getline(stream, part, separator)) parts.push_back(part);
  if (!text.empty() && text.back() == separator) parts.push_back("");
  return parts;
}

template <typename T, size_t N, typename Parse>
bool parseParts(const std::vector<std::string>& parts, std::array<T, N>& out, Parse parse) {
  if (parts.size() != N) return false;
  std::array<T, N> values{};
  for (size_t i = 0; i < N; ++i) {
    if (!parse(parts[i], values[i])) return false;
  }
  out = values;
  return true;
}

std::string formatFloat(float value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", static_cast<double>(value));
  return text;
}

// For messages: six significant digits.
std::string shortFloat(float value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", static_cast<double>(value));
  return text;
}

template <typename T, size_t N>
void appendLine(std::string& text, const char* key, const std::array<T, N>& values) {
  text += key;
  for (T value : values) {
    text += ' ';
    if constexpr (std::is_same_v<T, float>) {
      text += formatFloat(value);
    } else {
      text += std::to_string(value);
    }
  }
  text += '\n';
}

}  // namespace

template <size_t N>
bool parseList(const std::string& text, std::array<float, N>& out) {
  return parseParts(splitOn(text, ','), out, parseFloat);
}
template <size_t N>
bool parseList(const std::string& text, std::array<int32_t, N>& out) {
  return parseParts(splitOn(text, ','), out, parseInt);
}
template bool parseList<3>(const std::string&, std::array<float, 3>&);
template bool parseList<8>(const std::string&, std::array<float, 8>&);
template bool parseList<9>(const std::string&, std::array<float, 9>&);
template bool parseList<2>(const std::string&, std::array<int32_t, 2>&);

void SetupOverrides::applyTo(AlgoSetup& setup) const {
  if (offset) {
    for (int i = 0; i < 3; ++i) setup.stored[i] = (*offset)[i];
  }
  if (radius) setup.stored[3] = *radius;
  if (axis) setup.axis = *axis;
  if (pool) setup.pool = *pool;
  if (thresholds) setup.thresholds = *thresholds;
  if (windows) setup.windows = *windows;
}

std::string storedCalibrationProblem(const AlgoSetup& setup) {
  const std::array<float, 4>& stored = setup.stored;
  bool finite = true;
  for (float value : stored) finite = finite && std::isfinite(value);
  if (finite && stored[0] == 0.0f && stored[1] == 0.0f && stored[2] == 0.0f) return "";  // none
  auto list = [&stored](size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += (i ? " " : "") + shortFloat(stored[i]);
    return text;
  };
  if (!finite) return "stored calibration (offset " + list(3) + ", radius " + shortFloat(stored[3]) +
                      ") is not finite";
  if (!(stored[3] > kMinStoredRadius && stored[3] < kMaxStoredRadius)) {
    return "stored radius " + shortFloat(stored[3]) + " gauss is outside the band the library accepts (" +
           shortFloat(kMinStoredRadius) + " to " + shortFloat(kMaxStoredRadius) + " gauss)";
  }
  return "";
}

std::string dropImplausibleStoredCalibration(AlgoSetup& setup) {
  std::string problem = storedCalibrationProblem(setup);
  if (!problem.empty()) setup.stored = AlgoSetup{}.stored;
  return problem;
}

bool parseCalibrationFile(const std::string& text, SetupOverrides& out, std::string& problem) {
  out = SetupOverrides{};
  // A byte-order mark from an editor is no part of the first key.
  std::istringstream lines(text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? text.substr(3) : text);
  std::string line;
  int lineNumber = 0;
  while (std::getline(lines, line)) {
    ++lineNumber;
    const size_t hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    std::istringstream words(line);
    std::string key;
    if (!(words >> key)) continue;
    std::vector<std::string> values;
    for (std::string word; words >> word;) values.push_back(word);
    const std::string where = std::to_string(lineNumber) + ":" +
                              std::to_string(line.find(key) + 1) + ": ";
    bool ok = false;
    if (key == "offset") {
      std::array<float, 3> v{};
      ok = parseParts(values, v, parseFloat);
      if (ok) out.offset = v;
    } else if (key == "radius") {
      std::array<float, 1> v{};
      ok = parseParts(values, v, parseFloat);
      if (ok) out.radius = v[0];
    } else if (key == "axis") {
      std::array<float, 9> v{};
      ok = parseParts(values, v, parseFloat);
      if (ok) out.axis = v;
    } else if (key == "pool") {
      std::array<float, 8> v{};
      ok = parseParts(values, v, parseFloat);
      if (ok) out.pool = v;
    } else if (key == "thresholds") {
      std::array<float, 3> v{};
      ok = parseParts(values, v, parseFloat);
      if (ok) out.thresholds = v;
    } else if (key == "windows") {
      std::array<int32_t, 2> v{};
      ok = parseParts(values, v, parseInt);
      if (ok) out.windows = v;
    } else {
      problem = where + "unknown key '" + key + "'";
      return false;
    }
    if (!ok) {
      problem = where + "bad or missing values for '" + key + "'";
      return false;
    }
  }
  return true;
}

bool readCalibrationFile(const std::string& path, SetupOverrides& out, bool& found, std::string& problem) {
  out = SetupOverrides{};
  found = false;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return true;
    problem = path + ": cannot open the calibration: " + std::strerror(errno);
    return false;
  }
  found = true;
  std::string text;
  struct stat info;
  int error = fstat(fd, &info) == 0 && S_ISDIR(info.st_mode) ? EISDIR : 0;
  char buffer[4096];
  while (error == 0) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
      text.append(buffer, static_cast<size_t>(got));
      if (text.size() > (1u << 20)) error = EFBIG;  // a calibration is a few lines
    } else if (got == 0) {
      break;
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  ::close(fd);
  if (error != 0) {
    problem = path + ": cannot read the calibration: " + std::strerror(error);
    return false;
  }
  if (!parseCalibrationFile(text, out, problem)) {
    problem = path + ":" + problem;
    return false;
  }
  return true;
}

std::string formatCalibrationFile(const std::array<float, 3>& offset, float radius,
                                  const SetupOverrides& kept) {
  std::string text = "# QueltaAlgo stored calibration: offset and radius in gauss\n";
  appendLine(text, "offset", offset);
  appendLine(text, "radius", std::array<float, 1>{radius});
  if (kept.axis) appendLine(text, "axis", *kept.axis);
  if (kept.pool) appendLine(text, "pool", *kept.pool);
  if (kept.thresholds) appendLine(text, "thresholds", *kept.thresholds);
  if (kept.windows) appendLine(text, "windows", *kept.windows);
  return text;
}

}  // namespace quelta::replay
