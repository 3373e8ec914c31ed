#include "compmodule/comp_virtual_conn.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <map>
#include <memory>
#include <thread>

#include "compmodule/net_channel.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/Socket.h"
#include "kypcomm/pbuf/pbuf.h"
#include "support/CallGate.h"
#include "support/ComponentFrames.h"
#include "support/LogCapture.h"

namespace {

constexpr int kTimeoutMs = 5000;

// An answer's head as a route makes it.
_AoEHeader answer_head(uint32_t invokeId, uint32_t error = 0) {
    return {utils_htonl(error), utils_htonl(invokeId), utils_htons(9), 0, 1};
}

// Writes nothing, for a reason that the test chooses.
class FailingSocket : public Socket {
public:
    FailingSocket() : Socket("", 0, 0, false) {}
    bool Connect(int /*timeoutMs*/) override { return true; }
    int Shutdown() override { return 0; }
    bool isConnected() override { return true; }
    int write(const Frame& /*frame*/, int /*timeoutMs*/) override { return -1; }
    int write(const char* /*buf*/, unsigned int /*len*/, int /*timeoutMs*/) override {
        tlsErrno = m_status;
        return -1;
    }

    int m_status = 0;
};

// A connection for client 5 on a channel whose far end the test holds.
class VirtualConnTest : public testing::Test {
protected:
    VirtualConnTest() {
        tlsErrno = 0;
        EXPECT_TRUE(m_channel.connect(0));
        EXPECT_TRUE(m_server.accept());
    }

    int answer(std::string const& payload, int timeoutMs = kTimeoutMs) {
        return m_conn.send_message(answer_head(7), 600, payload.data(),
                                   static_cast<int>(payload.size()), timeoutMs);
    }

    // Whether nothing was sent before this one answer.
    bool nothing_was_sent() {
        EXPECT_EQ(3, answer("end"));
        return m_server.receive() == answer_frame(600, 9, 7, 5, text("end"));
    }

