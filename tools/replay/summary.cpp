#include "tools/replay/summary.h"

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

}  // namespace

Summary summarise(const Recording& recording, const std::vector<ReplayRow>& rows) {
  Summary s;
  s.recording = recording.name;
  s.samples = rows.size();
  s.duration = recording.duration();
  const double period = recording.nominalPeriod();
  s.rate = period > 0.0 ? 1.0 / period : 0.0;
  for (const ReplayRow& row : rows) {
    for (int level = 1; level <= 3; ++level) {
      if (row.accuracy >= level && !s.accuracyReached[level - 1]) s.accuracyReached[level - 1] = row.t;
    }
    if (row.newCalibration) {
      ++s.acceptedFits;
      s.lastAcceptedAt = row.t;
    }
    if (row.saturation) ++s.saturations;
  }
  if (!rows.empty()) {
    const ReplayRow& last = rows.back();
    s.finalAccuracy = last.accuracy;
    s.offset = last.offset;
    s.radius = last.radius;
    s.geometry = last.geometry;
  }
  return s;
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
  appendf(text, "offset           %.5f %.5f %.5f gauss\n", s.offset[0], s.offset[1], s.offset[2]);
  appendf(text, "radius           %.5f gauss\n", s.radius);
  if (s.lastAcceptedAt) {
    appendf(text, "accepted fits    %d, last at %.2f s\n", s.acceptedFits, *s.lastAcceptedAt);
  } else {
    text += "accepted fits    0\n";
  }
  appendf(text, "field geometry   horizontal %.4f gauss, vertical %.4f gauss, inclination %.2f deg\n",
          s.geometry[0], s.geometry[1], s.geometry[2]);
  if (s.saturations > 0) appendf(text, "saturations      %d\n", s.saturations);
  const char* part = reference.calibratedOnly ? "calibrated" : "uncalibrated";
  if (reference.gyro) {
    const GyroComparison& g = *reference.gyro;
    appendf(text, "virtual gyro     RMS error %.4f rad/s (x %.4f, y %.4f, z %.4f) over %zu %s samples; reference RMS %.4f rad/s\n",
            g.rms, g.rmsAxis[0], g.rmsAxis[1], g.rmsAxis[2], g.count, part, g.referenceRms);
  }
  if (reference.rotationVector) {
    const AngleComparison& r = *reference.rotationVector;
    appendf(text, "rotation vector  RMS error %.2f deg, median %.2f deg, max %.2f deg over %zu %s samples, heading alignment %.2f deg\n",
            r.rmsDeg, r.medianDeg, r.maxDeg, r.count, part, r.alignmentDeg);
  }
  if (reference.azimuth) {
    const AngleComparison& a = *reference.azimuth;
    appendf(text, "azimuth          RMS error %.2f deg, median %.2f deg, max %.2f deg over %zu %s samples tilted <= %.0f deg, heading alignment %.2f deg\n",
            a.rmsDeg, a.medianDeg, a.maxDeg, a.count, part, kAzimuthMaxTiltDeg, a.alignmentDeg);
  }
  return text;
}

}  // namespace quelta::replay
