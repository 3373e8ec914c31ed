#include "utils/json/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using libkyp::json::Json;

constexpr int kDeep = 200000;

template <typename Action>
void expect_throw(char const* message, Action action) {
    SCOPED_TRACE(message);
    try {
        action();
        ADD_FAILURE() << "no exception";
    } catch (std::logic_error const& error) {
        EXPECT_STREQ(message, error.what());
    }
}

// One value of each kind.
std::vector<Json> all_kinds() {
    return {Json(),
            Json(true),
            Json(7),
            Json(1.5),
            Json(std::string("s")),
            Json(Json::json_array),
            Json(Json::json_object)};
}

Json nested(int depth) {
    Json value;
    value.parse(std::string(static_cast<size_t>(depth), '[') +
                std::string(static_cast<size_t>(depth), ']'));
    return value;
}

TEST(JsonTest, ANewValueIsNull) {
    Json const value;

    EXPECT_EQ(Json::json_null, value.type());
    EXPECT_TRUE(value.isNull());
}

TEST(JsonTest, AValueMadeOfAKindIsZeroOrEmpty) {
    EXPECT_TRUE(Json(Json::json_null).isNull());
    EXPECT_FALSE(Json(Json::json_bool).asBool());
    EXPECT_EQ(0, Json(Json::json_int).asInt());
    EXPECT_EQ(0.0, Json(Json::json_double).asDouble());
    EXPECT_EQ("", Json(Json::json_string).asString());
    EXPECT_EQ("[]", Json(Json::json_array).toString());
    EXPECT_EQ("{}", Json(Json::json_object).toString());
}

TEST(JsonTest, AValueHasTheKindOfWhatItIsMadeOf) {
    EXPECT_TRUE(Json(true).asBool());
    EXPECT_EQ(-5, Json(-5).asInt());
    EXPECT_EQ(2.5, Json(2.5).asDouble());
    EXPECT_EQ("text", Json(std::string("text")).asString());
    EXPECT_EQ("text", Json("text").asString());
}

TEST(JsonTest, FieldsThatTheKindDoesNotSelectAreZeroOrEmpty) {
    Json const value(7);

    EXPECT_EQ(7, value.m_int);
    EXPECT_EQ(0.0, value.m_double);
    EXPECT_FALSE(value.m_bool);
    EXPECT_TRUE(value.m_string.empty());
    EXPECT_TRUE(value.m_array.empty());
    EXPECT_TRUE(value.m_object.empty());
}

TEST(JsonTest, EachKindAnswersToItsOwnQuestionAlone) {
    std::vector<Json> const kinds = all_kinds();
    for (size_t i = 0; i < kinds.size(); ++i) {
        EXPECT_EQ(i, static_cast<size_t>(kinds[i].type()));
        EXPECT_EQ(i == 0, kinds[i].isNull());
        EXPECT_EQ(i == 1, kinds[i].isBool());
        EXPECT_EQ(i == 2, kinds[i].isInt());
        EXPECT_EQ(i == 3, kinds[i].isDouble());
        EXPECT_EQ(i == 4, kinds[i].isString());
        EXPECT_EQ(i == 5, kinds[i].isArray());
        EXPECT_EQ(i == 6, kinds[i].isObject());
    }
}

TEST(JsonTest, ACopyIsDeep) {
    Json original;
    original.parse("{\"a\":[1,{\"b\":\"c\"}],\"d\":2.5,\"e\":true}");
    Json const copy(original);

    original["a"][1]["b"] = "changed";

    EXPECT_EQ("{\"a\":[1,{\"b\":\"c\"}],\"d\":2.5,\"e\":true}", copy.toString());
}

TEST(JsonTest, SizeCountsTheEntriesOfArraysAndObjects) {
    Json array;
    array[2] = 1;
    Json object;
    object["a"] = 1;

    EXPECT_EQ(3u, array.size());
    EXPECT_FALSE(array.empty());
    EXPECT_EQ(1u, object.size());
    EXPECT_FALSE(object.empty());
    EXPECT_TRUE(Json(Json::json_array).empty());
    EXPECT_TRUE(Json(Json::json_object).empty());
}

