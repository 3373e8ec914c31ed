#include "kypcore/ISocketServer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <tuple>

#include "CoreFixture.h"
#include "KernelCalls.h"
#include "support/CallGate.h"

namespace {

// A server whose sendproc takes what the test says.
class ScriptedServer : public ISocketServer {
public:
    int sendproc(CSocketConnection*, unsigned char* data, unsigned int size) override {
        m_asked.emplace_back(data, data + size);
        return m_answer;
    }

    std::vector<Bytes> m_asked;
    int m_answer = 0;
};

class ISocketServerTest : public CoreFixture {
protected:
    int read_event() { return m_server.sock_read_request_handler(m_conn); }

    // The complete head of a frame with `length` bytes behind it.
    void arrive(Bytes const& data) { ASSERT_TRUE(m_peer.send(data)); }

    void expect_waiting_for_a_head() {
        EXPECT_EQ(0, m_conn->m_nRecvState);
        EXPECT_EQ(8u, m_conn->m_nRecvRest);
        EXPECT_EQ(reinterpret_cast<unsigned char*>(&m_conn->m_recvHeader), m_conn->m_pRecvPos);
    }

    bool record_is_closed() const { return m_conn->m_fd == -1; }

    void install(std::string const& text) {
        m_conn->send_message(text.data(), static_cast<int>(text.size()));
    }
};

TEST_F(ISocketServerTest, TheBaseAcceptsNobodyAndHasNoSocket) {
    EXPECT_EQ(0, m_server.sock_event_accept(m_conn));
    EXPECT_EQ(-1, m_server.get_listen_sock());
}

TEST_F(ISocketServerTest, AFrameThatArrivesWholeTakesTwoReads) {
    Bytes const frame = join({kyp_head(100, 5), text("hello")});
    arrive(frame);

    EXPECT_EQ(0, read_event());
    EXPECT_EQ(2, m_conn->m_nRecvState);
    EXPECT_EQ(5u, m_conn->m_nRecvRest);
    EXPECT_EQ(0, read_event());
    expect_waiting_for_a_head();
    EXPECT_EQ(nullptr, m_conn->m_pRecvMsg);
    auto const messages = take_queued_messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(frame, bytes_of(*messages[0]));
}

TEST_F(ISocketServerTest, AMessageIsStampedWithItsConnectionAndKeepsHeadRoom) {
    arrive(join({kyp_head(100, 5), text("hello")}));
    read_event();
    read_event();

    auto const messages = take_queued_messages();
    ASSERT_EQ(1u, messages.size());
    CMsgHeader& msg = *messages[0];
    EXPECT_EQ(MSG_MODE_RECV, msg.m_enMode);
    EXPECT_EQ(MSG_TYPE_STREAM, msg.m_enType);
    EXPECT_EQ(m_conn, msg.m_pConn);
    EXPECT_EQ(m_conn->iCurrsequence, msg.m_nSequence);
    EXPECT_EQ(48, msg.GetVaildData() - msg.getpBuf()->rawData());
}

TEST_F(ISocketServerTest, AMessageKeepsTheSequenceOfItsHead) {
    arrive(kyp_head(100, 1));
    read_event();
    uint64_t const atHead = m_conn->iCurrsequence;
    ++m_conn->iCurrsequence;

    arrive(text("x"));
    read_event();
    EXPECT_EQ(atHead, take_queued_messages().at(0)->m_nSequence);
}

TEST_F(ISocketServerTest, AHeadInTwoPiecesPassesThroughStateOne) {
    Bytes const frame = join({kyp_head(100, 2), text("ok")});
    arrive(Bytes(frame.begin(), frame.begin() + 3));
    EXPECT_EQ(0, read_event());
    EXPECT_EQ(1, m_conn->m_nRecvState);
    EXPECT_EQ(5u, m_conn->m_nRecvRest);

    arrive(Bytes(frame.begin() + 3, frame.begin() + 8));
    EXPECT_EQ(0, read_event());
    EXPECT_EQ(2, m_conn->m_nRecvState);
    arrive(Bytes(frame.begin() + 8, frame.end()));
    EXPECT_EQ(0, read_event());
    EXPECT_EQ(frame, bytes_of(*take_queued_messages().at(0)));
}

TEST_F(ISocketServerTest, AHeadInEightPiecesIsPutTogether) {
    Bytes const frame = join({kyp_head(100, 1), text("x")});
    for (uint8_t byte : frame) {
        arrive({byte});
        EXPECT_EQ(0, read_event());
    }

    EXPECT_EQ(frame, bytes_of(*take_queued_messages().at(0)));
}

TEST_F(ISocketServerTest, ABodyInPiecesPassesThroughStateThree) {
    Bytes const body = pattern(1000);
    arrive(kyp_head(100, 1000));
    read_event();

    arrive(Bytes(body.begin(), body.begin() + 300));
    EXPECT_EQ(0, read_event());
    EXPECT_EQ(3, m_conn->m_nRecvState);
    EXPECT_EQ(700u, m_conn->m_nRecvRest);
    arrive(Bytes(body.begin() + 300, body.begin() + 999));
    EXPECT_EQ(0, read_event());
    EXPECT_EQ(3, m_conn->m_nRecvState);
    EXPECT_EQ(1u, m_conn->m_nRecvRest);
    arrive(Bytes(body.begin() + 999, body.end()));
    EXPECT_EQ(0, read_event());
    expect_waiting_for_a_head();
    auto const messages = take_queued_messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(1008, messages[0]->GetVaildSize());
    EXPECT_EQ(join({kyp_head(100, 1000), body}), bytes_of(*messages[0]));
}

TEST_F(ISocketServerTest, TwoFramesInOnePieceAreTwoMessages) {
    arrive(join({kyp_head(100, 1), text("a"), kyp_head(101, 2), text("bc")}));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(0, read_event());

    auto const messages = take_queued_messages();
    ASSERT_EQ(2u, messages.size());
    EXPECT_EQ(join({kyp_head(100, 1), text("a")}), bytes_of(*messages[0]));
    EXPECT_EQ(join({kyp_head(101, 2), text("bc")}), bytes_of(*messages[1]));
}

TEST_F(ISocketServerTest, AFrameOfTheGreatestLengthIsAccepted) {
    arrive(kyp_head(100, 0x600000));

    EXPECT_EQ(0, read_event());
    EXPECT_FALSE(record_is_closed());
    EXPECT_EQ(2, m_conn->m_nRecvState);
    EXPECT_EQ(0x600000u, m_conn->m_nRecvRest);
    EXPECT_GE(m_conn->m_pRecvMsg->getpBuf()->capacity(), 0x600000 + 56);
}

TEST_F(ISocketServerTest, AFrameThatIsLongerByOneEndsTheConnection) {
    arrive(kyp_head(100, 0x600001));

    EXPECT_EQ(0, read_event());
    EXPECT_TRUE(record_is_closed());
    EXPECT_EQ(1, m_log.count("ERROR",
                             "client:peer,recv invaild packet,size:6291457>limit len close conn"));
    expect_waiting_for_a_head();
    EXPECT_EQ(nullptr, m_conn->m_pRecvMsg);
    EXPECT_TRUE(m_peer.expect_closed());
}

TEST_F(ISocketServerTest, KeepsTakingAFrameWithoutBytesForADisconnectAtTheNextEvent) {
    arrive(join({kyp_head(100, 0), kyp_head(100, 1)}));

    EXPECT_EQ(0, read_event());
    EXPECT_FALSE(record_is_closed());
    EXPECT_EQ(2, m_conn->m_nRecvState);
    EXPECT_EQ(0u, m_conn->m_nRecvRest);
    EXPECT_EQ(-1, read_event());
    EXPECT_TRUE(record_is_closed());
    EXPECT_EQ(
        1, m_log.count("WARNING", "client:peer request disconnect fd:" + std::to_string(m_near)));
    EXPECT_TRUE(take_queued_messages().empty());
}

class NegativeLengthTest : public ISocketServerTest,
                           public testing::WithParamInterface<uint32_t> {};

TEST_P(NegativeLengthTest, ReadsNoMoreThanTheBufferHoldsAndThenADisconnect) {
    uint32_t const length = GetParam();
    arrive(join({kyp_head(100, length), pattern(4096)}));
    CallGate gate;

    EXPECT_EQ(0, read_event());
    EXPECT_EQ(length, m_conn->m_nRecvRest);
    int const room = m_conn->m_pRecvMsg->getpBuf()->capacity() - 56;
    EXPECT_EQ(0, read_event());
    EXPECT_EQ(-1, read_event());
    EXPECT_EQ((std::vector<std::string>{"recv(8,0)", "recv(" + std::to_string(room) + ",0)",
                                        "recv(0,0)"}),
              gate.calls("recv("));
    EXPECT_TRUE(record_is_closed());
}

INSTANTIATE_TEST_SUITE_P(Some, NegativeLengthTest,
                         testing::Values(0xffffffffu, 0xffffffc8u, 0xffffffc7u, 0x80000000u));

TEST_F(ISocketServerTest, ABodyIsReadIntoALargerBufferWhereASmallerOneComesBack) {
    auto& pool = utility::instance<server_bufpool>();
    pool.make_buf_list(32768, 1);
    pool.put_one_free(pool.get_one_buf(20000));
    pool.make_buf_list(16384, 1);
    pool.put_one_free(pool.get_one_buf(10000));
    for (size_t size : {20000u, 40000u}) {
        SCOPED_TRACE(size);
        Bytes const frame = join({kyp_head(100, static_cast<uint32_t>(size)), pattern(size)});
        arrive(frame);

        EXPECT_EQ(0, read_event());
        EXPECT_EQ(0, read_event());
        EXPECT_EQ(frame, bytes_of(*take_queued_messages().at(0)));
    }
}

TEST_F(ISocketServerTest, AnUnknownStateChangesNothing) {
    m_conn->m_nRecvState = 9;
    arrive(text("x"));

    EXPECT_EQ(0, read_event());
    EXPECT_EQ(9, m_conn->m_nRecvState);
    EXPECT_EQ(8u, m_conn->m_nRecvRest);
}

TEST_F(ISocketServerTest, ThePeersEndClosesTheConnection) {
    m_peer.close();

    EXPECT_EQ(-1, read_event());
    EXPECT_TRUE(record_is_closed());
    EXPECT_EQ(
        1, m_log.count("WARNING", "client:peer request disconnect fd:" + std::to_string(m_near)));
}

TEST_F(ISocketServerTest, AnEndInTheMiddleOfAHeadLeavesNoMessage) {
    arrive(bytes("00 01 64"));
    read_event();
    m_peer.close();

    EXPECT_EQ(-1, read_event());
    EXPECT_TRUE(record_is_closed());
    EXPECT_EQ(nullptr, m_conn->m_pRecvMsg);
    EXPECT_TRUE(take_queued_messages().empty());
}

TEST_F(ISocketServerTest, AnEndInTheMiddleOfABodyLeavesNoMessage) {
    arrive(join({kyp_head(100, 50), text("half")}));
    read_event();
    read_event();
    m_peer.close();

    EXPECT_EQ(-1, read_event());
    EXPECT_TRUE(record_is_closed());
    EXPECT_TRUE(take_queued_messages().empty());
}

TEST_F(ISocketServerTest, RecvprocGivesTheCount) {
    arrive(text("four"));
    unsigned char buffer[16];

    EXPECT_EQ(4, m_server.recvproc(m_conn, buffer, sizeof buffer));
}

TEST_F(ISocketServerTest, RecvprocGivesZeroForThePeersEnd) {
    m_peer.close();
    unsigned char buffer[16];

    EXPECT_EQ(0, m_server.recvproc(m_conn, buffer, sizeof buffer));
}

TEST_F(ISocketServerTest, ReadErrorsOfTheMomentLeaveTheConnection) {
    for (int error : {EINTR, EAGAIN}) {
        SCOPED_TRACE(error);
        CallGate gate;
        gate.fail("recv(", error);
        m_log.clear();

        EXPECT_EQ(-1, read_event());
        EXPECT_FALSE(record_is_closed());
        EXPECT_EQ("", m_log.text());
    }
}

class ReadErrorTest : public ISocketServerTest,
                      public testing::WithParamInterface<std::tuple<int, std::string>> {};

TEST_P(ReadErrorTest, EndsTheConnection) {
    auto const [error, words] = GetParam();
    {
        CallGate gate;
        gate.fail("recv(", error);
        EXPECT_EQ(-1, read_event());
    }

    EXPECT_TRUE(record_is_closed());
    int const lines = words.empty() ? 0 : 1;
    EXPECT_EQ(lines, m_log.count("WARNING", "client:peer connection abort(" + words +
                                                "),fd:" + std::to_string(m_near)));
    EXPECT_EQ(lines, m_log.count_containing("connection abort"));
}

INSTANTIATE_TEST_SUITE_P(
    All, ReadErrorTest,
    testing::Values(std::make_tuple(ECONNABORTED, "Software caused connection abort"),
                    std::make_tuple(ECONNRESET, "Connection reset by peer"),
                    std::make_tuple(ENOTCONN, "Transport endpoint is not connected"),
                    std::make_tuple(ETIMEDOUT, ""), std::make_tuple(EBADF, "")));

TEST_F(ISocketServerTest, KeepsTheMessageAndTheLinkWhenAWriteTakesNothing) {
    ScriptedServer server;
    install("message");
    for (int answer : {0, -1, -2}) {
        SCOPED_TRACE(answer);
        server.m_answer = answer;
        m_log.clear();

        EXPECT_EQ(0, server.sock_write_request_handler(m_conn));
        EXPECT_EQ(7u, m_conn->m_nSendRest);
        EXPECT_NE(nullptr, m_conn->m_pSendMsg);
        EXPECT_EQ(0x2005u, m_conn->m_events);
        EXPECT_FALSE(record_is_closed());
        EXPECT_EQ("", m_log.text());
    }
}

TEST_F(ISocketServerTest, AWriteInPiecesGoesOnWhereItStopped) {
    ScriptedServer server;
    install("message");
    server.m_answer = 3;

    EXPECT_EQ(0, server.sock_write_request_handler(m_conn));
    EXPECT_EQ(4u, m_conn->m_nSendRest);
    EXPECT_EQ(0, server.sock_write_request_handler(m_conn));
    EXPECT_EQ(1u, m_conn->m_nSendRest);
    server.m_answer = 1;
    EXPECT_EQ(0, server.sock_write_request_handler(m_conn));
    EXPECT_EQ((std::vector<Bytes>{text("message"), text("sage"), text("e")}), server.m_asked);
    EXPECT_EQ(0u, m_conn->m_nSendRest);
    EXPECT_EQ(nullptr, m_conn->m_pSendPos.load());
    EXPECT_EQ(nullptr, m_conn->m_pSendMsg);
    EXPECT_FALSE(m_conn->m_bSending);
}

TEST_F(ISocketServerTest, AMessageThatHasLeftMakesRoomForTheNext) {
    install("one");
    install("three");

    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ(5u, m_conn->m_nSendRest);
    EXPECT_TRUE(m_conn->m_bSending);
    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ("onethree", as_text(m_peer.receive(8)));
}

TEST_F(ISocketServerTest, AMessageWithoutBytesDoesNotHoldUpTheQueue) {
    install("");
    install("next");

    turn(2);
    EXPECT_EQ("next", as_text(m_peer.receive(4)));
    EXPECT_FALSE(m_conn->m_bSending);
}

// A server in whose write another thread's answer arrives.
class OvertakenServer : public ISocketServer {
public:
    int sendproc(CSocketConnection* conn, unsigned char*, unsigned int) override {
        conn->send_message("answer", 6);
        return 0;
    }
};

TEST_F(ISocketServerTest, AnAnswerThatArrivesDuringAnIdleWriteEventIsNotLost) {
    OvertakenServer server;

    EXPECT_EQ(0, server.sock_write_request_handler(m_conn));
    turn();
    EXPECT_EQ("answer", as_text(m_peer.receive(6)));
}

TEST_F(ISocketServerTest, AnExchangeCostsNoFurtherSystemCalls) {
    arrive(join({kyp_head(100, 5), text("hello")}));
    std::vector<int> interest;
    KernelHook ctl(kernel::epoll_ctl, [&](int epollFd, int op, int fd, epoll_event* event) {
        interest.push_back(static_cast<int>(event->events));
        return kernel::epoll_ctl.real(epollFd, op, fd, event);
    });
    CallGate gate;

    turn(2);
    install("answer");
    turn();
    EXPECT_EQ((std::vector<std::string>{"recv(8,0)", "recv(5,0)", "send(6,16384)"}), gate.calls());
    EXPECT_EQ((std::vector<int>{0x2005, 0x2001}), interest);
}

TEST_F(ISocketServerTest, AWriteEventWithNothingToSendDoesNothing) {
    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ(0x2001u, m_conn->m_events);
}

TEST_F(ISocketServerTest, SendprocTellsAFullSocketFromABrokenOne) {
    unsigned char byte = 0;
    EXPECT_EQ(1, m_server.sendproc(m_conn, &byte, 1));

    CallGate gate;
    gate.fail("send(", EAGAIN);
    gate.fail("send(", ECONNRESET);
    EXPECT_EQ(-1, m_server.sendproc(m_conn, &byte, 1));
    EXPECT_EQ(-2, m_server.sendproc(m_conn, &byte, 1));
}

TEST_F(ISocketServerTest, AFullSocketTakesThePartThatFits) {
    m_peer.shrink_buffers();
    Bytes data = pattern(10000000);

    int const sent = m_server.sendproc(m_conn, data.data(), static_cast<unsigned int>(data.size()));
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 10000000);
    EXPECT_EQ(-1, m_server.sendproc(m_conn, data.data(), 1));
}

