// SPDX-License-Identifier: Apache-2.0
#include "quelta/compass/compass_filter.h"

namespace quelta::compass {

namespace {

constexpr Vec3 kUp{0.0, 0.0, 1.0};

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
  // The device axes in east-north-up: the columns of q's rotation matrix.
  const double xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
  const double xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
  const double wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
  const Vec3 x{1.0 - 2.0 * (yy + zz), 2.0 * (xy + wz), 2.0 * (xz - wy)};
  const Vec3 y{2.0 * (xy - wz), 1.0 - 2.0 * (xx + zz), 2.0 * (yz + wx)};
  const Vec3 z{2.0 * (xz + wy), 2.0 * (yz - wx), 1.0 - 2.0 * (xx + yy)};
  // Level the device (turn its screen normal onto up about a horizontal
  // axis), then read where its top edge points.
  Vec3 top = y;
  const double h = std::sqrt(z.x * z.x + z.y * z.y);
  if (h > 1e-12) {
    const Vec3 u{z.y / h, -z.x / h, 0.0};
    const double c = clampTo(z.z, -1.0, 1.0);
    const double s = std::sqrt(maxOf(0.0, 1.0 - c * c));
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

CompassFilter::CompassFilter(const FilterSettings& settings)
    : settings_(settings),
      tilt_(settings.tilt),
      heading_(settings.heading),
      bias_(settings.bias),
      field_(settings.field) {}

void CompassFilter::reset() {
  const FilterSettings kept = settings_;
  *this = CompassFilter(kept);
}

void CompassFilter::restartAttitude() {
  // What belongs to the sensors and the place stays: the gyroscope's bias
  // and the field's references. The attitude, the heading's filter and the
  // tracker's rate start over from the next sample set.
  started_ = false;
  seenFirst_ = false;
  headingKnown_ = false;
  startBiasVar_ = heading_.biasVar();
  field_.restartTurn();
  tilt_ = TiltCorrection(settings_.tilt);
  prevGyro_ = Vec3{};
  prevDt_ = 0.0;
  rateWorld_ = Vec3{};
  lastRate_ = Vec3{};
  driftVar_ = 0.0;
  innovationSq_ = 0.0;
  out_.flags |= kFlagNoHeading;
}

void CompassFilter::initialise(double t, const Vec3& acc, const Vec3* field) {
  started_ = true;
  tStart_ = t;
  tLast_ = t;
  att_.now = levelFrom(acc);
  if (field != nullptr) {
    Quat q;
    if (attitudeFromVectors(acc, *field, q)) {
      att_.now = aboutUp(-settings_.declinationDeg * kDeg) * q;
      headingKnown_ = true;
    }
  }
  att_.readings = att_.now;
  tilt_.start(acc);
  // What is known of the bias about up: nothing at first, what was learnt
  // before a restart.
  heading_.reset(startBiasVar_ > 0.0 ? startBiasVar_ : bias_.settings().startSigma * bias_.settings().startSigma);
  if (headingKnown_) heading_.start(0.0, startHeadingVar(acc, *field));
}

// What the first field's heading may be off by, rad^2: the tilt of a
// start (startTiltSigma, more while the accelerometer reads other than 1 g:
// at least that much of it is acceleration) times how much a tilt error
// turns the field's heading (the tangent of its dip).
double CompassFilter::startHeadingVar(const Vec3& acc, const Vec3& field) const {
  const double na = norm(acc), nf = norm(field);
  if (!(na > 0.0) || !(nf > 0.0)) return kPi * kPi;
  const double sinDip = clampTo(dot(acc, field) / (na * nf), -1.0, 1.0);
  const double cosDip = std::sqrt(maxOf(1.0 - sinDip * sinDip, 0.01));
  const double tilt = settings_.startTiltSigma + std::asin(minOf(1.0, std::fabs(na - 1.0)));
  const double e = tilt * std::fabs(sinDip) / cosDip;
  return minOf(e * e, kPi * kPi);
}

void CompassFilter::propagate(const Vec3& gyro, double dt) {
  const Vec3 w = gyro - bias_.value();
  // Each reading is the mean rate over its interval: at low rates and fast
  // turns about a changing axis the coning term of two successive
  // intervals keeps the integration right.
  Vec3 turn = dt * w;
  if (settings_.coning > 0.0 && dt > 0.0 && prevDt_ > 0.0)
    turn = turn + (settings_.coning / 12.0 * dt * prevDt_) * cross(prevGyro_, w);
  prevGyro_ = w;
  prevDt_ = dt;
  att_.now = normalised(att_.now * fromRotationVector(turn));
  // The readings are means over the interval: they belong to its middle.
  att_.readings = att_.now * fromRotationVector((-settings_.readingDelay) * turn);
  lastRate_ = w;
  bias_.age(dt);
  heading_.predict(dt, norm(turn), dt * bias_.settings().walk * bias_.settings().walk);
}

void CompassFilter::track(double dt) {
  // Without a gyroscope: predicted by a share of the rate the attitude's own
  // change shows.
  att_.now = normalised(fromRotationVector((settings_.trackPredict * dt) * rateWorld_) * att_.now);
  att_.readings = att_.now;
  prevDt_ = 0.0;
  driftVar_ += dt * settings_.trackDriftRate * settings_.trackDriftRate + std::pow(0.05 * norm(rateWorld_) * dt, 2.0);
}

// Pulls the heading towards the field's; returns the weight the field had
// (0..1) and the heading turn applied (rad, about up) in applied.
double CompassFilter::fieldCorrection(const Vec3& field, const FieldQuality& quality, double dt, bool withGyro,
                                      double& applied) {
  applied = 0.0;
  const double strength = norm(field);  // finite and positive: checked by update()
  const Vec3 w = rotate(att_.readings, field);
  const double horizontal = std::sqrt(w.x * w.x + w.y * w.y);
  const double psi = wrapPi(std::atan2(w.x, w.y) - settings_.declinationDeg * kDeg);
  const double dip = std::asin(clampTo(-w.z / strength, -1.0, 1.0));
  const double biasSigma = std::sqrt(heading_.biasVar());
  // A bias not yet learnt about the horizontal axes tilts the attitude by
  // about its size times the tilt pull's time constant: the dip is that
  // much less certain.
  const double tiltSigma = std::sqrt(bias_.horizontalVar()) * settings_.tilt.tau;
  const double elapsed = tLast_ - tStart_;
  // Right after a start the tilt is one accelerometer reading's, off by
  // whatever the device's acceleration was then; it settles with the tilt
  // pull's time constant, and until it has the field's heading and dip are
  // off by an error that lasts that long, not by noise.
  const double settlingTilt = settings_.startTiltSigma * std::exp(-elapsed / settings_.tilt.tau);
  // Until the tilt has settled after a start the field's dip and how its
  // heading turns say more of the tilt than of the field: only its strength
  // is judged.
  const bool tiltSettling = elapsed < settings_.settleTimes * settings_.tilt.tau;
  const bool disturbed = field_.check(strength, dip, quality.disturbed, quality.newCalibration, dt, withGyro, psi,
                                      norm(lastRate_), biasSigma, withGyro ? std::hypot(tiltSigma, settlingTilt) : 0.0,
                                      !(withGyro && tiltSettling)) &&
                         elapsed >= 3.0;
  disturbed_ = disturbed;
  if (horizontal < 0.05 * strength) return 0.0;
  if (!headingKnown_) {
    att_.turnAboutUp(psi);
    applied = psi;
    headingKnown_ = true;
    heading_.start(dt, startHeadingVar(rotateBack(att_.readings, kUp), field));
    return 1.0;
  }
  // A field that disagrees with its references counts less, the more so
  // the more it disagrees.
  const double s2 = field_.score() * field_.score();
  const double weight = elapsed < 3.0 ? 1.0 : 1.0 / (1.0 + s2 * s2);
  if (withGyro) {
    // A fresh disturbance is not followed at all; one that lasts only as
    // far as its score, the gate and the references allow.
    const bool follow = !disturbed || field_.disturbedTime() >= settings_.disturbedHold;
    // A tilt error moves the field's heading by up to the tilt error times
    // the tangent of the dip. One from a bias not yet learnt lasts as long as
    // the bias loop takes to settle (its slow root, biasTiltTau^2 / tilt.tau,
    // about 11 s): the field's heading is that much less informative.
    const double dipSlope = std::fabs(w.z) / maxOf(horizontal, 0.1 * strength);
    const double tiltHeading = tiltSigma * dipSlope;
    const double settling = settlingTilt * dipSlope;
    const double tiltNoise =
        tiltHeading * tiltHeading * settings_.biasTiltTau * settings_.biasTiltTau / settings_.tilt.tau;
    const double settleNoise = settling * settling * settings_.tilt.tau;
    const double slowness2 = dot(lastRate_, lastRate_) / (settings_.slowRate * settings_.slowRate);
    const HeadingEstimate::Correction c =
        heading_.correct(psi, dt, follow, !disturbed, weight, tiltNoise, settleNoise, 1.0 / (1.0 + slowness2));
    if (!c.followed) return 0.0;
    applied = c.heading;
    Vec3 turn{0.0, 0.0, c.heading};
    // A followed field also knows its dip: the tilt about the east-west
    // axis of the field is pulled towards the dip of the references.
    if (settings_.fieldTiltTau > 0.0 && field_.learnt() && field_.score() < 0.5 && elapsed >= settings_.warmUp &&
        horizontal > 0.1 * strength) {
      const double dipError = dip - field_.dipReference();  // positive: the field looks too steep
      // Turning about the horizontal axis (north x up) raises the field.
      const Vec3 axis{w.y / horizontal, -w.x / horizontal, 0.0};
      turn = turn + (dt / (dt + settings_.fieldTiltTau) * dipError) * axis;
    }
    att_.turn(turn);
    biasStep_.z += c.bias;
    const double kInn = dt / (dt + 3.0);
    innovationSq_ += kInn * (psi * psi - innovationSq_);
    return 1.0;
  }
  const double m = psi / (settings_.trackHeadingAngleDeg * kDeg);
  double tau = settings_.trackHeadingTau / (1.0 + m * m);
  if (elapsed < settings_.warmUp) tau = minOf(tau, 0.1 + 0.5 * elapsed);
  // Without a gyroscope only the field tells a turn: a disturbed field is
  // still followed (the flag and the heading accuracy say it is suspect).
  const double trackWeight = disturbed ? maxOf(weight, settings_.trackDisturbedWeight) : weight;
  if (trackWeight > 0.5) {
    const double kInn = dt / (dt + 3.0);
    innovationSq_ += kInn * (psi * psi - innovationSq_);
  }
  applied = trackWeight * dt / (dt + tau) * psi;
  att_.turnAboutUp(applied);
  if (trackWeight > 0.2) {
    const double k = dt / (dt + 1.0);
    driftVar_ *= (1.0 - k) * (1.0 - k);
  }
  return trackWeight;
}

// The tilt pulls that remain on average are the gyroscope's bias about the
// horizontal axes. Only slow motion teaches it (fast turns add the
// gyroscope's scale and alignment errors, which are no bias); it is learnt
// quickly while little is known of it, more slowly as it firms up.
void CompassFilter::learnBiasFromTilt(const TiltCorrection::Pull& pull, double dt) {
  if (!(pull.weight > 0.0) || !(dt > 0.0) || tLast_ - tStart_ < settings_.warmUp) return;
  const double slowness2 = dot(lastRate_, lastRate_) / (settings_.slowRate * settings_.slowRate);
  const double slowOnly = 1.0 / (1.0 + slowness2);
  biasLearnt_ += slowOnly * dt;
  const double firm = minOf(1.0, biasLearnt_ / settings_.biasSettleTime);
  const double tau = settings_.biasTiltTauStart + (settings_.biasTiltTau - settings_.biasTiltTauStart) * firm;
  const double k = pull.weight * dt / (dt + settings_.tilt.tau);
  const Vec3 rate = (slowOnly / (k * tau * tau)) * pull.applied;
  // What is known of the bias about the horizontal axes firms up as it is
  // learnt, from the start's uncertainty down to what the pulls resolve.
  const double start = bias_.settings().startSigma * (1.0 - firm);
  const double var = minOf(bias_.horizontalVar(), start * start + settings_.biasTiltSigma * settings_.biasTiltSigma);
  biasStep_ = biasStep_ - dt * rate;
  biasHorizontalVar_ = var;
}

void CompassFilter::update(double t, const Vec3& acc, const Vec3* field, const FieldQuality& quality,
                           const Vec3* gyro) {
  if (!std::isfinite(t)) return;
  const bool accOk = finite(acc) && norm(acc) > 0.2;
  const Vec3* usableField = (field != nullptr && finite(*field) && dot(*field, *field) > 1e-12) ? field : nullptr;
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

  // The rest test runs on every reading, so that a gyroscope judged
  // unusable can prove itself usable again.
  if (usableGyro != nullptr && accOk && bias_.observe(*usableGyro, acc, usableField, dt)) heading_.pinBias(bias_.horizontalVar());
  const bool withGyro = usableGyro != nullptr && bias_.usable();
  if (withGyro) {
    propagate(*usableGyro, dt);
  } else {
    track(dt);
  }
  TiltCorrection::Pull pull;
  if (accOk) pull = tilt_.correct(att_, acc, dt, tLast_ - tStart_, withGyro);
  double headingApplied = 0.0;
  biasStep_ = Vec3{};
  if (usableField != nullptr && accOk) fieldCorrection(*usableField, quality, dt, withGyro, headingApplied);
  const Vec3 headingBiasStep = biasStep_;
  if (withGyro) {
    // What the tilt pulls and the field taught the bias this sample, at once.
    biasStep_ = Vec3{};
    biasHorizontalVar_ = bias_.horizontalVar();
    learnBiasFromTilt(pull, dt);
    bias_.learn(rotateBack(att_.now, biasStep_ + headingBiasStep), biasHorizontalVar_);
  }
  if (!withGyro && dt > 0.0) {
    // The rate without a gyroscope: the attitude's own change, smoothed.
    Vec3 change = pull.applied;
    change.z += headingApplied;
    if (settings_.trackPredict > 0.0) change = change + (settings_.trackPredict * dt) * rateWorld_;
    const double k = dt / (dt + 0.1);
    rateWorld_ = rateWorld_ + k * ((1.0 / dt) * change - rateWorld_);
    lastRate_ = rotateBack(att_.now, rateWorld_);
  }
  finish(t, acc, quality, withGyro);
}

void CompassFilter::finish(double t, const Vec3& acc, const FieldQuality& quality, bool withGyro) {
  CompassOutput& o = out_;
  o.t = t;
  o.attitude = att_.now;
  anglesOf(att_.now, o.azimuthDeg, o.pitchDeg, o.rollDeg);
  o.gravity = rotateBack(att_.now, Vec3{0.0, 0.0, 1.0});
  o.linearAcc = finite(acc) ? acc - o.gravity : Vec3{};
  o.rate = lastRate_;
  o.gyroBias = bias_.value();
  uint32_t flags = 0;
  if (quality.calibrationAccuracy < 3) flags |= kFlagCalibrating;
  if (field_.disturbed() || quality.disturbed) flags |= kFlagMagneticDisturbance;
  if (tilt_.accelerating()) flags |= kFlagAccelerating;
  if (!headingKnown_) flags |= kFlagNoHeading;
  if (withGyro) flags |= kFlagGyroscope;
  if (withGyro && bias_.resting()) flags |= kFlagResting;
  o.flags = flags;

  if (!headingKnown_) {
    o.headingAccuracyDeg = 180.0;
  } else {
    const double cal = quality.calibrationHeadingErrorDeg * kDeg;
    const double floor = settings_.headingNoiseFloorDeg * kDeg;
    double var = cal * cal + floor * floor;
    if (withGyro) {
      var += heading_.reportedVar() + settings_.innovationWeight * innovationSq_;
    } else {
      // Without a gyroscope: the lag behind turns, the field's disagreement,
      // and next to nothing known while the field is disturbed. (The lag
      // grows in proportion to the rate.)
      const double r = norm(rateWorld_);
      const double lag = settings_.trackLagTime * r;
      const double held = (field_.disturbed() || quality.disturbed) ? settings_.trackDisturbedErrorDeg * kDeg : 0.0;
      var += driftVar_ + settings_.trackInnovationWeight * innovationSq_ + lag * lag + held * held;
    }
    o.headingAccuracyDeg = minOf(180.0, std::sqrt(var) / kDeg);
  }
  int level = o.headingAccuracyDeg <= 10.0 ? 3 : (o.headingAccuracyDeg <= 20.0 ? 2 : (o.headingAccuracyDeg <= 45.0 ? 1 : 0));
  if (quality.calibrationAccuracy < level) level = quality.calibrationAccuracy < 0 ? 0 : quality.calibrationAccuracy;
  o.accuracy = level;
}

}  // namespace quelta::compass
