#include "kypcomm/KypPacket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>

#include "kypcomm/KypStatus.h"
#include "support/FrameBytes.h"

namespace {

char const kRequest[] =
    "00 01 C8 00 17 00 00 00 "
    "00 00 00 00 00 00 00 07 00 09 00 00 00 "
    "00 00 00 10 00 00 00 20 "
    "41 42";

char const kResponse[] =
    "00 01 C8 00 0F 00 00 00 "
    "00 00 00 00 00 00 00 07 00 09 00 00 01 "
    "43 44";

char g_payload[] = "AB";

// Takes over the block of a frame.
class Packet {
public:
    explicit Packet(Frame frame) : m_block(frame.rawData()), m_frame(frame) {}

    std::string content() const { return hex(m_frame.data(), m_frame.size()); }
    unsigned int size() const { return m_frame.size(); }
    unsigned int capacity() const { return m_frame.capacity(); }
    uint32_t msg_len() const {
        uint32_t value = 0;
        memcpy(&value, m_frame.data() + 4, sizeof(value));
        return value;
    }

private:
    std::unique_ptr<unsigned char[]> m_block;
    Frame m_frame;
};

// Records in network order, as their callers hand them over.
_AoEHeader aoe_record(uint8_t state) {
    return {0, utils_htonl(7), utils_htons(9), 0, state};
}

AoERequestHeader request_record() {
    return {utils_htonl(0x10), utils_htonl(0x20)};
}

TEST(KypPacketTest, BuildsARequestFromHostOrderWords) {
    const Packet packet(MakeKypRequestPacket(200, 9, 7, 0x10, 0x20, g_payload, 2, 1));

    EXPECT_EQ(kRequest, packet.content());
    EXPECT_EQ(31u, packet.capacity());
}

TEST(KypPacketTest, BuildsARequestFromRecordsAsTheyStand) {
    _AoEHeader aoe = aoe_record(KYP_STATE_REQUEST);
    AoERequestHeader req = request_record();

    const Packet bytesPacket(
        MakeKypRequestPacket(200, aoe, req, static_cast<void*>(g_payload), 2, 1));
    const Packet textPacket(
        MakeKypRequestPacket(200, aoe, req, static_cast<char const*>(g_payload), 2, 1));

    EXPECT_EQ(kRequest, bytesPacket.content());
    EXPECT_EQ(kRequest, textPacket.content());
    EXPECT_EQ(31u, bytesPacket.capacity());
    EXPECT_EQ(31u, textPacket.capacity());
}

// Every byte of the two records goes out as it is, also where a request usually has 0.
TEST(KypPacketTest, ChangesNothingInTheRecordsThatItIsGiven) {
    _AoEHeader aoe{0x04030201, 0x08070605, 0x0a09, 0x0c0b, 0x0d};
    AoERequestHeader req{0x11100f0e, 0x15141312};
    Frame frame(29, nullptr);
    MakeKypRequestPacketEx(frame, 200, aoe, req, nullptr, 0, 1);

    const Packet bytesPacket(
        MakeKypRequestPacket(200, aoe, req, static_cast<void*>(g_payload), 0, 1));
    const Packet textPacket(
        MakeKypRequestPacket(200, aoe, req, static_cast<char const*>(g_payload), 0, 1));
    const Packet filledPacket(frame);
    const Packet response(MakeKypResponsePacket(200, aoe, nullptr, 0, 1));

    char const records[] =
        "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D "
        "0E 0F 10 11 12 13 14 15";
    EXPECT_EQ(records, bytesPacket.content().substr(24));
    EXPECT_EQ(records, textPacket.content().substr(24));
    EXPECT_EQ(records, filledPacket.content().substr(24));
    EXPECT_EQ(std::string(records, 38), response.content().substr(24));
}

TEST(KypPacketTest, BuildsARequestWithoutPayload) {
    const Packet packet(MakeKypRequestPacket(200, 9, 7, 0x10, 0x20, nullptr, 0, 1));

    EXPECT_EQ(29u, packet.size());
    EXPECT_EQ(29u, packet.capacity());
    EXPECT_EQ(21u, packet.msg_len());
}

TEST(KypPacketTest, WritesTheVersionItIsTold) {
    const Packet packet(MakeKypRequestPacket(0x1234, 9, 7, 0, 0, nullptr, 0, 0));

    EXPECT_EQ("00 00 34 12 15 00 00 00", packet.content().substr(0, 23));
}

TEST(KypPacketTest, BuildsARequestIntoAFrameThatGrows) {
    _AoEHeader aoe = aoe_record(KYP_STATE_REQUEST);
    AoERequestHeader req = request_record();
    Frame frame(23, nullptr);

    EXPECT_EQ(0, MakeKypRequestPacketEx(frame, 200, aoe, req, g_payload, 2, 1));

    const Packet packet(frame);
    EXPECT_EQ(kRequest, packet.content());
    EXPECT_EQ(31u, packet.capacity());
}

TEST(KypPacketTest, BuildsAResponse) {
    _AoEHeader aoe = aoe_record(KYP_STATE_RESPONSE);

    const Packet packet(MakeKypResponsePacket(200, aoe, "CD", 2, 1));

    EXPECT_EQ(kResponse, packet.content());
    EXPECT_EQ(23u, packet.capacity());
}

TEST(KypPacketTest, BuildsAResponseWithoutPayload) {
    _AoEHeader aoe = aoe_record(KYP_STATE_RESPONSE);

    const Packet packet(MakeKypResponsePacket(200, aoe, nullptr, 0, 1));

    EXPECT_EQ(21u, packet.size());
    EXPECT_EQ(13u, packet.msg_len());
}

TEST(KypPacketTest, RefusesAPayloadThatLeavesNoRoomForTheHeads) {
    _AoEHeader aoe = aoe_record(KYP_STATE_RESPONSE);

    EXPECT_THROW(MakeKypRequestPacket(200, 9, 7, 0, 0, g_payload, 0xffffffffu - 28, 1),
                 std::bad_alloc);
    EXPECT_THROW(MakeKypResponsePacket(200, aoe, g_payload, 0xffffffffu - 20, 1), std::bad_alloc);
}

// A block of exactly `size` bytes that count up from 1, so that the sanitizer sees a read too far.
class ParserTest : public testing::Test {
protected:
    void bytes_left(unsigned int size) {
        m_block = std::make_unique<char[]>(size);
        for (unsigned int i = 0; i < size; ++i) m_block[i] = static_cast<char>(i + 1);
        m_cursor = m_block.get();
        m_remaining = size;
        m_consumed = 99;
    }

