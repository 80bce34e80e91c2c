// SPDX-License-Identifier: Apache-2.0
#include "tools/accuracy/scoring.h"

#include <cstdio>

#include "tools/replay/reference_comparison.h"

namespace quelta::accuracy {

namespace {

constexpr double kRestRate = 0.05;  // rad/s, gyroscope rate below which a sample is at rest

}  // namespace

void Sums::add(const Sums& o) {
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

std::string fmt(double v, int digits) {
  if (!std::isfinite(v)) return "–";
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", digits, v);
  return text;
}

}  // namespace quelta::accuracy