    FakeKypserver m_server;
    CNetChannel m_channel{"cmp"};
    VirtualConn m_conn{5, &m_channel};
};

TEST_F(VirtualConnTest, StartsFreeWithoutAClientAndWithoutAChannel) {
    VirtualConn conn;

    EXPECT_EQ(-1, conn.connIndex);
    EXPECT_EQ(0, conn.clientFd);
    EXPECT_EQ(0U, conn.generation);
    EXPECT_EQ(0U, conn.reserved);
    EXPECT_EQ(nullptr, conn.channel);
    EXPECT_FALSE(conn.IsOpen());
}

TEST_F(VirtualConnTest, IsFreeAlsoWhenItIsMadeForAClient) {
    EXPECT_EQ(-1, m_conn.connIndex);
    EXPECT_EQ(0U, m_conn.generation);
    EXPECT_EQ(5, m_conn.clientFd);
    EXPECT_EQ(&m_channel, m_conn.channel);
    EXPECT_FALSE(m_conn.IsOpen());
}

TEST_F(VirtualConnTest, IsOpenFromSlotZeroOn) {
    m_conn.Open(0);
    EXPECT_TRUE(m_conn.IsOpen());
    EXPECT_EQ(0, m_conn.connIndex);

    m_conn.Open(499);
    EXPECT_TRUE(m_conn.IsOpen());
    EXPECT_EQ(499, m_conn.connIndex);
}

TEST_F(VirtualConnTest, CloseGivesMinusOneAndFreesTheSlot) {
    m_conn.Open(3);

    EXPECT_EQ(-1, m_conn.Close());
    EXPECT_FALSE(m_conn.IsOpen());
    EXPECT_EQ(-1, m_conn.connIndex);
}

TEST_F(VirtualConnTest, EveryOpenAndEveryCloseCounts) {
    m_conn.Open(3);
    EXPECT_EQ(1U, m_conn.generation);
    m_conn.Close();
    EXPECT_EQ(2U, m_conn.generation);
    m_conn.Close();
    EXPECT_EQ(3U, m_conn.generation);
    m_conn.Open(3);
    EXPECT_EQ(4U, m_conn.generation);
}

TEST_F(VirtualConnTest, IsKnownByTheNumberOfItsClient) {
    EXPECT_EQ(5, m_conn.get_fd());

    m_conn.setVirtualConnInfo(77, nullptr);
    EXPECT_EQ(77, m_conn.get_fd());
    EXPECT_EQ(77, m_conn.clientFd);
    EXPECT_EQ(nullptr, m_conn.channel);
}

TEST_F(VirtualConnTest, AnAnswerCarriesTheClientAndTheInvokeIdInHostOrder) {
    m_conn.setVirtualConnInfo(0x0304, &m_channel);

    EXPECT_EQ(2, m_conn.send_message(answer_head(0x0a0b0c0d, 0x1006), 600, "CD", 2, kTimeoutMs));
    EXPECT_EQ(
        "00 01 58 02 1C 00 00 00 "
        "00 00 10 06 0A 0B 0C 0D 00 09 00 00 01 "
        "00 00 00 00 00 00 00 04 03 0D 0C 0B 0A "
        "43 44",
        hex(m_server.receive()));
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(VirtualConnTest, TheHeadOfAnAnswerIsSentAsGiven) {
    _AoEHeader const odd = {1, 2, 3, 4, 5};

    EXPECT_EQ(0, m_conn.send_message(odd, 4096, nullptr, 0, kTimeoutMs));
    EXPECT_EQ(
        "00 01 00 10 1A 00 00 00 "
        "01 00 00 00 02 00 00 00 03 00 04 00 05 "
        "00 00 00 00 00 00 00 05 00 00 00 00 02",
        hex(m_server.receive()));
}

TEST_F(VirtualConnTest, AnAnswerOfAMegabyteArrivesWhole) {
    Bytes const payload = pattern(1 << 20);
    Bytes received;
    std::thread reader([&] { received = m_server.receive(); });

    EXPECT_EQ(1 << 20, m_conn.send_message(answer_head(7), 600,
                                           reinterpret_cast<char const*>(payload.data()), 1 << 20,
                                           kTimeoutMs));
    reader.join();
    EXPECT_EQ(answer_frame(600, 9, 7, 5, payload), received);
}

TEST_F(VirtualConnTest, AnAnswerIsLogged) {
    LogCapture log;

    EXPECT_EQ(2, m_conn.send_message(answer_head(7, 0x1006), 600, "CD", 2, kTimeoutMs));
    EXPECT_EQ(1, log.count("TRACE", "replay client Msg,size:2,InvokeId:7,errorId:0x:1006"));
}

TEST_F(VirtualConnTest, AnAnswerThatIsNotSentIsNotLogged) {
    m_channel.disconnect();
    LogCapture log;

    EXPECT_EQ(-1, answer("CD"));
    EXPECT_EQ(0, log.count_containing("replay client Msg"));
}

TEST_F(VirtualConnTest, KeepsReadyMadeBytesToItselfAndReportsSuccess) {
    pbuf buf(16);

    EXPECT_EQ(0, m_conn.send_message("0123456789", 10));
    EXPECT_EQ(0, m_conn.send_message(&buf, answer_head(7)));
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(VirtualConnTest, KeepsCallingALostLinkASendError) {
    m_channel.disconnect();

    EXPECT_EQ(-1, answer("CD"));
    EXPECT_EQ(KYP_ERR_SEND, tlsErrno);
}

TEST_F(VirtualConnTest, AServerThatHasClosedIsASendError) {
    m_server.kill();

    EXPECT_EQ(-1, answer("CD"));
    EXPECT_EQ(KYP_ERR_SEND, tlsErrno);
}

TEST_F(VirtualConnTest, AServerThatDoesNotReadInTimeIsASendError) {
    CallGate gate;
    gate.fail("send(", EAGAIN, CallGate::kAlways);

    EXPECT_EQ(-1, answer("CD", 10));
    EXPECT_EQ(KYP_ERR_SEND, tlsErrno);
}

TEST_F(VirtualConnTest, AFaultOfTheSocketIsASendError) {
    CallGate gate;
    gate.fail("send(", ENOBUFS);

    EXPECT_EQ(-1, answer("CD"));
    EXPECT_EQ(KYP_ERR_SEND, tlsErrno);
}

TEST_F(VirtualConnTest, AClosedDescriptorIsADisconnect) {
    CallGate gate;
    gate.fail("send(", EBADF);

    EXPECT_EQ(-1, answer("CD"));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, tlsErrno);
}

TEST_F(VirtualConnTest, AnAnswersFaultHasOneOfTwoCodes) {
    auto socket = std::make_shared<FailingSocket>();
    m_channel.socket = socket;
    struct Row {
        int left;
        int status;
    };
    for (Row const row : {Row{9, KYP_ERR_DISCONNECTED}, Row{0x20, KYP_ERR_DISCONNECTED},
                          Row{5, KYP_ERR_SEND}, Row{10, KYP_ERR_SEND}, Row{0, KYP_ERR_SEND},
                          Row{ENOBUFS, KYP_ERR_SEND}, Row{KYP_ERR_PACKET_TOO_LONG, KYP_ERR_SEND}}) {
        SCOPED_TRACE(row.left);
        socket->m_status = row.left;

        EXPECT_EQ(-1, answer("CD"));
        EXPECT_EQ(row.status, tlsErrno);
    }
}

TEST_F(VirtualConnTest, AMissingChannelIsADisconnect) {
    m_conn.setVirtualConnInfo(5, nullptr);

    EXPECT_EQ(-1, answer("CD"));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, tlsErrno);
}

TEST_F(VirtualConnTest, AnAnswerThatCannotBeAFrameIsRefused) {
    struct Row {
        char const* data;
        int length;
        int status;
    };
    for (Row const row :
         {Row{"x", -1, KYP_ERR_PARAM}, Row{nullptr, 1, KYP_ERR_PARAM},
          Row{"x", INT_MIN, KYP_ERR_PARAM}, Row{"x", INT_MAX - 33, KYP_ERR_PACKET_TOO_LONG},
          Row{"x", INT_MAX, KYP_ERR_PACKET_TOO_LONG}}) {
        SCOPED_TRACE(row.length);
        LogCapture log;
        tlsErrno = 0;

        EXPECT_EQ(-1, m_conn.send_message(answer_head(7), 600, row.data, row.length, kTimeoutMs));
        EXPECT_EQ(row.status, tlsErrno);
        EXPECT_EQ(1, log.count_containing("send message fail,client fd:5,"));
    }
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(VirtualConnTest, AnswersOfSeveralThreadsArriveWhole) {
    constexpr int kThreads = 4;
    constexpr int kAnswers = 50;
    Bytes const payload = pattern(3000);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            VirtualConn conn(t, &m_channel);
            for (uint32_t i = 0; i < kAnswers; ++i) {
                EXPECT_EQ(3000, conn.send_message(answer_head(i), 600,
                                                  reinterpret_cast<char const*>(payload.data()),
                                                  3000, kTimeoutMs));
            }
        });
    }

    std::map<uint16_t, uint32_t> next;
    for (int n = 0; n < kThreads * kAnswers; ++n) {
        Bytes const frame = m_server.receive();
        ASSERT_EQ(3034U, frame.size());
        auto const client = static_cast<uint16_t>(frame[28] | frame[29] << 8);
        EXPECT_EQ(answer_frame(600, 9, next[client]++, client, payload), frame);
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
