// SPDX-License-Identifier: Apache-2.0
// What include/QueltaAlgo.h promises a host about set-up and logging, checked
// through the exported functions: AlgoInitial is optional because the
// library starts with the documented arrays, and the lines listed as
// ignoring the log mode are exactly the ones a silenced host still gets.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "QueltaAlgo.h"
#include "interface/compass.h"
#include "tests/support/log_capture.h"
#include "tools/sim/device_sim.h"

namespace {

// The defaults as the header states them.
const float kAxis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kNoStoredCalibration[4] = {0.0f, 0.0f, 0.0f, 0.5f};
const float kPool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
const float kThresholds[3] = {0.1f, 2e-5f, 2e-4f};
const int32_t kParaC[3] = {20, 11, 8};

void freshCalibrationAndOrientation() { quelta::defaultCompass() = quelta::Compass{}; }

// A minute of a device turned in the hand at 50 Hz through calibration and
// orientation; every output of every call, as bits.
std::vector<uint32_t> handHeldMinute(int32_t logMode) {
  quelta::sim::Device device;
  std::vector<uint32_t> bits;
  auto keep = [&bits](const float* v, int n) {
    for (int i = 0; i < n; ++i) {
      uint32_t b;
      std::memcpy(&b, &v[i], sizeof b);
      bits.push_back(b);
    }
  };
  for (int i = 0; i < 3000; ++i) {
    const quelta::sim::SensorSample s = device.read(quelta::sim::handHeldMotion(i * 0.02));
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, logMode);
    float out[7];
    bits.push_back(static_cast<uint32_t>(GetCalMag(out)));
    keep(out, 3);
    GetCalOri(out);
    keep(out, 3);
    bits.push_back(static_cast<uint32_t>(GetMagAccuracy()));
    bits.push_back(static_cast<uint32_t>(GetCalPara(out)));
    keep(out, 7);
  }
  return bits;
}

}  // namespace

TEST(HeaderPromises, AlgoInitialIsOptionalTheDefaultsAreTheDocumentedArrays) {
  // Every element: the set-up held from load is the one the documented
  // arrays give (a run cannot tell several of them apart).
  const quelta::Compass& loaded = quelta::defaultCompass();
  const quelta::HostSetUp documented =
      quelta::unpackHostSetUp(kAxis, kNoStoredCalibration, kPool, kThresholds, kParaC);
  EXPECT_EQ(log_func, nullptr);
  EXPECT_EQ(std::memcmp(&loaded.intake().settings, &documented.intake, sizeof documented.intake), 0);
  EXPECT_EQ(std::memcmp(&loaded.calibrator().settings(), &documented.calibration,
                        sizeof documented.calibration),
            0);
  EXPECT_EQ(std::memcmp(&loaded.orientation().settings(), &documented.orientation,
                        sizeof documented.orientation),
            0);
  EXPECT_EQ(loaded.calibrator().accuracy(), 0);
  EXPECT_EQ(loaded.calibrator().radius(), 0.5f);
  EXPECT_TRUE(loaded.calibrator().offset().x == 0.0f && loaded.calibrator().offset().y == 0.0f &&
              loaded.calibrator().offset().z == 0.0f);

  // And a whole run gives the same bits with and without the call.
  freshCalibrationAndOrientation();
  const std::vector<uint32_t> withoutSetUp = handHeldMinute(-1);
  freshCalibrationAndOrientation();
  EXPECT_EQ(AlgoInitial(kAxis, kNoStoredCalibration, kPool, kThresholds, kParaC, nullptr), 1);
  const std::vector<uint32_t> withDefaults = handHeldMinute(-1);
  EXPECT_EQ(withoutSetUp, withDefaults);
  EXPECT_EQ(GetMagAccuracy(), 3);  // the run calibrates, so the comparison covers every phase
}

TEST(HeaderPromises, ExactlyTheListedLinesIgnoreTheLogMode) {
  // Everything silenced by its mode; a callback registered.
  quelta::test::startCapture();
  AlgoInitial(kAxis, kNoStoredCalibration, kPool, kThresholds, kParaC, quelta::test::captureLine);
  handHeldMinute(-1);  // calibrates: pool, partial and full fits, refinement
  ASSERT_EQ(GetMagAccuracy(), 3);
  quelta::sim::Device device;
  for (int i = 0; i < 400; ++i) {  // the fusion pipelines, silenced
    const quelta::sim::SensorSample s = device.read(quelta::sim::handHeldMotion(i * 0.02));
    float out[4];
    CalcQueltaGyro(s.mag, s.acc, 0, -1, 0.02f);
    GetCalGyr(out);
    CalcQueltaRotVec(s.mag, s.acc, 0);
    GetCalRov(out);
    GetQueltaGravityAcc(out);
    GetQueltaLinearAcc(out);
  }
  // Six seconds far off the sphere: the quality watch drops the accuracy.
  const float up[3] = {0.0f, 0.0f, 1.0f};
  const float far[3] = {3.0f, 3.0f, 3.0f};
  for (int i = 0; i < 300; ++i) MainAlgorithmProcess(up, far, far, 0, -1);
  EXPECT_EQ(GetMagAccuracy(), 0);
  // Pool counts below 1: the fit of a single sample meets a singular matrix.
  const float tiny[8] = {0, 0, 0, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  AlgoInitial(kAxis, kNoStoredCalibration, tiny, kThresholds, kParaC, quelta::test::captureLine);
  const float a[3] = {0.3f, 0.1f, 0.2f};
  const float b[3] = {-0.2f, 0.3f, 0.1f};
  MainAlgorithmProcess(up, a, a, 1, -1);
  MainAlgorithmProcess(up, b, b, 0, -1);

  const std::vector<std::string> listed = {
      "TRVQX4e_2020103 iMagAccuracy in initial ", "TRVQX4e20171117 paraC[1]= ",
      "TRVQX4e20171117 qualitydown ",            "MatInv Err******",
      "TRVQX4e20180206 calimag ",                "TRVQX4e20180206 dSphereOffset "};
  std::set<std::string> seen;
  for (const std::string& line : quelta::test::capturedLines()) {
    bool known = false;
    for (const std::string& prefix : listed) {
      if (line.compare(0, prefix.size(), prefix) == 0) {
        seen.insert(prefix);
        known = true;
      }
    }
    EXPECT_TRUE(known) << "a line the header does not list: " << line;
  }
  EXPECT_EQ(seen, std::set<std::string>(listed.begin(), listed.end()));
  RegisterLogCallback(nullptr);
}
