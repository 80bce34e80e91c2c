// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/units_check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace quelta::replay {

namespace {

constexpr double kStandardGravity = 9.80665;  // m/s^2 per g
constexpr double kMicroteslaPerGauss = 100.0;

// The earth's field is 0.22 to 0.67 gauss; a device's own hard-iron offset
// adds a few gauss at most (phones: about 4). Read as gauss, a field in
// microtesla is 22 or more; read as microtesla, a field in gauss is a few
// hundredths of a gauss.
constexpr double kMostGauss = 10.0;
constexpr double kLeastGauss = 0.05;

// Hand-held sensors deliver every 0.1 ms (10 kHz) to every 1 s (1 Hz); a
// median interval outside a generous band around that is a unit mistake:
// read as seconds, nanosecond times give intervals of 10^6 s and more.
constexpr double kLongestInterval = 10.0;    // s
constexpr double kShortestInterval = 1e-5;   // s

template <size_t N>
double magnitude(const std::array<double, N>& v) {
  double sum = 0.0;
  for (double x : v) sum += x * x;
  return std::sqrt(sum);
}

double median(std::vector<double> values) {
  const size_t middle = values.size() / 2;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
  return values[middle];
}

std::string format(const char* pattern, double a, size_t count) {
  char text[400];
  std::snprintf(text, sizeof text, pattern, a, count);
  return text;
}

}  // namespace

std::vector<std::string> checkUnits(const std::vector<RecordedSample>& samples, const Units& units) {
  std::vector<std::string> warnings;
  if (samples.empty()) return warnings;
  std::vector<double> acc;
  std::vector<double> mag;
  acc.reserve(samples.size());
  mag.reserve(samples.size());
  for (const RecordedSample& s : samples) {
    acc.push_back(magnitude(s.acc));
    if (s.hasMag) mag.push_back(magnitude(s.mag));
  }
  const size_t n = samples.size();

  // Times: the median interval, in seconds as read, against sensor rates.
  if (samples.size() >= 2) {
    const double interval = nominalPeriod(samples);
    if (interval > kLongestInterval || (interval > 0.0 && interval < kShortestInterval)) {
      // The unit that brings the interval nearest to 10 ms (100 Hz).
      static const TimeUnit kUnits[4] = {TimeUnit::Seconds, TimeUnit::Milliseconds, TimeUnit::Microseconds,
                                         TimeUnit::Nanoseconds};
      const double raw = interval * timeDivisor(units.time);  // in the recording's own numbers
      TimeUnit best = units.time;
      double bestDistance = INFINITY;
      for (TimeUnit unit : kUnits) {
        const double distance = std::fabs(std::log10(raw / timeDivisor(unit) / 0.01));
        if (distance < bestDistance) {
          bestDistance = distance;
          best = unit;
        }
      }
      char text[400];
      std::snprintf(text, sizeof text,
                    "the median interval between samples is %.3g s over the first %zu samples (times read as %s), "
                    "where sensors sample every 0.1 ms to 1 s: the times look like %s (use --time-unit %s)",
                    interval, n, timeUnitName(units.time),
                    best == TimeUnit::Seconds        ? "seconds"
                    : best == TimeUnit::Milliseconds ? "milliseconds"
                    : best == TimeUnit::Microseconds ? "microseconds"
                                                     : "nanoseconds",
                    timeUnitName(best));
      warnings.push_back(text);
    }
  }

  // Gravity dominates the accelerometer: its median magnitude is about 1 g.
  const double accG = median(acc);
  if (units.acc == AccUnit::G && accG > kStandardGravity / 2 && accG < kStandardGravity * 2) {
    warnings.push_back(format("the accelerometer's median magnitude is %.3g g over the first %zu samples, where "
                              "gravity reads 1 g: the recording looks like m/s2 (use --acc-unit m/s2)",
                              accG, n));
  } else if (units.acc == AccUnit::MetresPerSecond2 && accG > 0.5 / kStandardGravity &&
             accG < 2.0 / kStandardGravity) {
    warnings.push_back(format("the accelerometer's median magnitude is %.3g m/s2 over the first %zu samples, "
                              "where gravity reads 9.8 m/s2: the recording looks like g (use --acc-unit g)",
                              accG * kStandardGravity, n));
  }

  const double magGauss = mag.empty() ? 0.0 : median(mag);
  if (units.mag == MagUnit::Gauss && magGauss > kMostGauss) {
    warnings.push_back(format("the magnetometer's median magnitude is %.3g gauss over the first %zu samples, far "
                              "more than the earth's field (at most 0.7 gauss) and a device's own offset: the "
                              "recording looks like microtesla (use --mag-unit uT)",
                              magGauss, n));
  } else if (units.mag == MagUnit::Microtesla && magGauss > 0.0 && magGauss < kLeastGauss) {
    warnings.push_back(format("the magnetometer's median magnitude is %.3g uT over the first %zu samples, far "
                              "less than the earth's field (at least 22 uT): the recording looks like gauss "
                              "(use --mag-unit gauss)",
                              magGauss * kMicroteslaPerGauss, n));
  }
  return warnings;
}

}  // namespace quelta::replay
