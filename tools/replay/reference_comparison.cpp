// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/reference_comparison.h"

#include <algorithm>
#include <cmath>

#include "tools/replay/attitude_math.h"

namespace quelta::replay {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kPi = 3.14159265358979323846;
constexpr size_t kCircleBins = 360000;  // 360 degrees at kAngleResolutionDeg
constexpr size_t kRecordsInMemory = 4096;

bool isUsable(const std::array<float, 4>& q) {
  const double n = static_cast<double>(q[0]) * q[0] + static_cast<double>(q[1]) * q[1] +
                   static_cast<double>(q[2]) * q[2] + static_cast<double>(q[3]) * q[3];
  return std::isfinite(n) && n > 0.5;
}

bool allFinite(const double* v, int n) {
  for (int k = 0; k < n; ++k) {
    if (!std::isfinite(v[k])) return false;
  }
  return true;
}

Quat fromLibraryOrder(const std::array<float, 4>& xyzw) { return {xyzw[3], xyzw[0], xyzw[1], xyzw[2]}; }

// The constant rate (device frame, rad/s) that turns attitude a into b in dt.
std::array<double, 3> rateBetween(const Quat& a, const Quat& b, double dt) {
  Quat d = multiply(conjugate(a), b);
  if (d[0] < 0.0) d = {-d[0], -d[1], -d[2], -d[3]};
  const double v = std::sqrt(d[1] * d[1] + d[2] * d[2] + d[3] * d[3]);
  const double angle = 2.0 * std::atan2(v, d[0]);
  const double scale = v > 1e-12 ? angle / v / dt : 2.0 / dt;
  return {d[1] * scale, d[2] * scale, d[3] * scale};
}

}  // namespace

// ErrorStatistics ------------------------------------------------------------

ErrorStatistics::ErrorStatistics(double limit, double resolution)
    : resolution_(resolution), bins_(static_cast<size_t>(std::ceil(limit / resolution)) + 1, 0) {}

void ErrorStatistics::add(double error) {
  if (std::isnan(error)) return;
  error = std::fabs(error);
  ++count_;
  sumSquares_ += error * error;
  max_ = std::max(max_, error);
  const double bin = std::floor(error / resolution_);
  ++bins_[bin < static_cast<double>(bins_.size() - 1) ? static_cast<size_t>(bin) : bins_.size() - 1];
}

double ErrorStatistics::rms() const { return count_ > 0 ? std::sqrt(sumSquares_ / static_cast<double>(count_)) : 0.0; }

double ErrorStatistics::median() const {
  if (count_ == 0) return 0.0;
  // The element at count / 2 of the sorted errors, as nth_element picks it.
  const size_t wanted = count_ / 2;
  size_t seen = 0;
  for (size_t b = 0; b < bins_.size(); ++b) {
    seen += bins_[b];
    if (seen > wanted) return std::min((static_cast<double>(b) + 0.5) * resolution_, max_);
  }
  return max_;
}

// CircularHistogram ----------------------------------------------------------

CircularHistogram::CircularHistogram() : bins_(kCircleBins, 0) {}

void CircularHistogram::add(double deg) {
  if (!std::isfinite(deg)) return;
  double position = std::floor((deg + 180.0) / kAngleResolutionDeg);
  position -= static_cast<double>(kCircleBins) * std::floor(position / static_cast<double>(kCircleBins));
  size_t bin = static_cast<size_t>(position);
  if (bin >= kCircleBins) bin = 0;
  ++bins_[bin];
  ++count_;
}

