#include "utils/json/Parser.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <stdexcept>
#include <string>

namespace {

using libkyp::json::Json;
using libkyp::json::Parser;

Json parse(std::string const& text) {
    Json value;
    value.parse(text);
    return value;
}

void expect_fault(std::string const& text, char const* message) {
    SCOPED_TRACE(text);
    try {
        parse(text);
        ADD_FAILURE() << "no exception";
    } catch (std::logic_error const& error) {
        EXPECT_STREQ(message, error.what());
    }
}

TEST(JsonParserTest, AnEmptyTextIsAnUnexpectedEnd) {
    expect_fault("", "unexpected end of input");
    expect_fault(" \t\r\n", "unexpected end of input");
}

TEST(JsonParserTest, ReadsEachKind) {
    EXPECT_TRUE(parse("null").isNull());
    EXPECT_TRUE(parse("true").asBool());
    EXPECT_FALSE(parse("false").asBool());
    EXPECT_EQ(12, parse("12").asInt());
    EXPECT_EQ(1.25, parse("1.25").asDouble());
    EXPECT_EQ("text", parse("\"text\"").asString());
}

TEST(JsonParserTest, EmptyBracketsGiveEmptyValues) {
    EXPECT_TRUE(parse("[]").isArray());
    EXPECT_TRUE(parse("[ ]").empty());
    EXPECT_TRUE(parse("{}").isObject());
    EXPECT_TRUE(parse("{ }").empty());
}

TEST(JsonParserTest, SkipsBlankTabLineFeedAndCarriageReturnOnly) {
    EXPECT_EQ("[1,2]", parse(" \t\r\n[ \t\r\n1 \t\r\n, \t\r\n2 \t\r\n]").toString());
    expect_fault("\v1", "unexpected character in parse json");
    expect_fault("\f1", "unexpected character in parse json");
}

TEST(JsonParserTest, AWrongWordThrows) {
    expect_fault("nul", "parse null error");
    expect_fault("nuLl", "parse null error");
    expect_fault("tru", "parse bool error");
    expect_fault("fals ", "parse bool error");
}

TEST(JsonParserTest, AnyOtherBeginningThrows) {
    char const* const message = "unexpected character in parse json";
    expect_fault("x", message);
    expect_fault(".5", message);
    expect_fault("+1", message);
    expect_fault("'a'", message);
    expect_fault("]", message);
    expect_fault("}", message);
    expect_fault(",", message);
    expect_fault(std::string(1, '\0'), message);
}

TEST(JsonParserTest, KeepsTextBehindTheFirstValueUnread) {
    EXPECT_EQ(1, parse("1 garbage").asInt());
    EXPECT_TRUE(parse("nullx").isNull());
    EXPECT_EQ("[]", parse("[]]").toString());
}

TEST(JsonParserTest, AnArrayNeedsCommasBetweenItsElements) {
    expect_fault("[1 2]", "expected ',' in array");
    expect_fault("[1}", "expected ',' in array");
    expect_fault("[,]", "unexpected character in parse json");
    expect_fault("[1,]", "unexpected character in parse json");
    expect_fault("[", "unexpected end of input");
    expect_fault("[1", "unexpected end of input");
    expect_fault("[1,", "unexpected end of input");
}

TEST(JsonParserTest, AnObjectNeedsQuotesColonsAndCommas) {
    expect_fault("{,}", "expected '\"' in object");
    expect_fault("{a:1}", "expected '\"' in object");
    expect_fault("{\"a\":1,}", "expected '\"' in object");
    expect_fault("{\"a\":1,2}", "expected '\"' in object");
    expect_fault("{\"a\"1}", "expected ':' in object");
    expect_fault("{\"a\":1,\"b\"}", "expected ':' in object");
    expect_fault("{\"a\":1 \"b\":2}", "expected ',' in object");
    expect_fault("{\"a\":1]", "expected ',' in object");
    expect_fault("{\"a\":}", "unexpected character in parse json");
    expect_fault("{", "unexpected end of input");
    expect_fault("{\"a\"", "unexpected end of input");
    expect_fault("{\"a\":", "unexpected end of input");
    expect_fault("{\"a\":1", "unexpected end of input");
    expect_fault("{\"a\":1,", "unexpected end of input");
    expect_fault("{\"a", "unexpected end of input in string");
}

TEST(JsonParserTest, OfTwoMembersWithOneKeyTheLaterOneStays) {
    Json const value = parse("{\"a\":[1],\"a\":2}");

    EXPECT_EQ(1u, value.size());
    EXPECT_EQ(2, value["a"].asInt());
    EXPECT_TRUE(value["a"].m_array.empty());
}

TEST(JsonParserTest, ReadsInts) {
    EXPECT_EQ(0, parse("0").asInt());
    EXPECT_EQ(0, parse("-0").asInt());
    EXPECT_EQ(-17, parse("-17").asInt());
    EXPECT_EQ(std::numeric_limits<int>::max(), parse("2147483647").asInt());
    EXPECT_EQ(std::numeric_limits<int>::min(), parse("-2147483648").asInt());
}

TEST(JsonParserTest, KeepsTheLowBitsOfAnIntThatIsTooLong) {
    EXPECT_EQ(std::numeric_limits<int>::min(), parse("2147483648").asInt());
    EXPECT_EQ(1, parse("4294967297").asInt());
    EXPECT_EQ(-1, parse("99999999999999999999").asInt());
    EXPECT_EQ(0, parse("-99999999999999999999").asInt());
}

TEST(JsonParserTest, AFaultyNumberThrows) {
    expect_fault("-", "invalid character in number");
    expect_fault("-a", "invalid character in number");
    expect_fault("-.5", "invalid character in number");
    expect_fault("--1", "invalid character in number");
    expect_fault("01", "leading 0s not permitted in numbers");
    expect_fault("-00", "leading 0s not permitted in numbers");
    expect_fault("1.", "at least one digit required in fractional part");
    expect_fault("1.e5", "at least one digit required in fractional part");
    expect_fault("1.-5", "at least one digit required in fractional part");
}

TEST(JsonParserTest, ReadsDoubles) {
    EXPECT_EQ(0.5, parse("0.5").asDouble());
    EXPECT_EQ(-12.25, parse("-12.25").asDouble());
    EXPECT_EQ(2.0, parse("2.0").asDouble());
}

TEST(JsonParserTest, KeepsAnExponentOutOfAnInt) {
    EXPECT_EQ(1, parse("1e5").asInt());
    expect_fault("[1e5]", "expected ',' in array");
    expect_fault("{\"a\":1e5}", "expected ',' in object");
}

TEST(JsonParserTest, KeepsTheExponentOfADoubleThoughItIsNotPassed) {
    EXPECT_EQ(1500.0, parse("1.5e3").asDouble());
    expect_fault("[1.5e3]", "expected ',' in array");
    expect_fault("{\"a\":1.5e3}", "expected ',' in object");
}

TEST(JsonParserTest, TakesTheBytesOfAStringLiterally) {
    EXPECT_EQ("a\n\t\x01", parse("\"a\n\t\x01\"").asString());
    EXPECT_EQ("\xff\xc3", parse("\"\xff\xc3\"").asString());
    EXPECT_EQ(std::string("a\0b", 3), parse(std::string("\"a\0b\"", 5)).asString());
    EXPECT_EQ("", parse("\"\"").asString());
}

TEST(JsonParserTest, KeepsBackslashesOut) {
    expect_fault("\"a\\n\"", "not support escaped characters in string");
    expect_fault("\"\\", "not support escaped characters in string");
    expect_fault("{\"\\u0041\":1}", "not support escaped characters in string");
}

TEST(JsonParserTest, AStringWithoutItsEndThrows) {
    expect_fault("\"", "unexpected end of input in string");
    expect_fault("\"abc", "unexpected end of input in string");
}

TEST(JsonParserTest, LoadBeginsAtTheStart) {
    Parser parser;
    EXPECT_EQ(0u, parser.m_idx);

    parser.load("1 2");
    EXPECT_EQ(1, parser.parse().asInt());
    EXPECT_EQ(1u, parser.m_idx);
    EXPECT_EQ(2, parser.parse().asInt());
    EXPECT_EQ(3u, parser.m_idx);

    parser.load("[3]");
    EXPECT_EQ("[3]", parser.m_str);
    EXPECT_EQ(0u, parser.m_idx);
    EXPECT_EQ("[3]", parser.parse().toString());
}

TEST(JsonParserTest, StopsInFrontOfAnExponent) {
    Parser parser;

    parser.load("1e5");
    parser.parse();
    EXPECT_EQ(1u, parser.m_idx);
    parser.load("1.5e3");
    parser.parse();
    EXPECT_EQ(3u, parser.m_idx);
}

TEST(JsonParserTest, ScannersReadAtThePosition) {
    Parser parser;
    parser.load(" \tx null true -1.5 text\" ");

    parser.skip_white_spaces();
    EXPECT_EQ(2u, parser.m_idx);
    EXPECT_EQ('x', parser.get_next_token());
    EXPECT_EQ(3u, parser.m_idx);
    parser.skip_white_spaces();
    EXPECT_TRUE(parser.parse_null().isNull());
    parser.skip_white_spaces();
    EXPECT_TRUE(parser.parse_bool().asBool());
    parser.skip_white_spaces();
    EXPECT_EQ(-1.5, parser.parse_number().asDouble());
    parser.skip_white_spaces();
    EXPECT_EQ("text", parser.parse_string());
    EXPECT_THROW(parser.get_next_token(), std::logic_error);
}

TEST(JsonParserTest, ScannersFailBehindTheEnd) {
    Parser parser;
    parser.load("1");
    parser.m_idx = 100;

    parser.skip_white_spaces();
    EXPECT_THROW(parser.get_next_token(), std::logic_error);
    EXPECT_THROW(parser.parse_null(), std::logic_error);
    EXPECT_THROW(parser.parse_bool(), std::logic_error);
    EXPECT_THROW(parser.parse_number(), std::logic_error);
    EXPECT_THROW(parser.parse_string(), std::logic_error);
    EXPECT_THROW(parser.parse(), std::logic_error);
}

TEST(JsonParserTest, ATextOfNothingButBracketsOnlyThrows) {
    expect_fault(std::string(300000, '['), "unexpected end of input");
    std::string members;
    for (int i = 0; i < 100000; ++i) members += "{\"a\":[";
    expect_fault(members + "x", "unexpected character in parse json");
}

TEST(JsonParserTest, DeepNestingBesideOtherElementsIsReadWhole) {
    constexpr size_t kDepth = 50000;
    std::string text = std::string(kDepth, '[') + "1";
    for (size_t i = 0; i < kDepth; ++i) text += ",0]";

    EXPECT_EQ(text, parse(text).toString());
}

TEST(JsonParserTest, NoTextDoesMoreThanThrow) {
    std::mt19937 random(1);
    std::string const marks = "[]{}\",:\\ ntf-0123.e\xff";
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (auto length = random() % 24; length > 0; --length) {
            text += marks[random() % marks.size()];
        }
        try {
            parse(text);
        } catch (std::logic_error const&) {
            continue;
        }
    }
}

}  // namespace
