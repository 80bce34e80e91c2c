#include "quelta/magnetic/mag_calibrator.h"

#include <algorithm>
#include <cmath>

namespace quelta::magnetic {
namespace {

// One set of settings for every device and rate (seconds and gauss).
constexpr double kBlockSeconds = 0.08;     // samples averaged into one candidate
constexpr int kBlockMaxSamples = 400;      // ends a block even if the clock stalls
constexpr double kMaxGap = 0.5;            // longest interval the clock advances by
constexpr double kGravityTau = 0.25;       // low-pass of the accelerometer
constexpr double kAccNormTau = 2.0;        // the accelerometer's usual size
constexpr double kStaticAccDev = 0.25;     // block acc deviation above which gravity is unknown
constexpr int kGravityHalfWindow = 6;      // blocks each side of a candidate averaged for its gravity
constexpr double kGravityMaxDev = 0.15;    // window mean's size against the usual size
constexpr double kGravityHalvesCos = 0.9945;  // cos 6 degrees: the window's halves agree
constexpr double kMinSeparation = 0.05;    // between stored samples, share of the field strength
constexpr double kRefreshAge = 2.0;        // a stored sample this old is refreshed by a neighbour
constexpr double kFitInterval = 0.75;
constexpr double kSettledFitInterval = 3.0;
constexpr int kMinSlots = 10;
constexpr int kIterations = 5;
constexpr int kWarmIterations = 3;
constexpr double kNoiseFloor = 0.006;      // gauss, floor of the robust scale
// What one constant model leaves unexplained on real devices even where
// nothing disturbs (gravity errors while walking, small field gradients):
// the floor of the scale that the covariance (the heading error) uses.
constexpr double kModelNoise = 0.016;
// Without an expected field, the strength stays within the Earth's range.
constexpr double kPlausibleStrength = 0.45;
constexpr double kPlausibleStrengthSigma = 0.1;
// Without an expected field, a device that stays near level cannot tell the
// field dipping down from its mirror image dipping up; a weak prior takes
// the downward dip of the most populated latitudes until tilts decide.
// Hosts in the southern hemisphere set the expected field instead.
constexpr double kPlausibleVertical = -0.25;
constexpr double kPlausibleVerticalSigma = 0.25;
constexpr double kMinStrength = 0.15;
constexpr double kMaxStrength = 0.9;
constexpr double kHuber = 2.0;
constexpr double kMaxScaleRel = 0.04;      // cap of the robust scale, share of the strength
constexpr double kInlierRel = 0.05;        // a stored sample explained by a fit, share of the strength
constexpr double kPoorFit = 0.012;          // gauss: a fit this rough tries other starts
constexpr double kRejectSigmas = 6.0;
constexpr double kTypicalStrength = 0.45;  // before any fit
constexpr double kExpectedSigma = 0.05;    // share of the expected strength
// Ellipsoid only when the directions are covered well.
constexpr double kEllipsoidCoverage = 0.6;
constexpr double kEllipsoidMinEigen = 0.12;
constexpr int kEllipsoidMinSlots = 30;
// Heading error: covariance inflation (neighbouring blocks are correlated)
// and the floor of what the model cannot see.
constexpr double kCovInflation = 5.0;
constexpr double kFloorSphereDeg = 0.8;
constexpr double kFloorEllipsoidDeg = 0.4;
// Accuracy levels from the heading error estimate.
constexpr double kAccuracy3Deg = 4.0;
constexpr double kAccuracy2Deg = 8.0;
constexpr double kAccuracy1Deg = 25.0;
// Change detection (new hard iron against a disturbance).
constexpr double kInconsistentRel = 0.08;   // share of the strength
constexpr double kShareTau = 1.0;
constexpr double kNeverStoreRel = 0.5;      // misfit (share of the strength) that never enters the store
constexpr double kChangeMinSeconds = 1.0;
constexpr double kChangeRetry = 0.5;
constexpr double kChangeMaxResidual = 0.02;   // gauss, or twice the stored fit's
constexpr double kChangeMaxHeadingDeg = 10.0;
constexpr int kChangeMinBlocks = 20;
constexpr double kChangeGain = 3.0;
constexpr double kRestartSeconds = 15.0;      // contradicted this long: start again
constexpr double kRestartShare = 0.8;           // misfit of the old offset over the new one
constexpr double kChangeMinCoverage = 0.2;
constexpr double kPreviousMaxRel = 0.03;      // median misfit to return to the previous calibration
constexpr int kHeldUntilSlots = 40;
constexpr double kHeldStrengthSigma = 0.02;  // strength held in the change fit
constexpr double kHeldVerticalSigma = 0.03;
// Disturbance.
constexpr double kDisturbTau = 0.4;
constexpr double kStrengthScale = 0.10;   // relative strength deviation giving score 1
constexpr double kDipScaleDeg = 5.0;      // dip deviation giving score 1
constexpr double kGravityNoiseTau = 1.0;
constexpr double kGravityNoiseGain = 2.0;  // dip tolerance added per degree of accelerometer motion
constexpr double kFlagOn = 0.85;
constexpr double kFlagOff = 0.6;

constexpr double kDeg = 57.29577951308232;

constexpr int kP = 11;  // c(3), soft-iron update (6), strength, vertical

// A stored sample knows gravity when its unit up is not all zero.
bool knownUp(const Vec3d& up) { return up.x != 0.0 || up.y != 0.0 || up.z != 0.0; }

double clampUnit(double v) { return v < -1.0 ? -1.0 : (v > 1.0 ? 1.0 : v); }

double median(double* v, int n) {
  if (n <= 0) return 0.0;
  std::nth_element(v, v + n / 2, v + n);
  return v[n / 2];
}

// Partial derivatives of s^T dS d over the six entries of a symmetric dS
// (00, 11, 22, 01, 02, 12).
void symmetricJacobian(Vec3d s, Vec3d d, double* out) {
  out[0] = s.x * d.x;
  out[1] = s.y * d.y;
  out[2] = s.z * d.z;
  out[3] = s.x * d.y + s.y * d.x;
  out[4] = s.x * d.z + s.z * d.x;
  out[5] = s.y * d.z + s.z * d.y;
}

// The 26 cells of directions: faces, edges and corners of a cube. A
// direction belongs to the cell whose pattern of signs it follows, counting
// a component as zero when it is below tan(22.5 deg) of the largest.
double coverageOf(const Vec3d* dirs, int n) {
  uint32_t cells = 0;
  for (int i = 0; i < n; ++i) {
    const Vec3d u = dirs[i];
    const double big = std::max(std::fabs(u.x), std::max(std::fabs(u.y), std::fabs(u.z)));
    if (!(big > 0.0)) continue;
    const double cut = 0.41421356 * big;
    const int a = u.x > cut ? 2 : (u.x < -cut ? 0 : 1);
    const int b = u.y > cut ? 2 : (u.y < -cut ? 0 : 1);
    const int c = u.z > cut ? 2 : (u.z < -cut ? 0 : 1);
    cells |= 1u << (9 * a + 3 * b + c);  // 13 (all zero) cannot happen
  }
  int count = 0;
  for (uint32_t c = cells; c; c &= c - 1) ++count;
  return count / 26.0;
}

// Smallest eigenvalue of a symmetric positive semi-definite 3x3 matrix.
double minEigen(const M3& a) {
  const double p1 = a.m[0][1] * a.m[0][1] + a.m[0][2] * a.m[0][2] + a.m[1][2] * a.m[1][2];
  const double q = (a.m[0][0] + a.m[1][1] + a.m[2][2]) / 3.0;
  const double p2 = (a.m[0][0] - q) * (a.m[0][0] - q) + (a.m[1][1] - q) * (a.m[1][1] - q) +
                    (a.m[2][2] - q) * (a.m[2][2] - q) + 2.0 * p1;
  const double p = std::sqrt(p2 / 6.0);
  if (p < 1e-15) return q;
  M3 b;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) b.m[i][j] = (a.m[i][j] - (i == j ? q : 0.0)) / p;
  const double r = clampUnit(det(b) / 2.0);
  const double phi = std::acos(r) / 3.0;
  return q + 2.0 * p * std::cos(phi + 2.0943951023931953);
}

}  // namespace

