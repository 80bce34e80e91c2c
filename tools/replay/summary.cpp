// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/summary.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace quelta::replay {

namespace {

void appendf(std::string& text, const char* format, ...) __attribute__((format(printf, 2, 3)));

void appendf(std::string& text, const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  text += line;
}

// The compass's no-heading flag (QUELTA_COMPASS_FLAG_NO_HEADING).
constexpr uint32_t kNoHeadingFlag = 0x8u;

// The compass's flags (quelta_compass.h) by name.
std::string flagsText(uint32_t flags) {
  static const char* const kNames[6] = {"calibrating", "magnetically disturbed", "accelerating",
                                        "no heading",  "gyroscope",              "resting"};
  std::string text;
  for (int bit = 0; bit < 6; ++bit) {
    if ((flags & (1u << bit)) == 0) continue;
    if (!text.empty()) text += ", ";
    text += kNames[bit];
  }
  return text.empty() ? "none" : text;
}

template <size_t N>
bool finite(const std::array<float, N>& values) {
  for (float v : values) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

// Names of the outputs of a row that are not finite numbers, "" when all are.
std::string nonFiniteOutputs(const ReplayRow& r) {
  std::string names;
  auto check = [&names](bool ok, const char* name) {
    if (ok) return;
    if (!names.empty()) names += ", ";
    names += name;
  };
  check(finite(r.offset) && std::isfinite(r.radius), "calibration");
  check(finite(r.calField), "calibrated field");
  check(finite(r.orientation), "orientation");
  check(finite(r.vgyro), "virtual gyroscope");
  check(finite(r.rotVec), "rotation vector");
  check(finite(r.gravity) && finite(r.linearAcc), "gravity");
  return names;
}

void appendCompass(std::string& text, const Summary& s) {
  const CompassSummary& c = *s.compass;
  const CompassRow& q = c.last;
  static const char* const kModels[3] = {"none", "sphere", "ellipsoid"};
  appendf(text, "engine           compass, %s\n", c.setup.c_str());
  const auto& m = q.softIron;
  const bool calibrated = q.model != 0;
  if (calibrated) {
    appendf(text, "soft iron        %.4f %.4f %.4f / %.4f %.4f %.4f / %.4f %.4f %.4f (%s)\n", m[0], m[1], m[2], m[3],
            m[4], m[5], m[6], m[7], m[8], kModels[std::clamp(q.model, 0, 2)]);
  } else {
    text += "soft iron        none (no calibration yet)\n";
  }
  const std::string reason = c.reasonText.empty() ? "reason " + std::to_string(q.reason) : c.reasonText;
  if (calibrated) {
    appendf(text, "quality          coverage %.0f %%, residual %.4f gauss, heading error estimate %.1f deg, %s\n",
            100.0 * q.coverage, q.residual, q.calibrationHeadingError, reason.c_str());
  } else {
    appendf(text, "quality          coverage %.0f %%, no fit yet: %s\n", 100.0 * q.coverage, reason.c_str());
  }
  if (!calibrated) {
    text += "field strength   none fitted yet\n";
  } else if (q.expectedStrength > 0.0f) {
    appendf(text, "field strength   fitted %.4f gauss, expected %.4f gauss (field model)\n", q.fittedStrength,
            q.expectedStrength);
  } else {
    appendf(text, "field strength   fitted %.4f gauss (no expected value without --location and --date)\n",
            q.fittedStrength);
  }
  const double total = s.samples > 0 ? static_cast<double>(s.samples) : 1.0;
  if (c.disturbedSamples > 0) {
    appendf(text, "disturbance      flagged on %zu samples (%.1f %%, %.2f s), highest score %.2f\n",
            c.disturbedSamples, 100.0 * static_cast<double>(c.disturbedSamples) / total, c.disturbedTime,
            c.maxDisturbance);
  } else {
    appendf(text, "disturbance      none flagged, highest score %.2f\n", c.maxDisturbance);
  }
  if (c.headingReported) {
    appendf(text, "first heading    at %.2f s\n", c.firstHeadingAt);
  } else {
    text += "first heading    none (the no-heading flag was raised on every sample)\n";
  }
  // 180 deg is the compass's "unknown".
  char final[64] = "final unknown";
  if (q.headingAccuracy < 180.0f) std::snprintf(final, sizeof final, "final %.1f deg", q.headingAccuracy);
  if (c.headingAccuracyCount > 0) {
    appendf(text, "heading accuracy mean %.1f deg at accuracy 3, %s\n",
            c.headingAccuracySum / static_cast<double>(c.headingAccuracyCount), final);
  } else {
    appendf(text, "heading accuracy none at accuracy 3 (never reached), %s\n", final);
  }
  appendf(text, "flags            %s\n", flagsText(q.flags).c_str());
}

}  // namespace

SummaryBuilder::SummaryBuilder(std::string recordingName, double period) : period_(period) {
  s_.recording = std::move(recordingName);
  s_.rate = period > 0.0 ? 1.0 / period : 0.0;
}

void SummaryBuilder::setCompass(std::string setup) {
  s_.compass = CompassSummary{};
  s_.compass->setup = std::move(setup);
}

void SummaryBuilder::add(const ReplayRow& row) {
  const int level = std::clamp(row.accuracy, 0, 3);
  if (s_.samples == 0) {
    firstT_ = row.t;
  } else {
    // The time since the previous sample counts at the previous sample's level.
    s_.timeAtAccuracy[previousLevel_] += row.t - previousT_;
    if (s_.compass && previousDisturbed_) s_.compass->disturbedTime += row.t - previousT_;
  }
  if (s_.compass) {
    CompassSummary& c = *s_.compass;
    c.last = row.compass;
    if (row.compass.disturbed) ++c.disturbedSamples;
    if (std::isfinite(row.compass.disturbance)) c.maxDisturbance = std::max(c.maxDisturbance, row.compass.disturbance);
    if (!c.headingReported && (row.compass.flags & kNoHeadingFlag) == 0) {
      c.headingReported = true;
      c.firstHeadingAt = row.t;
    }
    if (level == 3 && std::isfinite(row.compass.headingAccuracy)) {
      c.headingAccuracySum += row.compass.headingAccuracy;
      ++c.headingAccuracyCount;
    }
    previousDisturbed_ = row.compass.disturbed;
  }
  ++s_.samples;

  // Drops still open end when the level is back at the one they fell from.
  while (!openDrops_.empty() && level >= s_.drops[openDrops_.back()].from) {
    AccuracyDrop& drop = s_.drops[openDrops_.back()];
    drop.duration = row.t - drop.at;
    drop.recovered = true;
    openDrops_.pop_back();
  }
  for (size_t index : openDrops_) s_.drops[index].lowest = std::min(s_.drops[index].lowest, level);
  if (s_.samples > 1 && level < previousLevel_) {
    s_.drops.push_back({row.t, previousLevel_, level, 0.0, false});
    openDrops_.push_back(s_.drops.size() - 1);
  }

  for (int l = 1; l <= 3; ++l) {
    if (level >= l && !s_.accuracyReached[l - 1]) s_.accuracyReached[l - 1] = row.t;
  }
  if (row.newCalibration) {
    ++s_.acceptedFits;
    s_.lastAcceptedAt = row.t;
  }
  if (row.saturation) ++s_.saturations;
  if (row.fieldMissing) ++s_.fieldMissing;
  const std::string bad = nonFiniteOutputs(row);
  if (!bad.empty()) {
    if (s_.nonFiniteSamples == 0) {
      s_.firstNonFiniteAt = row.t;
      s_.firstNonFiniteOutput = bad;
    }
    ++s_.nonFiniteSamples;
  }
  s_.finalAccuracy = level;
  s_.offset = row.offset;
  s_.radius = row.radius;
  s_.geometry = row.geometry;
  previousT_ = row.t;
  previousLevel_ = level;
}

Summary SummaryBuilder::finish() {
  if (s_.samples > 0) {
    s_.duration = previousT_ - firstT_;
    // The last sample stands for one interval; drops still open last to the end.
    s_.timeAtAccuracy[previousLevel_] += period_;
    if (s_.compass && previousDisturbed_) s_.compass->disturbedTime += period_;
    for (size_t index : openDrops_) s_.drops[index].duration = previousT_ + period_ - s_.drops[index].at;
  }
  openDrops_.clear();
  return s_;
}

Summary summarise(const Recording& recording, const std::vector<ReplayRow>& rows) {
  SummaryBuilder builder(recording.name, recording.nominalPeriod());
  for (const ReplayRow& row : rows) builder.add(row);
  return builder.finish();
}

std::string formatSummary(const Summary& s, const ReferenceComparison& reference) {
  std::string text;
  appendf(text, "recording        %s\n", s.recording.c_str());
  appendf(text, "samples          %zu over %.2f s at %.1f Hz\n", s.samples, s.duration, s.rate);
  text += "accuracy reached";
  for (int level = 1; level <= 3; ++level) {
    if (s.accuracyReached[level - 1]) {
      appendf(text, "  %d at %.2f s", level, *s.accuracyReached[level - 1]);
    } else {
      appendf(text, "  %d never", level);
    }
  }
  appendf(text, "  (final %d)\n", s.finalAccuracy);
  double total = 0.0;
  for (double t : s.timeAtAccuracy) total += t;
  text += "time at accuracy";
  for (int level = 0; level <= 3; ++level) {
    appendf(text, "  %d: %.2f s (%.1f %%)", level, s.timeAtAccuracy[level],
            total > 0.0 ? 100.0 * s.timeAtAccuracy[level] / total : 0.0);
  }
  text += "\n";
  if (s.drops.empty()) {
    text += "accuracy drops   none\n";
  } else {
    appendf(text, "accuracy drops   %zu\n", s.drops.size());
    for (size_t i = 0; i < s.drops.size() && i < kDropsListed; ++i) {
      const AccuracyDrop& d = s.drops[i];
      appendf(text, "  at %.2f s from %d to %d for %.2f s%s\n", d.at, d.from, d.lowest, d.duration,
              d.recovered ? "" : " (to the end)");
    }
    if (s.drops.size() > kDropsListed) {
      double rest = 0.0;
      for (size_t i = kDropsListed; i < s.drops.size(); ++i) rest += s.drops[i].duration;
      appendf(text, "  and %zu more, %.2f s in all\n", s.drops.size() - kDropsListed, rest);
    }
  }
  if (s.compass && s.compass->last.model == 0) {
    // The compass reports zeros before its first calibration.
    text += "offset           none (no calibration yet)\nradius           none\n";
  } else {
    appendf(text, "offset           %.5f %.5f %.5f gauss\n", s.offset[0], s.offset[1], s.offset[2]);
    appendf(text, "radius           %.5f gauss\n", s.radius);
  }
  if (s.lastAcceptedAt) {
    appendf(text, "accepted fits    %d, last at %.2f s\n", s.acceptedFits, *s.lastAcceptedAt);
  } else {
    text += "accepted fits    none\n";
  }
  if (s.compass) {
    appendCompass(text, s);
  } else if (s.geometry[0] == 0.0f && s.geometry[1] == 0.0f && s.geometry[2] == 0.0f) {
    text += "field geometry   none measured (at accuracy 3 while the device is still)\n";
  } else {
    appendf(text, "field geometry   horizontal %.4f gauss, vertical %.4f gauss, inclination %.2f deg\n",
            s.geometry[0], s.geometry[1], s.geometry[2]);
  }
  if (s.saturations > 0) appendf(text, "saturations      %d\n", s.saturations);
  if (s.fieldMissing > 0) {
    // Sensors at different rates: the compass takes a row without a field
    // reading as such; the fixed pipelines need one on every row.
    appendf(text, "field readings   none on %zu of %zu rows (sensors at different rates): %s\n", s.fieldMissing,
            s.samples,
            s.compass ? "given to the compass as no reading"
                      : "the fixed pipelines were given the previous row's field there");
  }
  if (s.nonFiniteSamples > 0) {
    appendf(text, "non-finite       %zu samples with outputs that are not finite numbers, first at %.2f s (%s)\n",
            s.nonFiniteSamples, *s.firstNonFiniteAt, s.firstNonFiniteOutput.c_str());
  }
  if (reference.missingGyro > 0 || reference.missingAttitude > 0) {
    appendf(text, "no reference     %s on", reference.rateFromAttitude ? "rate" : "gyroscope");
    appendf(text, " %zu samples, attitude on %zu samples (left out of the comparisons)\n",
            reference.missingGyro, reference.missingAttitude);
  }
  // What the comparisons cover: "... over N <part>".
  std::string part = reference.calibratedOnly ? "calibrated samples" : "uncalibrated samples";
  std::string none = reference.calibratedOnly ? "no calibrated sample" : "no sample";
  if (reference.judgedFromS) {
    char window[64];
    std::snprintf(window, sizeof window, "from %.0f s on", *reference.judgedFromS);
    part = reference.calibratedOnly ? std::string("samples ") + window
                                    : "samples (all: the recording is shorter than the judging window)";
    none = std::string("no sample ") + window;
  }
  // A comparison over no sample at all says so rather than print zeros.
  auto nothingCompared = [&](const char* label, size_t count) {
    if (count > 0) return false;
    appendf(text, "%s none: %s with a reference value\n", label, none.c_str());
    return true;
  };
  if (reference.gyro) {
    const GyroComparison& g = *reference.gyro;
    // The compass reports an angular rate; fed the gyroscope, it is judged
    // against the rate derived from the reference attitude instead.
    if (nothingCompared(s.compass ? "angular rate    " : "virtual gyro    ", g.count)) {
    } else if (s.compass) {
      appendf(text, "angular rate     RMS error %.4f rad/s (x %.4f, y %.4f, z %.4f) against the %s over %zu %s; reference RMS %.4f rad/s\n",
              g.rms, g.rmsAxis[0], g.rmsAxis[1], g.rmsAxis[2],
              reference.rateFromAttitude ? "rate from the reference attitude" : "reference gyroscope", g.count, part.c_str(),
              g.referenceRms);
    } else {
      appendf(text, "virtual gyro     RMS error %.4f rad/s (x %.4f, y %.4f, z %.4f) over %zu %s; reference RMS %.4f rad/s\n",
              g.rms, g.rmsAxis[0], g.rmsAxis[1], g.rmsAxis[2], g.count, part.c_str(), g.referenceRms);
    }
  }
  if (reference.rotationVector) {
    const AngleComparison& r = *reference.rotationVector;
    const char* label = s.compass ? "attitude       " : "rotation vector";
    if (!nothingCompared(label, r.count)) {
      appendf(text, "%s  RMS error %.2f deg, median %.2f deg, max %.2f deg over %zu %s, heading alignment %.2f deg\n",
              label, r.rmsDeg, r.medianDeg, r.maxDeg, r.count, part.c_str(), r.alignmentDeg);
    }
  }
  // At any tilt: shown for the compass, whose attitude is meant to hold
  // there (the fixed pipelines' lines stay as they were).
  if (s.compass && reference.heading && reference.tilt) {
    const AngleComparison& h = *reference.heading;
    const AngleComparison& t = *reference.tilt;
    if (!nothingCompared("heading         ", h.count)) {
      appendf(text, "heading          RMS error %.2f deg, median %.2f deg, max %.2f deg over %zu %s at any tilt (turn about the vertical)\n",
              h.rmsDeg, h.medianDeg, h.maxDeg, h.count, part.c_str());
      appendf(text, "tilt             RMS error %.2f deg, median %.2f deg, max %.2f deg over %zu %s\n",
              t.rmsDeg, t.medianDeg, t.maxDeg, t.count, part.c_str());
    }
  }
  if (reference.azimuth) {
    const AngleComparison& a = *reference.azimuth;
    if (a.count == 0) {
      appendf(text, "azimuth          none: %s with a reference value tilted <= %.0f deg\n", none.c_str(),
              kAzimuthMaxTiltDeg);
    } else {
      appendf(text, "azimuth          RMS error %.2f deg, median %.2f deg, max %.2f deg over %zu %s tilted <= %.0f deg, heading alignment %.2f deg\n",
              a.rmsDeg, a.medianDeg, a.maxDeg, a.count, part.c_str(), kAzimuthMaxTiltDeg, a.alignmentDeg);
    }
  }
  return text;
}

}  // namespace quelta::replay
