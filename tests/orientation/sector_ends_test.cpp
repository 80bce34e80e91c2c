// The sector ends kept by a smoother are the ones a fresh correction computes:
// the same correction, bit for bit, whichever sectors were met before.
#include <gtest/gtest.h>

#include <cstring>

#include "orientation/azimuth_smoother.h"

namespace quelta {
namespace {

TEST(SectorEnds, KeptEndsGiveTheFreshCorrectionInEverySector) {
  AzimuthSmoother::SectorEnds kept;
  // Sweep back and forth so every end is met cold and warm, from both sides.
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i <= 3600; ++i) {
      const float mean = 0.1f * static_cast<float>(pass == 0 ? 3600 - i : i) - 0.05f;
      const float fresh = AzimuthSmoother::sectorCorrection(mean);
      const float reused = AzimuthSmoother::sectorCorrection(mean, kept);
      ASSERT_EQ(0, std::memcmp(&fresh, &reused, sizeof fresh)) << mean;
    }
  }
  EXPECT_EQ(kept.known, 0x1ffu);
}

}  // namespace
}  // namespace quelta
