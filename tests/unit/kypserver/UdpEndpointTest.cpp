#include "kypserver/UdpEndpoint.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "support/FrameBytes.h"
#include "support/RawPeer.h"
#include "utils/Log.h"

namespace kypserver {
namespace {

// The test plays the event loop and the workers.
class UdpEndpointTest : public testing::Test {
protected:
    UdpEndpointTest() {
        SetLogLevel(LOG_LEVEL_ERROR);
        // Set already, so that the endpoint asks for no loop.
        m_conn.m_writeHandler = &ISocketServer::sock_write_request_handler;
        sockaddr_in local = {};
        socklen_t length = sizeof local;
        getsockname(m_udp.get_listen_sock(), reinterpret_cast<sockaddr*>(&local), &length);
        m_port = ntohs(local.sin_port);
    }

    // One datagram comes in; returns the frame that the workers get, empty when there is none.
    Bytes receive(RawUdp& sender, Bytes const& datagram) {
        sender.send_to(m_port, datagram);
        m_udp.sock_read_request_handler(&m_conn);
        auto& workers = utility::instance<CThreadPool>();
        if (workers.m_msgRecvQueue.empty()) return {};
        CMsgHeader* const msg = workers.m_msgRecvQueue.front();
        Bytes const frame(msg->GetVaildData(), msg->GetVaildData() + msg->GetVaildSize());
        workers.clearMsgRecvQueue();
        return frame;
    }

    // The loop sends an answer to the request of `frame`.
    int send_answer(Bytes const& frame, std::string const& payload) {
        Bytes answer = response_frame(100, 9, take_apart(frame).invokeId, text(payload));
        return m_udp.sendproc(&m_conn, answer.data(), static_cast<unsigned int>(answer.size()));
    }

    // What standard error says to a datagram that the workers shall not see.
    std::string refusal(Bytes const& datagram) {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(receive(m_first, datagram).empty());
        return testing::internal::GetCapturedStderr();
    }

    CHeldBytes m_held{10000000};
    CCounters m_counters;
    CUdpEndpoint m_udp{m_held, m_counters, "127.0.0.1", 0};
    CSocketConnection m_conn;
    uint16_t m_port = 0;
    RawUdp m_first;
    RawUdp m_second;
};

TEST_F(UdpEndpointTest, TheWorkersGetTheDatagramUnderAnIdOfTheEndpoint) {
    Bytes const sent = request_frame(100, 9, 77, 1, 2, text("AB"));

    Bytes const first = receive(m_first, sent);
    Bytes const second = receive(m_first, sent);

    EXPECT_EQ(0U, take_apart(first).invokeId);
    EXPECT_EQ(1U, take_apart(second).invokeId);
    Bytes unpatched = second;
    unpatched[15] = 77;
    EXPECT_EQ(hex(sent), hex(unpatched));
}

TEST_F(UdpEndpointTest, AnAnswerGoesToTheSenderOfItsRequest) {
    Bytes const first = receive(m_first, request_frame(100, 9, 5, 0, 0));
    Bytes const second = receive(m_second, request_frame(100, 9, 5, 0, 0));

    send_answer(first, "one");
    send_answer(second, "two");

    EXPECT_EQ(hex(response_frame(100, 9, 5, text("one"))), hex(m_first.receive().data));
    EXPECT_EQ(hex(response_frame(100, 9, 5, text("two"))), hex(m_second.receive().data));
}

TEST_F(UdpEndpointTest, AnAnswerWhoseRequestIsForgottenGoesNowhere) {
    Bytes const first = receive(m_first, request_frame(100, 9, 5, 0, 0));
    for (size_t i = 1; i < CUdpEndpoint::kPeers; ++i) {
        receive(m_second, request_frame(100, 9, 6, 0, 0));
    }
    EXPECT_LT(0, send_answer(first, "in time"));
    receive(m_second, request_frame(100, 9, 6, 0, 0));
    testing::internal::CaptureStderr();

    EXPECT_EQ(-1, send_answer(first, "too late"));

    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("its request is too long ago"));
}

TEST_F(UdpEndpointTest, AnAnswerThatNobodyAskedForGoesNowhere) {
    testing::internal::CaptureStderr();

    EXPECT_EQ(-1, send_answer(response_frame(100, 9, 12), "x"));

    testing::internal::GetCapturedStderr();
}

TEST_F(UdpEndpointTest, DropsWhatIsNoWholeRequest) {
    Bytes const good = request_frame(100, 9, 5, 0, 0);
    EXPECT_NE(std::string::npos,
              refusal(Bytes(good.begin(), good.begin() + 20)).find("a datagram of 20 bytes from"));
    EXPECT_NE(std::string::npos, refusal(join({good, bytes("00")})).find("is no whole request"));
    EXPECT_NE(std::string::npos, refusal(Bytes(7, 0xff)).find("is no whole request"));
    EXPECT_NE(std::string::npos, refusal({}).find("a datagram of 0 bytes"));
}

TEST_F(UdpEndpointTest, DropsResponses) {
    EXPECT_NE(std::string::npos, refusal(response_frame(100, 9, 5)).find("is no whole request"));
}

TEST_F(UdpEndpointTest, TakesTheLargestDatagram) {
    Bytes const sent = request_frame(100, 9, 0, 0, 0, pattern(65507 - 29));

    EXPECT_EQ(hex(sent), hex(receive(m_first, sent)));
}

TEST_F(UdpEndpointTest, DropsWhatIsMoreThanMayWait) {
    Bytes const big = request_frame(100, 9, 5, 0, 0, pattern(60000));
    ASSERT_TRUE(m_held.take(&m_conn, {0, 1, 100, 9990000}));

    EXPECT_NE(std::string::npos, refusal(big).find("--max-held-bytes"));

    m_held.served(&m_conn, 9990000 - 21);
    EXPECT_FALSE(receive(m_first, big).empty());
}

TEST_F(UdpEndpointTest, AnAnswerIsNoLongerHeldOnceItWasTried) {
    Bytes const frame = receive(m_first, request_frame(100, 9, 5, 0, 0));
    m_held.answering(&m_conn, 2);
    m_held.served(&m_conn, 0);
    EXPECT_LT(0U, m_held.held(&m_conn));

    send_answer(frame, "AB");

    EXPECT_EQ(0U, m_held.held(&m_conn));
}

TEST_F(UdpEndpointTest, NothingToReadDoesNoHarm) {
    EXPECT_EQ(-1, m_udp.sock_read_request_handler(&m_conn));
}

}  // namespace
}  // namespace kypserver
