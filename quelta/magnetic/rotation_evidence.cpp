// SPDX-License-Identifier: Apache-2.0
#include "quelta/magnetic/rotation_evidence.h"

#include <cmath>

namespace quelta::magnetic {
namespace {

constexpr double kPairSeconds = 0.5;      // s between the two readings of a row
// A turn past 0.5 rad closes the row early (the integration stays exact):
// sin^2 of half that angle, the test on the quaternion's vector part.
constexpr double kPairMaxSinHalfSq = 0.06120871905481365;
constexpr double kMaxStep = 0.5;          // s: a longer gap between samples abandons the row
constexpr double kFieldNoise = 0.004;     // gauss, one reading's noise (phones and boards at 50 Hz)
constexpr double kEarthField = 0.5;       // gauss, |m - c|: the size of the field that the rotation turns
constexpr double kScaleError = 0.01;      // the gyroscope's scale error, share of the angle
constexpr double kMemorySeconds = 60.0;   // s: rows fade with this time constant
constexpr double kNothingKnown = 10.0;    // gauss: prior sigma of the offset before any row
constexpr double kBiasPrior = 0.2;        // rad/s: what the shared gyroscope bias estimate may miss
constexpr double kOffsetKnown = 0.05;     // gauss: once the offset is known this well, the rows also
                                          // tell the gyroscope's remaining bias (the field they turn
                                          // is then known)
constexpr double kHuber = 3.0;            // normalised residual beyond which a row's weight falls
constexpr double kReject = 6.0;           // normalised residual of a row that is the environment
constexpr double kMinAngle = 0.05;        // rad: a smaller turn (moving the field by less than about
                                          // 25 mG) says more about the environment than about c
constexpr int kRejectedRows = 6;          // rows in a row that no known offset explains (3 s of
                                          // turning): what was known is wrong, start over

M3 scaled(const M3& a, double k) {
  M3 r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r.m[i][j] = a.m[i][j] * k;
  return r;
}

M3 plusDiagonal(const M3& a, double d) {
  M3 r = a;
  for (int i = 0; i < 3; ++i) r.m[i][i] += d;
  return r;
}

}  // namespace

void RotationEvidence::reset() {
  forget();
  meanR2_ = 3.0;
}

void RotationEvidence::forget() {
  clearRows();
  open_ = false;
  lastRate_ = Vec3d{};
}

void RotationEvidence::clearRows() {
  rejected_ = 0;
  for (auto& row : info6_)
    for (double& v : row) v = 0.0;
  for (double& v : z6_) v = 0.0;
  info_ = M3::zero();
  z_ = Vec3d{};
  rows_ = 0;
}

void RotationEvidence::update(double dt, const Vec3d* field, const Vec3d& rate) {
  if (!isFinite(rate) || !(dt >= 0.0) || dt > kMaxStep) {
    open_ = false;
    return;
  }
  const Vec3d previous = lastRate_;
  lastRate_ = rate;
  if (!open_) {
    if (field == nullptr) return;
    first_ = *field;
    q_[0] = 1.0;
    q_[1] = q_[2] = q_[3] = 0.0;
    elapsed_ = 0.0;
    open_ = true;
    return;
  }
  // q <- q * exp(w dt / 2), to third order in the half angle, w the mean of
  // this rate and the last (readings that are means over their interval
  // belong to its middle, as do the field's).
  const Vec3d h = (0.25 * dt) * (rate + previous);
  const double hh = dot(h, h);
  const double s = 1.0 - hh / 6.0;
  const double d[4] = {1.0 - 0.5 * hh, s * h.x, s * h.y, s * h.z};
  const double a[4] = {q_[0], q_[1], q_[2], q_[3]};
  q_[0] = a[0] * d[0] - a[1] * d[1] - a[2] * d[2] - a[3] * d[3];
  q_[1] = a[0] * d[1] + a[1] * d[0] + a[2] * d[3] - a[3] * d[2];
  q_[2] = a[0] * d[2] - a[1] * d[3] + a[2] * d[0] + a[3] * d[1];
  q_[3] = a[0] * d[3] + a[1] * d[2] - a[2] * d[1] + a[3] * d[0];
  elapsed_ += dt;
  const double sinHalfSq = q_[1] * q_[1] + q_[2] * q_[2] + q_[3] * q_[3];
  if (field != nullptr &&
      (elapsed_ >= kPairSeconds || sinHalfSq >= kPairMaxSinHalfSq)) {
    closePair(*field);
    // The second reading starts the next row.
    first_ = *field;
    q_[0] = 1.0;
    q_[1] = q_[2] = q_[3] = 0.0;
    elapsed_ = 0.0;
  }
}

void RotationEvidence::closePair(const Vec3d& second) {
  // dR: device now -> device at the first reading.
  const double w = q_[0], x = q_[1], y = q_[2], z = q_[3];
  M3 r;
  r.m[0][0] = 1.0 - 2.0 * (y * y + z * z);
  r.m[0][1] = 2.0 * (x * y - w * z);
  r.m[0][2] = 2.0 * (x * z + w * y);
  r.m[1][0] = 2.0 * (x * y + w * z);
  r.m[1][1] = 1.0 - 2.0 * (x * x + z * z);
  r.m[1][2] = 2.0 * (y * z - w * x);
  r.m[2][0] = 2.0 * (x * z - w * y);
  r.m[2][1] = 2.0 * (y * z + w * x);
  r.m[2][2] = 1.0 - 2.0 * (x * x + y * y);
  // A = I - dR^T, y = m2 - dR^T m1.
  M3 a;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) a.m[i][j] = (i == j ? 1.0 : 0.0) - r.m[j][i];
  const Vec3d rt1{r.m[0][0] * first_.x + r.m[1][0] * first_.y + r.m[2][0] * first_.z,
                  r.m[0][1] * first_.x + r.m[1][1] * first_.y + r.m[2][1] * first_.z,
                  r.m[0][2] * first_.x + r.m[1][2] * first_.y + r.m[2][2] * first_.z};
  const Vec3d yv = second - rt1;
  // The row's noise: two readings, and the angle error of the integrated
  // rate turning a field of the Earth's size.
  const double angle = 2.0 * std::sqrt(x * x + y * y + z * z);
  const double angleError = rateError_ * elapsed_ + kScaleError * angle;
  const double noiseSq = 2.0 * kFieldNoise * kFieldNoise + kEarthField * kEarthField * angleError * angleError;
  // Old rows fade.
  const double fade = 1.0 - elapsed_ / (kMemorySeconds + elapsed_);
  for (auto& row : info6_)
    for (double& v : row) v *= fade;
  for (double& v : z6_) v *= fade;
  marginalise();
  if (angle < kMinAngle) return;
  // The bias the rotation carries: dR^T from a rate less a remaining bias b
  // turns u = dR^T (m1 - c) further by T b, so y = A c - T [u]x b. Only once
  // the offset (and so u) is known.
  double theta[6];
  double p6[6][6];
  solveAll(theta, p6);
  const Vec3d c{theta[0], theta[1], theta[2]};
  double h[3][6];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) h[i][j] = a.m[i][j];
  const bool biasToo = minInformation() > 1.0 / (kOffsetKnown * kOffsetKnown);
  const Vec3d u = biasToo ? Vec3d{rt1.x - (r.m[0][0] * c.x + r.m[1][0] * c.y + r.m[2][0] * c.z),
                                  rt1.y - (r.m[0][1] * c.x + r.m[1][1] * c.y + r.m[2][1] * c.z),
                                  rt1.z - (r.m[0][2] * c.x + r.m[1][2] * c.y + r.m[2][2] * c.z)}
                          : Vec3d{};
  // -T [u]x
  const double t = elapsed_;
  h[0][3] = 0.0;      h[0][4] = t * u.z;  h[0][5] = -t * u.y;
  h[1][3] = -t * u.z; h[1][4] = 0.0;      h[1][5] = t * u.x;
  h[2][3] = t * u.y;  h[2][4] = -t * u.x; h[2][5] = 0.0;
  // Innovation against what the rows so far know (and the uncertainty of
  // what they do not): a field change that no offset explains is the
  // environment.
  Vec3d e = yv;
  M3 s = M3::zero();
  for (int i = 0; i < 3; ++i) {
    double pred = 0.0;
    for (int k = 0; k < 6; ++k) pred += h[i][k] * theta[k];
    if (i == 0) e.x -= pred;
    if (i == 1) e.y -= pred;
    if (i == 2) e.z -= pred;
    for (int j = 0; j < 3; ++j) {
      double v = 0.0;
      for (int k = 0; k < 6; ++k)
        for (int l = 0; l < 6; ++l) v += h[i][k] * p6[k][l] * h[j][l];
      s.m[i][j] = v + (i == j ? noiseSq : 0.0);
    }
  }
  double r2 = dot(e, inverse(s) * e);
  if (!(r2 < kReject * kReject)) {
    if (++rejected_ < kRejectedRows) return;
    // Contradicted for long: start over from this row.
    clearRows();
    r2 = 0.0;
  }
  rejected_ = 0;
  const double rn = std::sqrt(r2);
  const double weight = (rn <= kHuber ? 1.0 : kHuber / rn) / noiseSq;
  const double yy[3] = {yv.x, yv.y, yv.z};
  for (int k = 0; k < 6; ++k) {
    for (int l = 0; l < 6; ++l) {
      double v = 0.0;
      for (int i = 0; i < 3; ++i) v += h[i][k] * h[i][l];
      info6_[k][l] += weight * v;
    }
    double v = 0.0;
    for (int i = 0; i < 3; ++i) v += h[i][k] * yy[i];
    z6_[k] += weight * v;
  }
  marginalise();
  ++rows_;
  // The scatter is learnt over about fifty rows (25 s).
  meanR2_ += 0.02 * ((r2 < kHuber * kHuber * 3.0 ? r2 : kHuber * kHuber * 3.0) - meanR2_);
}

