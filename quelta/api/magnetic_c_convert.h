// SPDX-License-Identifier: Apache-2.0
// The magnetic layer's C++ types as the C interface gives them, shared by the
// magnetic and the compass interfaces (quelta_mag_* and quelta_compass_*).
#pragma once

#include "quelta/magnetic/mag_calibrator.h"
#include "quelta/quelta_magnetic.h"

namespace quelta::api {

// The expected field from the host's strength (gauss) and dip (degrees):
// unknown unless both are finite and plausible (0 < strength < 10 gauss,
// |dip| <= 90 degrees).
magnetic::ExpectedField expectedFieldOf(double strengthGauss, double dipDeg);
// A field the earth could have: strength within kEarthFieldMinGauss ..
// kEarthFieldMaxGauss, |dip| <= 90 degrees, both finite.
bool plausibleExpectedField(double strengthGauss, double dipDeg);

void copySample(const magnetic::SampleOutput& in, quelta_mag_sample* out);
void copyCalibration(const magnetic::Calibration& in, quelta_mag_calibration* out);
void copyQuality(const magnetic::Quality& in, quelta_mag_quality* out);

}  // namespace quelta::api
