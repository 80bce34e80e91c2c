// SPDX-License-Identifier: Apache-2.0
// The compass's C interface driven as a hostile host would: short sequences
// of update calls (raw and host-calibrated) with times that repeat, step
// back, jump or are not finite; values that are NaN, infinite, huge or
// plausible; null field and gyroscope; settings; save and restore (saved
// records, damaged ones, a good calibration to reach calibrated states, and
// arbitrary bytes) and resets in between. Checked after every call: the
// return code is one the header documents, a refused sample set left the
// state bit for bit as it was, and every output is finite and in range.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "fuzz/fuzz_input.h"
#include "tests/support/record_seal.h"
#include "quelta/quelta_compass.h"

namespace {

using quelta::fuzz::FuzzInput;

constexpr int kCallBudget = 32;  // calls per input: keeps an execution well under a millisecond

// A record the fuzzer may tamper with: a good ellipsoid calibration whose
// values (and checksum, when asked) it can change.
void makeRecord(FuzzInput& in, uint8_t* rec) {
  double v[14] = {0.12, -0.25, 0.08, 1.0, 1.0, 1.0, 0.0, 0.0, 0.0, 0.5, 0.43, 0.004, 2.0, 0.9};
  const int changes = in.byte() % 4;
  for (int i = 0; i < changes; ++i) v[in.byte() % 14] = in.value();
  quelta::test_support::writeEllipsoidRecord(rec, QUELTA_MAG_RECORD_SIZE, v);
  if (in.byte() % 8 == 0) rec[in.byte() % QUELTA_MAG_RECORD_SIZE] ^= static_cast<uint8_t>(1u << (in.byte() % 8));
  quelta::test_support::sealRecord(rec, QUELTA_MAG_RECORD_SIZE);
}

bool finiteAll(const double* v, int n) {
  for (int i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}

void checkOutput(const quelta_compass* c) {
  quelta_compass_output o;
  FUZZ_CHECK(quelta_compass_get_output(c, &o) == 0);
  FUZZ_CHECK(finiteAll(o.quaternion, 4) && finiteAll(o.gravity, 3) && finiteAll(o.linear_acceleration, 3) &&
             finiteAll(o.angular_rate, 3) && finiteAll(o.gyro_bias, 3) && std::isfinite(o.t));
  const double n = std::sqrt(o.quaternion[0] * o.quaternion[0] + o.quaternion[1] * o.quaternion[1] +
                             o.quaternion[2] * o.quaternion[2] + o.quaternion[3] * o.quaternion[3]);
  FUZZ_CHECK(std::fabs(n - 1.0) < 1e-6);
  FUZZ_CHECK(o.azimuth_deg >= 0.0 && o.azimuth_deg < 360.0);
  FUZZ_CHECK(o.pitch_deg > -180.0 && o.pitch_deg <= 180.0);
  FUZZ_CHECK(o.roll_deg >= -90.0 && o.roll_deg <= 90.0);
  FUZZ_CHECK(o.heading_accuracy_deg >= 0.0 && o.heading_accuracy_deg <= 180.0);
  FUZZ_CHECK(o.accuracy >= 0 && o.accuracy <= 3);
  quelta_mag_quality q;
  FUZZ_CHECK(quelta_compass_get_calibration_quality(c, &q) == 0);
  FUZZ_CHECK(q.accuracy >= 0 && q.accuracy <= 3 && std::isfinite(q.heading_error_deg));
  quelta_mag_calibration cal;
  FUZZ_CHECK(quelta_compass_get_calibration(c, &cal) == 0);
  FUZZ_CHECK(finiteAll(cal.offset, 3) && finiteAll(cal.soft_iron, 9) && std::isfinite(cal.strength));
  quelta_mag_sample s;
  FUZZ_CHECK(quelta_compass_get_field(c, &s) == 0);
}

// Accepted, refused as faulty, or refused as contradicting the units.
bool isUpdateCode(int32_t rc) {
  return rc == 0 || (rc <= QUELTA_COMPASS_ERROR_TIME && rc >= QUELTA_COMPASS_ERROR_QUALITY) ||
         (rc <= QUELTA_COMPASS_ERROR_TIME_UNIT && rc >= QUELTA_COMPASS_ERROR_FIELD_UNIT);
}
bool isFaultCode(int32_t rc) { return rc <= QUELTA_COMPASS_ERROR_TIME && rc >= QUELTA_COMPASS_ERROR_QUALITY; }

struct Host {
  quelta_compass c;
  quelta_compass before;  // the state before a call that may be refused
  double t = 0.0;

  // Mostly a steady clock; now and then a repeat, a step back, a jump or
  // anything at all.
  double nextTime(FuzzInput& in) {
    const uint8_t b = in.byte();
    hostile = b >= 230;
    if (b < 170) return t += 0.02;
    if (b < 190) return t;
    if (b < 210) return t -= 0.02 * (1 + in.byte());
    if (b < 230) return t += 0.5 * (1 + in.byte());
    return t = in.value();
  }

  bool hostile = false;  // this call has a value the door may refuse

  // A plausible reading of a slowly turning device, or the fuzzer's value.
  void reading(FuzzInput& in, double* v, const double* plausible) {
    const uint8_t mode = in.byte();
    hostile = hostile || mode >= 160;
    for (int i = 0; i < 3; ++i) v[i] = mode < 160 ? plausible[i] : (mode < 220 ? plausible[i] + in.value() : in.value());
  }

  void update(FuzzInput& in, bool calibrated) {
    const double time = nextTime(in);
    hostile = hostile || !std::isfinite(time);
    const double phase = 0.7 * t;
    const double accP[3] = {0.1 * std::sin(phase), 0.1 * std::cos(phase), 0.99};
    const double fieldP[3] = {0.22 * std::sin(phase) + (calibrated ? 0.0 : 0.12),
                              0.22 * std::cos(phase) - (calibrated ? 0.0 : 0.25), -0.43};
    const double gyroP[3] = {0.01, -0.02, 0.7};
    double acc[3], field[3], gyro[3];
    reading(in, acc, accP);
    reading(in, field, fieldP);
    reading(in, gyro, gyroP);
    const uint8_t present = in.byte();
    const double* f = (present & 1) ? nullptr : field;
    const double* g = (present & 2) ? nullptr : gyro;
    // Only a call that may be refused needs the copy to compare with.
    const bool compare = hostile || (present & 4);
    if (compare) std::memcpy(&before, &c, sizeof c);
    int32_t rc;
    if (calibrated) {
      quelta_compass_field_quality q{0, 3, 0.0, 1.0};
      if (present & 4) {
        q.disturbed = in.byte() & 1;
        q.calibration_accuracy = in.count();
        q.disturbance_score = in.value();
        q.calibration_heading_error_deg = in.value();
      }
      rc = quelta_compass_update_calibrated(&c, time, acc, f, (present & 8) ? nullptr : &q, g);
    } else {
      rc = quelta_compass_update(&c, time, acc, f, g);
    }
    FUZZ_CHECK(isUpdateCode(rc));
    // (A plausible raw field can still be refused under an odd restored
    // calibration; those calls are not compared.)
    // (The units' checks keep their own running means: only a sample set
    // refused as faulty must leave the whole state as it was.)
    if (isFaultCode(rc) && compare) FUZZ_CHECK(std::memcmp(&before, &c, sizeof c) == 0);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  static Host host;  // 48 KiB: not on the fuzzer's stack
  host.t = 0.0;
  FUZZ_CHECK(quelta_compass_init(&host.c) == 0);
  uint8_t rec[QUELTA_MAG_RECORD_SIZE];
  for (int call = 0; call < kCallBudget && !in.exhausted(); ++call) {
    const uint8_t op = in.byte();
    if (op < 150) {
      host.update(in, false);
    } else if (op < 180) {
      host.update(in, true);
    } else if (op < 195) {
      makeRecord(in, rec);
      const int32_t rc = quelta_compass_restore_calibration(&host.c, rec, in.byte() < 240 ? sizeof rec : in.byte());
      FUZZ_CHECK(rc >= QUELTA_MAG_RECORD_OK && rc <= QUELTA_MAG_RECORD_BAD_VALUES);
    } else if (op < 205) {
      // A saved record restores, and saves again to the same bytes (a
      // calibration restore would refuse is not saved at all).
      const int32_t rc = quelta_compass_save_calibration(&host.c, rec);
      FUZZ_CHECK(rc == QUELTA_MAG_RECORD_OK || rc == QUELTA_MAG_RECORD_NO_CALIBRATION || rc == QUELTA_MAG_RECORD_BAD_VALUES);
      if (rc == QUELTA_MAG_RECORD_OK) {
        FUZZ_CHECK(quelta_compass_restore_calibration(&host.c, rec, sizeof rec) == QUELTA_MAG_RECORD_OK);
        uint8_t again[QUELTA_MAG_RECORD_SIZE];
        FUZZ_CHECK(quelta_compass_save_calibration(&host.c, again) == QUELTA_MAG_RECORD_OK);
        FUZZ_CHECK(std::memcmp(rec + 12, again + 12, 9 * 8) == 0);  // offset and soft iron
      }
    } else if (op < 215) {
      for (uint8_t& b : rec) b = in.byte();
      const int32_t rc = quelta_compass_restore_calibration(&host.c, rec, sizeof rec);
      FUZZ_CHECK(rc >= QUELTA_MAG_RECORD_OK && rc <= QUELTA_MAG_RECORD_BAD_VALUES);
    } else if (op < 228) {
      const double d = in.value();
      const int32_t rc = quelta_compass_set_declination(&host.c, d);
      FUZZ_CHECK(rc == (std::isfinite(d) && std::fabs(d) <= 180.0 ? 0 : QUELTA_COMPASS_ERROR_SETTING));
    } else if (op < 240) {
      const int32_t rc = quelta_compass_set_expected_field(&host.c, in.value(), in.value());
      FUZZ_CHECK(rc == 0 || rc == QUELTA_COMPASS_ERROR_SETTING);
    } else if (op < 248) {
      FUZZ_CHECK(quelta_compass_reset(&host.c) == 0);
    } else {
      // Null arguments are refused, never followed.
      const double a[3] = {0.0, 0.0, 1.0};
      FUZZ_CHECK(quelta_compass_update(&host.c, host.t, nullptr, a, a) == -1);
      FUZZ_CHECK(quelta_compass_update(nullptr, host.t, a, a, a) == -1);
      FUZZ_CHECK(quelta_compass_get_output(&host.c, nullptr) == -1);
    }
    checkOutput(&host.c);
  }
  return 0;
}
