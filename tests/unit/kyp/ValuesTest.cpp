#include "kyp/Values.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace kyptool;
using namespace std::chrono_literals;

TEST(ValuesTest, ReadsNumbersOfBothKindsAndNothingElse) {
    EXPECT_EQ(0u, parse_number("0", 100));
    EXPECT_EQ(100u, parse_number("100", 100));
    EXPECT_EQ(0x4d2u, parse_number("0x4d2", UINT32_MAX));
    EXPECT_EQ(0xffffffffu, parse_number("0XFFFFFFFF", UINT32_MAX));

    for (char const* bad : {"", "0x", "-1", "+1", " 1", "1 ", "1.0", "ten", "0x1g", "101",
                            "99999999999999999999999"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parse_number(bad, 100));
    }
}

TEST(ValuesTest, ReadsSizesWithTheirUnits) {
    EXPECT_EQ(0u, parse_size("0", 10));
    EXPECT_EQ(65536u, parse_size("64k", 65536));
    EXPECT_EQ(5u << 20, parse_size("5M", 5 << 20));

    EXPECT_FALSE(parse_size("65k", 65536));
    for (char const* bad : {"", "k", "1g", "1kk", "-1k"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parse_size(bad, UINT32_MAX));
    }
}

TEST(ValuesTest, ReadsTimesWithTheirUnits) {
    EXPECT_EQ(2s, parse_duration("2"));
    EXPECT_EQ(0s, parse_duration("0"));
    EXPECT_EQ(500ms, parse_duration("0.5"));
    EXPECT_EQ(500ms, parse_duration(".5s"));
    EXPECT_EQ(200ms, parse_duration("200ms"));
    EXPECT_EQ(20us, parse_duration("20us"));
    EXPECT_EQ(90s, parse_duration("1.5m"));
    EXPECT_EQ(24h, parse_duration("86400"));

    for (char const* bad : {"", ".", "s", "-1", "1..2", "1.2.3", "1h", "1 s", "86401", "1e3"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parse_duration(bad));
    }
}

TEST(ValuesTest, ReadsDeviceIdsWithoutGuessing) {
    auto const id = parse_device_id("192.168.1.10.1.255");
    ASSERT_TRUE(id);
    EXPECT_EQ("192.168.1.10.1.255", id_text(*id));

    for (char const* bad :
         {"", "1.2.3.4.5", "1.2.3.4.5.6.7", "1.2.3.4.5.256", "1.2.3.4.5.x", "1.2.3.4.5.",
          "1..3.4.5.6", "1.2.3.4.5.-6", "1.2.3.4.5.0x6", "1.2.3.4.5.0006", " 1.2.3.4.5.6"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parse_device_id(bad));
    }
}

TEST(ValuesTest, TellsAZeroIdFromOthers) {
    EXPECT_TRUE(is_zero(*parse_device_id("0.0.0.0.0.0")));
    EXPECT_FALSE(is_zero(*parse_device_id("0.0.0.0.0.1")));
}

TEST(ValuesTest, RoundsWaitsUp) {
    EXPECT_EQ(1, milliseconds_of(0s));
    EXPECT_EQ(1, milliseconds_of(1ns));
    EXPECT_EQ(1, milliseconds_of(1ms));
    EXPECT_EQ(2, milliseconds_of(1ms + 1ns));
    EXPECT_EQ(2000, milliseconds_of(2s));
}

TEST(ValuesTest, WritesSizesForPeople) {
    EXPECT_EQ("0 B", size_text(0));
    EXPECT_EQ("1023 B", size_text(1023));
    EXPECT_EQ("1.0 KiB", size_text(1024));
    EXPECT_EQ("1023.9 KiB", size_text(1023 * 1024 + 950));
    EXPECT_EQ("1.0 MiB", size_text(1024 * 1024 - 1));
    EXPECT_EQ("20.0 MiB", size_text(20 << 20));
    EXPECT_EQ("16384.0 TiB", size_text(uint64_t{1} << 54));
}

TEST(ValuesTest, WritesTimesForPeople) {
    EXPECT_EQ("0:00", clock_text(-1s));
    EXPECT_EQ("0:07", clock_text(7900ms));
    EXPECT_EQ("59:59", clock_text(3599s));
    EXPECT_EQ("1:00:00", clock_text(3600s));
}

TEST(ValuesTest, KeepsForeignTextFromMovingTheTerminal) {
    EXPECT_EQ("plain \xc3\xa4", printable("plain \xc3\xa4"));
    EXPECT_EQ("\\x1b[31m", printable("\x1b[31m"));
    EXPECT_EQ("\\xc2\\x9b", printable("\xc2\x9b"));
    EXPECT_EQ("a\\x0ab\\x09\\x00", printable(std::string_view("a\nb\t\0", 5)));
    EXPECT_EQ("a\nb\t\\x0d", printable("a\nb\t\r", true));
    EXPECT_EQ("\\x7f\\xff\\xc3", printable("\x7f\xff\xc3"));
}

TEST(ValuesTest, KnowsTextFromOtherData) {
    EXPECT_TRUE(is_text(""));
    EXPECT_TRUE(is_text("two\nlines\t\xe2\x82\xac \xf0\x9f\x98\x80"));

    for (char const* bad :
         {"\x1b", "\r", "\xff", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80",
          "\xf0\x80\x80\x80", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xc2\x80"}) {
        EXPECT_FALSE(is_text(bad));
    }
    EXPECT_FALSE(is_text(std::string_view("\0", 1)));
}

}  // namespace