void RotationEvidence::solveAll(double (&theta)[6], double (&p)[6][6]) const {
  double a[6][6];
  for (int k = 0; k < 6; ++k)
    for (int l = 0; l < 6; ++l) a[k][l] = info6_[k][l];
  for (int k = 0; k < 3; ++k) a[k][k] += 1.0 / (kNothingKnown * kNothingKnown);
  for (int k = 3; k < 6; ++k) a[k][k] += 1.0 / (kBiasPrior * kBiasPrior);
  double b[6];
  for (int k = 0; k < 6; ++k) b[k] = z6_[k];
  if (!choleskySolve<6>(a, b)) {
    for (int k = 0; k < 6; ++k) {
      theta[k] = 0.0;
      for (int l = 0; l < 6; ++l) p[k][l] = k == l ? (k < 3 ? kNothingKnown * kNothingKnown : kBiasPrior * kBiasPrior) : 0.0;
    }
    return;
  }
  for (int k = 0; k < 6; ++k) theta[k] = b[k];
  for (int col = 0; col < 6; ++col) {
    double unit[6] = {};
    unit[col] = 1.0;
    choleskySubstitute<6>(a, unit);
    for (int row = 0; row < 6; ++row) p[row][col] = unit[row];
  }
}

void RotationEvidence::marginalise() {
  // The offset's information with the bias unknown (within its prior):
  // J_cc - J_cb (J_bb + prior)^-1 J_bc, and the same for z.
  M3 jbb, jcb;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      jbb.m[i][j] = info6_[3 + i][3 + j] + (i == j ? 1.0 / (kBiasPrior * kBiasPrior) : 0.0);
      jcb.m[i][j] = info6_[i][3 + j];
    }
  const M3 inv = inverse(jbb);
  const M3 k = jcb * inv;
  const Vec3d zb{z6_[3], z6_[4], z6_[5]};
  const Vec3d kz = k * zb;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double v = info6_[i][j];
      for (int l = 0; l < 3; ++l) v -= k.m[i][l] * jcb.m[j][l];
      info_.m[i][j] = v;
    }
  z_ = Vec3d{z6_[0] - kz.x, z6_[1] - kz.y, z6_[2] - kz.z};
}

