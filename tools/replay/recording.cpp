#include "tools/replay/recording.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace quelta::replay {

namespace {

constexpr double kStandardGravity = 9.80665;  // m/s^2 per g
constexpr double kMicroteslaPerGauss = 100.0;

struct Field {
  std::string text;
  int column = 0;  // 1-based character position of the field's first character
};

std::vector<Field> splitFields(const std::string& line) {
  std::vector<Field> fields;
  size_t start = 0;
  while (true) {
    const size_t comma = line.find(',', start);
    const size_t end = comma == std::string::npos ? line.size() : comma;
    size_t first = start;
    size_t last = end;
    while (first < last && (line[first] == ' ' || line[first] == '\t')) ++first;
    while (last > first && (line[last - 1] == ' ' || line[last - 1] == '\t')) --last;
    fields.push_back({line.substr(first, last - first), static_cast<int>(first) + 1});
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return fields;
}

bool isBlankOrComment(const std::string& line) {
  const size_t first = line.find_first_not_of(" \t");
  return first == std::string::npos || line[first] == '#';
}

bool parseNumber(const std::string& text, double& value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno != ERANGE && std::isfinite(value);
}

// Column layout resolved from the header: index of each named column, -1 when absent.
struct Layout {
  int t = -1;
  std::array<int, 3> acc{-1, -1, -1};
  std::array<int, 3> mag{-1, -1, -1};
  std::array<int, 3> gyro{-1, -1, -1};
  std::array<int, 4> attitude{-1, -1, -1, -1};
};

template <size_t N>
int countPresent(const std::array<int, N>& columns) {
  return static_cast<int>(std::count_if(columns.begin(), columns.end(), [](int c) { return c >= 0; }));
}

bool resolveHeader(const std::vector<Field>& header, Layout& layout, std::string& problem,
                   int& problemColumn) {
  struct Named {
    const char* name;
    int* slot;
  };
  const Named names[] = {
      {"t", &layout.t},           {"ax", &layout.acc[0]},      {"ay", &layout.acc[1]},
      {"az", &layout.acc[2]},     {"mx", &layout.mag[0]},      {"my", &layout.mag[1]},
      {"mz", &layout.mag[2]},     {"gx", &layout.gyro[0]},     {"gy", &layout.gyro[1]},
      {"gz", &layout.gyro[2]},    {"qw", &layout.attitude[0]}, {"qx", &layout.attitude[1]},
      {"qy", &layout.attitude[2]}, {"qz", &layout.attitude[3]}};
  for (size_t i = 0; i < header.size(); ++i) {
    for (const Named& named : names) {
      if (header[i].text != named.name) continue;
      if (*named.slot >= 0) {
        problem = "duplicate column '" + header[i].text + "'";
        problemColumn = header[i].column;
        return false;
      }
      *named.slot = static_cast<int>(i);
    }
  }
  problemColumn = 0;
  for (const Named& named : names) {
    const std::string name = named.name;
    const bool required = name == "t" || name[0] == 'a' || name[0] == 'm';
    if (required && *named.slot < 0) {
      problem = "missing required column '" + name + "'";
      return false;
    }
  }
  const int gyroColumns = countPresent(layout.gyro);
  if (gyroColumns != 0 && gyroColumns != 3) {
    problem = "reference gyroscope needs all of gx, gy, gz";
    return false;
  }
  const int attitudeColumns = countPresent(layout.attitude);
  if (attitudeColumns != 0 && attitudeColumns != 4) {
    problem = "reference attitude needs all of qw, qx, qy, qz";
    return false;
  }
  return true;
}

std::vector<bool> markUsedColumns(const Layout& layout, size_t columnCount) {
  std::vector<bool> used(columnCount, false);
  auto mark = [&used](int column) {
    if (column >= 0) used[column] = true;
  };
  mark(layout.t);
  for (int c : layout.acc) mark(c);
  for (int c : layout.mag) mark(c);
  for (int c : layout.gyro) mark(c);
  for (int c : layout.attitude) mark(c);
  return used;
}

}  // namespace

double Recording::duration() const {
  return samples.size() < 2 ? 0.0 : samples.back().t - samples.front().t;
}

double Recording::nominalPeriod() const {
  if (samples.size() < 2) return 0.02;
  std::vector<double> intervals;
  intervals.reserve(samples.size() - 1);
  for (size_t i = 1; i < samples.size(); ++i) intervals.push_back(samples[i].t - samples[i - 1].t);
  std::nth_element(intervals.begin(), intervals.begin() + intervals.size() / 2, intervals.end());
  return intervals[intervals.size() / 2];
}

std::string InputError::describe() const {
  std::ostringstream text;
  text << file;
  if (line > 0) {
    text << ':' << line;
    if (column > 0) text << ':' << column;
  }
  text << ": " << message;
  return text.str();
}

bool parseRecording(const std::string& text, const std::string& fileName, const Units& units,
                    Recording& out, InputError& error) {
  out = Recording{};
  out.name = fileName;
  error = InputError{fileName, 0, 0, ""};
  const double accScale = units.acc == AccUnit::G ? 1.0 : 1.0 / kStandardGravity;
  const double magScale = units.mag == MagUnit::Gauss ? 1.0 : 1.0 / kMicroteslaPerGauss;

  std::istringstream lines(text);
  std::string line;
  int lineNumber = 0;
  bool haveHeader = false;
  Layout layout;
  size_t columnCount = 0;
  std::vector<std::string> columnNames;
  std::vector<bool> usedColumn;
  int previousTimeLine = 0;

  while (std::getline(lines, line)) {
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (isBlankOrComment(line)) continue;
    const std::vector<Field> fields = splitFields(line);

    if (!haveHeader) {
      std::string problem;
      int problemColumn = 0;
      if (!resolveHeader(fields, layout, problem, problemColumn)) {
        error.line = lineNumber;
        error.column = problemColumn;
        error.message = problem;
        return false;
      }
      haveHeader = true;
      columnCount = fields.size();
      for (const Field& field : fields) columnNames.push_back(field.text);
      usedColumn = markUsedColumns(layout, columnCount);
      out.hasGyro = layout.gyro[0] >= 0;
      out.hasAttitude = layout.attitude[0] >= 0;
      continue;
    }

    if (fields.size() != columnCount) {
      error.line = lineNumber;
      error.column = fields.size() > columnCount ? fields[columnCount].column
                                                 : static_cast<int>(line.size()) + 1;
      error.message = "expected " + std::to_string(columnCount) + " values, found " +
                      std::to_string(fields.size());
      return false;
    }
    std::vector<double> values(columnCount, 0.0);
    for (size_t i = 0; i < columnCount; ++i) {
      if (usedColumn[i] && !parseNumber(fields[i].text, values[i])) {
        error.line = lineNumber;
        error.column = fields[i].column;
        error.message = "column '" + columnNames[i] + "': '" + fields[i].text +
                        "' is not a finite number";
        return false;
      }
    }

    RecordedSample sample;
    sample.t = values[layout.t];
    for (int k = 0; k < 3; ++k) {
      sample.acc[k] = values[layout.acc[k]] * accScale;
      sample.mag[k] = values[layout.mag[k]] * magScale;
      if (out.hasGyro) sample.gyro[k] = values[layout.gyro[k]];
    }
    if (out.hasAttitude) {
      for (int k = 0; k < 4; ++k) sample.attitude[k] = values[layout.attitude[k]];
    }
    if (!out.samples.empty() && !(sample.t > out.samples.back().t)) {
      error.line = lineNumber;
      error.column = fields[layout.t].column;
      error.message = "time " + fields[layout.t].text + " does not increase (previous sample at line " +
                      std::to_string(previousTimeLine) + ")";
      return false;
    }
    previousTimeLine = lineNumber;
    out.samples.push_back(sample);
  }

  if (!haveHeader) {
    error.message = "empty recording: no header row";
    return false;
  }
  if (out.samples.empty()) {
    error.message = "no samples after the header row";
    return false;
  }
  return true;
}

bool readRecording(const std::string& path, const Units& units, Recording& out, InputError& error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = InputError{path, 0, 0, "cannot open the recording"};
    return false;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return parseRecording(text.str(), path, units, out, error);
}

}  // namespace quelta::replay