const char* reasonText(Reason r) {
  switch (r) {
    case Reason::None: return "calibrated";
    case Reason::Collecting: return "collecting directions: keep moving the device";
    case Reason::TurnOtherAxis: return "turn the device about another axis";
    case Reason::FieldUnstable: return "field unstable: move away from magnets and metal";
    case Reason::StrengthMismatch: return "field strength differs from the expected: magnetic environment";
    case Reason::NoSamples: return "no valid magnetometer samples";
  }
  return "unknown";
}

const char* recordStatusText(RecordStatus s) {
  switch (s) {
    case RecordStatus::Ok: return "ok";
    case RecordStatus::Truncated: return "record truncated";
    case RecordStatus::BadMagic: return "not a calibration record";
    case RecordStatus::OtherVersion: return "record from another version";
    case RecordStatus::BadChecksum: return "record corrupted (checksum)";
    case RecordStatus::BadValues: return "record values out of range";
    case RecordStatus::NoCalibration: return "no calibration to save";
  }
  return "unknown";
}

void Calibrator::reset() {
  // Member by member: no large temporary on the stack.
  cal_ = Calibration{};
  quality_ = Quality{};
  priorOffsetSigma_ = 0.0;
  priorOffset_ = Vec3d{};
  clock_ = 0.0;
  lastT_ = 0.0;
  haveT_ = false;
  gravity_ = Vec3d{};
  accNorm_ = 0.0;
  haveGravity_ = false;
  historyHead_ = 0;
  historyCount_ = 0;
  blockMag_ = Vec3d{};
  blockAcc_ = Vec3d{};
  blockCount_ = 0;
  blockAccCount_ = 0;
  blockStart_ = 0.0;
  blockAccDev_ = 0.0;
  count_ = 0;
  lastFit_ = -1e9;
  newSinceFit_ = 0;
  recentHead_ = 0;
  recentCount_ = 0;
  inconsistentSince_ = -1.0;
  inconsistentShare_ = 0.0;
  lastChangeTry_ = -1e9;
  unstable_ = false;
  previous_ = Calibration{};
  restart_ = false;
  heldStrength_ = 0.0;
  heldVertical_ = 0.0;
  devStrength_ = 0.0;
  devDip_ = 0.0;
  gravityNoise_ = 0.0;
  refDipDeg_ = 0.0;
  refDipFor_[0] = refDipFor_[1] = 0.0;
  flag_ = false;
  calChanged_ = false;
  headingErrorRaw_ = 180.0;
}

