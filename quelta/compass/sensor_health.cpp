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

// q's rotation matrix (device now to the block's start).
void matrixOf(const Quat& q, double m[3][3]) {
  const double xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
  const double xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
  const double wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
  m[0][0] = 1.0 - 2.0 * (yy + zz);
  m[0][1] = 2.0 * (xy - wz);
  m[0][2] = 2.0 * (xz + wy);
  m[1][0] = 2.0 * (xy + wz);
  m[1][1] = 1.0 - 2.0 * (xx + zz);
  m[1][2] = 2.0 * (yz - wx);
  m[2][0] = 2.0 * (xz - wy);
  m[2][1] = 2.0 * (yz + wx);
  m[2][2] = 1.0 - 2.0 * (xx + yy);
}

// Solves the 3x3 system a x = b; false when a is singular.
bool solve3(const double a[3][3], const Vec3& b, Vec3& x) {
  const double c00 = a[1][1] * a[2][2] - a[1][2] * a[2][1];
  const double c01 = a[1][2] * a[2][0] - a[1][0] * a[2][2];
  const double c02 = a[1][0] * a[2][1] - a[1][1] * a[2][0];
  const double det = a[0][0] * c00 + a[0][1] * c01 + a[0][2] * c02;
  if (!(std::fabs(det) > 1e-300)) return false;
  const double i01 = (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det;
  const double i11 = (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det;
  const double i21 = (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det;
  const double i02 = (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det;
  const double i12 = (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det;
  const double i22 = (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det;
  x = Vec3{c00 / det * b.x + i01 * b.y + i02 * b.z, c01 / det * b.x + i11 * b.y + i12 * b.z,
           c02 / det * b.x + i21 * b.y + i22 * b.z};
  return true;
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
  watchJump(dt, acc, calibratedField, gyro);
  if (!haveGravity_) {
    gravity_ = acc;
    haveGravity_ = true;
  } else {
    gravity_ = gravity_ + k * (acc - gravity_);
  }
  lastAcc_ = acc;
  sinceField_ = calibratedField != nullptr ? 0.0 : sinceField_ + dt;
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

// The field turned, from one sample set to the next, by far more than the
// gyroscope says, keeping its strength and its angle to gravity (the field
// did not change: the device turned, and no hand turns it that fast):
// samples were lost without a gap in the times, or the stream was spliced.
// The attitude is not where the gyroscope carried it.
void SensorHealth::watchJump(double dt, const Vec3& acc, const Vec3* calibratedField, const Vec3* gyro) {
  if (!haveGravity_ || calibratedField == nullptr || !fieldTrusted_ || !haveCalibratedField_ || gyro == nullptr ||
      !(dt > 0.0) || dt > settings_.jumpWithinS || sinceField_ > settings_.jumpWithinS)
    return;
  const auto calm = [&](const Vec3& a) { return std::fabs(norm(a) - 1.0) < settings_.jumpCalmG; };
  const double fieldBefore = norm(lastCalibrated_), fieldNow = norm(*calibratedField);
  if (!(fieldBefore > 0.0) || std::fabs(fieldNow / fieldBefore - 1.0) > settings_.fieldSteady) return;
  // Turned less than jumpDeg as read: less than allowed once carried, too.
  if (dot(lastCalibrated_, *calibratedField) > std::cos(settings_.jumpDeg * kDeg) * fieldBefore * fieldNow) return;
  // Directions fixed on earth turn the other way in device coordinates;
  // the gyroscope's scale errors and the readings' timing leave a share of
  // the turn unexplained.
  const Quat back = conj(fromRotationVector(dt * (*gyro)));
  const double allowed = settings_.jumpDeg + settings_.jumpTurnShare * dt * norm(*gyro) / kDeg;
  const double fieldJump = angleDeg(rotate(back, lastCalibrated_), *calibratedField);
  if (!(fieldJump > allowed)) return;
  // Its angle to gravity kept: as the two readings show it (unless a shock
  // moves the accelerometer on its own), or, for a jump about up alone, as
  // the low-passed gravity shows it (steadier while walking).
  const bool rawKept = calm(acc) && calm(lastAcc_) &&
                       std::fabs(angleDeg(acc, *calibratedField) - angleDeg(lastAcc_, lastCalibrated_)) < settings_.jumpDipDeg;
  const bool meanKept =
      std::fabs(angleDeg(gravity_, *calibratedField) - angleDeg(gravity_, lastCalibrated_)) < settings_.jumpDipDeg;
  if (rawKept || meanKept) jumped_ = true;
}

void SensorHealth::watchGyroscope(double dt, const Vec3& gyro) {
  if (!haveGyro_ || !same(gyro, lastGyro_)) {
    // A new reading: whatever was wrong has ended.
    haveGyro_ = true;
    lastGyro_ = gyro;
    repeatTime_ = 0.0;
    repeatDoubtDeg_ = 0.0;
    departedDoubtDeg_ = 0.0;
    repeatLagRad_ = norm(gyroLp_) * settings_.gravityTauS;
    repeatRateBefore_ = gyroLp_;
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
  // A reading repeated bit for bit may be a stuck one: until it changes, the
  // turn it has integrated since is in doubt (the other sensors, low-passed,
  // confirm a turn only with some lag).
  if (explainedDeg > settings_.turnEvidenceDeg) repeatDoubtDeg_ = std::fmax(repeatDoubtDeg_, explainedDeg);
  // Nor does a device stop (or start) turning at once: until gravity and
  // the field, low-passed, can tell, a repeated reading that departs from
  // the recent rate leaves in doubt the turn that rate would have made.
  departedDoubtDeg_ = 0.0;
  if (repeatTime_ < 2.0 * settings_.gravityTauS) {
    const double departedDeg = norm(repeatRateBefore_ - gyro) * repeatTime_ / kDeg;
    if (departedDeg > settings_.turnEvidenceDeg) departedDoubtDeg_ = departedDeg;
  }
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
    for (auto& row : kernel_)
      for (double& v : row) v = 0.0;
    blockTurn_ = 0.0;
    doubtDeg_ = badBlocksDeg_;
    return;
  }
  // The weight of this instant's turn in the difference of the windows'
  // means: rising over the first window, one between, falling over the last.
  const double mid = blockTime_ + 0.5 * dt;
  const double w = std::fmin(1.0, std::fmin(mid, settings_.blockS - mid) / settings_.windowS);
  if (w > 0.0) {
    double r[3][3];
    matrixOf(blockFrame_, r);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) kernel_[i][j] += w * dt * r[i][j];
  }
  blockFrame_ = normalised(blockFrame_ * fromRotationVector(dt * gyro));
  blockTime_ += dt;
  blockTurn_ += dt * norm(gyro);
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
  // What this block says of the bias: in the frame a gyroscope reading the
  // rate plus b carries, an earth-fixed direction turns by kernel_ * b
  // between the windows (u first, v last), of which the part across u
  // shows: u x v = (I - u u') kernel_ b.
  // Its noise: a window's mean under accelerations, and the gyroscope's own
  // scale and integration errors on whatever the block turned through.
  const double turnError = settings_.turnScaleError * blockTurn_;
  const double sigma = std::hypot(settings_.blockNoiseDeg * kDeg, turnError);
  const auto learn = [&](const Vec3& atFirst, const Vec3& atLast) {
    const Vec3 u = (1.0 / norm(atFirst)) * atFirst, v = (1.0 / norm(atLast)) * atLast;
    const Vec3 axis = cross(u, v);
    const double sinAngle = norm(axis), angle = std::atan2(sinAngle, dot(u, v));
    const Vec3 y = sinAngle > 1e-12 ? (angle / sinAngle) * axis : Vec3{};
    const double uu[3] = {u.x, u.y, u.z}, yy[3] = {y.x, y.y, y.z};
    double h[3][3];  // (I - u u') kernel_
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        h[i][j] = kernel_[i][j] - uu[i] * (uu[0] * kernel_[0][j] + uu[1] * kernel_[1][j] + uu[2] * kernel_[2][j]);
    double z[3];
    for (int i = 0; i < 3; ++i) {
      z[i] = 0.0;
      for (int k = 0; k < 3; ++k) z[i] += h[k][i] * yy[k] / (sigma * sigma);
      for (int j = 0; j < 3; ++j) {
        double hh = 0.0;
        for (int k = 0; k < 3; ++k) hh += h[k][i] * h[k][j];
        info_[i][j] += hh / (sigma * sigma);
      }
    }
    infoBias_ = infoBias_ + Vec3{z[0], z[1], z[2]};
  };
  // Older blocks count less: the bias (or the fault) may have changed.
  const double fade = std::exp(-blockTime_ / settings_.biasMemoryS);
  for (auto& row : info_)
    for (double& v : row) v *= fade;
  infoBias_ = fade * infoBias_;
  learn(accFirst_, accLast_);
  if (blockFieldValid_ && fieldFirstS_ > 0.5 * settings_.windowS && fieldLastS_ > 0.5 * settings_.windowS) {
    const double before = norm(fieldFirst_) / fieldFirstS_, after = norm(fieldLast_) / fieldLastS_;
    if (before > 0.0 && std::fabs(after / before - 1.0) < settings_.fieldSteady) learn(fieldFirst_, fieldLast_);
  }
  // The estimate, with a prior as wide as any gyroscope's bias (1 rad/s).
  double total[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) total[i][j] = info_[i][j] + (i == j ? 1.0 : 0.0);
  Vec3 b, aInvU;
  if (!solve3(total, infoBias_, b)) return;
  const double nb = norm(b);
  const Vec3 unit = nb > 0.0 ? (1.0 / nb) * b : Vec3{1.0, 0.0, 0.0};
  if (!solve3(total, unit, aInvU)) return;
  biasSeen_ = b;
  biasSeenSigma_ = std::sqrt(std::fmax(0.0, dot(unit, aInvU)));
  // Left out after blocks in a row that disagree by more than a bias
  // within reach and noise explain, or once the estimate is surely beyond
  // reach; taken back only once the estimate is surely within it (blocks
  // that happen to agree prove little: gravity cannot see a bias about
  // itself).
  const double mismatch = mismatchDeg();
  const double apart = blockTime_ - settings_.windowS;
  const double explained = settings_.maxBias * apart / kDeg + settings_.attitudeNoiseDeg;
  badBlocks_ = mismatch > explained ? badBlocks_ + 1 : 0;
  const double margin = settings_.verdictSigmas * biasSeenSigma_;
  if (badBlocks_ > 0 || nb - margin > settings_.maxBias) badBlocksDeg_ += mismatch;
  if (badBlocks_ >= settings_.badBlocksToDrop || nb - margin > settings_.maxBias) biasUnlearnable_ = true;
  if (badBlocks_ == 0 && nb + margin < settings_.maxBias) {
    badBlocksDeg_ = 0.0;
    if (biasUnlearnable_) {
      biasUnlearnable_ = false;
      takenBack_ = true;
    }
  }
}

}  // namespace quelta::compass
