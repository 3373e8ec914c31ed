#include "utils/CStringHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(CStringHelperTest, TrimsBothEnds) {
    EXPECT_EQ("a b", CStringHelper::Strtrim(" \r\n\ta b\t\n\r "));
    EXPECT_EQ("a b", CStringHelper::Strtrim("a b"));
    EXPECT_EQ("a", CStringHelper::Strtrim("a "));
    EXPECT_EQ("a", CStringHelper::Strtrim("\na"));
}

TEST(CStringHelperTest, TrimsWhiteSpaceAloneToNothing) {
    EXPECT_EQ("", CStringHelper::Strtrim(" \r\n\t"));
    EXPECT_EQ("", CStringHelper::Strtrim(""));
}

TEST(CStringHelperTest, TrimLeavesOtherWhiteSpace) {
    EXPECT_EQ("\va\f", CStringHelper::Strtrim(" \va\f "));
}

TEST(CStringHelperTest, ComparesWithoutRegardToCase) {
    EXPECT_EQ(0, CStringHelper::StriCmp("Interval", "iNTERVAL"));
    EXPECT_LT(CStringHelper::StriCmp("a", "B"), 0);
    EXPECT_GT(CStringHelper::StriCmp("C", "b"), 0);
    EXPECT_LT(CStringHelper::StriCmp("a", "ab"), 0);
    EXPECT_EQ(0, CStringHelper::StriCmp("", ""));
}

TEST(CStringHelperTest, SplitKeepsEmptyPieces) {
    EXPECT_THAT(CStringHelper::StriSplit("a,,b", ","), ElementsAre("a", "", "b"));
    EXPECT_THAT(CStringHelper::StriSplit("/usr/bin", "/"), ElementsAre("", "usr", "bin"));
    EXPECT_THAT(CStringHelper::StriSplit("a,", ","), ElementsAre("a", ""));
    EXPECT_THAT(CStringHelper::StriSplit(",", ","), ElementsAre("", ""));
}

TEST(CStringHelperTest, SplitOfATextWithoutTheSeparatorIsTheText) {
    EXPECT_THAT(CStringHelper::StriSplit("abc", ","), ElementsAre("abc"));
}

TEST(CStringHelperTest, SplitOfAnEmptyTextHasNoPieces) {
    EXPECT_THAT(CStringHelper::StriSplit("", ","), IsEmpty());
    EXPECT_THAT(CStringHelper::StriSplit("", ""), IsEmpty());
}

TEST(CStringHelperTest, SplitTakesSeparatorsOfSeveralBytes) {
    EXPECT_THAT(CStringHelper::StriSplit("a::b:c", "::"), ElementsAre("a", "b:c"));
}

TEST(CStringHelperTest, SplitByNothingGivesTheWholeText) {
    EXPECT_THAT(CStringHelper::StriSplit("abc", ""), ElementsAre("abc"));
}

}  // namespace
