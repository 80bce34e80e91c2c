#include "tools/replay/html_report.h"

#include <cmath>
#include <limits>

#include "tools/replay/svg_chart.h"

namespace quelta::replay {

namespace {

const char* const kX = "#d62728";
const char* const kY = "#2ca02c";
const char* const kZ = "#1f77b4";
const char* const kGrey = "#555555";
const char* const kReference = "#ff7f0e";

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

template <typename Get>
std::vector<double> column(const std::vector<ReplayRow>& rows, Get get) {
  std::vector<double> values;
  values.reserve(rows.size());
  for (const ReplayRow& row : rows) values.push_back(static_cast<double>(get(row)));
  return values;
}

std::vector<double> times(const std::vector<ReplayRow>& rows) {
  return column(rows, [](const ReplayRow& r) { return r.t; });
}

// Breaks an angle series where it wraps around, so no line crosses the plot.
void breakAtWraps(std::vector<double>& x, std::vector<double>& y) {
  std::vector<double> bx, by;
  for (size_t i = 0; i < y.size(); ++i) {
    if (i > 0 && std::fabs(y[i] - y[i - 1]) > 180.0) {
      bx.push_back(kNaN);
      by.push_back(kNaN);
    }
    bx.push_back(x[i]);
    by.push_back(y[i]);
  }
  x.swap(bx);
  y.swap(by);
}

Series line(const std::string& label, const char* colour, std::vector<double> x, std::vector<double> y,
            Series::Style style = Series::Style::Line) {
  return Series{label, colour, std::move(x), std::move(y), style};
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

std::string calibrationSection(const std::vector<ReplayRow>& rows) {
  const std::vector<double> t = times(rows);
  Chart accuracy = timeChart("plot-accuracy", "Calibration accuracy", "level", 180);
  accuracy.series.push_back(line("accuracy", kZ, t, column(rows, [](const ReplayRow& r) { return r.accuracy; }),
                                 Series::Style::Step));
  accuracy.yMin = -0.2;
  accuracy.yMax = 3.2;

  Chart offset = timeChart("plot-offset", "Hard-iron offset and radius", "gauss");
  offset.series.push_back(line("offset x", kX, t, column(rows, [](const ReplayRow& r) { return r.offset[0]; })));
  offset.series.push_back(line("offset y", kY, t, column(rows, [](const ReplayRow& r) { return r.offset[1]; })));
  offset.series.push_back(line("offset z", kZ, t, column(rows, [](const ReplayRow& r) { return r.offset[2]; })));
  offset.series.push_back(line("radius", kGrey, t, column(rows, [](const ReplayRow& r) { return r.radius; }),
                               Series::Style::Dashed));
  return "<section id=\"calibration\">\n<h2>Calibration</h2>\n" + renderSvg(accuracy) + renderSvg(offset) +
         "</section>\n";
}

std::string fieldSection(const std::vector<ReplayRow>& rows) {
  const ReplayRow& last = rows.back();
  const char* axisNames = "xyz";
  const int pairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};
  std::string html = "<section id=\"field\">\n<h2>Field samples and fitted sphere</h2>\n"
                     "<p>Uncalibrated field in three orthogonal projections; the circle is the final fit "
                     "(centre: offset, radius: field strength).</p>\n<div class=\"row\">\n";
  for (const auto& pair : pairs) {
    const int a = pair[0], b = pair[1];
    Chart chart;
    chart.id = std::string("plot-field-") + axisNames[a] + axisNames[b];
    chart.title = std::string("Field ") + axisNames[a] + "-" + axisNames[b];
    chart.xLabel = std::string(1, axisNames[a]) + " (gauss)";
    chart.yLabel = std::string(1, axisNames[b]) + " (gauss)";
    chart.width = 400;
    chart.height = 400;
    chart.equalAspect = true;
    chart.series.push_back(line("", kZ, column(rows, [a](const ReplayRow& r) { return r.rawField[a]; }),
                                column(rows, [b](const ReplayRow& r) { return r.rawField[b]; }),
                                Series::Style::Points));
    if (last.accuracy > 0) {
      chart.circles.push_back({"fit", kX, last.offset[a], last.offset[b], last.radius});
    }
    html += renderSvg(chart);
  }
  return html + "</div>\n</section>\n";
}

std::string orientationSection(const std::vector<ReplayRow>& rows, const ReferenceComparison& reference) {
  const std::vector<double> t = times(rows);
  const bool hasReference = !reference.referenceAngles.empty();
  Chart azimuth = timeChart("plot-azimuth", "Azimuth", "degrees");
  azimuth.yMin = 0.0;
  azimuth.yMax = 360.0;
  std::vector<double> x = t, y = column(rows, [](const ReplayRow& r) { return r.orientation[0]; });
  breakAtWraps(x, y);
  azimuth.series.push_back(line("azimuth", kZ, x, y));
  if (hasReference) {
    x = t;
    y.clear();
    for (const auto& angles : reference.referenceAngles) y.push_back(angles[0]);
    breakAtWraps(x, y);
    azimuth.series.push_back(line("reference (aligned)", kReference, x, y, Series::Style::Dashed));
  }

  Chart tilt = timeChart("plot-pitch-roll", "Pitch and roll", "degrees");
  x = t;
  y = column(rows, [](const ReplayRow& r) { return r.orientation[1]; });
  breakAtWraps(x, y);
  tilt.series.push_back(line("pitch", kX, x, y));
  tilt.series.push_back(line("roll", kY, t, column(rows, [](const ReplayRow& r) { return r.orientation[2]; })));
  if (hasReference) {
    std::vector<double> pitch, roll;
    for (const auto& angles : reference.referenceAngles) {
      pitch.push_back(angles[1]);
      roll.push_back(angles[2]);
    }
    x = t;
    breakAtWraps(x, pitch);
    tilt.series.push_back(line("reference pitch", "#8c1c1c", x, pitch, Series::Style::Dashed));
    tilt.series.push_back(line("reference roll", "#1c6b1c", t, roll, Series::Style::Dashed));
  }
  return "<section id=\"orientation\">\n<h2>Orientation</h2>\n" + renderSvg(azimuth) + renderSvg(tilt) +
         "</section>\n";
}

std::string gyroSection(const Recording& recording, const std::vector<ReplayRow>& rows) {
  const std::vector<double> t = times(rows);
  std::string html = "<section id=\"vgyro\">\n<h2>Virtual gyroscope</h2>\n";
  const char* colours[3] = {kX, kY, kZ};
  const char* names[3] = {"x", "y", "z"};
  for (int k = 0; k < 3; ++k) {
    Chart chart = timeChart(std::string("plot-vgyro-") + names[k],
                            std::string("Angular rate about ") + names[k], "rad/s", 220);
    chart.series.push_back(line("virtual gyroscope", colours[k], t,
                                column(rows, [k](const ReplayRow& r) { return r.vgyro[k]; })));
    if (recording.hasGyro) {
      std::vector<double> ref;
      for (const RecordedSample& s : recording.samples) ref.push_back(s.gyro[k]);
      chart.series.push_back(line("reference gyroscope", "#222222", t, ref, Series::Style::Dashed));
    }
    html += renderSvg(chart);
  }
  return html + "</section>\n";
}

std::string attitudeErrorSection(const std::vector<ReplayRow>& rows, const ReferenceComparison& reference) {
  const std::vector<double> t = times(rows);
  Chart chart = timeChart("plot-attitude-error", "Attitude error against the reference (after heading alignment)",
                          "degrees");
  chart.series.push_back(line("rotation vector", kZ, t, reference.rotationVectorErrorDeg));
  std::vector<double> x = t, azimuth = reference.azimuthErrorDeg;
  breakAtWraps(x, azimuth);
  chart.series.push_back(line("azimuth", kX, x, azimuth));
  return "<section id=\"attitude-error\">\n<h2>Attitude error</h2>\n" + renderSvg(chart) + "</section>\n";
}

}  // namespace

std::string renderReport(const Recording& recording, const std::vector<ReplayRow>& rows,
                         const std::string& summaryText, const ReferenceComparison& reference) {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n<title>Replay of " +
      escapeXml(recording.name) +
      "</title>\n<style>\n"
      "body { font-family: sans-serif; margin: 24px; color: #222222; background: #fafafa; }\n"
      "h1 { font-size: 20px; } h2 { font-size: 16px; margin-top: 28px; }\n"
      "pre.summary { background: #ffffff; border: 1px solid #dddddd; padding: 10px; font-size: 12px; }\n"
      "svg.plot { display: block; margin: 8px 0; border: 1px solid #dddddd; }\n"
      ".row { display: flex; gap: 12px; flex-wrap: wrap; }\n"
      "</style>\n</head>\n<body>\n<h1>Replay of " +
      escapeXml(recording.name) + "</h1>\n<pre class=\"summary\">" + escapeXml(summaryText) + "</pre>\n";
  if (!rows.empty()) {
    html += calibrationSection(rows);
    html += fieldSection(rows);
    html += orientationSection(rows, reference);
    html += gyroSection(recording, rows);
    if (recording.hasAttitude) html += attitudeErrorSection(rows, reference);
  }
  return html + "</body>\n</html>\n";
}

}  // namespace quelta::replay
