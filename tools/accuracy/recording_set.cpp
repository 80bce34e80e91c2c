// SPDX-License-Identifier: Apache-2.0
#include "tools/accuracy/recording_set.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <sstream>

namespace quelta::accuracy {

namespace {

// A small JSON reader, enough for the sidecars: values are kept as their
// text, objects flattened to dotted keys, arrays indexed ("a.0.b").
class FlatJson {
 public:
  explicit FlatJson(const std::string& text) : s_(text) { ok_ = value("") && (skip(), pos_ == s_.size()); }
  bool ok() const { return ok_; }
  bool has(const std::string& key) const { return values_.count(key) != 0; }
  std::string text(const std::string& key) const {
    auto it = values_.find(key);
    return it == values_.end() ? std::string() : it->second;
  }
  double number(const std::string& key, double fallback) const {
    auto it = values_.find(key);
    if (it == values_.end() || it->second == "null") return fallback;
    return std::strtod(it->second.c_str(), nullptr);
  }

 private:
  void skip() {
    while (pos_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[pos_]))) ++pos_;
  }
  bool string(std::string& out) {
    if (s_[pos_] != '"') return false;
    ++pos_;
    while (pos_ < s_.size() && s_[pos_] != '"') {
      if (s_[pos_] == '\\' && pos_ + 1 < s_.size()) ++pos_;
      out += s_[pos_++];
    }
    if (pos_ >= s_.size()) return false;
    ++pos_;
    return true;
  }
  bool value(const std::string& key) {
    skip();
    if (pos_ >= s_.size()) return false;
    const std::string prefix = key.empty() ? key : key + ".";
    if (s_[pos_] == '{') {
      ++pos_;
      skip();
      if (s_[pos_] == '}') return ++pos_, true;
      for (;;) {
        skip();
        std::string name;
        if (!string(name)) return false;
        skip();
        if (s_[pos_++] != ':') return false;
        if (!value(prefix + name)) return false;
        skip();
        if (s_[pos_] == ',') {
          ++pos_;
          continue;
        }
        if (s_[pos_] == '}') return ++pos_, true;
        return false;
      }
    }
    if (s_[pos_] == '[') {
      ++pos_;
      skip();
      if (s_[pos_] == ']') return ++pos_, true;
      for (int index = 0;; ++index) {
        if (!value(prefix + std::to_string(index))) return false;
        skip();
        if (s_[pos_] == ',') {
          ++pos_;
          continue;
        }
        if (s_[pos_] == ']') return ++pos_, true;
        return false;
      }
    }
    if (s_[pos_] == '"') {
      std::string text;
      if (!string(text)) return false;
      values_[key] = text;
      return true;
    }
    const size_t start = pos_;
    while (pos_ < s_.size() && s_[pos_] != ',' && s_[pos_] != '}' && s_[pos_] != ']' &&
           !std::isspace(static_cast<unsigned char>(s_[pos_])))
      ++pos_;
    values_[key] = s_.substr(start, pos_ - start);
    return pos_ > start;
  }

  const std::string& s_;
  size_t pos_ = 0;
  bool ok_ = false;
  std::map<std::string, std::string> values_;
};

}  // namespace

std::array<double, 3> TruthRecording::offsetAt(double t) const {
  const OffsetPhase* best = nullptr;
  double bestDistance = std::numeric_limits<double>::infinity();
  for (const OffsetPhase& p : phases) {
    const double d = t < p.from ? p.from - t : (t > p.to ? t - p.to : 0.0);
    if (d < bestDistance) {
      bestDistance = d;
      best = &p;
    }
  }
  return best == nullptr ? std::array<double, 3>{} : best->offset;
}

