// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <charconv>
#include <climits>
#include <iterator>
#include <cmath>
#include <cstring>
#include <sstream>
#include <string_view>

#if QUELTA_REPLAY_HAVE_ZLIB
#include <zlib.h>
#endif

namespace quelta::replay {

namespace {

constexpr double kStandardGravity = 9.80665;  // m/s^2 per g
constexpr double kMicroteslaPerGauss = 100.0;
constexpr size_t kChunk = 64 * 1024;
constexpr size_t kMaxLine = 1024 * 1024;  // longer lines are not a recording

// Raw bytes of the recording: a file descriptor or a buffer in memory.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Bytes read, 0 at the end, -1 with errno set on an error.
  virtual ssize_t read(char* into, size_t size) = 0;
};

class FileSource : public ByteSource {
 public:
  FileSource(int fd, bool owned) : fd_(fd), owned_(owned) {}
  ~FileSource() override {
    if (owned_) ::close(fd_);
  }
  ssize_t read(char* into, size_t size) override {
    while (true) {
      const ssize_t got = ::read(fd_, into, size);
      if (got >= 0 || errno != EINTR) return got;
    }
  }

 private:
  int fd_;
  bool owned_;
};

class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::string bytes) : bytes_(std::move(bytes)) {}
  ssize_t read(char* into, size_t size) override {
    const size_t n = std::min(size, bytes_.size() - pos_);
    std::memcpy(into, bytes_.data() + pos_, n);
    pos_ += n;
    return static_cast<ssize_t>(n);
  }

 private:
  std::string bytes_;
  size_t pos_ = 0;
};

// Decoded text: the source as it is, or inflated when it starts with the
// gzip signature (several gzip members in a row are read as one stream).
class TextStream {
 public:
  explicit TextStream(std::unique_ptr<ByteSource> source) : source_(std::move(source)) {}
  ~TextStream() {
#if QUELTA_REPLAY_HAVE_ZLIB
    if (inflating_) inflateEnd(&z_);
#endif
  }

  // Appends up to kChunk decoded bytes to out. Returns false at the end
  // (problem empty) or on an error (problem says why).
  bool readMore(std::string& out, std::string& problem) {
    if (!started_) {
      started_ = true;
      if (!fillRaw(problem)) return false;
      if (rawEnd_ - rawPos_ >= 2 && static_cast<unsigned char>(raw_[rawPos_]) == 0x1f &&
          static_cast<unsigned char>(raw_[rawPos_ + 1]) == 0x8b) {
#if QUELTA_REPLAY_HAVE_ZLIB
        std::memset(&z_, 0, sizeof z_);
        if (inflateInit2(&z_, 15 + 16) != Z_OK) {
          problem = "cannot start decompressing";
          return false;
        }
        inflating_ = true;
        gzip_ = true;
#else
        problem = "a gzip-compressed recording, and this build has no zlib: decompress it first (gunzip)";
        return false;
#endif
      }
    }
    if (!gzip_) {
      if (rawPos_ == rawEnd_ && !fillRaw(problem)) return false;
      out.append(raw_ + rawPos_, rawEnd_ - rawPos_);
      rawPos_ = rawEnd_;
      return true;
    }
#if QUELTA_REPLAY_HAVE_ZLIB
    // Empty members decode to nothing: go on to the next one.
    size_t before = out.size();
    while (inflateMore(out, problem)) {
      if (out.size() > before) return true;
      before = out.size();
    }
    return false;
#else
    return false;
#endif
  }

