// SPDX-License-Identifier: Apache-2.0
// The calibration's save/restore record: 128 bytes, little-endian.
//   0  'Q' 'M' 'A' 'G'
//   4  u16 version (1)        6  u16 record size (128)
//   8  u8 model (1 sphere, 2 ellipsoid)   9  u8 accuracy   10  u16 zero
//  12  f64 offset x y z, soft iron 00 11 22 01 02 12, strength, vertical,
//      residual, heading error (degrees), coverage
// 124  u32 CRC-32 (IEEE) of bytes 0..123
#include <cmath>
#include <cstring>

#include "quelta/magnetic/mag_calibrator.h"
#include "quelta/magnetic/physical_limits.h"

namespace quelta::magnetic {
namespace {

constexpr std::size_t kCrcAt = kRecordSize - 4;
constexpr int kDoubles = 14;
constexpr double kSessionDriftGauss = 0.05;  // how far a device's own field may move between sessions

uint32_t crc32(const uint8_t* p, std::size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
  }
  return ~c;
}

void put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
void put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void putF64(uint8_t* p, double d) {
  uint64_t v;
  std::memcpy(&v, &d, 8);
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint16_t get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t get32(const uint8_t* p) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(p[i]) << (8 * i);
  return v;
}
double getF64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  double d;
  std::memcpy(&d, &v, 8);
  return d;
}

// The eigenvalues of a symmetric 3x3 matrix, smallest and largest (the
// trigonometric solution of the characteristic cubic).
void eigenvalueRange(const M3& a, double& smallest, double& largest) {
  const double offDiagonal = a.m[0][1] * a.m[0][1] + a.m[0][2] * a.m[0][2] + a.m[1][2] * a.m[1][2];
  const double q = (a.m[0][0] + a.m[1][1] + a.m[2][2]) / 3.0;
  const double d0 = a.m[0][0] - q, d1 = a.m[1][1] - q, d2 = a.m[2][2] - q;
  const double p = std::sqrt((d0 * d0 + d1 * d1 + d2 * d2 + 2.0 * offDiagonal) / 6.0);
  if (!(p > 0.0)) {
    smallest = largest = q;
    return;
  }
  M3 b = a;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) b.m[i][j] = (a.m[i][j] - (i == j ? q : 0.0)) / p;
  }
  const double r = std::fmax(-1.0, std::fmin(1.0, det(b) / 2.0));
  const double phi = std::acos(r) / 3.0;
  largest = q + 2.0 * p * std::cos(phi);
  smallest = q + 2.0 * p * std::cos(phi + 2.0943951023931957);  // + 2 pi / 3
}

// A calibration that could have come from a magnetometer on earth: soft
// iron symmetric (by the record's layout) and positive definite within a
// factor of two, the offset within a sensor's range, the strength the earth's.
bool physical(const Calibration& c) {
  double smallest = 0.0, largest = 0.0;
  eigenvalueRange(c.softIron, smallest, largest);
  return smallest >= kSoftIronMinEigenvalue && largest <= kSoftIronMaxEigenvalue &&
         norm(c.offset) < kMaxOffsetGauss && c.strength >= kEarthFieldMinGauss && c.strength <= kEarthFieldMaxGauss;
}

