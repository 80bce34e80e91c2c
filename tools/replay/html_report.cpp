// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/html_report.h"

#include <cmath>
#include <cstdio>

namespace quelta::replay {

namespace {

const char* const kX = "#d62728";
const char* const kY = "#2ca02c";
const char* const kZ = "#1f77b4";
const char* const kGrey = "#555555";
const char* const kReference = "#ff7f0e";

// The compass's no-heading flag (QUELTA_COMPASS_FLAG_NO_HEADING).
constexpr uint32_t kNoHeadingFlag = 0x8u;

std::shared_ptr<Envelope> envelope(double period = 0.0, double base = 0.0) {
  return std::make_shared<Envelope>(period, base);
}

Series line(const std::string& label, const char* colour, const std::shared_ptr<Envelope>& e,
            Series::Style style = Series::Style::Line) {
  Series s;
  s.label = label;
  s.colour = colour;
  s.style = style;
  s.envelope = e;
  return s;
}

// A heading error on the heading accuracy plot: as it is up to the scale,
// beyond it in the middle of the strip above (NaN stays a gap).
double onHeadingScale(double deg) {
  const double scale = ReportBuilder::kHeadingScaleDeg;
  return deg > scale ? scale * 1.05 : deg;
}

Chart timeChart(const std::string& id, const std::string& title, const std::string& yLabel, int height = 260) {
  Chart chart;
  chart.id = id;
  chart.title = title;
  chart.xLabel = "time (s)";
  chart.yLabel = yLabel;
  chart.height = height;
  return chart;
}

}  // namespace

ReportBuilder::ReportBuilder(std::string recordingName, bool hasGyro, bool hasAttitude)
    : name_(std::move(recordingName)), hasGyro_(hasGyro), hasAttitude_(hasAttitude) {
  accuracy_ = envelope();
  for (auto& e : offset_) e = envelope();
  radius_ = envelope();
  azimuth_ = envelope(360.0, 0.0);
  pitch_ = envelope(360.0, -180.0);
  roll_ = envelope();
  referenceAzimuth_ = envelope(360.0, 0.0);
  referencePitch_ = envelope(360.0, -180.0);
  referenceRoll_ = envelope();
  for (auto& e : vgyro_) e = envelope();
  for (auto& e : referenceGyro_) e = envelope();
  rotationVectorError_ = envelope();
  azimuthError_ = envelope(360.0, -180.0);
  cloud_.reserve(kCloudPoints);
}

void ReportBuilder::setCompass(bool rateFromAttitude) {
  compass_ = true;
  rateFromAttitude_ = rateFromAttitude;
  hasGyro_ = rateFromAttitude ? hasAttitude_ : hasGyro_;
  disturbance_ = envelope();
  disturbed_ = envelope();
  headingAccuracy_ = envelope();
  calibrationHeadingError_ = envelope();
  actualHeadingError_ = envelope();
  for (auto& e : outputAccuracy_) e = envelope();
  for (auto& e : flags_) e = envelope();
  headingError_ = envelope(360.0, -180.0);
  tiltError_ = envelope();
  coverage_ = envelope();
  fittedStrength_ = envelope();
  expectedStrength_ = envelope();
  residual_ = envelope();
  for (auto& e : softIron_) e = envelope();
}

void ReportBuilder::add(const RecordedSample& sample, const ReplayRow& row) {
  const double t = row.t;
  if (samples_ == 0) firstT_ = t;
  accuracy_->add(t, row.accuracy);
  for (int k = 0; k < 3; ++k) offset_[k]->add(t, row.offset[k]);
  radius_->add(t, row.radius);
  // While the compass reports no heading its azimuth means nothing: a gap.
  const bool noHeading = compass_ && (row.compass.flags & kNoHeadingFlag) != 0;
  azimuth_->add(t, noHeading ? NAN : row.orientation[0]);
  pitch_->add(t, row.orientation[1]);
  roll_->add(t, row.orientation[2]);
  for (int k = 0; k < 3; ++k) {
    vgyro_[k]->add(t, row.vgyro[k]);
    if (hasGyro_ && !rateFromAttitude_) referenceGyro_[k]->add(t, sample.gyro[k]);
  }
  if (compass_) {
    disturbance_->add(t, row.compass.disturbance);
    disturbed_->add(t, row.compass.disturbed ? 1.0 : 0.0);
    headingAccuracy_->add(t, onHeadingScale(row.compass.headingAccuracy));
    calibrationHeadingError_->add(t, onHeadingScale(row.compass.calibrationHeadingError));
    for (int level = 0; level < 4; ++level) outputAccuracy_[level]->add(t, row.compass.outputAccuracy == level);
    for (int bit = 0; bit < 6; ++bit) flags_[bit]->add(t, (row.compass.flags >> bit) & 1u);
    coverage_->add(t, row.compass.coverage);
    fittedStrength_->add(t, row.compass.fittedStrength);
    expectedStrength_->add(t, row.compass.expectedStrength > 0.0f ? row.compass.expectedStrength : NAN);
    residual_->add(t, row.compass.residual);
    // The symmetric matrix's six distinct elements: xx yy zz xy xz yz.
    const int elements[6] = {0, 4, 8, 1, 2, 5};
    for (int k = 0; k < 6; ++k) softIron_[k]->add(t, row.compass.softIron[elements[k]]);
  }
  if (samples_ % stride_ == 0) {
    if (cloud_.size() == kCloudPoints) {
      // Keep every other point and take half as many from now on.
      for (size_t i = 0; i < kCloudPoints / 2; ++i) cloud_[i] = cloud_[2 * i];
      cloud_.resize(kCloudPoints / 2);
      stride_ *= 2;
    }
    if (samples_ % stride_ == 0) cloud_.push_back(row.rawField);
  }
  last_ = row;
  ++samples_;
}

void ReportBuilder::addErrors(const SampleErrors& e) {
  referenceAzimuth_->add(e.t, e.referenceAngles[0]);
  referencePitch_->add(e.t, e.referenceAngles[1]);
  referenceRoll_->add(e.t, e.referenceAngles[2]);
  rotationVectorError_->add(e.t, e.rotationVectorDeg);
  azimuthError_->add(e.t, e.azimuthDeg);
  if (rateFromAttitude_) {
    for (int k = 0; k < 3; ++k) referenceGyro_[k]->add(e.t, e.referenceRate[k]);
  }
  if (compass_) {
    headingError_->add(e.t, e.headingDeg);
    tiltError_->add(e.t, e.tiltDeg);
    actualHeadingError_->add(e.t, onHeadingScale(std::fabs(e.headingAnyDeg)));
  }
}

std::string ReportBuilder::render(const std::string& summaryText, const std::vector<AccuracyDrop>& drops) const {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n<title>Replay of " + escapeXml(name_) +
      "</title>\n<style>\n"
      "body { font-family: sans-serif; margin: 24px; color: #222222; background: #fafafa; }\n"
      "h1 { font-size: 20px; } h2 { font-size: 16px; margin-top: 28px; }\n"
      "pre.summary { background: #ffffff; border: 1px solid #dddddd; padding: 10px; font-size: 12px;\n"
      "  max-width: 1180px; white-space: pre-wrap; overflow-wrap: anywhere; }\n"
      "p.legend { max-width: 1180px; font-size: 13px; }\n"
      "svg.plot { display: block; margin: 8px 0; border: 1px solid #dddddd; }\n"
      ".row { display: flex; gap: 12px; flex-wrap: wrap; }\n"
      "table.drops { border-collapse: collapse; font-size: 12px; margin: 6px 0; }\n"
      "table.drops td, table.drops th { border: 1px solid #dddddd; padding: 2px 8px; text-align: right; }\n"
      "</style>\n</head>\n<body>\n<h1>Replay of " +
      escapeXml(name_) + "</h1>\n<pre class=\"summary\">" + escapeXml(summaryText) + "</pre>\n";
  html += "<p class=\"legend\" id=\"legend\">Solid lines are what the library reported; dashed lines are the "
          "reference from the recording (gyroscope columns gx gy gz, attitude columns qw qx qy qz), the reference "
          "azimuth turned onto magnetic north by the heading alignment. Each plot shows, per pixel column, the "
          "lowest and highest value of the samples it covers, so short spikes stay visible at any length.";
  if (!hasGyro_ && !hasAttitude_) html += " This recording has no reference columns.";
  html += "</p>\n";
  if (samples_ == 0) return html + "</body>\n</html>\n";

  // Calibration.
  Chart accuracy = timeChart("plot-accuracy", "Calibration accuracy", "level", 180);
  accuracy.series.push_back(line("accuracy", kZ, accuracy_, Series::Style::Step));
  accuracy.yMin = -0.2;
  accuracy.yMax = 3.2;
  Chart offset = timeChart("plot-offset", "Hard-iron offset and radius", "gauss");
  const char* colours[3] = {kX, kY, kZ};
  const char* axes[3] = {"x", "y", "z"};
  for (int k = 0; k < 3; ++k) offset.series.push_back(line(std::string("offset ") + axes[k], colours[k], offset_[k]));
  offset.series.push_back(line("radius", kGrey, radius_));
  html += "<section id=\"calibration\">\n<h2>Calibration</h2>\n" + renderSvg(accuracy);
  if (!drops.empty()) {
    html += "<details id=\"drops\"><summary>" + std::to_string(drops.size()) +
            " drops of accuracy</summary>\n<table class=\"drops\"><tr><th>at (s)</th><th>from</th><th>down to</th>"
            "<th>for (s)</th></tr>\n";
    char line[160];
    for (size_t i = 0; i < drops.size() && i < kDropsInReport; ++i) {
      const AccuracyDrop& d = drops[i];
      std::snprintf(line, sizeof line, "<tr><td>%.2f</td><td>%d</td><td>%d</td><td>%.2f%s</td></tr>\n", d.at, d.from,
                    d.lowest, d.duration, d.recovered ? "" : " (to the end)");
      html += line;
    }
    html += "</table>\n";
    if (drops.size() > kDropsInReport) {
      html += "<p>and " + std::to_string(drops.size() - kDropsInReport) + " more</p>\n";
    }
    html += "</details>\n";
  }
  html += renderSvg(offset) + "</section>\n";
  if (compass_) {
    Chart disturbance = timeChart("plot-disturbance", "Magnetic disturbance", "score (1: flag threshold)", 220);
    disturbance.series.push_back(line("disturbance score", kZ, disturbance_));
    disturbance.series.push_back(line("disturbed flag", kX, disturbed_, Series::Style::Step));
    disturbance.yMin = 0.0;
    // The estimate against the truth, on the scale where it matters.
    Chart heading = timeChart("plot-heading-accuracy",
                              "Heading accuracy: estimate and actual error",
                              "degrees", 260);
    Series beyond = line("beyond 30 deg (180: unknown)", "#dddddd", nullptr, Series::Style::Band);
    beyond.x = {firstT_, last_.t};
    beyond.y = {1.0, 1.0};
    beyond.bandLo = kHeadingScaleDeg;
    beyond.bandHi = kHeadingScaleDeg * 1.1;
    heading.series.push_back(beyond);
    heading.series.push_back(line("estimate (output)", kZ, headingAccuracy_));
    heading.series.push_back(line("left by the calibration", kGrey, calibrationHeadingError_));
    if (hasAttitude_) {
      heading.series.push_back(line("actual |error|", kX, actualHeadingError_));
    }
    heading.yMin = 0.0;
    heading.yMax = kHeadingScaleDeg * 1.1;
    // The compass's own accuracy and flags, one row each.
    Chart state = timeChart("plot-compass-state", "Compass accuracy and flags", "", 250);
    const char* levelColours[4] = {"#d62728", "#ff7f0e", "#e8c31a", "#2ca02c"};
    for (int level = 0; level < 4; ++level) {
      Series band = line("accuracy " + std::to_string(level), levelColours[level], outputAccuracy_[level],
                         Series::Style::Band);
      band.bandLo = 0.1;
      band.bandHi = 0.9;
      state.series.push_back(band);
    }
    const char* flagNames[6] = {"calibrating", "disturbed", "accelerating", "no heading", "gyroscope", "resting"};
    state.yTickLabels.push_back({0.5, "accuracy"});
    for (int bit = 0; bit < 6; ++bit) {
      Series band = line("", kGrey, flags_[bit], Series::Style::Band);
      band.bandLo = bit + 1.1;
      band.bandHi = bit + 1.9;
      state.series.push_back(band);
      state.yTickLabels.push_back({bit + 1.5, flagNames[bit]});
    }
    state.yMin = 0.0;
    state.yMax = 7.0;
    Chart quality = timeChart("plot-calibration-quality", "Calibration quality", "gauss", 220);
    quality.series.push_back(line("fitted strength", kZ, fittedStrength_));
    quality.series.push_back(line("expected strength (field model)", kReference, expectedStrength_, Series::Style::Dashed));
    quality.series.push_back(line("fit residual", kX, residual_));
    quality.yMin = 0.0;
    Chart coverage = timeChart("plot-coverage", "Directions covered by the calibration's samples", "share", 180);
    coverage.series.push_back(line("coverage", kZ, coverage_));
    coverage.yMin = 0.0;
    coverage.yMax = 1.0;
    Chart soft = timeChart("plot-soft-iron", "Soft-iron matrix", "", 220);
    const char* names[6] = {"xx", "yy", "zz", "xy", "xz", "yz"};
    const char* softColours[6] = {kX, kY, kZ, "#9467bd", "#8c564b", "#e377c2"};
    for (int k = 0; k < 6; ++k) soft.series.push_back(line(std::string("soft ") + names[k], softColours[k], softIron_[k]));
    html += "<section id=\"compass\">\n<h2>Heading accuracy, state, calibration quality and disturbance</h2>\n" +
            renderSvg(heading) + renderSvg(state) + renderSvg(quality) + renderSvg(coverage) + renderSvg(soft) +
            renderSvg(disturbance) + "</section>\n";
  }

  // Field cloud and the final fit.
  html += "<section id=\"field\">\n<h2>Field samples and fitted sphere</h2>\n"
          "<p>Uncalibrated field in three orthogonal projections";
  if (stride_ > 1) html += " (every " + std::to_string(stride_) + "th sample)";
  html += "; the circle is the final fit (centre: offset, radius: field strength)";
  if (compass_) html += ", without the soft-iron matrix (in the summary)";
  html += ".</p>\n<div class=\"row\">\n";
  const int pairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};
  for (const auto& pair : pairs) {
    const int a = pair[0], b = pair[1];
    Chart chart;
    chart.id = std::string("plot-field-") + axes[a] + axes[b];
    chart.title = std::string("Field ") + axes[a] + "-" + axes[b];
    chart.xLabel = std::string(axes[a]) + " (gauss)";
    chart.yLabel = std::string(axes[b]) + " (gauss)";
    chart.width = 400;
    chart.height = 400;
    chart.equalAspect = true;
    Series points{"samples", kZ, {}, {}, Series::Style::Points, nullptr};
    points.x.reserve(cloud_.size());
    points.y.reserve(cloud_.size());
    for (const auto& p : cloud_) {
      points.x.push_back(p[a]);
      points.y.push_back(p[b]);
    }
    chart.series.push_back(std::move(points));
    if (last_.accuracy > 0) chart.circles.push_back({"fit", kX, last_.offset[a], last_.offset[b], last_.radius});
    html += renderSvg(chart);
  }
  html += "</div>\n</section>\n";

