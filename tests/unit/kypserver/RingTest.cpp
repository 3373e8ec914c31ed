#include "kypserver/Ring.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>

namespace kypserver {
namespace {

TEST(RingTest, IsAQueue) {
    CRing<int> ring;
    EXPECT_TRUE(ring.empty());

    for (int i = 0; i < 3; ++i) ring.push_back(i);

    EXPECT_EQ(3U, ring.size());
    EXPECT_EQ(0, ring.front());
    EXPECT_EQ(1, ring[1]);
    EXPECT_EQ(2, ring.back());
    ring.pop_front();
    EXPECT_EQ(1, ring.front());
    EXPECT_EQ(2U, ring.size());
}

TEST(RingTest, KeepsTheOrderWhileItGrowsAndShrinks) {
    CRing<int> ring;
    std::deque<int> expected;
    unsigned int word = 1;
    for (int i = 0; i < 10000; ++i) {
        word = word * 1664525 + 1013904223;
        if ((word >> 16) % 5 < 3 || expected.empty()) {
            ring.push_back(i);
            expected.push_back(i);
        } else {
            ring.pop_front();
            expected.pop_front();
        }
        ASSERT_EQ(expected.size(), ring.size());
        if (expected.empty()) continue;
        ASSERT_EQ(expected.front(), ring.front());
        ASSERT_EQ(expected.back(), ring.back());
        ASSERT_EQ(expected[expected.size() / 2], ring[expected.size() / 2]);
    }
}

TEST(RingTest, LetsGoOfWhatIsTakenOut) {
    CRing<std::shared_ptr<int>> ring;
    auto const first = std::make_shared<int>(1);
    auto const second = std::make_shared<int>(2);
    ring.push_back(first);
    ring.push_back(second);

    ring.pop_front();
    EXPECT_EQ(1, first.use_count());
    EXPECT_EQ(2, second.use_count());

    ring.clear();
    EXPECT_EQ(1, second.use_count());
    EXPECT_TRUE(ring.empty());
    ring.push_back(first);
    EXPECT_EQ(first, ring.front());
}

}  // namespace
}  // namespace kypserver