 private:
  // Refills the raw buffer when it is used up. False at the end or on an error.
  bool fillRaw(std::string& problem) {
    if (rawPos_ < rawEnd_) return true;
    if (sourceDone_) return false;
    const ssize_t got = source_->read(raw_, sizeof raw_);
    if (got < 0) {
      problem = std::string("cannot read the recording: ") + std::strerror(errno);
      return false;
    }
    rawPos_ = 0;
    rawEnd_ = static_cast<size_t>(got);
    if (got == 0) sourceDone_ = true;
    return got > 0;
  }

#if QUELTA_REPLAY_HAVE_ZLIB
  // Decodes what is there up to the end of the current member. False at
  // the end (problem empty) or on an error.
  bool inflateMore(std::string& out, std::string& problem) {
    if (!pendingProblem_.empty()) {
      problem = pendingProblem_;
      return false;
    }
    if (memberDone_) {
      // After a complete member: the end, or the next member.
      if (!fillRaw(problem)) return false;
      if (static_cast<unsigned char>(raw_[rawPos_]) != 0x1f) {
        problem = "unexpected data after the end of the compressed recording";
        return false;
      }
      inflateReset(&z_);
      memberDone_ = false;
    }
    const size_t before = out.size();
    out.resize(before + kChunk);
    z_.next_out = reinterpret_cast<Bytef*>(&out[before]);
    z_.avail_out = static_cast<uInt>(kChunk);
    std::string stop;
    while (z_.avail_out > 0) {
      if (rawPos_ == rawEnd_ && !fillRaw(stop)) {
        if (stop.empty()) stop = "the compressed recording ends early (truncated file?)";
        break;
      }
      z_.next_in = reinterpret_cast<Bytef*>(raw_ + rawPos_);
      z_.avail_in = static_cast<uInt>(rawEnd_ - rawPos_);
      const int status = inflate(&z_, Z_NO_FLUSH);
      rawPos_ = rawEnd_ - z_.avail_in;
      if (status == Z_STREAM_END) {
        memberDone_ = true;
        break;
      }
      if (status != Z_OK && status != Z_BUF_ERROR) {
        stop = std::string("corrupt compressed data (") + (z_.msg ? z_.msg : "zlib error") + ")";
        break;
      }
    }
    const size_t produced = kChunk - z_.avail_out;
    out.resize(before + produced);
    if (!stop.empty()) {
      // What was decoded comes first; the problem with the next call.
      if (produced > 0) {
        pendingProblem_ = stop;
        return true;
      }
      problem = stop;
      return false;
    }
    return true;  // possibly nothing, after an empty member
  }

  std::string pendingProblem_;
  z_stream z_;
  bool inflating_ = false;
  bool memberDone_ = false;
#endif

  std::unique_ptr<ByteSource> source_;
  char raw_[kChunk];
  size_t rawPos_ = 0;
  size_t rawEnd_ = 0;
  bool sourceDone_ = false;
  bool started_ = false;
  bool gzip_ = false;
};

struct Field {
  const char* text = nullptr;  // in the line, or unquoted in the parser's field text
  size_t size = 0;
  int column = 0;  // 1-based character position of the field's first character
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// "nan" in any case, with or without a sign: the mark of a missing value.
bool isNanText(std::string_view text) {
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
  return text.size() == 3 && lowerCase(text) == "nan";
}

bool parseDouble(std::string_view text, double& value) {
  if (text.size() > 1 && text[0] == '+' && text[1] != '-' && text[1] != '+') text.remove_prefix(1);
  if (text.empty()) return false;
  const char* last = text.data() + text.size();
  const auto [end, ec] = std::from_chars(text.data(), last, value);
  return ec == std::errc() && end == last && std::isfinite(value);
}

// Column layout resolved from the header: index of each named column, -1 when absent.
struct Layout {
  int t = -1;
  std::array<int, 3> acc{-1, -1, -1};
  std::array<int, 3> mag{-1, -1, -1};
  std::array<int, 3> gyro{-1, -1, -1};
  std::array<int, 4> attitude{-1, -1, -1, -1};
};

}  // namespace

// Lines of text, split into fields, and the header's layout.
struct RecordingReader::Parser {
  std::unique_ptr<TextStream> stream;
  std::string text;  // decoded bytes not yet consumed start at textPos
  size_t textPos = 0;
  bool textDone = false;
  int lineNumber = 0;
  std::string_view line;
  std::string fieldText;  // the current line's fields, unquoted
  std::vector<Field> fields;