  // Orientation.
  Chart azimuth = timeChart("plot-azimuth", compass_ ? "Azimuth (none while the compass reports no heading)" : "Azimuth", "degrees");
  azimuth.yMin = 0.0;
  azimuth.yMax = 360.0;
  azimuth.series.push_back(line("azimuth", kZ, azimuth_));
  if (hasAttitude_) azimuth.series.push_back(line("reference azimuth", kReference, referenceAzimuth_, Series::Style::Dashed));
  Chart tilt = timeChart("plot-pitch-roll", "Pitch and roll", "degrees");
  tilt.yMin = -180.0;
  tilt.yMax = 180.0;
  tilt.series.push_back(line("pitch", kX, pitch_));
  tilt.series.push_back(line("roll", kY, roll_));
  if (hasAttitude_) {
    tilt.series.push_back(line("reference pitch", "#8c1c1c", referencePitch_, Series::Style::Dashed));
    tilt.series.push_back(line("reference roll", "#1c6b1c", referenceRoll_, Series::Style::Dashed));
  }
  html += "<section id=\"orientation\">\n<h2>Orientation</h2>\n" + renderSvg(azimuth) + renderSvg(tilt) +
          "</section>\n";

  // Virtual gyroscope, or the compass's angular rate.
  html += compass_ ? "<section id=\"vgyro\">\n<h2>Angular rate</h2>\n" : "<section id=\"vgyro\">\n<h2>Virtual gyroscope</h2>\n";
  for (int k = 0; k < 3; ++k) {
    Chart chart = timeChart(std::string("plot-vgyro-") + axes[k], std::string("Angular rate about ") + axes[k],
                            "rad/s", 220);
    chart.series.push_back(line(compass_ ? "compass angular rate" : "virtual gyroscope", colours[k], vgyro_[k]));
    if (hasGyro_) {
      chart.series.push_back(line(rateFromAttitude_ ? "rate from the reference attitude" : "reference gyroscope",
                                  "#222222", referenceGyro_[k], Series::Style::Dashed));
    }
    html += renderSvg(chart);
  }
  html += "</section>\n";