double CircularHistogram::median() const {
  if (count_ == 0) return 0.0;
  // Prefix sums of counts and of bin index times count; the cost of a
  // candidate bin k is the sum of |j - k| over the half circle on each side.
  const size_t n = kCircleBins;
  std::vector<double> count(n + 1, 0.0), moment(n + 1, 0.0);
  for (size_t j = 0; j < n; ++j) {
    count[j + 1] = count[j] + bins_[j];
    moment[j + 1] = moment[j] + static_cast<double>(j) * bins_[j];
  }
  // Sums over the bins j in [lo, hi) taken around the circle (lo may be
  // negative, hi may pass n), with j counted unwrapped.
  auto range = [&](long lo, long hi, double& c, double& m) {
    c = 0.0;
    m = 0.0;
    const long size = static_cast<long>(n);
    while (lo < hi) {
      const long shift = lo < 0 ? -size : (lo >= size ? size : 0);
      const long a = lo - shift;
      const long b = std::min(hi - shift, size);
      const double cc = count[b] - count[a];
      c += cc;
      m += moment[b] - moment[a] + static_cast<double>(shift) * cc;
      lo = b + shift;
    }
  };
  const long half = static_cast<long>(n / 2);
  double bestCost = std::numeric_limits<double>::infinity();
  long best = 0;
  for (long k = 0; k < static_cast<long>(n); ++k) {
    if (bins_[k] == 0) continue;
    double cl, ml, cr, mr;
    range(k - half + 1, k + 1, cl, ml);     // (k - half, k]
    range(k + 1, k + half + 1, cr, mr);     // (k, k + half]
    const double cost = static_cast<double>(k) * cl - ml + mr - static_cast<double>(k) * cr;
    if (cost < bestCost) {
      bestCost = cost;
      best = k;
    }
  }
  return wrapDeg((static_cast<double>(best) + 0.5) * kAngleResolutionDeg - 180.0);
}

double headingOfDeg(const std::array<double, 4>& q) {
  return wrapDeg(-2.0 * std::atan2(q[3], q[0]) * 180.0 / kPi);
}

// ReferenceComparator --------------------------------------------------------

struct ReferenceComparator::Record {
  double t;
  float difference[4];     // reference * conjugate(rotation vector), w x y z; w NaN when not usable
  float referenceAzimuth;  // NaN when the reference attitude is missing
  float libraryAzimuth;
  float pitch, roll;       // reference
  float referenceRate[3];  // derived from the reference attitude; NaN when not derived
  uint8_t calibrated;      // accuracy 3
  uint8_t azimuthUsable;   // reference tilted at most kAzimuthMaxTiltDeg
};

// A sample whose derived rate waits for the next sample's attitude.
struct ReferenceComparator::Pending {
  Record record{};
  std::array<float, 3> rate{};
  bool calibrated = false;
  bool valid = false;         // there is a pending sample
  bool attitudeUsable = false;
  double previousT = 0.0;     // the sample before it
  Quat previousAttitude{};
  bool previousUsable = false;
  double t = 0.0;
  Quat attitude{};
};

struct ReferenceComparator::Selection {
  explicit Selection(bool withAttitude) {
    if (withAttitude) {
      heading = std::make_unique<CircularHistogram>();
      azimuth = std::make_unique<CircularHistogram>();
    }
  }
  std::unique_ptr<CircularHistogram> heading;  // of the differences
  std::unique_ptr<CircularHistogram> azimuth;  // reference minus library
  std::array<double, 3> gyroSumAxis{};
  double gyroSum = 0.0;
  double gyroSumReference = 0.0;
  size_t gyroCount = 0;
};

ReferenceComparator::ReferenceComparator(bool hasGyro, bool hasAttitude, bool rateFromAttitude)
    : hasGyro_(rateFromAttitude ? hasAttitude : hasGyro),
      hasAttitude_(hasAttitude),
      rateFromAttitude_(rateFromAttitude),
      pending_(std::make_unique<Pending>()),
      calibrated_(std::make_unique<Selection>(hasAttitude)),
      uncalibrated_(std::make_unique<Selection>(hasAttitude)) {}

ReferenceComparator::~ReferenceComparator() {
  if (spill_ != nullptr) std::fclose(spill_);
}

void ReferenceComparator::keep(const Record& record) {
  kept_.push_back(record);
  if (kept_.size() < kRecordsInMemory) return;
  if (spill_ == nullptr) spill_ = std::tmpfile();  // unnamed: gone with the process
  if (spill_ == nullptr) return;                   // no temporary directory: keep in memory
  if (std::fwrite(kept_.data(), sizeof(Record), kept_.size(), spill_) != kept_.size()) {
    std::fclose(spill_);
    spill_ = nullptr;
    return;
  }
  kept_.clear();
}

bool ReferenceComparator::readBack(Record& record) {
  if (readIndex_ == kept_.size()) {
    if (spill_ == nullptr) return false;
    kept_.resize(kRecordsInMemory);
    kept_.resize(std::fread(kept_.data(), sizeof(Record), kRecordsInMemory, spill_));
    readIndex_ = 0;
    if (kept_.empty()) return false;
  }
  record = kept_[readIndex_++];
  return true;
}