  Layout layout;
  size_t columnCount = 0;
  std::vector<std::string> columnNames;
  std::vector<char> used;
  double accScale = 1.0;
  double magScale = 1.0;
  double timeDivisor = 1.0;
  double previousT = 0.0;
  int previousTimeLine = 0;

  std::string_view fieldAt(size_t i) const { return std::string_view(fields[i].text, fields[i].size); }

  // Line numbers stop at the largest int rather than wrap.
  void countLine() {
    if (lineNumber < INT_MAX) ++lineNumber;
  }

  // The next line without its line ending. False at the end or on an error.
  bool nextLine(std::string& problem) {
    while (true) {
      const size_t newline = text.find('\n', textPos);
      if (newline != std::string::npos) {
        line = std::string_view(text).substr(textPos, newline - textPos);
        textPos = newline + 1;
        break;
      }
      if (text.size() - textPos > kMaxLine) {
        problem = "line longer than " + std::to_string(kMaxLine) + " bytes: not a recording";
        countLine();
        return false;
      }
      if (textDone) {
        if (textPos == text.size()) return false;
        line = std::string_view(text).substr(textPos);
        textPos = text.size();
        break;
      }
      text.erase(0, textPos);
      textPos = 0;
      if (!stream->readMore(text, problem)) {
        if (!problem.empty()) {
          // Report the problem at the line being read.
          countLine();
          return false;
        }
        textDone = true;
      }
    }
    countLine();
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (lineNumber == 1 && line.substr(0, 3) == "\xEF\xBB\xBF") {
      line.remove_prefix(3);  // UTF-8 byte-order mark
    }
    return true;
  }

  bool blankOrComment() const {
    for (char c : line) {
      if (!isBlank(c)) return c == '#';
    }
    return true;
  }

  // Splits the line at commas; a field may be quoted ("" is a quote inside).
  // False with problem and column on a broken quote.
  bool split(std::string& problem, int& column) {
    fields.clear();
    fieldText.clear();
    fieldText.reserve(line.size());  // quoted fields never outgrow it: their text stays put
    size_t i = 0;
    const size_t n = line.size();
    while (true) {
      while (i < n && isBlank(line[i])) ++i;
      Field field;
      field.column = static_cast<int>(i) + 1;
      if (i < n && line[i] == '"') {
        const size_t begin = fieldText.size();
        const size_t open = i++;
        bool closed = false;
        while (i < n) {
          if (line[i] == '"') {
            if (i + 1 < n && line[i + 1] == '"') {
              fieldText += '"';
              i += 2;
              continue;
            }
            closed = true;
            ++i;
            break;
          }
          fieldText += line[i++];
        }
        if (!closed) {
          problem = "quote not closed";
          column = static_cast<int>(open) + 1;
          return false;
        }
        while (i < n && isBlank(line[i])) ++i;
        if (i < n && line[i] != ',') {
          problem = "text after a closing quote";
          column = static_cast<int>(i) + 1;
          return false;
        }
        field.text = fieldText.data() + begin;
        field.size = fieldText.size() - begin;
      } else {
        const size_t start = i;
        const void* comma = std::memchr(line.data() + i, ',', n - i);
        i = comma ? static_cast<size_t>(static_cast<const char*>(comma) - line.data()) : n;
        size_t last = i;
        while (last > start && isBlank(line[last - 1])) --last;
        field.text = line.data() + start;
        field.size = last - start;
      }
      fields.push_back(field);
      if (i >= n) break;
      ++i;  // the comma
    }
    return true;
  }
};

RecordingReader::RecordingReader() = default;
RecordingReader::~RecordingReader() = default;