SampleOutput Calibrator::update(double t, const double mag[3], const double acc[3]) {
  SampleOutput out;
  calChanged_ = false;

  // Clock: only forward, gaps clamped.
  double dt = 0.0;
  if (std::isfinite(t)) {
    if (haveT_) {
      dt = t - lastT_;
      if (!(dt > 0.0)) dt = 0.0;
      if (dt > kMaxGap) dt = kMaxGap;
    }
    lastT_ = t;
    haveT_ = true;
  }
  clock_ += dt;

  // Gravity.
  double accDev = 1.0;
  double accAngleSq = 8100.0;
  if (acc != nullptr) {
    const Vec3d a{acc[0], acc[1], acc[2]};
    const double an = norm(a);
    if (isFinite(a) && an > 1e-9 && an < 1e9) {
      if (!haveGravity_) {
        gravity_ = a;
        accNorm_ = an;
        haveGravity_ = true;
      } else {
        const double k = dt / (kGravityTau + dt);
        gravity_ = gravity_ + k * (a - gravity_);
        accNorm_ += dt / (kAccNormTau + dt) * (an - accNorm_);
      }
      accDev = norm(a - gravity_) / accNorm_;
      // Squared angle from gravity, degrees^2 (2 (1 - cos) is the squared
      // angle for small angles, and grows with it up to 180 degrees).
      accAngleSq = 2.0 * (1.0 - clampUnit(dot(a, gravity_) / (an * norm(gravity_)))) * kDeg * kDeg;
    }
  }
  const Vec3d up = haveGravity_ ? unitOrZero(gravity_) : Vec3d{};

  const Vec3d m{mag ? mag[0] : 0.0, mag ? mag[1] : 0.0, mag ? mag[2] : 0.0};
  const double mn = norm(m);
  if (mag == nullptr || !isFinite(m) || !(mn > 1e-9) || !(mn < 100.0)) {
    out.accuracy = quality_.accuracy;
    return out;
  }
  out.valid = true;
  if (quality_.reason == Reason::NoSamples) quality_.reason = Reason::Collecting;

  // Block averaging.
  if (blockCount_ == 0) {
    blockStart_ = clock_;
    blockMag_ = Vec3d{};
    blockAcc_ = Vec3d{};
    blockAccCount_ = 0;
    blockAccDev_ = 0.0;
  }
  blockMag_ = blockMag_ + m;
  ++blockCount_;
  if (haveGravity_ && acc != nullptr && accDev < 1.0) {
    blockAcc_ = blockAcc_ + Vec3d{acc[0], acc[1], acc[2]};
    blockAccDev_ += accDev;
    ++blockAccCount_;
  }
  if (clock_ - blockStart_ >= kBlockSeconds || blockCount_ >= kBlockMaxSamples) endBlock();

  const Vec3d h = apply(m);
  out.calibrated = h;
  out.strength = norm(h);
  const bool haveUp = knownUp(up);
  if (haveUp) out.dipDeg = std::asin(clampUnit(-dot(h, up) / std::max(out.strength, 1e-12))) * kDeg;
  disturbance(out.strength, haveUp && accDev < kStaticAccDev, accAngleSq, dt, out);
  out.newCalibration = calChanged_;
  out.accuracy = quality_.accuracy;
  return out;
}

void Calibrator::endBlock() {
  Block& nb = history_[historyHead_];
  nb.m = (1.0 / blockCount_) * blockMag_;
  nb.hasAcc = blockAccCount_ == blockCount_;
  nb.acc = nb.hasAcc ? (1.0 / blockAccCount_) * blockAcc_ : Vec3d{};
  historyHead_ = (historyHead_ + 1) % kHistory;
  if (historyCount_ < kHistory) ++historyCount_;
  blockCount_ = 0;
  // The candidate is the block in the middle of the window.
  const int window = 2 * kGravityHalfWindow + 1;
  if (historyCount_ < window) return;
  const Block& mid = history_[(historyHead_ - 1 - kGravityHalfWindow + 2 * kHistory) % kHistory];
  const Vec3d m = mid.m;
  // Gravity: the accelerometer averaged over the widest window centred on
  // the candidate whose two halves still agree in direction (walking steps
  // average out; a turning device keeps a short window).
  Vec3d up;
  if (mid.hasAcc && accNorm_ > 0.0) {
    auto at = [&](int back) -> const Block& { return history_[(historyHead_ - 1 - back + 2 * kHistory) % kHistory]; };
    Vec3d left, right;
    int count = 1;
    for (int k = 1; k <= kGravityHalfWindow; ++k) {
      const Block& older = at(kGravityHalfWindow + k);
      const Block& newer = at(kGravityHalfWindow - k);
      if (!older.hasAcc || !newer.hasAcc) break;
      const Vec3d l = left + older.acc;
      const Vec3d r = right + newer.acc;
      if (dot(unitOrZero(l), unitOrZero(r)) < kGravityHalvesCos) break;
      left = l;
      right = r;
      count = 1 + 2 * k;
    }
    const Vec3d sum = mid.acc + left + right;
    // Near the usual size: the device is not accelerating on average.
    if (std::fabs(norm(sum) / count / accNorm_ - 1.0) < kGravityMaxDev) up = unitOrZero(sum);
  }
  Slot& r = recent_[recentHead_];
  r.m = m;
  r.up = up;
  r.t = clock_;
  r.nn = -1;
  r.nnDist = 0.0;
  recentHead_ = (recentHead_ + 1) % kRecent;
  if (recentCount_ < kRecent) ++recentCount_;

  bool offer = true;
  if (cal_.model != Model::None) offer = checkChange(m, up);
  if (offer) offerCandidate(m, up);

  // Fits often while converging, rarely once calibrated.
  const double interval = quality_.accuracy >= 3 ? kSettledFitInterval : kFitInterval;
  if (count_ >= kMinSlots && newSinceFit_ > 0 && clock_ - lastFit_ >= interval) refit();
}

