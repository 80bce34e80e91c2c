// quelta-replay: replays a sensor recording through every service of the
// library, prints a summary and optionally writes the per-sample outputs,
// a visual report, the library's log and the calibration to keep.
//
// Everything streams: samples are read, replayed, written to the output
// table and folded into the summary, the comparison and the report one at a
// time, so memory does not grow with the recording.
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>

#include "tools/replay/algo_setup.h"
#include "tools/replay/bundled_recording.h"
#include "tools/replay/cli_options.h"
#include "tools/replay/html_report.h"
#include "tools/replay/output_csv.h"
#include "tools/replay/output_file.h"
#include "tools/replay/recording.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_driver.h"
#include "tools/replay/summary.h"

namespace {

using namespace quelta::replay;

constexpr int kExitBadInput = 1;
constexpr int kExitUsage = 2;

// The library's log: each line starts with the sample it belongs to.
FILE* logStream = nullptr;
bool logAtLineStart = true;
size_t logSample = 0;
double logTime = 0.0;
bool logBeforeReplay = true;

int logToFile(const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (length < 0) return length;
  const char* at = text;
  const char* const end = text + std::min<size_t>(static_cast<size_t>(length), sizeof text - 1);
  while (at < end) {
    if (logAtLineStart) {
      if (logBeforeReplay) {
        std::fputs("[start] ", logStream);
      } else {
        std::fprintf(logStream, "[sample %zu t=%.3f] ", logSample, logTime);
      }
    }
    const char* newline = static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
    const char* stop = newline != nullptr ? newline + 1 : end;
    std::fwrite(at, 1, static_cast<size_t>(stop - at), logStream);
    logAtLineStart = newline != nullptr;
    at = stop;
  }
  return length;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "quelta-replay: %s\n", message.c_str());
  return kExitBadInput;
}

bool readTextFile(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  std::ostringstream content;
  content << file.rdbuf();
  text = content.str();
  return true;
}

// Progress on standard error, when it is a terminal: one line, rewritten.
class Progress {
 public:
  explicit Progress(bool shown) : shown_(shown) {}
  void show(const char* phase, size_t done, size_t total) {
    if (!shown_) return;
    if (total > 0) {
      std::fprintf(stderr, "\r\033[K%s %3zu%% (%zu of %zu samples)", phase, done * 100 / total, done, total);
    } else {
      std::fprintf(stderr, "\r\033[K%s (%zu samples)", phase, done);
    }
    std::fflush(stderr);
  }
  void phase(const char* what) {
    if (!shown_) return;
    std::fprintf(stderr, "\r\033[K%s", what);
    std::fflush(stderr);
  }
  void clear() {
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }

 private:
  bool shown_;
};

