#include "kypcomm/protocol/TopicProtocol.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/FrameBytes.h"

namespace {

// type "pub", topic "ab", 3 bytes of data: at 24, 28 and 31; the words at 35 and 39.
char const kBody[] =
    "03 00 00 00 00 00 00 00 "
    "02 00 00 00 00 00 00 00 "
    "03 00 00 00 00 00 00 00 "
    "70 75 62 00 "
    "61 62 00 "
    "58 00 59 00 "
    "44 33 22 11 "
    "88 77 66 55";

// Fields that show what was left alone: lengths 5, 6 and 7.
TopicProtocol read(Bytes const& body) {
    TopicProtocol topic("types", "topics", "nothing", 0xe1e1e1e1, 0xe2e2e2e2);
    EXPECT_EQ(0, topic.deserialization(Message(body.data(), body.size())));
    return topic;
}

Bytes first(size_t count) {
    Bytes body = bytes(kBody);
    body.resize(count);
    return body;
}

// The body with another length in one of its three words.
Bytes declaring(size_t word, uint64_t value) {
    Bytes body = bytes(kBody);
    const Bytes length = u64_le(value);
    std::copy(length.begin(), length.end(), body.begin() + static_cast<long>(word * 8));
    return body;
}

TEST(TopicProtocolTest, StoresTextsAndTheirSizes) {
    TopicProtocol topic("pub", "ab", std::string("X\0Y", 3));

    EXPECT_EQ(3u, topic.typeLen);
    EXPECT_EQ(2u, topic.topicLen);
    EXPECT_EQ(3u, topic.dataLen);
    EXPECT_EQ(0u, topic.indexGroup);
    EXPECT_EQ(0u, topic.indexOffset);
    EXPECT_EQ(43u, topic.getBytesLength());
}

TEST(TopicProtocolTest, StartsEmpty) {
    TopicProtocol topic;

    EXPECT_EQ(35u, topic.getBytesLength());
    EXPECT_EQ("", topic.type + topic.topic + topic.data);
    EXPECT_EQ(0u, topic.indexGroup | topic.indexOffset);
}

TEST(TopicProtocolTest, WritesABody) {
    TopicProtocol topic("pub", "ab", std::string("X\0Y", 3), 0x11223344, 0x55667788);

    const Message m = topic.serialization();

    EXPECT_EQ(kBody, hex(m.data, m.length));
    EXPECT_EQ(topic.getBytesLength(), m.length);
}

TEST(TopicProtocolTest, ReadsABody) {
    const TopicProtocol topic = read(bytes(kBody));

    EXPECT_EQ("pub", topic.type);
    EXPECT_EQ("ab", topic.topic);
    EXPECT_EQ(std::string("X\0Y", 3), topic.data);
    EXPECT_EQ(0x11223344u, topic.indexGroup);
    EXPECT_EQ(0x55667788u, topic.indexOffset);
}

TEST(TopicProtocolTest, ReadsABodyOfEmptyTexts) {
    const TopicProtocol topic =
        read(join({Bytes(24, 0), bytes("00 00 00 01 00 00 00 02 00 00 00")}));

    EXPECT_EQ("", topic.type + topic.topic + topic.data);
    EXPECT_EQ(1u, topic.indexGroup);
    EXPECT_EQ(2u, topic.indexOffset);
}

TEST(TopicProtocolTest, CutsTypeAndTopicAtTheirFirstNul) {
    const TopicProtocol topic =
        read(join({u64_le(3), u64_le(2), u64_le(1), bytes("70 00 62 00 00 62 00 58 00")}));

    EXPECT_EQ("p", topic.type);
    EXPECT_EQ(3u, topic.typeLen);
    EXPECT_EQ("", topic.topic);
    EXPECT_EQ("X", topic.data);
}

TEST(TopicProtocolTest, WritesTheTextsThatItHasAfterACut) {
    TopicProtocol topic = read(join({u64_le(3), u64_le(2), u64_le(1),
                                     bytes("70 00 62 00 61 62 00 58 00 01 00 00 00 02 00 00 00")}));

    const Message m = topic.serialization();

    EXPECT_EQ(hex(join({u64_le(1), u64_le(2), u64_le(1),
                        bytes("70 00 61 62 00 58 00 01 00 00 00 02 00 00 00")})),
              hex(m.data, m.length));
}

TEST(TopicProtocolTest, LeavesTheWordsOfABodyThatEndsBehindTheData) {
    const TopicProtocol topic = read(first(35));

    EXPECT_EQ(std::string("X\0Y", 3), topic.data);
    EXPECT_EQ(0xe1e1e1e1u, topic.indexGroup);
    EXPECT_EQ(0xe2e2e2e2u, topic.indexOffset);
}

TEST(TopicProtocolTest, ReadsAsFarAsTheBodyGoes) {
    struct {
        size_t size;
        int fields;  // how many of the eight are read
    } const rows[] = {{0, 0},  {1, 1},  {8, 1},  {9, 2},  {16, 2}, {17, 3}, {24, 3},
                      {25, 3}, {26, 3}, {27, 4}, {28, 4}, {29, 4}, {30, 5}, {31, 5},
                      {33, 5}, {34, 6}, {35, 6}, {36, 7}, {39, 7}, {40, 8}, {43, 8}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.size);
        const TopicProtocol topic = read(first(row.size));
        EXPECT_EQ(row.fields < 1, topic.typeLen == 5);
        EXPECT_EQ(row.fields < 2, topic.topicLen == 6);
        EXPECT_EQ(row.fields < 3, topic.dataLen == 7);
        EXPECT_EQ(row.fields < 4, topic.type == "types");
        EXPECT_EQ(row.fields < 5, topic.topic == "topics");
        EXPECT_EQ(row.fields < 6, topic.data == "nothing");
        EXPECT_EQ(row.fields < 7, topic.indexGroup == 0xe1e1e1e1);
        EXPECT_EQ(row.fields < 8, topic.indexOffset == 0xe2e2e2e2);
    }
}

