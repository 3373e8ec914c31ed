#include "kypcore/TcpDomainServer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ServerFixture.h"
#include "support/CallGate.h"

namespace {

constexpr char const* kPath = "/var/tmp/kyp/kypserver";

bool exists(std::string const& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

class TcpDomainServerTest : public ServerFixture {};

TEST_F(TcpDomainServerTest, AServerListensAtItsPathAndSaysSo) {
    TcpDomainserver server(kPath);

    EXPECT_EQ(
        1, m_log.count("INFO", "tcp domain server is runing,domain path:/var/tmp/kyp/kypserver"));
    EXPECT_EQ(kPath, server.m_strPath);
    EXPECT_TRUE(is_nonblocking(server.get_listen_sock()));
    EXPECT_TRUE(RawPeer::connect_unix(kPath).connected());
}

TEST_F(TcpDomainServerTest, SocketAndFileGoWithTheServer) {
    int fd = -1;
    {
        TcpDomainserver server(kPath);
        fd = server.get_listen_sock();
        ASSERT_TRUE(exists(kPath));
    }

    EXPECT_FALSE(exists(kPath));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(TcpDomainServerTest, KeepsReplacingWhatStandsAtThePath) {
    close(open(kPath, O_CREAT | O_WRONLY, 0600));

    TcpDomainserver first(kPath);
    EXPECT_TRUE(RawPeer::connect_unix(kPath).connected());
    TcpDomainserver second(kPath);
    CSocketConnection* const listening = listen_record(second);
    RawPeer const peer = RawPeer::connect_unix(kPath);
    EXPECT_EQ(0, second.sock_event_accept(listening));
}

TEST_F(TcpDomainServerTest, APathOf108BytesIsTakenAndALongerOneIsCut) {
    std::string const full = "/tmp/" + std::string(103, 'a');
    for (std::string const& path : {full, full + "bcd"}) {
        SCOPED_TRACE(path.size());
        TcpDomainserver server(path.c_str());

        EXPECT_TRUE(exists(full));
        EXPECT_EQ(path, server.m_strPath);
        unlink(full.c_str());
    }
}

TEST_F(TcpDomainServerTest, ARefusedSocketIsLogged) {
    CallGate gate;
    gate.fail("socket(", EMFILE);

    TcpDomainserver server(kPath);
    EXPECT_EQ(-1, server.get_listen_sock());
    EXPECT_EQ("", server.m_strPath);
    EXPECT_EQ(1, m_log.count("ERROR", "unixdomain::server :socket():Too many open files"));
    EXPECT_EQ(std::vector<std::string>{"socket(1,1,0)"}, gate.calls());
}

TEST_F(TcpDomainServerTest, AMissingDirectoryIsLoggedWithThePath) {
    TcpDomainserver server("/var/tmp/kyp/nowhere/socket");

    EXPECT_EQ(1, m_log.count("ERROR",
                             "unixdomain bind error:No such file or directory,path:"
                             "/var/tmp/kyp/nowhere/socket"));
    EXPECT_NE(-1, server.get_listen_sock());
    EXPECT_EQ(0, m_log.count_containing("is runing"));
}

TEST_F(TcpDomainServerTest, BindIsGivenTheWholeAddress) {
    CallGate gate;

    TcpDomainserver server(kPath);
    EXPECT_EQ(1, gate.count("bind(110)"));
}

TEST_F(TcpDomainServerTest, ARefusedListenIsLogged) {
    int backlog = 0;
    KernelHook hook(kernel::listen, [&](int, int count) {
        backlog = count;
        return fail_with(EADDRINUSE);
    });

    TcpDomainserver server(kPath);
    EXPECT_EQ(1, m_log.count("ERROR", "unixdomain listen error:Address already in use"));
    EXPECT_EQ(500, backlog);
    EXPECT_EQ(0, m_log.count_containing("is runing"));
}

TEST_F(TcpDomainServerTest, ANullPathIsNoPath) {
    TcpDomainserver server(nullptr);

    EXPECT_EQ("", server.m_strPath);
}

TEST_F(TcpDomainServerTest, AnAcceptedPeerGetsARecord) {
    TcpDomainserver server(kPath);
    CSocketConnection* const listening = listen_record(server);
    RawPeer const peer = RawPeer::connect_unix(kPath);

    EXPECT_EQ(0, server.sock_event_accept(listening));
    ASSERT_NE(nullptr, m_newest);
    EXPECT_STREQ("", m_newest->m_szPeerName);
    EXPECT_TRUE(m_newest->m_readHandler == &ISocketServer::sock_read_request_handler);
    EXPECT_TRUE(m_newest->m_writeHandler == &ISocketServer::sock_write_request_handler);
    EXPECT_EQ(&server, m_newest->m_pServer);
    EXPECT_EQ(utility::instance<CEventManage>().m_vecLoops[1], m_newest->m_pEventLoop.load());
    EXPECT_EQ(0x2001u, m_newest->m_events);
    EXPECT_EQ(0u, m_maskAtStart);
    EXPECT_TRUE(is_nonblocking(m_newest->get_fd()));
    EXPECT_EQ(1, m_log.count("DEBUG", "new domain tcp connection: Success,fd:" +
                                          std::to_string(m_newest->get_fd())));
}

// A peer that has a path of its own.
RawPeer connect_from(std::string const& from) {
    int const fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, from.data(), from.size());
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    memset(addr.sun_path, 0, sizeof addr.sun_path);
    strcpy(addr.sun_path, kPath);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    return RawPeer(fd);
}

TEST_F(TcpDomainServerTest, APeerWithAPathIsKnownByItsFirst31Characters) {
    struct Row {
        std::string path;
        std::string name;
    };
    std::string const full = "/tmp/" + std::string(103, 'p');  // no NUL in the address
    Row const rows[] = {{"/tmp/peer", "/tmp/peer"}, {full, full.substr(0, 31)}};
    TcpDomainserver server(kPath);
    CSocketConnection* const listening = listen_record(server);
    for (Row const& row : rows) {
        SCOPED_TRACE(row.path);
        RawPeer const peer = connect_from(row.path);

        EXPECT_EQ(0, server.sock_event_accept(listening));
        EXPECT_EQ(row.name, m_newest->m_szPeerName);
    }
}

TEST_F(TcpDomainServerTest, KeepsNamingTheListeningRecordInTheLogOfAnAccept) {
    TcpDomainserver server(kPath);
    CSocketConnection* const listening = listen_record(server);
    RawPeer const peer = connect_from("/tmp/peer");

    EXPECT_EQ(0, server.sock_event_accept(listening));
    EXPECT_EQ(0, m_log.count_containing("/tmp/peer Success"));
    EXPECT_EQ(1, m_log.count_containing("new domain tcp connection: Success,fd:"));
}

TEST_F(TcpDomainServerTest, FailedAcceptsAreLoggedByTheirReason) {
    TcpDomainserver server(kPath);
    CSocketConnection* const listening = listen_record(server);
    std::vector<int> asked;
    KernelHook hook(kernel::accept4, [&](int, sockaddr*, socklen_t* size, int flags) {
        asked = {static_cast<int>(*size), flags};
        return fail_with(EMFILE);
    });

    EXPECT_EQ(-1, server.sock_event_accept(listening));
    EXPECT_EQ(1, m_log.count("ERROR", "accept errno = EMFILE"));
    EXPECT_EQ((std::vector<int>{110, SOCK_NONBLOCK}), asked);
}

TEST_F(TcpDomainServerTest, AKernelWithoutAccept4IsServedByAccept) {
    TcpDomainserver server(kPath);
    CSocketConnection* const listening = listen_record(server);
    RawPeer const peer = RawPeer::connect_unix(kPath);
    KernelHook hook(kernel::accept4,
                    [](int, sockaddr*, socklen_t*, int) { return fail_with(ENOSYS); });

    EXPECT_EQ(0, server.sock_event_accept(listening));
    EXPECT_FALSE(TcpDomainserver::m_bAccept4);
    EXPECT_TRUE(is_nonblocking(m_newest->get_fd()));
    TcpDomainserver::m_bAccept4 = true;
}

TEST_F(TcpDomainServerTest, AFailedRegistrationClosesTheConnectionBehindItsStart) {
    TcpDomainserver server(kPath);
    CSocketConnection* const listening = listen_record(server);
    RawPeer peer = RawPeer::connect_unix(kPath);
    KernelHook hook(kernel::epoll_ctl,
                    [](int, int, int, epoll_event*) { return fail_with(ENOSPC); });

    EXPECT_EQ(-1, server.sock_event_accept(listening));
    EXPECT_EQ((Names{"start", "close"}), m_steps);
    EXPECT_TRUE(peer.expect_closed());
}

}  // namespace
