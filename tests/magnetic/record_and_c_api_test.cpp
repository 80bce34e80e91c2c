// SPDX-License-Identifier: Apache-2.0
// The save/restore record and the C interface over caller-owned state.
#include <gtest/gtest.h>

#include "tests/support/record_seal.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "quelta/magnetic/mag_calibrator.h"
#include "quelta/quelta.h"
#include "tests/support/allocation_counter.h"
#include "tools/sim/magnetic_sim.h"

namespace {

using quelta::magnetic::Calibrator;
using quelta::magnetic::kRecordSize;
using quelta::magnetic::RecordStatus;

void sealCrc(uint8_t* rec) { quelta::test_support::sealRecord(rec, kRecordSize); }

void calibrate(Calibrator& cal, double seconds = 60.0) {
  quelta::sim::SoftIronDevice dev;
  double mag[3], acc[3];
  for (double t = 0.0; t < seconds; t += 0.02) {
    dev.read(quelta::sim::unevenHandMotion(t), mag, acc);
    cal.update(t, mag, acc);
  }
}

bool sameCalibration(const Calibrator& a, const Calibrator& b) {
  const auto& x = a.calibration();
  const auto& y = b.calibration();
  return std::memcmp(&x.offset, &y.offset, sizeof x.offset) == 0 &&
         std::memcmp(&x.softIron, &y.softIron, sizeof x.softIron) == 0 && x.strength == y.strength &&
         x.model == y.model;
}

TEST(MagneticRecord, RoundTripIsExactAndLayoutFixed) {
  Calibrator cal;
  uint8_t rec[kRecordSize];
  EXPECT_EQ(cal.save(rec), RecordStatus::NoCalibration);
  calibrate(cal);
  ASSERT_EQ(cal.save(rec), RecordStatus::Ok);
  // Layout: magic, little-endian version and size, the offset x as f64 at 12.
  EXPECT_EQ(std::memcmp(rec, "QMAG", 4), 0);
  EXPECT_EQ(rec[4], 1);
  EXPECT_EQ(rec[5], 0);
  EXPECT_EQ(rec[6], 128);
  EXPECT_EQ(rec[7], 0);
  uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits |= static_cast<uint64_t>(rec[12 + i]) << (8 * i);
  double x;
  std::memcpy(&x, &bits, 8);
  EXPECT_EQ(x, cal.calibration().offset.x);

  Calibrator restored;
  ASSERT_EQ(restored.restore(rec, sizeof rec), RecordStatus::Ok);
  EXPECT_TRUE(sameCalibration(cal, restored));
  EXPECT_LE(restored.quality().accuracy, cal.quality().accuracy);
  EXPECT_GE(restored.quality().accuracy, 2);
  uint8_t again[kRecordSize];
  ASSERT_EQ(restored.save(again), RecordStatus::Ok);
  EXPECT_EQ(std::memcmp(rec + 12, again + 12, 9 * 8 + 2 * 8), 0);  // calibration values identical
}

TEST(MagneticRecord, DamagedRecordsAreRefusedAndChangeNothing) {
  Calibrator cal;
  calibrate(cal);
  uint8_t good[kRecordSize];
  ASSERT_EQ(cal.save(good), RecordStatus::Ok);

  Calibrator target;
  calibrate(target, 30.0);
  Calibrator untouched = target;

  EXPECT_EQ(target.restore(good, kRecordSize - 1), RecordStatus::Truncated);
  EXPECT_EQ(target.restore(nullptr, kRecordSize), RecordStatus::Truncated);
  // Every single flipped bit is caught.
  for (size_t bit = 0; bit < 8 * kRecordSize; ++bit) {
    uint8_t bad[kRecordSize];
    std::memcpy(bad, good, kRecordSize);
    bad[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    ASSERT_NE(target.restore(bad, kRecordSize), RecordStatus::Ok) << "bit " << bit;
  }
  uint8_t other[kRecordSize];
  std::memcpy(other, good, kRecordSize);
  other[4] = 2;
  sealCrc(other);
  EXPECT_EQ(target.restore(other, kRecordSize), RecordStatus::OtherVersion);
  std::memcpy(other, good, kRecordSize);
  other[0] = 'X';
  EXPECT_EQ(target.restore(other, kRecordSize), RecordStatus::BadMagic);
  // Right checksum, impossible values: a NaN offset, a non-unit determinant.
  std::memcpy(other, good, kRecordSize);
  const double nan = NAN;
  std::memcpy(other + 12, &nan, 8);
  sealCrc(other);
  EXPECT_EQ(target.restore(other, kRecordSize), RecordStatus::BadValues);
  std::memcpy(other, good, kRecordSize);
  const double two = 2.0;
  std::memcpy(other + 12 + 3 * 8, &two, 8);
  sealCrc(other);
  EXPECT_EQ(target.restore(other, kRecordSize), RecordStatus::BadValues);
  EXPECT_TRUE(sameCalibration(target, untouched));
  EXPECT_STRNE(quelta::magnetic::recordStatusText(RecordStatus::BadChecksum), "unknown");
}

TEST(MagneticCApi, TwoInstancesAreIndependentAndMatchSeparateRuns) {
  static quelta_mag_state a, b, alone;
  quelta_mag_init(&a);
  quelta_mag_init(&b);
  quelta_mag_init(&alone);
  quelta::sim::SoftIronDevice devA, devB, devAlone;
  devB.hardIron = {-0.5, 0.2, 0.1};
  devB.random = quelta::sim::Random(5);
  double mag[3], acc[3];
  quelta_mag_sample oa, ob, oalone;
  for (double t = 0.0; t < 40.0; t += 0.02) {
    devA.read(quelta::sim::unevenHandMotion(t), mag, acc);
    quelta_mag_update(&a, t, mag, acc, &oa);
    devAlone.read(quelta::sim::unevenHandMotion(t), mag, acc);
    quelta_mag_update(&alone, t, mag, acc, &oalone);
    ASSERT_EQ(std::memcmp(&oa, &oalone, sizeof oa), 0);
    devB.read(quelta::sim::unevenHandMotion(1.7 * t), mag, acc);
    quelta_mag_update(&b, t, mag, acc, &ob);
  }
  quelta_mag_calibration ca, cb;
  quelta_mag_get_calibration(&a, &ca);
  quelta_mag_get_calibration(&b, &cb);
  EXPECT_NEAR(ca.offset[2], 1.95, 0.01);
  EXPECT_NEAR(cb.offset[0], -0.5, 0.01);
  EXPECT_NEAR(ca.dip_deg, 62.0, 1.0);

  quelta_mag_quality q;
  quelta_mag_get_quality(&a, &q);
  EXPECT_EQ(q.accuracy, 3);
  EXPECT_EQ(q.reason, QUELTA_MAG_REASON_NONE);
  EXPECT_STREQ(quelta_mag_reason_text(QUELTA_MAG_REASON_TURN_OTHER_AXIS), "turn the device about another axis");

  // Save from one instance, restore into a fresh one: same correction.
  uint8_t rec[QUELTA_MAG_RECORD_SIZE];
  ASSERT_EQ(quelta_mag_save(&a, rec), QUELTA_MAG_RECORD_OK);
  static quelta_mag_state c;
  quelta_mag_init(&c);
  EXPECT_EQ(quelta_mag_restore(&c, rec, 10), QUELTA_MAG_RECORD_TRUNCATED);
  ASSERT_EQ(quelta_mag_restore(&c, rec, sizeof rec), QUELTA_MAG_RECORD_OK);
  const double raw[3] = {0.5, -0.1, 2.2};
  double ha[3], hc[3];
  quelta_mag_apply(&a, raw, ha);
  quelta_mag_apply(&c, raw, hc);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ha[i], hc[i]);

  // A byte copy of the state is an independent calibrator.
  static quelta_mag_state copy;
  std::memcpy(&copy, &a, sizeof a);
  devA.read(quelta::sim::unevenHandMotion(40.0), mag, acc);
  quelta_mag_update(&copy, 40.0, mag, acc, &ob);
  quelta_mag_update(&a, 40.0, mag, acc, &oa);
  EXPECT_EQ(std::memcmp(&oa, &ob, sizeof oa), 0);

  // Null pointers are ignored.
  EXPECT_EQ(quelta_mag_update(nullptr, 0.0, mag, acc, nullptr), 0);
  EXPECT_EQ(quelta_mag_update(&a, 41.0, nullptr, acc, nullptr), 0);
  quelta_mag_set_expected_field(&a, NAN, 10.0);  // clears, does not poison
  EXPECT_EQ(quelta_mag_update(&a, 41.0, mag, nullptr, &oa), 1);
  EXPECT_TRUE(std::isfinite(oa.calibrated[0]));
}

TEST(MagneticCApi, NoHeapInAnyCall) {
  // Calibration, a magnet attached (adoption), disturbance, broken samples,
  // save, restore and the texts: not one allocation.
  static quelta_mag_state s, t;
  quelta::sim::SoftIronDevice dev;
  double mag[3], acc[3];
  quelta_mag_sample out;
  quelta::test::AllocationCounter counter;
  quelta_mag_init(&s);
  quelta_mag_set_expected_field(&s, 0.48, 62.0);
  for (double time = 0.0; time < 90.0; time += 0.02) {
    if (time > 60.0) dev.hardIron = {0.5, -0.1, 2.3};
    dev.read(quelta::sim::unevenHandMotion(time), mag, acc);
    if (static_cast<int>(time * 50.0) % 97 == 0) mag[0] = NAN;
    quelta_mag_update(&s, time, mag, acc, &out);
  }
  uint8_t rec[QUELTA_MAG_RECORD_SIZE];
  quelta_mag_save(&s, rec);
  quelta_mag_init(&t);
  const int status = quelta_mag_restore(&t, rec, sizeof rec);
  quelta_mag_quality q;
  quelta_mag_get_quality(&t, &q);
  quelta_mag_reason_text(q.reason);
  EXPECT_EQ(counter.count(), 0);
  EXPECT_EQ(status, QUELTA_MAG_RECORD_OK);
}

}  // namespace
