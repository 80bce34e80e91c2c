// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/svg_chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace quelta::replay {

namespace {

constexpr int kLeft = 70, kRight = 20, kTop = 34, kBottom = 42;

struct Range {
  double lo = std::numeric_limits<double>::infinity();
  double hi = -std::numeric_limits<double>::infinity();
  void include(double v) {
    if (!std::isfinite(v)) return;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  void settle() {
    if (!(lo <= hi)) {
      lo = 0.0;
      hi = 1.0;
    }
    if (hi - lo < 1e-12) {
      const double pad = std::fabs(lo) > 1e-12 ? std::fabs(lo) * 0.1 : 1.0;
      lo -= pad;
      hi += pad;
    }
  }
};

std::string num(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", v);
  return text;
}

std::string tickLabel(double v, double step) {
  char text[32];
  const int decimals = step >= 1.0 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
  std::snprintf(text, sizeof text, "%.*f", decimals, std::fabs(v) < step * 1e-6 ? 0.0 : v);
  return text;
}

struct Frame {
  Range x, y;
  double left, top, plotW, plotH;
  double px(double v) const { return left + (v - x.lo) / (x.hi - x.lo) * plotW; }
  double py(double v) const { return top + (y.hi - v) / (y.hi - y.lo) * plotH; }
};

// The envelope of a series given as x, y vectors.
Envelope envelopeOf(const Series& s) {
  Envelope envelope;
  for (size_t i = 0; i < s.x.size() && i < s.y.size(); ++i) {
    if (std::isfinite(s.x[i])) envelope.add(s.x[i], s.y[i]);
  }
  return envelope;
}

// Path data for a band: one rectangle per stretch of x where the series is
// raised (any sample of a bucket above 0.5), from its first sample to the
// first sample after it.
std::string bandPath(const Series& s, const Frame& f) {
  Envelope local;
  const Envelope* envelope = s.envelope.get();
  if (envelope == nullptr) {
    local = envelopeOf(s);
    envelope = &local;
  }
  std::string d;
  const std::string top = num(f.py(s.bandHi)), bottom = num(f.py(s.bandLo));
  bool raised = false;
  double start = 0.0, end = 0.0;
  auto close = [&](double x) {
    d += "M" + num(f.px(start)) + " " + bottom + "V" + top + "H" + num(std::max(f.px(x), f.px(start) + 1.0)) + "V" +
         bottom + "Z";
  };
  for (const Envelope::Bucket& b : envelope->buckets()) {
    if (b.count == 0) continue;
    if (b.hi > 0.5 && !raised) {
      raised = true;
      start = b.xFirst;
    } else if (b.hi <= 0.5 && raised) {
      raised = false;
      close(b.xFirst);
    }
    end = b.xLast;
  }
  if (raised) close(end);
  return d;
}

// Path data for a line: per pixel column the first, lowest, highest and
// last value, so a long series costs a few bytes per column however many
// samples it has, and a single spike still shows.
std::string linePath(const Series& s, const Frame& f) {
  Envelope local;
  const Envelope* envelope = s.envelope.get();
  if (envelope == nullptr) {
    local = envelopeOf(s);
    envelope = &local;
  }
  // Buckets gathered into pixel columns.
  std::vector<std::pair<double, Envelope::Bucket>> columns;
  for (const Envelope::Bucket& b : envelope->buckets()) {
    if (b.count == 0) continue;
    const double column = std::floor(f.px(b.xFirst));
    if (!columns.empty() && columns.back().first == column && !b.breakBefore) {
      Envelope::merge(columns.back().second, b);
    } else {
      columns.push_back({column, b});
    }
  }
  const double period = envelope->period();
  std::string d;
  bool penDown = false;
  double previous = 0.0;  // last value drawn, shifted
  for (const auto& [column, bucket] : columns) {
    Envelope::Bucket b = bucket;
    if (period > 0.0) {
      const double shift = period * std::floor((b.first - envelope->base()) / period);
      b.first -= shift;
      b.lo -= shift;
      b.hi -= shift;
      b.last -= shift;
      if (penDown && std::fabs(b.first - previous) > period / 2.0) penDown = false;
    }
    if (b.breakBefore) penDown = false;
    const double x = b.count == 1 ? f.px(b.xFirst) : column + 0.5;
    const std::string y = num(f.py(b.first));
    if (!penDown) {
      d += "M" + num(x) + " " + y;
    } else if (s.style == Series::Style::Step) {
      d += "H" + num(x) + "V" + y;
    } else {
      d += "L" + num(x) + " " + y;
    }
    penDown = true;
    if (b.count > 1) {
      // The column's extremes, then where it ends.
      for (double v : {b.lo, b.hi, b.last}) d += "V" + num(f.py(v));
      if (period > 0.0) {
        // Whatever passes the top or the bottom shows again on the other side.
        const double top = envelope->base() + period;
        if (b.hi > top) d += "M" + num(x) + " " + num(f.py(b.lo - period)) + "V" + num(f.py(b.hi - period));
        if (b.lo < envelope->base()) d += "M" + num(x) + " " + num(f.py(b.lo + period)) + "V" + num(f.py(b.hi + period));
        if (b.hi > top || b.lo < envelope->base()) d += "M" + num(x) + " " + num(f.py(b.last));
      }
    }
    previous = b.last;
  }
  return d;
}

// Point clouds: one dot per 2-pixel cell that holds any point.
std::string pointsPath(const Series& s, const Frame& f) {
  const int cellsX = static_cast<int>(f.plotW / 2.0) + 1;
  const int cellsY = static_cast<int>(f.plotH / 2.0) + 1;
  std::vector<bool> taken(static_cast<size_t>(cellsX) * cellsY, false);
  std::string d;
  for (size_t i = 0; i < s.x.size(); ++i) {
    if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i])) continue;
    const int cx = static_cast<int>(std::floor((f.px(s.x[i]) - f.left) / 2.0));
    const int cy = static_cast<int>(std::floor((f.py(s.y[i]) - f.top) / 2.0));
    if (cx < 0 || cy < 0 || cx >= cellsX || cy >= cellsY) continue;
    const size_t cell = static_cast<size_t>(cy) * cellsX + cx;
    if (taken[cell]) continue;
    taken[cell] = true;
    d += "M" + std::to_string(static_cast<int>(f.left) + 2 * cx + 1) + " " +
         std::to_string(static_cast<int>(f.top) + 2 * cy + 1) + "h0";
  }
  return d;
}

}  // namespace