    template <typename T>
    std::string bytes_of(T const& header) {
        return hex(&header, sizeof(header));
    }

    void expect_nothing_moved(unsigned int size) {
        EXPECT_EQ(m_block.get(), m_cursor);
        EXPECT_EQ(size, m_remaining);
        EXPECT_EQ(99u, m_consumed);
    }

    std::unique_ptr<char[]> m_block;
    char const* m_cursor = nullptr;
    unsigned int m_remaining = 0;
    unsigned int m_consumed = 0;
};

TEST_F(ParserTest, TakesAnAoeHeader) {
    bytes_left(13);
    _AoEHeader header{};

    EXPECT_EQ(0, ParseProtocolAoeHeader(header, m_cursor, m_remaining, &m_consumed));
    EXPECT_EQ("01 02 03 04 05 06 07 08 09 0A 0B 0C 0D", bytes_of(header));
    EXPECT_EQ(m_block.get() + 13, m_cursor);
    EXPECT_EQ(0u, m_remaining);
    EXPECT_EQ(13u, m_consumed);
}

TEST_F(ParserTest, LeavesAllAloneBeforeAnAoeHeaderIsWhole) {
    bytes_left(12);
    _AoEHeader header{};

    EXPECT_EQ(KYP_ERR_PACKET_TOO_SHORT,
              ParseProtocolAoeHeader(header, m_cursor, m_remaining, &m_consumed));
    EXPECT_EQ(bytes_of(_AoEHeader{}), bytes_of(header));
    expect_nothing_moved(12);
}

TEST_F(ParserTest, TakesARequestHeader) {
    bytes_left(9);
    AoERequestHeader header{};

    EXPECT_EQ(0, ParseProtocolAoeRequestHeader(header, m_cursor, m_remaining, &m_consumed));
    EXPECT_EQ("01 02 03 04 05 06 07 08", bytes_of(header));
    EXPECT_EQ(m_block.get() + 8, m_cursor);
    EXPECT_EQ(1u, m_remaining);
    EXPECT_EQ(8u, m_consumed);
}

TEST_F(ParserTest, LeavesAllAloneBeforeARequestHeaderIsWhole) {
    bytes_left(7);
    AoERequestHeader header{};

    EXPECT_EQ(KYP_ERR_PACKET_TOO_SHORT,
              ParseProtocolAoeRequestHeader(header, m_cursor, m_remaining, &m_consumed));
    EXPECT_EQ(bytes_of(AoERequestHeader{}), bytes_of(header));
    expect_nothing_moved(7);
}

TEST_F(ParserTest, TakesAForwardHeader) {
    bytes_left(14);
    _KypforwardHeader header{};

    EXPECT_EQ(0, ParseProtocolKypforwardHeader(header, m_cursor, m_remaining, &m_consumed));
    EXPECT_EQ("01 02 03 04 05 06 07 08 09 0A 0B 0C 0D", bytes_of(header));
    EXPECT_EQ(m_block.get() + 13, m_cursor);
    EXPECT_EQ(1u, m_remaining);
    EXPECT_EQ(13u, m_consumed);
}

TEST_F(ParserTest, KeepsPassingAForwardHeaderOfEightToTwelveBytes) {
    for (unsigned int size = 8; size < 13; ++size) {
        SCOPED_TRACE(size);
        bytes_left(size);
        _KypforwardHeader header;
        memset(static_cast<void*>(&header), 0xee, sizeof(header));

        EXPECT_EQ(0, ParseProtocolKypforwardHeader(header, m_cursor, m_remaining, &m_consumed));
        EXPECT_EQ(13u, m_consumed);
        EXPECT_EQ(size - 13, m_remaining);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(m_block.get()) + 13,
                  reinterpret_cast<uintptr_t>(m_cursor));
        Bytes expected(13, 0);
        memcpy(expected.data(), m_block.get(), size);
        EXPECT_EQ(hex(expected), bytes_of(header));
    }
}

