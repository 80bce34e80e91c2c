#include "tools/replay/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace quelta::replay {

OutputFile::~OutputFile() {
  if (stream_ != nullptr) {
    std::fclose(stream_);
    std::remove(temporary_.c_str());
  }
}

bool OutputFile::open(std::string& problem) {
  std::vector<char> name(path_.begin(), path_.end());
  const char suffix[] = ".tmp-XXXXXX";
  name.insert(name.end(), suffix, suffix + sizeof suffix);
  const int fd = mkstemp(name.data());
  if (fd < 0) {
    problem = path_ + ": cannot create: " + std::strerror(errno);
    return false;
  }
  temporary_ = name.data();
  stream_ = fdopen(fd, "w");
  if (stream_ == nullptr) {
    problem = path_ + ": cannot write: " + std::strerror(errno);
    close(fd);
    std::remove(temporary_.c_str());
    return false;
  }
  return true;
}

bool OutputFile::commit(std::string& problem) {
  const bool written = std::fflush(stream_) == 0 && !std::ferror(stream_);
  const bool closed = std::fclose(stream_) == 0;
  stream_ = nullptr;
  if (!written || !closed) {
    problem = path_ + ": write failed: " + std::strerror(errno);
    std::remove(temporary_.c_str());
    return false;
  }
  // mkstemp creates the file for the owner only; give it the usual permissions.
  const mode_t mask = umask(0);
  umask(mask);
  chmod(temporary_.c_str(), 0666 & ~mask);
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) {
    problem = path_ + ": cannot rename into place: " + std::strerror(errno);
    std::remove(temporary_.c_str());
    return false;
  }
  return true;
}

bool writeFileAtomically(const std::string& path, const std::string& text, std::string& problem) {
  OutputFile file(path);
  if (!file.open(problem)) return false;
  std::fwrite(text.data(), 1, text.size(), file.stream());
  return file.commit(problem);
}

}  // namespace quelta::replay
