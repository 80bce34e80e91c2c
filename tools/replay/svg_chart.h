// Small inline-SVG charts: lines, steps and point clouds over numeric axes,
// with grid, ticks and a legend. Not-a-number values break a line.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quelta::replay {

struct Series {
  enum class Style { Line, Dashed, Step, Points };
  std::string label;
  std::string colour;
  std::vector<double> x;
  std::vector<double> y;
  Style style = Style::Line;
};

struct CircleOverlay {
  std::string label;
  std::string colour;
  double cx = 0.0, cy = 0.0, r = 0.0;  // data units
};

struct Chart {
  std::string id;  // element id of the svg
  std::string title;
  std::string xLabel;
  std::string yLabel;
  std::vector<Series> series;
  std::vector<CircleOverlay> circles;
  int width = 1200;
  int height = 260;
  std::optional<double> yMin, yMax;  // fixed y range, else from the data
  bool equalAspect = false;          // same scale on both axes (projections)
};

std::string renderSvg(const Chart& chart);

// Tick positions at a 1-2-5 step covering [lo, hi] with about count ticks.
std::vector<double> niceTicks(double lo, double hi, int count);

std::string escapeXml(const std::string& text);

}  // namespace quelta::replay
