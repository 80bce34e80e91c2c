// SPDX-License-Identifier: Apache-2.0
#include "tools/accuracy/warm_start.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

#include "quelta/compass/compass.h"
#include "tools/replay/attitude_math.h"
#include "tools/replay/reference_comparison.h"

namespace quelta::accuracy {
namespace {

constexpr double kJudgeFrom = 10.0;   // s: heading RMS from here, as the other tables
constexpr double kWithinDeg = 5.0;    // "within 5 degrees for good" ...
constexpr double kWithinWindow = 1.0;  // s: ... judged on the mean absolute error over this window
constexpr double kLevel3OffDeg = 15.0;  // an accuracy-3 heading this far off is a broken promise

// Each phone's calibration recording (no truth; another day for most).
struct Device {
  const char* prefix;
  const char* calibrationRecording;
};
constexpr Device kDevices[] = {
    {"n5_", "n5_calib_figure8_d2"}, {"i4s_", "i4s_calib_mag_d2"}, {"i5_", "i5_calib_mag_d3"}};

compass::Vec3 vec(const std::array<double, 3>& a) { return {a[0], a[1], a[2]}; }

compass::Compass& sharedCompass() {
  static compass::Compass whole;  // large: kept off the stack
  return whole;
}

// The record the compass saves after the calibration recording; false when
// it has none.
bool savedAfter(const replay::Recording& rec, uint8_t (&record)[magnetic::kRecordSize]) {
  compass::Compass& whole = sharedCompass();
  whole.reset();
  for (const replay::RecordedSample& s : rec.samples) {
    const compass::Vec3 raw = vec(s.mag), rate = vec(s.gyro);
    whole.update(s.t, vec(s.acc), &raw, s.hasGyro ? &rate : nullptr);
  }
  return whole.calibrator().save(record) == magnetic::RecordStatus::Ok;
}

struct Figures {
  double offsetErrorMg = NAN;   // restored offset against the recording's truth-aided one
  double within = NAN;          // s until the heading stays within kWithinDeg; NaN: never
  double rms = NAN;             // heading RMS from kJudgeFrom
  size_t level3 = 0, level3Off = 0;
};

Figures warmRun(const TruthRecording& truth, const uint8_t (&record)[magnetic::kRecordSize], bool warm) {
  Figures f;
  compass::Compass& whole = sharedCompass();
  whole.reset();
  if (warm) {
    whole.calibrator().restore(record, sizeof record);
    const auto ref = truth.offsetAt(0.0);
    const Vec3d c = whole.calibrator().calibration().offset;
    f.offsetErrorMg = 1000.0 * norm(c - Vec3d{ref[0], ref[1], ref[2]});
  }
  const replay::Quat north = replay::northFromField({truth.worldField[0], truth.worldField[1], truth.worldField[2]});
  const auto& samples = truth.recording.samples;
  const double t0 = samples.empty() ? 0.0 : samples.front().t;
  double sum = 0.0, lastOff = -1.0, lastT = 0.0;
  double windowMean = 0.0;  // mean absolute heading error over about kWithinWindow
  size_t n = 0;
  bool any = false;
  for (const replay::RecordedSample& s : samples) {
    const compass::Vec3 raw = vec(s.mag), rate = vec(s.gyro);
    whole.update(s.t, vec(s.acc), &raw, s.hasGyro ? &rate : nullptr);
    if (!s.hasAttitude) continue;
    const compass::Quat& q = whole.output().attitude;
    const replay::Quat reference = replay::multiply(north, s.attitude);
    const double h = replay::headingErrorDeg(reference, {q.w, q.x, q.y, q.z});
    if (!std::isfinite(h)) continue;
    any = true;
    const bool headingKnown = (whole.output().flags & compass::kFlagNoHeading) == 0;
    const double dt = std::fmin(std::fmax(s.t - t0 - lastT, 0.0), kWithinWindow);
    windowMean += dt / kWithinWindow * (std::fabs(h) - windowMean);
    if (!headingKnown || windowMean > kWithinDeg) lastOff = s.t - t0;
    lastT = s.t - t0;
    if (s.t - t0 >= kJudgeFrom) {
      sum += h * h;
      ++n;
      if (whole.output().accuracy >= 3) {
        ++f.level3;
        if (std::fabs(h) > kLevel3OffDeg) ++f.level3Off;
      }
    }
  }
  if (any) f.within = lastOff < 0.0 ? 0.0 : (lastOff >= lastT ? NAN : lastOff);
  f.rms = n > 0 ? std::sqrt(sum / static_cast<double>(n)) : NAN;
  return f;
}

std::string fmt(double v, const char* unit = "") {
  if (!std::isfinite(v)) return "never";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f%s", v, unit);
  return text;
}

}  // namespace

void printWarmStart(const std::string& directory, const std::vector<TruthRecording>& recordings) {
  std::printf("\n## Warm start from the device's saved calibration (whole compass, gyroscope)\n\n");
  std::printf("The compass runs the device's calibration recording and saves its calibration; every recording of "
              "that phone then starts from it. Within 5°: time until the heading error (its mean over 1 s) stays within 5° for good. "
              "RMS from %.0f s; cold: the same compass from nothing.\n\n", kJudgeFrom);
  std::printf("| recording | saved offset off by | within 5° at (warm) | (cold) | heading RMS warm | cold |\n"
              "|---|---|---|---|---|---|\n");
  size_t level3[2] = {0, 0}, level3Off[2] = {0, 0};
  double worstWithin = 0.0;
  bool allWithin = true;
  for (const Device& device : kDevices) {
    replay::Recording calibration;
    replay::InputError error;
    uint8_t record[magnetic::kRecordSize];
    if (!replay::readRecording(directory + "/" + device.calibrationRecording + ".csv.gz", replay::Units{},
                               calibration, error) ||
        !savedAfter(calibration, record)) {
      std::printf("| %s… | no calibration saved from %s | | | | |\n", device.prefix, device.calibrationRecording);
      continue;
    }
    for (const TruthRecording& truth : recordings) {
      if (truth.name.rfind(device.prefix, 0) != 0) continue;
      const Figures warm = warmRun(truth, record, true);
      const Figures cold = warmRun(truth, record, false);
      std::printf("| %s | %s mG | %s | %s | %s | %s |\n", truth.name.c_str(), fmt(warm.offsetErrorMg).c_str(),
                  fmt(warm.within, " s").c_str(), fmt(cold.within, " s").c_str(), fmt(warm.rms).c_str(),
                  fmt(cold.rms).c_str());
      if (truth.undisturbed()) {
        allWithin = allWithin && std::isfinite(warm.within);
        if (std::isfinite(warm.within)) worstWithin = std::fmax(worstWithin, warm.within);
      }
      level3[0] += warm.level3;
      level3Off[0] += warm.level3Off;
      level3[1] += cold.level3;
      level3Off[1] += cold.level3Off;
    }
  }
  // The boards have no saved calibration: cold only, for the honesty figure.
  size_t boardLevel3 = 0, boardLevel3Off = 0;
  for (const TruthRecording& truth : recordings) {
    if (truth.phone) continue;
    uint8_t none[magnetic::kRecordSize] = {};
    const Figures cold = warmRun(truth, none, false);
    boardLevel3 += cold.level3;
    boardLevel3Off += cold.level3Off;
  }
  std::printf("\nUndisturbed phone recordings: the warm heading is within 5° for good after at most %s%s.\n",
              fmt(worstWithin, " s").c_str(), allWithin ? "" : " (some never)");
  for (int k = 0; k < 2; ++k) {
    std::printf("Phones, %s: %zu samples at accuracy 3 from %.0f s, %.2f %% of them more than %.0f° off.\n",
                k == 0 ? "warm" : "cold", level3[k], kJudgeFrom,
                level3[k] > 0 ? 100.0 * static_cast<double>(level3Off[k]) / static_cast<double>(level3[k]) : 0.0,
                kLevel3OffDeg);
  }
  const size_t all = level3[1] + boardLevel3, allOff = level3Off[1] + boardLevel3Off;
  std::printf("All recordings, cold: %zu samples at accuracy 3 from %.0f s, %.2f %% of them more than %.0f° off.\n", all,
              kJudgeFrom, all > 0 ? 100.0 * static_cast<double>(allOff) / static_cast<double>(all) : 0.0, kLevel3OffDeg);
}

}  // namespace quelta::accuracy
