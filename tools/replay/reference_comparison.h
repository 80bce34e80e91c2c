// SPDX-License-Identifier: Apache-2.0
// Compares a replay with the reference columns of its recording: the
// virtual gyroscope against the reference gyroscope, the rotation vector
// and the azimuth against the reference attitude. This is the one place
// where errors against a reference are defined: the summary, the report and
// the measurement tools all take them from here, so one recording never
// shows two different errors.
//
// Magnetic and reference north differ by a constant heading, so the
// attitude comparisons first find the heading alignment: the circular
// median of the per-sample heading differences, that is the alignment with
// the least mean absolute heading difference. Unlike a least-squares fit,
// the lag of the smoothed outputs during fast turns does not pull it away.
// It is found on a 0.001 degree grid in time linear in the samples.
//
// Only samples at calibration accuracy 3 are compared, when there are any,
// or, with judgeFrom, every sample from that many seconds after the first
// (as the accuracy tool judges); samples whose reference is missing (empty
// or nan in the recording) are left out and counted.
//
// The comparison streams: add() takes the samples one at a time in a first
// pass, finish() settles the alignments and takes a second pass over what
// add() kept (a compact record per sample, spilled to an unnamed temporary
// file beyond a few thousand samples), handing each sample's errors to a
// visitor. Memory does not grow with the recording.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "tools/replay/recording.h"
#include "tools/replay/replay_row.h"

namespace quelta::replay {

// Azimuth errors are taken only where the device is tilted at most this
// much: towards the vertical the azimuth loses its meaning.
constexpr double kAzimuthMaxTiltDeg = 60.0;

// The replay tool judges from this many seconds after the first sample on,
// whatever the accuracy, as the accuracy tool does (quelta-accuracy), so the
// two give one recording the same figures: the first seconds are the
// start-up every engine needs.
constexpr double kJudgeFromS = 10.0;

// Resolution of the alignments and of the medians, degrees.
constexpr double kAngleResolutionDeg = 0.001;

// Streaming RMS, maximum and median of non-negative errors. The median is
// taken from a histogram of resolution `resolution` up to `limit` (larger
// values count in the last bin), so memory is fixed.
class ErrorStatistics {
 public:
  ErrorStatistics(double limit, double resolution);
  void add(double error);  // NaN is ignored
  size_t count() const { return count_; }
  double rms() const;
  double max() const { return max_; }
  double median() const;  // centre of the bin holding the median

 private:
  double resolution_;
  std::vector<uint32_t> bins_;
  size_t count_ = 0;
  double sumSquares_ = 0.0;
  double max_ = 0.0;
};

// Histogram of angles on the circle, for circular medians.
class CircularHistogram {
 public:
  CircularHistogram();
  void add(double deg);  // NaN is ignored
  size_t count() const { return count_; }
  // The angle (bin centre, in [-180, 180)) minimising the sum of absolute
  // wrapped differences to the angles added; 0 when empty.
  double median() const;

 private:
  std::vector<uint32_t> bins_;
  size_t count_ = 0;
};

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
  // True when the rate was compared with the rate derived from the
  // reference attitude instead of the reference gyroscope.
  bool rateFromAttitude = false;
  // True when the comparisons cover only the samples at accuracy 3 (the
  // usual case); false when the calibration never completed and they cover
  // every sample.
  bool calibratedOnly = false;
  // Set when the comparisons cover the samples from this many seconds after
  // the first instead (ReferenceComparator::judgeFrom); calibratedOnly then
  // says whether there were any.
  std::optional<double> judgedFromS;
  // Samples whose reference rate (gyroscope, or derived from the attitude)
  // or attitude was missing.
  size_t missingGyro = 0;
  size_t missingAttitude = 0;
  std::optional<GyroComparison> gyro;
  std::optional<AngleComparison> rotationVector;
  std::optional<AngleComparison> azimuth;
  // From the same differences as rotationVector, at any tilt: the turn about
  // the vertical between reference and estimate after the heading alignment
  // (the rotation vector's), and the angle between their up directions.
  std::optional<AngleComparison> heading;
  std::optional<AngleComparison> tilt;
};

// One sample's errors against the reference, NaN where not compared.
struct SampleErrors {
  size_t index = 0;  // sample number, from 0
  double t = 0.0;
  bool compared = false;  // in the compared selection (accuracy 3, or all)
  double rotationVectorDeg = std::numeric_limits<double>::quiet_NaN();
  double azimuthDeg = std::numeric_limits<double>::quiet_NaN();  // signed, after alignment
  // Reference azimuth (on the library's magnetic north), pitch and roll,
  // degrees, in the conventions of the orientation output; NaN when the
  // reference attitude is missing.
  std::array<double, 3> referenceAngles{std::numeric_limits<double>::quiet_NaN(),
                                        std::numeric_limits<double>::quiet_NaN(),
                                        std::numeric_limits<double>::quiet_NaN()};
  // Signed heading error at any tilt after the alignment, and tilt error,
  // degrees (see ReferenceComparison::heading and tilt). Signed errors
  // (azimuthDeg, headingDeg) are the library's value minus the reference's:
  // positive when the library's heading is clockwise of the truth.
  double headingDeg = std::numeric_limits<double>::quiet_NaN();
  // The heading error at every sample with a reference attitude, compared
  // or not (before the calibration too): what the report draws against the
  // compass's own heading accuracy estimate.
  double headingAnyDeg = std::numeric_limits<double>::quiet_NaN();
  double tiltDeg = std::numeric_limits<double>::quiet_NaN();
  // The rate derived from the reference attitude (rad/s, device frame),
  // when the comparator derives it; NaN otherwise.
  std::array<double, 3> referenceRate{std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::quiet_NaN()};
};