bool RecordingReader::open(const std::string& path, const Units& units, const ColumnNames& columns) {
  name_ = path == "-" ? "standard input" : path;
  error_ = InputError{name_, 0, 0, ""};
  failed_ = false;
  std::unique_ptr<ByteSource> source;
  if (path == "-") {
    source = std::make_unique<FileSource>(STDIN_FILENO, false);
  } else {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      error_.message = std::string("cannot open the recording: ") + std::strerror(errno);
      failed_ = true;
      return false;
    }
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
      ::close(fd);
      error_.message = std::string("cannot read the recording: ") + std::strerror(EISDIR);
      failed_ = true;
      return false;
    }
    source = std::make_unique<FileSource>(fd, true);
  }
  parser_ = std::make_unique<Parser>();
  parser_->stream = std::make_unique<TextStream>(std::move(source));
  return start(units, columns);
}

bool RecordingReader::openBytes(std::string bytes, const std::string& name, const Units& units,
                                const ColumnNames& columns) {
  name_ = name;
  error_ = InputError{name_, 0, 0, ""};
  failed_ = false;
  parser_ = std::make_unique<Parser>();
  parser_->stream = std::make_unique<TextStream>(std::make_unique<MemorySource>(std::move(bytes)));
  return start(units, columns);
}

bool RecordingReader::hasGyroColumns() const { return parser_ && parser_->layout.gyro[0] >= 0; }
bool RecordingReader::hasAttitudeColumns() const { return parser_ && parser_->layout.attitude[0] >= 0; }

bool RecordingReader::failAt(const std::string& message, int column) {
  error_.line = parser_->lineNumber;
  error_.column = column;
  error_.message = message;
  failed_ = true;
  return false;
}