TEST_F(ISocketServerTest, APeerThatIsGoneWhileItsAnswerLeavesDoesNotEndTheProcess) {
    install("answer");
    m_peer.close();

    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ(6u, m_conn->m_nSendRest);
    EXPECT_FALSE(record_is_closed());
}

// Hooks and observers write into one list.
std::vector<std::string> g_steps;

class StepObserver : public IObserverConn {
public:
    void conn_close(IConnection*) override { g_steps.push_back("observer"); }
};

TEST_F(ISocketServerTest, ClosingRunsHookThenObserversThenSequenceThenSocket) {
    static uint64_t sequence = 0;
    static int fd = 0;
    g_steps.clear();
    StepObserver observer;
    m_conn->attach(&observer);
    uint64_t const before = m_conn->iCurrsequence;
    int context = 0;
    ISocketServer::set_conn_close(
        [](IConnection* conn, void* ctx) {
            *static_cast<int*>(ctx) = 42;
            g_steps.push_back("hook");
            sequence = static_cast<CSocketConnection*>(conn)->iCurrsequence;
            fd = conn->get_fd();
        },
        &context);

    EXPECT_EQ(0, m_server.sock_close_connection(m_conn));
    EXPECT_EQ((std::vector<std::string>{"hook", "observer"}), g_steps);
    EXPECT_EQ(42, context);
    EXPECT_EQ(before, sequence);
    EXPECT_EQ(m_near, fd);
    EXPECT_EQ(before + 1, m_conn->iCurrsequence);
    EXPECT_TRUE(record_is_closed());
}

