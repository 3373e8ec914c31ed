#include "kypcomm/pbuf/CMsgHeader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>

#include "kypcomm/pbuf/pbufpool.h"
#include "support/FrameBytes.h"

namespace {

class MsgHeaderTest : public testing::Test {
protected:
    MsgHeaderTest() { pool().set_mem_limit(64UL << 20); }

    server_bufpool& pool() { return utility::instance<server_bufpool>(); }

    // Makes `msg` a received message of `size` bytes behind 48 bytes of head room.
    void receive(CMsgHeader& msg, int size) {
        const Bytes data = pattern(static_cast<size_t>(size));
        EXPECT_EQ(0, msg.setpBuf(pool().get_one_buf(128), 48));
        if (size > 0) memcpy(msg.GetVaildData(), data.data(), data.size());
        EXPECT_EQ(0, msg.addRecvBufSize(size));
    }

    std::string content(CMsgHeader& msg) {
        return hex(msg.GetVaildData(), static_cast<size_t>(msg.GetVaildSize()));
    }

    CMsgHeader m_recv{MSG_MODE_RECV, MSG_TYPE_STREAM};
    CMsgHeader m_send{MSG_MODE_SEND, MSG_TYPE_DATAGRAM};
};

TEST_F(MsgHeaderTest, StartsWithoutBufferAndConnection) {
    EXPECT_EQ(MSG_MODE_RECV, m_recv.m_enMode);
    EXPECT_EQ(MSG_TYPE_STREAM, m_recv.m_enType);
    EXPECT_EQ(MSG_TYPE_DATAGRAM, m_send.m_enType);
    EXPECT_EQ(0u, m_recv.m_nInvokeId);
    EXPECT_EQ(nullptr, m_recv.m_pConn);
    EXPECT_EQ(0u, m_recv.m_nSequence);
    EXPECT_TRUE(m_recv.m_recvBuf.m_isServer);
    EXPECT_EQ(nullptr, m_recv.getpBuf());
    EXPECT_EQ(nullptr, m_send.getpBuf());
    EXPECT_EQ(nullptr, m_recv.pop_pBuf());
    EXPECT_EQ(nullptr, m_send.GetVaildData());
    EXPECT_EQ(0, m_send.GetVaildSize());
}

TEST_F(MsgHeaderTest, ReceivesBehindItsHeadRoom) {
    receive(m_recv, 5);

    EXPECT_EQ(m_recv.getpBuf()->rawData() + 48, m_recv.GetVaildData());
    EXPECT_EQ(hex(pattern(5)), content(m_recv));
    EXPECT_EQ(0, m_recv.prepend("AB", 2));
    EXPECT_EQ(hex(join({text("AB"), pattern(5)})), content(m_recv));
}

TEST_F(MsgHeaderTest, SendsFromTheEndWhateverTheHeadRoom) {
    pbuf* const buf = pool().get_one_buf(128);
    buf->prepend("CD", 2);

    EXPECT_EQ(0, m_send.setpBuf(buf, 48));
    EXPECT_EQ(0, m_send.prepend("AB", 2));

    EXPECT_EQ(buf, m_send.getpBuf());
    EXPECT_EQ("41 42 43 44", content(m_send));
}

TEST_F(MsgHeaderTest, KeepsCountingReceivedBytesInAnyMode) {
    receive(m_recv, 0);
    m_recv.m_enMode = MSG_MODE_SEND;

    EXPECT_EQ(0, m_recv.addRecvBufSize(3));

    m_recv.m_enMode = static_cast<EnMsgMode>(2);
    EXPECT_EQ(0, m_recv.addRecvBufSize(4));
    m_recv.m_enMode = MSG_MODE_RECV;
    EXPECT_EQ(7, m_recv.GetVaildSize());
}

TEST_F(MsgHeaderTest, DoesNothingInAnyOtherMode) {
    CMsgHeader odd(static_cast<EnMsgMode>(2), MSG_TYPE_STREAM);
    pbuf buf(128);

    EXPECT_EQ(0, odd.setpBuf(&buf, 48));
    EXPECT_EQ(nullptr, odd.getpBuf());
    EXPECT_EQ(nullptr, odd.pop_pBuf());
    EXPECT_EQ(nullptr, odd.GetVaildData());
    EXPECT_EQ(0, odd.GetVaildSize());
    EXPECT_EQ(0, odd.prepend("AB", 2));
    EXPECT_EQ(0, odd.switch_sendbuf());
    EXPECT_EQ(2, static_cast<int>(odd.m_enMode));
}

TEST_F(MsgHeaderTest, PassesItsBufferOn) {
    receive(m_recv, 5);
    pbuf* const received = m_recv.getpBuf();
    pbuf* const sent = pool().get_one_buf(128);
    m_send.setpBuf(sent, 0);

    EXPECT_EQ(received, m_recv.pop_pBuf());
    EXPECT_EQ(sent, m_send.pop_pBuf());

    EXPECT_EQ(nullptr, m_recv.getpBuf());
    EXPECT_EQ(nullptr, m_send.getpBuf());
    EXPECT_EQ(0, m_recv.GetVaildSize());
    EXPECT_EQ(0, m_send.GetVaildSize());
    pool().put_one_free(received);
    pool().put_one_free(sent);
}

TEST_F(MsgHeaderTest, EndsWithoutReleasingAPassedBuffer) {
    auto msg = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM);
    msg->setpBuf(pool().get_one_buf(128), 0);
    pbuf* const buf = msg->pop_pBuf();
    pbuf* const head = pool().m_freeLists[128];