void Envelope::merge(Bucket& a, const Bucket& b) {
  if (b.count == 0) return;
  if (a.count == 0) {
    const bool gap = a.breakBefore;
    a = b;
    a.breakBefore = a.breakBefore || gap;
    return;
  }
  a.xLast = b.xLast;
  a.lo = std::min(a.lo, b.lo);
  a.hi = std::max(a.hi, b.hi);
  a.last = b.last;
  a.count += b.count;
}

void Envelope::halve() {
  for (size_t i = 0; i < buckets_.size() / 2; ++i) {
    Bucket merged = buckets_[2 * i];
    merge(merged, buckets_[2 * i + 1]);
    buckets_[i] = merged;
  }
  std::fill(buckets_.begin() + static_cast<long>(buckets_.size() / 2), buckets_.end(), Bucket{});
  width_ *= 2.0;
}

void Envelope::add(double x, double y) {
  if (!std::isfinite(x)) return;
  if (!std::isfinite(y)) {
    gap_ = true;
    return;
  }
  if (!started_) {
    buckets_.assign(kBuckets, Bucket{});
    origin_ = x;
    started_ = true;
  }
  size_t index = current_;
  if (!(x < currentEnd_ && width_ > 0.0)) {
    if (width_ == 0.0 && x > origin_) width_ = x - origin_;
    double position = width_ > 0.0 ? std::floor((x - origin_) / width_) : 0.0;
    if (position < 0.0) position = 0.0;
    while (position >= static_cast<double>(kBuckets)) {
      halve();
      position = std::floor((x - origin_) / width_);
    }
    index = static_cast<size_t>(position);
    current_ = index;
    currentEnd_ = width_ > 0.0 ? origin_ + (position + 1.0) * width_ : origin_;
  }
  // On a periodic track, each value is placed nearest to the one before.
  double value = y;
  if (period_ > 0.0 && haveLast_) value = y + period_ * std::round((lastTracked_ - y) / period_);
  lastTracked_ = value;
  haveLast_ = true;

  Bucket& b = buckets_[index];
  if (b.count == 0) {
    b.xFirst = b.xLast = x;
    b.first = b.lo = b.hi = b.last = value;
    b.count = 1;
    b.breakBefore = gap_;
  } else {
    b.xLast = x;
    b.lo = std::min(b.lo, value);
    b.hi = std::max(b.hi, value);
    b.last = value;
    ++b.count;
  }
  gap_ = false;
  ++samples_;
}

std::vector<double> niceTicks(double lo, double hi, int count) {
  std::vector<double> ticks;
  if (!(hi > lo) || count < 1) return ticks;
  const double raw = (hi - lo) / count;
  const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
  double step = magnitude;
  for (double factor : {1.0, 2.0, 5.0, 10.0}) {
    step = factor * magnitude;
    if (step >= raw) break;
  }
  for (double t = std::ceil(lo / step - 1e-9) * step; t <= hi + step * 1e-9; t += step) {
    ticks.push_back(t);
  }
  return ticks;
}