TEST_F(ISocketServerTest, ClosingWithoutAHookClosesAllTheSame) {
    EXPECT_EQ(0, m_server.sock_close_connection(m_conn));
    EXPECT_TRUE(record_is_closed());
}

TEST(ISocketServerHookTest, EachSetterOverwritesBothOfItsPairAlone) {
    auto hook = [](IConnection*, void*) {};
    int a = 0;
    int b = 0;
    ISocketServer::set_conn_start(hook, &a);
    ISocketServer::set_conn_close(hook, &b);
    EXPECT_EQ(&a, ISocketServer::m_lpConnStartCtx);
    EXPECT_EQ(&b, ISocketServer::m_lpConnCloseCtx);

    ISocketServer::set_conn_start(nullptr, nullptr);
    EXPECT_EQ(nullptr, ISocketServer::m_pfnConnStart);
    EXPECT_EQ(nullptr, ISocketServer::m_lpConnStartCtx);
    EXPECT_NE(nullptr, ISocketServer::m_pfnConnClose);
    ISocketServer::set_conn_close(nullptr, nullptr);
    EXPECT_EQ(nullptr, ISocketServer::m_pfnConnClose);
}

TEST(ISocketServerOptionTest, SetnonblockingMakesTheDescriptorNonBlocking) {
    ISocketServer server;
    int const fd = socket(AF_UNIX, SOCK_STREAM, 0);

    EXPECT_EQ(0, server.setnonblocking(fd));
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    close(fd);
}

