#include "kyp/Target.h"

#include <gtest/gtest.h>

#include "kyp/Values.h"

namespace {

using namespace kyptool;

TEST(TargetTest, LocalIsTheUsualSocket) {
    auto const target = parse_target("local");

    ASSERT_TRUE(target);
    EXPECT_TRUE(target->isLocal);
    EXPECT_EQ("/var/tmp/kyp/kypserver", target->path);
    EXPECT_EQ("local", target->text);
}

TEST(TargetTest, AWordWithASlashIsASocket) {
    auto const target = parse_target("./sock");

    ASSERT_TRUE(target);
    EXPECT_TRUE(target->isLocal);
    EXPECT_EQ("./sock", target->path);
    EXPECT_TRUE(parse_target("/" + std::string(106, 'a')));
    EXPECT_FALSE(parse_target("/" + std::string(107, 'a')));
    EXPECT_FALSE(parse_target("/tmp/a;b"));
}

TEST(TargetTest, AnAddressIsReachedAsItIs) {
    auto const target = parse_target("10.77.0.2");

    ASSERT_TRUE(target);
    EXPECT_FALSE(target->isLocal);
    EXPECT_EQ("10.77.0.2", target->host);
    EXPECT_EQ("10.77.0.2.1.1", id_text(target->id));
}

TEST(TargetTest, AnIdIsLookedForAtItsFirstFourNumbers) {
    auto const target = parse_target("10.77.0.2.3.4");

    ASSERT_TRUE(target);
    EXPECT_EQ("10.77.0.2", target->host);
    EXPECT_EQ("10.77.0.2.3.4", id_text(target->id));
}

TEST(TargetTest, AnIdMayHaveAnAddressOfItsOwn) {
    auto const target = parse_target("1.2.3.4.5.6@10.77.0.2");

    ASSERT_TRUE(target);
    EXPECT_EQ("10.77.0.2", target->host);
    EXPECT_EQ("1.2.3.4.5.6", id_text(target->id));
}

TEST(TargetTest, RefusesEverythingElse) {
    for (char const* bad :
         {"", "plc", "1.2.3", "1.2.3.4.5", "1.2.3.4.5.6.7", "256.0.0.1", "0.0.0.0.0.0",
          "1.2.3.4.5.6@", "1.2.3.4.5.6@host", "@1.2.3.4", "1.2.3.4@1.2.3.4", "LOCAL"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parse_target(bad));
    }
}

}  // namespace
