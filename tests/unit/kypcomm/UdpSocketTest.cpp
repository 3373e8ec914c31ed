#include "kypcomm/UdpSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "kypcomm/Frame.h"
#include "kypcomm/KypStatus.h"
#include "support/CallGate.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace {

constexpr int kEarlierStatus = 4711;  // left by an earlier call; nothing here clears it

class UdpSocketTest : public testing::Test {
protected:
    UdpSocketTest() : m_socket("127.0.0.1", m_peer.port(), SOCKET_TYPE_DATAGRAM, false) {
        tlsErrno = kEarlierStatus;
    }
    ~UdpSocketTest() override {
        if (m_socket.m_fd != -1) m_socket.Shutdown();
    }

    // Lets the peer know where answers go to.
    uint16_t introduce() {
        m_socket.write("hello", 5U);
        return m_peer.receive().port;
    }

    RawUdp m_peer;
    UdpSocket m_socket;
    unsigned char m_buf[64] = {};
};

TEST_F(UdpSocketTest, ConnectDoesNothingAndSaysSo) {
    CallGate gate;

    EXPECT_TRUE(m_socket.Connect(1000));
    EXPECT_TRUE(gate.calls().empty());
    EXPECT_FALSE(m_socket.isConnected());
}

TEST_F(UdpSocketTest, KeepsConnectTrueWithoutADescriptor) {
    UdpSocket broken("127.0.0.1", 1, 99, false);

    EXPECT_TRUE(broken.Connect(1000));
    EXPECT_FALSE(broken.isConnected());
}

TEST_F(UdpSocketTest, IsConnectedWhenACallerSaysSo) {
    m_socket.setConnectStatus(true);

    EXPECT_TRUE(m_socket.isConnected());
}

TEST_F(UdpSocketTest, ShutdownClosesTheDescriptor) {
    int const fd = m_socket.m_fd;
    m_socket.setConnectStatus(true);
    LogCapture log;
    CallGate gate;

    EXPECT_EQ(0, m_socket.Shutdown());
    EXPECT_TRUE(gate.calls().empty());
    EXPECT_EQ("", log.text());
    EXPECT_EQ(-1, m_socket.m_fd);
    EXPECT_FALSE(m_socket.isConnected());
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));

    EXPECT_EQ(-1, m_socket.Shutdown());
}

TEST_F(UdpSocketTest, KeepsTheDescriptorOpenInItsDestructor) {
    int fd = -1;
    {
        UdpSocket dropped("127.0.0.1", 1, SOCKET_TYPE_DATAGRAM, false);
        fd = dropped.m_fd;
    }

    EXPECT_NE(-1, fcntl(fd, F_GETFD));
    close(fd);
}

TEST_F(UdpSocketTest, SocketOptionsAreThoseOfTheBase) {
    CallGate gate;

    m_socket.setSocketopt();

    EXPECT_EQ((std::vector<std::string>{"getsockopt(1,7,4)", "getsockopt(1,8,4)"}), gate.calls());
}

TEST_F(UdpSocketTest, WriteSendsOneDatagramToThePeer) {
    CallGate gate;

    EXPECT_EQ(3, m_socket.write("abc", 3U));
    EXPECT_EQ(std::vector<std::string>{"sendto(3,0,16)"}, gate.calls("sendto"));
    EXPECT_EQ("abc", as_text(m_peer.receive().data));
}

TEST_F(UdpSocketTest, WriteLooksTheAddressUpEachTime) {
    RawUdp other;
    m_socket.write("abc", 3U);
    m_socket.m_port = other.port();

    EXPECT_EQ(2, m_socket.write("de", 2U));
    EXPECT_EQ("de", as_text(other.receive().data));
}

TEST_F(UdpSocketTest, WriteOfAFrameSendsItsValidBytes) {
    Frame frame(16, nullptr);
    std::unique_ptr<unsigned char[]> const block(frame.rawData());
    frame.prepend("abcd", 4);

    EXPECT_EQ(4, m_socket.write(frame));
    EXPECT_EQ("abcd", as_text(m_peer.receive().data));
}

TEST_F(UdpSocketTest, WriteReportsAFailure) {
    LogCapture log;
    CallGate gate;
    gate.fail("sendto", ENETUNREACH);

    EXPECT_EQ(-1, m_socket.write("abc", 3U));
    EXPECT_EQ(1, log.count("ERROR", "write frame failed with error:101"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(UdpSocketTest, WriteOfAFrameThatNoDatagramHoldsIsTheKernelsRefusal) {
    Frame frame(6291457, Bytes(6291457).data());
    std::unique_ptr<unsigned char[]> const block(frame.rawData());
    LogCapture log;

    EXPECT_EQ(-1, m_socket.write(frame));
    EXPECT_EQ(1, log.count("ERROR", "write frame failed with error:90"));
}

TEST_F(UdpSocketTest, ReadTakesOneDatagram) {
    uint16_t const port = introduce();
    m_peer.send_to(port, text("abc"));
    m_peer.send_to(port, text("defg"));
    CallGate gate;

    EXPECT_EQ(3, m_socket.read(m_buf, sizeof m_buf, 10000));
    EXPECT_EQ("61 62 63 00", hex(m_buf, 4));
    EXPECT_EQ((std::vector<std::string>{"select(0,10000000)", "recvfrom(64,0)"}), gate.calls());
}

TEST_F(UdpSocketTest, ReadCutsADatagramToItsRoom) {
    m_peer.send_to(introduce(), text("abcdef"));

    EXPECT_EQ(2, m_socket.read(m_buf, 2, 10000));
    EXPECT_EQ("61 62 00", hex(m_buf, 3));
}

TEST_F(UdpSocketTest, ReadOfAnEmptyDatagramIsZero) {
    m_peer.send_to(introduce(), {});

    EXPECT_EQ(0, m_socket.read(m_buf, sizeof m_buf, 10000));
}

TEST_F(UdpSocketTest, ReadGivesUpSilentlyWhenTheTimeIsOver) {
    LogCapture log;

    EXPECT_EQ(-1, m_socket.read(m_buf, sizeof m_buf, 1));
    EXPECT_EQ("", log.text());
}

TEST_F(UdpSocketTest, ReadReportsAFailure) {
    m_peer.send_to(introduce(), text("abc"));
    LogCapture log;
    CallGate gate;
    gate.fail("recvfrom", ECONNREFUSED);

    EXPECT_EQ(-1, m_socket.read(m_buf, sizeof m_buf, 10000));
    EXPECT_EQ(1, log.count("ERROR", "recvfrom error:111"));
}

}  // namespace