TEST(JsonTest, KeepsEveryOtherKindEmptyAStringToo) {
    for (Json const& value : {Json(), Json(true), Json(7), Json(1.5), Json("text")}) {
        EXPECT_EQ(0u, value.size());
        EXPECT_TRUE(value.empty());
    }
}

TEST(JsonTest, HasTellsWhetherAnArrayHoldsAnIndex) {
    Json array;
    array[1] = 1;

    EXPECT_TRUE(array.has(0));
    EXPECT_TRUE(array.has(1));
    EXPECT_FALSE(array.has(2));
    EXPECT_FALSE(array.has(-1));
    EXPECT_FALSE(array.has(std::numeric_limits<int>::min()));
}

TEST(JsonTest, HasTellsWhetherAnObjectHoldsAKey) {
    Json object;
    object["a"] = Json();

    EXPECT_TRUE(object.has("a"));
    EXPECT_TRUE(object.has(std::string("a")));
    EXPECT_FALSE(object.has("b"));
    EXPECT_FALSE(object.has(std::string("b")));
}

TEST(JsonTest, HasIsFalseOnOtherKinds) {
    for (Json const& value : all_kinds()) {
        EXPECT_FALSE(value.has(0));
        EXPECT_FALSE(value.has("a"));
        EXPECT_FALSE(value.has(std::string("a")));
    }
}

TEST(JsonTest, ATypedReadOfAnyOtherKindThrows) {
    for (Json const& value : all_kinds()) {
        SCOPED_TRACE(value.toString());
        if (!value.isBool()) {
            expect_throw("function Json::asBool value type error", [&] { value.asBool(); });
        }
        if (!value.isInt()) {
            expect_throw("function Json::asInt value type error", [&] { value.asInt(); });
        }
        if (!value.isDouble()) {
            expect_throw("function Json::asDouble value type error", [&] { value.asDouble(); });
        }
        if (!value.isString()) {
            expect_throw("function Json::asString value type error", [&] { value.asString(); });
        }
    }
}

TEST(JsonTest, AConversionOfAnyOtherKindThrows) {
    for (Json value : all_kinds()) {
        Json const& fixed = value;
        SCOPED_TRACE(value.toString());
        char const* const boolMessage = "function Json::operator (bool) requires bool value";
        if (!value.isBool()) {
            expect_throw(boolMessage, [&] { static_cast<void>(value.operator bool()); });
            expect_throw(boolMessage, [&] { static_cast<void>(fixed.operator bool()); });
        }
        char const* const intMessage = "function Json::operator (int) requires int value";
        if (!value.isInt()) {
            expect_throw(intMessage, [&] { static_cast<void>(value.operator int()); });
            expect_throw(intMessage, [&] { static_cast<void>(fixed.operator int()); });
        }
        char const* const doubleMessage = "function Json::operator (double) requires double value";
        if (!value.isDouble()) {
            expect_throw(doubleMessage, [&] { static_cast<void>(value.operator double()); });
            expect_throw(doubleMessage, [&] { static_cast<void>(fixed.operator double()); });
        }
        char const* const textMessage = "function Json::operator (string) requires string value";
        if (!value.isString()) {
            expect_throw(textMessage, [&] { static_cast<void>(value.operator std::string()); });
            expect_throw(textMessage, [&] { static_cast<void>(fixed.operator std::string()); });
        }
    }
}

