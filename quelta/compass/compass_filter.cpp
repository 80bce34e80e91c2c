#include "quelta/compass/compass_filter.h"

namespace quelta::compass {

namespace {

constexpr Vec3 kUp{0.0, 0.0, 1.0};

bool finite(const Vec3& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

Quat fromRows(const Vec3& e, const Vec3& n, const Vec3& u) {
  // Matrix rows e, n, u map device coordinates to east, north, up.
  const double m00 = e.x, m01 = e.y, m02 = e.z;
  const double m10 = n.x, m11 = n.y, m12 = n.z;
  const double m20 = u.x, m21 = u.y, m22 = u.z;
  const double trace = m00 + m11 + m22;
  Quat q;
  if (trace > 0.0) {
    const double s = 2.0 * std::sqrt(trace + 1.0);
    q = {0.25 * s, (m21 - m12) / s, (m02 - m20) / s, (m10 - m01) / s};
  } else if (m00 > m11 && m00 > m22) {
    const double s = 2.0 * std::sqrt(1.0 + m00 - m11 - m22);
    q = {(m21 - m12) / s, 0.25 * s, (m01 + m10) / s, (m02 + m20) / s};
  } else if (m11 > m22) {
    const double s = 2.0 * std::sqrt(1.0 + m11 - m00 - m22);
    q = {(m02 - m20) / s, (m01 + m10) / s, 0.25 * s, (m12 + m21) / s};
  } else {
    const double s = 2.0 * std::sqrt(1.0 + m22 - m00 - m11);
    q = {(m10 - m01) / s, (m02 + m20) / s, (m12 + m21) / s, 0.25 * s};
  }
  return normalised(q);
}

// Smallest rotation taking the unit vector a onto the unit vector b, as a
// rotation vector.
Vec3 rotationBetween(const Vec3& a, const Vec3& b) {
  const Vec3 axis = cross(a, b);
  const double s = norm(axis);
  const double c = dot(a, b);
  if (s < 1e-12) return Vec3{};
  return (std::atan2(s, c) / s) * axis;
}

// The level attitude (heading zero) whose up is the accelerometer's.
Quat levelFrom(const Vec3& acc) {
  const double n = norm(acc);
  const Vec3 up = (1.0 / n) * acc;
  return fromRotationVector(rotationBetween(up, kUp));
}


}  // namespace

bool attitudeFromVectors(const Vec3& acc, const Vec3& field, Quat& out) {
  const double na = norm(acc);
  if (!finite(acc) || !finite(field) || !(na > 1e-9)) return false;
  const Vec3 up = (1.0 / na) * acc;
  Vec3 east = cross(field, up);
  const double ne = norm(east);
  if (!(ne > 1e-9 * (norm(field) + 1e-30))) return false;
  east = (1.0 / ne) * east;
  const Vec3 north = cross(up, east);
  out = fromRows(east, north, up);
  return true;
}

void anglesOf(const Quat& q, double& azimuthDeg, double& pitchDeg, double& rollDeg) {
  const Vec3 x = rotate(q, {1.0, 0.0, 0.0});
  const Vec3 y = rotate(q, {0.0, 1.0, 0.0});
  const Vec3 z = rotate(q, {0.0, 0.0, 1.0});
  // Level the device (turn its screen normal onto up about a horizontal
  // axis), then read where its top edge points.
  Vec3 top = y;
  const double h = std::hypot(z.x, z.y);
  if (h > 1e-12) {
    const Vec3 u{z.y / h, -z.x / h, 0.0};
    const double c = clampTo(z.z, -1.0, 1.0);
    const double s = std::sqrt(std::fmax(0.0, 1.0 - c * c));
    const double ud = u.x * y.x + u.y * y.y;
    const Vec3 uxy{u.y * y.z, -u.x * y.z, u.x * y.y - u.y * y.x};
    top = c * y + s * uxy + (ud * (1.0 - c)) * u;
  }
  double azimuth = std::atan2(top.x, top.y) / kDeg;
  if (azimuth < 0.0) azimuth += 360.0;
  if (azimuth >= 360.0) azimuth -= 360.0;
  azimuthDeg = azimuth;
  const double pitch = -std::asin(clampTo(y.z, -1.0, 1.0)) / kDeg;
  if (z.z < 0.0 && pitch > 0.0) {
    pitchDeg = 180.0 - pitch;
  } else if (z.z < 0.0 && pitch < 0.0) {
    pitchDeg = -180.0 - pitch;
  } else {
    pitchDeg = pitch == 0.0 ? 0.0 : pitch;
  }
  if (pitchDeg == -180.0) pitchDeg = 180.0;
  rollDeg = std::asin(clampTo(x.z, -1.0, 1.0)) / kDeg;
}

CompassFilter::CompassFilter(const FilterSettings& settings) : settings_(settings) {}

void CompassFilter::reset() {
  const FilterSettings kept = settings_;
  *this = CompassFilter(kept);
}

void CompassFilter::initialise(double t, const Vec3& acc, const Vec3* field) {
  started_ = true;
  tStart_ = t;
  tLast_ = t;
  q_ = levelFrom(acc);
  if (field != nullptr) {
    Quat q;
    if (attitudeFromVectors(acc, *field, q)) {
      q_ = aboutUp(-settings_.declinationDeg * kDeg) * q;
      headingKnown_ = true;
    }
  }
  qMeas_ = q_;
  gyroLp_ = Vec3{};
  accLp_ = acc;
  accWorld_ = {0.0, 0.0, norm(acc)};
}

void CompassFilter::restBias(const Vec3& gyro, const Vec3& acc, double dt) {
  const double kLp = dt / (dt + 0.3);
  gyroLp_ = gyroLp_ + kLp * (gyro - gyroLp_);
  accLp_ = accLp_ + kLp * (acc - accLp_);
  const bool still = norm(gyro - gyroLp_) < 0.03 && norm(acc - accLp_) < 0.03 && norm(gyroLp_) < 0.2;
  stillTime_ = still ? stillTime_ + dt : 0.0;
  if (stillTime_ >= settings_.restTime) {
    const double k = dt / (dt + settings_.restBiasTau);
    bias_ = bias_ + k * (gyroLp_ - bias_);
    // At rest the mean rate is the bias to within about 2 mrad/s.
    biasVar_ += k * (0.002 * 0.002 - biasVar_);
  }
}

// Pulls the attitude towards gravity; returns the weight used (0..1) and the
// applied correction (world frame rotation vector) in applied. Also sets the
// tilt error vector used for learning the bias.
double CompassFilter::tiltCorrection(const Vec3& acc, double dt, bool withGyro, Vec3& applied) {
  applied = Vec3{};
  const double na = norm(acc);
  if (!(na > 0.2) || !finite(acc)) {
    accelerating_ = true;
    return 0.0;
  }
  const double dev = (na - 1.0) / settings_.accNormTolerance;
  double weight = 1.0 / (1.0 + dev * dev);
  const double elapsed = tLast_ - tStart_;
  const bool warm = elapsed >= settings_.warmUp;
  Vec3 err;
  double tau;
  if (withGyro) {
    // The accelerometer's mean in the earth frame: linear accelerations of
    // a device that goes nowhere average out, gravity stays.
    const double meanTau = warm ? settings_.accMeanTau : std::fmin(settings_.accMeanTau, 0.05 + 0.5 * elapsed);
    const double kMean = weight * dt / (dt + meanTau);
    // Each sample's pull on the mean is limited: a shock moves it little.
    Vec3 step = rotate(qMeas_, acc) - accWorld_;
    const double stepNorm = norm(step);
    if (stepNorm > settings_.accStepLimit) step = (settings_.accStepLimit / stepNorm) * step;
    accWorld_ = accWorld_ + kMean * step;
    const double nm = norm(accWorld_);
    if (!(nm > 0.2)) {
      accelerating_ = true;
      return 0.0;
    }
    err = rotationBetween((1.0 / nm) * accWorld_, kUp);
    const double angle = norm(err);
    weight = 1.0;
    tau = warm ? settings_.tiltTau : std::fmin(settings_.tiltTau, 0.2 + elapsed);
    if (warm && angle > settings_.accRejectAngleDeg * kDeg) {
      rejectTime_ += dt;
      if (rejectTime_ < settings_.accRejectMaxTime) {
        weight = 0.0;
      } else {
        tau = 0.5;  // sustained: the integrated tilt is what is wrong
      }
    } else {
      rejectTime_ = std::fmax(0.0, rejectTime_ - 0.5 * dt);
    }
    const Vec3 upNow = rotate(qMeas_, (1.0 / na) * acc);
    const double angleNow = std::atan2(std::hypot(upNow.x, upNow.y), upNow.z);
    accelerating_ = kMean < 0.5 * dt / (dt + meanTau) || weight < 0.5 ||
                    (warm && angleNow > settings_.accFlagAngleDeg * kDeg);
  } else {
    const Vec3 upWorld = rotate(qMeas_, (1.0 / na) * acc);
    err = rotationBetween(upWorld, kUp);  // earth frame, horizontal
    const double m = norm(err) / (settings_.trackTiltAngleDeg * kDeg);
    tau = settings_.trackTiltTau / (1.0 + m * m);
    if (!warm) tau = std::fmin(tau, 0.1 + 0.5 * elapsed);
    accelerating_ = weight < 0.5;
  }
  const double k = weight * dt / (dt + tau);
  applied = k * err;
  const Quat turn = fromRotationVector(applied);
  q_ = normalised(turn * q_);
  qMeas_ = normalised(turn * qMeas_);
  if (withGyro) accWorld_ = rotate(turn, accWorld_);
  return weight;
}

bool CompassFilter::fieldDisturbed(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro) {
  const double strength = norm(field);
  if (quality.newCalibration) referenceAge_ = 0.0;
  const Vec3 upDevice = rotateBack(qMeas_, kUp);
  const double dip = std::asin(clampTo(-dot(field, upDevice) / strength, -1.0, 1.0));
  if (referenceAge_ <= 0.0) {
    strengthRef_ = strength;
    dipRef_ = dip;
  }
  // The dip needs the tilt; a field whose dip disagrees is as suspect as a
  // tilt that is off, and either way the field's heading should not be
  // followed.
  const double strengthScore = std::fabs(strength / strengthRef_ - 1.0) / settings_.fieldStrengthTolerance;
  // Without a gyroscope the tilt, and with it the dip, is noisier.
  const double dipTolerance = settings_.fieldDipToleranceDeg * kDeg * (withGyro ? 1.0 : settings_.trackDipToleranceScale);
  const double dipScore = std::fabs(dip - dipRef_) / dipTolerance;
  const double score = std::fmax(strengthScore, dipScore);
  const bool own = disturbed_ ? score > 0.7 : score > 1.0;
  const bool disturbed = (own && referenceAge_ >= 5.0) || quality.disturbed;
  disturbedTime_ = disturbed ? disturbedTime_ + dt : 0.0;
  cleanTime_ = disturbed ? 0.0 : cleanTime_ + dt;
  // References: quick at first, slow afterwards, slower still while
  // disturbed, and they follow a change that lasts.
  const double elapsed = tLast_ - tStart_;
  double tau = settings_.fieldReferenceTau;
  if (disturbed && disturbedTime_ < settings_.fieldRelearnTime) tau *= 4.0;
  const bool learning = referenceAge_ < 5.0;
  if (learning) tau = std::fmin(tau, 0.5 + referenceAge_);
  const double k = dt / (dt + tau);
  strengthRef_ += k * (strength - strengthRef_);
  dipRef_ += k * (dip - dipRef_);
  const double ownScore = learning ? 0.0 : score;
  score_ = quality.disturbed ? std::fmax(ownScore, std::fmax(1.0, quality.disturbanceScore)) : ownScore;
  referenceAge_ += dt > 0.0 ? dt : 1e-3;
  disturbed_ = own && !learning;
  return (disturbed_ || quality.disturbed) && elapsed >= 3.0;
}

double CompassFilter::headingCorrection(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro,
                                        double& applied) {
  applied = 0.0;
  const double strength = norm(field);
  if (!(strength > 0.0) || !finite(field)) return 0.0;
  const bool disturbed = fieldDisturbed(field, quality, dt, withGyro);
  const Vec3 w = rotate(qMeas_, field);
  const double horizontal = std::hypot(w.x, w.y);
  if (horizontal < 0.05 * strength) return 0.0;
  const double psi = wrapPi(std::atan2(w.x, w.y) - settings_.declinationDeg * kDeg);
  if (!headingKnown_) {
    q_ = normalised(aboutUp(psi) * q_);
    qMeas_ = normalised(aboutUp(psi) * qMeas_);
    headingKnown_ = true;
    return 1.0;
  }
  const double elapsed = tLast_ - tStart_;
  const bool warm = elapsed >= settings_.warmUp;
  // A field that disagrees with its references counts less, the more so
  // the more it disagrees.
  const double s2 = score_ * score_;
  double weight = elapsed < 3.0 ? 1.0 : 1.0 / (1.0 + s2 * s2);
  // A fresh disturbance is not followed at all; one that lasts only as
  // the references come round to it. (Following a lasting disturbance
  // slowly was tried: along the recordings' disturbed paths the field's
  // mean direction is no better a north than the gyroscope's.)
  if (disturbed && disturbedTime_ < settings_.fieldRelearnTime / 3.0) weight = 0.0;
  double tau;
  if (withGyro) {
    tau = warm ? settings_.headingTau : std::fmin(settings_.headingTau, 0.2 + elapsed);
    // After a long gap in the field (disturbance), come back a little faster.
    if (sinceField_ > 5.0) tau = std::fmin(tau, 2.0);
    if (quality.newCalibration) fastHeadingUntil_ = tLast_ + 2.0;
    if (tLast_ < fastHeadingUntil_) tau = std::fmin(tau, 0.3);
  } else {
    const double m = psi / (settings_.trackHeadingAngleDeg * kDeg);
    tau = settings_.trackHeadingTau / (1.0 + m * m);
    if (!warm) tau = std::fmin(tau, 0.1 + 0.5 * elapsed);
    // Without a gyroscope only the field tells a turn: a disturbed field is
    // still followed (the flag and the heading accuracy say it is suspect).
    if (disturbed) weight = std::fmax(weight, settings_.trackDisturbedWeight);
  }
  if (weight > 0.5) {
    const double kInn = dt / (dt + 3.0);
    innovationSq_ += kInn * (psi * psi - innovationSq_);
  }
  const double k = weight * dt / (dt + tau);
  applied = k * psi;
  q_ = normalised(aboutUp(applied) * q_);
  qMeas_ = normalised(aboutUp(applied) * qMeas_);
  // A trusted field also knows its dip: the tilt about the east-west axis
  // of the field is pulled towards the dip of the references.
  if (withGyro && settings_.fieldTiltTau > 0.0 && referenceAge_ > 5.0 && score_ < 0.5 && warm) {
    const Vec3 m = rotate(qMeas_, (1.0 / strength) * field);
    const double h = std::hypot(m.x, m.y);
    if (h > 0.1) {
      const double dipNow = std::atan2(-m.z, h);
      const double dipError = dipNow - dipRef_;  // positive: the field looks too steep
      // Turning about the horizontal axis (north x up) raises the field.
      const Vec3 axis{m.y / h, -m.x / h, 0.0};
      const double kTilt = dt / (dt + settings_.fieldTiltTau);
      q_ = normalised(fromRotationVector((kTilt * dipError) * axis) * q_);
      qMeas_ = normalised(fromRotationVector((kTilt * dipError) * axis) * qMeas_);
    }
  }
  return weight;
}

void CompassFilter::update(double t, const Vec3& acc, const Vec3* field, const FieldQuality& quality,
                           const Vec3* gyro) {
  if (!std::isfinite(t)) return;
  const bool accOk = finite(acc) && norm(acc) > 0.2;
  const Vec3* usableField = (field != nullptr && finite(*field) && norm(*field) > 1e-6) ? field : nullptr;
  const Vec3* usableGyro = (gyro != nullptr && finite(*gyro)) ? gyro : nullptr;
  if (!started_) {
    if (!accOk) return;
    // Not from a shock, unless shocks are all there is for half a second.
    if (!seenFirst_) {
      seenFirst_ = true;
      tFirst_ = t;
    }
    if (std::fabs(norm(acc) - 1.0) > 0.5 && t - tFirst_ < 0.5) return;
    initialise(t, acc, usableField);
    finish(t, acc, quality, usableGyro != nullptr);
    return;
  }
  double dt = t - tLast_;
  if (!(dt > 0.0)) dt = 0.0;    // repeated or backwards time: no prediction
  if (dt > 0.5) dt = 0.5;       // a gap: predict no further than this
  if (t > tLast_) tLast_ = t;
  const bool withGyro = usableGyro != nullptr;

  if (withGyro) {
    const Vec3 w = *usableGyro - bias_;
    // Each reading is the mean rate over its interval: at low rates and
    // fast turns about a changing axis the coning term of two successive
    // intervals keeps the integration right.
    Vec3 turn = dt * w;
    if (settings_.coning > 0.0 && dt > 0.0 && prevDt_ > 0.0)
      turn = turn + (settings_.coning / 12.0 * dt * prevDt_) * cross(prevGyro_, w);
    prevGyro_ = w;
    prevDt_ = dt;
    q_ = normalised(q_ * fromRotationVector(turn));
    // The readings are means over the interval: they belong to its middle.
    qMeas_ = normalised(q_ * fromRotationVector((-settings_.readingDelay) * turn));
    if (accOk) restBias(*usableGyro, acc, dt);
    lastRate_ = *usableGyro - bias_;
    driftVar_ += dt * settings_.headingDriftRate * settings_.headingDriftRate +
                 std::pow(settings_.headingScaleError * norm(w) * dt, 2.0);
  } else {
    q_ = normalised(fromRotationVector((settings_.trackPredict * dt) * rateWorld_) * q_);
    qMeas_ = q_;
    driftVar_ += dt * 4.0 * settings_.headingDriftRate * settings_.headingDriftRate +
                 std::pow(0.05 * norm(rateWorld_) * dt, 2.0);
  }

  Vec3 tiltApplied;
  double tiltWeight = 0.0;
  if (accOk) tiltWeight = tiltCorrection(acc, dt, withGyro, tiltApplied);
  double headingApplied = 0.0;
  double headingWeight = 0.0;
  if (usableField != nullptr && accOk) {
    headingWeight = headingCorrection(*usableField, quality, dt, withGyro, headingApplied);
  }
  if (headingWeight > 0.2) {
    // The field pulls the heading: the drift shrinks as a filter would.
    const double k = dt / (dt + (withGyro ? settings_.headingTau : 1.0));
    driftVar_ *= (1.0 - k) * (1.0 - k);
    sinceField_ = 0.0;
  } else {
    sinceField_ += dt;
  }

  if (withGyro && dt > 0.0 && tLast_ - tStart_ >= settings_.warmUp) {
    // The pulls that remain on average are the gyroscope's bias. Only slow
    // motion teaches it (fast turns add the gyroscope's scale and alignment
    // errors, which are no bias), and it is learnt quickly at first, then
    // ever more slowly as the estimate firms up.
    const double slowness = norm(lastRate_) / 0.5;
    const double slowOnly = 1.0 / (1.0 + slowness * slowness);
    const double firm = std::fmin(1.0, biasLearnt_ / settings_.biasSettleTime);
    Vec3 pull;
    if (tiltWeight > 0.0) {
      const double tau = settings_.biasTiltTauStart + (settings_.biasTiltTau - settings_.biasTiltTauStart) * firm;
      const double k = tiltWeight * dt / (dt + settings_.tiltTau);
      pull = (1.0 / (k * tau * tau)) * tiltApplied;
    }
    // Only a field clean for a while teaches the bias: a clean moment
    // within a disturbed area is no north to learn from.
    if (headingWeight > 0.9 && cleanTime_ > settings_.biasCleanTime) {
      const double tau =
          settings_.biasHeadingTauStart + (settings_.biasHeadingTau - settings_.biasHeadingTauStart) * firm;
      const double k = dt / (dt + settings_.headingTau);
      pull.z += headingApplied / (k * tau * tau);
      biasLearnt_ += dt * slowOnly;
      // Learning in motion firms the estimate up over the learning time,
      // to about 5 mrad/s.
      const double kVar = slowOnly * dt / (dt + tau);
      biasVar_ += kVar * (0.005 * 0.005 - biasVar_);
    }
    const Vec3 device = rotateBack(q_, slowOnly * pull);
    bias_ = bias_ - dt * device;
    const double maxBias = 0.2;
    bias_ = {clampTo(bias_.x, -maxBias, maxBias), clampTo(bias_.y, -maxBias, maxBias),
             clampTo(bias_.z, -maxBias, maxBias)};
  }
  if (!withGyro && dt > 0.0) {
    // The rate without a gyroscope: the attitude's own change, smoothed.
    Vec3 change = tiltApplied;
    change.z += headingApplied;
    if (settings_.trackPredict > 0.0) change = change + (settings_.trackPredict * dt) * rateWorld_;
    const double k = dt / (dt + 0.1);
    rateWorld_ = rateWorld_ + k * ((1.0 / dt) * change - rateWorld_);
    lastRate_ = rotateBack(q_, rateWorld_);
  }
  finish(t, acc, quality, withGyro);
}

void CompassFilter::finish(double t, const Vec3& acc, const FieldQuality& quality, bool withGyro) {
  CompassOutput& o = out_;
  o.t = t;
  o.attitude = q_;
  anglesOf(q_, o.azimuthDeg, o.pitchDeg, o.rollDeg);
  o.gravity = rotateBack(q_, kUp);
  o.linearAcc = finite(acc) ? acc - o.gravity : Vec3{};
  o.rate = lastRate_;
  o.gyroBias = bias_;
  uint32_t flags = 0;
  if (quality.calibrationAccuracy < 3) flags |= kFlagCalibrating;
  if (disturbed_ || quality.disturbed) flags |= kFlagMagneticDisturbance;
  if (accelerating_) flags |= kFlagAccelerating;
  if (!headingKnown_) flags |= kFlagNoHeading;
  if (withGyro) flags |= kFlagGyroscope;
  if (withGyro && stillTime_ >= settings_.restTime) flags |= kFlagResting;
  o.flags = flags;

  if (!headingKnown_) {
    o.headingAccuracyDeg = 180.0;
  } else {
    const double cal = quality.calibrationHeadingErrorDeg * kDeg;
    const double floor = settings_.headingNoiseFloorDeg * kDeg;
    double var = cal * cal + floor * floor;
    if (withGyro) {
      var += driftVar_ + settings_.innovationWeight * innovationSq_;
    } else {
      // Without a gyroscope: the lag behind turns, the field's disagreement,
      // and next to nothing known while the field is disturbed.
      // (The lag grows with the rate, less than in proportion past a
      // radian a second.)
      const double r = norm(rateWorld_);
      const double lag = settings_.trackLagTime * r / std::sqrt(1.0 + r * r);
      const double held = (disturbed_ || quality.disturbed) ? settings_.trackDisturbedErrorDeg * kDeg : 0.0;
      var += settings_.trackInnovationWeight * innovationSq_ + lag * lag + held * held;
    }
    o.headingAccuracyDeg = std::fmin(180.0, std::sqrt(var) / kDeg);
  }
  int level = o.headingAccuracyDeg <= 10.0 ? 3 : (o.headingAccuracyDeg <= 20.0 ? 2 : (o.headingAccuracyDeg <= 45.0 ? 1 : 0));
  if (quality.calibrationAccuracy < level) level = quality.calibrationAccuracy < 0 ? 0 : quality.calibrationAccuracy;
  o.accuracy = level;
}

}  // namespace quelta::compass
