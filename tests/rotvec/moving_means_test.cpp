// The two cascaded moving means: raw samples for calls 1 to 30, the mean of
// the newest 30 samples for calls 31 to 36, the mean of the newest six such
// means from call 37 on; each checked bit for bit against a reference that
// recomputes every mean from the full input record.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "QueltaAlgo.h"
#include "tests/rotvec/rotvec_test_helpers.h"

namespace {

using Slot = std::vector<float>;  // mag x, y, z, acc x, y, z

// Mean of record[last], record[last - 1], ... (count entries), summed newest
// first from zero.
Slot meanOfNewest(const std::vector<Slot>& record, int last, int count) {
  Slot out(6);
  for (int k = 0; k < 6; ++k) {
    float sum = 0.0f;
    for (int s = 0; s < count; ++s) sum = sum + record[last - s][k];
    out[k] = sum / static_cast<float>(count);
  }
  return out;
}

Slot changingSample(int call) {
  const double t = 0.09 * call;
  // Varied magnitudes too, so no mean is a mere rescaling.
  return {static_cast<float>(0.2 * std::sin(t) + 0.01 * call), static_cast<float>(0.3 * std::cos(t)),
          static_cast<float>(-0.4 + 0.002 * call), static_cast<float>(0.3 * std::sin(1.7 * t)),
          static_cast<float>(-0.2 + 0.1 * std::cos(t)), static_cast<float>(0.9 + 0.001 * call)};
}

TEST(RotvecMovingMeans, StagesSwitchOnAtCalls31And37) {
  movethd = 0.0f;
  std::vector<Slot> samples;
  std::vector<Slot> firstMeans;
  for (int call = 1; call <= 70; ++call) {
    const Slot x = changingSample(call);
    samples.push_back(x);
    CalcQueltaRotVec(&x[0], &x[3], 0);

    Slot expectedInput = x;
    if (call > 30) {
      firstMeans.push_back(meanOfNewest(samples, call - 1, 30));
      expectedInput = firstMeans.back();
      if (call > 36) expectedInput = meanOfNewest(firstMeans, static_cast<int>(firstMeans.size()) - 1, 6);
    }
    const auto expected = rotvec_test::firstCallOf(&expectedInput[0], &expectedInput[3]);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(fOutRov[i], expected.rov[i]) << "call " << call;
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(fGravityAcc[i], expected.gravity[i]) << "call " << call;
      // Linear acceleration always uses the call's own raw sample.
      ASSERT_EQ(fLinearAcc[i], x[3 + i] - fGravityAcc[i]) << "call " << call;
    }

    // The switch-over calls really change the result for this input.
    if (call == 31) {
      const auto raw = rotvec_test::firstCallOf(&x[0], &x[3]);
      EXPECT_NE(raw.rov[2], fOutRov[2]);
    }
    if (call == 37) {
      const Slot& m1 = firstMeans.back();
      const auto single = rotvec_test::firstCallOf(&m1[0], &m1[3]);
      EXPECT_NE(single.rov[2], fOutRov[2]);
    }
  }
}

}  // namespace
