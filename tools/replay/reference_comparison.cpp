#include "tools/replay/reference_comparison.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

#include "tools/replay/attitude_math.h"

namespace quelta::replay {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Minimises a cost over a full turn: a coarse scan, then ever finer scans
// around the best point. Robust against the local minima of angle costs.
double minimiseOverCircle(const std::function<double(double)>& cost) {
  double best = 0.0;
  double bestCost = cost(0.0);
  for (double a = -180.0; a < 180.0; a += 1.0) {
    const double c = cost(a);
    if (c < bestCost) {
      bestCost = c;
      best = a;
    }
  }
  for (double step = 0.1; step >= 1e-4; step /= 10.0) {
    const double centre = best;
    for (int k = -10; k <= 10; ++k) {
      const double a = centre + k * step;
      const double c = cost(a);
      if (c < bestCost) {
        bestCost = c;
        best = a;
      }
    }
  }
  return wrapDeg(best);
}

bool isUsable(const std::array<float, 4>& q) {
  const double n = static_cast<double>(q[0]) * q[0] + static_cast<double>(q[1]) * q[1] +
                   static_cast<double>(q[2]) * q[2] + static_cast<double>(q[3]) * q[3];
  return std::isfinite(n) && n > 0.5;
}

Quat fromLibraryOrder(const std::array<float, 4>& xyzw) {
  return {xyzw[3], xyzw[0], xyzw[1], xyzw[2]};
}

GyroComparison compareGyro(const Recording& recording, const std::vector<ReplayRow>& rows,
                           const std::vector<bool>& selected) {
  GyroComparison result;
  std::array<double, 3> sumAxis{};
  double sum = 0.0;
  double sumReference = 0.0;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!selected[i]) continue;
    ++result.count;
    double error2 = 0.0;
    double reference2 = 0.0;
    for (int k = 0; k < 3; ++k) {
      const double reference = recording.samples[i].gyro[k];
      const double e = static_cast<double>(rows[i].vgyro[k]) - reference;
      sumAxis[k] += e * e;
      error2 += e * e;
      reference2 += reference * reference;
    }
    sum += error2;
    sumReference += reference2;
  }
  const double n = static_cast<double>(result.count);
  for (int k = 0; k < 3; ++k) result.rmsAxis[k] = std::sqrt(sumAxis[k] / n);
  result.rms = std::sqrt(sum / n);
  result.referenceRms = std::sqrt(sumReference / n);
  return result;
}

void summarise(const std::vector<double>& errors, AngleComparison& out) {
  std::vector<double> magnitudes;
  double sum = 0.0;
  for (double e : errors) {
    if (std::isnan(e)) continue;
    sum += e * e;
    magnitudes.push_back(std::fabs(e));
  }
  out.count = magnitudes.size();
  if (magnitudes.empty()) return;
  out.rmsDeg = std::sqrt(sum / static_cast<double>(out.count));
  out.maxDeg = *std::max_element(magnitudes.begin(), magnitudes.end());
  std::nth_element(magnitudes.begin(), magnitudes.begin() + magnitudes.size() / 2, magnitudes.end());
  out.medianDeg = magnitudes[magnitudes.size() / 2];
}

}  // namespace

double bestHeadingAlignment(const std::vector<std::array<double, 4>>& reference,
                            const std::vector<std::array<double, 4>>& estimate) {
  // Differences in the world frame: reference = difference * estimate.
  std::vector<Quat> differences;
  differences.reserve(reference.size());
  for (size_t i = 0; i < reference.size(); ++i) {
    differences.push_back(multiply(reference[i], conjugate(estimate[i])));
  }
  return minimiseOverCircle([&differences](double alignment) {
    const Quat undo = conjugate(headingRotation(alignment));
    double sum = 0.0;
    for (const Quat& d : differences) {
      const double angle = rotationAngleDeg(multiply(undo, d));
      sum += angle;
    }
    return sum;
  });
}

double bestAngleOffset(const std::vector<double>& reference, const std::vector<double>& estimate) {
  return minimiseOverCircle([&](double offset) {
    double sum = 0.0;
    for (size_t i = 0; i < reference.size(); ++i) {
      sum += std::fabs(wrapDeg(reference[i] - estimate[i] - offset));
    }
    return sum;
  });
}

