// SPDX-License-Identifier: Apache-2.0
// The magnetic layer's C interface with arbitrary sample streams (times that
// repeat, step back or jump; NaN, infinities, zeros, huge values; a missing
// accelerometer), runs of a turning device with a chosen hard iron so that
// the fuzzer reaches calibrated, ellipsoid and changed-offset states,
// expected fields, resets, copies of the state, and records: saved ones
// (which must restore exactly), damaged ones and arbitrary bytes (which are
// refused or restore to a usable state). Every output must stay finite and in
// range.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "fuzz/fuzz_input.h"
#include "quelta/quelta_magnetic.h"
#include "tools/sim/device_sim.h"

namespace {

using quelta::fuzz::FuzzInput;

constexpr int kSampleBudget = 500;

bool finite3(const double* v) { return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]); }

void checkState(const quelta_mag_state* s) {
  quelta_mag_calibration c;
  quelta_mag_get_calibration(s, &c);
  FUZZ_CHECK(finite3(c.offset) && std::isfinite(c.strength) && std::isfinite(c.dip_deg));
  for (double v : c.soft_iron) FUZZ_CHECK(std::isfinite(v));
  FUZZ_CHECK(c.model >= QUELTA_MAG_MODEL_NONE && c.model <= QUELTA_MAG_MODEL_ELLIPSOID);
  quelta_mag_quality q;
  quelta_mag_get_quality(s, &q);
  FUZZ_CHECK(q.accuracy >= 0 && q.accuracy <= 3);
  FUZZ_CHECK(q.reason >= 0 && q.reason <= 5);
  FUZZ_CHECK(std::isfinite(q.heading_error_deg) && q.heading_error_deg >= 0.0 && q.heading_error_deg <= 180.0);
  FUZZ_CHECK(std::isfinite(q.coverage) && q.coverage >= 0.0 && q.coverage <= 1.0);
  FUZZ_CHECK(std::isfinite(q.residual_gauss) && std::isfinite(q.fitted_strength));
  FUZZ_CHECK(quelta_mag_reason_text(q.reason) != nullptr);
}

void checkSample(const quelta_mag_sample& o, int valid) {
  FUZZ_CHECK(o.valid == valid);
  FUZZ_CHECK(o.accuracy >= 0 && o.accuracy <= 3);
  FUZZ_CHECK(std::isfinite(o.disturbance) && o.disturbance >= 0.0);
  FUZZ_CHECK(o.disturbed == 0 || o.disturbed == 1);
  if (valid) FUZZ_CHECK(finite3(o.calibrated) && std::isfinite(o.strength) && std::isfinite(o.dip_deg));
}

struct Run {
  quelta_mag_state a, b;
  double t = 0.0;
  int samplesLeft = kSampleBudget;

  void sample(quelta_mag_state* s, const double* mag, const double* acc) {
    quelta_mag_sample o;
    const int valid = quelta_mag_update(s, t, mag, acc, &o);
    checkSample(o, valid);
    --samplesLeft;
  }