TEST(JsonTest, ConvertsToTheTypeOfItsKind) {
    Json object;
    object.parse("{\"b\":true,\"i\":3,\"d\":1.5,\"s\":\"text\"}");
    Json const& fixed = object;

    bool const flag = object["b"];
    int const number = object["i"];
    double const fraction = object["d"];
    std::string const text = object["s"];
    bool const fixedFlag = fixed["b"];
    int const fixedNumber = fixed["i"];
    double const fixedFraction = fixed["d"];
    std::string const fixedText = fixed["s"];

    EXPECT_TRUE(flag && fixedFlag);
    EXPECT_EQ(3, number);
    EXPECT_EQ(3, fixedNumber);
    EXPECT_EQ(1.5, fraction);
    EXPECT_EQ(1.5, fixedFraction);
    EXPECT_EQ("text", text);
    EXPECT_EQ("text", fixedText);
}

TEST(JsonTest, ThereIsOneSharedNull) {
    EXPECT_TRUE(Json::null().isNull());
    EXPECT_EQ(&Json::null(), &Json::null());
}

TEST(JsonTest, GetGivesTheElementOrNull) {
    Json array;
    array.parse("[1,2]");
    Json const& fixed = array;

    EXPECT_EQ(1, array.get(0).asInt());
    EXPECT_EQ(2, fixed[1].asInt());
    EXPECT_EQ(&Json::null(), &array.get(2));
    EXPECT_EQ(&Json::null(), &array.get(-1));
    EXPECT_EQ(&Json::null(), &fixed[2]);
    EXPECT_EQ(&Json::null(), &fixed[-1]);
    EXPECT_EQ(2u, array.size());
}

TEST(JsonTest, GetGivesTheMemberOrNull) {
    Json object;
    object.parse("{\"a\":1}");
    Json const& fixed = object;

    EXPECT_EQ(1, object.get("a").asInt());
    EXPECT_EQ(1, object.get(std::string("a")).asInt());
    EXPECT_EQ(1, fixed["a"].asInt());
    EXPECT_EQ(1, fixed[std::string("a")].asInt());
    EXPECT_EQ(&Json::null(), &object.get("b"));
    EXPECT_EQ(&Json::null(), &object.get(std::string("b")));
    EXPECT_EQ(&Json::null(), &fixed["b"]);
    EXPECT_EQ(&Json::null(), &fixed[std::string("b")]);
    EXPECT_EQ(1u, object.size());
}

TEST(JsonTest, GetOnAnotherKindThrows) {
    for (Json const& value : all_kinds()) {
        SCOPED_TRACE(value.toString());
        if (!value.isArray()) {
            char const* const message = "function Json::get [int] requires array value";
            expect_throw(message, [&] { value.get(0); });
            expect_throw(message, [&] { value[0]; });
        }
        if (!value.isObject()) {
            char const* const message = "function Json::get [const string &] requires object value";
            expect_throw(message, [&] { value.get("a"); });
            expect_throw(message, [&] { value.get(std::string("a")); });
            expect_throw(message, [&] { value["a"]; });
            expect_throw(message, [&] { value[std::string("a")]; });
        }
    }
}

TEST(JsonTest, AnIndexBehindTheEndExtendsTheArrayWithNulls) {
    Json value;
    value[3] = 1;

    EXPECT_TRUE(value.isArray());
    ASSERT_EQ(4u, value.size());
    EXPECT_TRUE(value[0].isNull());
    EXPECT_TRUE(value[1].isNull());
    EXPECT_TRUE(value[2].isNull());
    EXPECT_EQ(1, value[3].asInt());
}

TEST(JsonTest, AnArrayThatGrowsKeepsItsElements) {
    Json value;
    for (int i = 0; i < 100; ++i) value[i]["n"] = i;

    ASSERT_EQ(100u, value.size());
    for (int i = 0; i < 100; ++i) EXPECT_EQ(i, value[i]["n"].asInt());
}

TEST(JsonTest, ANegativeIndexThrowsOnAnArrayThatNullHasBecome) {
    Json value;

    expect_throw("function Json::operator [int] index less 0", [&] { value[-1] = 1; });

    EXPECT_EQ("[]", value.toString());
}

TEST(JsonTest, AMissingMemberIsMadeNull) {
    Json value;

    EXPECT_TRUE(value["a"].isNull());
    EXPECT_TRUE(value[std::string("b")].isNull());

    EXPECT_EQ("{\"a\":null,\"b\":null}", value.toString());
}

