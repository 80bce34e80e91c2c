// SPDX-License-Identifier: Apache-2.0
// The internal vocabulary: the ring against a plain reference window, and the
// value types' fixed summation order in both instantiations.
#include <gtest/gtest.h>

#include <deque>
#include <limits>
#include <vector>

#include "core/ring.h"
#include "core/vec3.h"
#include "tools/sim/device_sim.h"

namespace {

using quelta::Ring;

template <int32_t Cap>
void expectMatches(const Ring<int, Cap>& ring, const std::deque<int>& ref, int step) {
  ASSERT_EQ(ring.count(), static_cast<int32_t>(ref.size())) << step;
  std::vector<int> oldest, newest;
  ring.forEachOldestFirst([&](int v) { oldest.push_back(v); });
  ring.forEachNewestFirst([&](int v) { newest.push_back(v); });
  ASSERT_EQ(oldest, std::vector<int>(ref.begin(), ref.end())) << step;
  ASSERT_EQ(newest, std::vector<int>(ref.rbegin(), ref.rend())) << step;
  for (int32_t k = 0; k < ring.count(); ++k) {
    ASSERT_EQ(ring.oldest(k), ref[k]) << step;
    ASSERT_EQ(ring.newest(k), ref[ref.size() - 1 - k]) << step;
  }
  EXPECT_EQ(ring.slots().newestFirst(ring.count()), -1);
  EXPECT_EQ(ring.slots().oldestFirst(-1), -1);
}

TEST(Ring, VisitsLikeASlidingWindowAtEveryLengthAndAfterResets) {
  quelta::sim::Random random(11);
  Ring<int, 7> ring;
  std::deque<int> ref;
  int32_t length = 7;
  for (int step = 0; step < 600; ++step) {
    const double u = random.uniform(0, 1);
    if (u < 0.03) {
      length = static_cast<int32_t>(random.uniform(-1, 10));
      ring.setLength(length);
      length = length < 1 ? 1 : (length > 7 ? 7 : length);
      ref.clear();
    } else if (u < 0.05) {
      ring.clear();
      ref.clear();
    } else {
      ring.push(step);
      ref.push_back(step);
      if (static_cast<int32_t>(ref.size()) > length) ref.pop_front();
    }
    EXPECT_EQ(ring.length(), length);
    EXPECT_EQ(ring.full(), static_cast<int32_t>(ref.size()) == length);
    expectMatches(ring, ref, step);
  }
}

// No heap and no run-time initialisation: a ring can be a constant.
constexpr Ring<float, 3> kThree = [] {
  Ring<float, 3> r;
  r.push(1.0f);
  r.push(2.0f);
  r.push(3.0f);
  r.push(4.0f);
  return r;
}();
static_assert(kThree.oldest() == 2.0f && kThree.newest() == 4.0f && kThree.full());

template <typename S>
void expectFixedOrder() {
  using V = quelta::Vec3<S>;
  using Q = quelta::Quat<S>;
  // 2^p + 1 + ... rounds differently by order: big first then small ones.
  const S big = S(1) / std::numeric_limits<S>::epsilon() * S(2);
  const V a{big, S(1), S(1)}, ones{S(1), S(1), S(1)};
  EXPECT_EQ(quelta::dot(a, ones), (big + S(1)) + S(1));
  EXPECT_EQ(quelta::dot(ones, V{S(1), S(1), big}), (S(1) + S(1)) + big);
  const V x{S(1), S(0), S(0)}, y{S(0), S(1), S(0)};
  const V z = quelta::cross(x, y);
  EXPECT_TRUE(z.x == S(0) && z.y == S(0) && z.z == S(1));
  const V tiny = quelta::normalizedFloored(V{}, S(1e-7));
  EXPECT_TRUE(tiny.x == S(0) && tiny.y == S(0) && tiny.z == S(0));
  EXPECT_EQ(quelta::norm(V{S(3), S(0), S(4)}), S(5));

  const Q p{S(1), S(2), S(3), S(4)}, q{S(-2), S(0.5), S(1), S(-1)};
  const Q r = p * q;
  EXPECT_TRUE(r.w == S(-2) && r.x == S(-10.5) && r.y == S(-1) && r.z == S(-8.5));
  Q n{S(-2), S(0), S(0), S(0)};
  EXPECT_TRUE(quelta::normalizePositiveW(n, 1e-10) && n.w == S(1));
  Q small{S(0), S(1e-12), S(0), S(0)};
  EXPECT_FALSE(quelta::normalizePositiveW(small, 1e-10));
  EXPECT_EQ(small.x, S(1e-12));
}

TEST(VecAndQuat, FixedOrderInFloatAndDouble) {
  expectFixedOrder<float>();
  expectFixedOrder<double>();
}

}  // namespace
