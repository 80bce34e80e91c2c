// SPDX-License-Identifier: Apache-2.0
// A long run of the simulated device through every exported function, on the
// paths the services take in use: every accuracy level with its fits and
// refits, a downgrade, restarts of the calibration and of the virtual
// gyroscope, its still and rotating modes, bad inputs and every log line
// path. Nothing of it may take memory from the heap.
#include <gtest/gtest.h>

#include <cmath>
#include <new>

#include "QueltaAlgo.h"
#include "tests/support/allocation_counter.h"
#include "tools/sim/device_sim.h"

namespace quelta {
namespace {

// Counts without formatting: formatting is the host's business and may
// allocate on its own.
int gLines = 0;
int countLine(const char*, ...) { return ++gLines; }

// What the run went through: accuracy 0 to 3, a downgrade from 3, new
// parameters, saturation, a still and a rotating virtual gyroscope.
enum Seen { kDowngradedFrom3 = 4, kNewParameters, kSaturation, kGyroStill, kGyroRotating, kSeenCount };

// Sample set i of the scripted run, as a host makes it, with every accessor:
// the hand-held motion with a still spell, a shaken spell with a frozen probe
// axis, a hard-iron jump, restarts and bad inputs.
void sampleSet(sim::Device& device, int i, bool* seen) {
  const double t = 0.02 * i;
  if (i == 8000) device.hardIron = {2.0, 0.3, -0.4};  // the sphere moves away
  const bool shaken = i >= 6000 && i < 6400;
  const sim::Quat attitude = i >= 5000 && i < 5600 ? sim::attitudeFromHeadingPitchRoll(40.0, 10.0, -5.0) : sim::handHeldMotion(t);
  sim::SensorSample s = device.read(attitude, shaken ? sim::Vec3{0.6 * std::sin(20.0 * t), 0.0, 0.0} : sim::Vec3{});
  const float probe[3] = {s.mag[0], s.mag[1], shaken ? 0.7f : s.mag[2]};
  if (i % 2500 == 1234) s.acc[0] = s.acc[1] = s.acc[2] = 0.0f;
  if (i == 13900) s.mag[1] = std::nanf("");
  const int32_t logMode = (i / 500) % 3;  // 0, 1 and 2: every gate of the log lines

  const int32_t before = GetMagAccuracy();
  float cal[3], out[7];
  MainAlgorithmProcess(s.acc, s.mag, probe, i % 1500 == 700 ? 1 : 0, logMode);
  GetCalMag(cal);
  GetRawMag(out);
  GetOffset(out);
  GetCalOri(out);
  const int32_t accuracy = GetMagAccuracy();
  seen[accuracy] = true;
  seen[kDowngradedFrom3] |= before == 3 && accuracy == 0;
  seen[kNewParameters] |= GetCalPara(out) == 1;
  seen[kSaturation] |= GetMagSaturation() == 1;

  CalcQueltaGyro(cal, s.acc, i % 2000 == 1000 ? 1 : 0, logMode, i % 1000 == 300 ? 0.0f : 0.02f);
  GetRotVec_InVG(out);
  GetCalGyr(out);  // a still device publishes noise of at most 0.005 rad/s per axis
  const bool noise = std::fabs(out[0]) <= 0.005f && std::fabs(out[1]) <= 0.005f && std::fabs(out[2]) <= 0.005f;
  seen[noise ? kGyroStill : kGyroRotating] = true;

  CalcQueltaRotVec(cal, s.acc, logMode);
  GetCalRov(out);
  GetQueltaGravityAcc(out);
  GetQueltaLinearAcc(out);
}

// The building blocks and the math routines, on buffers of the host's own.
void everyBuildingBlock() {
  float storeA[9] = {}, storeB[9] = {}, out[9], q[4] = {1, 0, 0, 0}, s[4] = {3, 1, 2, 0}, x[2] = {1, 2}, y[2] = {0.5f, 0};
  DataBuffer a, b;
  bfNew(&a, storeA, 3, 3);
  bfNew(&b, storeB, 3, 3);
  const float v[3] = {0.3f, -0.2f, 0.9f}, w[3] = {0.1f, 0.4f, -0.3f}, dir[8] = {0, 0.6f, -0.8f, 0, 0, 1, 0.6f, -0.8f};
  for (int i = 0; i < 4; ++i) {
    bfPut(&a, i % 2 ? v : w);
    medFilter(&a, &b, 3);
    meanFilter(&a, &b, 3);
    LPF(&a, &b, v, w, 2, 2);
    bfGet(&b, out, i);
  }
  getWMag(&a, out, 0.02f);
  bfClear(&a);
  LPF1(x, y);
  getCn2bMagAcc(v, w, out);
  dcm2Quat(out, q);
  deviceRotationMode(v, 1, 0.02f);
  filterCompensation(out, v, v, w, 2, 2, 0.02f);
  myRand(5, 1);
  GetCn2bAcc(dir, out);
  CreateDataBuffer();
  ClearDataBuffer();

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
  {  // The counter sees allocations at all (through a volatile pointer, so none is elided).
    void* (*volatile allocate)(std::size_t) = static_cast<void* (*)(std::size_t)>(&::operator new);
    test::AllocationCounter counter;
    ::operator delete(allocate(16));
    ASSERT_EQ(counter.count(), 1);
  }
  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1}, noStoredCalibration[4] = {0, 0, 0, 0.5f};
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f}, thresholds[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8};
  sim::Device device;
  device.accNoiseG = 0.002;
  bool seen[kSeenCount] = {};

  test::AllocationCounter counter;
  AlgoInitial(axis, noStoredCalibration, pool, thresholds, paraC, countLine);
  for (int i = 0; i < 14000; ++i) sampleSet(device, i, seen);
  everyBuildingBlock();
  RegisterLogCallback(nullptr);
  EXPECT_EQ(counter.count(), 0);
  for (int k = 0; k < kSeenCount; ++k) EXPECT_TRUE(seen[k]) << "case " << k;
  EXPECT_GT(gLines, 14000);
}

}  // namespace
}  // namespace quelta