void Calibrator::refreshNearest(int i) {
  slots_[i].nn = -1;
  slots_[i].nnDist = 1e300;
  for (int k = 0; k < count_; ++k) {
    if (k == i) continue;
    const double d = norm(slots_[k].m - slots_[i].m);
    if (d < slots_[i].nnDist) {
      slots_[i].nnDist = d;
      slots_[i].nn = static_cast<int16_t>(k);
    }
  }
}

void Calibrator::insertSlot(int index, Vec3d m, Vec3d up) {
  Slot& s = slots_[index];
  s.m = m;
  s.up = up;
  s.t = clock_;
  for (int k = 0; k < count_; ++k) {
    if (k == index) continue;
    if (slots_[k].nn == index) {
      refreshNearest(k);
    } else {
      const double d = norm(slots_[k].m - m);
      if (d < slots_[k].nnDist) {
        slots_[k].nnDist = d;
        slots_[k].nn = static_cast<int16_t>(index);
      }
    }
  }
  refreshNearest(index);
  ++newSinceFit_;
}

void Calibrator::offerCandidate(Vec3d m, Vec3d up) {
  const double strength = cal_.model != Model::None ? cal_.strength : kTypicalStrength;
  const double separation = kMinSeparation * strength;
  int nearest = -1;
  double nearestDist = 1e300;
  for (int k = 0; k < count_; ++k) {
    const double d = norm(slots_[k].m - m);
    if (d < nearestDist) {
      nearestDist = d;
      nearest = k;
    }
  }
  if (nearest >= 0 && nearestDist < separation) {
    if (clock_ - slots_[nearest].t >= kRefreshAge) insertSlot(nearest, m, up);
    return;
  }
  if (count_ < kSlots) {
    ++count_;
    insertSlot(count_ - 1, m, up);
    return;
  }
  // Full: the most crowded slot (the older of the closest pair) makes room.
  int evict = 0;
  for (int k = 1; k < count_; ++k) {
    const Slot& a = slots_[k];
    const Slot& b = slots_[evict];
    if (a.nnDist < b.nnDist || (a.nnDist == b.nnDist && a.t < b.t)) evict = k;
  }
  const int partner = slots_[evict].nn;
  if (partner >= 0 && slots_[partner].t < slots_[evict].t) evict = partner;
  insertSlot(evict, m, up);
}

bool Calibrator::initialSphere(const Slot* s, int n, Calibration& out) const {
  // Linear: |m|^2 = 2 m.c + k (k = R^2 - |c|^2) and m.up = c.up + V, in
  // coordinates centred on the samples' mean.
  Vec3d mean;
  for (int i = 0; i < n; ++i) mean = mean + s[i].m;
  mean = (1.0 / n) * mean;
  double a[5][5] = {};
  double b[5] = {};
  const double vs = 2.0 * kTypicalStrength;
  auto add = [&](const double* row, double rhs, double w) {
    for (int i = 0; i < 5; ++i) {
      b[i] += w * row[i] * rhs;
      for (int j = 0; j < 5; ++j) a[i][j] += w * row[i] * row[j];
    }
  };
  for (int i = 0; i < n; ++i) {
    const Vec3d m = s[i].m - mean;
    const double row[5] = {2 * m.x, 2 * m.y, 2 * m.z, 1.0, 0.0};
    add(row, dot(m, m), 1.0);
    if (knownUp(s[i].up)) {
      const Vec3d u = s[i].up;
      const double rowv[5] = {vs * u.x, vs * u.y, vs * u.z, 0.0, vs};
      add(rowv, vs * dot(m, u), 1.0);
    }
  }
  // A light pull towards the samples' mean keeps undetermined directions there.
  const double ridge = 1e-4 * n;
  for (int i = 0; i < 3; ++i) a[i][i] += ridge;
  // Without an accelerometer nothing determines the vertical component:
  // hold it at zero rather than leave the system singular.
  if (!(a[4][4] > 0.0)) a[4][4] = 1.0;
  if (!choleskySolve<5>(a, b)) return false;
  const Vec3d c{b[0], b[1], b[2]};
  double r2 = b[3] + dot(c, c);
  if (!(r2 > 0.0)) return false;
  out.offset = mean + c;
  out.softIron = M3{};
  out.strength = std::sqrt(r2);
  out.vertical = std::max(-out.strength, std::min(out.strength, b[4]));
  out.model = Model::Sphere;
  return std::isfinite(out.strength) && out.strength > 0.02 && out.strength < 10.0;
}

