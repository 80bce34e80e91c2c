// SPDX-License-Identifier: Apache-2.0
#include "tools/soak/motion.h"

#include <cmath>

namespace quelta::soak {

namespace {
constexpr double kMaxRate = 3.0;  // rad/s
}  // namespace

double Motion::rate() const {
  return moving_ ? std::sqrt(rate_.x * rate_.x + rate_.y * rate_.y + rate_.z * rate_.z) : 0.0;
}

void Motion::startPhase() {
  moving_ = random_.uniform() < 0.75;
  stillFor_ = 0;
  phaseLeft_ = static_cast<int64_t>(
      (moving_ ? random_.uniform(2.0, 20.0) : random_.uniform(2.0, 10.0)) / dt_);
  rate_ = {random_.uniform(-1.5, 1.5), random_.uniform(-1.5, 1.5), random_.uniform(-1.5, 1.5)};
}

void Motion::step() {
  if (--phaseLeft_ <= 0) startPhase();
  ++stillFor_;
  if (moving_) {
    // The turning rate wanders, capped.
    rate_.x += random_.uniform(-0.2, 0.2);
    rate_.y += random_.uniform(-0.2, 0.2);
    rate_.z += random_.uniform(-0.2, 0.2);
    const double n = rate();
    if (n > kMaxRate) {
      rate_.x *= kMaxRate / n;
      rate_.y *= kMaxRate / n;
      rate_.z *= kMaxRate / n;
    }
    if (n > 1e-9) {
      attitude_ = sim::quatMultiply(attitude_, sim::quatFromAxisAngle(rate_, rate() * dt_));
    }
    linear_ = {random_.uniform(-0.05, 0.05), random_.uniform(-0.05, 0.05),
               random_.uniform(-0.05, 0.05)};
  } else {
    linear_ = {};
  }
  // Keep the attitude a unit quaternion over millions of steps.
  const sim::Quat& q = attitude_;
  const double n = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
  attitude_ = {q.w / n, q.x / n, q.y / n, q.z / n};
}

}  // namespace quelta::soak
