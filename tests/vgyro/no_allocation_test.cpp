// A sample set through the virtual gyroscope takes nothing from the heap,
// whatever path it follows (set-up, restarts, errors, logging, rotating).
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "QueltaAlgo.h"
#include "tests/support/allocation_counter.h"
#include "tests/vgyro/spinning_device.h"
#include "vgyro/virtual_gyro.h"

namespace {

int gLines = 0;
int countLine(const char*, ...) {
  ++gLines;
  return 0;
}

TEST(VirtualGyroAllocation, CountingSeesAllocationsAtAll) {
  // Called through volatile pointers so the compiler cannot elide the pairs.
  void* (*volatile allocate)(std::size_t) = std::malloc;
  void* (*volatile allocateObject)(std::size_t) =
      static_cast<void* (*)(std::size_t)>(&::operator new);
  quelta::test::AllocationCounter counter;
  void* p = allocate(32);
  std::free(p);
  void* q = allocateObject(16);
  ::operator delete(q);
  EXPECT_EQ(counter.count(), 2);
}

TEST(VirtualGyroAllocation, SampleSetsAllocateNothing) {
  quelta::test::SpinningDevice device(quelta::sim::attitudeFromHeadingPitchRoll(70.0, 10.0, 5.0),
                                      {0.0, 0.0, 1.0}, 3.0, 0.0005);
  quelta::sim::SensorSample samples[200];
  for (int i = 0; i < 200; ++i) samples[i] = device.read(i);
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  float out[4];
  quelta::StandaloneVirtualGyro own;
  RegisterLogCallback(countLine);

  quelta::test::AllocationCounter counter;
  for (int i = 0; i < 200; ++i) {
    const float* acc = i == 20 ? zero : samples[i].acc;
    const int32_t restart = i == 150 ? 1 : 0;
    const float ts = i == 30 ? 0.0f : 0.01f;
    CalcQueltaGyro(samples[i].mag, acc, restart, 1, ts);
    GetCalGyr(out);
    GetRotVec_InVG(out);
    own.gyro.process(samples[i].mag, acc, restart, 1, ts);
  }
  EXPECT_EQ(counter.count(), 0);
  EXPECT_GT(gLines, 400);
}

}  // namespace