void ReferenceComparator::addRate(const std::array<float, 3>& rate, const double* reference, bool calibrated) {
  if (reference == nullptr || !allFinite(reference, 3)) {
    ++missingGyro_;
    return;
  }
  double error2 = 0.0, reference2 = 0.0;
  std::array<double, 3> axis2{};
  for (int k = 0; k < 3; ++k) {
    const double e = static_cast<double>(rate[k]) - reference[k];
    axis2[k] = e * e;
    error2 += e * e;
    reference2 += reference[k] * reference[k];
  }
  Selection& s = calibrated ? *calibrated_ : *uncalibrated_;
  for (int k = 0; k < 3; ++k) s.gyroSumAxis[k] += axis2[k];
  s.gyroSum += error2;
  s.gyroSumReference += reference2;
  ++s.gyroCount;
}

void ReferenceComparator::settlePending(const double* nextAttitude, double nextT) {
  Pending& p = *pending_;
  if (!p.valid) return;
  double reference[3] = {kNaN, kNaN, kNaN};
  // Central difference between the neighbours, as referenceRates.
  if (nextAttitude != nullptr && p.previousUsable && nextT - p.previousT > 0.0) {
    const std::array<double, 3> r =
        rateBetween(p.previousAttitude, {nextAttitude[0], nextAttitude[1], nextAttitude[2], nextAttitude[3]},
                    nextT - p.previousT);
    for (int k = 0; k < 3; ++k) reference[k] = r[k];
  }
  addRate(p.rate, reference, p.calibrated);
  for (int k = 0; k < 3; ++k) p.record.referenceRate[k] = static_cast<float>(reference[k]);
  keep(p.record);
  // The settled sample becomes the previous one of the next.
  p.previousT = p.t;
  p.previousAttitude = p.attitude;
  p.previousUsable = p.attitudeUsable;
  p.valid = false;
}

void ReferenceComparator::add(const RecordedSample& sample, const ReplayRow& row) {
  if (++samples_ == 1) firstT_ = sample.t;
  // "calibrated": in the compared selection.
  const bool calibrated = judgeFrom_ ? sample.t - firstT_ >= *judgeFrom_ : row.accuracy == 3;
  anyCalibrated_ = anyCalibrated_ || calibrated;
  const bool attitudeUsable = sample.hasAttitude && allFinite(sample.attitude.data(), 4);
  if (rateFromAttitude_) {
    if (hasAttitude_) settlePending(attitudeUsable ? sample.attitude.data() : nullptr, sample.t);
  } else if (hasGyro_) {
    addRate(row.vgyro, sample.hasGyro ? sample.gyro.data() : nullptr, calibrated);
  }
  if (!hasAttitude_) return;

  Record record{};
  record.t = sample.t;
  record.calibrated = calibrated ? 1 : 0;
  record.libraryAzimuth = row.orientation[0];
  record.difference[0] = static_cast<float>(kNaN);
  for (float& r : record.referenceRate) r = static_cast<float>(kNaN);
  record.referenceAzimuth = record.pitch = record.roll = static_cast<float>(kNaN);
  if (!sample.hasAttitude || !allFinite(sample.attitude.data(), 4)) {
    ++missingAttitude_;
  } else {
    const Angles angles = anglesOf(sample.attitude);
    record.referenceAzimuth = static_cast<float>(angles.azimuth);
    record.pitch = static_cast<float>(angles.pitch);
    record.roll = static_cast<float>(angles.roll);
    record.azimuthUsable = angles.tiltDeg <= kAzimuthMaxTiltDeg ? 1 : 0;
    double headingDifference = kNaN;
    if (isUsable(row.rotVec)) {
      const Quat d = multiply(sample.attitude, conjugate(fromLibraryOrder(row.rotVec)));
      for (int k = 0; k < 4; ++k) record.difference[k] = static_cast<float>(d[k]);
      headingDifference = headingOfDeg(d);
    }
    const double azimuthDifference =
        record.azimuthUsable ? wrapDeg(angles.azimuth - static_cast<double>(row.orientation[0])) : kNaN;
    Selection& s = calibrated ? *calibrated_ : *uncalibrated_;
    s.heading->add(headingDifference);
    s.azimuth->add(azimuthDifference);
  }
  if (!rateFromAttitude_) {
    keep(record);
    return;
  }
  Pending& p = *pending_;
  p.record = record;
  p.rate = row.vgyro;
  p.calibrated = calibrated;
  p.t = sample.t;
  p.attitudeUsable = attitudeUsable;
  if (attitudeUsable) p.attitude = sample.attitude;
  p.valid = true;
}

