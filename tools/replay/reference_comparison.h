// Compares a replay with the reference columns of its recording: the
// virtual gyroscope against the reference gyroscope, the rotation vector
// and the azimuth against the reference attitude. Magnetic and reference
// north differ by a constant heading, so the attitude comparisons first
// find the constant heading alignment that fits best: the one with the
// least mean absolute error, which the lag of the smoothed outputs during
// fast turns does not pull away as it would a least-squares fit. Only samples at
// calibration accuracy 3 are compared, when there are any.
#pragma once

#include <array>
#include <optional>
#include <vector>

#include "tools/replay/attitude_math.h"
#include "tools/replay/recording.h"
#include "tools/replay/replay_row.h"

namespace quelta::replay {

// Azimuth errors are taken only where the device is tilted at most this
// much: towards the vertical the azimuth loses its meaning.
constexpr double kAzimuthMaxTiltDeg = 60.0;

struct GyroComparison {
  std::array<double, 3> rmsAxis{};  // rad/s
  double rms = 0.0;                 // RMS of the error vector's length
  double referenceRms = 0.0;        // RMS of the reference rate's length, for scale
  size_t count = 0;                 // samples compared
};

struct AngleComparison {
  double alignmentDeg = 0.0;  // reference heading minus the library's, clockwise
  double rmsDeg = 0.0;
  double medianDeg = 0.0;  // of the absolute errors
  double maxDeg = 0.0;
  size_t count = 0;  // samples compared
};

struct ReferenceComparison {
  // True when the comparisons cover only the samples at accuracy 3 (the
  // usual case); false when the calibration never completed and they cover
  // every sample.
  bool calibratedOnly = false;
  std::optional<GyroComparison> gyro;
  std::optional<AngleComparison> rotationVector;
  std::optional<AngleComparison> azimuth;
  // Per sample (NaN where not compared): rotation vector error and signed
  // azimuth error after alignment, degrees; reference angles with the
  // azimuth shifted onto magnetic north.
  std::vector<double> rotationVectorErrorDeg;
  std::vector<double> azimuthErrorDeg;
  std::vector<std::array<double, 3>> referenceAngles;
};

ReferenceComparison compareWithReference(const Recording& recording,
                                         const std::vector<ReplayRow>& rows);

// Heading alignment (degrees, clockwise) minimising the mean angle between
// reference[i] and headingRotation(alignment) * estimate[i].
double bestHeadingAlignment(const std::vector<std::array<double, 4>>& reference,
                            const std::vector<std::array<double, 4>>& estimate);

// Constant offset (degrees) minimising the mean of |wrapDeg(reference - estimate - offset)|.
double bestAngleOffset(const std::vector<double>& reference, const std::vector<double>& estimate);


// Per-sample measures of an attitude estimate against a reference attitude,
// both device to east-north-up, quaternions (w, x, y, z). They hold at any
// tilt: the heading error is the turn about the vertical between the two
// (the twist of reference * estimate^-1 about up), not a difference of
// azimuths, which lose their meaning towards the vertical.

// The reference's frame turned so that its north is the horizontal
// direction of worldField (the recording's magnetic north): the rotation
// to apply on the left of every reference attitude.
Quat northFromField(const Vec3& worldField);

// Turn about the vertical from estimate to reference, degrees [-180, 180),
// counter-clockwise positive.
double headingErrorDeg(const Quat& reference, const Quat& estimate);

// Angle between the reference's and the estimate's up, seen in the device
// frame, degrees.
double tiltErrorDeg(const Quat& reference, const Quat& estimate);

// Whole attitude error after turning the estimate by a constant heading
// (degrees, clockwise, as bestHeadingAlignment returns it).
double attitudeErrorDeg(const Quat& reference, const Quat& estimate, double alignmentDeg);

// Angular rate in the device frame derived from the reference attitudes by
// central differences (rad/s); NaN where a neighbour is missing (non-finite)
// or the interval is not positive.
std::vector<Vec3> referenceRates(const std::vector<double>& t, const std::vector<Quat>& reference);

}  // namespace quelta::replay
