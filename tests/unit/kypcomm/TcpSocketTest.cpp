#include "kypcomm/TcpSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "kypcomm/KypStatus.h"
#include "support/CallGate.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace {

constexpr int kEarlierStatus = 4711;  // left by an earlier call; nothing here clears it

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A port that nobody listens on.
uint16_t closed_port() {
    RawListener listener = RawListener::tcp();
    return listener.port();
}

int int_option(int fd, int level, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &size));
    return value;
}

class TcpSocketTest : public testing::Test {
protected:
    TcpSocketTest() : m_listener(RawListener::tcp()) { tlsErrno = kEarlierStatus; }

    static std::unique_ptr<TcpSocket> socket_to(uint16_t port,
                                                std::string const& host = "127.0.0.1") {
        return std::make_unique<TcpSocket>(host.c_str(), port, SOCKET_TYPE_STREAM, false);
    }

    std::unique_ptr<TcpSocket> connected() {
        auto made = socket_to(m_listener.port());
        EXPECT_TRUE(made->Connect(10000));
        m_peer = m_listener.accept();
        return made;
    }

    RawListener m_listener;
    RawPeer m_peer;
};

// Listens and has no room for another connection: a handshake with it does not finish.
class FullListener {
public:
    FullListener() : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        socklen_t size = sizeof address;
        EXPECT_EQ(0, getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size));
        EXPECT_EQ(0, listen(m_fd, 0));
        port = ntohs(address.sin_port);
        m_first = RawPeer::connect_tcp(port);
    }
    ~FullListener() { close(m_fd); }

    uint16_t port = 0;

private:
    int m_fd;
    RawPeer m_first;
};

