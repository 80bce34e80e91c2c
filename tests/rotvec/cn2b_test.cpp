// GetCn2bAcc: the direction cosine matrix whose columns are east, north and
// up in device coordinates.
#include <gtest/gtest.h>

#include <cmath>

#include "QueltaAlgo.h"
#include "tools/sim/device_sim.h"

namespace {

using quelta::sim::Vec3;

// For consistent unit directions the matrix is the device's true attitude,
// whatever the tilt: checks every entry's sign and the east completion.
TEST(RotvecCn2b, ColumnsAreEastNorthUpOfTheDevice) {
  quelta::sim::Random random(21);
  const quelta::sim::EarthField field{0.5, 55.0};
  for (int trial = 0; trial < 300; ++trial) {
    const auto attitude = quelta::sim::attitudeFromHeadingPitchRoll(
        random.uniform(-180, 180), random.uniform(-80, 80), random.uniform(-80, 80));
    const auto enuToDevice = quelta::sim::quatConjugate(attitude);
    const Vec3 b = quelta::sim::rotate(enuToDevice, field.enu());
    const Vec3 up = quelta::sim::rotate(enuToDevice, {0, 0, 1});
    const double bn = std::sqrt(b.x * b.x + b.y * b.y + b.z * b.z);
    float in[8] = {static_cast<float>(b.x / bn), static_cast<float>(b.y / bn), static_cast<float>(b.z / bn),
                   static_cast<float>(up.x),     static_cast<float>(up.y),     static_cast<float>(up.z)};
    const float cosA = (in[0] * in[3] + in[1] * in[4]) + in[2] * in[5];
    in[6] = std::sqrt(1.0f - cosA * cosA);
    in[7] = cosA;
    float C[9];
    GetCn2bAcc(in, C);
    const Vec3 axes[3] = {quelta::sim::rotate(enuToDevice, {1, 0, 0}),
                          quelta::sim::rotate(enuToDevice, {0, 1, 0}), up};
    for (int col = 0; col < 3; ++col) {
      const double truth[3] = {axes[col].x, axes[col].y, axes[col].z};
      for (int row = 0; row < 3; ++row) {
        // East entries come from sqrt(1 - t): near zero the rounding of t
        // is magnified by 1 / (2 |entry|).
        const double tol = col == 0 ? 2e-5 + 1e-7 / std::fabs(truth[row]) : 2e-5;
        ASSERT_NEAR(C[3 * row + col], truth[row], tol) << "trial " << trial << " row " << row << " column " << col;
      }
    }
  }
}

// A row longer than unit length is shrunk (in double precision) and gets no
// east entry; the other rows are completed as usual.
TEST(RotvecCn2b, OverlongRowIsShrunk) {
  // Inconsistent on purpose: north = (0.6, 0, 0.8) next to up = (0, 0, 1).
  const float in[8] = {0.6f, 0.0f, 0.8f, 0.0f, 0.0f, 1.0f, 1.0f, 0.0f};
  float C[9];
  GetCn2bAcc(in, C);
  const double len = std::sqrt(static_cast<double>(1.0f + 0.8f * 0.8f));
  EXPECT_EQ(C[6], 0.0f);
  EXPECT_EQ(C[7], static_cast<float>(0.8f / len));
  EXPECT_EQ(C[8], static_cast<float>(1.0 / len));
  // Row 0: t = 0.36, east = -0.8 as the sign carrier is zero.
  EXPECT_EQ(C[0], -std::sqrt(1.0f - 0.6f * 0.6f));
  EXPECT_EQ(C[1], 0.6f);
  EXPECT_EQ(C[2], 0.0f);
  // Row 1: t = 0, east = -1 (north x up along -y in this row).
  EXPECT_EQ(C[3], -1.0f);
  EXPECT_EQ(C[4], 0.0f);
  EXPECT_EQ(C[5], 0.0f);
}

}  // namespace