ReferenceComparison ReferenceComparator::finish(const std::function<void(const SampleErrors&)>& visit) {
  // The last sample has no successor to derive its rate from.
  if (rateFromAttitude_) settlePending(nullptr, 0.0);
  ReferenceComparison result;
  result.rateFromAttitude = rateFromAttitude_;
  result.calibratedOnly = anyCalibrated_;
  result.judgedFromS = judgeFrom_;
  result.missingGyro = missingGyro_;
  result.missingAttitude = missingAttitude_;
  // Without a single calibrated sample, the uncalibrated ones are all of them.
  const Selection& selection = anyCalibrated_ ? *calibrated_ : *uncalibrated_;
  if (hasGyro_ && samples_ > 0) {
    GyroComparison g;
    g.count = selection.gyroCount;
    const double n = static_cast<double>(std::max<size_t>(g.count, 1));
    for (int k = 0; k < 3; ++k) g.rmsAxis[k] = std::sqrt(selection.gyroSumAxis[k] / n);
    g.rms = std::sqrt(selection.gyroSum / n);
    g.referenceRms = std::sqrt(selection.gyroSumReference / n);
    result.gyro = g;
  }
  // Without a reference attitude nothing was kept and there is nothing to visit.
  if (!hasAttitude_ || samples_ == 0) return result;

  AngleComparison rotationVector, azimuth;
  rotationVector.alignmentDeg = selection.heading->median();
  azimuth.alignmentDeg = selection.azimuth->median();
  // The histograms are no longer needed: give their memory back.
  calibrated_.reset();
  uncalibrated_.reset();

  if (spill_ != nullptr) {
    if (!kept_.empty() && std::fwrite(kept_.data(), sizeof(Record), kept_.size(), spill_) != kept_.size()) {
      // The spill cannot be completed: what is in memory is all there is.
      std::fclose(spill_);
      spill_ = nullptr;
    } else {
      kept_.clear();
      std::rewind(spill_);
    }
  }
  readIndex_ = 0;

  ErrorStatistics rotationStats(180.0, kAngleResolutionDeg), azimuthStats(180.0, kAngleResolutionDeg);
  ErrorStatistics headingStats(180.0, kAngleResolutionDeg), tiltStats(180.0, kAngleResolutionDeg);
  const Quat undo = conjugate(headingRotation(rotationVector.alignmentDeg));
  Record record;
  SampleErrors errors;
  for (size_t index = 0; readBack(record); ++index) {
    errors = SampleErrors{};
    errors.index = index;
    errors.t = record.t;
    errors.compared = !anyCalibrated_ || record.calibrated;
    if (std::isfinite(record.difference[0])) {
      const Quat d = {record.difference[0], record.difference[1], record.difference[2], record.difference[3]};
      // d turns the estimate's world onto the reference's: its twist about up
      // is the reference's heading minus the estimate's.
      errors.headingAnyDeg = wrapDeg(rotationVector.alignmentDeg - headingOfDeg(d));
    }
    if (errors.compared && std::isfinite(record.difference[0])) {
      const Quat d = {record.difference[0], record.difference[1], record.difference[2], record.difference[3]};
      errors.rotationVectorDeg = rotationAngleDeg(multiply(d, undo));
      rotationStats.add(errors.rotationVectorDeg);
      // d turns the estimate's world onto the reference's: its twist about up
      // is the heading error, the angle it tips up by the tilt error.
      errors.headingDeg = errors.headingAnyDeg;
      headingStats.add(errors.headingDeg);
      errors.tiltDeg = 2.0 * std::atan2(std::sqrt(d[1] * d[1] + d[2] * d[2]), std::sqrt(d[0] * d[0] + d[3] * d[3])) *
                       180.0 / kPi;
      tiltStats.add(errors.tiltDeg);
    }
    if (std::isfinite(record.referenceAzimuth)) {
      if (errors.compared && record.azimuthUsable) {
        errors.azimuthDeg = wrapDeg(static_cast<double>(record.libraryAzimuth) + azimuth.alignmentDeg -
                                    static_cast<double>(record.referenceAzimuth));
        azimuthStats.add(errors.azimuthDeg);
      }
      double magnetic = static_cast<double>(record.referenceAzimuth) - azimuth.alignmentDeg;
      magnetic -= 360.0 * std::floor(magnetic / 360.0);
      errors.referenceAngles = {magnetic, record.pitch, record.roll};
    }
    for (int k = 0; k < 3; ++k) errors.referenceRate[k] = record.referenceRate[k];
    if (visit) visit(errors);
  }
  if (spill_ != nullptr) {
    std::fclose(spill_);
    spill_ = nullptr;
  }
  kept_.clear();
  kept_.shrink_to_fit();

  AngleComparison heading, tilt;
  heading.alignmentDeg = rotationVector.alignmentDeg;
  for (auto [stats, out] : {std::pair{&rotationStats, &rotationVector}, std::pair{&azimuthStats, &azimuth},
                            std::pair{&headingStats, &heading}, std::pair{&tiltStats, &tilt}}) {
    out->count = stats->count();
    out->rmsDeg = stats->rms();
    out->maxDeg = stats->max();
    out->medianDeg = stats->median();
  }
  result.rotationVector = rotationVector;
  result.azimuth = azimuth;
  result.heading = heading;
  result.tilt = tilt;
  return result;
}

