#include "kyp/StatCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kyp/Failure.h"

namespace {

using namespace kyptool;
using testing::HasSubstr;

TEST(StateTextTest, ShowsPlainValuesInTheirOrder) {
    EXPECT_EQ("version   0.3.1\nuptime_s  12\nbusy      true\nnothing   null\n",
              state_text(R"({"version":"0.3.1","uptime_s":12,"busy":true,"nothing":null})"));
}

TEST(StateTextTest, ShowsObjectsAndListsOfObjectsBelow) {
    EXPECT_EQ(
        "version  1\n"
        "\nclients\n"
        "id  name  peer\n"
        " 1  a\n"
        " 2        x\n"
        "\ndrops\n"
        "topic  3\n"
        "\ndrops why\n"
        "full  2\n"
        "list  [1,2]\n",
        state_text(R"({"clients":[{"id":1,"name":"a"},{"id":2,"peer":"x"}],"version":1,)"
                   R"("drops":{"topic":3,"why":{"full":2,"list":[1,2]}}})"));
}

TEST(StateTextTest, AnEmptyObjectIsNothing) {
    EXPECT_EQ("", state_text("{}"));
    EXPECT_EQ("list  none\n", state_text(R"({"list":[],"empty":{}})"));
}

TEST(StateTextTest, ThreePlacesBehindThePointAreEnough) {
    EXPECT_EQ("a  3.655\n", state_text(R"({"a":3.65494015})"));
}

TEST(StateTextTest, KeepsTheTerminalFromForeignText) {
    EXPECT_EQ("a\\x1b  b\\x1b\n", state_text("{\"a\\u001b\":\"b\\u001b\"}"));
}

TEST(StateTextTest, RefusesWhatIsNoObject) {
    for (char const* bad : {"", "[]", "1", "{", "nonsense", "\xff"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(state_text(bad), Failure);
    }
}

TEST(StateTextTest, SurvivesDeepNesting) {
    std::string const deep(200000, '[');
    EXPECT_THROW(state_text(deep), Failure);

    std::string objects;
    for (int i = 0; i < 1000; ++i) objects += "{\"a\":";
    objects += "1" + std::string(1000, '}');
    EXPECT_THAT(state_text(objects), HasSubstr("a a a"));

    int const most = 2000000;
    EXPECT_THROW(state_text("{\"a\":" + std::string(most, '[') + std::string(most, ']') + "}"),
                 Failure);
}

}  // namespace
