// SPDX-License-Identifier: Apache-2.0
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


// The attitude gravity and the field give (rows east, north, up in device
// coordinates); false when they are parallel or missing.
bool frameOf(const Vec3& gravity, const Vec3& field, Vec3 rows[3]) {
  const double ng = norm(gravity);
  if (!(ng > 0.0)) return false;
  const Vec3 up = (1.0 / ng) * gravity;
  Vec3 east = cross(field, up);
  const double ne = norm(east);
  if (!(ne > 1e-3 * norm(field))) return false;
  east = (1.0 / ne) * east;
  rows[0] = east;
  rows[1] = cross(up, east);
  rows[2] = up;
  return true;
}

// The angle of the rotation between two such attitudes, degrees.
double rotationDeg(const Vec3 a[3], const Vec3 b[3]) {
  const double trace = dot(a[0], b[0]) + dot(a[1], b[1]) + dot(a[2], b[2]);
  return std::acos(std::fmax(-1.0, std::fmin(1.0, 0.5 * (trace - 1.0)))) / kDeg;
}

}  // namespace

// The turn the other sensors show since the repeat began: the rotation
// between the attitudes gravity and the field gave then and give now (a
// turn about any axis), or gravity's change of direction alone.
double SensorHealth::turnSeenDeg() const {
  double seen = haveGravity_ ? angleDeg(repeatGravity_, gravity_) : 0.0;
  Vec3 before[3], now[3];
  if (repeatFieldKnown_ && haveCalibratedField_ && frameOf(repeatGravity_, repeatField_, before) &&
      frameOf(gravity_, field_, now))
    seen = std::fmax(seen, rotationDeg(before, now));
  return seen;
}

bool SensorHealth::unmoved(const Vec3& acc, const Vec3* calibratedField, double toleranceDeg) const {
  if (!haveGravity_ || angleDeg(lastAcc_, acc) > toleranceDeg) return false;
  if (calibratedField == nullptr || !haveCalibratedField_) return calibratedField == nullptr;
  return angleDeg(lastCalibrated_, *calibratedField) <= toleranceDeg;
}

void SensorHealth::observe(double dt, const Vec3& acc, const Vec3* rawField, const Vec3* calibratedField,
                           const Vec3* gyro) {
  const double k = dt / (dt + settings_.gravityTauS);
  if (!haveGravity_) {
    gravity_ = acc;
    haveGravity_ = true;
  } else {
    gravity_ = gravity_ + k * (acc - gravity_);
  }
  lastAcc_ = acc;
  if (calibratedField != nullptr) {
    field_ = haveCalibratedField_ ? field_ + k * (*calibratedField - field_) : *calibratedField;
    lastCalibrated_ = *calibratedField;
    haveCalibratedField_ = true;
  }
  if (rawField != nullptr) {
    watchField(dt, *rawField);
    lastField_ = *rawField;
    haveField_ = true;
  } else {
    // No field in this set: the field's health is unchanged, its clean time runs.
    if (pinnedAxes_ == 0) fieldHealthyTime_ += dt;
  }
  if (gyro != nullptr) {
    watchGyroscope(dt, *gyro);
    if (!gyroStuck_) compareBlocks(dt, *gyro, acc, fieldTrusted_ ? calibratedField : nullptr);
  }
}

