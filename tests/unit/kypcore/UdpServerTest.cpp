#include "kypcore/UdpServer.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "CoreFixture.h"
#include "ServerFixture.h"
#include "support/CallGate.h"
#include "support/Eventually.h"

namespace {

class UdpServerTest : public ServerFixture {
protected:
    UdpServerTest() { m_conn = listen_record(m_server); }
    ~UdpServerTest() override { take_queued_messages(); }

    // Hands one datagram to the server.
    int deliver(RawUdp& from, Bytes const& data) {
        EXPECT_TRUE(from.send_to(port_of(m_server.get_listen_sock()), data));
        return m_server.sock_read_request_handler(m_conn);
    }

    UdpServer m_server{"127.0.0.1", 0};
    CSocketConnection* m_conn = nullptr;
    RawUdp m_peer;
};

TEST_F(UdpServerTest, AServerReceivesAndSaysSo) {
    UdpServer server("127.0.0.1", 38898);

    EXPECT_EQ(1, m_log.count("INFO", "udp server is running ip = 127.0.0.1, port = 38898"));
    EXPECT_EQ(38898, port_of(server.get_listen_sock()));
    EXPECT_TRUE(is_nonblocking(server.get_listen_sock()));
    ASSERT_NE(nullptr, server.m_pRecvBuf);
    ASSERT_NE(nullptr, server.m_pSpareBuf);
    EXPECT_GE(server.m_pRecvBuf->capacity(), 65507);
    EXPECT_GE(server.m_pSpareBuf->capacity(), 65507);
}

TEST_F(UdpServerTest, TheBuffersHoldADatagramAlsoWhereSmallerOnesComeBack) {
    auto& pool = utility::instance<server_bufpool>();
    pool.make_buf_list(32768, 2);
    pbuf* const a = pool.get_one_buf(20000);
    pbuf* const b = pool.get_one_buf(20000);
    pool.put_one_free(a);
    pool.put_one_free(b);

    UdpServer server("127.0.0.1", 38898);
    EXPECT_GE(server.m_pRecvBuf->capacity(), 65507);
    EXPECT_GE(server.m_pSpareBuf->capacity(), 65507);
}

TEST_F(UdpServerTest, TheSocketIsClosedWithTheServer) {
    int fd = -1;
    {
        UdpServer server("127.0.0.1", 38898);
        fd = server.get_listen_sock();
    }

    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(UdpServerTest, ARefusedSocketIsLogged) {
    CallGate gate;
    gate.fail("socket(", EMFILE);

    UdpServer server("127.0.0.1", 38898);
    EXPECT_EQ(-1, server.get_listen_sock());
    EXPECT_EQ(1, m_log.count("ERROR", "create udp server fail,error:Too many open files"));
    EXPECT_EQ(std::vector<std::string>{"socket(2,526338,17)"}, gate.calls());
    EXPECT_EQ(-1, server.sock_read_request_handler(m_conn));
}

TEST_F(UdpServerTest, KeepsRunningAfterAFailedBind) {
    RawUdp const taken(38898);

    UdpServer server("127.0.0.1", 38898);
    EXPECT_EQ(1, m_log.count("ERROR", "bind error Address already in use"));
    EXPECT_EQ(1, m_log.count("INFO", "udp server is running ip = 127.0.0.1, port = 38898"));
    EXPECT_NE(nullptr, server.m_pRecvBuf);
}

TEST_F(UdpServerTest, KeepsReceivingOnEveryAddressWhenTheIpIsNoAddress) {
    for (char const* ip : {"nonsense", static_cast<char const*>(nullptr)}) {
        UdpServer server(ip, 0);
        sockaddr_in addr{};
        socklen_t size = sizeof addr;

        ASSERT_EQ(0,
                  getsockname(server.get_listen_sock(), reinterpret_cast<sockaddr*>(&addr), &size));
        EXPECT_EQ(INADDR_ANY, addr.sin_addr.s_addr);
    }
}

TEST_F(UdpServerTest, AWorkerSeesExactlyTheDatagram) {
    for (size_t size : {0u, 1u, 72u, 73u, 1000u, 20000u, 40000u, 65499u}) {
        SCOPED_TRACE(size);
        Bytes const datagram = join({kyp_head(101, static_cast<uint32_t>(size)), pattern(size)});

        EXPECT_EQ(0, deliver(m_peer, datagram));
        auto const messages = take_queued_messages();
        ASSERT_EQ(1u, messages.size());
        EXPECT_EQ(datagram, bytes_of(*messages[0]));
    }
}

TEST_F(UdpServerTest, AMessageIsStampedAsADatagramOfItsRecord) {
    EXPECT_EQ(0, deliver(m_peer, join({kyp_head(101, 2), text("ok")})));

    auto const messages = take_queued_messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(MSG_MODE_RECV, messages[0]->m_enMode);
    EXPECT_EQ(MSG_TYPE_DATAGRAM, messages[0]->m_enType);
    EXPECT_EQ(m_conn, messages[0]->m_pConn);
    EXPECT_EQ(m_conn->iCurrsequence, messages[0]->m_nSequence);
    EXPECT_GE(messages[0]->GetVaildData() - messages[0]->getpBuf()->rawData(), 48);
}

TEST_F(UdpServerTest, TheSenderIsRemembered) {
    deliver(m_peer, join({kyp_head(101, 0)}));

    auto const* const addr = reinterpret_cast<sockaddr_in const*>(&m_conn->m_peerAddr);
    EXPECT_EQ(m_peer.port(), ntohs(addr->sin_port));
    EXPECT_EQ(INADDR_LOOPBACK, ntohl(addr->sin_addr.s_addr));
}

TEST_F(UdpServerTest, ADatagramThatIsNotOneFrameIsLoggedAndDropped) {
    struct Row {
        Bytes datagram;
        std::string line;
    };
    Row const rows[] = {
        {{}, "port:0,msgLen:0,recvlen:0"},
        {bytes("00 01 65 00 00 00 00"), "port:101,msgLen:0,recvlen:7"},
        {bytes("00 01 65 00"), "port:101,msgLen:0,recvlen:4"},
        {kyp_head(101, 1), "port:101,msgLen:1,recvlen:8"},
        {join({kyp_head(101, 1), text("xy")}), "port:101,msgLen:1,recvlen:10"},
        {join({kyp_head(101, 3), text("xy")}), "port:101,msgLen:3,recvlen:10"},
        {kyp_head(101, 0xffffffff), "port:101,msgLen:-1,recvlen:8"},
        {bytes("00 01 65 00 FF FF FF"), "port:101,msgLen:16777215,recvlen:7"},
    };
    // What an earlier datagram left in the receive buffer does not count.
    deliver(m_peer, join({kyp_head(0xffff, 300), Bytes(300, 0xff)}));
    take_queued_messages();
    for (Row const& row : rows) {
        SCOPED_TRACE(hex(row.datagram));
        m_log.clear();

        EXPECT_EQ(-1, deliver(m_peer, row.datagram));
        EXPECT_EQ(1, m_log.count("ERROR", "error message head format error," + row.line));
        EXPECT_TRUE(take_queued_messages().empty());
    }
    EXPECT_EQ(0, deliver(m_peer, kyp_head(101, 0)));
}

TEST_F(UdpServerTest, NothingToReceiveIsNoError) {
    m_log.clear();

    EXPECT_EQ(-1, m_server.sock_read_request_handler(m_conn));
    EXPECT_EQ("", m_log.text());
}

TEST_F(UdpServerTest, AFailedReceiveIsLoggedUnlessItIsOfTheMoment) {
    for (int error : {EAGAIN, EINTR, ECONNREFUSED}) {
        SCOPED_TRACE(error);
        CallGate gate;
        gate.fail("recvfrom(", error);
        m_log.clear();

        EXPECT_EQ(-1, m_server.sock_read_request_handler(m_conn));
        EXPECT_EQ(error == ECONNREFUSED ? 1 : 0,
                  m_log.count("ERROR", "udp server recvfrom error Connection refused"));
        EXPECT_EQ(error == ECONNREFUSED ? 1 : 0, m_log.count_containing("recvfrom"));
    }
}

TEST_F(UdpServerTest, RegistrationLeavesTheRecordWithoutWriteHandlerAndLoop) {
    EXPECT_TRUE(m_conn->m_writeHandler == nullptr);
    EXPECT_EQ(nullptr, m_conn->m_pEventLoop.load());
}

// A record that a program has made fit for answers.
class UdpAnswerTest : public UdpServerTest {
protected:
    UdpAnswerTest() {
        m_conn->m_writeHandler = &ISocketServer::sock_write_request_handler;
        m_conn->SetEventLoop(utility::instance<CEventManage>().m_vecLoops[0]);
    }
    ~UdpAnswerTest() override { m_conn->PutOneToFree(); }
};

TEST_F(UdpAnswerTest, AnAnswerGoesBackToTheSender) {
    deliver(m_peer, kyp_head(101, 0));
    m_conn->send_message("answer", 6);

    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    RawDatagram const answer = m_peer.receive();
    EXPECT_EQ("answer", as_text(answer.data));
    EXPECT_EQ(port_of(m_server.get_listen_sock()), answer.port);
    EXPECT_EQ(nullptr, m_conn->m_pSendMsg);
    EXPECT_EQ(nullptr, m_conn->m_pSendPos.load());
}

TEST_F(UdpAnswerTest, KeepsAnsweringTheSenderOfTheLatestDatagram) {
    RawUdp other;
    deliver(m_peer, kyp_head(101, 0));
    m_conn->send_message("answer", 6);
    deliver(other, kyp_head(101, 0));

    m_server.sock_write_request_handler(m_conn);
    EXPECT_EQ("answer", as_text(other.receive().data));
}

TEST_F(UdpAnswerTest, KeepsSendingAndWritableAfterASend) {
    deliver(m_peer, kyp_head(101, 0));
    m_conn->send_message("first", 5);
    m_conn->send_message("second", 6);

    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_TRUE(m_conn->m_bSending);
    EXPECT_EQ(0x2005u, m_conn->m_events);
    EXPECT_EQ(1u, m_conn->m_sendQueue.size());
    m_conn->triggerSendNextMsg();
    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ("first", as_text(m_peer.receive().data));
    EXPECT_EQ("second", as_text(m_peer.receive().data));
    m_conn->triggerSendNextMsg();
    EXPECT_FALSE(m_conn->m_bSending);
    EXPECT_EQ(0x2001u, m_conn->m_events);
}

TEST_F(UdpAnswerTest, AMessageThatIsGoneIsNotSentAgain) {
    deliver(m_peer, kyp_head(101, 0));
    m_conn->send_message("answer", 6);
    m_server.sock_write_request_handler(m_conn);
    CallGate gate;

    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ(0, gate.count("sendto("));
}

TEST_F(UdpAnswerTest, AFailedSendIsLoggedAndTheMessageDestroyed) {
    deliver(m_peer, kyp_head(101, 0));
    m_conn->send_message("answer", 6);
    CallGate gate;
    gate.fail("sendto(6,0,16)", ENETUNREACH);

    EXPECT_EQ(0, m_server.sock_write_request_handler(m_conn));
    EXPECT_EQ(1, m_log.count("ERROR", "sendto error:Network is unreachable"));
    EXPECT_EQ(nullptr, m_conn->m_pSendMsg);
}

TEST_F(UdpAnswerTest, SendprocGivesTheCountOrMinusOne) {
    deliver(m_peer, kyp_head(101, 0));
    unsigned char data[3] = {};

    EXPECT_EQ(3, m_server.sendproc(m_conn, data, 3));
    CallGate gate;
    gate.fail("sendto(", EPERM);
    EXPECT_EQ(-1, m_server.sendproc(m_conn, data, 3));
}

}  // namespace
