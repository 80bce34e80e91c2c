// SPDX-License-Identifier: Apache-2.0
// The files the replay tool writes (--out, --report, --log, --calibration),
// written so that nothing is destroyed:
//   - a regular file (or a new one) is written under a temporary name beside
//     it and renamed over it only when complete, keeping its mode; a failed
//     or interrupted run leaves the old file as it was;
//   - a symbolic link is followed: the file it points to is written, the
//     link stays;
//   - anything else (a device, a FIFO, "-" for standard output, a name of
//     the standard output such as /dev/stdout) is written in place, as the
//     data come.
// A target whose mode bits allow no writing is refused, whoever runs the
// tool (root included). check() finds every problem before anything is
// written; temporaries are removed on SIGINT, SIGTERM, SIGHUP and SIGPIPE
// (see removeTemporariesOnSignals).
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace quelta::replay {

class OutputFile {
 public:
  enum class Kind { StandardOutput, Replace, InPlace };

  // option: the command-line option naming the file, for messages.
  OutputFile(std::string path, std::string option = "");
  ~OutputFile();  // an uncommitted temporary is removed
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Decides how the file is written and checks that it can be: not a
  // directory, parent directory present and writable, not read-only.
  // Creates nothing.
  bool check(std::string& problem);
  // Opens the stream (check() first if it was not called).
  bool open(std::string& problem);
  FILE* stream() const { return stream_; }
  // Flushes and closes the stream, then renames the temporary into place.
  bool commit(std::string& problem);
  // Drops what was written: removes the temporary (in-place outputs keep
  // what they received).
  void discard();

  Kind kind() const { return kind_; }
  const std::string& path() const { return path_; }
  const std::string& option() const { return option_; }
  // The file written in the end: symbolic links resolved.
  const std::string& target() const { return target_; }
  // True when both name the same file (or both standard output).
  bool sameFileAs(const OutputFile& other) const;
  // True when this names the existing file with this device and inode.
  bool isFile(dev_t device, ino_t inode) const { return exists_ && device_ == device && inode_ == inode; }

 private:
  std::string describe() const;  // "--out FILE" or "FILE"

  std::string path_;
  std::string option_;
  std::string target_;
  std::string temporary_;
  Kind kind_ = Kind::Replace;
  bool checked_ = false;
  bool exists_ = false;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  mode_t mode_ = 0;
  std::string identity_;  // canonical path of a file still to be created
  FILE* stream_ = nullptr;
  int slot_ = -1;  // in the list of temporaries removed on signals
};

// Checks every output (each one, no two naming the same file, none naming
// the input recording, given by path; "-" or "" for none). Null entries
// are skipped.
bool checkOutputs(const std::vector<OutputFile*>& outputs, const std::string& inputPath, std::string& problem);

// Installs handlers for SIGINT, SIGTERM, SIGHUP and SIGPIPE that remove
// every open temporary, then let the signal end the process as it would
// have.
void removeTemporariesOnSignals();

// Writes text to path through an OutputFile.
bool writeFileAtomically(const std::string& path, const std::string& text, std::string& problem);

}  // namespace quelta::replay
