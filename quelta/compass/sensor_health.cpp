#include "quelta/compass/sensor_health.h"

#include <cstring>

namespace quelta::compass {

namespace {

// Exactly the same bits: a sensor repeating itself, not two close readings.
bool same(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
bool same(const Vec3& a, const Vec3& b) { return same(a.x, b.x) && same(a.y, b.y) && same(a.z, b.z); }

double axis(const Vec3& v, int i) { return i == 0 ? v.x : (i == 1 ? v.y : v.z); }

double angleDeg(const Vec3& a, const Vec3& b) {
  const double na = norm(a), nb = norm(b);
  if (!(na > 0.0) || !(nb > 0.0)) return 0.0;
  return std::atan2(norm(cross(a, b)), dot(a, b)) / kDeg;
}

double largestAxis(const Vec3& v) { return std::fmax(std::fabs(v.x), std::fmax(std::fabs(v.y), std::fabs(v.z))); }

}  // namespace

// The least turn the other sensors prove since gravity and the raw field
// were at these values: gravity's change of direction, and the raw field's
// change (the hard iron cancels; a field of at most the earth's strongest
// moves at most that far per radian).
double SensorHealth::turnSeenDeg(const Vec3& gravityRef, const Vec3* fieldRef) const {
  double seen = haveGravity_ ? angleDeg(gravityRef, gravity_) : 0.0;
  if (fieldRef != nullptr && haveField_)
    seen = std::fmax(seen, norm(lastField_ - *fieldRef) / settings_.earthFieldMaxGauss / kDeg);
  return seen;
}

void SensorHealth::observe(double dt, const Vec3& acc, const Vec3* rawField, const Vec3* gyro) {
  if (!haveGravity_) {
    gravity_ = acc;
    haveGravity_ = true;
  } else {
    gravity_ = gravity_ + (dt / (dt + settings_.gravityTauS)) * (acc - gravity_);
  }
  if (rawField != nullptr) {
    watchField(dt, *rawField);
    lastField_ = *rawField;
    haveField_ = true;
  } else {
    // No field in this set: the field's health is unchanged, its clean time runs.
    if (pinnedAxes_ == 0) fieldHealthyTime_ += dt;
  }
  if (gyro != nullptr) watchGyroscope(dt, *gyro);
}

void SensorHealth::watchGyroscope(double dt, const Vec3& gyro) {
  if (!haveGyro_ || !same(gyro, lastGyro_)) {
    // A new reading: whatever was wrong has ended.
    haveGyro_ = true;
    lastGyro_ = gyro;
    repeatTime_ = 0.0;
    repeatGravity_ = gravity_;
    repeatField_ = lastField_;
    repeatFieldKnown_ = haveField_;
    gyroStuck_ = false;
    return;
  }
  repeatTime_ += dt;
  if (gyroStuck_ || repeatTime_ < settings_.repeatTimeS) return;
  // What the repeated reading itself would have turned the device by.
  const double explainedDeg = norm(gyro) * repeatTime_ / kDeg;
  const double seen = turnSeenDeg(repeatGravity_, repeatFieldKnown_ ? &repeatField_ : nullptr);
  if (seen > explainedDeg + settings_.turnEvidenceDeg) gyroStuck_ = true;
}

void SensorHealth::watchField(double dt, const Vec3& raw) {
  int pinned = 0;
  for (int i = 0; i < 3; ++i) {
    const bool repeat = haveField_ && same(std::fabs(axis(raw, i)), std::fabs(axis(lastField_, i)));
    if (!repeat) {
      pinTime_[i] = 0.0;
      continue;
    }
    if (pinTime_[i] == 0.0) {
      // The first repeat: remember where the device was.
      pinField_[i] = lastField_;
      pinGravity_[i] = gravity_;
      pinTurn_[i] = Vec3{};
    }
    pinTime_[i] += dt;
    if (gyroUsable() && haveGyro_) pinTurn_[i] = pinTurn_[i] + dt * lastGyro_;
    if ((pinnedAxes_ & (1 << i)) != 0) {
      pinned |= 1 << i;  // stays pinned until the axis moves
      continue;
    }
    if (pinTime_[i] < settings_.pinnedTimeS) continue;
    // Turning: another axis moves, or the gyroscope or gravity turns.
    double otherMoved = 0.0;
    for (int j = 0; j < 3; ++j)
      if (j != i) otherMoved = std::fmax(otherMoved, std::fabs(axis(raw, j) - axis(pinField_[i], j)));
    const bool turning = otherMoved > settings_.pinnedSpreadGauss ||
                         norm(pinTurn_[i]) / kDeg > settings_.turnEvidenceDeg ||
                         (haveGravity_ && angleDeg(pinGravity_[i], gravity_) > settings_.turnEvidenceDeg);
    if (turning) pinned |= 1 << i;
  }
  pinnedAxes_ = pinned;
  fieldHealthyTime_ = pinned != 0 ? 0.0 : fieldHealthyTime_ + dt;
}

bool SensorHealth::afterFilter(double dt, const Vec3& filterBias, const Vec3& derivedRate, const Vec3* gyro) {
  if (gyro == nullptr || gyroStuck_) return false;
  if (!biasUnlearnable_) {
    biasAtLimit_ = largestAxis(filterBias) >= settings_.biasLimit ? biasAtLimit_ + dt : 0.0;
    if (biasAtLimit_ >= settings_.biasLimitTimeS) {
      biasUnlearnable_ = true;
      excess_ = Vec3{};
      excessTime_ = 0.0;
    }
    return false;
  }
  // Left out: the rate the tracked attitude shows is the truth to learn the
  // gyroscope's bias against.
  excessTime_ += dt;
  const double k = dt / (dt + std::fmin(settings_.excessTauS, 0.1 + excessTime_));
  excess_ = excess_ + k * ((*gyro - derivedRate) - excess_);
  if (excessTime_ >= settings_.excessTauS && largestAxis(excess_) < settings_.excessPlausible) {
    biasUnlearnable_ = false;
    biasAtLimit_ = 0.0;
    return true;
  }
  return false;
}

}  // namespace quelta::compass
