// SPDX-License-Identifier: Apache-2.0
#include "quelta/api/magnetic_c_convert.h"

#include <cmath>

#include "quelta/magnetic/physical_limits.h"

namespace quelta::api {

magnetic::ExpectedField expectedFieldOf(double strengthGauss, double dipDeg) {
  magnetic::ExpectedField f;
  if (std::isfinite(strengthGauss) && std::isfinite(dipDeg) && strengthGauss > 0.0 && strengthGauss < 10.0 &&
      std::fabs(dipDeg) <= 90.0) {
    f.strengthGauss = strengthGauss;
    f.dipDeg = dipDeg;
    f.known = true;
  }
  return f;
}

bool plausibleExpectedField(double strengthGauss, double dipDeg) {
  return std::isfinite(strengthGauss) && std::isfinite(dipDeg) && strengthGauss >= magnetic::kEarthFieldMinGauss &&
         strengthGauss <= magnetic::kEarthFieldMaxGauss && std::fabs(dipDeg) <= 90.0;
}

void copySample(const magnetic::SampleOutput& in, quelta_mag_sample* out) {
  in.calibrated.store(out->calibrated);
  out->strength = in.strength;
  out->dip_deg = in.dipDeg;
  out->strength_deviation = in.strengthDeviation;
  out->dip_deviation_deg = in.dipDeviationDeg;
  out->disturbance = in.disturbance;
  out->disturbed = in.disturbed ? 1 : 0;
  out->accuracy = in.accuracy;
  out->new_calibration = in.newCalibration ? 1 : 0;
  out->valid = in.valid ? 1 : 0;
}

void copyCalibration(const magnetic::Calibration& in, quelta_mag_calibration* out) {
  constexpr double kDeg = 57.29577951308232;
  in.offset.store(out->offset);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) out->soft_iron[3 * i + j] = in.softIron.m[i][j];
  out->strength = in.strength;
  const double ratio = in.strength > 0.0 ? -in.vertical / in.strength : 0.0;
  out->dip_deg = std::asin(ratio < -1.0 ? -1.0 : (ratio > 1.0 ? 1.0 : ratio)) * kDeg;
  out->model = static_cast<int>(in.model);
}

void copyQuality(const magnetic::Quality& in, quelta_mag_quality* out) {
  out->accuracy = in.accuracy;
  out->reason = static_cast<int>(in.reason);
  out->coverage = in.coverage;
  out->residual_gauss = in.residualGauss;
  out->fitted_strength = in.fittedStrength;
  out->expected_strength = in.expectedStrength;
  out->heading_error_deg = in.headingErrorDeg;
  out->samples = in.samples;
  out->new_hard_iron = in.newHardIron;
}

}  // namespace quelta::api
