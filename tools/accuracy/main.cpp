// SPDX-License-Identifier: Apache-2.0
// quelta-accuracy: replays every recording with optical truth through the
// fixed pipelines, the compass filter with and without gyroscope and two
// TRIAD baselines, and prints heading, attitude, tilt and rate errors per
// recording, pooled by kind (board, Nexus 5, iPhone; undisturbed, disturbed),
// the worst recording of each kind, the two folds (odd- and even-numbered
// recordings by name), the targets, the heading accuracy estimate's
// coverage, and the raw iPhone gyroscopes against the same recordings with
// their measured bias removed, as Markdown tables.
//
//   quelta-accuracy [RECORDINGS_DIR] [--quick]
//
// RECORDINGS_DIR defaults to ../shared/recordings next to the repository
// (or $QUELTA_RECORDINGS). --quick runs only the 50 Hz comparison. This is
// the only program that reads the truth columns.
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/accuracy/engines.h"
#include "tools/accuracy/summary.h"
#include "tools/accuracy/recording_set.h"
#include "tools/accuracy/warm_start.h"
#include "tools/replay/reference_comparison.h"

using namespace quelta;
using namespace quelta::accuracy;

namespace {

constexpr double kJudgeFrom = 10.0;  // s after the start
constexpr double kRawVsDebiased = 1.5;  // deg, the raw gyroscopes' heading within this of the debiased ones'

struct Variant {
  std::string name;
  int decimation = 1;
  std::array<double, 3> bias{};  // rad/s added to every gyroscope reading
  double judgeFrom = kJudgeFrom;
  std::vector<Engine> engines;
};

void runVariant(const Variant& variant, const std::vector<TruthRecording>& recordings) {
  std::printf("\n## %s\n\n", variant.name.c_str());
  std::printf("Errors in degrees (rate in rad/s), RMS over the samples with truth from %.0f s on; heading and tilt "
              "split at rest / in motion.\n\n",
              variant.judgeFrom);
  std::printf("| recording | engine | heading | at rest | in motion | attitude | tilt | at rest | in motion | rate | "
              "accuracy 3 at |\n|---|---|---|---|---|---|---|---|---|---|---|\n");
  std::vector<Row> rows;
  for (size_t index = 0; index < recordings.size(); ++index) {
    const TruthRecording& truth = recordings[index];
    const replay::Recording rec =
        variant.decimation > 1 ? decimate(truth.recording, variant.decimation) : truth.recording;
    for (Engine engine : variant.engines) {
      const EngineRun run = runEngine(engine, truth, rec, variant.bias);
      Row row{&truth, index % 2 == 0, engine, measure(truth, rec, run, variant.judgeFrom)};
      const Sums& s = row.result.sums;
      std::printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", truth.name.c_str(),
                  engineName(engine), fmt(s.heading(0)).c_str(), fmt(s.heading(1)).c_str(),
                  fmt(s.heading(2)).c_str(), fmt(s.attitude()).c_str(), fmt(s.tilt(0)).c_str(),
                  fmt(s.tilt(1)).c_str(), fmt(s.tilt(2)).c_str(), fmt(s.rate(), 3).c_str(),
                  std::isfinite(row.result.timeToAccuracy3) ? (fmt(row.result.timeToAccuracy3) + " s").c_str()
                                                            : "never");
      rows.push_back(std::move(row));
    }
    std::fflush(stdout);
  }
  printPooled(rows, variant.engines);
  printWorstOfEachKind(rows, variant.engines);
  printFolds(rows, variant.engines);
  if (variant.judgeFrom == kJudgeFrom && variant.decimation == 1 && variant.bias == std::array<double, 3>{}) {
    printTargets(rows);
    for (Engine engine : variant.engines) printEstimateCoverage(rows, engine);
  }
}