TEST(JsonTest, ElementAccessOnAnotherKindThrows) {
    for (Json value : all_kinds()) {
        SCOPED_TRACE(value.toString());
        if (!value.isArray() && !value.isNull()) {
            expect_throw("function Json::operator [int] requires array value", [&] { value[0]; });
            expect_throw("function Json::operator [int] requires array value", [&] { value[-1]; });
        }
        if (!value.isObject() && !value.isNull()) {
            char const* const message =
                "function Json::operator [const string &] requires object value";
            expect_throw(message, [&] { value["a"]; });
            expect_throw(message, [&] { value[std::string("a")]; });
        }
    }
}

TEST(JsonTest, AppendMakesANullAnArrayAndReturnsIt) {
    Json value;

    Json& result = value.append(1).append("two");

    EXPECT_EQ(&value, &result);
    EXPECT_EQ("[1,\"two\"]", value.toString());
}

TEST(JsonTest, AppendTakesADeepCopyOfTheArrayItselfOrItsElements) {
    Json value;
    value.append(1);
    value.append(value);
    value.append(value[1]);

    EXPECT_EQ("[1,[1],[1]]", value.toString());
}

TEST(JsonTest, AppendToAnotherKindThrows) {
    for (Json value : all_kinds()) {
        if (value.isArray() || value.isNull()) continue;
        SCOPED_TRACE(value.toString());
        expect_throw("function Json::append requires array value", [&] { value.append(1); });
    }
}

TEST(JsonTest, RemoveTakesAnElementOutAndMovesTheOthersDown) {
    Json value;
    value.parse("[1,[2],3]");

    EXPECT_TRUE(value.remove(0));
    EXPECT_EQ("[[2],3]", value.toString());
    EXPECT_TRUE(value.remove(1));
    EXPECT_EQ("[[2]]", value.toString());
    EXPECT_FALSE(value.remove(1));
    EXPECT_FALSE(value.remove(-1));
}

TEST(JsonTest, RemoveErasesAKey) {
    Json value;
    value.parse("{\"a\":1,\"b\":2,\"c\":3}");

    EXPECT_TRUE(value.remove("a"));
    EXPECT_TRUE(value.remove(std::string("c")));
    EXPECT_FALSE(value.remove("a"));
    EXPECT_FALSE(value.remove(std::string("a")));
    EXPECT_EQ("{\"b\":2}", value.toString());
}

TEST(JsonTest, RemoveIsFalseOnOtherKinds) {
    for (Json value : all_kinds()) {
        EXPECT_FALSE(value.remove(0));
        EXPECT_FALSE(value.remove("a"));
        EXPECT_FALSE(value.remove(std::string("a")));
    }
}

TEST(JsonTest, KeepsTheKindOfAClearedValue) {
    Json number(7);
    Json object;
    object.parse("{\"a\":[1]}");

    number.clear();
    object.clear();

    EXPECT_EQ(0, number.asInt());
    EXPECT_TRUE(object.isObject());
    EXPECT_TRUE(object.empty());
}

TEST(JsonTest, SetReplacesKindAndValue) {
    Json value;
    value.parse("[1]");

    value.set(true);
    EXPECT_TRUE(value.asBool());
    EXPECT_TRUE(value.m_array.empty());
    value.set(5);
    EXPECT_EQ(5, value.asInt());
    EXPECT_FALSE(value.m_bool);
    value.set(1.5);
    EXPECT_EQ(1.5, value.asDouble());
    EXPECT_EQ(0, value.m_int);
    value.set(std::string("text"));
    EXPECT_EQ("text", value.asString());
    EXPECT_EQ(0.0, value.m_double);
    value.set("other");
    EXPECT_EQ("other", value.asString());
    value.set(Json(3));
    EXPECT_EQ(3, value.asInt());
    EXPECT_TRUE(value.m_string.empty());
    value.copy(Json(false));
    EXPECT_FALSE(value.asBool());
    EXPECT_EQ(0, value.m_int);
}

