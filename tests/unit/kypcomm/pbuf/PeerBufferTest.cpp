#include "kypcomm/pbuf/PeerBuffer.h"

#include <gtest/gtest.h>

#include <thread>

#include "kypcomm/pbuf/pbufpool.h"
#include "support/FrameBytes.h"

namespace {

constexpr unsigned int kHeads = 21;

class PeerBufferTest : public testing::Test {
protected:
    PeerBufferTest() { pool().set_mem_limit(64UL << 20); }

    client_bufpool& pool() { return utility::instance<client_bufpool>(); }

    void park(Bytes frame, unsigned int payloadOffset = kHeads) {
        EXPECT_EQ(0, m_buffer.add_buff(frame.data(), payloadOffset,
                                       static_cast<unsigned int>(frame.size())));
    }

    // What one read of `len` bytes hands out.
    std::string read(unsigned int len) {
        Bytes dest(len, 0xee);
        m_port = 0xeeee;
        const int count = m_buffer.read_buf(&m_port, dest.data(), len);
        dest.resize(static_cast<size_t>(count));
        return as_text(dest);
    }

    PeerBuffer m_buffer;
    unsigned short m_port = 0;
};

TEST_F(PeerBufferTest, IsEmptyAtFirst) {
    EXPECT_EQ("", read(16));
    EXPECT_EQ(0xeeee, m_port);
    EXPECT_EQ(nullptr, m_buffer.m_pbuf);
    EXPECT_EQ(0u, m_buffer.m_readPos);
    EXPECT_EQ(0u, m_buffer.m_length);
    EXPECT_EQ(0, m_buffer.m_port);
}

TEST_F(PeerBufferTest, StoresTheWholeFrameAndHandsOutThePayload) {
    const Bytes frame = response_frame(0x1234, 9, 7, text("CD"));

    park(frame);

    EXPECT_EQ(hex(frame), hex(m_buffer.m_pbuf->rawData(), frame.size()));
    EXPECT_EQ(0x1234, m_buffer.m_port);
    EXPECT_EQ(23u, m_buffer.m_length);
    EXPECT_EQ(21u, m_buffer.m_readPos);
    EXPECT_EQ("CD", read(16));
    EXPECT_EQ(0x1234, m_port);
}

TEST_F(PeerBufferTest, HandsAPayloadOutOverSeveralReads) {
    park(response_frame(200, 9, 7, text("ABCDE")));

    EXPECT_EQ("AB", read(2));
    EXPECT_EQ("CD", read(2));
    EXPECT_EQ("E", read(2));
    EXPECT_EQ(200, m_port);
    EXPECT_EQ("", read(2));
    EXPECT_EQ(0xeeee, m_port);
}

TEST_F(PeerBufferTest, TellsThePortToAReaderWithoutRoom) {
    park(response_frame(200, 9, 7, text("AB")));

    EXPECT_EQ("", read(0));
    EXPECT_EQ(200, m_port);
    EXPECT_EQ("AB", read(2));
}

TEST_F(PeerBufferTest, NeedsNoPlaceForThePort) {
    park(response_frame(200, 9, 7, text("AB")));
    unsigned char dest[2];

    EXPECT_EQ(2, m_buffer.read_buf(nullptr, dest, 2));
}

TEST_F(PeerBufferTest, HasNothingToReadWithoutPayload) {
    park(response_frame(200, 9, 7));

    EXPECT_EQ("", read(16));
    EXPECT_EQ(0xeeee, m_port);
}

TEST_F(PeerBufferTest, HasNothingToReadWhenThePayloadStartsBehindTheEnd) {
    park(bytes("00 01 C8 00"));

    EXPECT_EQ("", read(16));
}

TEST_F(PeerBufferTest, ReadsTheMissingPortOfAStumpAsZero) {
    park(response_frame(0x1234, 9, 7, text("AB")));

    park(bytes("00 01 C8"), 0);
    EXPECT_EQ(0x00c8, m_buffer.m_port);

    park({}, 0);
    EXPECT_EQ(0, m_buffer.m_port);
}

TEST_F(PeerBufferTest, ReusesItsBlockForASmallerFrame) {
    park(response_frame(200, 9, 7, text("ABCDE")));
    pbuf* const block = m_buffer.m_pbuf;

    park(response_frame(201, 9, 8, text("FG")));

    EXPECT_EQ(block, m_buffer.m_pbuf);
    EXPECT_EQ("FG", read(16));
    EXPECT_EQ(201, m_port);
    EXPECT_EQ("", read(16));
}

TEST_F(PeerBufferTest, ReusesItsBlockUpToItsCapacity) {
    park(Bytes(1, 0));
    pbuf* const block = m_buffer.m_pbuf;

    park(pattern(128));

    EXPECT_EQ(block, m_buffer.m_pbuf);
}

TEST_F(PeerBufferTest, ExchangesItsBlockForALargerFrame) {
    park(response_frame(200, 9, 7, text("ABCDE")));
    pbuf* const block = m_buffer.m_pbuf;

    park(response_frame(201, 9, 8, pattern(108)));

    EXPECT_NE(block, m_buffer.m_pbuf);
    EXPECT_EQ(256, m_buffer.m_pbuf->capacity());
    EXPECT_EQ(block, pool().m_freeLists[128]);
    EXPECT_EQ(as_text(pattern(108)), read(200));
}

TEST_F(PeerBufferTest, TakesABlockThatHoldsTheFrameWhereASmallerOneCameBack) {
    pool().put_one_free(pool().get_one_buf(16383));
    const Bytes large = pattern(20000);

    park(large, 0);

    EXPECT_GE(m_buffer.m_pbuf->capacity(), 20000);
    EXPECT_EQ(as_text(large), read(20000));
}

TEST_F(PeerBufferTest, StoresNothingThatNoBlockCanHold) {
    unsigned char stump[8] = {};
    for (unsigned int const length : {16u << 20, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        park(response_frame(200, 9, 7, text("AB")));

        EXPECT_EQ(0, m_buffer.add_buff(stump, kHeads, length));

        EXPECT_EQ("", read(16));
        EXPECT_EQ(nullptr, m_buffer.m_pbuf);
    }
}

TEST_F(PeerBufferTest, IsEmptyAfterRelease) {
    park(response_frame(200, 9, 7, text("AB")));
    pbuf* const block = m_buffer.m_pbuf;

    EXPECT_EQ(0, m_buffer.release_buff());

    EXPECT_EQ("", read(16));
    EXPECT_EQ(nullptr, m_buffer.m_pbuf);
    EXPECT_EQ(0, m_buffer.m_port);
    EXPECT_EQ(block, pool().m_freeLists[128]);
    EXPECT_EQ(0, m_buffer.release_buff());
}

TEST_F(PeerBufferTest, GivesItsBlockBackAtItsEnd) {
    pbuf* block = nullptr;
    {
        PeerBuffer buffer;
        Bytes frame = response_frame(200, 9, 7);
        buffer.add_buff(frame.data(), kHeads, static_cast<unsigned int>(frame.size()));
        block = buffer.m_pbuf;
    }

    EXPECT_EQ(block, pool().m_freeLists[128]);
}

TEST_F(PeerBufferTest, LetsOneThreadParkWhileAnotherReads) {
    std::thread parker([this] {
        for (size_t i = 0; i < 500; ++i) park(response_frame(200, 9, 7, Bytes(i, 'A')));
    });

    std::string seen;
    for (int i = 0; i < 500; ++i) seen += read(64);
    parker.join();

    EXPECT_EQ(std::string::npos, seen.find_first_not_of('A'));
}

}  // namespace
