// An output written under a temporary name beside its target and renamed
// into place only when complete: a failed run leaves nothing half-written.
#pragma once

#include <cstdio>
#include <string>

namespace quelta::replay {

class OutputFile {
 public:
  explicit OutputFile(std::string path) : path_(std::move(path)) {}
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  bool open(std::string& problem);
  FILE* stream() const { return stream_; }
  // Closes the temporary file and renames it to the target.
  bool commit(std::string& problem);

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string temporary_;
  FILE* stream_ = nullptr;
};

// Writes text to path through an OutputFile.
bool writeFileAtomically(const std::string& path, const std::string& text, std::string& problem);

}  // namespace quelta::replay