class ReferenceComparator {
 public:
  // rateFromAttitude: compare the reported rate (ReplayRow::vgyro) with the
  // rate derived from the reference attitude (central differences, as
  // referenceRates) rather than with the reference gyroscope, for an engine
  // that was fed that gyroscope. The derivation needs the next sample, so
  // each sample is settled one sample late.
  ReferenceComparator(bool hasGyro, bool hasAttitude, bool rateFromAttitude = false);
  // Compare the samples from seconds after the first one on, whatever the
  // accuracy, instead of those at accuracy 3. Call before the first add().
  void judgeFrom(double seconds) { judgeFrom_ = seconds; }
  ~ReferenceComparator();
  ReferenceComparator(const ReferenceComparator&) = delete;
  ReferenceComparator& operator=(const ReferenceComparator&) = delete;

  // First pass, in sample order.
  void add(const RecordedSample& sample, const ReplayRow& row);
  // Settles the alignments and, if visit is given, hands it every sample's
  // errors in order. Call once.
  ReferenceComparison finish(const std::function<void(const SampleErrors&)>& visit = {});

 private:
  struct Record;
  struct Selection;
  struct Pending;
  void keep(const Record& record);
  bool readBack(Record& record);
  void addRate(const std::array<float, 3>& rate, const double* reference, bool calibrated);
  void settlePending(const double* nextAttitude, double nextT);

  bool hasGyro_;
  bool hasAttitude_;
  bool rateFromAttitude_;
  std::unique_ptr<Pending> pending_;  // the sample waiting for its successor
  size_t samples_ = 0;
  std::optional<double> judgeFrom_;
  double firstT_ = 0.0;
  bool anyCalibrated_ = false;  // any sample in the compared selection
  size_t missingGyro_ = 0;
  size_t missingAttitude_ = 0;
  std::unique_ptr<Selection> calibrated_;  // accuracy 3
  std::unique_ptr<Selection> uncalibrated_;
  std::vector<Record> kept_;
  FILE* spill_ = nullptr;
  size_t readIndex_ = 0;
};

// Compares a whole replay at once; perSample, if given, receives every
// sample's errors.
ReferenceComparison compareWithReference(const Recording& recording, const std::vector<ReplayRow>& rows,
                                         std::vector<SampleErrors>* perSample = nullptr);

// Heading alignment (degrees, clockwise) of the estimates onto the
// references: the circular median of the heading of reference[i] *
// conjugate(estimate[i]).
double bestHeadingAlignment(const std::vector<std::array<double, 4>>& reference,
                            const std::vector<std::array<double, 4>>& estimate);

// Constant offset (degrees) minimising the mean of |wrapDeg(reference - estimate - offset)|.
double bestAngleOffset(const std::vector<double>& reference, const std::vector<double>& estimate);

// The heading (degrees, clockwise, [-180, 180)) of the rotation about up in
// q: the twist of q about the vertical.
double headingOfDeg(const std::array<double, 4>& q);


// Per-sample measures of an attitude estimate against a reference attitude,
// both device to east-north-up, quaternions (w, x, y, z), for engines that
// report a whole attitude (the compass filter, TRIAD). They hold at any
// tilt: the heading error is the turn about the vertical between the two
// (the twist of reference * estimate^-1 about up), not a difference of
// azimuths, which lose their meaning towards the vertical.

// The rotation to apply on the left of every reference attitude so that its
// north becomes the horizontal direction of worldField (a recording's
// magnetic north, in the reference frame).
std::array<double, 4> northFromField(const std::array<double, 3>& worldField);

// Turn about the vertical from estimate to reference, degrees [-180, 180),
// clockwise positive (headingOfDeg of reference * estimate^-1).
double headingErrorDeg(const std::array<double, 4>& reference, const std::array<double, 4>& estimate);

// Angle between the reference's and the estimate's up, seen in the device
// frame, degrees.
double tiltErrorDeg(const std::array<double, 4>& reference, const std::array<double, 4>& estimate);

// Whole attitude error after turning the estimate by a constant heading
// (degrees, clockwise, as bestHeadingAlignment returns it).
double attitudeErrorDeg(const std::array<double, 4>& reference, const std::array<double, 4>& estimate,
                        double alignmentDeg);

// Angular rate in the device frame derived from the reference attitudes by
// central differences (rad/s); NaN where a neighbour is missing (non-finite)
// or the interval is not positive.
std::vector<std::array<double, 3>> referenceRates(const std::vector<double>& t,
                                                  const std::vector<std::array<double, 4>>& reference);

}  // namespace quelta::replay