ReferenceComparison compareWithReference(const Recording& recording, const std::vector<ReplayRow>& rows,
                                         std::vector<SampleErrors>* perSample) {
  ReferenceComparator comparator(recording.hasGyro, recording.hasAttitude);
  for (size_t i = 0; i < rows.size() && i < recording.samples.size(); ++i) comparator.add(recording.samples[i], rows[i]);
  if (perSample == nullptr) return comparator.finish();
  perSample->clear();
  return comparator.finish([perSample](const SampleErrors& e) { perSample->push_back(e); });
}

double bestHeadingAlignment(const std::vector<std::array<double, 4>>& reference,
                            const std::vector<std::array<double, 4>>& estimate) {
  CircularHistogram headings;
  for (size_t i = 0; i < reference.size(); ++i) headings.add(headingOfDeg(multiply(reference[i], conjugate(estimate[i]))));
  return headings.median();
}

double bestAngleOffset(const std::vector<double>& reference, const std::vector<double>& estimate) {
  CircularHistogram differences;
  for (size_t i = 0; i < reference.size(); ++i) differences.add(wrapDeg(reference[i] - estimate[i]));
  return differences.median();
}


std::array<double, 4> northFromField(const std::array<double, 3>& worldField) {
  // Counter-clockwise turn that takes the field's horizontal direction onto +y.
  const double angle = std::atan2(worldField[0], worldField[1]);
  return {std::cos(0.5 * angle), 0.0, 0.0, std::sin(0.5 * angle)};
}

double headingErrorDeg(const std::array<double, 4>& reference, const std::array<double, 4>& estimate) {
  return headingOfDeg(multiply(reference, conjugate(estimate)));
}

double tiltErrorDeg(const std::array<double, 4>& reference, const std::array<double, 4>& estimate) {
  const Vec3 a = rotate(conjugate(reference), {0.0, 0.0, 1.0});
  const Vec3 b = rotate(conjugate(estimate), {0.0, 0.0, 1.0});
  const Vec3 c{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
  const double s = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
  return std::atan2(s, a[0] * b[0] + a[1] * b[1] + a[2] * b[2]) * 180.0 / 3.14159265358979323846;
}

double attitudeErrorDeg(const std::array<double, 4>& reference, const std::array<double, 4>& estimate,
                        double alignmentDeg) {
  return rotationAngleDeg(multiply(conjugate(reference), multiply(headingRotation(alignmentDeg), estimate)));
}

std::vector<std::array<double, 3>> referenceRates(const std::vector<double>& t,
                                                  const std::vector<std::array<double, 4>>& reference) {
  const size_t n = reference.size();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::vector<std::array<double, 3>> rates(n, {nan, nan, nan});
  auto usable = [&](size_t i) {
    const Quat& q = reference[i];
    return std::isfinite(q[0] + q[1] + q[2] + q[3]);
  };
  for (size_t i = 1; i + 1 < n; ++i) {
    if (!usable(i - 1) || !usable(i + 1)) continue;
    const double dt = t[i + 1] - t[i - 1];
    if (!(dt > 0.0)) continue;
    rates[i] = rateBetween(reference[i - 1], reference[i + 1], dt);
  }
  return rates;
}

}  // namespace quelta::replay