bool RecordingReader::start(const Units& units, const ColumnNames& columns) {
  Parser& p = *parser_;
  ahead_.clear();
  aheadPos_ = 0;
  samplesRead_ = missingMag_ = missingGyro_ = missingAttitude_ = 0;
  p.accScale = units.acc == AccUnit::G ? 1.0 : 1.0 / kStandardGravity;
  p.magScale = units.mag == MagUnit::Gauss ? 1.0 : 1.0 / kMicroteslaPerGauss;
  p.timeDivisor = timeDivisor(units.time);

  auto fail = [this](const std::string& message, int column) { return failAt(message, column); };

  std::string problem;
  do {
    if (!p.nextLine(problem)) {
      if (!problem.empty()) return fail(problem, 0);
      fail("empty recording: no header row", 0);
      error_.line = 0;
      return false;
    }
  } while (p.blankOrComment());

  int column = 0;
  if (!p.split(problem, column)) return fail(problem, column);

  struct Named {
    const char* name;  // the meaning
    int* slot;
    std::string header;  // the header name that holds it, lower case
  };
  Layout& layout = p.layout;
  Named names[] = {
      {"t", &layout.t, ""},            {"ax", &layout.acc[0], ""},      {"ay", &layout.acc[1], ""},
      {"az", &layout.acc[2], ""},      {"mx", &layout.mag[0], ""},      {"my", &layout.mag[1], ""},
      {"mz", &layout.mag[2], ""},      {"gx", &layout.gyro[0], ""},     {"gy", &layout.gyro[1], ""},
      {"gz", &layout.gyro[2], ""},     {"qw", &layout.attitude[0], ""}, {"qx", &layout.attitude[1], ""},
      {"qy", &layout.attitude[2], ""}, {"qz", &layout.attitude[3], ""}};
  for (Named& named : names) {
    named.header = named.name;
    for (const auto& [key, header] : columns.rename) {
      if (key == named.name) named.header = lowerCase(header);
    }
  }
  p.columnCount = p.fields.size();
  for (size_t i = 0; i < p.columnCount; ++i) {
    std::string_view name = p.fieldAt(i);  // " t " in quotes is t as well
    while (!name.empty() && isBlank(name.front())) name.remove_prefix(1);
    while (!name.empty() && isBlank(name.back())) name.remove_suffix(1);
    p.columnNames.push_back(lowerCase(name));
    for (const Named& named : names) {
      if (p.columnNames[i] != named.header) continue;
      if (*named.slot >= 0) {
        return fail("duplicate column '" + std::string(p.fieldAt(i)) + "'", p.fields[i].column);
      }
      *named.slot = static_cast<int>(i);
    }
  }
  // A missing column would go after the last one.
  const int endColumn = static_cast<int>(p.line.size()) + 1;
  for (const Named& named : names) {
    const std::string name = named.name;
    const bool required = name == "t" || name[0] == 'a' || name[0] == 'm';
    if (!required || *named.slot >= 0) continue;
    // The likely causes first, then what the header does name.
    const std::string_view first = p.line.substr(0, 2);
    if (first == "\xFF\xFE" || first == "\xFE\xFF") {
      return fail("the recording is UTF-16 text: save it as UTF-8 or ASCII", 1);
    }
    double number = 0.0;
    if (parseDouble(p.fieldAt(0), number)) {
      return fail("no header row: the first row must name the columns (t, ax, ay, az, mx, my, mz)", 1);
    }
    if (p.columnCount == 1 && p.line.find(';') != std::string_view::npos) {
      return fail("the columns are separated by ';': the recording needs commas", 1);
    }
    std::string found;
    for (size_t i = 0; i < p.columnCount; ++i) found += (i ? ", " : "") + std::string(p.fieldAt(i));
    const std::string wanted = named.header == name ? name : named.header + "' (named for " + name + ")";
    return fail("missing required column '" + wanted + (named.header == name ? "'" : "") + " (the header has " +
                    std::to_string(p.columnCount) +
                    (p.columnCount == 1 ? " column: " : " columns: ") + found + ")",
                endColumn);
  }
  // A column named for a meaning must be there, optional or not.
  for (const Named& named : names) {
    if (*named.slot < 0 && named.header != named.name) {
      return fail("missing column '" + named.header + "' (named for " + named.name + ")", endColumn);
    }
  }
  auto checkGroup = [&](const int* group, int size, const char* message) {
    int present = 0;
    int first = -1;
    for (int k = 0; k < size; ++k) {
      if (group[k] < 0) continue;
      ++present;
      if (first < 0 || group[k] < first) first = group[k];
    }
    if (present == 0 || present == size) return true;
    return fail(message, p.fields[first].column);
  };
  if (!checkGroup(layout.gyro.data(), 3, "reference gyroscope needs all of gx, gy, gz")) return false;
  if (!checkGroup(layout.attitude.data(), 4, "reference attitude needs all of qw, qx, qy, qz")) return false;

  p.used.assign(p.columnCount, 0);
  for (const Named& named : names) {
    if (*named.slot >= 0) p.used[*named.slot] = 1;
  }
  return true;
}

