#include "kypcomm/DomainTcpSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
constexpr char const* kServer = "/var/tmp/kyp/kypserver";

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool is_socket_file(std::string const& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

class DomainTcpSocketTest : public testing::Test {
protected:
    DomainTcpSocketTest() : m_listener(RawListener::unix_path(kServer)) {
        tlsErrno = kEarlierStatus;
    }
    ~DomainTcpSocketTest() override { unlink(kServer); }

    static std::unique_ptr<DomainTcpSocket> socket_to(std::string const& path) {
        return std::make_unique<DomainTcpSocket>(path.c_str(), 0, SOCKET_TYPE_STREAM, true);
    }

    std::unique_ptr<DomainTcpSocket> connected() {
        auto made = socket_to(kServer);
        EXPECT_TRUE(made->Connect(0));
        m_peer = m_listener.accept();
        return made;
    }

    RawListener m_listener;
    RawPeer m_peer;
};

TEST_F(DomainTcpSocketTest, HasNoNameBeforeItConnects) {
    auto const made = socket_to(kServer);

    EXPECT_EQ(nullptr, made->GetSocketName());
    EXPECT_FALSE(made->isConnected());
}

TEST_F(DomainTcpSocketTest, ConnectReachesAServerUnderANameOfItsOwn) {
    auto const made = socket_to(kServer);
    LogCapture log;

    EXPECT_TRUE(made->Connect(0));
    EXPECT_TRUE(made->isConnected());
    ASSERT_NE(nullptr, made->GetSocketName());
    EXPECT_TRUE(is_socket_file(made->GetSocketName()));
    EXPECT_EQ(1, log.count("DEBUG", std::string("Tcp domain socket name:") + made->GetSocketName() +
                                        " connect domain name:" + kServer + " Success"));
    EXPECT_EQ(0, log.count_containing("ERROR"));
}

TEST_F(DomainTcpSocketTest, ConnectHandsWholeRecordsToTheKernel) {
    auto const made = socket_to(kServer);
    CallGate gate;

    EXPECT_TRUE(made->Connect(0));
    EXPECT_EQ((std::vector<std::string>{"bind(110)", "connect(110)", "getsockopt(1,7,4)",
                                        "getsockopt(1,8,4)", "setsockopt(1,20,16)",
                                        "setsockopt(1,21,16)"}),
              gate.calls());
}

TEST_F(DomainTcpSocketTest, KeepsConnectBlockingWhateverItsTimeout) {
    auto const made = socket_to(kServer);
    CallGate gate;

    EXPECT_TRUE(made->Connect(1));
    EXPECT_EQ(0, gate.count("select"));
    EXPECT_EQ(0, fcntl(made->m_fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(DomainTcpSocketTest, ConnectedSocketCarriesBytesBothWays) {
    auto const made = connected();
    unsigned char buf[4];

    EXPECT_EQ(4, made->write("abcd", 4, 10000));
    EXPECT_EQ("abcd", as_text(m_peer.receive(4)));

    m_peer.send(text("efgh"));
    EXPECT_EQ(4, made->readn(buf, 4, 10000));
    EXPECT_EQ("65 66 67 68", hex(buf, 4));
}

TEST_F(DomainTcpSocketTest, CallsOfAConnectionAreBoundedAtOneSecond) {
    auto const made = connected();

    for (int const option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval wait = {};
        socklen_t size = sizeof wait;
        ASSERT_EQ(0, getsockopt(made->m_fd, SOL_SOCKET, option, &wait, &size));
        EXPECT_EQ(1, wait.tv_sec);
        EXPECT_EQ(0, wait.tv_usec);
    }
    EXPECT_EQ(0, fcntl(made->m_fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(DomainTcpSocketTest, MissingServerIsReportedAndEverythingClosed) {
    auto const made = socket_to("/var/tmp/kyp/nobody");
    int const fd = made->m_fd;
    made->setConnectStatus(true);
    LogCapture log;

    EXPECT_FALSE(made->Connect(0));
    EXPECT_FALSE(made->isConnected());
    EXPECT_EQ(-1, made->m_fd);
    EXPECT_EQ(nullptr, made->GetSocketName());
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(1, log.count_containing(
                     " connect domain name:/var/tmp/kyp/nobody,Error:2,No such file or directory"));
    EXPECT_EQ(1, log.count_containing("[libkyp,ERROR"));
    EXPECT_EQ(1, log.count_containing("close domain socket:" + std::to_string(fd) + ",name:/tmp/"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(DomainTcpSocketTest, NameOfAFailedConnectIsRemoved) {
    auto const made = socket_to("/var/tmp/kyp/nobody");
    LogCapture log;

    EXPECT_FALSE(made->Connect(0));

    std::string const mark = "Tcp domain socket name:";
    std::string const all = log.text();
    size_t const start = all.find(mark) + mark.size();
    EXPECT_FALSE(is_socket_file(all.substr(start, all.find(' ', start) - start)));
}

TEST_F(DomainTcpSocketTest, ClientWhoseNameCannotBeBoundConnectsUnnamed) {
    auto const made = socket_to(kServer);
    CallGate gate;
    gate.fail("bind", EACCES);

    EXPECT_TRUE(made->Connect(0));
    EXPECT_TRUE(made->isConnected());
    ASSERT_NE(nullptr, made->GetSocketName());
    EXPECT_FALSE(is_socket_file(made->GetSocketName()));

    // There is nothing to unlink.
    EXPECT_EQ(-1, made->Shutdown());
    EXPECT_EQ(-1, made->m_fd);
}

TEST_F(DomainTcpSocketTest, ShutdownClosesAndRemovesTheName) {
    auto const made = connected();
    int const fd = made->m_fd;
    std::string const name = made->GetSocketName();
    LogCapture log;
    CallGate gate;

    EXPECT_EQ(0, made->Shutdown());
    EXPECT_EQ(0, gate.count("shutdown"));
    EXPECT_EQ(-1, made->m_fd);
    EXPECT_FALSE(made->isConnected());
    EXPECT_EQ(nullptr, made->GetSocketName());
    EXPECT_FALSE(is_socket_file(name));
    EXPECT_EQ(1, log.count("DEBUG", "close domain socket:" + std::to_string(fd) + ",name:" + name));
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(m_peer.expect_closed());
}

TEST_F(DomainTcpSocketTest, SecondShutdownClosesNothingAndUnlinksNothing) {
    auto const made = connected();
    made->Shutdown();
    LogCapture log;

    EXPECT_EQ(-1, made->Shutdown());
    EXPECT_EQ(1, log.count("DEBUG", "close domain socket:-1,name:(null)"));
}

TEST_F(DomainTcpSocketTest, ConnectAfterShutdownMakesANewDescriptorAndName) {
    auto const made = connected();
    made->Shutdown();
    CallGate gate;

    EXPECT_TRUE(made->Connect(0));
    EXPECT_EQ(std::vector<std::string>{"socket(1,1,0)"}, gate.calls("socket"));
    EXPECT_TRUE(is_socket_file(made->GetSocketName()));
    EXPECT_TRUE(m_listener.accept().connected());
}

// Counts the steps that a connect takes through the object's own class.
class CountingDomainTcpSocket : public DomainTcpSocket {
public:
    using DomainTcpSocket::DomainTcpSocket;
    void setSocketopt() override { ++options; }
    int Shutdown() override {
        ++shutdowns;
        return DomainTcpSocket::Shutdown();
    }

    int options = 0;
    int shutdowns = 0;
};

TEST_F(DomainTcpSocketTest, ConnectSetsOptionsAndShutsDownThroughTheObjectsOwnClass) {
    CountingDomainTcpSocket good(kServer, 0, SOCKET_TYPE_STREAM, true);
    CountingDomainTcpSocket bad("/var/tmp/kyp/nobody", 0, SOCKET_TYPE_STREAM, true);

    EXPECT_TRUE(good.Connect(0));
    EXPECT_EQ(1, good.options);
    EXPECT_EQ(0, good.shutdowns);

    EXPECT_FALSE(bad.Connect(0));
    EXPECT_EQ(0, bad.options);
    EXPECT_EQ(1, bad.shutdowns);
}

TEST_F(DomainTcpSocketTest, DestructorShutsDown) {
    auto made = connected();
    std::string const name = made->GetSocketName();

    made.reset();

    EXPECT_FALSE(is_socket_file(name));
    EXPECT_TRUE(m_peer.expect_closed());
}

TEST_F(DomainTcpSocketTest, KeepsOneTextForTheNamesOfAllSockets) {
    auto const first = connected();
    std::string const firstName = first->GetSocketName();
    auto const second = connected();
    std::string const secondName = second->GetSocketName();

    EXPECT_NE(firstName, secondName);
    EXPECT_EQ(secondName, first->GetSocketName());

    // The first to close takes the other's name and leaves its own.
    first->Shutdown();
    EXPECT_TRUE(is_socket_file(firstName));
    EXPECT_FALSE(is_socket_file(secondName));
    unlink(firstName.c_str());
}

TEST_F(DomainTcpSocketTest, PathOf107BytesIsUsedWhole) {
    std::string const path = "/var/tmp/kyp/" + std::string(94, 'p');
    RawListener listener = RawListener::unix_path(path);
    auto const made = socket_to(path);

    EXPECT_TRUE(made->Connect(0));
    EXPECT_TRUE(listener.accept().connected());
    unlink(path.c_str());
}

TEST_F(DomainTcpSocketTest, LongerPathIsCutTo107Bytes) {
    std::string const path = "/var/tmp/kyp/" + std::string(94, 'p');
    RawListener listener = RawListener::unix_path(path);
    auto const made = socket_to(path + "and more");

    EXPECT_TRUE(made->Connect(0));
    EXPECT_TRUE(listener.accept().connected());
    unlink(path.c_str());
}

TEST_F(DomainTcpSocketTest, KeepsAPathAFormatForItsOwnLength) {
    struct Row {
        char const* path;
        char const* reached;
    };
    Row const rows[] = {
        {"/var/tmp/kyp/100%%", "/var/tmp/kyp/100%"},
        {"/var/tmp/kyp/n%zu", "/var/tmp/kyp/n17"},
        {"/var/tmp/kyp/%%%04x%%", "/var/tmp/kyp/%0015%"},
        {"/var/tmp/kyp/%-4lun", "/var/tmp/kyp/19  n"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.path);
        RawListener listener = RawListener::unix_path(row.reached);
        auto const made = socket_to(row.path);

        EXPECT_TRUE(made->Connect(0));
        EXPECT_TRUE(listener.accept().connected());
        unlink(row.reached);
    }
}

TEST_F(DomainTcpSocketTest, PathThatAsksForMoreThanItsLengthStandsForItself) {
    for (char const* path :
         {"/var/tmp/kyp/100%", "/var/tmp/kyp/%%%", "/var/tmp/kyp/%s", "/var/tmp/kyp/%n",
          "/var/tmp/kyp/%d%d", "/var/tmp/kyp/%*d", "/var/tmp/kyp/%2$d", "/var/tmp/kyp/%f",
          "/var/tmp/kyp/%zs", "/var/tmp/kyp/%l"}) {
        SCOPED_TRACE(path);
        RawListener listener = RawListener::unix_path(path);
        auto const made = socket_to(path);

        EXPECT_TRUE(made->Connect(0));
        EXPECT_TRUE(listener.accept().connected());
        unlink(path);
    }
}

TEST_F(DomainTcpSocketTest, InternetDescriptorIsNotReplaced) {
    auto const made = std::make_unique<DomainTcpSocket>(kServer, 0, SOCKET_TYPE_STREAM, false);

    EXPECT_FALSE(made->Connect(0));
    EXPECT_FALSE(made->isConnected());
}

TEST_F(DomainTcpSocketTest, LostPeerShowsAfterAReadAndNotBefore) {
    auto const made = connected();
    m_peer.close();
    EXPECT_TRUE(made->isConnected());

    unsigned char byte;
    EXPECT_EQ(0, made->readn(&byte, 1, 10000));
    EXPECT_FALSE(made->isConnected());
}

}  // namespace