TEST(JsonTest, SetTakesTheTextThatTheValueItselfHolds) {
    Json value("a text that does not fit into the string object");

    value.set(value.m_string);
    value.set(value.m_string.c_str() + 2);

    EXPECT_EQ("text that does not fit into the string object", value.asString());
}

TEST(JsonTest, AssignmentTakesEveryType) {
    Json value;

    EXPECT_EQ(&value, &(value = true));
    EXPECT_TRUE(value.asBool());
    EXPECT_EQ(&value, &(value = 5));
    EXPECT_EQ(5, value.asInt());
    EXPECT_EQ(&value, &(value = 1.5));
    EXPECT_EQ(1.5, value.asDouble());
    EXPECT_EQ(&value, &(value = std::string("text")));
    EXPECT_EQ("text", value.asString());
    EXPECT_EQ(&value, &(value = "other"));
    EXPECT_EQ("other", value.asString());
    EXPECT_EQ(&value, &(value = Json()));
    EXPECT_TRUE(value.isNull());
}

TEST(JsonTest, KeepsOnlyTheKindOfAValueAssignedToItself) {
    Json number(7);
    Json array;
    array.parse("[1,2]");
    Json text("text");
    Json const& sameNumber = number;
    Json const& sameArray = array;

    number = sameNumber;
    array.set(sameArray);
    text.copy(text);

    EXPECT_EQ(0, number.asInt());
    EXPECT_EQ("[]", array.toString());
    EXPECT_EQ("", text.asString());
}

TEST(JsonTest, AValueTakesAPartOfItself) {
    Json value;
    value.parse("[{\"a\":[1,2]}]");

    value = value[0]["a"];

    EXPECT_EQ("[1,2]", value.toString());
}

TEST(JsonTest, APartTakesTheWholeValue) {
    Json value;
    value.parse("[5]");

    value[0] = value;

    EXPECT_EQ("[[5]]", value.toString());
}

TEST(JsonTest, ComparesKindAndValue) {
    EXPECT_TRUE(Json() == Json());
    EXPECT_TRUE(Json(true) == Json(true));
    EXPECT_FALSE(Json(true) == Json(false));
    EXPECT_TRUE(Json(1) == Json(1));
    EXPECT_FALSE(Json(1) == Json(2));
    EXPECT_TRUE(Json(1.5) == Json(1.5));
    EXPECT_FALSE(Json(1.5) == Json(2.5));
    EXPECT_TRUE(Json(0.0) == Json(-0.0));
    EXPECT_TRUE(Json("a") == Json("a"));
    EXPECT_FALSE(Json("a") == Json("b"));
    EXPECT_FALSE(Json(1) == Json(1.0));
    EXPECT_FALSE(Json(0) == Json(false));
    EXPECT_FALSE(Json() == Json(0));
    EXPECT_TRUE(Json(1) != Json(1.0));
    EXPECT_FALSE(Json(1) != Json(1));
}

TEST(JsonTest, ComparesWithPlainValues) {
    EXPECT_TRUE(Json(true) == true);
    EXPECT_TRUE(Json(1) == 1);
    EXPECT_TRUE(Json(1.5) == 1.5);
    EXPECT_TRUE(Json("a") == "a");
    EXPECT_TRUE(Json("a") == std::string("a"));
    EXPECT_FALSE(Json(1) == 1.0);
    EXPECT_TRUE(Json(true) != false);
    EXPECT_TRUE(Json(1) != 2);
    EXPECT_TRUE(Json(1.5) != 2.5);
    EXPECT_TRUE(Json("a") != "b");
    EXPECT_TRUE(Json("a") != std::string("b"));
    EXPECT_FALSE(Json(1) != 1);
}

TEST(JsonTest, NotANumberEqualsNothing) {
    Json const value(std::nan(""));

    EXPECT_FALSE(value == value);
    EXPECT_FALSE(value == Json(1.0));
    EXPECT_FALSE(Json(1.0) == value);
    EXPECT_TRUE(value != value);
}

