#include "kypserver/DeviceProfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "utils/json/Parser.h"

namespace kypserver {
namespace {

using libkyp::json::Json;

// As the scan reads it, which is stricter than others.
Json read(std::string const& text) {
    libkyp::json::Parser parser;
    parser.load(text);
    return parser.parse();
}

DeviceProfile some_profile() {
    return {"10.77.0.1.1.1", "1", "0.3.1", "001A2B3C4D5E", "os 5", "press"};
}

std::string device_text(DeviceProfile const& profile, char const* key) {
    return read(reply_json(profile, {}, 2039)).get("device").get(key).asString();
}

TEST(ReplyJsonTest, IsThisText) {
    EXPECT_EQ(
        R"({"device":{"hostName":"press","kypDeviceId":"10.77.0.1.1.1","kypVersion":"1",)"
        R"("rteVersion":"0.3.1","serialNo":"001A2B3C4D5E","sn":"001A2B3C4D5E",)"
        R"("velaosVersion":"os 5"},"frames":[)"
        R"({"frameIp":"10.77.0.1","frameMacAddr":"00:1a:2b:3c:4d:5e"},)"
        R"({"frameIp":"10.78.0.1","frameMacAddr":"00:1a:2b:3c:4d:5f"}]})",
        reply_json(some_profile(),
                   {{"10.77.0.1", "00:1a:2b:3c:4d:5e"}, {"10.78.0.1", "00:1a:2b:3c:4d:5f"}}, 2039));
}

TEST(ReplyJsonTest, WithoutAnIdTheKeyIsLeftOut) {
    DeviceProfile profile = some_profile();
    profile.deviceId.clear();

    Json const reply = read(reply_json(profile, {}, 2039));

    EXPECT_FALSE(reply.get("device").has("kypDeviceId"));
    EXPECT_TRUE(reply.get("device").has("hostName"));
    EXPECT_TRUE(reply.get("frames").isArray());
}

TEST(ReplyJsonTest, HoldsNothingThatTheReaderRefuses) {
    for (int byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        std::string const text = std::string("a") + static_cast<char>(byte) + "b";
        DeviceProfile const profile = {text, text, text, text, text, text};
        bool const isRefused = byte < 0x20 || byte == 0x7f || byte == '"' || byte == '\\';

        Json const reply = read(reply_json(profile, {{text, text}}, 2039));

        for (char const* key : {"kypDeviceId", "kypVersion", "rteVersion", "serialNo", "sn",
                                "velaosVersion", "hostName"}) {
            EXPECT_EQ(isRefused ? "a?b" : text, reply.get("device").get(key).asString());
        }
        EXPECT_EQ(isRefused ? "a?b" : text, reply.get("frames").get(0).get("frameIp").asString());
    }
}

TEST(ReplyJsonTest, IsJsonForOtherReadersToo) {
    DeviceProfile profile = some_profile();
    profile.hostName = "a\"b\\c\n";

    EXPECT_EQ("a?b?c?", nlohmann::json::parse(reply_json(profile, {}, 2039))["device"]["hostName"]);
}

TEST(ReplyJsonTest, LongTextsAreCutToWhatTheReaderKeeps) {
    std::string const text(1000, 'x');
    DeviceProfile const profile = {text, text, text, text, text, text};

    EXPECT_EQ(std::string(31, 'x'), device_text(profile, "hostName"));
    EXPECT_EQ(std::string(31, 'x'), device_text(profile, "kypDeviceId"));
    EXPECT_EQ(std::string(255, 'x'), device_text(profile, "velaosVersion"));
}

TEST(ReplyJsonTest, TextIsCutInFrontOfACharacter) {
    DeviceProfile profile = some_profile();
    profile.hostName = std::string(30, 'x') + "\xc3\xa4\xc3\xa4";
    EXPECT_EQ(std::string(30, 'x'), device_text(profile, "hostName"));

    profile.hostName = std::string(29, 'x') + "\xc3\xa4\xc3\xa4";
    EXPECT_EQ(std::string(29, 'x') + "\xc3\xa4", device_text(profile, "hostName"));

    profile.hostName = std::string(100, '\x80');
    EXPECT_EQ("", device_text(profile, "hostName"));
}

TEST(ReplyJsonTest, FramesWithoutRoomAreLeftOut) {
    std::vector<Frame> frames;
    for (int i = 0; i < 100; ++i) {
        frames.push_back({"192.168.100." + std::to_string(100 + i), "00:1a:2b:3c:4d:5e"});
    }
    std::string const long255(255, 'x');

    std::string const text =
        reply_json({long255, long255, long255, long255, long255, long255}, frames, 2039);

    EXPECT_GE(2039u, text.size());
    EXPECT_LT(1900u, text.size());
    Json const reply = read(text);
    EXPECT_LT(10u, reply.get("frames").size());
    EXPECT_EQ("192.168.100.100", reply.get("frames").get(0).get("frameIp").asString());
}

TEST(ReplyJsonTest, FrameThatJustFitsIsThere) {
    std::vector<Frame> const one = {{"10.77.0.1", "00:1a:2b:3c:4d:5e"}};
    size_t const size = reply_json(some_profile(), one, 2039).size();

    // One byte is kept for a comma, which the first frame does not need.
    EXPECT_EQ(1u, read(reply_json(some_profile(), one, size + 1)).get("frames").size());
    EXPECT_EQ(0u, read(reply_json(some_profile(), one, size - 1)).get("frames").size());
}

TEST(PrettyNameTest, IsTheTextBehindItsKey) {
    struct Row {
        char const* file;
        char const* name;
    };
    for (Row const& row :
         {Row{"NAME=\"A\"\nPRETTY_NAME=\"Field OS 5 (press)\"\nID=a\n", "Field OS 5 (press)"},
          Row{"PRETTY_NAME=Plain\n", "Plain"}, Row{"PRETTY_NAME='single $5'\n", "single $5"},
          Row{"PRETTY_NAME=\"a \\\"b\\\" \\$5\"", "a \"b\" $5"}, Row{"PRETTY_NAME=\"open", "open"},
          Row{"PRETTY_NAME=\"\\", "\\"}, Row{"PRETTY_NAME=\n", ""}, Row{"NAME=A\n", ""},
          Row{"# PRETTY_NAME=no\n", ""}, Row{"", ""}}) {
        SCOPED_TRACE(row.file);
        EXPECT_EQ(row.name, pretty_name(row.file));
    }
}

TEST(ReadProfileTest, KnowsThisSystem) {
    DeviceProfile const profile = read_profile();

    EXPECT_EQ("1", profile.protocolVersion);
    EXPECT_EQ("0.3.1", profile.runtimeVersion);
    EXPECT_NE("", profile.osVersion);
    EXPECT_EQ("", profile.deviceId);
}

TEST(ReadProfileTest, KnowsThisHost) {
    char name[256] = "";
    ASSERT_EQ(0, gethostname(name, sizeof name));

    EXPECT_EQ(name, host_name());
}

}  // namespace
}  // namespace kypserver
