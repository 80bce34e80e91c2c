// Log lines of the rotation vector and its accessors: only with log mode 1,
// exact texts and values; the accessors follow the latest call's mode.
#include <gtest/gtest.h>

#include "QueltaAlgo.h"
#include "tests/rotvec/rotvec_test_helpers.h"

namespace {

using rotvec_test::loggedLines;

const float kMag[3] = {0.0f, 0.5f, 0.0f};
const float kAcc[3] = {0.25f, -0.125f, 1.5f};

void readAll() {
  float rov[4], gravity[3], linear[3];
  GetCalRov(rov);
  GetQueltaGravityAcc(gravity);
  GetQueltaLinearAcc(linear);
}

TEST(RotvecLog, ModeOneLogsCallAndAccessorLines) {
  RegisterLogCallback(rotvec_test::captureLog);
  const float level[3] = {0.0f, 0.0f, 1.5f};
  CalcQueltaRotVec(kMag, level, 1);
  readAll();
  const auto& lines = loggedLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].format, "TRVQX4e20180709 InputRotVec  %f %f %f %f %f %f \n");
  EXPECT_EQ(lines[0].text, "TRVQX4e20180709 InputRotVec  0.000000 0.500000 0.000000 0.000000 0.000000 1.500000 \n");
  EXPECT_EQ(lines[1].format, "TRVQX4e InRotVec output %f %f %f %f \n");
  EXPECT_EQ(lines[1].text, "TRVQX4e InRotVec output 0.000000 0.000000 0.000000 1.000000 \n");
  EXPECT_EQ(lines[2].format, "In GetQueltaGravityAcc %f %f %f \n");
  EXPECT_EQ(lines[2].text, "In GetQueltaGravityAcc 0.000000 0.000000 1.000000 \n");
  EXPECT_EQ(lines[3].format, "In GetQueltaLinearAcc %f %f %f \n");
  EXPECT_EQ(lines[3].text, "In GetQueltaLinearAcc 0.000000 0.000000 0.500000 \n");

  loggedLines().clear();
  CalcQueltaRotVec(kMag, kAcc, 1);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "TRVQX4e20180709 InputRotVec  0.000000 0.500000 0.000000 0.250000 -0.125000 1.500000 \n");
  const std::string expected = rotvec_test::formatted("TRVQX4e InRotVec output %f %f %f %f \n", fOutRov[0],
                                                      fOutRov[1], fOutRov[2], fOutRov[3]);
  EXPECT_EQ(lines[1].text, expected);
}

TEST(RotvecLog, OtherModesAreSilent) {
  RegisterLogCallback(rotvec_test::captureLog);
  for (int mode : {0, 2, -1}) {
    CalcQueltaRotVec(kMag, kAcc, mode);
    readAll();
    EXPECT_TRUE(loggedLines().empty()) << "mode " << mode;
  }
  CalcQueltaRotVec(kMag, kAcc, 1);
  CalcQueltaRotVec(kMag, kAcc, 0);
  loggedLines().clear();
  readAll();
  EXPECT_TRUE(loggedLines().empty());
}

}  // namespace
