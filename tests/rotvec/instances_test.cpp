// Independent instances own their outputs and threshold; the exported
// objects belong to the process-wide instance alone.
#include <gtest/gtest.h>

#include "QueltaAlgo.h"
#include "rotvec/rotation_vector.h"
#include "tests/rotvec/rotvec_test_helpers.h"

namespace {

TEST(RotvecInstances, OwnedInstanceIsIndependentOfTheExportedObjects) {
  RegisterLogCallback(rotvec_test::captureLog);
  quelta::OwnedRotationVector own, twin;
  EXPECT_EQ(own.moveThreshold, 0.005f);
  movethd = 0.0f;  // must not reach the owned instances
  for (int call = 0; call < 40; ++call) {
    const float mag[3] = {0.3f - 0.002f * call, 0.2f, -0.4f}, acc[3] = {0.1f, 0.0f, 1.0f};
    own.fusion.update(mag, acc, call == 39 ? 1 : 0);
    twin.fusion.update(mag, acc, 0);
    CalcQueltaRotVec(mag, acc, 0);
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(own.rov[i], twin.rov[i]);
  // Same inputs, but the exported threshold 0 published later small moves.
  EXPECT_NE(own.rov[2], fOutRov[2]);
  EXPECT_EQ(own.gravity[2], fGravityAcc[2]);

  // The owned instance logged its two lines in mode 1; the exported
  // accessors follow the process-wide instance's mode (0) and stay silent.
  ASSERT_EQ(rotvec_test::loggedLines().size(), 2u);
  float gravity[3];
  GetQueltaGravityAcc(gravity);
  EXPECT_EQ(rotvec_test::loggedLines().size(), 2u);
  own.fusion.copyGravity(gravity);
  EXPECT_EQ(rotvec_test::loggedLines().size(), 3u);

  quelta::OwnedRotationVector untouched;
  const float mag[3] = {0.3f, 0.2f, -0.4f}, acc[3] = {0.1f, 0.0f, 1.0f};
  const float before[4] = {fOutRov[0], fOutRov[1], fOutRov[2], fOutRov[3]};
  untouched.fusion.update(mag, acc, 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(fOutRov[i], before[i]);
}

}  // namespace
