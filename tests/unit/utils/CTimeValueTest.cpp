#include "utils/CTimeValue.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace {

class CTimeValueTest : public ::testing::Test {
protected:
    CTimeValueTest() { setenv("TZ", "UTC", 1); }
    ~CTimeValueTest() override { unsetenv("TZ"); }
};

TEST_F(CTimeValueTest, StartsAtTheTimeNow) {
    time_t const before = time(nullptr);
    CTimeValue value;
    CTimeValue later;

    EXPECT_GE(value.to_timet(), before);
    EXPECT_LE(value.m_nanoseconds, later.m_nanoseconds);
}

TEST_F(CTimeValueTest, ReadsInThreeUnits) {
    CTimeValue value(1761901687);
    value.m_nanoseconds += 6007999;

    EXPECT_EQ(1761901687006007999, value.m_nanoseconds);
    EXPECT_EQ(1761901687006, value.getTimeMillisec());
    EXPECT_EQ(1761901687006007, value.getTimeInMicroSec());
    EXPECT_EQ(1761901687, value.to_timet());
}

TEST_F(CTimeValueTest, UpdateTakesTheTimeNow) {
    CTimeValue reference;
    CTimeValue value(0);
    ASSERT_EQ(0, value.m_nanoseconds);

    value.update();

    EXPECT_GE(value.m_nanoseconds, reference.m_nanoseconds);
}

TEST_F(CTimeValueTest, TheTextEndsInMilliseconds) {
    CTimeValue value(1761901687);
    EXPECT_EQ("2025-10-31 09:08:07.000", value.to_string());

    value.m_nanoseconds += 6999999;
    EXPECT_EQ("2025-10-31 09:08:07.006", value.to_string());

    value.m_nanoseconds += 993000000;
    EXPECT_EQ("2025-10-31 09:08:07.999", value.to_string());
}

TEST_F(CTimeValueTest, TheTextFollowsAChangedTimeZone) {
    CTimeValue value(0);
    ASSERT_EQ("1970-01-01 00:00:00.000", value.to_string());

    setenv("TZ", "UTC-2", 1);

    EXPECT_EQ("1970-01-01 02:00:00.000", value.to_string());
}

TEST_F(CTimeValueTest, ACountBeyondTheRangeDoesNoHarm) {
    CTimeValue value(0x7fffffffffffffff);

    EXPECT_FALSE(value.to_string().empty());
}

}  // namespace
