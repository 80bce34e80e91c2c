// Independent instances own their outputs and threshold; the exported
// objects belong to the process-wide instance alone.
#include <gtest/gtest.h>

#include "QueltaAlgo.h"
#include "rotvec/rotation_vector.h"
#include "tests/rotvec/rotvec_test_helpers.h"

namespace {

TEST(RotvecInstances, OwnedInstanceLeavesExportedObjectsAlone) {
  RegisterLogCallback(rotvec_test::captureLog);
  quelta::OwnedRotationVector own;
  EXPECT_EQ(own.moveThreshold, 0.005f);
  movethd = 0.0f;  // the exported threshold must not reach the owned instance
  for (int call = 0; call < 40; ++call) {
    const float mag[3] = {0.3f - 0.01f * call, 0.2f, -0.4f};
    const float acc[3] = {0.1f, 0.0f, 1.0f};
    own.fusion.update(mag, acc, call == 39 ? 1 : 0);
  }
  for (float v : fOutRov) EXPECT_EQ(v, 0.0f);
  for (float v : fGravityAcc) EXPECT_EQ(v, 0.0f);
  for (float v : fLinearAcc) EXPECT_EQ(v, 0.0f);
  EXPECT_EQ(movethd, 0.0f);
  EXPECT_NE(own.rov[3], 0.0f);
  EXPECT_NE(own.gravity[2], 0.0f);

  // The owned instance logged in mode 1; the exported accessors follow the
  // process-wide instance's mode (still 0) and stay silent.
  const size_t logged = rotvec_test::loggedLines().size();
  EXPECT_EQ(logged, 2u);
  float gravity[3];
  GetQueltaGravityAcc(gravity);
  EXPECT_EQ(rotvec_test::loggedLines().size(), logged);
  float ownGravity[3];
  own.fusion.copyGravity(ownGravity);
  EXPECT_EQ(rotvec_test::loggedLines().size(), logged + 1);
  EXPECT_EQ(ownGravity[2], own.gravity[2]);
}

// The same inputs give the same outputs on both kinds of instance.
TEST(RotvecInstances, DefaultAndOwnedInstancesAgree) {
  quelta::OwnedRotationVector own;
  for (int call = 0; call < 50; ++call) {
    const float mag[3] = {0.3f - 0.02f * call, 0.2f, -0.4f};
    const float acc[3] = {0.1f, 0.01f * call, 1.0f};
    CalcQueltaRotVec(mag, acc, 0);
    own.fusion.update(mag, acc, 0);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(own.rov[i], fOutRov[i]) << call;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(own.linear[i], fLinearAcc[i]) << call;
  }
}

}  // namespace