ReferenceComparison compareWithReference(const Recording& recording,
                                         const std::vector<ReplayRow>& rows) {
  ReferenceComparison result;
  // Before the calibration is complete the field still carries the hard-iron
  // offset, and every output built on it is off: compare the calibrated part.
  std::vector<bool> selected(rows.size(), false);
  for (size_t i = 0; i < rows.size(); ++i) selected[i] = rows[i].accuracy == 3;
  result.calibratedOnly = std::find(selected.begin(), selected.end(), true) != selected.end();
  if (!result.calibratedOnly) selected.assign(rows.size(), true);

  if (recording.hasGyro && !rows.empty()) result.gyro = compareGyro(recording, rows, selected);
  if (!recording.hasAttitude || rows.empty()) return result;

  // Rotation vector.
  std::vector<Quat> references;
  std::vector<Quat> estimates;
  std::vector<size_t> compared;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!selected[i] || !isUsable(rows[i].rotVec)) continue;
    references.push_back(recording.samples[i].attitude);
    estimates.push_back(fromLibraryOrder(rows[i].rotVec));
    compared.push_back(i);
  }
  AngleComparison rotationVector;
  result.rotationVectorErrorDeg.assign(rows.size(), kNaN);
  if (!compared.empty()) {
    rotationVector.alignmentDeg = bestHeadingAlignment(references, estimates);
    const Quat align = headingRotation(rotationVector.alignmentDeg);
    for (size_t j = 0; j < compared.size(); ++j) {
      const Quat aligned = multiply(align, estimates[j]);
      result.rotationVectorErrorDeg[compared[j]] =
          rotationAngleDeg(multiply(references[j], conjugate(aligned)));
    }
  }
  summarise(result.rotationVectorErrorDeg, rotationVector);
  result.rotationVector = rotationVector;

  // Azimuth, where the device is not tilted too far for it to mean anything.
  std::vector<Angles> angles;
  std::vector<double> referenceAzimuth;
  std::vector<double> libraryAzimuth;
  compared.clear();
  for (size_t i = 0; i < rows.size(); ++i) {
    angles.push_back(anglesOf(recording.samples[i].attitude));
    if (!selected[i] || angles.back().tiltDeg > kAzimuthMaxTiltDeg) continue;
    referenceAzimuth.push_back(angles.back().azimuth);
    libraryAzimuth.push_back(rows[i].orientation[0]);
    compared.push_back(i);
  }
  AngleComparison azimuth;
  result.azimuthErrorDeg.assign(rows.size(), kNaN);
  if (!compared.empty()) {
    azimuth.alignmentDeg = bestAngleOffset(referenceAzimuth, libraryAzimuth);
    for (size_t j = 0; j < compared.size(); ++j) {
      result.azimuthErrorDeg[compared[j]] =
          wrapDeg(libraryAzimuth[j] + azimuth.alignmentDeg - referenceAzimuth[j]);
    }
  }
  summarise(result.azimuthErrorDeg, azimuth);
  result.azimuth = azimuth;

  for (const Angles& a : angles) {
    double magneticAzimuth = a.azimuth - azimuth.alignmentDeg;
    magneticAzimuth -= 360.0 * std::floor(magneticAzimuth / 360.0);
    result.referenceAngles.push_back({magneticAzimuth, a.pitch, a.roll});
  }
  return result;
}


Quat northFromField(const Vec3& worldField) {
  // Counter-clockwise turn that takes the field's horizontal direction onto +y.
  const double angle = std::atan2(worldField[0], worldField[1]);
  return {std::cos(0.5 * angle), 0.0, 0.0, std::sin(0.5 * angle)};
}

double headingErrorDeg(const Quat& reference, const Quat& estimate) {
  const Quat e = multiply(reference, conjugate(estimate));
  return wrapDeg(2.0 * std::atan2(e[3], e[0]) * 180.0 / 3.14159265358979323846);
}

double tiltErrorDeg(const Quat& reference, const Quat& estimate) {
  const Vec3 a = rotate(conjugate(reference), {0.0, 0.0, 1.0});
  const Vec3 b = rotate(conjugate(estimate), {0.0, 0.0, 1.0});
  const Vec3 c{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
  const double s = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
  return std::atan2(s, a[0] * b[0] + a[1] * b[1] + a[2] * b[2]) * 180.0 / 3.14159265358979323846;
}

double attitudeErrorDeg(const Quat& reference, const Quat& estimate, double alignmentDeg) {
  return rotationAngleDeg(multiply(conjugate(reference), multiply(headingRotation(alignmentDeg), estimate)));
}

std::vector<Vec3> referenceRates(const std::vector<double>& t, const std::vector<Quat>& reference) {
  const size_t n = reference.size();
  std::vector<Vec3> rates(n, Vec3{kNaN, kNaN, kNaN});
  auto usable = [&](size_t i) {
    const Quat& q = reference[i];
    return std::isfinite(q[0] + q[1] + q[2] + q[3]);
  };
  for (size_t i = 1; i + 1 < n; ++i) {
    if (!usable(i - 1) || !usable(i + 1)) continue;
    const double dt = t[i + 1] - t[i - 1];
    if (!(dt > 0.0)) continue;
    Quat d = multiply(conjugate(reference[i - 1]), reference[i + 1]);
    if (d[0] < 0.0) d = {-d[0], -d[1], -d[2], -d[3]};
    const double v = std::sqrt(d[1] * d[1] + d[2] * d[2] + d[3] * d[3]);
    const double angle = 2.0 * std::atan2(v, d[0]);
    const double scale = v > 1e-12 ? angle / v / dt : 2.0 / dt;
    rates[i] = {d[1] * scale, d[2] * scale, d[3] * scale};
  }
  return rates;
}

}  // namespace quelta::replay