TEST_F(ParserTest, LeavesAllAloneBeforeAForwardHeaderHasEightBytes) {
    bytes_left(7);
    _KypforwardHeader header{};

    EXPECT_EQ(KYP_ERR_PACKET_TOO_SHORT,
              ParseProtocolKypforwardHeader(header, m_cursor, m_remaining, &m_consumed));
    EXPECT_EQ(bytes_of(_KypforwardHeader{}), bytes_of(header));
    expect_nothing_moved(7);
}

TEST_F(ParserTest, NeedsNoPlaceForTheCount) {
    bytes_left(13);
    _AoEHeader header{};

    EXPECT_EQ(0, ParseProtocolAoeHeader(header, m_cursor, m_remaining, nullptr));
    EXPECT_EQ(0u, m_remaining);
}

class ResponseParserTest : public testing::Test {
protected:
    // Everything behind the outer header of a response.
    int parse(Bytes body, unsigned int room) {
        m_out.assign(16, 0xee);
        m_outLen = room;
        return ParseKypResponsePacket(body.data(), static_cast<unsigned int>(body.size()), m_aoe,
                                      m_out.data(), m_outLen);
    }

    _AoEHeader m_aoe{};
    Bytes m_out;
    unsigned int m_outLen = 0;
};

TEST_F(ResponseParserTest, HandsOutHeaderAndPayload) {
    EXPECT_EQ(0, parse(bytes(std::string(kResponse).substr(24)), 16));

    EXPECT_EQ("00 00 00 00 00 00 00 07 00 09 00 00 01", hex(&m_aoe, sizeof(m_aoe)));
    EXPECT_EQ(2u, m_outLen);
    EXPECT_EQ("43 44 EE", hex(m_out.data(), 3));
}

TEST_F(ResponseParserTest, CopiesNothingWithoutPayload) {
    EXPECT_EQ(0, parse(aoe_head(0, 7, 9, 1), 16));
    EXPECT_EQ(0u, m_outLen);
    EXPECT_EQ("EE", hex(m_out.data(), 1));
}

TEST_F(ResponseParserTest, RefusesLessThanAHeader) {
    m_aoe.state = 0xee;

    EXPECT_EQ(KYP_ERR_PACKET_TOO_SHORT, parse(Bytes(12, 0), 16));
    EXPECT_EQ(0u, m_outLen);
    EXPECT_EQ(0xee, m_aoe.state);
}

TEST_F(ResponseParserTest, PassesOnThePeersErrorAndIgnoresItsPayload) {
    EXPECT_EQ(0x1006, parse(join({aoe_head(0x1006, 7, 9, 1), text("CD")}), 16));
    EXPECT_EQ("00 00 10 06 00 00 00 07 00 09 00 00 01", hex(&m_aoe, sizeof(m_aoe)));
    EXPECT_EQ(0u, m_outLen);
    EXPECT_EQ("EE", hex(m_out.data(), 1));
}

TEST_F(ResponseParserTest, CutsALongerPayloadWithoutAWord) {
    const Bytes body = join({aoe_head(0, 7, 9, 1), text("ABCD")});

    EXPECT_EQ(0, parse(body, 3));
    EXPECT_EQ(3u, m_outLen);
    EXPECT_EQ("41 42 43 EE", hex(m_out.data(), 4));

    EXPECT_EQ(0, parse(body, 4));
    EXPECT_EQ(4u, m_outLen);

    EXPECT_EQ(0, parse(body, 0));
    EXPECT_EQ(0u, m_outLen);
}

TEST_F(ResponseParserTest, KeepsCountingAPayloadOfTwoGibibytesWithoutCopyingIt) {
    Bytes head = aoe_head(0, 7, 9, 1);
    m_outLen = 0xffffffff;

    EXPECT_EQ(0, ParseKypResponsePacket(head.data(), 0x80000000u + 13, m_aoe, nullptr, m_outLen));
    EXPECT_EQ(0x80000000u, m_outLen);
}

TEST_F(ResponseParserTest, LeavesTheLastStatusAlone) {
    tlsErrno = KYP_ERR_HANDLE;

    parse(Bytes(12, 0), 16);
    parse(aoe_head(0x1006, 7, 9, 1), 16);

    EXPECT_EQ(KYP_ERR_HANDLE, tlsErrno);
}

}  // namespace
