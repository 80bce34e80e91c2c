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

}  // namespace
}  // namespace quelta::replay
