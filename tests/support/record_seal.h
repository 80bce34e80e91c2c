// SPDX-License-Identifier: Apache-2.0
// The calibration record's checksum, written independently of the library
// (CRC-32, reflected, polynomial 0xEDB88320, over every byte but the last
// four, stored little-endian in them): tests and fuzz targets forge records
// with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quelta::test_support {

inline uint32_t recordCrc32(const uint8_t* p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int k = 0; k < 8; ++k) c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
  }
  return ~c;
}

// Writes the checksum of a record of `size` bytes into its last four.
inline void sealRecord(uint8_t* rec, size_t size) {
  const uint32_t c = recordCrc32(rec, size - 4);
  for (int i = 0; i < 4; ++i) rec[size - 4 + i] = static_cast<uint8_t>(c >> (8 * i));
}

// Writes a version-1 record of an ellipsoid calibration at accuracy 3 with
// its 14 values (offset xyz, soft iron 00 11 22 01 02 12, strength,
// vertical, residual, heading error, coverage) little-endian, unsealed.
inline void writeEllipsoidRecord(uint8_t* rec, size_t size, const double (&values)[14]) {
  std::memset(rec, 0, size);
  std::memcpy(rec, "QMAG", 4);
  rec[4] = 1;
  rec[6] = static_cast<uint8_t>(size);
  rec[8] = 2;
  rec[9] = 3;
  for (int i = 0; i < 14; ++i) {
    uint64_t bits;
    std::memcpy(&bits, &values[i], 8);
    for (int k = 0; k < 8; ++k) rec[12 + 8 * i + k] = static_cast<uint8_t>(bits >> (8 * k));
  }
}

}  // namespace quelta::test_support