bool readSidecar(const std::string& path, SidecarFacts& out, std::string& problem) {
  out = SidecarFacts{};
  std::ifstream sidecarFile(path);
  std::stringstream sidecarText;
  sidecarText << sidecarFile.rdbuf();
  const std::string sidecarString = sidecarText.str();
  FlatJson json(sidecarString);
  if (!json.ok()) return problem = "cannot read the sidecar", false;
  out.disturbance = json.text("disturbance");
  for (int k = 0; k < 3; ++k)
    out.gyroBiasVsTruth[k] = json.number("gyro_bias_vs_truth_rad_s." + std::to_string(k), 0.0);
  const std::string base = "truth_aided_calibration.";
  if (!json.has(base + "world_field_gauss.0")) return true;
  out.hasTruth = true;
  for (int k = 0; k < 3; ++k) out.worldField[k] = json.number(base + "world_field_gauss." + std::to_string(k), 0.0);
  if (json.has(base + "offset_gauss.0")) {
    OffsetPhase p;
    for (int k = 0; k < 3; ++k) p.offset[k] = json.number(base + "offset_gauss." + std::to_string(k), 0.0);
    out.phases.push_back(p);
  }
  for (int i = 0; json.has(base + "phases." + std::to_string(i) + ".offset_gauss.0"); ++i) {
    const std::string phase = base + "phases." + std::to_string(i) + ".";
    OffsetPhase p;
    p.from = json.number(phase + "from_s", -1e300);
    p.to = json.number(phase + "to_s", 1e300);
    for (int k = 0; k < 3; ++k) p.offset[k] = json.number(phase + "offset_gauss." + std::to_string(k), 0.0);
    out.phases.push_back(p);
    out.phased = true;
  }
  return true;
}

bool loadTruthRecording(const std::string& directory, const std::string& name, TruthRecording& out,
                        std::string& problem) {
  out = TruthRecording{};
  out.name = name;
  const bool iPhone = name.rfind("i4s_", 0) == 0 || name.rfind("i5_", 0) == 0;
  out.phone = iPhone || name.rfind("n5_", 0) == 0;
  out.kind = iPhone ? "iPhone" : (out.phone ? "phone" : "board");
  SidecarFacts sidecar;
  if (!readSidecar(directory + "/" + name + ".json", sidecar, problem)) return false;
  if (!sidecar.hasTruth) return problem = "no truth", false;
  out.disturbance = sidecar.disturbance;
  out.worldField = sidecar.worldField;
  out.phases = sidecar.phases;
  out.gyroBiasVsTruth = sidecar.gyroBiasVsTruth;
  replay::InputError error;
  if (!replay::readRecording(directory + "/" + name + ".csv.gz", replay::Units{}, out.recording, error)) {
    problem = error.describe();
    return false;
  }
  out.recording.name = name;
  // Samples without truth carry a NaN attitude: every measure leaves them out.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (replay::RecordedSample& s : out.recording.samples) {
    if (!s.hasAttitude) s.attitude = {nan, nan, nan, nan};
  }
  return true;
}

std::vector<std::string> listRecordings(const std::string& directory) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    const std::string file = entry->d_name;
    const std::string suffix = ".csv.gz";
    if (file.size() > suffix.size() && file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0) {
      const std::string name = file.substr(0, file.size() - suffix.size());
      std::ifstream sidecar(directory + "/" + name + ".json");
      if (sidecar) names.push_back(name);
    }
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

replay::Recording decimate(const replay::Recording& in, int n) {
  replay::Recording out;
  out.name = in.name;
  out.hasGyro = in.hasGyro;
  out.hasAttitude = in.hasAttitude;
  for (size_t end = static_cast<size_t>(n); end <= in.samples.size(); end += static_cast<size_t>(n)) {
    replay::RecordedSample s = in.samples[end - 1];
    s.acc = s.mag = s.gyro = {};
    for (size_t i = end - n; i < end; ++i) {
      for (int k = 0; k < 3; ++k) {
        s.acc[k] += in.samples[i].acc[k] / n;
        s.mag[k] += in.samples[i].mag[k] / n;
        s.gyro[k] += in.samples[i].gyro[k] / n;
      }
    }
    out.samples.push_back(s);
  }
  return out;
}

}  // namespace quelta::accuracy