TEST(TopicProtocolTest, KeepsReadingTheLengthAs32BitsWithASign) {
    struct {
        uint64_t length;
        int fields;
    } const rows[] = {{0x80000000, 1}, {0xffffffff, 1}, {0x100000000, 0}, {0x100000009, 2}};
    const Bytes body = bytes(kBody);
    for (auto const& row : rows) {
        SCOPED_TRACE(row.length);
        Message m(body.data(), body.size());
        m.length = row.length;
        TopicProtocol topic("types", "topics", "nothing");

        EXPECT_EQ(0, topic.deserialization(m));

        EXPECT_EQ(row.fields < 1, topic.typeLen == 5);
        EXPECT_EQ(row.fields < 2, topic.topicLen == 6);
        EXPECT_EQ(7u, topic.dataLen);
    }
}

TEST(TopicProtocolTest, ReadsTheMissingBytesOfACutFieldAsZero) {
    EXPECT_EQ(3u, read(first(1)).typeLen);
    EXPECT_EQ(2u, read(first(9)).topicLen);
    EXPECT_EQ(3u, read(first(17)).dataLen);
    EXPECT_EQ(0x00223344u, read(first(38)).indexGroup);
    EXPECT_EQ(0x00007788u, read(first(41)).indexOffset);
}

TEST(TopicProtocolTest, DoesNotFollowALengthThatReachesPastTheBody) {
    uint64_t const lengths[] = {40,
                                43,
                                0x7fffffff,
                                0xffffffff,
                                0x100000000,
                                0x7fffffffffffffff,
                                0xffffffffffffffff - 31,
                                0xffffffffffffffff - 24,
                                0xffffffffffffffff - 1,
                                0xffffffffffffffff};
    for (uint64_t const length : lengths) {
        SCOPED_TRACE(length);
        EXPECT_EQ("types", read(declaring(0, length)).type);
        EXPECT_EQ("topics", read(declaring(1, length)).topic);
        EXPECT_EQ("nothing", read(declaring(2, length)).data);
        EXPECT_EQ(0xe1e1e1e1u, read(declaring(2, length)).indexGroup);
    }
}

TEST(TopicProtocolTest, WritesASoundBodyAfterALengthThatItDidNotFollow) {
    TopicProtocol topic = read(declaring(2, 0xffffffffffffffff - 39));

    const Message m = topic.serialization();

    EXPECT_EQ(hex(pubsub_body("pub", "ab", text("nothing"), 0xe1e1e1e1, 0xe2e2e2e2)),
              hex(m.data, m.length));
}

TEST(TopicProtocolTest, TakesATextUpToTheLastByteWithoutItsNul) {
    EXPECT_EQ("pub", read(first(27)).type);
    EXPECT_EQ("ab", read(first(30)).topic);
    EXPECT_EQ(std::string("X\0Y", 3), read(first(34)).data);
}

}  // namespace