  if (hasAttitude_) {
    Chart chart = timeChart("plot-attitude-error",
                            "Error: reported minus reference (clockwise +), after heading alignment",
                            "degrees");
    chart.series.push_back(line(compass_ ? "attitude" : "rotation vector", kZ, rotationVectorError_));
    chart.series.push_back(line("azimuth", kX, azimuthError_));
    std::vector<EnvelopePtr> shown = {rotationVectorError_, azimuthError_};
    if (compass_) {
      chart.series.push_back(line("heading at any tilt", kY, headingError_));
      chart.series.push_back(line("tilt", kGrey, tiltError_));
      shown.push_back(headingError_);
      shown.push_back(tiltError_);
    }
    // The azimuth error is periodic and fixes no range: take every series' extent.
    double lo = 0.0, hi = 1.0;
    for (const auto& e : shown) {
      for (const Envelope::Bucket& b : e->buckets()) {
        if (b.count == 0) continue;
        lo = std::min(lo, std::max(b.lo, -180.0));
        hi = std::max(hi, std::min(b.hi, 180.0));
      }
    }
    chart.yMin = lo;
    chart.yMax = hi;
    html += "<section id=\"attitude-error\">\n<h2>Attitude error</h2>\n" + renderSvg(chart) + "</section>\n";
  }
  return html + "</body>\n</html>\n";
}

std::string renderReport(const Recording& recording, const std::vector<ReplayRow>& rows,
                         const std::string& summaryText) {
  ReportBuilder builder(recording.name, recording.hasGyro, recording.hasAttitude);
  ReferenceComparator comparator(recording.hasGyro, recording.hasAttitude);
  for (size_t i = 0; i < rows.size() && i < recording.samples.size(); ++i) {
    builder.add(recording.samples[i], rows[i]);
    comparator.add(recording.samples[i], rows[i]);
  }
  comparator.finish([&builder](const SampleErrors& e) { builder.addErrors(e); });
  return builder.render(summaryText);
}

}  // namespace quelta::replay
