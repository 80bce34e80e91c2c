// SPDX-License-Identifier: Apache-2.0
#include "intake/sample_intake.h"

#include "core/float4.h"

namespace quelta {

namespace {

constexpr Float4 kZero4 = {0.0f, 0.0f, 0.0f, 0.0f};

}  // namespace

void SampleIntake::take(const float* acc, const float* mag, const float* probe) {
  if (!primed_) {
    // Until real samples arrive, gravity is assumed straight along z: every
    // slot gets it, and the histories then fill from their first slot.
    const SampleSet up = {{0.0f, 0.0f, 1.0f, 0.0f}, {}, {}};
    for (int32_t k = 0; k < kHistoryLength; ++k) history_.push(up);
    history_.clear();
    primed_ = true;
  }

  // The sample as a row vector times the axis matrix: each component is its
  // dot product with a column.
  const float(&m)[3][3] = settings.axisMatrix;
  const Vec3f raw = Vec3f::load(mag);
  field_ = {dot(raw, Vec3f{m[0][0], m[1][0], m[2][0]}), dot(raw, Vec3f{m[0][1], m[1][1], m[2][1]}),
            dot(raw, Vec3f{m[0][2], m[1][2], m[2][2]})};
  acc_ = Vec3f::load(acc);

  windowMoved_ = history_.full();
  SampleSet& set = history_.pushSlot();
  acc_.store(set.acc);
  field_.store(set.field);
  Vec3f::load(probe).store(set.probe);
  history_.commitPush();
  meansValid_ = false;
  if (windowMoved_) computeVariances();
}

// All 30 slots from the oldest on: while the histories fill, that is slot 0
// up, entries not yet written included.
void SampleIntake::computeMeans() const {
  Float4 accSum = kZero4;
  Float4 fieldSum = kZero4;
  const int32_t first = history_.full() ? history_.slots().nextSlot() : 0;
  auto add = [&](int32_t s) {
    accSum = accSum + load4(history_.slot(s).acc);
    fieldSum = fieldSum + load4(history_.slot(s).field);
  };
  for (int32_t s = first; s < kHistoryLength; ++s) add(s);
  for (int32_t s = 0; s < first; ++s) add(s);
  store4(accMean_, accSum / 30.0f);
  store4(fieldMean_, fieldSum / 30.0f);
  meansValid_ = true;
}

// Population variances of the acceleration and the probe, each axis about
// its mean, summed oldest to newest side by side; the means of the
// acceleration and the field are kept.
void SampleIntake::computeVariances() {
  Float4 accSum = kZero4;
  Float4 probeSum = kZero4;
  Float4 fieldSum = kZero4;
  history_.forEachOldestFirst([&](const SampleSet& e) {
    accSum = accSum + load4(e.acc);
    probeSum = probeSum + load4(e.probe);
    fieldSum = fieldSum + load4(e.field);
  });
  const Float4 accMean = accSum / 30.0f;
  const Float4 probeMean = probeSum / 30.0f;
  store4(accMean_, accMean);
  store4(fieldMean_, fieldSum / 30.0f);
  meansValid_ = true;

  accSum = probeSum = kZero4;
  history_.forEachOldestFirst([&](const SampleSet& e) {
    const Float4 dAcc = load4(e.acc) - accMean;
    const Float4 dProbe = load4(e.probe) - probeMean;
    accSum = accSum + dAcc * dAcc;
    probeSum = probeSum + dProbe * dProbe;
  });
  const Float4 accVar = accSum / 30.0f;
  const Float4 probeVar = probeSum / 30.0f;
  accVariance_ = {accVar[0], accVar[1], accVar[2]};
  probeVariance_ = {probeVar[0], probeVar[1], probeVar[2]};
}

}  // namespace quelta
