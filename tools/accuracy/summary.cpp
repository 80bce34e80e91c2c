// SPDX-License-Identifier: Apache-2.0
#include "tools/accuracy/summary.h"

#include <cstdio>
#include <map>

namespace quelta::accuracy {

namespace {

const char* const kKinds[] = {"board undisturbed", "phone undisturbed", "iPhone undisturbed",
                              "board disturbed",   "phone disturbed",   "iPhone disturbed"};

// Targets of the compass filter with gyroscope on an ideal calibration.
constexpr double kUndisturbedHeadingTarget = 2.5;  // deg RMS, pooled undisturbed
constexpr double kDisturbedHeadingTarget = 6.0;    // deg RMS, pooled disturbed
constexpr double kAttitudeTarget = 3.0;            // deg RMS, pooled over all
constexpr double kBoardTiltTarget = 1.5;           // deg RMS, every board recording
constexpr double kWorstToPooled = 2.5;             // no recording worse than this times its kind's pooled figure
constexpr double kFoldSpread = 1.3;                // the worse fold within 30 % of the better

// Every group a recording counts in.
std::vector<std::string> groupsOf(const Row& row) {
  const std::string disturbance = row.truth->undisturbed() ? "undisturbed" : "disturbed";
  const std::string fold = row.oddFold ? "odd fold " : "even fold ";
  return {"all", disturbance, kindOf(*row.truth), fold + disturbance};
}

std::map<std::string, Sums> pool(const std::vector<Row>& rows, Engine engine) {
  std::map<std::string, Sums> pooled;
  for (const Row& row : rows) {
    if (row.engine != engine) continue;
    for (const std::string& group : groupsOf(row)) pooled[group].add(row.result.sums);
  }
  return pooled;
}

const char* verdict(bool met) { return met ? "met" : "**not met**"; }

}  // namespace

std::string kindOf(const TruthRecording& truth) {
  return truth.kind + (truth.undisturbed() ? " undisturbed" : " disturbed");
}

void printPooled(const std::vector<Row>& rows, const std::vector<Engine>& engines) {
  std::printf("\nPooled (RMS over all judged samples of the group):\n\n");
  std::printf("| group | engine | heading | at rest | in motion | attitude | tilt | at rest | in motion | rate |\n"
              "|---|---|---|---|---|---|---|---|---|---|\n");
  std::vector<std::string> groups{"all", "undisturbed", "disturbed"};
  groups.insert(groups.end(), std::begin(kKinds), std::end(kKinds));
  for (const std::string& group : groups) {
    for (Engine engine : engines) {
      const std::map<std::string, Sums> pooled = pool(rows, engine);
      auto it = pooled.find(group);
      if (it == pooled.end()) continue;
      const Sums& s = it->second;
      std::printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", group.c_str(), engineName(engine),
                  fmt(s.heading(0)).c_str(), fmt(s.heading(1)).c_str(), fmt(s.heading(2)).c_str(),
                  fmt(s.attitude()).c_str(), fmt(s.tilt(0)).c_str(), fmt(s.tilt(1)).c_str(), fmt(s.tilt(2)).c_str(),
                  fmt(s.rate(), 3).c_str());
    }
  }
}

void printWorstOfEachKind(const std::vector<Row>& rows, const std::vector<Engine>& engines) {
  std::printf("\nWorst recording of each kind (heading RMS; ratio to the kind's pooled heading):\n\n");
  std::printf("| kind | engine | pooled heading | worst recording | heading | ratio | tilt |\n"
              "|---|---|---|---|---|---|---|\n");
  for (const char* kind : kKinds) {
    for (Engine engine : engines) {
      const std::map<std::string, Sums> pooled = pool(rows, engine);
      auto it = pooled.find(kind);
      if (it == pooled.end()) continue;
      const Row* worst = nullptr;
      for (const Row& row : rows) {
        if (row.engine != engine || kindOf(*row.truth) != kind) continue;
        if (worst == nullptr || row.result.sums.heading() > worst->result.sums.heading()) worst = &row;
      }
      const double pooledHeading = it->second.heading();
      std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", kind, engineName(engine), fmt(pooledHeading).c_str(),
                  worst->truth->name.c_str(), fmt(worst->result.sums.heading()).c_str(),
                  fmt(worst->result.sums.heading() / pooledHeading, 2).c_str(),
                  fmt(worst->result.sums.tilt()).c_str());
    }
  }
}

