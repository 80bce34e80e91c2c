// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <regex>

#include "tools/replay/html_report.h"
#include "tools/replay/summary.h"
#include "tools/replay/svg_chart.h"

namespace quelta::replay {
namespace {

// A run that climbs through the accuracy levels, with two accepted fits.
void makeRun(Recording& recording, std::vector<ReplayRow>& rows) {
  recording.name = "walk.csv";
  const int levels[] = {0, 0, 1, 1, 2, 3, 3, 2, 3, 3};
  for (int i = 0; i < 10; ++i) {
    RecordedSample sample;
    sample.t = 1.0 + 0.1 * i;
    recording.samples.push_back(sample);
    ReplayRow row;
    row.t = sample.t;
    row.accuracy = levels[i];
    row.newCalibration = i == 5 || i == 8;
    row.saturation = i == 6;
    row.offset = {0.1f * static_cast<float>(i), -0.2f, 0.05f};
    row.radius = 0.48f;
    row.geometry = {0.25f, 0.433f, 60.0f};
    row.rawField = {0.5f * std::cos(0.6f * static_cast<float>(i)), 0.5f * std::sin(0.6f * static_cast<float>(i)),
                    0.1f};
    rows.push_back(row);
  }
}

TEST(Summary, FiguresAndText) {
  Recording recording;
  std::vector<ReplayRow> rows;
  makeRun(recording, rows);
  const Summary s = summarise(recording, rows);
  EXPECT_TRUE(s.acceptedFits == 2 && s.saturations == 1 && s.offset == rows.back().offset);
  ASSERT_TRUE(s.lastAcceptedAt);
  EXPECT_DOUBLE_EQ(*s.lastAcceptedAt, 1.8);

  const std::string text = formatSummary(s, ReferenceComparison{});
  for (const char* line : {"samples          10 over 0.90 s at 10.0 Hz\n",
                           "accuracy reached  1 at 1.20 s  2 at 1.40 s  3 at 1.50 s  (final 3)\n",
                           "offset           0.90000 -0.20000 0.05000 gauss\n", "accepted fits    2, last at 1.80 s\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << text;
  }
  EXPECT_EQ(text.find("virtual gyro"), std::string::npos);

  rows.resize(2);
  const std::string early = formatSummary(summarise(recording, rows), ReferenceComparison{});
  EXPECT_NE(early.find("accuracy reached  1 never  2 never  3 never  (final 0)"), std::string::npos) << early;
}

TEST(SvgChart, TicksEscapingAndLines) {
  EXPECT_EQ(niceTicks(0.0, 60.0, 12), (std::vector<double>{0, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60}));
  const std::vector<double> ticks = niceTicks(-0.23, 0.41, 5);
  ASSERT_EQ(ticks.size(), 4u);  // step 0.2
  EXPECT_NEAR(ticks.front(), -0.2, 1e-12);
  EXPECT_NEAR(ticks.back(), 0.4, 1e-12);
  EXPECT_EQ(escapeXml("a<b & \"c\">"), "a&lt;b &amp; &quot;c&quot;&gt;");

  // A not-a-number value starts a new stroke.
  Chart chart;
  chart.id = "c";
  const double nan = std::numeric_limits<double>::quiet_NaN();
  chart.series.push_back({"s", "#000000", {0, 1, 2, 3, 4}, {0, 1, nan, 3, 4}, Series::Style::Line});
  const std::string svg = renderSvg(chart);
  std::smatch match;
  ASSERT_TRUE(std::regex_search(svg, match, std::regex("class=\"line\" d=\"([^\"]*)\"")));
  const std::string d = match[1];
  EXPECT_TRUE(std::count(d.begin(), d.end(), 'M') == 2 && std::count(d.begin(), d.end(), 'L') == 2) << d;

  // A long series is thinned but keeps its extremes: a single spike still
  // reaches the top of the plot.
  Chart dense;
  dense.id = "d";
  dense.width = 200;
  Series spike{"", "#000000", {}, {}, Series::Style::Line};
  for (int i = 0; i < 20000; ++i) {
    spike.x.push_back(i);
    spike.y.push_back(i == 12345 ? 10.0 : 0.0);
  }
  dense.series.push_back(spike);
  const std::string thinned = renderSvg(dense);
  EXPECT_LT(thinned.size(), 20000u);
  EXPECT_NE(thinned.find(" 34.0"), std::string::npos);  // y of the top edge of the plot
}

TEST(Report, HoldsEveryPlotAndTheEscapedSummary) {
  Recording recording;
  std::vector<ReplayRow> rows;
  makeRun(recording, rows);
  recording.hasGyro = true;
  const std::string html = renderReport(recording, rows, "offset <1 & 2>\n");
  for (const char* id : {"plot-accuracy", "plot-offset", "plot-field-xy", "plot-field-xz", "plot-field-yz",
                         "plot-azimuth", "plot-pitch-roll", "plot-vgyro-x", "plot-vgyro-y", "plot-vgyro-z"}) {
    EXPECT_NE(html.find(std::string("id=\"") + id + "\""), std::string::npos) << id;
  }
  EXPECT_EQ(html.find("plot-attitude-error"), std::string::npos);  // no reference attitude
  EXPECT_EQ(html.find("<script"), std::string::npos);
  EXPECT_NE(html.find("offset &lt;1 &amp; 2&gt;"), std::string::npos);
  EXPECT_NE(html.find("reference gyroscope"), std::string::npos);
  // The fitted circle of the x-y projection has the final radius on both
  // axes (equal scales) and sits on the final offset.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(html, m, std::regex("class=\"fit\" cx=\"[^\"]*\" cy=\"[^\"]*\" rx=\"([^\"]*)\" ry=\"([^\"]*)\"")));
  EXPECT_EQ(m[1], m[2]);
}

// The compass's report: its accuracy and flags as bands (one stretch per
// raised spell), the heading accuracy on its 0-30 degree scale with 180
// ("unknown") drawn in the strip above it, never beyond the plot.
TEST(Report, CompassStateAsBandsAndHeadingAccuracyOnItsScale) {
  ReportBuilder builder("rec.csv", false, true);
  builder.setCompass(false);
  for (int i = 0; i < 200; ++i) {
    RecordedSample sample;
    sample.t = 0.1 * i;
    sample.hasAttitude = true;
    ReplayRow row;
    row.t = sample.t;
    row.rotVec = {0, 0, 0, 1};
    const bool heading = i >= 50;
    row.accuracy = heading ? 3 : 0;
    row.compass.outputAccuracy = heading ? (i >= 120 && i < 140 ? 2 : 3) : 0;
    row.compass.flags = (heading ? 0u : 0x8u) | (i >= 120 && i < 140 ? 0x2u : 0u);
    row.compass.headingAccuracy = heading ? 4.0f : 180.0f;
    builder.add(sample, row);
  }
  for (int i = 0; i < 200; ++i) {
    SampleErrors errors;  // a reference azimuth from the start
    errors.t = 0.1 * i;
    errors.referenceAngles = {10.0, 0.0, 0.0};
    builder.addErrors(errors);
  }
  const std::string html = builder.render("summary\n");
  auto svgOf = [&html](const std::string& id) {
    const size_t at = html.find("id=\"" + id + "\"");
    EXPECT_NE(at, std::string::npos) << id;
    return at == std::string::npos ? std::string() : html.substr(at, html.find("</svg>", at) - at);
  };
  // Bands in drawing order: accuracy 0..3, then the six flags.
  const std::string state = svgOf("plot-compass-state");
  std::vector<std::string> bands;
  const std::regex band("class=\"band\" d=\"([^\"]*)\"");
  for (std::sregex_iterator it(state.begin(), state.end(), band), end; it != end; ++it) {
    bands.push_back((*it)[1]);
  }
  ASSERT_EQ(bands.size(), 10u);
  auto stretches = [](const std::string& d) { return std::count(d.begin(), d.end(), 'Z'); };
  const std::vector<long> want = {1, 0, 1, 2, /* calibrating */ 0, /* disturbed */ 1, 0, /* no heading */ 1, 0, 0};
  for (size_t k = 0; k < bands.size(); ++k) EXPECT_EQ(stretches(bands[k]), want[k]) << k << ": " << bands[k];
  for (const char* row : {">calibrating<", ">disturbed<", ">no heading<", ">resting<"}) {
    EXPECT_NE(state.find(row), std::string::npos) << row;
  }
  // Every point of the heading accuracy lines lies within the plot (y from
  // its top edge at 34 px down), 180 included.
  const std::string heading = svgOf("plot-heading-accuracy");
  std::smatch line;
  ASSERT_TRUE(std::regex_search(heading, line, std::regex("class=\"line\" d=\"([^\"]*)\"")));
  const std::string d = line[1];
  double top = 1e9;
  const std::regex point("[ML][0-9.]+ ([0-9.]+)");
  for (std::sregex_iterator it(d.begin(), d.end(), point), end; it != end; ++it) {
    top = std::min(top, std::stod((*it)[1]));
  }
  EXPECT_GE(top, 34.0) << d;
  EXPECT_LT(top, 60.0) << d;  // the unknown estimate is drawn in the strip at the top
  // The azimuth starts with the first heading, a quarter of the way in
  // (the plot spans 70 to 1180 px, the reference the whole time).
  const std::string azimuth = svgOf("plot-azimuth");
  std::smatch first;
  ASSERT_TRUE(std::regex_search(azimuth, first, std::regex("class=\"line\" d=\"M([0-9.]+) ")));
  EXPECT_NEAR(std::stod(first[1]), 70.0 + 1110.0 * 5.0 / 19.9, 2.0);
}

}  // namespace
}  // namespace quelta::replay