bool Calibrator::fit(const Slot* s, int n, const Calibration& start, bool allowEllipsoid,
                     bool holdShape, double priorStrength, double priorStrengthSigma,
                     double priorVertical, double priorVerticalSigma, FitResult& out) const {
  if (n < 4) return false;
  Vec3d c = start.offset;
  M3 w = start.softIron;
  double r = start.strength > 0.0 ? start.strength : kTypicalStrength;
  double v = start.vertical;
  bool haveUp = false;
  for (int i = 0; i < n; ++i)
    if (knownUp(s[i].up)) haveUp = true;

  // Coverage decides the model, from the directions about the start.
  Vec3d dirs[kSlots > kRecent ? kSlots : kRecent];
  M3 scatter = M3::zero();
  for (int i = 0; i < n; ++i) {
    dirs[i] = unitOrZero(w * (s[i].m - c));
    for (int p = 0; p < 3; ++p)
      for (int q = 0; q < 3; ++q) scatter.m[p][q] += dirs[i][p] * dirs[i][q] / n;
  }
  const double coverage = coverageOf(dirs, n);
  const bool ellipsoid = allowEllipsoid && !holdShape && n >= kEllipsoidMinSlots &&
                         coverage >= kEllipsoidCoverage && minEigen(scatter) >= kEllipsoidMinEigen;

  double a[kP][kP];
  double sigmaS = kNoiseFloor, sigmaV = kNoiseFloor;
  double res[kSlots > kRecent ? kSlots : kRecent];
  double resV[kSlots > kRecent ? kSlots : kRecent];
  // A start from the current calibration is close: fewer steps.
  const int iterations = (start.model != Model::None && !holdShape) ? kWarmIterations : kIterations;
  for (int it = 0; it <= iterations; ++it) {
    // Residuals and their robust scales.
    int nv = 0;
    double tmp[kSlots > kRecent ? kSlots : kRecent];
    double tmpV[kSlots > kRecent ? kSlots : kRecent];
    for (int i = 0; i < n; ++i) {
      const Vec3d h = w * (s[i].m - c);
      res[i] = norm(h) - r;
      tmp[i] = std::fabs(res[i]);
      if (knownUp(s[i].up)) {
        resV[i] = dot(h, s[i].up) - v;
        tmpV[nv++] = std::fabs(resV[i]);
      } else {
        resV[i] = 0.0;
      }
    }
    // Robust scales, capped so that a store full of disturbed samples cannot
    // widen the acceptance until everything fits.
    sigmaS = std::min(std::max(1.4826 * median(tmp, n), kNoiseFloor), kMaxScaleRel * r);
    sigmaV = std::min(std::max(std::max(1.4826 * median(tmpV, nv), sigmaS), kNoiseFloor), kMaxScaleRel * r);
    if (it == iterations) break;

    double b[kP] = {};
    for (auto& row : a)
      for (double& x : row) x = 0.0;
    auto add = [&](const double* j, double resid, double weight) {
      for (int p = 0; p < kP; ++p) {
        if (j[p] == 0.0) continue;
        b[p] -= weight * j[p] * resid;
        for (int q = p; q < kP; ++q) a[p][q] += weight * j[p] * j[q];
      }
    };
    auto robust = [](double u) {
      u = std::fabs(u);
      if (u > kRejectSigmas) return 0.0;
      return u <= kHuber ? 1.0 : kHuber / u;
    };
    for (int i = 0; i < n; ++i) {
      const Vec3d d = s[i].m - c;
      const Vec3d h = w * d;
      const double hn = norm(h);
      if (!(hn > 1e-12)) continue;
      const Vec3d nh = (1.0 / hn) * h;
      double j[kP] = {};
      const Vec3d wn = w * nh;
      j[0] = -wn.x;
      j[1] = -wn.y;
      j[2] = -wn.z;
      if (ellipsoid) symmetricJacobian(nh, d, j + 3);
      j[9] = -1.0;
      add(j, res[i], robust(res[i] / sigmaS) / (sigmaS * sigmaS));
      if (knownUp(s[i].up)) {
        double jv[kP] = {};
        const Vec3d wu = w * s[i].up;
        jv[0] = -wu.x;
        jv[1] = -wu.y;
        jv[2] = -wu.z;
        if (ellipsoid) symmetricJacobian(s[i].up, d, jv + 3);
        jv[10] = -1.0;
        add(jv, resV[i], robust(resV[i] / sigmaV) / (sigmaV * sigmaV));
      }
    }
    // Priors.
    if (priorStrengthSigma > 0.0) {
      const double wgt = 1.0 / (priorStrengthSigma * priorStrengthSigma);
      a[9][9] += wgt;
      b[9] -= wgt * (r - priorStrength);
    }
    if (priorVerticalSigma > 0.0) {
      const double wgt = 1.0 / (priorVerticalSigma * priorVerticalSigma);
      a[10][10] += wgt;
      b[10] -= wgt * (v - priorVertical);
    }
    if (priorOffsetSigma_ > 0.0 && !holdShape) {
      const double wgt = 1.0 / (priorOffsetSigma_ * priorOffsetSigma_);
      for (int p = 0; p < 3; ++p) {
        a[p][p] += wgt;
        b[p] -= wgt * (c[p] - priorOffset_[p]);
      }
    }
    // Numerical safety: a very light pull keeps undetermined offsets still.
    for (int p = 0; p < 3; ++p) a[p][p] += 1e-2;
    // Gauge: scaling W and R together changes nothing; trace(dS) = 0.
    {
      const double g = 1e6;
      for (int p = 3; p < 6; ++p)
        for (int q = p; q < 6; ++q) a[p][q] += g;
    }
    // Fixed parameters.
    auto fix = [&](int p) {
      for (int q = 0; q < kP; ++q) {
        a[p][q] = 0.0;
        a[q][p] = 0.0;
      }
      a[p][p] = 1.0;
      b[p] = 0.0;
    };
    for (int p = 0; p < kP; ++p)
      for (int q = 0; q < p; ++q) a[p][q] = a[q][p];
    if (!ellipsoid)
      for (int p = 3; p < 9; ++p) fix(p);
    if (!haveUp) fix(10);
    if (!choleskySolve<kP>(a, b)) return false;
    // Update and renormalise W to det 1.
    c = c + Vec3d{b[0], b[1], b[2]};
    w.m[0][0] += b[3];
    w.m[1][1] += b[4];
    w.m[2][2] += b[5];
    w.m[0][1] += b[6];
    w.m[1][0] += b[6];
    w.m[0][2] += b[7];
    w.m[2][0] += b[7];
    w.m[1][2] += b[8];
    w.m[2][1] += b[8];
    r += b[9];
    v += b[10];
    const double d = det(w);
    if (!(d > 1e-6)) return false;
    const double k = 1.0 / std::cbrt(d);
    for (auto& row : w.m)
      for (double& x : row) x *= k;
    r *= k;
    v *= k;
    if (!(r > kMinStrength && r < kMaxStrength) || !isFinite(c) || !(norm(c) < 100.0)) return false;
  }
  // a holds the factor of the last normal matrix: the covariance, scaled up
  // where the residuals are below what real devices leave.
  const double scale = std::max(1.0, kModelNoise / sigmaS);
  double cov[kP][kP];
  for (int col = 0; col < kP; ++col) {
    double e[kP] = {};
    e[col] = 1.0;
    choleskySubstitute<kP>(a, e);
    for (int row = 0; row < kP; ++row) cov[row][col] = e[row] * scale * scale;
  }
  // Heading error: the calibrated field's error across its horizontal
  // direction, over the orientations stored.
  double sumVar = 0.0;
  int used = 0;
  for (int i = 0; i < n; ++i) {
    const Vec3d d = s[i].m - c;
    const Vec3d h = w * d;
    Vec3d axes[2];
    int na = 0;
    double hh;
    if (knownUp(s[i].up)) {
      axes[0] = unitOrZero(cross(s[i].up, h));
      hh = norm(h - dot(h, s[i].up) * s[i].up);
      na = 1;
    } else {
      const Vec3d nh = unitOrZero(h);
      Vec3d t = std::fabs(nh.x) < 0.9 ? Vec3d{1, 0, 0} : Vec3d{0, 1, 0};
      axes[0] = unitOrZero(cross(nh, t));
      axes[1] = cross(nh, axes[0]);
      hh = norm(h);
      na = 2;
    }
    if (!(hh > 1e-3)) continue;
    for (int k = 0; k < na; ++k) {
      double j[kP] = {};
      const Vec3d wu = w * axes[k];
      j[0] = -wu.x / hh;
      j[1] = -wu.y / hh;
      j[2] = -wu.z / hh;
      if (ellipsoid) {
        symmetricJacobian(axes[k], d, j + 3);
        for (int p = 3; p < 9; ++p) j[p] /= hh;
      }
      double var = 0.0;
      for (int p = 0; p < 9; ++p)
        for (int q = 0; q < 9; ++q) var += j[p] * cov[p][q] * j[q];
      sumVar += var / na;
    }
    ++used;
  }
  if (used == 0) return false;
  const double floorDeg = ellipsoid ? kFloorEllipsoidDeg : kFloorSphereDeg;
  const double sigmaDeg = std::sqrt(std::max(0.0, kCovInflation * sumVar / used)) * kDeg;
  out.headingErrorDeg = std::min(180.0, std::sqrt(sigmaDeg * sigmaDeg + floorDeg * floorDeg));
  out.cal.offset = c;
  out.cal.softIron = w;
  out.cal.strength = r;
  out.cal.vertical = std::max(-r, std::min(r, haveUp ? v : start.vertical));
  out.cal.model = ellipsoid ? Model::Ellipsoid : (start.model == Model::Ellipsoid ? Model::Ellipsoid : Model::Sphere);
  out.residual = sigmaS;
  // Coverage reported about the fitted centre.
  for (int i = 0; i < n; ++i) dirs[i] = unitOrZero(w * (s[i].m - c));
  out.coverage = coverageOf(dirs, n);
  out.ok = true;
  return true;
}

