// SPDX-License-Identifier: Apache-2.0
// The World Magnetic Model's coefficient table as compiled into the library.
#ifndef QUELTA_GEOMAG_WMM_MODEL_H
#define QUELTA_GEOMAG_WMM_MODEL_H

namespace quelta {
namespace geomag {

constexpr int kWmmDegree = 12;
// Terms n = 0..12, m = 0..n, at index n(n+1)/2 + m (n = 0 is zero).
constexpr int kWmmTerms = (kWmmDegree + 1) * (kWmmDegree + 2) / 2;

constexpr int wmm_index(int n, int m) { return n * (n + 1) / 2 + m; }

struct WmmCoefficient {
  double g;      // nT at the epoch
  double h;      // nT at the epoch
  double g_dot;  // nT/year
  double h_dot;  // nT/year
};

struct WmmModel {
  const char* name;
  const char* release_date;
  double epoch;        // decimal year
  double valid_until;  // decimal year; valid from the epoch
  WmmCoefficient terms[kWmmTerms];
};

// World Magnetic Model 2025 (wmm2025_coefficients.cpp, generated from data/wmm/WMM2025.COF).
extern const WmmModel kWmm2025;

}  // namespace geomag
}  // namespace quelta

#endif