bool RecordingReader::readSample(RecordedSample& sample) {
  if (failed_ || !parser_) return false;
  Parser& p = *parser_;
  auto fail = [this](const std::string& message, int column) { return failAt(message, column); };

  std::string problem;
  do {
    if (!p.nextLine(problem)) {
      if (!problem.empty()) return fail(problem, 0);
      if (samplesRead_ + (ahead_.size() - aheadPos_) == 0) {
        fail("no samples after the header row", 0);
        error_.line = 0;
      }
      return false;
    }
  } while (p.blankOrComment());

  int column = 0;
  if (!p.split(problem, column)) return fail(problem, column);
  if (p.fields.size() != p.columnCount) {
    const int where = p.fields.size() > p.columnCount ? p.fields[p.columnCount].column
                                                      : static_cast<int>(p.line.size()) + 1;
    return fail("expected " + std::to_string(p.columnCount) + " values, found " + std::to_string(p.fields.size()),
                where);
  }

  const Layout& layout = p.layout;
  // A number that must be there and be finite; sensor values also in float.
  auto required = [&](int index, double scale, bool asFloat, double& value) {
    const std::string_view text = p.fieldAt(index);
    const std::string& name = p.columnNames[index];
    if (text.empty()) return fail("column '" + name + "': no value", p.fields[index].column);
    if (!parseDouble(text, value)) {
      return fail("column '" + name + "': '" + std::string(text) + "' is not a finite number", p.fields[index].column);
    }
    value *= scale;
    if (asFloat && !(std::fabs(value) <= static_cast<double>(FLT_MAX))) {
      return fail("column '" + name + "': '" + std::string(text) + "' is beyond the range of a float",
                  p.fields[index].column);
    }
    return true;
  };
  // A reference value: empty or nan when missing, otherwise finite.
  auto reference = [&](int index, double& value, bool& present) {
    const std::string_view text = p.fieldAt(index);
    if (text.empty() || isNanText(text)) {
      present = false;
      return true;
    }
    if (!parseDouble(text, value)) {
      return fail("column '" + p.columnNames[index] + "': '" + std::string(text) +
                      "' is not a finite number (leave it empty or write nan where the reference is missing)",
                  p.fields[index].column);
    }
    return true;
  };

  sample = RecordedSample{};
  if (!required(layout.t, 1.0, false, sample.t)) return false;
  sample.t /= p.timeDivisor;
  for (int k = 0; k < 3; ++k) {
    if (!required(layout.acc[k], p.accScale, true, sample.acc[k])) return false;
  }
  // A row without a field reading (a sensor at a lower rate) leaves all
  // three empty or nan; one of them alone is a broken row.
  int magMissing = 0;
  for (int k = 0; k < 3; ++k) {
    const std::string_view text = p.fieldAt(layout.mag[k]);
    if (text.empty() || isNanText(text)) ++magMissing;
  }
  sample.hasMag = magMissing == 0;
  if (magMissing == 3) {
    sample.mag = {0, 0, 0};
  } else {
    for (int k = 0; k < 3; ++k) {
      if (!required(layout.mag[k], p.magScale, true, sample.mag[k])) return false;
    }
  }
  if (layout.gyro[0] >= 0) {
    bool present = true;
    for (int k = 0; k < 3; ++k) {
      if (!reference(layout.gyro[k], sample.gyro[k], present)) return false;
    }
    sample.hasGyro = present;
    if (!present) sample.gyro = {0, 0, 0};
  }
  if (layout.attitude[0] >= 0) {
    bool present = true;
    for (int k = 0; k < 4; ++k) {
      if (!reference(layout.attitude[k], sample.attitude[k], present)) return false;
    }
    sample.hasAttitude = present;
    if (!present) sample.attitude = {1, 0, 0, 0};
  }
  if (p.previousTimeLine > 0 && !(sample.t > p.previousT)) {
    return fail("time " + std::string(p.fieldAt(layout.t)) + " does not increase (previous sample at line " +
                    std::to_string(p.previousTimeLine) + ")",
                p.fields[layout.t].column);
  }
  p.previousT = sample.t;
  p.previousTimeLine = p.lineNumber;
  return true;
}

const std::vector<RecordedSample>& RecordingReader::peek(size_t count) {
  if (aheadPos_ > 0) {
    ahead_.erase(ahead_.begin(), ahead_.begin() + static_cast<std::ptrdiff_t>(aheadPos_));
    aheadPos_ = 0;
  }
  RecordedSample sample;
  while (ahead_.size() < count && readSample(sample)) ahead_.push_back(sample);
  return ahead_;
}

bool RecordingReader::next(RecordedSample& sample) {
  if (aheadPos_ < ahead_.size()) {
    sample = ahead_[aheadPos_++];
    if (aheadPos_ == ahead_.size()) {
      ahead_.clear();
      aheadPos_ = 0;
    }
  } else if (!readSample(sample)) {
    return false;
  }
  ++samplesRead_;
  if (!sample.hasMag) ++missingMag_;
  if (hasGyroColumns() && !sample.hasGyro) ++missingGyro_;
  if (hasAttitudeColumns() && !sample.hasAttitude) ++missingAttitude_;
  return true;
}