// Reads and checks a record without adopting it: the calibration and the
// record's doubles on success.
RecordStatus parseRecord(const uint8_t* rec, std::size_t size, Calibration& c, double (&v)[kDoubles]) {
  if (rec == nullptr || size < kRecordSize) return RecordStatus::Truncated;
  if (rec[0] != 'Q' || rec[1] != 'M' || rec[2] != 'A' || rec[3] != 'G') return RecordStatus::BadMagic;
  if (get16(rec + 4) != kRecordVersion || get16(rec + 6) != kRecordSize) return RecordStatus::OtherVersion;
  if (get32(rec + kCrcAt) != crc32(rec, kCrcAt)) return RecordStatus::BadChecksum;
  for (int i = 0; i < kDoubles; ++i) {
    v[i] = getF64(rec + 12 + 8 * i);
    if (!std::isfinite(v[i])) return RecordStatus::BadValues;
  }
  const uint8_t model = rec[8];
  const uint8_t accuracy = rec[9];
  if ((model != 1 && model != 2) || accuracy > 3 || get16(rec + 10) != 0) return RecordStatus::BadValues;
  c = Calibration{};
  c.offset = {v[0], v[1], v[2]};
  c.softIron.m[0][0] = v[3];
  c.softIron.m[1][1] = v[4];
  c.softIron.m[2][2] = v[5];
  c.softIron.m[0][1] = c.softIron.m[1][0] = v[6];
  c.softIron.m[0][2] = c.softIron.m[2][0] = v[7];
  c.softIron.m[1][2] = c.softIron.m[2][1] = v[8];
  c.strength = v[9];
  c.vertical = v[10];
  c.model = static_cast<Model>(model);
  const double d = det(c.softIron);
  bool sane = norm(c.offset) < 100.0 && c.strength > 0.02 && c.strength < 10.0 &&
              std::fabs(c.vertical) <= c.strength * 1.0001 && std::fabs(d - 1.0) < 1e-3 &&
              v[11] >= 0.0 && v[12] >= 0.0 && v[12] <= 180.0 && v[13] >= 0.0 && v[13] <= 1.0;
  for (int i = 0; i < 3; ++i) sane = sane && c.softIron.m[i][i] > 0.5 && c.softIron.m[i][i] < 2.0;
  return sane && physical(c) ? RecordStatus::Ok : RecordStatus::BadValues;
}

}  // namespace

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

RecordStatus Calibrator::save(uint8_t (&rec)[kRecordSize]) const {
  std::memset(rec, 0, kRecordSize);
  if (cal_.model == Model::None) return RecordStatus::NoCalibration;
  rec[0] = 'Q';
  rec[1] = 'M';
  rec[2] = 'A';
  rec[3] = 'G';
  put16(rec + 4, kRecordVersion);
  put16(rec + 6, static_cast<uint16_t>(kRecordSize));
  rec[8] = static_cast<uint8_t>(cal_.model);
  rec[9] = static_cast<uint8_t>(quality_.accuracy);
  const M3& w = cal_.softIron;
  const double v[kDoubles] = {cal_.offset.x, cal_.offset.y, cal_.offset.z, w.m[0][0], w.m[1][1],
                              w.m[2][2], w.m[0][1], w.m[0][2], w.m[1][2], cal_.strength,
                              cal_.vertical, quality_.residualGauss, quality_.headingErrorDeg,
                              quality_.coverage};
  for (int i = 0; i < kDoubles; ++i) putF64(rec + 12 + 8 * i, v[i]);
  put32(rec + kCrcAt, crc32(rec, kCrcAt));
  // What is saved must restore: a calibration outside what a magnetometer on
  // earth can have (a fit in a lab's coil, say) is not written.
  Calibration check;
  double values[kDoubles];
  if (parseRecord(rec, kRecordSize, check, values) != RecordStatus::Ok) {
    std::memset(rec, 0, kRecordSize);
    return RecordStatus::BadValues;
  }
  return RecordStatus::Ok;
}

RecordStatus Calibrator::restore(const uint8_t* rec, std::size_t size) {
  Calibration c;
  double v[kDoubles];
  const RecordStatus status = parseRecord(rec, size, c, v);
  if (status != RecordStatus::Ok) return status;
  const uint8_t accuracy = rec[9];

  reset();
  cal_ = c;
  restored_ = true;
  headingErrorRaw_ = v[12];
  quality_.residualGauss = v[11];
  quality_.coverage = v[13];
  // The restored offset holds the fit until the data outweigh it.
  priorOffset_ = c.offset;
  // No tighter than a device's own field may move between sessions.
  priorOffsetSigma_ = std::max(kSessionDriftGauss, std::tan(std::min(v[12], 30.0) / 57.29577951308232) * 0.5 * c.strength);
  updateQuality(nullptr);
  if (quality_.accuracy > accuracy) quality_.accuracy = accuracy;
  calChanged_ = true;
  return RecordStatus::Ok;
}

}  // namespace quelta::magnetic