void printFolds(const std::vector<Row>& rows, const std::vector<Engine>& engines) {
  std::printf("\nTwo folds (recordings sorted by name; odd- and even-numbered), heading RMS:\n\n");
  std::printf("| engine | group | odd fold | even fold | worse / better |\n|---|---|---|---|---|\n");
  for (Engine engine : engines) {
    const std::map<std::string, Sums> pooled = pool(rows, engine);
    for (const char* group : {"undisturbed", "disturbed"}) {
      auto odd = pooled.find(std::string("odd fold ") + group);
      auto even = pooled.find(std::string("even fold ") + group);
      if (odd == pooled.end() || even == pooled.end()) continue;
      const double a = odd->second.heading(), b = even->second.heading();
      std::printf("| %s | %s | %s | %s | %s |\n", engineName(engine), group, fmt(a).c_str(), fmt(b).c_str(),
                  fmt(std::fmax(a, b) / std::fmin(a, b), 2).c_str());
    }
  }
}

void printTargets(const std::vector<Row>& rows) {
  const Engine engine = Engine::CompassGyro;
  const std::map<std::string, Sums> pooled = pool(rows, engine);
  if (pooled.count("all") == 0) return;
  std::printf("\nTargets (compass filter with gyroscope, ideal calibration):\n\n");
  std::printf("| target | measured | |\n|---|---|---|\n");
  auto heading = [&](const std::string& g) { return pooled.count(g) ? pooled.at(g).heading() : NAN; };
  const double undisturbed = heading("undisturbed"), disturbed = heading("disturbed");
  std::printf("| heading, pooled undisturbed ≤ %.1f° | %s° | %s |\n", kUndisturbedHeadingTarget,
              fmt(undisturbed).c_str(), verdict(!(undisturbed > kUndisturbedHeadingTarget)));
  std::printf("| heading, pooled disturbed ≤ %.1f° | %s° | %s |\n", kDisturbedHeadingTarget, fmt(disturbed).c_str(),
              verdict(!(disturbed > kDisturbedHeadingTarget)));
  const double attitude = pooled.at("all").attitude();
  std::printf("| attitude, pooled ≤ %.1f° | %s° | %s |\n", kAttitudeTarget, fmt(attitude).c_str(),
              verdict(attitude <= kAttitudeTarget));
  const Row* worstTilt = nullptr;
  const Row* worstRatio = nullptr;
  double ratio = 0.0;
  for (const Row& row : rows) {
    if (row.engine != engine) continue;
    if (row.truth->kind == "board" &&
        (worstTilt == nullptr || row.result.sums.tilt() > worstTilt->result.sums.tilt()))
      worstTilt = &row;
    const double r = row.result.sums.heading() / heading(kindOf(*row.truth));
    if (r > ratio) {
      ratio = r;
      worstRatio = &row;
    }
  }
  if (worstTilt != nullptr) {
    std::printf("| tilt ≤ %.1f° on every board recording | %s° (%s) | %s |\n", kBoardTiltTarget,
                fmt(worstTilt->result.sums.tilt()).c_str(), worstTilt->truth->name.c_str(),
                verdict(worstTilt->result.sums.tilt() <= kBoardTiltTarget));
  }
  if (worstRatio != nullptr) {
    std::printf("| no recording's heading above %.1f × its kind's pooled figure | %s × (%s) | %s |\n", kWorstToPooled,
                fmt(ratio, 2).c_str(), worstRatio->truth->name.c_str(), verdict(ratio <= kWorstToPooled));
  }
  for (const char* group : {"undisturbed", "disturbed"}) {
    const double a = heading(std::string("odd fold ") + group), b = heading(std::string("even fold ") + group);
    const double spread = std::fmax(a, b) / std::fmin(a, b);
    std::printf("| folds within 30 %%, %s | %s° / %s° | %s |\n", group, fmt(a).c_str(), fmt(b).c_str(),
                verdict(spread <= kFoldSpread));
  }
}

void printEstimateCoverage(const std::vector<Row>& rows, Engine engine) {
  std::vector<std::pair<double, double>> pairs;
  for (const Row& row : rows) {
    if (row.engine != engine) continue;
    pairs.insert(pairs.end(), row.result.reportedVsActual.begin(), row.result.reportedVsActual.end());
  }
  if (pairs.empty()) return;
  const double edges[] = {0, 1, 1.5, 2, 2.5, 3, 4, 5, 6, 8, 10, 15, 20, 30, 45, 90, 1e9};
  const int bins = static_cast<int>(sizeof edges / sizeof edges[0]) - 1;
  std::printf("\nHeading accuracy estimate, %s: bins by reported value (bins of at least 500 samples judged)\n\n",
              engineName(engine));
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
  size_t beyond = 0;
  for (const auto& p : pairs) beyond += std::fabs(p.second) > 2.0 * p.first + 2.0;
  std::printf("\n%d of %d bins with at least 500 samples within a factor of two; %s %% of the samples with an error "
              "above twice the estimate plus 2° (at most 2 %%).\n",
              goodBins, judgedBins, fmt(100.0 * static_cast<double>(beyond) / static_cast<double>(pairs.size()), 2).c_str());
}

}  // namespace quelta::accuracy