void Calibrator::refit() {
  lastFit_ = clock_;
  newSinceFit_ = 0;
  Calibration start = cal_;
  if ((cal_.model == Model::None || restart_) && !initialSphere(slots_, count_, start)) return;
  if (restart_) start.softIron = cal_.softIron;
  restart_ = false;
  double ps = kPlausibleStrength, pss = kPlausibleStrengthSigma;
  double pv = kPlausibleVertical, pvs = kPlausibleVerticalSigma;
  if (heldStrength_ > 0.0) {
    if (count_ >= kHeldUntilSlots) {
      heldStrength_ = 0.0;
    } else {
      ps = heldStrength_;
      pss = kHeldStrengthSigma * ps;
      pv = heldVertical_;
      pvs = heldVertical_ != 0.0 ? kHeldVerticalSigma * ps : 0.0;
    }
  }
  if (expected_.known && expected_.strengthGauss > 0.0) {
    ps = expected_.strengthGauss;
    pss = kExpectedSigma * ps;
    pv = -ps * std::sin(expected_.dipDeg / kDeg);
    pvs = kExpectedSigma * ps;
  }
  FitResult r;
  bool ok = fit(slots_, count_, start, true, false, ps, pss, pv, pvs, r);
  // (Not again while a good calibration stays as rough as it was.)
  const bool settled = quality_.accuracy >= 3 && r.residual < 1.5 * quality_.residualGauss;
  if (!ok || (r.residual > kPoorFit && !settled)) {
    // Rough or failed: other starts compete, judged by how many stored
    // samples they explain (the store may hold disturbed samples).
    int best = ok ? inliers(r.cal, slots_, count_) : -1;
    Calibration alt;
    FitResult q;
    if (initialSphere(slots_, count_, alt) && fit(slots_, count_, alt, true, false, ps, pss, pv, pvs, q)) {
      const int k = inliers(q.cal, slots_, count_);
      if (k > best) {
        best = k;
        r = q;
        ok = true;
      }
    }
    Slot recent[kRecent];
    const int n = recentBlocks(recent, -1e300);
    if (n >= kChangeMinBlocks && initialSphere(recent, n, alt) &&
        fit(recent, n, alt, false, false, ps, pss, pv, pvs, q) && fit(slots_, count_, q.cal, true, false, ps, pss, pv, pvs, q)) {
      const int k = inliers(q.cal, slots_, count_);
      if (k > best) {
        best = k;
        r = q;
        ok = true;
      }
    }
  }
  if (!ok) return;
  const bool changed = cal_.model == Model::None || norm(r.cal.offset - cal_.offset) > 1e-4 ||
                       r.cal.model != cal_.model;
  cal_ = r.cal;
  if (changed) calChanged_ = true;
  updateQuality(&r);
}

