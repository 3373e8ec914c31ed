#include "kypcore/TcpServer.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "ServerFixture.h"
#include "kypcore/router/RouteManage.h"
#include "support/CallGate.h"
#include "support/Eventually.h"

namespace {

class TcpServerTest : public ServerFixture {
protected:
    RawPeer connect() { return RawPeer::connect_tcp(port_of(m_server.get_listen_sock())); }

    TcpServer m_server{"127.0.0.1", 0};
};

TEST_F(TcpServerTest, AServerListensAndSaysSo) {
    TcpServer server("127.0.0.1", 9999);

    EXPECT_EQ(1, m_log.count("INFO", "tcp server is running ip = 127.0.0.1, port = 9999"));
    EXPECT_EQ("127.0.0.1", server.m_strIp);
    EXPECT_EQ(9999, server.m_port);
    EXPECT_EQ(9999, port_of(server.get_listen_sock()));
    EXPECT_TRUE(is_nonblocking(server.get_listen_sock()));
    EXPECT_NE(0, fcntl(server.get_listen_sock(), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(1, option_of(server.get_listen_sock(), SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(1, option_of(server.get_listen_sock(), SOL_SOCKET, SO_REUSEPORT));
    EXPECT_TRUE(RawPeer::connect_tcp(9999).connected());
}

TEST_F(TcpServerTest, TheSocketIsClosedWithTheServer) {
    int fd = -1;
    {
        TcpServer server("127.0.0.1", 0);
        fd = server.get_listen_sock();
    }

    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(TcpServerTest, KeepsListeningOnEveryAddressWhenTheIpIsNoAddress) {
    for (char const* ip : {"nonsense", "", static_cast<char const*>(nullptr)}) {
        SCOPED_TRACE(ip == nullptr ? "null" : ip);
        TcpServer server(ip, 0);
        sockaddr_in addr{};
        socklen_t size = sizeof addr;

        ASSERT_EQ(0,
                  getsockname(server.get_listen_sock(), reinterpret_cast<sockaddr*>(&addr), &size));
        EXPECT_EQ(INADDR_ANY, addr.sin_addr.s_addr);
    }
}

TEST_F(TcpServerTest, ARefusedSocketIsLogged) {
    CallGate gate;
    gate.fail("socket(", EMFILE);

    TcpServer server("127.0.0.1", 9999);
    EXPECT_EQ(-1, server.get_listen_sock());
    EXPECT_EQ(1, m_log.count("ERROR", "tcp::server :socket():Too many open files"));
    EXPECT_EQ(std::vector<std::string>{"socket(2,524289,6)"}, gate.calls());
}

TEST_F(TcpServerTest, RefusedReuseIsLoggedAndNotFatal) {
    CallGate gate;
    gate.fail("setsockopt(1,2,", EPERM);
    gate.fail("setsockopt(1,15,", EINVAL);

    TcpServer server("127.0.0.1", 9999);
    EXPECT_EQ(1, m_log.count("ERROR", "set socketopt reuse error:Operation not permitted"));
    EXPECT_EQ(1, m_log.count("ERROR",
                             "socket set sock reuser port error: errno=22 "
                             "errstr=Invalid argument"));
    EXPECT_EQ(9999, server.m_port);
}

TEST_F(TcpServerTest, ATakenPortIsLoggedAndLeavesAnUnboundSocket) {
    RawListener const taken = RawListener::tcp(9999);

    TcpServer server("127.0.0.1", 9999);
    EXPECT_EQ(1, m_log.count("ERROR", "bind error:Address already in use"));
    EXPECT_NE(-1, server.get_listen_sock());
    EXPECT_EQ(0, server.m_port);
    EXPECT_EQ("", server.m_strIp);
    EXPECT_EQ(0, m_log.count_containing("port = 9999"));
}

TEST_F(TcpServerTest, ARefusedListenIsLogged) {
    int backlog = 0;
    KernelHook hook(kernel::listen, [&](int, int count) {
        backlog = count;
        return fail_with(EADDRINUSE);
    });

    TcpServer server("127.0.0.1", 9999);
    EXPECT_EQ(1, m_log.count("ERROR", "listen error:Address already in use"));
    EXPECT_EQ(500, backlog);
    EXPECT_EQ(0, server.m_port);
    EXPECT_FALSE(is_nonblocking(server.get_listen_sock()));
}

TEST_F(TcpServerTest, AnAcceptedPeerGetsARecordOnTheSecondLoop) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer const peer = connect();

    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    CSocketConnection* const conn = m_newest;
    ASSERT_NE(nullptr, conn);
    std::string const name = "127.0.0.1:" + std::to_string(port_of(peer.fd()));
    EXPECT_EQ(name, conn->m_szPeerName);
    EXPECT_TRUE(conn->m_readHandler == &ISocketServer::sock_read_request_handler);
    EXPECT_TRUE(conn->m_writeHandler == &ISocketServer::sock_write_request_handler);
    EXPECT_EQ(&m_server, conn->m_pServer);
    EXPECT_EQ(utility::instance<CEventManage>().m_vecLoops[1], conn->m_pEventLoop.load());
    EXPECT_EQ(0x2001u, conn->m_events);
    EXPECT_TRUE(is_nonblocking(conn->get_fd()));
    EXPECT_EQ(1, m_log.count("DEBUG", "new tcp connection:" + name +
                                          " Success,fd:" + std::to_string(conn->get_fd())));
}

TEST_F(TcpServerTest, TheStartHookRunsBeforeTheRegistrationAndKnowsTheName) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer const peer = connect();

    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    EXPECT_EQ(Names{"start"}, m_steps);
    EXPECT_EQ(0u, m_maskAtStart);
    EXPECT_EQ("127.0.0.1:" + std::to_string(port_of(peer.fd())), m_nameAtStart);
}

TEST_F(TcpServerTest, AnAcceptedSocketIsKeptAliveAndUndelayed) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer const peer = connect();

    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    int const fd = m_newest->get_fd();
    EXPECT_EQ(1, option_of(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(1, option_of(fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(120, option_of(fd, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(15, option_of(fd, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(3, option_of(fd, IPPROTO_TCP, TCP_KEEPCNT));
}

TEST_F(TcpServerTest, EachEventAcceptsOnePeer) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer const a = connect();
    RawPeer const b = connect();

    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    EXPECT_EQ(Names{"start"}, m_steps);
    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    EXPECT_EQ((Names{"start", "start"}), m_steps);
}

TEST_F(TcpServerTest, FailedAcceptsAreLoggedByTheirReason) {
    struct Row {
        int error;
        std::string line;
    };
    Row const rows[] = {
        {EINTR, "accept errno = EINTR Interrupted system call"},
        {EAGAIN, "accept errno = EAGAIN"},
        {EMFILE, "accept errno = EMFILE"},
        {ECONNABORTED, "accept error:Software caused connection abort"},
    };
    CSocketConnection* const listening = listen_record(m_server);
    for (Row const& row : rows) {
        SCOPED_TRACE(row.error);
        KernelHook hook(kernel::accept4,
                        [&](int, sockaddr*, socklen_t*, int) { return fail_with(row.error); });
        m_log.clear();

        EXPECT_EQ(-1, m_server.sock_event_accept(listening));
        EXPECT_EQ(1, m_log.count("ERROR", row.line));
        EXPECT_TRUE(TcpServer::m_bAccept4);
    }
}

TEST_F(TcpServerTest, Accept4IsAskedForANonBlockingSocketAndSixteenBytesOfAddress) {
    CSocketConnection* const listening = listen_record(m_server);
    std::vector<int> asked;
    KernelHook hook(kernel::accept4, [&](int fd, sockaddr*, socklen_t* size, int flags) {
        asked = {fd, static_cast<int>(*size), flags};
        return fail_with(EAGAIN);
    });

    m_server.sock_event_accept(listening);
    EXPECT_EQ((std::vector<int>{m_server.get_listen_sock(), 16, SOCK_NONBLOCK}), asked);
}

TEST_F(TcpServerTest, AKernelWithoutAccept4IsAskedOnceAndServedByAccept) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer const a = connect();
    RawPeer const b = connect();
    int asked = 0;
    KernelHook hook(kernel::accept4, [&](int, sockaddr*, socklen_t*, int) {
        ++asked;
        return fail_with(ENOSYS);
    });

    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    EXPECT_FALSE(TcpServer::m_bAccept4);
    EXPECT_TRUE(is_nonblocking(m_newest->get_fd()));
    EXPECT_EQ(0, m_log.count_containing("accept err"));
    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    EXPECT_TRUE(is_nonblocking(m_newest->get_fd()));
    EXPECT_EQ(1, asked);
    TcpServer::m_bAccept4 = true;
}

TEST_F(TcpServerTest, AnAcceptThatIsNotThereEitherIsAnErrorLikeAnyOther) {
    CSocketConnection* const listening = listen_record(m_server);
    KernelHook first(kernel::accept4,
                     [](int, sockaddr*, socklen_t*, int) { return fail_with(ENOSYS); });
    KernelHook second(kernel::accept, [](int, sockaddr*, socklen_t*) { return fail_with(ENOSYS); });

    EXPECT_EQ(-1, m_server.sock_event_accept(listening));
    EXPECT_EQ(1, m_log.count("ERROR", "accept error:Function not implemented"));
    TcpServer::m_bAccept4 = true;
}

TEST_F(TcpServerTest, AFailedRegistrationClosesTheConnectionBehindItsStart) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer peer = connect();
    KernelHook hook(kernel::epoll_ctl,
                    [](int, int, int, epoll_event*) { return fail_with(ENOSPC); });

    EXPECT_EQ(-1, m_server.sock_event_accept(listening));
    EXPECT_EQ((Names{"start", "close"}), m_steps);
    EXPECT_EQ(-1, m_newest->get_fd());
    EXPECT_EQ(0, m_log.count_containing("new tcp connection"));
    EXPECT_TRUE(peer.expect_closed());
}

TEST_F(TcpServerTest, ASenderThatKnowsTheConnectionFromItsStartWaitsForTheRegistration) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer const peer = connect();
    bool sendsMeanwhile = true;
    KernelHook hook(kernel::epoll_ctl, [&](int epollFd, int op, int fd, epoll_event* event) {
        std::thread([&] {
            sendsMeanwhile = m_newest->m_sendMutex.try_lock();
            if (sendsMeanwhile) m_newest->m_sendMutex.unlock();
        }).join();
        return kernel::epoll_ctl.real(epollFd, op, fd, event);
    });

    EXPECT_EQ(0, m_server.sock_event_accept(listening));
    EXPECT_FALSE(sendsMeanwhile);
}

TEST_F(TcpServerTest, WithoutALoopTheConnectionIsClosedTheSameWay) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer peer = connect();
    utility::instance<CEventManage>().uninit_event_loop();

    EXPECT_EQ(-1, m_server.sock_event_accept(listening));
    EXPECT_EQ((Names{"start", "close"}), m_steps);
    EXPECT_TRUE(peer.expect_closed());
}

TEST_F(TcpServerTest, KeepaliveStopsAtTheFirstRefusal) {
    struct Row {
        char const* call;
        char const* name;
        int calls;
    };
    Row const rows[] = {
        {"setsockopt(1,9,", "keep alive", 1},
        {"setsockopt(6,4,", "TCP_KEEPIDLE", 2},
        {"setsockopt(6,5,", "TCP_KEEPINTVL", 3},
        {"setsockopt(6,6,", "TCP_KEEPCNT", 4},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.name);
        int const fd = socket(AF_INET, SOCK_STREAM, 0);
        CallGate gate;
        gate.fail(row.call, ENOTSOCK);
        m_log.clear();

        EXPECT_EQ(0, m_server.set_sock_keepalive(fd));
        EXPECT_EQ(row.calls, gate.count("setsockopt("));
        EXPECT_EQ(1, m_log.count("ERROR", "socket set sock " + std::string(row.name) +
                                              " error: errno=88 errstr=Socket operation on "
                                              "non-socket"));
        close(fd);
    }
}

TEST_F(TcpServerTest, KeepaliveReturnsOneWhenAllIsSet) {
    int const fd = socket(AF_INET, SOCK_STREAM, 0);

    EXPECT_EQ(1, m_server.set_sock_keepalive(fd));
    close(fd);
}

TEST_F(TcpServerTest, SetSockOptReturnsZeroAlsoWhenAllIsRefused) {
    EXPECT_EQ(0, m_server.set_sock_opt(-1));
}

TEST_F(TcpServerTest, APeersResetIsReported) {
    CSocketConnection* const listening = listen_record(m_server);
    RawPeer peer = connect();
    ASSERT_EQ(0, m_server.sock_event_accept(listening));
    std::string const name = m_newest->m_szPeerName;
    std::string const fd = std::to_string(m_newest->get_fd());

    peer.reset();
    EXPECT_EQ(-1, m_server.sock_read_request_handler(m_newest));
    EXPECT_EQ(
        1, m_log.count("WARNING",
                       "client:" + name + " connection abort(Connection reset by peer),fd:" + fd));
    EXPECT_EQ(-1, m_newest->get_fd());
}

// The whole road with its threads: three loops, two workers, a route that answers.
class TcpRoadTest : public testing::Test {
protected:
    TcpRoadTest() {
        utility::instance<RouteManage>().addSvrPortRoute(600, echo, nullptr);
        utility::instance<CEventManage>().init_event_loop(3, 0);
        utility::instance<CThreadPool>().start(2);
        utility::instance<CEventManage>().add_listen_event(&m_server,
                                                           &ISocketServer::sock_event_accept);
        sockaddr_in addr{};
        socklen_t size = sizeof addr;
        getsockname(m_server.get_listen_sock(), reinterpret_cast<sockaddr*>(&addr), &size);
        m_port = ntohs(addr.sin_port);
    }

    ~TcpRoadTest() override {
        // Workers first: an answer under way needs its loop.
        utility::instance<CThreadPool>().stop();
        utility::instance<CEventManage>().uninit_event_loop();
    }

    static void echo(unsigned short port, char const* data, unsigned int size, _msg_request request,
                     void*) {
        _AoEHeader aoe{};
        aoe.invokeId = utils_htonl(request.invokeId);
        aoe.cmd = utils_htons(request.cmd);
        aoe.state = 1;
        request.conn->send_message(aoe, port, data, static_cast<int>(size), 1000);
    }

    LogCapture m_log;
    TcpServer m_server{"127.0.0.1", 0};
    uint16_t m_port = 0;
};

TEST_F(TcpRoadTest, RequestsAreAnsweredOverTheWholeRoad) {
    RawPeer a = RawPeer::connect_tcp(m_port);
    RawPeer b = RawPeer::connect_tcp(m_port);
    for (size_t size : {0u, 1u, 32u, 20000u, 5u * 1024 * 1024}) {
        SCOPED_TRACE(size);
        Bytes const payload = pattern(size);

        ASSERT_TRUE(a.send(request_frame(600, 9, 7, 1, 2, payload)));
        ASSERT_TRUE(b.send(request_frame(600, 9, 8, 1, 2, payload)));
        EXPECT_TRUE(response_frame(600, 9, 7, payload) == a.receive_frame());
        EXPECT_TRUE(response_frame(600, 9, 8, payload) == b.receive_frame());
    }
}

TEST_F(TcpRoadTest, ABadPeerEndsAloneAndTheOthersNoticeNothing) {
    RawPeer good = RawPeer::connect_tcp(m_port);
    for (Bytes const& garbage : {kyp_head(600, 0x600001), kyp_head(600, 0),
                                 join({kyp_head(600, 0xfffffff0), pattern(500)}), pattern(5000)}) {
        RawPeer bad = RawPeer::connect_tcp(m_port);
        ASSERT_TRUE(bad.send(join({request_frame(600, 9, 1, 1, 2, text("x")), garbage})));
        bad.shut_writing();
        EXPECT_TRUE(bad.drain_until_closed());
    }

    ASSERT_TRUE(good.send(request_frame(600, 9, 7, 1, 2, text("still here"))));
    EXPECT_EQ(response_frame(600, 9, 7, text("still here")), good.receive_frame());
}

TEST_F(TcpRoadTest, RecordsComeBackWhilePeersComeAndGo) {
    auto& pool = utility::instance<CSockConnPool>();
    pool.m_nRecyDelay = 0;
    for (int i = 0; i < 200; ++i) {
        RawPeer peer = RawPeer::connect_tcp(m_port);
        ASSERT_TRUE(peer.send(request_frame(600, 9, 7, 1, 2, text("hello"))));
        // Every second peer leaves without waiting for its answer.
        if (i % 2 != 0) continue;
        EXPECT_EQ(response_frame(600, 9, 7, text("hello")), peer.receive_frame());
    }

    // The listening record is the one that stays in use.
    EXPECT_TRUE(eventually([&] { return pool.m_nFree == pool.m_nTotal - 1; }));
    EXPECT_LT(pool.m_nTotal, 200);
}

}  // namespace