TEST(JsonTest, KeepsArraysAndObjectsUnequalToEverything) {
    Json array;
    array.parse("[1]");
    Json const object(Json::json_object);

    EXPECT_FALSE(array == Json(array));
    EXPECT_FALSE(array == array);
    EXPECT_TRUE(array != array);
    EXPECT_FALSE(object == object);
    EXPECT_FALSE(object == Json(object));
    EXPECT_TRUE(object != object);
}

TEST(JsonTest, WritesPlainValues) {
    EXPECT_EQ("null", Json().toString());
    EXPECT_EQ("true", Json(true).toString());
    EXPECT_EQ("false", Json(false).toString());
    EXPECT_EQ("-2147483648", Json(std::numeric_limits<int>::min()).toString());
    EXPECT_EQ("1.5", Json(1.5).toString());
    EXPECT_EQ("\"text\"", Json("text").toString());
    EXPECT_EQ("\"a\nb\xc3\xa4\"", Json("a\nb\xc3\xa4").toString());
}

TEST(JsonTest, KeepsSixDigitsOfADoubleAndWritesAWholeOneLikeAnInt) {
    EXPECT_EQ("2", Json(2.0).toString());
    EXPECT_EQ("1e+08", Json(100000000.0).toString());
    EXPECT_EQ("3.14159", Json(3.14159265).toString());

    Json value;
    value.parse(Json(2.0).toString());
    EXPECT_EQ(2, value.asInt());
}

TEST(JsonTest, KeepsAQuoteInAStringUnescaped) {
    EXPECT_EQ("\"a\"b\\\"", Json("a\"b\\").toString());
}

TEST(JsonTest, WritesMembersInTheOrderOfTheirKeysWithoutBlanks) {
    Json value;
    value.parse(" { \"b\" : 1 , \"a\" : [ true , null ] } ");

    EXPECT_EQ("{\"a\":[true,null],\"b\":1}", value.toString());
}

TEST(JsonTest, OrdersKeysByBytesTheShorterFirst) {
    Json value;
    value.parse("{\"ab\":1,\"\xc3\":2,\"a\":3,\"B\":4,\"\":5}");

    EXPECT_EQ("{\"\":5,\"B\":4,\"a\":3,\"ab\":1,\"\xc3\":2}", value.toString());
}

TEST(JsonTest, WritesNestedAndEmptyEntries) {
    std::string const text = "[[],{},[[1,2],[{\"a\":{\"b\":[]},\"c\":{}}]],\"\"]";
    Json value;
    value.parse(text);

    EXPECT_EQ(text, value.toString());
}

TEST(JsonTest, AFailedParseLeavesTheValue) {
    Json value("text");

    expect_throw("unexpected end of input", [&] { value.parse("[1,"); });

    EXPECT_EQ("text", value.asString());
}

TEST(JsonTest, ParseReplacesKindAndValueAlsoFromItsOwnText) {
    Json value("[1]");

    value.parse(value.m_string);

    EXPECT_EQ("[1]", value.toString());
    EXPECT_TRUE(value.m_string.empty());
}

TEST(JsonTest, DeepNestingIsReadCopiedWrittenAndFreed) {
    Json const value = nested(kDeep);
    Json copy(value);
    Json other(1);

    other = copy;
    copy.clear();

    EXPECT_EQ(std::string(kDeep, '[') + std::string(kDeep, ']'), other.toString());
    EXPECT_TRUE(copy.empty());
}

TEST(JsonTest, DeepNestingIsFreedWhenItsArrayGrowsOrLosesIt) {
    Json value;
    value.append(nested(kDeep));
    for (int i = 0; i < 20; ++i) value.append(i);

    EXPECT_TRUE(value.remove(0));

    EXPECT_EQ(0, value[0].asInt());
    EXPECT_EQ(20u, value.size());
}

}  // namespace