int Calibrator::inliers(const Calibration& c, const Slot* s, int n) const {
  const double tol = kInlierRel * c.strength;
  int k = 0;
  for (int i = 0; i < n; ++i) {
    const Vec3d h = c.softIron * (s[i].m - c.offset);
    if (std::fabs(norm(h) - c.strength) > tol) continue;
    if (knownUp(s[i].up) && std::fabs(dot(h, s[i].up) - c.vertical) > 1.5 * tol)
      continue;
    ++k;
  }
  return k;
}

int Calibrator::recentBlocks(Slot* out, double since) const {
  int n = 0;
  for (int i = 0; i < recentCount_; ++i) {
    const Slot& sl = recent_[(recentHead_ - 1 - i + 2 * kRecent) % kRecent];
    if (sl.t < since) break;
    out[n++] = sl;
  }
  return n;
}

bool Calibrator::checkChange(Vec3d m, Vec3d up) {
  // Is this block explained by the stored model?
  const Vec3d h = apply(m);
  const double hn = norm(h);
  const double tol = std::max(kInconsistentRel * cal_.strength, 4.0 * quality_.residualGauss);
  double dev = std::fabs(hn - cal_.strength);
  if (knownUp(up)) dev = std::max(dev, std::fabs(dot(h, up) - cal_.vertical) / 1.5);
  const bool bad = dev > tol;
  const double k = kBlockSeconds / (kShareTau + kBlockSeconds);
  inconsistentShare_ += k * ((bad ? 1.0 : 0.0) - inconsistentShare_);
  if (bad && inconsistentSince_ < 0.0) inconsistentSince_ = clock_;
  if (!bad && inconsistentShare_ < 0.3) inconsistentSince_ = -1.0;
  unstable_ = inconsistentShare_ > 0.5;

  if (inconsistentSince_ >= 0.0 && inconsistentShare_ > 0.6 &&
      clock_ - inconsistentSince_ >= kChangeMinSeconds && clock_ - lastChangeTry_ >= kChangeRetry) {
    lastChangeTry_ = clock_;
    // The blocks since the change began.
    Slot recent[kRecent];
    const int n = recentBlocks(recent, inconsistentSince_ - 0.2);
    // Contradicted for long and explained by no new offset: the field
    // around the device has changed (or the first calibration was made in a
    // disturbed place). Start again from the recent blocks; the calibration
    // before stays in memory should the old field come back.
    if (clock_ - inconsistentSince_ >= kRestartSeconds && inconsistentShare_ > kRestartShare && n >= kChangeMinBlocks) {
      previous_ = quality_.accuracy >= 2 ? cal_ : Calibration{};
      heldStrength_ = 0.0;
      restartStore(recent, n);
      restart_ = true;
      ++quality_.restarts;
      lastFit_ = -1e9;
      refit();
      return false;
    }
    // The calibration before the last change explains the blocks again.
    if (n >= 8 && previous_.model != Model::None) {
      double rel[kRecent];
      for (int i = 0; i < n; ++i) {
        const Vec3d hp = previous_.softIron * (recent[i].m - previous_.offset);
        rel[i] = std::fabs(norm(hp) / previous_.strength - 1.0);
      }
      if (median(rel, n) < kPreviousMaxRel) {
        const Calibration back = previous_;
        adopt(back, recent, n, nullptr);
        return false;
      }
    }
    if (n >= kChangeMinBlocks) {
      // A new hard iron keeps the strength and the dip: hold them.
      Calibration start = cal_;
      Calibration lin;
      if (initialSphere(recent, n, lin)) {
        start.offset = lin.offset;
      } else {
        Vec3d mean;
        for (int i = 0; i < n; ++i) mean = mean + recent[i].m;
        start.offset = (1.0 / n) * mean;
      }
      FitResult r;
      // Held only when the stored calibration was good; else the priors of
      // a first calibration.
      const bool trusted = quality_.accuracy >= 2;
      const bool haveUp = cal_.vertical != 0.0;
      double ps = kPlausibleStrength, pss = kPlausibleStrengthSigma;
      double pv = kPlausibleVertical, pvs = kPlausibleVerticalSigma;
      if (trusted) {
        ps = cal_.strength;
        pss = kHeldStrengthSigma * ps;
        pv = cal_.vertical;
        pvs = haveUp ? kHeldVerticalSigma * ps : 0.0;
      } else if (expected_.known && expected_.strengthGauss > 0.0) {
        ps = expected_.strengthGauss;
        pss = kExpectedSigma * ps;
        pv = -ps * std::sin(expected_.dipDeg / kDeg);
        pvs = kExpectedSigma * ps;
      }
      const bool ok = fit(recent, n, start, false, true, ps, pss, pv, pvs, r);
      // The recent blocks must fit the new offset far better than the old one,
      // and the offset must have moved by more than the model's misfit.
      double oldMisfit[kRecent];
      for (int i = 0; i < n; ++i) oldMisfit[i] = std::fabs(norm(apply(recent[i].m)) - cal_.strength);
      const double oldResidual = 1.4826 * median(oldMisfit, n);
      if (ok && r.residual < std::max(kChangeMaxResidual, 2.0 * quality_.residualGauss) &&
          r.residual * kChangeGain < oldResidual && norm(r.cal.offset - cal_.offset) > tol &&
          r.headingErrorDeg < kChangeMaxHeadingDeg && r.coverage >= kChangeMinCoverage &&
          (!trusted || std::fabs(r.cal.strength / cal_.strength - 1.0) < 0.1)) {
        Calibration next = cal_;
        next.offset = r.cal.offset;
        next.strength = r.cal.strength;
        next.vertical = r.cal.vertical;
        adopt(next, recent, n, &r);
        return false;
      }
    }
  }
  updateQuality(nullptr);
  // Blocks far off the model stay out of the store once the calibration is good.
  // Far beyond any plausible misfit, they never enter.
  if (dev > kNeverStoreRel * cal_.strength) return false;
  return quality_.accuracy < 2 || dev < 2.0 * tol;
}