std::string escapeXml(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string renderSvg(const Chart& chart) {
  Frame f;
  for (const Series& s : chart.series) {
    const bool band = s.style == Series::Style::Band;
    if (band) {
      f.y.include(s.bandLo);
      f.y.include(s.bandHi);
    }
    if (s.envelope) {
      for (const Envelope::Bucket& b : s.envelope->buckets()) {
        if (b.count == 0) continue;
        f.x.include(b.xFirst);
        f.x.include(b.xLast);
        if (s.envelope->period() > 0.0 || band) continue;  // periodic charts fix their y range
        f.y.include(b.lo);
        f.y.include(b.hi);
      }
      continue;
    }
    for (double v : s.x) f.x.include(v);
    if (band) continue;
    for (double v : s.y) f.y.include(v);
  }
  for (const CircleOverlay& c : chart.circles) {
    f.x.include(c.cx - c.r);
    f.x.include(c.cx + c.r);
    f.y.include(c.cy - c.r);
    f.y.include(c.cy + c.r);
  }
  if (chart.yMin) f.y.lo = *chart.yMin;
  if (chart.yMax) f.y.hi = *chart.yMax;
  f.x.settle();
  f.y.settle();
  f.left = kLeft;
  f.top = kTop;
  f.plotW = chart.width - kLeft - kRight;
  f.plotH = chart.height - kTop - kBottom;
  if (chart.equalAspect) {
    // Widen the narrower range so one data unit has the same length on both axes.
    const double scale = std::max((f.x.hi - f.x.lo) / f.plotW, (f.y.hi - f.y.lo) / f.plotH);
    const double xMid = (f.x.lo + f.x.hi) / 2.0, yMid = (f.y.lo + f.y.hi) / 2.0;
    f.x.lo = xMid - scale * f.plotW / 2.0;
    f.x.hi = xMid + scale * f.plotW / 2.0;
    f.y.lo = yMid - scale * f.plotH / 2.0;
    f.y.hi = yMid + scale * f.plotH / 2.0;
  }

  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"plot\" id=\"" + escapeXml(chart.id) +
                    "\" width=\"" + std::to_string(chart.width) + "\" height=\"" +
                    std::to_string(chart.height) + "\" viewBox=\"0 0 " + std::to_string(chart.width) +
                    " " + std::to_string(chart.height) + "\" font-family=\"sans-serif\" font-size=\"11\">\n";
  svg += "<title>" + escapeXml(chart.title) + "</title>\n";
  svg += "<rect x=\"0\" y=\"0\" width=\"" + std::to_string(chart.width) + "\" height=\"" +
         std::to_string(chart.height) + "\" fill=\"#ffffff\"/>\n";
  svg += "<text x=\"" + num(f.left) + "\" y=\"20\" font-size=\"13\" font-weight=\"bold\">" +
         escapeXml(chart.title) + "</text>\n";

  // Grid and ticks.
  const std::vector<double> xTicks = niceTicks(f.x.lo, f.x.hi, chart.equalAspect ? 5 : 12);
  std::vector<double> yTicks;
  if (chart.yTickLabels.empty()) {
    yTicks = niceTicks(f.y.lo, f.y.hi, 5);
  } else {
    for (const auto& named : chart.yTickLabels) yTicks.push_back(named.first);
  }
  const double xStep = xTicks.size() > 1 ? xTicks[1] - xTicks[0] : 1.0;
  const double yStep = yTicks.size() > 1 ? yTicks[1] - yTicks[0] : 1.0;
  svg += "<g stroke=\"#e2e2e2\" stroke-width=\"1\">";
  for (double t : xTicks) svg += "<path d=\"M" + num(f.px(t)) + " " + num(f.top) + "V" + num(f.top + f.plotH) + "\"/>";
  for (double t : yTicks) svg += "<path d=\"M" + num(f.left) + " " + num(f.py(t)) + "H" + num(f.left + f.plotW) + "\"/>";
  svg += "</g>\n<g fill=\"#444444\">";
  for (double t : xTicks) {
    svg += "<text x=\"" + num(f.px(t)) + "\" y=\"" + num(f.top + f.plotH + 15) + "\" text-anchor=\"middle\">" +
           tickLabel(t, xStep) + "</text>";
  }
  for (size_t i = 0; i < yTicks.size(); ++i) {
    const double t = yTicks[i];
    svg += "<text x=\"" + num(f.left - 6) + "\" y=\"" + num(f.py(t) + 4) + "\" text-anchor=\"end\">" +
           (chart.yTickLabels.empty() ? tickLabel(t, yStep) : escapeXml(chart.yTickLabels[i].second)) + "</text>";
  }
  svg += "</g>\n";
  svg += "<rect x=\"" + num(f.left) + "\" y=\"" + num(f.top) + "\" width=\"" + num(f.plotW) + "\" height=\"" +
         num(f.plotH) + "\" fill=\"none\" stroke=\"#888888\"/>\n";
  svg += "<text x=\"" + num(f.left + f.plotW / 2) + "\" y=\"" + num(chart.height - 6) +
         "\" text-anchor=\"middle\">" + escapeXml(chart.xLabel) + "</text>\n";
  svg += "<text transform=\"translate(14 " + num(f.top + f.plotH / 2) + ") rotate(-90)\" text-anchor=\"middle\">" +
         escapeXml(chart.yLabel) + "</text>\n";

  // Data, clipped to the plot area.
  svg += "<clipPath id=\"" + escapeXml(chart.id) + "-clip\"><rect x=\"" + num(f.left) + "\" y=\"" + num(f.top) +
         "\" width=\"" + num(f.plotW) + "\" height=\"" + num(f.plotH) + "\"/></clipPath>\n";
  svg += "<g clip-path=\"url(#" + escapeXml(chart.id) + "-clip)\" fill=\"none\">\n";
  for (const Series& s : chart.series) {
    if (s.style == Series::Style::Band) {
      svg += "<path class=\"band\" d=\"" + bandPath(s, f) + "\" fill=\"" + s.colour +
             "\" fill-opacity=\"0.75\" stroke=\"none\"/>\n";
    } else if (s.style == Series::Style::Points) {
      svg += "<path class=\"points\" d=\"" + pointsPath(s, f) + "\" stroke=\"" + s.colour +
             "\" stroke-width=\"3\" stroke-linecap=\"round\" stroke-opacity=\"0.5\"/>\n";
    } else {
      svg += "<path class=\"line\" d=\"" + linePath(s, f) + "\" stroke=\"" + s.colour + "\" stroke-width=\"1.3\"" +
             (s.style == Series::Style::Dashed ? " stroke-dasharray=\"5 3\"" : "") + " stroke-linejoin=\"round\"/>\n";
    }
  }
  const double xScale = f.plotW / (f.x.hi - f.x.lo), yScale = f.plotH / (f.y.hi - f.y.lo);
  for (const CircleOverlay& c : chart.circles) {
    svg += "<ellipse class=\"fit\" cx=\"" + num(f.px(c.cx)) + "\" cy=\"" + num(f.py(c.cy)) + "\" rx=\"" +
           num(c.r * xScale) + "\" ry=\"" + num(c.r * yScale) + "\" stroke=\"" + c.colour + "\" stroke-width=\"2\"/>\n";
  }
  svg += "</g>\n";

  // Legend, top right, one entry per labelled series or circle.
  // Each entry shows a stretch of the line as drawn: solid, dashed, dots.
  struct Entry {
    std::string label, colour;
    Series::Style style;
  };
  std::vector<Entry> entries;
  for (const Series& s : chart.series) {
    if (!s.label.empty()) entries.push_back({s.label, s.colour, s.style});
  }
  for (const CircleOverlay& c : chart.circles) {
    if (!c.label.empty()) entries.push_back({c.label, c.colour, Series::Style::Line});
  }
  svg += "<g class=\"legend\">";
  double x = f.left + f.plotW;
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    x -= 6.5 * static_cast<double>(it->label.size()) + 40.0;
    if (it->style == Series::Style::Band) {
      svg += "<rect x=\"" + num(x) + "\" y=\"9\" width=\"24\" height=\"12\" fill=\"" + it->colour +
             "\" fill-opacity=\"0.75\"/>";
    } else if (it->style == Series::Style::Points) {
      svg += "<path d=\"M" + num(x + 4) + " 15h0M" + num(x + 12) + " 15h0M" + num(x + 20) + " 15h0\" stroke=\"" +
             it->colour + "\" stroke-width=\"3\" stroke-linecap=\"round\"/>";
    } else {
      svg += "<path d=\"M" + num(x) + " 15h24\" stroke=\"" + it->colour + "\" stroke-width=\"2\"" +
             (it->style == Series::Style::Dashed ? " stroke-dasharray=\"5 3\"" : "") + "/>";
    }
    svg += "<text x=\"" + num(x + 28) + "\" y=\"19\">" + escapeXml(it->label) + "</text>\n";
  }
  svg += "</g>\n";
  svg += "</svg>\n";
  return svg;
}

}  // namespace quelta::replay