TEST(ISocketServerOptionTest, KeepsClearingTheOtherStatusFlagsWithSetnonblocking) {
    ISocketServer server;
    int pair[2];
    ASSERT_EQ(0, pipe2(pair, O_DIRECT));

    EXPECT_EQ(0, server.setnonblocking(pair[1]));
    EXPECT_EQ(0, fcntl(pair[1], F_GETFL) & O_DIRECT);
    close(pair[0]);
    close(pair[1]);
}

TEST(ISocketServerOptionTest, SetSockOptIgnoresEveryRefusal) {
    ISocketServer server;
    CallGate gate;
    gate.fail("setsockopt(", EOPNOTSUPP, CallGate::kAlways);

    EXPECT_EQ(0, server.set_sock_opt(7));
    // TCP_NODELAY, SO_SNDBUF, SO_RCVBUF
    EXPECT_EQ(
        (std::vector<std::string>{"setsockopt(6,1,4)", "setsockopt(1,7,4)", "setsockopt(1,8,4)"}),
        gate.calls());
}

int option_of(int fd, int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd, level, name, &value, &size);
    return value;
}

TEST(ISocketServerOptionTest, SetSockOptSwitchesTheDelayOffAndEnlargesTheBuffers) {
    ISocketServer server;
    int const size = 262144;
    int const reference = socket(AF_INET, SOCK_STREAM, 0);
    setsockopt(reference, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(reference, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    int const fd = socket(AF_INET, SOCK_STREAM, 0);

    EXPECT_EQ(0, server.set_sock_opt(fd));
    EXPECT_EQ(1, option_of(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(option_of(reference, SOL_SOCKET, SO_SNDBUF), option_of(fd, SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(option_of(reference, SOL_SOCKET, SO_RCVBUF), option_of(fd, SOL_SOCKET, SO_RCVBUF));
    close(fd);
    close(reference);
}

}  // namespace
