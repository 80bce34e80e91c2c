// quelta-accuracy: replays every recording with optical truth through the
// fixed pipelines, the compass filter with and without gyroscope and two
// TRIAD baselines, and prints heading, attitude, tilt and rate errors per
// recording and pooled, as Markdown tables.
//
//   quelta-accuracy [RECORDINGS_DIR] [--quick]
//
// RECORDINGS_DIR defaults to ../shared/recordings next to the repository
// (or $QUELTA_RECORDINGS). --quick runs only the 50 Hz comparison. This is
// the only program that reads the truth columns.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "tools/accuracy/engines.h"
#include "tools/accuracy/recording_set.h"
#include "tools/accuracy/warm_start.h"
#include "tools/replay/reference_comparison.h"

using namespace quelta;
using namespace quelta::accuracy;

namespace {

constexpr double kJudgeFrom = 10.0;   // s after the start
constexpr double kRestRate = 0.05;    // rad/s, gyroscope rate below which a sample is at rest

struct Sums {
  double heading2[3] = {0, 0, 0};  // all, rest, motion
  double tilt2[3] = {0, 0, 0};
  size_t n[3] = {0, 0, 0};
  double attitude2 = 0;
  size_t nAttitude = 0;
  double rate2 = 0;
  size_t nRate = 0;

  void add(const Sums& o) {
    for (int k = 0; k < 3; ++k) {
      heading2[k] += o.heading2[k];
      tilt2[k] += o.tilt2[k];
      n[k] += o.n[k];
    }
    attitude2 += o.attitude2;
    nAttitude += o.nAttitude;
    rate2 += o.rate2;
    nRate += o.nRate;
  }
  static double rms(double s, size_t n) { return n == 0 ? NAN : std::sqrt(s / static_cast<double>(n)); }
  double heading(int k) const { return rms(heading2[k], n[k]); }
  double tilt(int k) const { return rms(tilt2[k], n[k]); }
  double attitude() const { return rms(attitude2, nAttitude); }
  double rate() const { return rms(rate2, nRate); }
};

struct Result {
  Sums sums;
  double timeToAccuracy3 = NAN;
  std::vector<std::pair<double, double>> reportedVsActual;  // degrees
};

Result measure(const TruthRecording& truth, const replay::Recording& rec, const EngineRun& run,
               double judgeFrom) {
  Result result;
  const size_t n = rec.samples.size();
  const replay::Quat north = replay::northFromField({truth.worldField[0], truth.worldField[1], truth.worldField[2]});
  std::vector<replay::Quat> reference(n);
  std::vector<double> t(n);
  for (size_t i = 0; i < n; ++i) {
    reference[i] = replay::multiply(north, rec.samples[i].attitude);
    t[i] = rec.samples[i].t;
  }
  const std::vector<replay::Vec3> referenceRate = replay::referenceRates(t, reference);
  const double t0 = rec.samples.empty() ? 0.0 : rec.samples[0].t;
  std::vector<size_t> judged;
  std::vector<replay::Quat> judgedReference, judgedEstimate;
  for (size_t i = 0; i < n; ++i) {
    if (run.accuracy[i] >= 3 && std::isnan(result.timeToAccuracy3)) result.timeToAccuracy3 = t[i] - t0;
    const replay::Quat& r = reference[i];
    const replay::Quat& e = run.attitude[i];
    if (t[i] - t0 < judgeFrom || !std::isfinite(r[0] + r[1] + r[2] + r[3]) ||
        !std::isfinite(e[0] + e[1] + e[2] + e[3]))
      continue;
    judged.push_back(i);
    judgedReference.push_back(r);
    judgedEstimate.push_back(e);
  }
  const double alignment = judged.empty() ? 0.0 : replay::bestHeadingAlignment(judgedReference, judgedEstimate);
  Sums& s = result.sums;
  for (size_t j = 0; j < judged.size(); ++j) {
    const size_t i = judged[j];
    const auto& g = rec.samples[i].gyro;
    const bool rest = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]) < kRestRate;
    const double h = replay::headingErrorDeg(reference[i], run.attitude[i]);
    const double tilt = replay::tiltErrorDeg(reference[i], run.attitude[i]);
    for (int k : {0, rest ? 1 : 2}) {
      s.heading2[k] += h * h;
      s.tilt2[k] += tilt * tilt;
      ++s.n[k];
    }
    const double a = replay::attitudeErrorDeg(reference[i], run.attitude[i], alignment);
    s.attitude2 += a * a;
    ++s.nAttitude;
    const replay::Vec3& rr = referenceRate[i];
    const replay::Vec3& re = run.rate[i];
    const double d2 = (rr[0] - re[0]) * (rr[0] - re[0]) + (rr[1] - re[1]) * (rr[1] - re[1]) +
                      (rr[2] - re[2]) * (rr[2] - re[2]);
    if (std::isfinite(d2)) {
      s.rate2 += d2;
      ++s.nRate;
    }
    if (std::isfinite(run.reportedHeadingDeg[i])) result.reportedVsActual.push_back({run.reportedHeadingDeg[i], h});
  }
  return result;
}