    msg.reset();

    EXPECT_EQ(head, pool().m_freeLists[128]);
    pool().put_one_free(buf);
}

TEST_F(MsgHeaderTest, GivesBothBuffersBackTheReceivedOneFirst) {
    auto msg = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM);
    pbuf* const received = pool().get_one_buf(128);
    pbuf* const sent = pool().get_one_buf(128);
    msg->setpBuf(received, 0);
    msg->m_enMode = MSG_MODE_SEND;
    msg->setpBuf(sent, 0);

    msg.reset();

    EXPECT_EQ(sent, pool().m_freeLists[128]);
    EXPECT_EQ(received, sent->m_next);
}

TEST_F(MsgHeaderTest, BecomesASendableMessageInTheSameBuffer) {
    for (int const size : {0, 1, 5, 40, 41, 78, 80}) {
        SCOPED_TRACE(size);
        CMsgHeader msg(MSG_MODE_RECV, MSG_TYPE_STREAM);
        receive(msg, size);
        pbuf* const buf = msg.getpBuf();

        EXPECT_EQ(0, msg.switch_sendbuf());

        EXPECT_EQ(MSG_MODE_SEND, msg.m_enMode);
        EXPECT_EQ(size, msg.GetVaildSize());
        EXPECT_EQ(hex(pattern(static_cast<size_t>(size))), content(msg));
        EXPECT_EQ(buf, msg.getpBuf());
        EXPECT_EQ(128 - size, buf->freesize());
        EXPECT_EQ(nullptr, msg.m_recvBuf.m_pbuf);
    }
}

TEST_F(MsgHeaderTest, TakesHeadersInFrontAfterTheSwitch) {
    receive(m_recv, 5);
    m_recv.switch_sendbuf();

    m_recv.prepend(Bytes(48, 'A').data(), 48);
    m_recv.prepend("BC", 2);

    EXPECT_EQ(hex(join({text("BC"), Bytes(48, 'A'), pattern(5)})), content(m_recv));
}

TEST_F(MsgHeaderTest, SwitchesOnlyAReceivedBuffer) {
    EXPECT_EQ(0, m_recv.switch_sendbuf());
    EXPECT_EQ(MSG_MODE_RECV, m_recv.m_enMode);

    m_send.setpBuf(pool().get_one_buf(128), 0);
    m_send.prepend("AB", 2);
    EXPECT_EQ(0, m_send.switch_sendbuf());
    EXPECT_EQ("41 42", content(m_send));
}

TEST_F(MsgHeaderTest, SendsNothingOfAFrameThatWasReadPastItsEnd) {
    receive(m_recv, 5);
    m_recv.m_recvBuf.m_begin += 8;
    ASSERT_EQ(-3, m_recv.GetVaildSize());

    m_recv.switch_sendbuf();

    EXPECT_EQ(0, m_recv.GetVaildSize());
}

TEST_F(MsgHeaderTest, ComesAndGoesOnManyThreads) {
    const uint64_t before = pool().m_totalSize;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 300; ++i) {
                auto one = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM);
                auto two = std::make_unique<CMsgHeader>(MSG_MODE_SEND, MSG_TYPE_STREAM);
                one->setpBuf(pool().get_one_buf(128), 48);
                two->setpBuf(pool().get_one_buf(128), 0);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_LE(pool().m_totalSize - before, 8u * 128u);
}

}  // namespace