int run(const Options& options) {
  std::string recordingPath = options.recording;
  if (recordingPath.empty()) {
    recordingPath = findBundledRecording();
    if (recordingPath.empty()) return fail("the bundled recording (data/handheld.csv) was not found");
  }

  // Every output is checked before anything is read or written.
  removeTemporariesOnSignals();
  std::unique_ptr<OutputFile> csv, report, log, calibration;
  if (!options.outCsv.empty()) csv = std::make_unique<OutputFile>(options.outCsv, "--out");
  if (!options.reportHtml.empty()) report = std::make_unique<OutputFile>(options.reportHtml, "--report");
  if (!options.logFile.empty()) log = std::make_unique<OutputFile>(options.logFile, "--log");
  if (!options.calibrationFile.empty()) calibration = std::make_unique<OutputFile>(options.calibrationFile, "--calibration");
  std::string problem;
  const std::vector<OutputFile*> outputs = {csv.get(), report.get(), log.get(), calibration.get()};
  if (!checkOutputs(outputs, recordingPath, problem)) return fail(problem);
  // When an output goes to standard output, the summary goes to standard error.
  bool summaryToStderr = false;
  for (const OutputFile* output : outputs) {
    summaryToStderr = summaryToStderr || (output != nullptr && output->kind() == OutputFile::Kind::StandardOutput);
  }
  Progress progress(isatty(STDERR_FILENO) == 1);

  // Set-up: library defaults, then the calibration file, then the command line.
  AlgoSetup setup;
  SetupOverrides fromFile;
  if (!options.calibrationFile.empty()) {
    std::string text;
    if (readTextFile(options.calibrationFile, text)) {
      if (!parseCalibrationFile(text, fromFile, problem)) return fail(options.calibrationFile + ":" + problem);
      fromFile.applyTo(setup);
    }
  }
  options.setup.applyTo(setup);

  progress.phase("reading the recording");
  Recording recording;
  InputError error;
  if (!readRecording(recordingPath, options.units, recording, error)) return fail(error.describe());
  size_t next = 0;
  const SampleSource source = [&recording, &next](RecordedSample& sample) {
    if (next == recording.samples.size()) return false;
    sample = recording.samples[next++];
    return true;
  };
  const double period = recording.nominalPeriod();
  const size_t total = recording.samples.size();
  const std::string name = recording.name;
  const bool hasGyro = recording.hasGyro, hasAttitude = recording.hasAttitude;

  // Outputs that stream are opened now; the rest when their content is ready.
  DriverOptions driver;
  driver.setup = setup;
  driver.logMode = options.logMode;
  if (log) {
    if (!log->open(problem)) return fail(problem);
    logStream = log->stream();
    driver.log = logToFile;
    driver.beforeSample = [](size_t index, double t) {
      logBeforeReplay = false;
      logSample = index;
      logTime = t;
    };
  }
  if (csv) {
    if (!csv->open(problem)) return fail(problem);
    writeOutputCsvHeader(csv->stream());
  }
  driver.progress = [&progress](size_t done, size_t all) { progress.show("replaying", done, all); };

  SummaryBuilder summaryBuilder(name, period);
  ReferenceComparator comparator(hasGyro, hasAttitude);
  std::unique_ptr<ReportBuilder> reportBuilder;
  if (report) reportBuilder = std::make_unique<ReportBuilder>(name, hasGyro, hasAttitude);
  FILE* const csvStream = csv ? csv->stream() : nullptr;
  std::optional<ReplayRow> lastFit;
  replayStream(source, period, total, driver, [&](const RecordedSample& sample, const ReplayRow& row) {
    if (csvStream != nullptr) writeOutputCsvRow(csvStream, row);
    summaryBuilder.add(row);
    comparator.add(sample, row);
    if (reportBuilder) reportBuilder->add(sample, row);
    if (row.newCalibration) lastFit = row;
  });
  RegisterLogCallback(nullptr);
  logStream = nullptr;

  size_t compared = 0;
  progress.show("comparing with the reference", 0, total);
  const ReferenceComparison reference = comparator.finish([&](const SampleErrors& errors) {
    if (reportBuilder) reportBuilder->addErrors(errors);
    if (++compared % 65536 == 0) progress.show("comparing with the reference", compared, total);
  });
  std::string summary = formatSummary(summaryBuilder.finish(), reference);

  std::string calibrationText;
  if (calibration) {
    if (lastFit) {
      calibrationText = formatCalibrationFile(lastFit->offset, lastFit->radius, fromFile);
      summary += "calibration      written to " + options.calibrationFile + "\n";
    } else {
      summary += "calibration      no fit accepted; " + options.calibrationFile + " left as it was\n";
    }
  }

  if (reportBuilder) {
    progress.phase("writing the report");
    if (!report->open(problem)) return fail(problem);
    const std::string html = reportBuilder->render(summary);
    std::fwrite(html.data(), 1, html.size(), report->stream());
  }
  if (!calibrationText.empty()) {
    if (!calibration->open(problem)) return fail(problem);
    std::fputs(calibrationText.c_str(), calibration->stream());
  }
  progress.clear();
  for (OutputFile* output : {log.get(), csv.get(), report.get()}) {
    if (output != nullptr && !output->commit(problem)) return fail(problem);
  }
  if (!calibrationText.empty() && !calibration->commit(problem)) return fail(problem);

  std::fputs(summary.c_str(), summaryToStderr ? stderr : stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string problem;
  if (!parseOptions(std::vector<std::string>(argv + 1, argv + argc), options, problem)) {
    std::fprintf(stderr, "quelta-replay: %s\n(quelta-replay --help shows the options)\n", problem.c_str());
    return kExitUsage;
  }
  if (options.help) {
    std::fputs(usageText(), stdout);
    return 0;
  }
  return run(options);
}
