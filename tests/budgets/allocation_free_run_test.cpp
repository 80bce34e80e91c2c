// A long run of the simulated device through every exported function, on the
// paths the services take in use: every accuracy level with its fits and
// refits, a downgrade, restarts of the calibration and of the virtual
// gyroscope, its still and rotating modes, bad inputs and every log line
// path. Nothing of it may take memory from the heap.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "QueltaAlgo.h"
#include "tests/support/allocation_counter.h"
#include "tools/sim/device_sim.h"

namespace quelta {
namespace {

int gLines = 0;
// Counts without formatting: formatting is the host's business and may
// allocate on its own.
int countLine(const char*, ...) {
  ++gLines;
  return 0;
}

constexpr int kSets = 14000;
constexpr float kInterval = 0.02f;

struct Input {
  sim::SensorSample sample;
  float probe[3];
  float ts;
  int32_t calRestart;
  int32_t gyroRestart;
  int32_t logMode;
};

// The scripted run: the hand-held motion with a still spell, a shaken spell
// with a frozen probe axis, a hard-iron jump, restarts and bad inputs.
std::vector<Input> scriptedRun() {
  sim::Device device;
  device.accNoiseG = 0.002;
  const sim::Quat still = sim::attitudeFromHeadingPitchRoll(40.0, 10.0, -5.0);
  std::vector<Input> run(kSets);
  for (int i = 0; i < kSets; ++i) {
    Input& in = run[i];
    const double t = kInterval * i;
    if (i == 8000) device.hardIron = {2.0, 0.3, -0.4};  // the sphere moves away
    const bool isStill = i >= 5000 && i < 5600;
    const bool shaken = i >= 6000 && i < 6400;
    const sim::Vec3 shake = shaken ? sim::Vec3{0.6 * std::sin(20.0 * t), 0.0, 0.0} : sim::Vec3{};
    in.sample = device.read(isStill ? still : sim::handHeldMotion(t), shake);
    for (int k = 0; k < 3; ++k) in.probe[k] = in.sample.mag[k];
    if (shaken) in.probe[2] = 0.7f;
    in.ts = i % 1000 == 300 ? 0.0f : kInterval;
    in.calRestart = i % 1500 == 700 ? 1 : 0;
    in.gyroRestart = i % 2000 == 1000 ? 1 : 0;
    in.logMode = (i / 500) % 3;  // 0, 1 and 2: every gate of the log lines
    if (i % 2500 == 1234) in.sample.acc[0] = in.sample.acc[1] = in.sample.acc[2] = 0.0f;
    if (i == kSets - 100) in.sample.mag[1] = std::nanf("");
  }
  return run;
}

struct Coverage {
  bool accuracy[4] = {};
  bool downgradedFrom3 = false;
  bool newParameters = false;
  bool saturation = false;
  bool gyroStill = false;
  bool gyroRotating = false;
};

// One sample set of all four services as a host makes it, with every accessor.
void sampleSet(const Input& in, Coverage& seen) {
  const int32_t before = GetMagAccuracy();
  float cal[3], raw[3], offset[3], ori[3], para[7];
  MainAlgorithmProcess(in.sample.acc, in.sample.mag, in.probe, in.calRestart, in.logMode);
  GetCalMag(cal);
  GetRawMag(raw);
  GetOffset(offset);
  GetCalOri(ori);
  const int32_t accuracy = GetMagAccuracy();
  seen.accuracy[accuracy] = true;
  seen.downgradedFrom3 |= before == 3 && accuracy == 0;
  seen.newParameters |= GetCalPara(para) == 1;
  seen.saturation |= GetMagSaturation() == 1;

  float rate[3], quat[4], rov[4], gravity[3], linear[3];
  CalcQueltaGyro(cal, in.sample.acc, in.gyroRestart, in.logMode, in.ts);
  GetCalGyr(rate);
  GetRotVec_InVG(quat);
  // A still device publishes noise of at most 0.005 rad/s per axis.
  const bool noise = std::fabs(rate[0]) <= 0.005f && std::fabs(rate[1]) <= 0.005f &&
                     std::fabs(rate[2]) <= 0.005f;
  seen.gyroStill |= noise;
  seen.gyroRotating |= !noise;

  CalcQueltaRotVec(cal, in.sample.acc, in.logMode);
  GetCalRov(rov);
  GetQueltaGravityAcc(gravity);
  GetQueltaLinearAcc(linear);
}

// The building blocks and the math routines, on buffers of the host's own.
void everyBuildingBlock() {
  float storeA[9] = {}, storeB[9] = {};
  DataBuffer a, b;
  bfNew(&a, storeA, 3, 3);
  bfNew(&b, storeB, 3, 3);
  const float v[3] = {0.3f, -0.2f, 0.9f}, w[3] = {0.1f, 0.4f, -0.3f};
  float out[9], q[4] = {1, 0, 0, 0}, gain[3];
  for (int i = 0; i < 4; ++i) {
    bfPut(&a, i % 2 ? v : w);
    medFilter(&a, &b, 3);
    meanFilter(&a, &b, 3);
    LPF(&a, &b, v, w, 2, 2);
    bfGet(&b, out, i);
  }
  bfClear(&a);
  bfPut(&a, v);
  bfPut(&a, w);
  bfPut(&a, v);
  getWMag(&a, out, kInterval);
  float x[2] = {1.0f, 2.0f}, y[2] = {0.5f, 0.0f};
  LPF1(x, y);
  getCn2bMagAcc(v, w, out);
  dcm2Quat(out, q);
  deviceRotationMode(v, 1, kInterval);
  filterCompensation(gain, v, v, w, 2, 2, kInterval);
  myRand(5, 1);
  const float dir[8] = {0.0f, 0.6f, -0.8f, 0.0f, 0.0f, 1.0f, 0.6f, -0.8f};
  GetCn2bAcc(dir, out);
  CreateDataBuffer();
  ClearDataBuffer();

  float s[4] = {3, 1, 2, 0};
  norm2(v, 3);
  dot(v, w, 3);
  cross(v, w, out);
  vecNormalize(v, out, 3);
  sort(s, 4);
  mean(v, 3);
  quatConj(q, out);
  quatMultiply(q, q, out);
  quatNormalize(q, out);
  ComplexAbs(v);
  ComplexConj(v, out);
  ComplexInv(v, out);
  ComplexAdd(v, w, out);
  ComplexSub(v, w, out);
  ComplexMultiply(v, w, out);
  ComplexMultiplyReal(v, 2.0f, out);
  ComplexDivide(v, w, out);
  ComplexExp(v, 3, out);
}

TEST(AllocationBudget, LongRunThroughEveryExportedFunctionAllocatesNothing) {
  const std::vector<Input> run = scriptedRun();
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float noStoredCalibration[4] = {0, 0, 0, 0.5f};
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thresholds[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8};
  Coverage seen;

  test::AllocationCounter counter;
  AlgoInitial(axis, noStoredCalibration, pool, thresholds, paraC, countLine);
  for (const Input& in : run) sampleSet(in, seen);
  everyBuildingBlock();
  RegisterLogCallback(nullptr);
  const int64_t allocations = counter.count();

  EXPECT_EQ(allocations, 0);
  for (int level = 0; level < 4; ++level) EXPECT_TRUE(seen.accuracy[level]) << level;
  EXPECT_TRUE(seen.downgradedFrom3);
  EXPECT_TRUE(seen.newParameters);
  EXPECT_TRUE(seen.saturation);
  EXPECT_TRUE(seen.gyroStill);
  EXPECT_TRUE(seen.gyroRotating);
  EXPECT_GT(gLines, kSets);
}

}  // namespace
}  // namespace quelta
