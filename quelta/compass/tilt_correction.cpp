// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/tilt_correction.h"

namespace quelta::compass {

namespace {

constexpr Vec3 kUp{0.0, 0.0, 1.0};
constexpr double kLeastNormG = 0.2;  // g: below this a reading holds no direction (free fall)

}  // namespace

void TiltCorrection::start(const Vec3& acc) {
  accWorld_ = {0.0, 0.0, norm(acc)};
  rejectTime_ = 0.0;
  accelerating_ = false;
}

TiltCorrection::Pull TiltCorrection::correct(AttitudePair& attitude, const Vec3& acc, double dt, double elapsed,
                                             bool withGyro) {
  Pull pull;
  const double na = norm(acc);
  if (!(na > kLeastNormG) || !finite(acc)) {
    accelerating_ = true;
    return pull;
  }
  const bool warm = elapsed >= settings_.warmUp;
  Vec3 err;
  double tau;
  double weight = 1.0;
  if (withGyro) {
    const double meanTau = warm ? settings_.meanTau : minOf(settings_.meanTau, 0.05 + 0.5 * elapsed);
    const double kMean = dt / (dt + meanTau);
    const Vec3 accNow = rotate(attitude.readings, acc);
    Vec3 step = accNow - accWorld_;
    const double stepNorm = norm(step);
    if (stepNorm > settings_.stepLimit) step = (settings_.stepLimit / stepNorm) * step;
    accWorld_ = accWorld_ + kMean * step;
    const double nm = norm(accWorld_);
    if (!(nm > kLeastNormG)) {
      accelerating_ = true;
      return pull;
    }
    err = rotationBetween((1.0 / nm) * accWorld_, kUp);
    const double angle = norm(err);
    tau = warm ? settings_.tau : minOf(settings_.tau, 0.2 + elapsed);
    if (warm && angle > settings_.rejectAngleDeg * kDeg) {
      rejectTime_ += dt;
      if (rejectTime_ < settings_.rejectMaxTime) {
        weight = 0.0;
      } else {
        tau = 0.5;  // sustained: the carried tilt is what is wrong
      }
    } else {
      rejectTime_ = maxOf(0.0, rejectTime_ - 0.5 * dt);
    }
    // This reading's own up against the carried one (compared by cosine).
    const double upNowZ = accNow.z / na;
    accelerating_ = weight < 0.5 || (warm && upNowZ < flagCos_);
  } else {
    const double dev = (na - 1.0) / settings_.normToleranceG;
    weight = 1.0 / (1.0 + dev * dev);
    const Vec3 upWorld = rotate(attitude.readings, (1.0 / na) * acc);
    err = rotationBetween(upWorld, kUp);  // earth frame, horizontal
    const double m = norm(err) / (settings_.trackAngleDeg * kDeg);
    tau = settings_.trackTau / (1.0 + m * m);
    if (!warm) tau = minOf(tau, 0.1 + 0.5 * elapsed);
    accelerating_ = weight < 0.5;
  }
  const double k = weight * dt / (dt + tau);
  pull.applied = k * err;
  pull.weight = weight;
  const Quat turned = attitude.turn(pull.applied);
  if (withGyro) accWorld_ = rotate(turned, accWorld_);
  return pull;
}

}  // namespace quelta::compass
