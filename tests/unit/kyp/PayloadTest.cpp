#include "kyp/Payload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <fstream>

#include "kyp/Failure.h"

namespace {

using namespace kyptool;

TEST(PayloadTest, ReadsHexadecimalPairs) {
    EXPECT_EQ(std::string("\x01\x02\xff", 3), parse_hex("01 02ff"));
    EXPECT_EQ(std::string("\xAB", 1), parse_hex(" aB "));
    EXPECT_EQ("", parse_hex(""));
    for (char const* bad : {"0", "0 1", "0g", "0x01", "01 2"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parse_hex(bad));
    }
}

TEST(PayloadTest, DumpsSixteenBytesALine) {
    EXPECT_EQ("", hex_dump(""));
    EXPECT_EQ("00000000  41                                                |A|\n", hex_dump("A"));
    EXPECT_EQ(
        "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
        "00000010  00 7f ff                                          |...|\n",
        hex_dump(std::string_view("0123456789abcdef\0\x7f\xff", 19)));
}

TEST(PayloadTest, ShowsTextWithALineEnd) {
    EXPECT_EQ("hello\n", render("hello", View::AUTO));
    EXPECT_EQ("hello\n", render("hello\n", View::AUTO));
    EXPECT_EQ("", render("", View::AUTO));
    EXPECT_EQ("\\x1b[2J\n", render("\x1b[2J", View::TEXT));
}

TEST(PayloadTest, ShowsOtherDataAsADump) {
    EXPECT_EQ(hex_dump("\x1b[2J"), render("\x1b[2J", View::AUTO));
    EXPECT_EQ(hex_dump("hello"), render("hello", View::HEX));
}

TEST(PayloadTest, RawIsTheDataAlone) {
    EXPECT_EQ("\x1b[2J", render("\x1b[2J", View::RAW));
}

TEST(PayloadTest, PutsTextOrPairsIntoJson) {
    Json object;
    add_data(object, "h\"i");
    EXPECT_EQ(R"({"size":3,"text":"h\"i"})", object.dump());

    object.clear();
    add_data(object, std::string_view("\0\xff", 2));
    EXPECT_EQ(R"({"size":2,"hex":"00ff"})", object.dump());
}

class DataSourceTest : public testing::Test {
protected:
    DataSourceTest() { m_source.enter(m_app); }

    void parse(std::string const& line) {
        m_app.parse(line);
        m_source.check();
    }

    CLI::App m_app;
    CDataSource m_source;
};

TEST_F(DataSourceTest, NoDataIsEmpty) {
    parse("");
    EXPECT_EQ("", m_source.load(0));
}

TEST_F(DataSourceTest, TakesAWord) {
    parse("hello");
    EXPECT_EQ("hello", m_source.load(5));
    EXPECT_THROW(m_source.load(4), Failure);
}

TEST_F(DataSourceTest, TakesDigits) {
    parse("--hex '00 ff'");
    EXPECT_EQ(std::string("\0\xff", 2), m_source.load(2));
}

TEST_F(DataSourceTest, RefusesBadDigitsAndTwoSources) {
    EXPECT_THROW(parse("--hex 0"), CLI::ValidationError);
    EXPECT_THROW(parse("word --hex 00"), CLI::ValidationError);
    EXPECT_THROW(parse("word --file -"), CLI::ValidationError);
}

TEST_F(DataSourceTest, TakesAFileUpToTheLimit) {
    std::string const content(200000, 'x');
    std::ofstream("/tmp/data") << content;
    parse("--file /tmp/data");

    EXPECT_EQ(content, m_source.load(200000));
    EXPECT_THROW(m_source.load(199999), Failure);
}

TEST_F(DataSourceTest, NamesAFileThatCannotBeRead) {
    parse("--file /tmp");
    try {
        m_source.load(10);
        ADD_FAILURE();
    } catch (Failure const& failure) {
        EXPECT_EQ(EXIT_USAGE, failure.exitCode);
        EXPECT_STREQ("/tmp cannot be read: Is a directory", failure.what());
    }
}

}  // namespace