std::string fmt(double v, int digits = 1) {
  if (!std::isfinite(v)) return "–";
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", digits, v);
  return text;
}

struct Variant {
  std::string name;
  int decimation = 1;
  double bias = 0.0;
  double judgeFrom = kJudgeFrom;
  std::vector<Engine> engines;
};

// Pooled groups: every recording belongs to "all" and to one or two others.
std::vector<std::string> groupsOf(const TruthRecording& truth) {
  std::vector<std::string> groups{"all"};
  if (truth.undisturbed()) {
    groups.push_back("undisturbed");
    groups.push_back(truth.phone ? "undisturbed phone" : "undisturbed board");
  } else {
    groups.push_back("disturbed");
  }
  return groups;
}

void printBins(const char* engine, std::vector<std::pair<double, double>> pairs) {
  if (pairs.empty()) return;
  const double edges[] = {0, 1, 1.5, 2, 2.5, 3, 4, 5, 6, 8, 10, 15, 20, 30, 45, 90, 1e9};
  const int bins = static_cast<int>(sizeof edges / sizeof edges[0]) - 1;
  std::printf("\nHeading accuracy estimate, %s: bins by reported value (bins of at least 500 samples judged)\n\n",
              engine);
  std::printf("| reported (deg) | samples | mean reported | actual RMS | ratio | within 2x |\n|---|---|---|---|---|---|\n");
  int judgedBins = 0, goodBins = 0;
  for (int b = 0; b < bins; ++b) {
    double sumReported = 0, sumActual2 = 0;
    size_t count = 0;
    for (const auto& p : pairs) {
      if (p.first >= edges[b] && p.first < edges[b + 1]) {
        sumReported += p.first;
        sumActual2 += p.second * p.second;
        ++count;
      }
    }
    if (count == 0) continue;
    const double mean = sumReported / count;
    const double actual = std::sqrt(sumActual2 / count);
    const double ratio = actual / mean;
    const bool judged = count >= 500;
    const bool good = ratio >= 0.5 && ratio <= 2.0;
    if (judged) {
      ++judgedBins;
      goodBins += good;
    }
    std::printf("| %s–%s | %zu | %s | %s | %s | %s |\n", fmt(edges[b], 1).c_str(),
                edges[b + 1] > 1e8 ? "" : fmt(edges[b + 1], 1).c_str(), count, fmt(mean, 2).c_str(),
                fmt(actual, 2).c_str(), fmt(ratio, 2).c_str(), judged ? (good ? "yes" : "**no**") : "(few)");
  }
  std::printf("\n%d of %d bins with at least 500 samples within a factor of two.\n", goodBins, judgedBins);
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
      const EngineRun run = runEngine(engine, truth, truth.recording, 0.0);
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
  std::vector<Variant> variants{{"50 Hz", 1, 0.0, kJudgeFrom, all}};
  if (std::getenv("QUELTA_ACCURACY_ENGINES") != nullptr) {
    // Tuning: only the compass filter with ideal calibration.
    variants[0].engines = {Engine::CompassGyro, Engine::CompassNoGyro};
  }
  if (const char* bias = std::getenv("QUELTA_ACCURACY_GYRO_BIAS")) {
    // Tuning: the first variant with a gyroscope bias, judged from 30 s.
    variants[0].bias = std::atof(bias);
    variants[0].judgeFrom = 30.0;
  }
  if (const char* decimation = std::getenv("QUELTA_ACCURACY_DECIMATION")) {
    variants[0].decimation = std::atoi(decimation);
  }
  if (!quick) {
    variants.push_back({"50 Hz, judged from 30 s", 1, 0.0, 30.0, {Engine::CompassGyro}});
    variants.push_back({"gyroscope bias +0.02 rad/s on each axis, judged from 30 s", 1, 0.02, 30.0,
                        {Engine::CompassGyro}});
    variants.push_back({"25 Hz", 2, 0.0, kJudgeFrom, all});
    variants.push_back({"10 Hz", 5, 0.0, kJudgeFrom, all});
  }

  for (const Variant& variant : variants) {
    std::printf("\n## %s\n\n", variant.name.c_str());
    std::printf("Errors in degrees (rate in rad/s), RMS over the samples with truth from %.0f s on; heading and tilt "
                "split at rest / in motion.\n\n",
                variant.judgeFrom);
    std::printf("| recording | engine | heading | at rest | in motion | attitude | tilt | at rest | in motion | rate | "
                "accuracy 3 at |\n|---|---|---|---|---|---|---|---|---|---|---|\n");
    std::map<std::pair<std::string, int>, Sums> pooled;
    std::map<int, std::vector<std::pair<double, double>>> bins;
    for (const TruthRecording& truth : recordings) {
      const replay::Recording rec =
          variant.decimation > 1 ? decimate(truth.recording, variant.decimation) : truth.recording;
      for (Engine engine : variant.engines) {
        const EngineRun run = runEngine(engine, truth, rec, variant.bias);
        const Result r = measure(truth, rec, run, variant.judgeFrom);
        const Sums& s = r.sums;
        std::printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", truth.name.c_str(),
                    engineName(engine), fmt(s.heading(0)).c_str(), fmt(s.heading(1)).c_str(),
                    fmt(s.heading(2)).c_str(), fmt(s.attitude()).c_str(), fmt(s.tilt(0)).c_str(),
                    fmt(s.tilt(1)).c_str(), fmt(s.tilt(2)).c_str(), fmt(s.rate(), 3).c_str(),
                    std::isfinite(r.timeToAccuracy3) ? (fmt(r.timeToAccuracy3) + " s").c_str() : "never");
        for (const std::string& group : groupsOf(truth)) pooled[{group, static_cast<int>(engine)}].add(s);
        auto& b = bins[static_cast<int>(engine)];
        b.insert(b.end(), r.reportedVsActual.begin(), r.reportedVsActual.end());
      }
      std::fflush(stdout);
    }
    std::printf("\nPooled (RMS over all judged samples of the group):\n\n");
    std::printf("| group | engine | heading | at rest | in motion | attitude | tilt | at rest | in motion | rate |\n"
                "|---|---|---|---|---|---|---|---|---|---|\n");
    for (const char* group : {"all", "undisturbed", "undisturbed board", "undisturbed phone", "disturbed"}) {
      for (Engine engine : variant.engines) {
        auto it = pooled.find({group, static_cast<int>(engine)});
        if (it == pooled.end()) continue;
        const Sums& s = it->second;
        std::printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", group, engineName(engine),
                    fmt(s.heading(0)).c_str(), fmt(s.heading(1)).c_str(), fmt(s.heading(2)).c_str(),
                    fmt(s.attitude()).c_str(), fmt(s.tilt(0)).c_str(), fmt(s.tilt(1)).c_str(),
                    fmt(s.tilt(2)).c_str(), fmt(s.rate(), 3).c_str());
      }
    }
    if (variant.judgeFrom == kJudgeFrom && variant.decimation == 1) {
      for (Engine engine : variant.engines) printBins(engineName(engine), bins[static_cast<int>(engine)]);
    }
  }
  printWarmStart(directory, recordings);
  return 0;
}