// The recordings with a raw gyroscope (a measured bias in the sidecar):
// as recorded, and with that bias subtracted beforehand.
void compareRawWithDebiased(const std::vector<TruthRecording>& recordings) {
  std::printf("\n## Raw gyroscopes against the same recordings with the bias removed beforehand\n\n");
  std::printf("Compass filter with gyroscope, ideal calibration, 50 Hz, heading RMS from %.0f s on (degrees).\n\n",
              kJudgeFrom);
  std::printf("| recording | bias (rad/s) | raw | debiased | difference | within %.1f° |\n|---|---|---|---|---|---|\n",
              kRawVsDebiased);
  for (const TruthRecording& truth : recordings) {
    const std::array<double, 3>& b = truth.gyroBiasVsTruth;
    if (b == std::array<double, 3>{}) continue;
    const EngineRun raw = runEngine(Engine::CompassGyro, truth, truth.recording, {});
    const EngineRun debiased = runEngine(Engine::CompassGyro, truth, truth.recording, {-b[0], -b[1], -b[2]});
    const double h0 = measure(truth, truth.recording, raw, kJudgeFrom).sums.heading();
    const double h1 = measure(truth, truth.recording, debiased, kJudgeFrom).sums.heading();
    std::printf("| %s | (%s, %s, %s) | %s | %s | %s | %s |\n", truth.name.c_str(), fmt(b[0], 3).c_str(),
                fmt(b[1], 3).c_str(), fmt(b[2], 3).c_str(), fmt(h0).c_str(), fmt(h1).c_str(),
                fmt(h0 - h1).c_str(), h0 - h1 <= kRawVsDebiased ? "yes" : "**no**");
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string directory;
  bool quick = false;
  std::string dump;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      quick = true;
    } else if (std::strcmp(argv[i], "--dump") == 0 && i + 2 < argc) {
      dump = argv[++i];
      dump += ":";
      dump += argv[++i];
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::printf("usage: quelta-accuracy [RECORDINGS_DIR] [--quick]\n");
      return 0;
    } else {
      directory = argv[i];
    }
  }
  if (directory.empty()) {
    const char* env = std::getenv("QUELTA_RECORDINGS");
    directory = env != nullptr ? env : QUELTA_DEFAULT_RECORDINGS;
  }
  const std::vector<std::string> names = listRecordings(directory);
  std::vector<TruthRecording> recordings;
  const char* only = std::getenv("QUELTA_ACCURACY_ONLY");  // a substring of the names to run
  for (const std::string& name : names) {
    if (only != nullptr && name.find(only) == std::string::npos) continue;
    TruthRecording truth;
    std::string problem;
    if (!loadTruthRecording(directory, name, truth, problem)) {
      std::fprintf(stderr, "%s: skipped (%s)\n", name.c_str(), problem.c_str());
      continue;
    }
    recordings.push_back(std::move(truth));
  }
  if (recordings.empty()) {
    std::fprintf(stderr, "no recordings with truth in %s\n", directory.c_str());
    return 2;
  }

  if (!dump.empty()) {
    // Per-sample errors of one engine on one recording: NAME:ENGINE_INDEX.
    const std::string name = dump.substr(0, dump.find(':'));
    const Engine engine = static_cast<Engine>(std::atoi(dump.substr(dump.find(':') + 1).c_str()));
    for (const TruthRecording& truth : recordings) {
      if (truth.name != name) continue;
      const EngineRun run = runEngine(engine, truth, truth.recording, {});
      const replay::Quat north = replay::northFromField({truth.worldField[0], truth.worldField[1], truth.worldField[2]});
      std::printf("t,heading,tilt,reported,flags,gyro\n");
      for (size_t i = 0; i < run.attitude.size(); ++i) {
        const auto& s = truth.recording.samples[i];
        const replay::Quat ref = replay::multiply(north, s.attitude);
        std::printf("%.2f,%.2f,%.2f,%.2f,%u,%.3f\n", s.t, replay::headingErrorDeg(ref, run.attitude[i]),
                    replay::tiltErrorDeg(ref, run.attitude[i]), run.reportedHeadingDeg[i], run.flags[i],
                    std::sqrt(s.gyro[0] * s.gyro[0] + s.gyro[1] * s.gyro[1] + s.gyro[2] * s.gyro[2]));
      }
    }
    return 0;
  }
  const std::vector<Engine> all{Engine::Fixed,     Engine::CompassGyro, Engine::CompassNoGyro, Engine::Triad,
                                Engine::TriadMean, Engine::OwnCalGyro,  Engine::OwnCalNoGyro};
  const double addedBias = 0.02;  // rad/s on each axis
  std::vector<Variant> variants{{"50 Hz", 1, {}, kJudgeFrom, all}};
  if (std::getenv("QUELTA_ACCURACY_ENGINES") != nullptr) {
    // Tuning: only the compass filter with ideal calibration.
    variants[0].engines = {Engine::CompassGyro, Engine::CompassNoGyro};
  }
  if (const char* bias = std::getenv("QUELTA_ACCURACY_GYRO_BIAS")) {
    // Tuning: the first variant with a gyroscope bias, judged from 30 s.
    const double b = std::atof(bias);
    variants[0].bias = {b, b, b};
    variants[0].judgeFrom = 30.0;
  }
  if (const char* decimation = std::getenv("QUELTA_ACCURACY_DECIMATION")) {
    variants[0].decimation = std::atoi(decimation);
  }
  if (!quick) {
    variants.push_back({"50 Hz, judged from 30 s", 1, {}, 30.0, {Engine::CompassGyro}});
    variants.push_back({"gyroscope bias +0.02 rad/s on each axis, judged from 30 s", 1,
                        {addedBias, addedBias, addedBias}, 30.0, {Engine::CompassGyro}});
    variants.push_back({"25 Hz", 2, {}, kJudgeFrom, all});
    variants.push_back({"10 Hz", 5, {}, kJudgeFrom, all});
  }
  for (const Variant& variant : variants) runVariant(variant, recordings);
  compareRawWithDebiased(recordings);
  printWarmStart(directory, recordings);
  return 0;
}