  void step(FuzzInput& in) {
    switch (in.byte() % 6) {
      case 0: t += 0.02; break;
      case 1: break;                                  // repeated
      case 2: t -= 0.01 * (in.byte() + 1); break;     // backwards
      case 3: t += 0.5 * in.byte(); break;            // gap
      case 4: t = in.value(); break;                  // anything, NaN included
      default: t += 0.001 * in.byte(); break;
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  static Run run;  // large; reset for every input
  run.t = 0.0;
  run.samplesLeft = kSampleBudget;
  quelta_mag_init(&run.a);
  quelta_mag_init(&run.b);
  quelta_mag_state* s = &run.a;

  while (!in.exhausted() && run.samplesLeft > 0) {
    switch (in.byte() % 9) {
      case 0:
      case 1: {  // one arbitrary sample
        run.step(in);
        double mag[3], acc[3];
        for (double& v : mag) v = in.value();
        for (double& v : acc) v = in.value();
        run.sample(s, in.byte() % 2 ? mag : nullptr, in.byte() % 4 ? acc : nullptr);
        break;
      }
      case 2: {  // a turning device with a chosen hard iron and field
        quelta::sim::Device dev;
        dev.hardIron = {in.intIn(-4000, 4000) * 1e-3, in.intIn(-4000, 4000) * 1e-3, in.intIn(-6000, 6000) * 1e-3};
        dev.field.strengthGauss = 0.2 + in.byte() * 0.003;
        dev.field.inclinationDeg = in.intIn(-90, 90);
        dev.magNoiseGauss = in.byte() * 1e-4;
        const int n = 20 + 2 * in.byte();
        const double dt = 0.002 + in.byte() * 0.0005;
        const double phase = in.byte();
        for (int i = 0; i < n && run.samplesLeft > 0; ++i) {
          run.t += dt;
          const quelta::sim::SensorSample r = dev.read(quelta::sim::handHeldMotion(phase + i * dt));
          const double mag[3] = {r.mag[0], r.mag[1], r.mag[2]};
          const double acc[3] = {r.acc[0], r.acc[1], r.acc[2]};
          run.sample(s, mag, acc);
        }
        break;
      }
      case 3:
        quelta_mag_set_expected_field(s, in.value(), in.value());
        break;
      case 4: {  // save and restore: exact, or refused when nothing to save
        uint8_t rec[QUELTA_MAG_RECORD_SIZE];
        const int saved = quelta_mag_save(s, rec);
        if (saved == QUELTA_MAG_RECORD_OK) {
          quelta_mag_state* other = s == &run.a ? &run.b : &run.a;
          FUZZ_CHECK(quelta_mag_restore(other, rec, sizeof rec) == QUELTA_MAG_RECORD_OK);
          const double raw[3] = {0.3, -0.2, 0.9};
          double x[3], y[3];
          quelta_mag_apply(s, raw, x);
          quelta_mag_apply(other, raw, y);
          FUZZ_CHECK(std::memcmp(x, y, sizeof x) == 0);
          // One damaged byte is always refused.
          const uint8_t at = in.byte() % QUELTA_MAG_RECORD_SIZE;
          const uint8_t flip = static_cast<uint8_t>(in.byte() | 1u);
          rec[at] ^= flip;
          FUZZ_CHECK(quelta_mag_restore(other, rec, sizeof rec) != QUELTA_MAG_RECORD_OK);
        } else {
          // Nothing to save, or a calibration that restore would refuse (a fit in
          // a field no magnetometer on earth sees): never half a record.
          FUZZ_CHECK(saved == QUELTA_MAG_RECORD_NO_CALIBRATION || saved == QUELTA_MAG_RECORD_BAD_VALUES);
          for (uint8_t b : rec) FUZZ_CHECK(b == 0);
        }
        break;
      }
      case 5: {  // arbitrary bytes as a record
        uint8_t rec[QUELTA_MAG_RECORD_SIZE + 8];
        const size_t n = in.byte() % sizeof rec;
        for (size_t i = 0; i < n; ++i) rec[i] = in.byte();
        const int status = quelta_mag_restore(s, rec, n);
        FUZZ_CHECK(status >= QUELTA_MAG_RECORD_OK && status <= QUELTA_MAG_RECORD_BAD_VALUES);
        FUZZ_CHECK(quelta_mag_record_text(status) != nullptr);
        break;
      }
      case 6:
        quelta_mag_reset(s);
        break;
      case 7:  // continue on a byte copy, or switch instance
        if (in.byte() % 2) std::memcpy(s == &run.a ? &run.b : &run.a, s, sizeof *s);
        s = s == &run.a ? &run.b : &run.a;
        break;
      default: {  // a short still period with dead-sensor zeros
        const double zero[3] = {0.0, 0.0, 0.0};
        const double acc[3] = {0.0, 0.0, 1.0};
        for (int i = 0; i < 20; ++i) {
          run.t += 0.02;
          run.sample(s, zero, acc);
        }
        break;
      }
    }
    checkState(s);
  }
  return 0;
}