void Calibrator::restartStore(const Slot* recent, int n) {
  priorOffsetSigma_ = 0.0;
  count_ = 0;
  for (int i = n - 1; i >= 0; --i) offerCandidate(recent[i].m, recent[i].up);
  inconsistentSince_ = -1.0;
  inconsistentShare_ = 0.0;
}

void Calibrator::adopt(const Calibration& c, const Slot* recent, int n, const FitResult* r) {
  const bool trusted = quality_.accuracy >= 2 || r == nullptr;
  heldStrength_ = trusted ? c.strength : 0.0;
  heldVertical_ = c.vertical;
  // Only a good calibration is worth returning to.
  previous_ = quality_.accuracy >= 2 ? cal_ : Calibration{};
  cal_ = c;
  calChanged_ = true;
  ++quality_.newHardIron;
  // The store restarts from the blocks since the change.
  restartStore(recent, n);
  unstable_ = false;
  lastFit_ = clock_;
  newSinceFit_ = 0;
  if (r != nullptr) {
    FitResult q = *r;
    q.cal = cal_;
    updateQuality(&q);
  } else {
    updateQuality(nullptr);
  }
}

void Calibrator::updateQuality(const FitResult* r) {
  if (r != nullptr) {
    headingErrorRaw_ = r->headingErrorDeg;
    quality_.coverage = r->coverage;
    quality_.residualGauss = r->residual;
    quality_.samples = count_;
  }
  quality_.fittedStrength = cal_.strength;
  quality_.expectedStrength = expected_.known ? expected_.strengthGauss : 0.0;
  quality_.headingErrorDeg = cal_.model == Model::None ? 180.0 : headingErrorRaw_;
  const double he = quality_.headingErrorDeg;
  int acc = he <= kAccuracy3Deg ? 3 : he <= kAccuracy2Deg ? 2 : he <= kAccuracy1Deg ? 1 : 0;
  if (cal_.model == Model::None) acc = 0;
  quality_.accuracy = acc;
  Reason reason = Reason::None;
  if (cal_.model == Model::None) {
    reason = Reason::Collecting;
  } else if (unstable_) {
    reason = Reason::FieldUnstable;
  } else if (expected_.known && expected_.strengthGauss > 0.0 &&
             std::fabs(cal_.strength / expected_.strengthGauss - 1.0) > 0.15) {
    reason = Reason::StrengthMismatch;
  } else if (acc < 3) {
    reason = quality_.coverage < 0.25 ? Reason::Collecting : Reason::TurnOtherAxis;
  }
  quality_.reason = reason;
}

void Calibrator::disturbance(double strength, bool dipUsable, double accAngleSq, double dt, SampleOutput& out) {
  if (cal_.model == Model::None) {
    out.disturbance = 0.0;
    out.disturbed = false;
    return;
  }
  const double k = dt / (kDisturbTau + dt);
  devStrength_ += k * ((strength / cal_.strength - 1.0) - devStrength_);
  if (dipUsable) {
    if (cal_.vertical != refDipFor_[0] || cal_.strength != refDipFor_[1]) {
      refDipDeg_ = std::asin(clampUnit(-cal_.vertical / cal_.strength)) * kDeg;
      refDipFor_[0] = cal_.vertical;
      refDipFor_[1] = cal_.strength;
    }
    devDip_ += k * ((out.dipDeg - refDipDeg_) - devDip_);
  }
  // The dip is only as good as gravity: its tolerance grows while the
  // accelerometer moves about its low-passed direction.
  gravityNoise_ += dt / (kGravityNoiseTau + dt) * (accAngleSq - gravityNoise_);
  const double dipScale = std::sqrt(kDipScaleDeg * kDipScaleDeg + kGravityNoiseGain * kGravityNoiseGain * gravityNoise_);
  const double score = std::max(std::fabs(devStrength_) / kStrengthScale, std::fabs(devDip_) / dipScale);
  if (score > kFlagOn) flag_ = true;
  if (score < kFlagOff) flag_ = false;
  out.strengthDeviation = devStrength_;
  out.dipDeviationDeg = devDip_;
  out.disturbance = score;
  out.disturbed = flag_;
}

}  // namespace quelta::magnetic
