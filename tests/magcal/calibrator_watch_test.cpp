// SPDX-License-Identifier: Apache-2.0
// The calibrator's watches on the shared intake: saturation of the probe,
// the off-sphere downgrade and the restart.
#include <cmath>

#include <gtest/gtest.h>

#include "magcal_fixtures.h"

using namespace magcal_test;

TEST(CalibratorWatch, SaturationAfterElevenMovingSamplesWithAFrozenProbeAxis) {
  Rig rig;
  int calls = 0;
  auto move = [&](float probeZ, int n = 1) {
    for (int i = 0; i < n; ++i, ++calls) {
      const float acc[3] = {(calls % 2) ? 1.0f : 0.0f, 0.0f, 1.0f};  // x variance 0.25
      const float sat[3] = {0.01f * (calls % 7), 0.02f * (calls % 5), probeZ};
      rig.process(acc, sat, sat);
    }
  };
  move(0.4f, 40);
  EXPECT_EQ(rig.cal.takeSaturation(), 0);
  move(0.4f);  // the 11th watched call
  EXPECT_TRUE(rig.cal.takeSaturation() == 1 && rig.cal.takeSaturation() == 0);  // reported once
  // A still device, or every probe axis following the motion, resets the count.
  quelta::CalibrationSettings still;
  still.accMovingVariance = 0.25f;  // "at most" the threshold is still
  move(0.4f, 5);
  rig.configure(still, 0, 0, 0, 0);
  move(0.4f);
  rig.configure(0, 0, 0, 0);
  move(0.4f, 10);
  EXPECT_EQ(rig.cal.takeSaturation(), 0);
  move(0.4f);
  EXPECT_EQ(rig.cal.takeSaturation(), 1);
  move(0.4f, 10);
  move(5.0f);  // the probe's z follows: its variance stays up while the jump is in the window
  move(0.4f, 5);
  EXPECT_EQ(rig.cal.takeSaturation(), 0);
}

TEST(CalibratorWatch, OffSphereBoundaries) {
  // Downgraded or not once the histories hold (x, 0, 0) long enough, with
  // offset 0 and the given radius: at one sample per second five samples off
  // the sphere are enough, and the watch runs from the call that fills the
  // histories.
  auto downgraded = [](float x, float radius, int32_t rate) {
    quelta::CalibrationSettings s;
    s.sampleRate = rate;
    Rig rig;
    rig.configure(s, 0.0f, 0.0f, 1e-30f, radius);
    for (int i = 0; i < 29 + 4 * rate; ++i) rig.feed(x, 0.0f, 0.0f);
    EXPECT_EQ(rig.cal.accuracy(), 3);
    rig.feed(x, 0.0f, 0.0f);
    return rig.cal.accuracy() == 0;
  };
  EXPECT_FALSE(downgraded(0.2f, 1.0f, 1));  // 0.2f exceeds the double 0.2
  EXPECT_TRUE(downgraded(std::nextafter(0.2f, 0.0f), 1.0f, 1));
  EXPECT_FALSE(downgraded(3.0f, 1.0f, 1));
  EXPECT_TRUE(downgraded(std::nextafter(3.0f, 4.0f), 1.0f, 1));
  EXPECT_FALSE(downgraded(0.0f, 0.0f, 1));  // 0/0 counts as in range
  EXPECT_TRUE(downgraded(0.5f, 0.0f, 1));   // an infinite ratio does not
  EXPECT_TRUE(downgraded(0.5f, 0.5f, 0));   // no rate: at once, even on the sphere
}

TEST(CalibratorWatch, DowngradesAfterFiveSecondsOffTheSphere) {
  Rig rig;
  rig.configure(0.1f, 0.0f, 0.0f, 0.5f);
  // Ratio 3.2 from the 30th call on; one in-range sample restarts the count
  // once it reaches the middle of the history.
  auto offSphere = [&](int n) {
    for (int i = 0; i < n; ++i) rig.feed(1.7f, 0.0f, 0.0f);
  };
  offSphere(100);
  rig.feed(0.6f, 0.0f, 0.0f);
  offSphere(14 + 249);
  EXPECT_TRUE(rig.cal.accuracy() == 3 && rig.count() > 0);
  offSphere(1);  // the 250th
  EXPECT_TRUE(rig.cal.accuracy() == 0 && rig.count() == 0);  // this sample not pooled
  EXPECT_EQ(rig.cal.offset()[0], 0.1f);
}

TEST(CalibratorWatch, RestartEmptiesOnlyThePool) {
  startCapture();
  Rig rig;
  rig.configure(0.1f, 0.0f, 0.0f, 0.5f);  // refining: no pool lines
  for (int i = 0; i < 4; ++i) rig.feed(0.3f * i, 0.0f, 0.0f);
  const float next[3] = {0.0f, 0.5f, 0.0f};
  rig.process(kUp, next, next, 2);  // not a restart
  EXPECT_EQ(rig.count(), 5);
  capturedLines().clear();
  rig.process(kUp, next, next, 1, 2);  // the same call reopens the pool; silent at log mode 2
  EXPECT_TRUE(rig.count() == 1 && rig.intake.count() == 6 && capturedLines().empty());
  rig.process(kUp, next, next, 1, 0);  // one line at log mode 0
  EXPECT_EQ(capturedLines().size(), 1u);
}