void SensorHealth::watchGyroscope(double dt, const Vec3& gyro) {
  if (!haveGyro_ || !same(gyro, lastGyro_)) {
    // A new reading: whatever was wrong has ended.
    haveGyro_ = true;
    lastGyro_ = gyro;
    repeatTime_ = 0.0;
    repeatDoubtDeg_ = 0.0;
    repeatLagRad_ = norm(gyroLp_) * settings_.gravityTauS;
    repeatGravity_ = gravity_;
    repeatField_ = field_;
    repeatFieldKnown_ = haveCalibratedField_;
    gyroStuck_ = false;
    return;
  }
  repeatTime_ += dt;
  if (gyroStuck_) return;
  // What the repeated reading itself would have turned the device by, and
  // what gravity and the field show (a rotation angle: at most 180 degrees,
  // beyond which the two cannot be told apart).
  // (The low-passed gravity and field still settle, as they do, by what
  // they lagged behind the turn before the repeat began.)
  const double settledDeg = repeatLagRad_ * (1.0 - std::exp(-repeatTime_ / settings_.gravityTauS)) / kDeg;
  const double explainedDeg = norm(gyro) * repeatTime_ / kDeg;
  if (explainedDeg > 180.0 - settings_.turnEvidenceDeg) return;
  repeatDoubtDeg_ = std::fmax(0.0, std::fabs(turnSeenDeg() - explainedDeg) - settledDeg);
  if (repeatTime_ >= settings_.repeatTimeS && repeatDoubtDeg_ > settings_.turnEvidenceDeg) gyroStuck_ = true;
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

void SensorHealth::compareBlocks(double dt, const Vec3& gyro, const Vec3& acc, const Vec3* calibratedField) {
  gyroLp_ = gyroLp_ + dt / (dt + settings_.gravityTauS) * (gyro - gyroLp_);
  if (!blockStarted_ || !(dt > 0.0)) {
    blockStarted_ = true;
    blockTime_ = 0.0;
    blockFrame_ = Quat{};
    accFirst_ = accLast_ = fieldFirst_ = fieldLast_ = Vec3{};
    accFirstS_ = accLastS_ = fieldFirstS_ = fieldLastS_ = 0.0;
    blockFieldValid_ = true;
    haveFieldMid_ = false;
    doubtDeg_ = badBlocksDeg_;
    return;
  }
  blockFrame_ = normalised(blockFrame_ * fromRotationVector(dt * gyro));
  blockTime_ += dt;
  const Vec3 a = rotate(blockFrame_, acc);
  const Vec3* f = calibratedField;
  // Between the windows the two are followed low-passed over half a window,
  // so that single readings do not count as a disagreement.
  const double kMid = dt / (dt + 0.5 * settings_.windowS);
  accMid_ = blockTime_ <= dt ? a : accMid_ + kMid * (a - accMid_);
  if (f != nullptr) {
    const Vec3 fb = rotate(blockFrame_, *f);
    fieldMid_ = haveFieldMid_ ? fieldMid_ + kMid * (fb - fieldMid_) : fb;
    haveFieldMid_ = true;
  }
  const bool first = blockTime_ <= settings_.windowS;
  const bool last = blockTime_ > settings_.blockS - settings_.windowS;
  if (first) {
    accFirst_ = accFirst_ + dt * a;
    accFirstS_ += dt;
    if (f != nullptr) {
      fieldFirst_ = fieldFirst_ + dt * rotate(blockFrame_, *f);
      fieldFirstS_ += dt;
    }
  }
  if (last) {
    accLast_ = accLast_ + dt * a;
    accLastS_ += dt;
    if (f != nullptr) {
      fieldLast_ = fieldLast_ + dt * rotate(blockFrame_, *f);
      fieldLastS_ += dt;
    }
  }
  // How far the two ends disagree: gravity's direction, and the field's
  // where it was there at both ends, calibrated alike and of one strength
  // (a disturbance the device passes changes the strength as well).
  const auto mismatchDeg = [&]() {
    double m = angleDeg(accFirst_, last ? accLast_ : accMid_);
    const double covered = 0.5;  // share of a window with a field that makes its mean count
    if (blockFieldValid_ && fieldFirstS_ > covered * settings_.windowS &&
        (last ? fieldLastS_ > covered * settings_.windowS : haveFieldMid_)) {
      const Vec3 fa = (1.0 / fieldFirstS_) * fieldFirst_;
      const Vec3 fb = last ? (1.0 / fieldLastS_) * fieldLast_ : fieldMid_;
      const double strength = norm(fa) > 0.0 ? norm(fb) / norm(fa) : 0.0;
      if (std::fabs(strength - 1.0) < settings_.fieldSteady) m = std::fmax(m, angleDeg(fa, fb));
    }
    return m;
  };
  // Until the gyroscope is left out, what it may have turned the heading
  // wrong by: the disagreement beyond what noise and a bias within reach
  // (which the filter learns) explain, this block's and the bad ones' before.
  if (!first) {
    const double reach = settings_.maxBias * (blockTime_ - 0.5 * settings_.windowS) / kDeg + settings_.attitudeNoiseDeg;
    doubtDeg_ = badBlocksDeg_ + std::fmax(0.0, mismatchDeg() - reach);
  }
  if (blockTime_ < settings_.blockS) return;
  blockStarted_ = false;
  if (!(accFirstS_ > 0.0) || !(accLastS_ > 0.0)) return;
  const double g0 = norm(accFirst_) / accFirstS_, g1 = norm(accLast_) / accLastS_;
  if (std::fabs(g0 - 1.0) > settings_.quietAccG || std::fabs(g1 - 1.0) > settings_.quietAccG) return;  // no verdict
  const double mismatch = mismatchDeg();
  // Between the windows' middles a bias within reach turns them apart by
  // at most this much.
  const double apart = blockTime_ - settings_.windowS;
  const double explained = settings_.maxBias * apart / kDeg + settings_.attitudeNoiseDeg;
  if (mismatch > explained) {
    ++badBlocks_;
    goodBlocks_ = 0;
    badBlocksDeg_ += mismatch;
  } else {
    ++goodBlocks_;
    badBlocks_ = 0;
    badBlocksDeg_ = 0.0;
  }
  if (!biasUnlearnable_ && badBlocks_ >= settings_.badBlocksToDrop) biasUnlearnable_ = true;
  if (biasUnlearnable_ && goodBlocks_ >= settings_.goodBlocksToTakeBack) {
    biasUnlearnable_ = false;
    takenBack_ = true;
  }
}

}  // namespace quelta::compass
