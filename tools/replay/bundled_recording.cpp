// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/bundled_recording.h"

#include <unistd.h>

#include <climits>
#include <fstream>
#include <vector>

#ifndef QUELTA_SOURCE_DATA_DIR
#define QUELTA_SOURCE_DATA_DIR "data"
#endif

namespace quelta::replay {

namespace {

constexpr const char* kFileName = "handheld.csv";

std::string executableDirectory() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "";
  std::string exe(path, static_cast<size_t>(length));
  const size_t slash = exe.rfind('/');
  return slash == std::string::npos ? "" : exe.substr(0, slash);
}

bool exists(const std::string& path) { return std::ifstream(path).good(); }

}  // namespace

std::string findBundledRecording() {
  std::vector<std::string> candidates;
  const std::string exeDir = executableDirectory();
  if (!exeDir.empty()) {
    candidates.push_back(exeDir + "/../share/quelta/" + kFileName);
    candidates.push_back(exeDir + "/data/" + kFileName);
  }
  candidates.push_back(std::string(QUELTA_SOURCE_DATA_DIR) + "/" + kFileName);
  for (const std::string& candidate : candidates) {
    if (exists(candidate)) return candidate;
  }
  return "";
}

}  // namespace quelta::replay
