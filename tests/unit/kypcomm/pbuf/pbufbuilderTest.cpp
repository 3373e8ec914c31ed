#include "kypcomm/pbuf/pbufbuilder.h"

#include <gtest/gtest.h>

#include "kypcomm/protocol/TopicProtocol.h"
#include "support/FrameBytes.h"

namespace {

class PbufBuilderTest : public testing::Test {
protected:
    std::string content() { return hex(m_buf.data(), static_cast<size_t>(m_buf.size())); }
    Message message() { return {m_buf.data(), static_cast<uint64_t>(m_buf.size())}; }

    pbuf m_buf{256};
};

TEST_F(PbufBuilderTest, BuildsARequestFromTheBack) {
    unsigned char payload[] = {'A', 'B'};

    EXPECT_EQ(0, addPayloadData(&m_buf, payload, 2));
    EXPECT_EQ(0, addAoeRequestHeaderTobuf(&m_buf, {utils_htonl(0x10), utils_htonl(0x20)}));
    EXPECT_EQ(0, addAoeHeaderTobuf(&m_buf, {0, utils_htonl(7), utils_htons(9), 0, 0}));
    EXPECT_EQ(0, addKypHeaderTobuf(&m_buf, 200, 1));

    EXPECT_EQ(
        "00 01 C8 00 17 00 00 00 "
        "00 00 00 00 00 00 00 07 00 09 00 00 00 "
        "00 00 00 10 00 00 00 20 "
        "41 42",
        content());
}

TEST_F(PbufBuilderTest, CountsNothingInAnEmptyBuffer) {
    EXPECT_EQ(0, addKypHeaderTobuf(&m_buf, 200, 0));

    EXPECT_EQ("00 00 C8 00 00 00 00 00", content());
}

TEST_F(PbufBuilderTest, CopiesAReadyHeaderAsItStands) {
    EXPECT_EQ(0, addKypHeaderTobuf(&m_buf, _KypHeader{5, 6, 0x0807, 0x0c0b0a09}));

    EXPECT_EQ("05 06 07 08 09 0A 0B 0C", content());
}

TEST_F(PbufBuilderTest, BuildsATopicBody) {
    EXPECT_EQ(0, addPubSubMsgTobuf(&m_buf, "pub", "ab", 0x11, 0x22, "X\0Y", 3));

    EXPECT_EQ(
        "03 00 00 00 00 00 00 00 "
        "02 00 00 00 00 00 00 00 "
        "03 00 00 00 00 00 00 00 "
        "70 75 62 00 "
        "61 62 00 "
        "58 00 59 00 "
        "11 00 00 00 "
        "22 00 00 00",
        content());
    EXPECT_EQ(3 + 2 + 3 + 35, m_buf.size());
}

TEST_F(PbufBuilderTest, ClosesEmptyDataWithItsNul) {
    EXPECT_EQ(0, addPubSubMsgTobuf(&m_buf, "sub", "ab", 0, 0, nullptr, 0));

    EXPECT_EQ(
        "03 00 00 00 00 00 00 00 "
        "02 00 00 00 00 00 00 00 "
        "00 00 00 00 00 00 00 00 "
        "73 75 62 00 "
        "61 62 00 "
        "00 "
        "00 00 00 00 "
        "00 00 00 00",
        content());
}

TEST_F(PbufBuilderTest, PutsTheThreeLengthsInFrontOneByOne) {
    // 19 bytes of texts and words, and room for two of the lengths.
    pbuf buf(19 + 16);

    EXPECT_EQ(0, addPubSubMsgTobuf(&buf, "pub", "ab", 0x11, 0x22, "X\0Y", 3));

    EXPECT_EQ(43, buf.capacity());
    EXPECT_EQ(hex(pubsub_body("pub", "ab", bytes("58 00 59"), 0x11, 0x22)), hex(buf.data(), 43));
}

TEST_F(PbufBuilderTest, WritesWhatTopicProtocolReads) {
    addPubSubMsgTobuf(&m_buf, "unsub", "plant/line 1", 0x11, 0x22, "X\0Y", 3);

    TopicProtocol topic;
    EXPECT_EQ(0, topic.deserialization(message()));

    EXPECT_EQ("unsub", topic.type);
    EXPECT_EQ("plant/line 1", topic.topic);
    EXPECT_EQ(std::string("X\0Y", 3), topic.data);
    EXPECT_EQ(0x11u, topic.indexGroup);
    EXPECT_EQ(0x22u, topic.indexOffset);
    EXPECT_EQ(static_cast<unsigned long>(m_buf.size()), topic.getBytesLength());
}

TEST_F(PbufBuilderTest, WritesWhatTopicProtocolWrites) {
    addPubSubMsgTobuf(&m_buf, "pub", "a", 1, 2, "data", 4);

    const Message body = TopicProtocol("pub", "a", "data", 1, 2).serialization();

    EXPECT_EQ(hex(body.data, body.length), content());
}

}  // namespace
