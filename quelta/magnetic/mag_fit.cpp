// SPDX-License-Identifier: Apache-2.0
// The fits: a linear sphere for a start, then robust Gauss-Newton over
// offset, soft iron, strength and vertical component, with the heading
// error its covariance leaves.
#include "quelta/magnetic/mag_detail.h"

namespace quelta::magnetic {

using namespace detail;

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
    // The rotations' evidence about the offset (not in a change fit, which
    // looks for a new offset the older rotations do not know).
    if (!holdShape && rotation_.rows() > 0) {
      const M3 info = rotation_.information();
      const Vec3d g = rotation_.excess(c);
      for (int p = 0; p < 3; ++p) {
        for (int q = p; q < 3; ++q) a[p][q] += info.m[p][q];
        b[p] -= g[p];
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

}  // namespace quelta::magnetic