double nominalPeriod(const std::vector<RecordedSample>& samples) {
  if (samples.size() < 2) return 0.02;
  std::vector<double> intervals;
  intervals.reserve(samples.size() - 1);
  for (size_t i = 1; i < samples.size(); ++i) intervals.push_back(samples[i].t - samples[i - 1].t);
  std::nth_element(intervals.begin(), intervals.begin() + intervals.size() / 2, intervals.end());
  return intervals[intervals.size() / 2];
}

double Recording::duration() const {
  return samples.size() < 2 ? 0.0 : samples.back().t - samples.front().t;
}

double timeDivisor(TimeUnit unit) {
  switch (unit) {
    case TimeUnit::Milliseconds: return 1e3;
    case TimeUnit::Microseconds: return 1e6;
    case TimeUnit::Nanoseconds: return 1e9;
    case TimeUnit::Seconds: break;
  }
  return 1.0;
}

const char* timeUnitName(TimeUnit unit) {
  switch (unit) {
    case TimeUnit::Milliseconds: return "ms";
    case TimeUnit::Microseconds: return "us";
    case TimeUnit::Nanoseconds: return "ns";
    case TimeUnit::Seconds: break;
  }
  return "s";
}

bool parseColumnNames(const std::string& text, ColumnNames& out, std::string& problem) {
  static const char* const kKeys[] = {"t",  "ax", "ay", "az", "mx", "my", "mz",
                                      "gx", "gy", "gz", "qw", "qx", "qy", "qz"};
  ColumnNames names;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = std::min(text.find(',', start), text.size());
    const std::string item = text.substr(start, comma - start);
    start = comma + 1;
    const size_t equals = item.find('=');
    const std::string key = lowerCase(item.substr(0, std::min(equals, item.size())));
    if (equals == std::string::npos || equals + 1 == item.size()) {
      problem = "'" + item + "' is not KEY=NAME";
      return false;
    }
    const std::string header = item.substr(equals + 1);
    if (std::find_if(std::begin(kKeys), std::end(kKeys), [&key](const char* k) { return key == k; }) ==
        std::end(kKeys)) {
      problem = "'" + key + "' is not one of t, ax, ay, az, mx, my, mz, gx, gy, gz, qw, qx, qy, qz";
      return false;
    }
    for (const auto& [otherKey, otherHeader] : names.rename) {
      if (otherKey == key) {
        problem = key + " is named twice";
        return false;
      }
      if (lowerCase(otherHeader) == lowerCase(header)) {
        problem = "'" + header + "' is named for both " + otherKey + " and " + key;
        return false;
      }
    }
    names.rename.emplace_back(key, header);
  }
  out = names;
  return true;
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

namespace {

bool readAll(RecordingReader& reader, bool opened, Recording& out, InputError& error) {
  out = Recording{};
  out.name = reader.name();
  if (opened) {
    out.hasGyro = reader.hasGyroColumns();
    out.hasAttitude = reader.hasAttitudeColumns();
    RecordedSample sample;
    while (reader.next(sample)) out.samples.push_back(sample);
    out.missingMag = reader.missingMag();
    out.missingGyro = reader.missingGyro();
    out.missingAttitude = reader.missingAttitude();
  }
  error = reader.error();
  return !reader.failed();
}

}  // namespace

bool parseRecording(const std::string& text, const std::string& fileName, const Units& units,
                    Recording& out, InputError& error, const ColumnNames& columns) {
  RecordingReader reader;
  const bool opened = reader.openBytes(text, fileName, units, columns);
  return readAll(reader, opened, out, error);
}

bool readRecording(const std::string& path, const Units& units, Recording& out, InputError& error,
                   const ColumnNames& columns) {
  RecordingReader reader;
  const bool opened = reader.open(path, units, columns);
  return readAll(reader, opened, out, error);
}

}  // namespace quelta::replay
