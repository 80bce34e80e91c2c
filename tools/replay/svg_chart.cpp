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

// Path data for a line; long series are thinned to the lowest and highest
// value per pixel column, which keeps the look and the file small.
std::string linePath(const Series& s, const Frame& f) {
  std::string d;
  bool penDown = false;
  const bool thin = s.x.size() > static_cast<size_t>(f.plotW) * 4;
  size_t i = 0;
  while (i < s.x.size()) {
    if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i])) {
      penDown = false;
      ++i;
      continue;
    }
    double column = std::floor(f.px(s.x[i]));
    size_t j = i + 1;
    double lo = s.y[i], hi = s.y[i];
    if (thin) {
      while (j < s.x.size() && std::isfinite(s.y[j]) && std::floor(f.px(s.x[j])) == column) {
        lo = std::min(lo, s.y[j]);
        hi = std::max(hi, s.y[j]);
        ++j;
      }
    }
    const double x = f.px(s.x[i]);
    auto to = [&](double yValue) {
      const double y = f.py(yValue);
      if (!penDown) {
        d += "M" + num(x) + " " + num(y);
      } else if (s.style == Series::Style::Step) {
        d += "H" + num(x) + "V" + num(y);
      } else {
        d += "L" + num(x) + " " + num(y);
      }
      penDown = true;
    };
    if (thin && j > i + 1) {
      to(s.y[i]);
      to(lo);
      to(hi);
      to(s.y[j - 1]);
    } else {
      to(s.y[i]);
    }
    i = j;
  }
  return d;
}

std::string pointsPath(const Series& s, const Frame& f) {
  std::string d;
  for (size_t i = 0; i < s.x.size(); ++i) {
    if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i])) continue;
    d += "M" + num(f.px(s.x[i])) + " " + num(f.py(s.y[i])) + "h0";
  }
  return d;
}

}  // namespace

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
    for (double v : s.x) f.x.include(v);
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
  const std::vector<double> yTicks = niceTicks(f.y.lo, f.y.hi, 5);
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
  for (double t : yTicks) {
    svg += "<text x=\"" + num(f.left - 6) + "\" y=\"" + num(f.py(t) + 4) + "\" text-anchor=\"end\">" +
           tickLabel(t, yStep) + "</text>";
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
    if (s.style == Series::Style::Points) {
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
  std::vector<std::pair<std::string, std::string>> entries;
  for (const Series& s : chart.series) {
    if (!s.label.empty()) entries.emplace_back(s.label, s.colour);
  }
  for (const CircleOverlay& c : chart.circles) {
    if (!c.label.empty()) entries.emplace_back(c.label, c.colour);
  }
  double x = f.left + f.plotW;
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    x -= 7.0 * static_cast<double>(it->first.size()) + 30.0;
    svg += "<rect x=\"" + num(x) + "\" y=\"12\" width=\"14\" height=\"4\" fill=\"" + it->second + "\"/>";
    svg += "<text x=\"" + num(x + 18) + "\" y=\"18\">" + escapeXml(it->first) + "</text>\n";
  }
  svg += "</svg>\n";
  return svg;
}

}  // namespace quelta::replay
