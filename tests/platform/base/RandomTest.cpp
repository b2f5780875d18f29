// SPDX-License-Identifier: Apache-2.0
// Chance that can be repeated.
#include <gtest/gtest.h>

#include <set>

#include "platform/base/Random.h"

namespace Nimbrel2::Platform {
namespace {

using std::chrono::milliseconds;

TEST(Random, IsTheSameForTheSameSeedOnEveryComputer) {
    Random first(42);
    Random second(42);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(first.Next(), second.Next());
    }
    EXPECT_NE(Random(1).Next(), Random(2).Next());
}

TEST(Random, FromTheSystemIsDifferentEachTime) {
    std::set<std::uint64_t> seen;
    for (int i = 0; i < 16; ++i) {
        seen.insert(Random::FromSystem().Next());
    }
    EXPECT_EQ(seen.size(), 16u);
}

TEST(Random, HappensAsOftenAsItSays) {
    Random random(7);
    int happened = 0;
    for (int i = 0; i < 100000; ++i) {
        happened += random.HappensInPercent(30) ? 1 : 0;
    }
    EXPECT_NEAR(happened, 30000, 1000);
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(random.HappensInPercent(0));
        EXPECT_FALSE(random.HappensInPercent(-1));
        EXPECT_TRUE(random.HappensInPercent(100));
    }
}

TEST(Random, StaysBetweenItsBoundsAndReachesThem) {
    Random random(7);
    std::set<milliseconds::rep> times;
    std::set<std::uint64_t> numbers;
    for (int i = 0; i < 1000; ++i) {
        times.insert(random.Between(milliseconds(3), milliseconds(6)).count());
        numbers.insert(random.Below(3));
    }
    EXPECT_EQ(times, (std::set<milliseconds::rep>{3, 4, 5, 6}));
    EXPECT_EQ(numbers, (std::set<std::uint64_t>{0, 1, 2}));
    EXPECT_EQ(random.Between(milliseconds(5), milliseconds(5)), milliseconds(5));
    EXPECT_EQ(random.Between(milliseconds(5), milliseconds(1)), milliseconds(5));
}

}  // namespace
}  // namespace Nimbrel2::Platform
