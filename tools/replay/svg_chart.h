// SPDX-License-Identifier: Apache-2.0
// Small inline-SVG charts: lines, steps, point clouds and bands over
// numeric axes, with grid, ticks and a legend. Not-a-number values break a
// line.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quelta::replay {

// A time series reduced, as its samples come, to at most kBuckets buckets
// of equal length in x, each keeping its first, lowest, highest and last
// value: the minimum/maximum envelope a plot of any width needs, in fixed
// memory. When the samples outgrow the buckets, neighbours are merged and
// the bucket length doubles. x must not decrease.
//
// With a period (360 for angles), values are tracked continuously across
// the wrap (359 then 1 is a step of 2), and drawn shifted back into
// [base, base + period): a heading passing north is not a vertical line.
class Envelope {
 public:
  static constexpr size_t kBuckets = 4096;

  struct Bucket {
    double xFirst = 0.0, xLast = 0.0;
    double first = 0.0, lo = 0.0, hi = 0.0, last = 0.0;
    uint32_t count = 0;
    bool breakBefore = false;  // a gap (NaN) comes before this bucket's first value
  };

  explicit Envelope(double period = 0.0, double base = 0.0) : period_(period), base_(base) {}
  void add(double x, double y);  // a NaN y breaks the line
  // Buckets in x order; empty buckets have count 0.
  const std::vector<Bucket>& buckets() const { return buckets_; }
  double period() const { return period_; }
  double base() const { return base_; }
  size_t samples() const { return samples_; }

  // Merges b (later in x) into a.
  static void merge(Bucket& a, const Bucket& b);

 private:
  void halve();

  double period_;
  double base_;
  std::vector<Bucket> buckets_;
  double origin_ = 0.0;
  double width_ = 0.0;  // bucket length in x; 0 until two distinct x are seen
  size_t current_ = 0;  // bucket of the last sample, and where it ends in x
  double currentEnd_ = 0.0;
  bool started_ = false;
  bool gap_ = false;
  bool haveLast_ = false;
  double lastTracked_ = 0.0;  // last value on the continuous track
  size_t samples_ = 0;
};

struct Series {
  // Band: filled from bandLo to bandHi (y, data units) over every stretch
  // of x where the series is above 0.5 (a flag that is raised).
  enum class Style { Line, Dashed, Step, Points, Band };
  std::string label;
  std::string colour;
  std::vector<double> x;
  std::vector<double> y;
  Style style = Style::Line;
  // When set, the line is drawn from this envelope and x, y are unused.
  std::shared_ptr<const Envelope> envelope;
  double bandLo = 0.0, bandHi = 1.0;  // Band only
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
  // Named y ticks (value, label) instead of numbered ones: rows of bands.
  std::vector<std::pair<double, std::string>> yTickLabels;
  bool equalAspect = false;          // same scale on both axes (projections)
};

std::string renderSvg(const Chart& chart);

// Tick positions at a 1-2-5 step covering [lo, hi] with about count ticks.
std::vector<double> niceTicks(double lo, double hi, int count);

std::string escapeXml(const std::string& text);

}  // namespace quelta::replay
