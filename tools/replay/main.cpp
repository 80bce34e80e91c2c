// quelta-replay: replays a sensor recording through every service of the
// library, prints a summary and optionally writes the per-sample outputs,
// a visual report, the library's log and the calibration to keep.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "tools/replay/algo_setup.h"
#include "tools/replay/bundled_recording.h"
#include "tools/replay/cli_options.h"
#include "tools/replay/html_report.h"
#include "tools/replay/log_prefix.h"
#include "tools/replay/output_csv.h"
#include "tools/replay/output_file.h"
#include "tools/replay/recording.h"
#include "tools/replay/reference_comparison.h"
#include "tools/replay/replay_driver.h"
#include "tools/replay/summary.h"
#include "tools/replay/units_check.h"

namespace {

using namespace quelta::replay;

constexpr int kExitBadInput = 1;
constexpr int kExitUsage = 2;

int fail(const std::string& message) {
  std::fprintf(stderr, "quelta-replay: %s\n", message.c_str());
  return kExitBadInput;
}

void showProgress(size_t done, size_t total) {
  if (done < total) {
    std::fprintf(stderr, "\rreplaying %3zu%% (%zu of %zu samples)", done * 100 / total, done, total);
  } else {
    std::fputs("\r\033[K", stderr);
  }
  std::fflush(stderr);
}

// The offset and radius of the last fit accepted during the run, if any.
const ReplayRow* lastAcceptedFit(const std::vector<ReplayRow>& rows) {
  for (auto it = rows.rbegin(); it != rows.rend(); ++it) {
    if (it->newCalibration) return &*it;
  }
  return nullptr;
}

int run(const Options& options) {
  std::string recordingPath = options.recording;
  if (recordingPath.empty()) {
    recordingPath = findBundledRecording();
    if (recordingPath.empty()) return fail("the bundled recording (data/handheld.csv) was not found");
  }

  // Set-up: library defaults, then the calibration file, then the command line.
  AlgoSetup setup;
  SetupOverrides fromFile;
  if (!options.calibrationFile.empty()) {
    bool found = false;
    std::string problem;
    if (!readCalibrationFile(options.calibrationFile, fromFile, found, problem)) return fail(problem);
    fromFile.applyTo(setup);
  }
  options.setup.applyTo(setup);
  // AlgoInitial adopts any stored offset: a wrong one would stay for the run.
  const std::string storedProblem = dropImplausibleStoredCalibration(setup);
  if (!storedProblem.empty()) {
    std::fprintf(stderr, "quelta-replay: warning: %s; not used, calibrating from scratch\n", storedProblem.c_str());
  }

  Recording recording;
  InputError error;
  if (!readRecording(recordingPath, options.units, recording, error)) return fail(error.describe());
  {
    const size_t count = std::min(recording.samples.size(), kUnitsCheckSamples);
    const std::vector<RecordedSample> first(recording.samples.begin(),
                                            recording.samples.begin() + static_cast<std::ptrdiff_t>(count));
    for (const std::string& warning : checkUnits(first, options.units)) {
      std::fprintf(stderr, "quelta-replay: warning: %s\n", warning.c_str());
    }
  }

  std::string problem;
  std::unique_ptr<OutputFile> log;
  DriverOptions driver;
  driver.setup = setup;
  driver.logMode = options.logMode;
  if (!options.logFile.empty()) {
    log = std::make_unique<OutputFile>(options.logFile);
    if (!log->open(problem)) return fail(problem);
    setLogStream(log->stream());
    driver.log = prefixedLog;
  }
  if (isatty(STDERR_FILENO) && recording.samples.size() >= 1000) driver.progress = showProgress;

  const std::vector<ReplayRow> rows = replayRecording(recording, driver);
  RegisterLogCallback(nullptr);
  setLogStream(nullptr);

  const ReferenceComparison reference = compareWithReference(recording, rows);
  std::string summary = formatSummary(summarise(recording, rows), reference);

  if (!storedProblem.empty()) summary += "stored calibration not used: " + storedProblem + "\n";
  std::string calibrationText;
  if (!options.calibrationFile.empty()) {
    if (const ReplayRow* fit = lastAcceptedFit(rows)) {
      calibrationText = formatCalibrationFile(fit->offset, fit->radius, fromFile);
      summary += "calibration      written to " + options.calibrationFile + "\n";
    } else {
      summary += "calibration      no fit accepted; " + options.calibrationFile + " left as it was\n";
    }
  }

  // Everything is prepared under temporary names and renamed at the end.
  OutputFile csv(options.outCsv);
  if (!options.outCsv.empty()) {
    if (!csv.open(problem)) return fail(problem);
    writeOutputCsv(csv.stream(), rows);
  }
  OutputFile report(options.reportHtml);
  if (!options.reportHtml.empty()) {
    if (!report.open(problem)) return fail(problem);
    std::fputs(renderReport(recording, rows, summary, reference).c_str(), report.stream());
  }
  OutputFile calibration(options.calibrationFile);
  if (!calibrationText.empty()) {
    if (!calibration.open(problem)) return fail(problem);
    std::fputs(calibrationText.c_str(), calibration.stream());
  }
  if (log && !log->commit(problem)) return fail(problem);
  if (!options.outCsv.empty() && !csv.commit(problem)) return fail(problem);
  if (!options.reportHtml.empty() && !report.commit(problem)) return fail(problem);
  if (!calibrationText.empty() && !calibration.commit(problem)) return fail(problem);

  std::fputs(summary.c_str(), stdout);
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
  if (options.version) {
    std::fputs(versionText().c_str(), stdout);
    return 0;
  }
  return run(options);
}