TEST_F(TcpSocketTest, ConnectReachesAListener) {
    auto const made = socket_to(m_listener.port());
    LogCapture log;

    EXPECT_TRUE(made->Connect(10000));
    EXPECT_TRUE(made->isConnected());
    EXPECT_EQ(1, log.count("INFO", "TcpSocket connect Success"));
    EXPECT_EQ(1, log.count("INFO", "socket set TCP_NODELAY Success"));
    EXPECT_EQ(0, log.count_containing("ERROR"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(TcpSocketTest, ConnectMakesOneAttemptWithTheWholeWaitInMicroseconds) {
    auto const made = socket_to(m_listener.port());
    CallGate gate;

    EXPECT_TRUE(made->Connect(1500));
    EXPECT_EQ(std::vector<std::string>{"connect(16)"}, gate.calls("connect"));
    EXPECT_EQ(std::vector<std::string>{"select(0,1500000)"}, gate.calls("select"));
    EXPECT_EQ(0, gate.count("socket"));
}

TEST_F(TcpSocketTest, ConnectedSocketCarriesBytesBothWays) {
    auto const made = connected();
    unsigned char buf[4];

    EXPECT_EQ(4, made->write("abcd", 4, 10000));
    EXPECT_EQ("abcd", as_text(m_peer.receive(4)));

    m_peer.send(text("efgh"));
    EXPECT_EQ(4, made->readn(buf, 4, 10000));
    EXPECT_EQ("65 66 67 68", hex(buf, 4));
}

TEST_F(TcpSocketTest, ConnectSetsTheOptionsOfAControlConnection) {
    auto const made = connected();

    linger wait = {};
    socklen_t size = sizeof wait;
    ASSERT_EQ(0, getsockopt(made->m_fd, SOL_SOCKET, SO_LINGER, &wait, &size));
    EXPECT_EQ(1, wait.l_onoff);
    EXPECT_EQ(0, wait.l_linger);
    EXPECT_EQ(1, int_option(made->m_fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(120, int_option(made->m_fd, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(15, int_option(made->m_fd, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(3, int_option(made->m_fd, IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(1, int_option(made->m_fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_NE(0, fcntl(made->m_fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(TcpSocketTest, OptionsAreSetInOrderBehindThoseOfTheBase) {
    auto const made = socket_to(m_listener.port());
    CallGate gate;

    made->setSocketopt();

    EXPECT_EQ(
        (std::vector<std::string>{"getsockopt(1,7,4)", "getsockopt(1,8,4)", "setsockopt(1,13,8)",
                                  "setsockopt(1,9,4)", "setsockopt(6,4,4)", "setsockopt(6,5,4)",
                                  "setsockopt(6,6,4)", "setsockopt(6,1,4)"}),
        gate.calls());
}

TEST_F(TcpSocketTest, LingerIsWhatACallerSets) {
    auto const made = socket_to(m_listener.port());
    linger wait = {};
    socklen_t size = sizeof wait;

    EXPECT_TRUE(made->setLinger(true, 9));
    ASSERT_EQ(0, getsockopt(made->m_fd, SOL_SOCKET, SO_LINGER, &wait, &size));
    EXPECT_EQ(1, wait.l_onoff);
    EXPECT_EQ(9, wait.l_linger);

    EXPECT_TRUE(made->setLinger(false, 0));
    ASSERT_EQ(0, getsockopt(made->m_fd, SOL_SOCKET, SO_LINGER, &wait, &size));
    EXPECT_EQ(0, wait.l_onoff);
}

TEST_F(TcpSocketTest, OptionFailuresAreLogged) {
    struct Row {
        char const* call;
        bool (*set)(TcpSocket&);
        char const* what;
        int calls;  // made up to the failure
    };
    auto const linger = [](TcpSocket& s) { return s.setLinger(true, 0); };
    auto const keepAlive = [](TcpSocket& s) { return s.setKeepAlive(); };
    auto const noDelay = [](TcpSocket& s) { return s.setNoDealy(); };
    Row const rows[] = {
        {"setsockopt(1,13,", linger, "sock linger", 1},
        {"setsockopt(1,9,", keepAlive, "sock keep alive", 1},
        {"setsockopt(6,4,", keepAlive, "sock TCP_KEEPIDLE", 2},
        {"setsockopt(6,5,", keepAlive, "sock TCP_KEEPINTVL", 3},
        {"setsockopt(6,6,", keepAlive, "sock TCP_KEEPCNT", 4},
        {"setsockopt(6,1,", noDelay, "TCP_NODELAY", 1},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.what);
        auto const made = socket_to(m_listener.port());
        LogCapture log;
        CallGate gate;
        gate.fail(row.call, ENOPROTOOPT);

        EXPECT_FALSE(row.set(*made));
        EXPECT_EQ(row.calls, gate.count("setsockopt"));
        EXPECT_EQ(1, log.count("ERROR", std::string("socket set ") + row.what +
                                            " error: errno=92 errstr=Protocol not available"));
    }
}

TEST_F(TcpSocketTest, ConnectionStandsWithoutItsOptions) {
    auto const made = socket_to(m_listener.port());
    LogCapture log;
    CallGate gate;
    gate.fail("setsockopt", ENOPROTOOPT, CallGate::kAlways);

    EXPECT_TRUE(made->Connect(10000));
    EXPECT_TRUE(made->isConnected());
}

TEST_F(TcpSocketTest, UnfinishedHandshakeClosesTheDescriptor) {
    FullListener const full;
    auto const made = socket_to(full.port);
    int const fd = made->m_fd;
    made->setConnectStatus(true);
    LogCapture log;

    EXPECT_FALSE(made->Connect(5));
    EXPECT_FALSE(made->isConnected());
    EXPECT_EQ(-1, made->m_fd);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ("", log.text());
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(TcpSocketTest, TimeoutOfZeroAsksOnceAndShutsDown) {
    FullListener const full;
    auto const made = socket_to(full.port);
    CallGate gate;

    EXPECT_FALSE(made->Connect(0));
    EXPECT_EQ(std::vector<std::string>{"select(0,0)"}, gate.calls("select"));
    EXPECT_EQ(std::vector<std::string>{"shutdown(2)"}, gate.calls("shutdown"));
    EXPECT_EQ(-1, made->m_fd);
}

TEST_F(TcpSocketTest, NextConnectAfterATimeoutMakesANewDescriptor) {
    auto const made = socket_to(m_listener.port());
    CallGate gate;
    gate.fail("select", 0);
    ASSERT_FALSE(made->Connect(10000));
    ASSERT_EQ(-1, made->m_fd);

    EXPECT_TRUE(made->Connect(10000));
    EXPECT_EQ(std::vector<std::string>{"socket(2,1,0)"}, gate.calls("socket"));
    EXPECT_TRUE(made->isConnected());
}

TEST_F(TcpSocketTest, FailedWaitShutsDown) {
    auto const made = socket_to(m_listener.port());
    CallGate gate;
    gate.fail("select", EINTR);

    EXPECT_FALSE(made->Connect(10000));
    EXPECT_EQ(-1, made->m_fd);
}

TEST_F(TcpSocketTest, KeepsGivingUpAConnectThatSucceedsAtOnce) {
    auto const made = socket_to(m_listener.port());
    CallGate gate;
    gate.fail("connect", 0);
    made->setConnectStatus(true);

    EXPECT_FALSE(made->Connect(10000));
    EXPECT_EQ(0, gate.count("select"));
    EXPECT_EQ(-1, made->m_fd);
    EXPECT_FALSE(made->isConnected());
}

TEST_F(TcpSocketTest, KeepsTheDescriptorOfARefusedConnectAndLogsThePendingErrno) {
    auto const made = socket_to(closed_port());
    int const fd = made->m_fd;
    made->setConnectStatus(true);
    LogCapture log;

    EXPECT_FALSE(made->Connect(10000));
    EXPECT_FALSE(made->isConnected());
    EXPECT_EQ(fd, made->m_fd);
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(1, log.count("ERROR",
                           "TcpSocket connect failed,errno:115,errmsg:Operation now in progress"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(TcpSocketTest, KeepsReportingSuccessOnTheDescriptorOfARefusedConnect) {
    auto const made = socket_to(closed_port());
    ASSERT_FALSE(made->Connect(10000));
    int const fd = made->m_fd;
    CallGate gate;

    EXPECT_TRUE(made->Connect(10000));
    EXPECT_EQ(fd, made->m_fd);
    EXPECT_EQ(0, gate.count("socket"));
    EXPECT_TRUE(made->isConnected());

    // The first read finds out.
    unsigned char byte;
    EXPECT_EQ(0, made->readn(&byte, 1, 10000));
    EXPECT_FALSE(made->isConnected());
}

TEST_F(TcpSocketTest, KeepsReportingSuccessForAConnectThatFailsWithoutWaiting) {
    auto const made = socket_to(m_listener.port());
    CallGate gate;
    gate.fail("connect", ENETUNREACH);

    EXPECT_TRUE(made->Connect(10000));
    EXPECT_TRUE(made->isConnected());

    unsigned char byte;
    EXPECT_EQ(0, made->readn(&byte, 1, 10000));
    EXPECT_FALSE(made->isConnected());
}

TEST_F(TcpSocketTest, KeepsReportingSuccessForAHostThatCannotBeRead) {
    auto const made = socket_to(m_listener.port(), "no address");

    // The attempt goes to 255.255.255.255, which the kernel refuses without waiting.
    EXPECT_TRUE(made->Connect(10000));

    unsigned char byte;
    EXPECT_EQ(0, made->readn(&byte, 1, 0));
    EXPECT_FALSE(made->isConnected());
}

TEST_F(TcpSocketTest, KeepsTheProductOfTheWaitIn32Bits) {
    FullListener const full;
    auto const made = socket_to(full.port);
    CallGate gate;

    EXPECT_FALSE(made->Connect(2147484));
    EXPECT_EQ(std::vector<std::string>{"select(0,-2147483296)"}, gate.calls("select"));
    EXPECT_EQ(-1, made->m_fd);
}

// Counts the steps that a connect takes through the object's own class.
class CountingTcpSocket : public TcpSocket {
public:
    using TcpSocket::TcpSocket;
    void setSocketopt() override { ++options; }
    int Shutdown() override {
        ++shutdowns;
        return TcpSocket::Shutdown();
    }

    int options = 0;
    int shutdowns = 0;
};

TEST_F(TcpSocketTest, ConnectSetsOptionsAndShutsDownThroughTheObjectsOwnClass) {
    CountingTcpSocket made("127.0.0.1", m_listener.port(), SOCKET_TYPE_STREAM, false);
    CallGate gate;
    gate.fail("select", 0);

    EXPECT_FALSE(made.Connect(10000));
    EXPECT_EQ(0, made.options);
    EXPECT_EQ(1, made.shutdowns);

    EXPECT_TRUE(made.Connect(10000));
    EXPECT_EQ(1, made.options);
    EXPECT_EQ(1, made.shutdowns);
}

TEST_F(TcpSocketTest, ConnectWithoutADescriptorFailsCleanly) {
    auto const made = socket_to(m_listener.port());
    made->Shutdown();
    LogCapture log;
    CallGate gate;
    gate.fail("socket", EMFILE);

    EXPECT_FALSE(made->Connect(10000));
    EXPECT_EQ(-1, made->m_fd);
    EXPECT_EQ(0, gate.count("select"));
    EXPECT_EQ(
        1, log.count("ERROR", "TcpSocket connect: descriptor -1 is outside select's range 0-1023"));
}

TEST_F(TcpSocketTest, ShutdownClosesInBothDirectionsSilently) {
    auto const made = connected();
    int const fd = made->m_fd;
    LogCapture log;
    CallGate gate;

    EXPECT_EQ(0, made->Shutdown());
    EXPECT_EQ(std::vector<std::string>{"shutdown(2)"}, gate.calls());
    EXPECT_EQ(-1, made->m_fd);
    EXPECT_FALSE(made->isConnected());
    EXPECT_EQ("", log.text());
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(m_peer.expect_closed());
}

TEST_F(TcpSocketTest, SecondShutdownReportsThatThereIsNoDescriptor) {
    auto const made = connected();
    made->Shutdown();

    EXPECT_EQ(-1, made->Shutdown());
}

TEST_F(TcpSocketTest, ConnectAfterShutdownUsesANewDescriptor) {
    auto const made = connected();
    made->Shutdown();

    EXPECT_TRUE(made->Connect(10000));
    EXPECT_TRUE(m_listener.accept().connected());
}

TEST_F(TcpSocketTest, DestructorShutsDown) {
    auto made = connected();
    int const fd = made->m_fd;

    made.reset();

    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(m_peer.expect_closed());
}

TEST_F(TcpSocketTest, LostPeerShowsAfterAReadAndNotBefore) {
    auto const made = connected();
    m_peer.reset();
    ASSERT_TRUE(made->Select(10000));
    EXPECT_TRUE(made->isConnected());

    unsigned char byte;
    EXPECT_EQ(0, made->readn(&byte, 1, 10000));
    EXPECT_FALSE(made->isConnected());
    EXPECT_TRUE(is_open(made->m_fd));
}

}  // namespace
