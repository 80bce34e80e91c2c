// SPDX-License-Identifier: Apache-2.0
// quelta-replay: replays a sensor recording through every service of the
// library, prints a summary and optionally writes the per-sample outputs,
// a visual report, the library's log and the calibration to keep.
//
// Everything streams: samples are read, replayed, written to the output
// table and folded into the summary, the comparison and the report one at a
// time, so memory does not grow with the recording.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "tools/replay/algo_setup.h"
#include "tools/replay/bundled_recording.h"
#include "tools/replay/cli_options.h"
#include "tools/replay/compass_driver.h"
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
  if (!options.calibrationFile.empty() && options.engine != Engine::Compass) {
    bool found = false;
    if (!readCalibrationFile(options.calibrationFile, fromFile, found, problem)) return fail(problem);
    fromFile.applyTo(setup);
  }
  options.setup.applyTo(setup);
  // AlgoInitial adopts any stored offset: a wrong one would stay for the run.
  const std::string storedProblem = dropImplausibleStoredCalibration(setup);
  if (!storedProblem.empty()) {
    std::fprintf(stderr, "quelta-replay: warning: %s; not used, calibrating from scratch\n", storedProblem.c_str());
  }

  // The recording streams; its first samples are read ahead for the
  // sample interval the library is initialised with and the units check.
  RecordingReader reader;
  if (!reader.open(recordingPath, options.units, options.columns)) {
    std::string message = reader.error().describe();
    if (reader.error().message.rfind("missing required column", 0) == 0 && options.columns.rename.empty()) {
      message += "\n(--columns names the columns a logger calls otherwise: --columns t=timestamp_ns,ax=acc_x,...)";
    }
    return fail(message);
  }
  const std::vector<RecordedSample>& first = reader.peek(kUnitsCheckSamples);
  if (reader.failed()) return fail(reader.error().describe());
  const auto firstField = std::find_if(first.begin(), first.end(), [](const RecordedSample& s) { return s.hasMag; });
  if (firstField == first.end()) {
    return fail("no field reading (mx my mz) in the first " + std::to_string(first.size()) + " rows");
  }
  for (const std::string& warning : checkUnits(first, options.units)) {
    std::fprintf(stderr, "quelta-replay: warning: %s\n", warning.c_str());
  }
  const double period = nominalPeriod(first);
  const bool compass = options.engine == Engine::Compass;
  const bool rateFromAttitude = compass && options.gyro;
  CompassDriverOptions compassOptions;
  std::string compassSetup;
  if (compass) {
    if (options.gyro && !reader.hasGyroColumns()) {
      return fail("--gyro: the recording has no gyroscope columns (gx gy gz) to feed");
    }
    compassOptions.feedGyro = options.gyro;
    compassSetup = options.gyro ? "gyroscope fed (gx gy gz)" : "no gyroscope";
    if (options.location) {
      const Location& l = *options.location;
      ExpectedField expected;
      std::vector<std::string> warnings;
      if (!expectedFieldAt(l.latitudeDeg, l.longitudeDeg, l.heightM, options.date, expected, warnings, problem)) {
        return fail(problem);
      }
      for (const std::string& warning : warnings) std::fprintf(stderr, "quelta-replay: warning: %s\n", warning.c_str());
      compassOptions.expected = expected;
      char text[256];
      std::snprintf(text, sizeof text,
                    "; field model at %.5f,%.5f,%.0f m on %s: strength %.4f gauss, dip %.2f deg, declination %.2f deg "
                    "(headings to true north)",
                    l.latitudeDeg, l.longitudeDeg, l.heightM, options.date.c_str(), expected.strengthGauss,
                    expected.dipDeg, expected.declinationDeg);
      compassSetup += text;
    } else {
      compassSetup += "; no location (headings to magnetic north)";
    }
    if (calibration) {
      bool found = false;
      if (!readCompassCalibration(options.calibrationFile, compassOptions.restore, found, problem)) return fail(problem);
      compassSetup += found ? "; calibration restored from " + options.calibrationFile : "; no saved calibration";
    }
  }
  const size_t total = 0;  // not known before the end
  const std::string name = reader.name();
  const bool hasGyro = reader.hasGyroColumns(), hasAttitude = reader.hasAttitudeColumns();
  const SampleSource source = [&reader](RecordedSample& sample) { return reader.next(sample); };

  // Outputs that stream are opened now; the rest when their content is ready.
  DriverOptions driver;
  driver.setup = setup;
  driver.logMode = options.logMode;
  driver.firstField = firstField->mag;
  if (log) {
    if (!log->open(problem)) return fail(problem);
    setLogStream(log->stream());
    driver.log = prefixedLog;
  }
  if (csv) {
    if (!csv->open(problem)) return fail(problem);
    (compass ? writeCompassCsvHeader : writeOutputCsvHeader)(csv->stream());
  }
  driver.progress = [&progress](size_t done, size_t all) { progress.show("replaying", done, all); };
  compassOptions.progress = driver.progress;

  SummaryBuilder summaryBuilder(name, period);
  if (compass) summaryBuilder.setCompass(compassSetup);
  ReferenceComparator comparator(hasGyro, hasAttitude, rateFromAttitude);
  comparator.judgeFrom(kJudgeFromS);
  std::unique_ptr<ReportBuilder> reportBuilder;
  if (report) {
    reportBuilder = std::make_unique<ReportBuilder>(name, hasGyro, hasAttitude);
    if (compass) reportBuilder->setCompass(rateFromAttitude);
  }
  std::optional<ReplayRow> lastFit;
  CompassCalibrationOutcome compassCalibration;
  FILE* const csvStream = csv ? csv->stream() : nullptr;
  {
    // The library runs on this thread; everything made of its outputs on another.
    RowPipeline consumers([&](const RecordedSample& sample, const ReplayRow& row) {
      if (csvStream != nullptr) (compass ? writeCompassCsvRow : writeOutputCsvRow)(csvStream, row);
      summaryBuilder.add(row);
      comparator.add(sample, row);
      if (reportBuilder) reportBuilder->add(sample, row);
      if (row.newCalibration) lastFit = row;
    });
    const RowSink handOver = [&consumers](const RecordedSample& sample, const ReplayRow& row) {
      consumers.add(sample, row);
    };
    if (compass) {
      replayCompassStream(source, total, compassOptions, handOver, &compassCalibration);
    } else {
      replayStream(source, period, total, driver, handOver);
      RegisterLogCallback(nullptr);
      setLogStream(nullptr);
    }
    consumers.finish();
  }
  // A problem further down the recording: nothing is kept (the outputs'
  // temporaries go with their OutputFile).
  if (reader.failed()) {
    progress.clear();
    return fail(reader.error().describe());
  }

  const size_t replayed = reader.samplesRead();
  size_t compared = 0;
  progress.show("comparing with the reference", 0, replayed);
  const ReferenceComparison reference = comparator.finish([&](const SampleErrors& errors) {
    if (reportBuilder) reportBuilder->addErrors(errors);
    if (++compared % 65536 == 0) progress.show("comparing with the reference", compared, replayed);
  });
  Summary figures = summaryBuilder.finish();
  if (figures.compass) figures.compass->reasonText = calibrationReasonText(figures.compass->last.reason);
  std::string summary = formatSummary(figures, reference);

  if (!storedProblem.empty()) summary += "stored calibration not used: " + storedProblem + "\n";
  std::string calibrationText;
  if (calibration && compass) {
    summary += compassCalibrationSummary(compassCalibration, options.calibrationFile, calibrationText);
  } else if (calibration) {
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
    const std::string html = reportBuilder->render(summary, figures.drops);
    std::fwrite(html.data(), 1, html.size(), report->stream());
  }
  if (!calibrationText.empty()) {
    if (!calibration->open(problem)) return fail(problem);
    std::fwrite(calibrationText.data(), 1, calibrationText.size(), calibration->stream());
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
  if (options.version) {
    std::fputs(versionText().c_str(), stdout);
    return 0;
  }
  return run(options);
}
