#include "kypserver/ServerLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace kypserver {
namespace {

TEST(LineLimitTest, LetsSoManyLinesThroughInASecond) {
    CLineLimit limit(2);
    unsigned int leftOut = 99;

    EXPECT_TRUE(limit.admit(10, &leftOut));
    EXPECT_TRUE(limit.admit(10, &leftOut));
    EXPECT_FALSE(limit.admit(10, &leftOut));
    EXPECT_EQ(0U, leftOut);
}

TEST(LineLimitTest, TheNextSecondTellsWhatWasLeftOut) {
    CLineLimit limit(1);
    unsigned int leftOut = 0;
    limit.admit(10, &leftOut);
    limit.admit(10, &leftOut);
    limit.admit(10, &leftOut);

    EXPECT_TRUE(limit.admit(11, &leftOut));
    EXPECT_EQ(2U, leftOut);
    EXPECT_TRUE(limit.admit(12, &leftOut));
    EXPECT_EQ(0U, leftOut);
}

TEST(ReportTest, WritesOneLineOnStandardError) {
    testing::internal::CaptureStderr();

    report("%d of %s", 3, "them");

    std::string const said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, said.find(" kypserver: 3 of them\n"));
    EXPECT_EQ(1, std::count(said.begin(), said.end(), '\n'));
}

TEST(ReportTest, ALongLineIsCut) {
    testing::internal::CaptureStderr();

    report("%s", std::string(5000, 'x').c_str());

    EXPECT_GT(1200U, testing::internal::GetCapturedStderr().size());
}

}  // namespace
}  // namespace kypserver