Vec3d RotationEvidence::unknownPart(const Vec3d& move, double sigma) const {
  return inverse(plusDiagonal(scaled(information(), sigma * sigma), 1.0)) * move;
}

Vec3d RotationEvidence::remainingBias() const {
  double theta[6];
  double p[6][6];
  solveAll(theta, p);
  return {theta[3], theta[4], theta[5]};
}

M3 RotationEvidence::information() const { return scaled(info_, 1.0 / noiseScale()); }

double RotationEvidence::minInformation() const {
  // Smallest eigenvalue of a symmetric positive semi-definite 3x3 matrix.
  const M3 a = information();
  const double p1 = a.m[0][1] * a.m[0][1] + a.m[0][2] * a.m[0][2] + a.m[1][2] * a.m[1][2];
  const double q = (a.m[0][0] + a.m[1][1] + a.m[2][2]) / 3.0;
  const double p2 = (a.m[0][0] - q) * (a.m[0][0] - q) + (a.m[1][1] - q) * (a.m[1][1] - q) +
                    (a.m[2][2] - q) * (a.m[2][2] - q) + 2.0 * p1;
  const double p = std::sqrt(p2 / 6.0);
  if (p < 1e-15 * (1.0 + q)) return q;
  M3 b;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) b.m[i][j] = (a.m[i][j] - (i == j ? q : 0.0)) / p;
  double r = det(b) / 2.0;
  r = r < -1.0 ? -1.0 : (r > 1.0 ? 1.0 : r);
  const double e = q + 2.0 * p * std::cos(std::acos(r) / 3.0 + 2.0943951023931953);
  return e > 0.0 ? e : 0.0;
}

Vec3d RotationEvidence::solve(const Vec3d& prior, double priorSigma) const {
  const double w = 1.0 / (priorSigma * priorSigma);
  const double k = 1.0 / noiseScale();
  return inverse(plusDiagonal(scaled(info_, k), w)) * (k * z_ + w * prior);
}

double RotationEvidence::misfitDifference(const Vec3d& a, const Vec3d& b) const {
  // sum |y - A c|^2 / noise^2 = c^T J c - 2 c^T z + const.
  const double fa = dot(a, info_ * a) - 2.0 * dot(a, z_);
  const double fb = dot(b, info_ * b) - 2.0 * dot(b, z_);
  return (fa - fb) / noiseScale();
}

double RotationEvidence::sigmaAlong(const Vec3d& u, double priorSigma) const {
  const M3 p = inverse(plusDiagonal(information(), 1.0 / (priorSigma * priorSigma)));
  const double v = dot(u, p * u);
  return v > 0.0 ? std::sqrt(v) : 0.0;
}

}  // namespace quelta::magnetic
