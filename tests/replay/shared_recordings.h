// SPDX-License-Identifier: Apache-2.0
// The shared recordings as the tests see them: every `.csv.gz` with its
// sidecar's row count, so that tests hold for whatever set the folder has.
#ifndef QUELTA_TESTS_REPLAY_SHARED_RECORDINGS_H
#define QUELTA_TESTS_REPLAY_SHARED_RECORDINGS_H

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace quelta::replay::shared {

struct SharedRecording {
  std::string path;      // the .csv.gz
  std::string name;      // file name without .csv.gz
  long sidecarRows = -1; // "rows" of NAME.json, -1 when the sidecar has none
};

// Sorted by name; empty when the folder is missing.
inline std::vector<SharedRecording> sharedRecordings(const std::filesystem::path& directory) {
  std::vector<SharedRecording> found;
  if (directory.empty() || !std::filesystem::is_directory(directory)) return found;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string path = entry.path().string();
    if (path.size() < 7 || path.compare(path.size() - 7, 7, ".csv.gz") != 0) continue;
    SharedRecording r;
    r.path = path;
    r.name = entry.path().filename().string();
    r.name.resize(r.name.size() - 7);
    std::ifstream sidecar(directory / (r.name + ".json"));
    const std::string text((std::istreambuf_iterator<char>(sidecar)), std::istreambuf_iterator<char>());
    const size_t key = text.find("\"rows\"");
    if (key != std::string::npos) {
      const size_t colon = text.find(':', key);
      if (colon != std::string::npos) r.sidecarRows = std::strtol(text.c_str() + colon + 1, nullptr, 10);
    }
    found.push_back(r);
  }
  std::sort(found.begin(), found.end(),
            [](const SharedRecording& a, const SharedRecording& b) { return a.name < b.name; });
  return found;
}

}  // namespace quelta::replay::shared

#endif
