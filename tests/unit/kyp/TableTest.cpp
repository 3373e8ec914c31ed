#include "kyp/Table.h"

#include <gtest/gtest.h>

namespace {

using namespace kyptool;

TEST(TableTest, ColumnsAreAsWideAsTheirWidestCell) {
    EXPECT_EQ(
        "ID     HOST\n"
        "a      x\n"
        "b.c.d  long name\n",
        table_text({"ID", "HOST"}, {{"a", "x"}, {"b.c.d", "long name"}}));
}

TEST(TableTest, LeavesOutAColumnWithoutWords) {
    EXPECT_EQ("A  C\na  c\n", table_text({"A", "B", "C"}, {{"a", "", "c"}}));
}

TEST(TableTest, NumbersStandOnTheRight) {
    EXPECT_EQ("COUNT  NAME  VERSION\n    1  a     1.0\n  125  7b    2.0\n",
              table_text({"COUNT", "NAME", "VERSION"}, {{"1", "a", "1.0"}, {"125", "7b", "2.0"}}));
}

TEST(TableTest, ShortRowsAreFilledUp) {
    EXPECT_EQ("a   b\ncc\n", table_text({}, {{"a", "b"}, {"cc"}}));
    EXPECT_EQ("", table_text({}, {}));
}

TEST(TableTest, CountsCharactersAndNotBytes) {
    EXPECT_EQ(2u, width_of("\xc3\xa4z"));
    EXPECT_EQ("\xc3\xa4  x\nb  y\n", table_text({}, {{"\xc3\xa4", "x"}, {"b", "y"}}));
}

}  // namespace
