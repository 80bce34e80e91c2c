// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/gyro_bias.h"

namespace quelta::compass {

GyroBias::GyroBias(const GyroBiasSettings& settings) : settings_(settings) { reset(); }

void GyroBias::reset() {
  bias_ = Vec3{};
  var_ = settings_.startSigma * settings_.startSigma;
  gyroMean_ = accMean_ = fieldMean_ = Vec3{};
  primed_ = false;
  fieldPrimed_ = false;
  stillTime_ = 0.0;
  usable_ = true;
}

bool GyroBias::observe(const Vec3& gyro, const Vec3& acc, const Vec3* field, double dt) {
  if (!primed_) {
    gyroMean_ = gyro;
    accMean_ = acc;
    primed_ = true;
  }
  const double k = dt / (dt + settings_.stillMeanTau);
  gyroMean_ = gyroMean_ + k * (gyro - gyroMean_);
  accMean_ = accMean_ + k * (acc - accMean_);
  // Still: neither sensor strays from its recent mean more than its noise,
  // whatever the mean rate (that is the bias, up to any size).
  const Vec3 dg = gyro - gyroMean_, da = acc - accMean_;
  const double rate2 = settings_.stillRate * settings_.stillRate, acc2 = settings_.stillAcc * settings_.stillAcc;
  bool still = dot(dg, dg) < rate2 && dot(da, da) < acc2;
  if (field != nullptr) {
    // The field is the witness of a slow steady turn.
    if (!fieldPrimed_) fieldMean_ = *field;
    fieldPrimed_ = true;
    fieldMean_ = fieldMean_ + k * (*field - fieldMean_);
    // Against the field where the stillness began, so that a slow turn
    // shows within the rest time.
    if (stillTime_ == 0.0) fieldAtStill_ = *field;
    const Vec3 df = *field - fieldMean_, drift = *field - fieldAtStill_;
    const double tolerance2 = settings_.stillField * settings_.stillField * dot(fieldMean_, fieldMean_);
    still = still && dot(df, df) < tolerance2 && dot(drift, drift) < tolerance2;
  } else {
    still = still && norm(gyroMean_ - bias_) < settings_.stillMaxRate;
  }
  stillTime_ = still ? stillTime_ + dt : 0.0;
  if (!resting()) return false;
  const double m = settings_.maxBias;
  if (std::fabs(gyroMean_.x) > m || std::fabs(gyroMean_.y) > m || std::fabs(gyroMean_.z) > m) {
    // A device at rest turning this fast: no bias this filter could learn.
    usable_ = false;
    return false;
  }
  usable_ = true;
  const double kRest = dt / (dt + settings_.restTau);
  bias_ = bias_ + kRest * (gyroMean_ - bias_);
  const double floor = settings_.restSigma * settings_.restSigma;
  var_ += kRest * (floor - var_);
  return true;
}

void GyroBias::age(double dt) {
  var_ += dt * settings_.walk * settings_.walk;
  const double start = settings_.startSigma * settings_.startSigma;
  if (var_ > start) var_ = start;
}

void GyroBias::learn(const Vec3& step, double horizontalVar) {
  bias_ = bias_ + step;
  var_ = horizontalVar;
  const double m = settings_.maxBias;
  // Learnt in motion, a bias that runs into the limit is no bias but a
  // gyroscope that does not measure the motion.
  if (std::fabs(bias_.x) >= m || std::fabs(bias_.y) >= m || std::fabs(bias_.z) >= m) usable_ = false;
  bias_ = {clampTo(bias_.x, -m, m), clampTo(bias_.y, -m, m), clampTo(bias_.z, -m, m)};
}

}  // namespace quelta::compass
