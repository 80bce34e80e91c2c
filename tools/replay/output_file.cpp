// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/output_file.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace quelta::replay {

namespace {

// Temporaries to remove when a signal ends the process. Fixed storage: the
// handler may only use async-signal-safe calls.
constexpr int kSlots = 16;
char temporaryNames[kSlots][PATH_MAX];
volatile sig_atomic_t slotUsed[kSlots];

void onSignal(int signal) {
  for (int i = 0; i < kSlots; ++i) {
    if (slotUsed[i]) unlink(temporaryNames[i]);
  }
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  raise(signal);
}

// Blocks the handled signals while the list of temporaries changes.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t held;
    sigemptyset(&held);
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&held, s);
    sigprocmask(SIG_BLOCK, &held, &previous_);
  }
  ~SignalsHeld() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_;
};

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Follows symbolic links to the file they finally name (which need not
// exist). False when there are too many levels.
bool followLinks(const std::string& path, std::string& target) {
  target = path;
  for (int depth = 0; depth < 40; ++depth) {
    struct stat info;
    if (lstat(target.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return true;
    char link[PATH_MAX];
    const ssize_t length = readlink(target.c_str(), link, sizeof link - 1);
    if (length < 0) return true;
    link[length] = '\0';
    target = link[0] == '/' ? std::string(link) : directoryOf(target) + "/" + link;
  }
  return false;
}

std::string modeText(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

}  // namespace

OutputFile::OutputFile(std::string path, std::string option) : path_(std::move(path)), option_(std::move(option)) {}

OutputFile::~OutputFile() { discard(); }

std::string OutputFile::describe() const { return option_.empty() ? path_ : option_ + " " + path_; }

bool OutputFile::check(std::string& problem) {
  checked_ = true;
  exists_ = false;
  target_ = path_;
  if (path_.empty()) {
    problem = describe() + ": empty file name";
    return false;
  }
  struct stat standardOutput;
  const bool haveStandardOutput = fstat(STDOUT_FILENO, &standardOutput) == 0;
  if (path_ == "-") {
    kind_ = Kind::StandardOutput;
    return true;
  }

  struct stat info;
  if (stat(path_.c_str(), &info) == 0) {
    exists_ = true;
    device_ = info.st_dev;
    inode_ = info.st_ino;
    mode_ = info.st_mode;
    if (S_ISDIR(info.st_mode)) {
      problem = describe() + ": is a directory";
      return false;
    }
    // A name of the standard output (/dev/stdout, /proc/self/fd/1, the file
    // it is redirected to): write to the standard output itself.
    if (haveStandardOutput && info.st_dev == standardOutput.st_dev && info.st_ino == standardOutput.st_ino) {
      kind_ = Kind::StandardOutput;
      return true;
    }
    if ((info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) {
      problem = describe() + ": is read-only (mode " + modeText(info.st_mode) + "); not overwritten";
      return false;
    }
    if (access(path_.c_str(), W_OK) != 0) {
      problem = describe() + ": cannot write: " + std::strerror(errno);
      return false;
    }
    if (!followLinks(path_, target_)) {
      problem = describe() + ": too many levels of symbolic links";
      return false;
    }
    // Links through /proc name open descriptors, not files: write in place.
    if (!S_ISREG(info.st_mode) || target_.rfind("/proc/", 0) == 0) {
      kind_ = Kind::InPlace;
      target_ = path_;
      return true;
    }
    kind_ = Kind::Replace;
    const std::string directory = directoryOf(target_);
    if (access(directory.c_str(), W_OK | X_OK) != 0) {
      problem = describe() + ": cannot create a temporary file in " + directory + ": " + std::strerror(errno);
      return false;
    }
    return true;
  }
  if (errno != ENOENT) {
    problem = describe() + ": " + std::strerror(errno);
    return false;
  }

  // A new file (perhaps named through a dangling link).
  kind_ = Kind::Replace;
  if (!followLinks(path_, target_)) {
    problem = describe() + ": too many levels of symbolic links";
    return false;
  }
  const std::string directory = directoryOf(target_);
  struct stat parent;
  if (stat(directory.c_str(), &parent) != 0) {
    problem = describe() + ": directory " + directory + ": " + std::strerror(errno);
    return false;
  }
  if (!S_ISDIR(parent.st_mode)) {
    problem = describe() + ": " + directory + " is not a directory";
    return false;
  }
  if (access(directory.c_str(), W_OK | X_OK) != 0) {
    problem = describe() + ": cannot create a file in " + directory + ": " + std::strerror(errno);
    return false;
  }
  char canonical[PATH_MAX];
  identity_ = realpath(directory.c_str(), canonical) != nullptr ? std::string(canonical) + "/" + baseName(target_)
                                                                : target_;
  return true;
}

bool OutputFile::open(std::string& problem) {
  if (!checked_ && !check(problem)) return false;
  if (kind_ == Kind::StandardOutput) {
    stream_ = stdout;
    return true;
  }
  if (kind_ == Kind::InPlace) {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 || (stream_ = fdopen(fd, "w")) == nullptr) {
      problem = describe() + ": cannot open: " + std::strerror(errno);
      if (fd >= 0) close(fd);
      return false;
    }
    return true;
  }

  int slot = -1;
  int fd = -1;
  {
    SignalsHeld held;
    for (int i = 0; i < kSlots && slot < 0; ++i) {
      if (!slotUsed[i]) slot = i;
    }
    const std::string pattern = target_ + ".tmp-XXXXXX";
    if (slot < 0 || pattern.size() >= PATH_MAX) {
      problem = describe() + ": cannot create a temporary file: too many or too long a name";
      return false;
    }
    std::memcpy(temporaryNames[slot], pattern.c_str(), pattern.size() + 1);
    fd = mkstemp(temporaryNames[slot]);
    if (fd < 0) {
      problem = describe() + ": cannot create " + pattern + ": " + std::strerror(errno);
      return false;
    }
    slotUsed[slot] = 1;
  }
  slot_ = slot;
  temporary_ = temporaryNames[slot];
  // The new file gets the old one's mode, or the usual mode of a new file.
  mode_t mode = mode_ & 07777;
  if (!exists_) {
    const mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  fchmod(fd, mode);
  stream_ = fdopen(fd, "w");
  if (stream_ == nullptr) {
    problem = describe() + ": cannot write: " + std::strerror(errno);
    close(fd);
    discard();
    return false;
  }
  return true;
}

bool OutputFile::commit(std::string& problem) {
  if (stream_ == nullptr) {
    problem = describe() + ": not open";
    return false;
  }
  // A failed write earlier left its errno (nothing since sets it on success).
  const bool written = std::fflush(stream_) == 0 && !std::ferror(stream_);
  const int writeError = errno;
  bool closed = true;
  if (stream_ != stdout) closed = std::fclose(stream_) == 0;
  stream_ = nullptr;
  if (!written || !closed) {
    const int error = written ? errno : writeError;
    problem = describe() + ": write failed: " + (error != 0 ? std::strerror(error) : "input/output error");
    discard();
    return false;
  }
  if (kind_ != Kind::Replace) return true;
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
    problem = describe() + ": cannot rename into place: " + std::strerror(errno);
    discard();
    return false;
  }
  SignalsHeld held;
  slotUsed[slot_] = 0;
  slot_ = -1;
  temporary_.clear();
  return true;
}

void OutputFile::discard() {
  if (stream_ != nullptr) {
    if (stream_ == stdout) {
      std::fflush(stdout);
    } else {
      std::fclose(stream_);
    }
    stream_ = nullptr;
  }
  if (slot_ >= 0) {
    SignalsHeld held;
    unlink(temporaryNames[slot_]);
    slotUsed[slot_] = 0;
    slot_ = -1;
    temporary_.clear();
  }
}

bool OutputFile::sameFileAs(const OutputFile& other) const {
  if (kind_ == Kind::StandardOutput || other.kind_ == Kind::StandardOutput) return kind_ == other.kind_;
  if (exists_ && other.exists_) return device_ == other.device_ && inode_ == other.inode_;
  return !exists_ && !other.exists_ && identity_ == other.identity_;
}

bool checkOutputs(const std::vector<OutputFile*>& outputs, const std::string& inputPath, std::string& problem) {
  struct stat input;
  const bool haveInput = !inputPath.empty() && inputPath != "-" && stat(inputPath.c_str(), &input) == 0;
  for (size_t i = 0; i < outputs.size(); ++i) {
    OutputFile* output = outputs[i];
    if (output == nullptr) continue;
    if (!output->check(problem)) return false;
    const std::string name = output->option().empty() ? output->path() : output->option() + " " + output->path();
    if (haveInput && output->isFile(input.st_dev, input.st_ino)) {
      problem = name + ": is the recording being replayed; not overwritten";
      return false;
    }
    for (size_t j = 0; j < i; ++j) {
      if (outputs[j] != nullptr && output->sameFileAs(*outputs[j])) {
        problem = name + ": the same file as " + outputs[j]->option() + " " + outputs[j]->path() +
                  "; each output needs its own file";
        return false;
      }
    }
  }
  return true;
}

void removeTemporariesOnSignals() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&action.sa_mask, s);
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    // A signal ignored from the start (SIGINT of a background job) stays ignored.
    struct sigaction current {};
    if (sigaction(s, nullptr, &current) == 0 && current.sa_handler == SIG_IGN && s != SIGPIPE) continue;
    sigaction(s, &action, nullptr);
  }
}

bool writeFileAtomically(const std::string& path, const std::string& text, std::string& problem) {
  OutputFile file(path);
  if (!file.open(problem)) return false;
  std::fwrite(text.data(), 1, text.size(), file.stream());
  return file.commit(problem);
}

}  // namespace quelta::replay
