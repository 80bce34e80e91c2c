// SPDX-License-Identifier: Apache-2.0
// What a magnetometer calibration on this planet can be: the bounds a
// restored record and the host's settings are checked against.
#pragma once

namespace quelta::magnetic {

// The earth's main field is 0.22 to 0.67 gauss at the surface; a fit
// indoors can be a little off either way.
inline constexpr double kEarthFieldMinGauss = 0.15;  // gauss
inline constexpr double kEarthFieldMaxGauss = 0.8;   // gauss
// A hard-iron offset beyond this saturates any hand-held magnetometer.
inline constexpr double kMaxOffsetGauss = 10.0;      // gauss, |offset|
// Soft iron stretches or squeezes the field by at most a factor of two.
inline constexpr double kSoftIronMinEigenvalue = 0.5;
inline constexpr double kSoftIronMaxEigenvalue = 2.0;

}  // namespace quelta::magnetic
