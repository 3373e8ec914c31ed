#include "utils/CTimestamp.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t kSecond = 1000000000;

TEST(CTimestampTest, StartsAtTheTimeNow) {
    CTimestamp before;
    CTimestamp after;

    EXPECT_LE(before.m_nanoseconds, after.m_nanoseconds);
    EXPECT_GT(before.m_nanoseconds, 1500000000 * kSecond);
}

TEST(CTimestampTest, UpdateTakesTheTimeNow) {
    CTimestamp reference;
    CTimestamp stamp;
    stamp.m_nanoseconds = 0;

    stamp.update();

    EXPECT_GE(stamp.m_nanoseconds, reference.m_nanoseconds);
}

TEST(CTimestampTest, TellsWhatHasPassedInThreeUnits) {
    CTimestamp stamp;
    stamp.m_nanoseconds -= 1000 * kSecond;

    EXPECT_GE(stamp.getElapsedTimeInMicroSec(), 1000000000);
    EXPECT_GE(stamp.getElapsedTimeInMilliSec(), 1000000.0);
    EXPECT_GE(stamp.getElapsedSecond(), 1000.0);
    EXPECT_LT(stamp.getElapsedTimeInMicroSec(), 2000000000);
    EXPECT_LT(stamp.getElapsedTimeInMilliSec(), 2000000.0);
    EXPECT_LT(stamp.getElapsedSecond(), 2000.0);
}

TEST(CTimestampTest, AMomentAheadGivesANegativeTime) {
    CTimestamp stamp;
    stamp.m_nanoseconds += 1000 * kSecond;

    EXPECT_LT(stamp.getElapsedTimeInMicroSec(), 0);
    EXPECT_LT(stamp.getElapsedTimeInMilliSec(), 0.0);
    EXPECT_LT(stamp.getElapsedSecond(), 0.0);
}

}  // namespace
