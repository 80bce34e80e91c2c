// SPDX-License-Identifier: Apache-2.0
// Reading a recording through the replay tool's streaming reader, what every
// reading must give, accepted or refused, and the comparison of two
// readings; shared by the plain and the compressed recording targets.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "tools/replay/recording.h"

namespace quelta::fuzz {

// Bit 0: accelerometer in m/s2 (else g); bit 1: field in uT (else gauss).
inline replay::Units unitsFromByte(uint8_t byte) {
  replay::Units units;
  units.acc = (byte & 1) ? replay::AccUnit::MetresPerSecond2 : replay::AccUnit::G;
  units.mag = (byte & 2) ? replay::MagUnit::Microtesla : replay::MagUnit::Gauss;
  return units;
}

inline bool startsLikeGzip(const std::string& bytes) {
  return bytes.size() >= 2 && static_cast<uint8_t>(bytes[0]) == 0x1f && static_cast<uint8_t>(bytes[1]) == 0x8b;
}

struct Reading {
  bool opened = false;
  bool failed = false;
  std::string error;
  bool gyroColumns = false;
  bool attitudeColumns = false;
  size_t missingGyro = 0;
  size_t missingAttitude = 0;
  std::vector<replay::RecordedSample> samples;
};

inline bool finiteAsFloat(double v) { return std::isfinite(static_cast<float>(v)); }

template <size_t N>
bool sameBits(const std::array<double, N>& a, const std::array<double, N>& b) {
  return std::memcmp(a.data(), b.data(), sizeof(double) * N) == 0;
}

inline bool sameSample(const replay::RecordedSample& a, const replay::RecordedSample& b) {
  return std::memcmp(&a.t, &b.t, sizeof a.t) == 0 && sameBits(a.acc, b.acc) && sameBits(a.mag, b.mag) &&
         sameBits(a.gyro, b.gyro) && sameBits(a.attitude, b.attitude) && a.hasGyro == b.hasGyro &&
         a.hasAttitude == b.hasAttitude;
}

// What every reading must satisfy.
inline void checkReading(const Reading& r, const replay::RecordingReader& reader) {
  if (!r.opened || r.failed) {
    // A refusal says what and where: a message, a column only with a line.
    const replay::InputError& e = reader.error();
    FUZZ_CHECK(!e.message.empty() && e.line >= 0 && e.column >= 0);
    FUZZ_CHECK(e.column == 0 || e.line > 0);
  }
  if (!r.opened) {
    FUZZ_CHECK(r.samples.empty());
    return;
  }
  // A recording without a sample is refused.
  FUZZ_CHECK(r.failed || !r.samples.empty());
  FUZZ_CHECK(reader.samplesRead() == r.samples.size());
  size_t missingGyro = 0;
  size_t missingAttitude = 0;
  double previous = -INFINITY;
  for (const replay::RecordedSample& s : r.samples) {
    FUZZ_CHECK(std::isfinite(s.t) && s.t > previous);
    previous = s.t;
    for (int k = 0; k < 3; ++k) FUZZ_CHECK(finiteAsFloat(s.acc[k]) && finiteAsFloat(s.mag[k]));
    // A reference is there only with its columns, and then finite.
    FUZZ_CHECK(!s.hasGyro || r.gyroColumns);
    FUZZ_CHECK(!s.hasAttitude || r.attitudeColumns);
    for (int k = 0; k < 3; ++k) FUZZ_CHECK(std::isfinite(s.gyro[k]));
    for (int k = 0; k < 4; ++k) FUZZ_CHECK(std::isfinite(s.attitude[k]));
    if (r.gyroColumns && !s.hasGyro) ++missingGyro;
    if (r.attitudeColumns && !s.hasAttitude) ++missingAttitude;
  }
  FUZZ_CHECK(missingGyro == r.missingGyro && missingAttitude == r.missingAttitude);
}

// Reads bytes as the tool reads a file: first peeking at up to peekCount
// samples (the unit check does), then streaming every sample.
inline Reading readAll(const std::string& bytes, const replay::Units& units, size_t peekCount) {
  replay::RecordingReader reader;
  Reading r;
  r.opened = reader.openBytes(bytes, "fuzz.csv", units);
  if (r.opened) {
    r.gyroColumns = reader.hasGyroColumns();
    r.attitudeColumns = reader.hasAttitudeColumns();
    std::vector<replay::RecordedSample> peeked;
    if (peekCount > 0) {
      peeked = reader.peek(peekCount);
      FUZZ_CHECK(peeked.size() <= peekCount);
    }
    replay::RecordedSample sample;
    while (reader.next(sample)) r.samples.push_back(sample);
    // Peeking reads ahead without taking anything away.
    FUZZ_CHECK(peeked.size() <= r.samples.size());
    for (size_t i = 0; i < peeked.size(); ++i) FUZZ_CHECK(sameSample(peeked[i], r.samples[i]));
    FUZZ_CHECK(!reader.next(sample));  // the end stays the end
    r.missingGyro = reader.missingGyro();
    r.missingAttitude = reader.missingAttitude();
  }
  r.failed = reader.failed();
  if (!r.opened || r.failed) r.error = reader.error().describe();
  checkReading(r, reader);
  return r;
}

inline bool sameReading(const Reading& a, const Reading& b) {
  if (a.opened != b.opened || a.failed != b.failed || a.error != b.error || a.gyroColumns != b.gyroColumns ||
      a.attitudeColumns != b.attitudeColumns || a.missingGyro != b.missingGyro ||
      a.missingAttitude != b.missingAttitude || a.samples.size() != b.samples.size()) {
    return false;
  }
  for (size_t i = 0; i < a.samples.size(); ++i) {
    if (!sameSample(a.samples[i], b.samples[i])) return false;
  }
  return true;
}

}  // namespace quelta::fuzz
