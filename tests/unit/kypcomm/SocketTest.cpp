#include "kypcomm/Socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <stdexcept>

#include "kypcomm/Frame.h"
#include "kypcomm/KypStatus.h"
#include "support/CallGate.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace {

constexpr int kEarlierStatus = 4711;  // left by an earlier call; nothing here clears it
constexpr int kNoType = 99;

// The base class and nothing beside it.
class PlainSocket : public Socket {
public:
    using Socket::Socket;
    bool Connect(int /*timeoutMs*/) override { return false; }
    int Shutdown() override {
        int const result = close(m_fd);
        m_fd = -1;
        return result;
    }
};

// A frame and its block.
class HeldFrame {
public:
    explicit HeldFrame(unsigned int size, void const* init = nullptr)
        : frame(size, init), m_block(frame.rawData()) {}

    Frame frame;

private:
    std::unique_ptr<unsigned char[]> m_block;
};

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

std::string number(int value) {
    return std::to_string(value);
}

class SocketTest : public testing::Test {
protected:
    SocketTest() : m_socket("peer", 1, kNoType, true) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        m_socket.m_fd = ends[0];
        m_socket.m_connected = true;
        m_far = RawPeer(ends[1]);
        tlsErrno = kEarlierStatus;
    }

    ~SocketTest() override {
        if (m_socket.m_fd != -1) m_socket.Shutdown();
    }

    // Hands the descriptor to the test, which goes on with `fd` in its place.
    void replace_descriptor(int fd) {
        close(m_socket.m_fd);
        m_socket.m_fd = fd;
    }

    std::string fd_text() const { return number(m_socket.m_fd); }

    PlainSocket m_socket;
    RawPeer m_far;
    unsigned char m_buf[64] = {};
};

TEST(BufferTest, BothOperationsDoNothing) {
    Buffer buffer;
    int error = 7;

    EXPECT_EQ(0, buffer.readFd(-1, &error));
    EXPECT_EQ(0, buffer.writeFd(-1, &error));
    EXPECT_EQ(7, error);
}

TEST(SocketCreationTest, MakesTheDescriptorThatTypeAndDomainName) {
    struct Row {
        int type;
        bool isDomain;
        char const* call;
        char const* message;
    };
    Row const rows[] = {
        {2, false, "socket(2,2,17)", "create udp socket,sock type:2"},
        {2, true, "socket(1,2,0)", "create unix domain  udp socket,sock type:2"},
        {1, false, "socket(2,1,6)", "create tcp socket,sock type:1"},
        {1, true, "socket(1,1,0)", "create unix domain  tcp socket,sock type:1"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture log;
        CallGate gate;

        PlainSocket made("10.0.0.1", 4711, row.type, row.isDomain);

        EXPECT_EQ(std::vector<std::string>{row.call}, gate.calls());
        EXPECT_EQ(1, log.count("TRACE", row.message));
        EXPECT_EQ(0, log.count_containing("ERROR"));
        EXPECT_TRUE(is_open(made.m_fd));
        EXPECT_EQ(row.isDomain, made.m_isDomain);
        EXPECT_FALSE(made.m_connected);
        EXPECT_EQ(4711, made.m_port);
        EXPECT_EQ(row.type, made.m_type);
        EXPECT_EQ("10.0.0.1", made.m_host);
        made.Shutdown();
    }
}

TEST(SocketCreationTest, UnknownTypeMakesNoCallAndReportsNoDescriptor) {
    LogCapture log;
    CallGate gate;
    errno = ENOENT;

    PlainSocket made("10.0.0.1", 1, 3, false);

    EXPECT_EQ(-1, made.m_fd);
    EXPECT_EQ(0, gate.count("socket"));
    EXPECT_EQ(0, log.count_containing("create udp"));
    EXPECT_EQ(0, log.count_containing("create tcp"));
    EXPECT_EQ(1, log.count("ERROR",
                           "create socket error:No such file or directory,host:10.0.0.1,type:3"));
}

TEST(SocketCreationTest, FailedCreationIsLoggedAndLeavesNoDescriptor) {
    LogCapture log;
    CallGate gate;
    gate.fail("socket", EMFILE);

    PlainSocket made("10.0.0.1", 1, 1, false);

    EXPECT_EQ(-1, made.m_fd);
    EXPECT_EQ(1,
              log.count("ERROR", "create socket error:Too many open files,host:10.0.0.1,type:1"));
}

TEST(SocketCreationTest, NullHostThrowsALogicError) {
    EXPECT_THROW(PlainSocket(nullptr, 1, 1, false), std::logic_error);
}

TEST(SocketCreationTest, DestructorOfTheBaseLeavesTheDescriptorOpen) {
    int fd = -1;
    {
        PlainSocket made("10.0.0.1", 1, 2, false);
        fd = made.m_fd;
    }

    EXPECT_TRUE(is_open(fd));
    close(fd);
}

TEST_F(SocketTest, ConnectStatusIsWhatACallerSets) {
    m_socket.setConnectStatus(false);
    EXPECT_FALSE(m_socket.m_connected);

    m_socket.setConnectStatus(true);
    EXPECT_TRUE(m_socket.m_connected);
}

TEST_F(SocketTest, TheBaseAsksTheKernelForTheTcpState) {
    RawListener const listener = RawListener::tcp();
    RawPeer peer = RawPeer::connect_tcp(listener.port());
    replace_descriptor(dup(peer.fd()));
    m_socket.m_connected = false;
    CallGate gate;

    EXPECT_TRUE(m_socket.isConnected());
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(std::vector<std::string>{"getsockopt(6,11,4)"}, gate.calls());
}

TEST_F(SocketTest, TheBaseIsNotConnectedOnASocketWithoutAPeer) {
    replace_descriptor(socket(AF_INET, SOCK_STREAM, 0));

    EXPECT_FALSE(m_socket.isConnected());
    EXPECT_FALSE(m_socket.m_connected);
}

TEST_F(SocketTest, TheBaseIsNotConnectedWithoutADescriptor) {
    replace_descriptor(-1);

    EXPECT_FALSE(m_socket.isConnected());
    EXPECT_FALSE(m_socket.m_connected);
}

TEST_F(SocketTest, SocketOptionsOfTheBaseOnlyReadTheBufferSizes) {
    CallGate gate;

    m_socket.setSocketopt();

    EXPECT_EQ((std::vector<std::string>{"getsockopt(1,7,4)", "getsockopt(1,8,4)"}), gate.calls());
}

TEST_F(SocketTest, SocketOptionsOfTheBaseLogABrokenDescriptor) {
    replace_descriptor(-1);
    LogCapture log;

    m_socket.setSocketopt();

    EXPECT_EQ(
        1, log.count("ERROR", "socket get send buffer error: errno=9 errstr=Bad file descriptor"));
    EXPECT_EQ(
        1, log.count("ERROR", "socket get recv buffer error: errno=9 errstr=Bad file descriptor"));
}

// ---- readn without a timeout

TEST_F(SocketTest, BlockingReadOfNothingMakesNoCall) {
    CallGate gate;

    EXPECT_EQ(0, m_socket.readn(m_buf, 0UL));
    EXPECT_EQ(-1, m_socket.readn(m_buf, 0xffffffffUL));
    EXPECT_EQ(-2147483647 - 1, m_socket.readn(m_buf, 0x80000000UL));
    EXPECT_EQ(0, m_socket.readn(m_buf, 0x500000000UL));
    EXPECT_EQ(0, gate.count("recv"));
}

TEST_F(SocketTest, BlockingReadCountsItsLengthIn32Bits) {
    m_far.send(text("abcdef"));

    EXPECT_EQ(4, m_socket.readn(m_buf, 0x500000004UL));
    EXPECT_EQ("61 62 63 64 00", hex(m_buf, 5));
}

TEST_F(SocketTest, BlockingReadWaitsForAllPieces) {
    auto sender = std::async(std::launch::async, [this] {
        m_far.send(text("ab"));
        m_far.send(text("cdef"));
    });

    EXPECT_EQ(6, m_socket.readn(m_buf, 6UL));
    EXPECT_EQ("61 62 63 64 65 66", hex(m_buf, 6));
    sender.get();
}

TEST_F(SocketTest, KeepsRepeatingInterruptedAndEmptyBlockingReadsWithoutAPause) {
    m_far.send(text("abcd"));
    CallGate gate;
    gate.fail("recv", EINTR);
    gate.fail("recv", EAGAIN);

    EXPECT_EQ(4, m_socket.readn(m_buf, 4UL));
    EXPECT_EQ((std::vector<std::string>{"recv(4,0)", "recv(4,0)", "recv(4,0)"}), gate.calls());
}

TEST_F(SocketTest, BlockingReadEndsWithNothingWhenThePeerIsLost) {
    for (int const error : {ECONNABORTED, ECONNRESET, ENOTCONN}) {
        SCOPED_TRACE(error);
        m_far.send(text("ab"));
        m_socket.m_connected = true;
        LogCapture log;
        CallGate gate;
        gate.fail("recv(2,", error);

        EXPECT_EQ(0, m_socket.readn(m_buf, 4UL));
        EXPECT_FALSE(m_socket.m_connected);
        EXPECT_EQ(1, log.count("ERROR", "socket:" + fd_text() +
                                            " connection is lost,error:" + number(error)));
        EXPECT_EQ(kEarlierStatus, tlsErrno);
    }
}

TEST_F(SocketTest, BlockingReadGivesThePartThatCameBeforeAnUnrelatedError) {
    m_far.send(text("ab"));
    LogCapture log;
    CallGate gate;
    gate.fail("recv(2,", EFAULT);

    EXPECT_EQ(2, m_socket.readn(m_buf, 4UL));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, BlockingReadReportsAnUnrelatedErrorBeforeTheFirstByte) {
    LogCapture log;
    CallGate gate;
    gate.fail("recv", EFAULT);

    EXPECT_EQ(-1, m_socket.readn(m_buf, 4UL));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(1, log.count("ERROR", "socket:" + fd_text() + " recv result:-1,error:14"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(SocketTest, KeepsABrokenPipeAnUnrelatedErrorToAReader) {
    LogCapture log;
    CallGate gate;
    gate.fail("recv", EPIPE);

    EXPECT_EQ(-1, m_socket.readn(m_buf, 4UL));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(1, log.count("ERROR", "socket:" + fd_text() + " recv result:-1,error:32"));
    EXPECT_EQ(0, log.count_containing("lost"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(SocketTest, KeepsLosingThePartOfAPeerThatCloses) {
    m_far.send(text("ab"));
    m_far.close();
    LogCapture log;

    EXPECT_EQ(0, m_socket.readn(m_buf, 4UL));
    EXPECT_FALSE(m_socket.m_connected);
    EXPECT_EQ("", log.text());
}

// ---- readn with a timeout

TEST_F(SocketTest, TimedReadOfAWholeMessageCostsOneCall) {
    m_far.send(text("abcd"));
    CallGate gate;

    EXPECT_EQ(4, m_socket.readn(m_buf, 4, 1000));
    EXPECT_EQ(std::vector<std::string>{"recv(4,0)"}, gate.calls());
}

TEST_F(SocketTest, TimedReadWithATimeoutOfZeroMakesOneCall) {
    m_far.send(text("ab"));
    CallGate gate;

    EXPECT_EQ(2, m_socket.readn(m_buf, 4, 0));
    EXPECT_EQ(std::vector<std::string>{"recv(4,0)"}, gate.calls());
}

TEST_F(SocketTest, TimedReadPutsLaterPiecesBehindTheFirst) {
    CallGate gate;
    gate.fail("recv", EAGAIN);
    m_far.send(text("ab"));
    auto sender = std::async(std::launch::async, [this] {
        while (m_far.waiting() != 0) {
        }
        m_far.send(text("cd"));
    });

    EXPECT_EQ(4, m_socket.readn(m_buf, 4, 10000));
    EXPECT_EQ("61 62 63 64", hex(m_buf, 4));
    sender.get();
}

TEST_F(SocketTest, TimedReadRestsAMillisecondWhenThereIsNothing) {
    m_far.send(text("abcd"));
    CallGate gate;
    gate.fail("recv", EAGAIN);
    gate.fail("recv", EINTR);

    EXPECT_EQ(4, m_socket.readn(m_buf, 4, 10000));
    EXPECT_EQ((std::vector<std::string>{"recv(4,0)", "nanosleep(0,1000000)", "recv(4,0)",
                                        "nanosleep(0,1000000)", "recv(4,0)"}),
              gate.calls());
}

TEST_F(SocketTest, TimedReadGivesThePartThatCameInTime) {
    m_socket.setNONBLOCK();
    m_far.send(text("ab"));
    LogCapture log;

    EXPECT_EQ(2, m_socket.readn(m_buf, 4, 20));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ("", log.text());
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(SocketTest, KeepsGivingATimedReadNothingWhenThePeerClosesInTheMiddle) {
    m_far.send(text("ab"));
    m_far.close();
    LogCapture log;

    EXPECT_EQ(0, m_socket.readn(m_buf, 4, 10000));
    EXPECT_FALSE(m_socket.m_connected);
    EXPECT_EQ(1,
              log.count("ERROR", "socket:" + fd_text() + " recv return 0 disconnect,totalSize:2"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(SocketTest, TimedReadGivesNothingWhenThePeerIsLost) {
    for (int const error : {ECONNABORTED, ECONNRESET, ENOTCONN}) {
        SCOPED_TRACE(error);
        m_far.send(text("ab"));
        m_socket.m_connected = true;
        LogCapture log;
        CallGate gate;
        gate.fail("recv(2,", error);

        EXPECT_EQ(0, m_socket.readn(m_buf, 4, 10000));
        EXPECT_FALSE(m_socket.m_connected);
        EXPECT_EQ(1, log.count("ERROR",
                               "recv -1 disconnect,lasterror:" + number(error) + ",TotalSize:2"));
        EXPECT_EQ(kEarlierStatus, tlsErrno);
    }
}

TEST_F(SocketTest, KeepsReadingThroughOtherErrorsWithoutAPause) {
    m_far.send(text("abcd"));
    LogCapture log;
    CallGate gate;
    gate.fail("recv", EPIPE);
    gate.fail("recv", EBADF);
    gate.fail("recv", EFAULT);

    EXPECT_EQ(4, m_socket.readn(m_buf, 4, 10000));
    EXPECT_EQ(4, gate.count("recv"));
    EXPECT_EQ(0, gate.count("nanosleep"));
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, KeepsAskingAClosedDescriptorUntilTheTimeIsOver) {
    replace_descriptor(-1);
    LogCapture log;

    EXPECT_EQ(0, m_socket.readn(m_buf, 4, 5));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, TimedReadOfANegativeLengthAsksForNothing) {
    m_far.send(text("abcd"));
    CallGate gate;

    EXPECT_EQ(0, m_socket.readn(m_buf, -5, 1000));
    EXPECT_EQ(std::vector<std::string>{"recv(0,0)"}, gate.calls());
    EXPECT_EQ("00 00 00 00", hex(m_buf, 4));
}

TEST_F(SocketTest, FrameReadFillsTheWholeBlockAndLeavesItsSize) {
    HeldFrame held(6);
    m_far.send(text("abcdefgh"));

    EXPECT_EQ(6, m_socket.read(held.frame, 1000));
    EXPECT_EQ("61 62 63 64 65 66", hex(held.frame.rawData(), 6));
    EXPECT_EQ(0U, held.frame.size());
}

TEST_F(SocketTest, FrameReadWaitsForTheWholeCapacityOrTheTime) {
    m_socket.setNONBLOCK();
    HeldFrame held(6);
    m_far.send(text("abc"));

    EXPECT_EQ(3, m_socket.read(held.frame, 20));
}

// ---- write

TEST_F(SocketTest, TimedWriteOfAShortMessageCostsOneQuietCall) {
    CallGate gate;

    EXPECT_EQ(4, m_socket.write("abcd", 4, 1000));
    EXPECT_EQ(std::vector<std::string>{"send(4,16384)"}, gate.calls());
    EXPECT_EQ("abcd", as_text(m_far.receive(4)));
}

TEST_F(SocketTest, TimedWriteOfNothingMakesOneCall) {
    CallGate gate;

    EXPECT_EQ(0, m_socket.write("", 0, 1000));
    EXPECT_EQ(std::vector<std::string>{"send(0,16384)"}, gate.calls());
}

TEST_F(SocketTest, TimedWriteGoesOnAfterAnInterruption) {
    LogCapture log;
    CallGate gate;
    gate.fail("send", EINTR);

    EXPECT_EQ(4, m_socket.write("abcd", 4, 10000));
    EXPECT_EQ(1, log.count("TRACE", "send error EINTR:result:-1,continue"));
}

TEST_F(SocketTest, TimedWriteTriesAFullBufferAgainWithoutAPause) {
    LogCapture log;
    CallGate gate;
    gate.fail("send", EAGAIN, 3);

    EXPECT_EQ(4, m_socket.write("abcd", 4, 10000));
    EXPECT_EQ(4, gate.count("send"));
    EXPECT_EQ(4U, gate.calls().size());
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, TimedWriteWithATimeoutOfZeroMakesOneCall) {
    CallGate gate;
    gate.fail("send", EAGAIN, CallGate::kAlways);

    EXPECT_EQ(0, m_socket.write("abcd", 4, 0));
    EXPECT_EQ(1, gate.count("send"));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

TEST_F(SocketTest, TimedWriteGivesTheShortCountWhenTheTimeIsOver) {
    m_socket.setNONBLOCK();
    std::string const much(16U << 20U, 'x');
    LogCapture log;

    int const sent = m_socket.write(much.data(), static_cast<unsigned int>(much.size()), 20);

    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(much.size()));
    EXPECT_EQ(static_cast<size_t>(sent), m_far.waiting());
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(kEarlierStatus, tlsErrno);
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, TimedWriteToALostPeerReportsADisconnect) {
    for (int const error : {EPIPE, ECONNABORTED, ECONNRESET, ENOTCONN}) {
        SCOPED_TRACE(error);
        m_socket.m_connected = true;
        tlsErrno = kEarlierStatus;
        LogCapture log;
        CallGate gate;
        gate.fail("send", error);

        EXPECT_EQ(-1, m_socket.write("abcd", 4, 10000));
        EXPECT_FALSE(m_socket.m_connected);
        EXPECT_EQ(KYP_ERR_DISCONNECTED, tlsErrno);
        EXPECT_EQ(1, log.count("ERROR", "send error " + number(error) + "," + strerror(error) +
                                            " result:-1 break"));
    }
}

TEST_F(SocketTest, TimedWriteReportsALossAlsoAfterAPartWentOut) {
    m_socket.setNONBLOCK();
    std::string const much(10000000, 'x');
    CallGate gate;
    gate.fail("send(9", EPIPE);

    EXPECT_EQ(-1, m_socket.write(much.data(), 10000000, 10000));
    EXPECT_EQ(2, gate.count("send"));
    EXPECT_GT(m_far.waiting(), 0U);
    EXPECT_EQ(KYP_ERR_DISCONNECTED, tlsErrno);
}

TEST_F(SocketTest, TimedWriteReportsEveryOtherErrorAsItIs) {
    LogCapture log;
    CallGate gate;
    gate.fail("send", ENOBUFS);

    EXPECT_EQ(-1, m_socket.write("abcd", 4, 10000));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(ENOBUFS, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "send error 105,No buffer space available result:-1 break"));
}

TEST_F(SocketTest, TimedWriteWithoutADescriptorFailsWithItsErrno) {
    replace_descriptor(-1);
    LogCapture log;

    EXPECT_EQ(-1, m_socket.write("abcd", 4, 10000));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(9, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "send error 9,Bad file descriptor result:-1 break"));
}

TEST_F(SocketTest, WriteToAClosedPeerRaisesNoSignal) {
    m_far.close();

    EXPECT_EQ(-1, m_socket.write("abcd", 4, 10000));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, tlsErrno);
}

TEST_F(SocketTest, FrameWriteSendsTheValidBytes) {
    HeldFrame held(8);
    held.frame.prepend("abc", 3);

    EXPECT_EQ(3, m_socket.write(held.frame, 1000));
    EXPECT_EQ("abc", as_text(m_far.receive(3)));
}

TEST_F(SocketTest, FrameOfSixMebibytesGoesOut) {
    Bytes const data = pattern(6291456);
    HeldFrame held(6291456, data.data());
    auto received = std::async(std::launch::async, [this] { return m_far.receive(6291456); });

    EXPECT_EQ(6291456, m_socket.write(held.frame, 20000));
    EXPECT_TRUE(data == received.get());
}

TEST_F(SocketTest, FrameOfOneByteMoreIsRefused) {
    HeldFrame held(6291457, Bytes(6291457).data());
    LogCapture log;
    CallGate gate;

    EXPECT_EQ(0, m_socket.write(held.frame, 20000));
    EXPECT_EQ(0, gate.count("send"));
    EXPECT_EQ(1, log.count("ERROR", "frame length: 6291457  exceeds maximum length for sockets"));
}

// ---- modes and options

TEST_F(SocketTest, BlockingModeIsSwitchedAndNothingElse) {
    int const before = fcntl(m_socket.m_fd, F_GETFL);

    EXPECT_EQ(0, m_socket.setNONBLOCK());
    EXPECT_EQ(before | O_NONBLOCK, fcntl(m_socket.m_fd, F_GETFL));

    EXPECT_EQ(0, m_socket.setBLOCK());
    EXPECT_EQ(before, fcntl(m_socket.m_fd, F_GETFL));
}

TEST_F(SocketTest, BlockingModeReportsNoFailure) {
    replace_descriptor(-1);

    EXPECT_EQ(0, m_socket.setNONBLOCK());
    EXPECT_EQ(0, m_socket.setBLOCK());
}

TEST_F(SocketTest, TimeOutCountsInSeconds) {
    timeval wait = {};
    socklen_t size = sizeof wait;

    EXPECT_TRUE(m_socket.setTimeOut(7));

    ASSERT_EQ(0, getsockopt(m_socket.m_fd, SOL_SOCKET, SO_SNDTIMEO, &wait, &size));
    EXPECT_EQ(7, wait.tv_sec);
    EXPECT_EQ(0, wait.tv_usec);
    ASSERT_EQ(0, getsockopt(m_socket.m_fd, SOL_SOCKET, SO_RCVTIMEO, &wait, &size));
    EXPECT_EQ(7, wait.tv_sec);
    EXPECT_EQ(0, wait.tv_usec);
}

TEST_F(SocketTest, TimeOutStopsAtTheFirstFailure) {
    LogCapture log;
    CallGate gate;
    gate.fail("setsockopt(1,21", EINVAL);

    EXPECT_FALSE(m_socket.setTimeOut(7));
    EXPECT_EQ(1, log.count("ERROR", "setsockopt SO_SNDTIMEO"));
    EXPECT_EQ(1, gate.count("setsockopt"));
    EXPECT_TRUE(m_socket.m_connected);
}

TEST_F(SocketTest, TimeOutReportsAFailureOfTheReceivingSide) {
    LogCapture log;
    CallGate gate;
    gate.fail("setsockopt(1,20", EINVAL);

    EXPECT_FALSE(m_socket.setTimeOut(7));
    EXPECT_EQ(1, log.count("ERROR", "setsockopt SO_RCVTIMEO"));
    EXPECT_EQ(0, log.count_containing("SO_SNDTIMEO"));
}

TEST_F(SocketTest, BufferSizesAreSetAndReadBackDoubled) {
    LogCapture log;

    EXPECT_EQ(16384, m_socket.set_send_buffer(16384));
    EXPECT_EQ(20000, m_socket.set_recv_buffer(20000));

    EXPECT_EQ(1, log.count("INFO", "socket set send buffer 16384 byte"));
    EXPECT_EQ(1, log.count("INFO", "socket set recv buffer 20000 byte"));
    EXPECT_EQ(32768, m_socket.get_send_buffer());
    EXPECT_EQ(40000, m_socket.get_recv_buffer());
}

TEST_F(SocketTest, BufferSizesReportTheirFailures) {
    replace_descriptor(-1);
    LogCapture log;

    EXPECT_EQ(-1, m_socket.get_send_buffer());
    EXPECT_EQ(-1, m_socket.get_recv_buffer());
    EXPECT_EQ(0, m_socket.set_send_buffer(16384));
    EXPECT_EQ(0, m_socket.set_recv_buffer(16384));

    for (char const* what : {"get send", "get recv", "set send", "set recv"}) {
        EXPECT_EQ(1, log.count("ERROR", std::string("socket ") + what +
                                            " buffer error: errno=9 errstr=Bad file descriptor"));
    }
    EXPECT_EQ(0, log.count_containing("INFO"));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(kEarlierStatus, tlsErrno);
}

// ---- Select

TEST_F(SocketTest, SelectSeesInput) {
    m_far.send(text("a"));
    LogCapture log;

    EXPECT_TRUE(m_socket.Select(10000));
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, SelectSeesAClosedPeerAsInput) {
    m_far.close();

    EXPECT_TRUE(m_socket.Select(10000));
}

TEST_F(SocketTest, SelectGivesUpSilentlyWhenTheTimeIsOver) {
    LogCapture log;

    EXPECT_FALSE(m_socket.Select(1));
    EXPECT_FALSE(m_socket.Select(0));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ("", log.text());
}

TEST_F(SocketTest, SelectPutsTheWholeWaitIntoMicroseconds) {
    m_far.send(text("a"));
    CallGate gate;

    EXPECT_TRUE(m_socket.Select(1500));
    EXPECT_EQ(std::vector<std::string>{"select(0,1500000)"}, gate.calls());
}

TEST_F(SocketTest, SelectWaitsItsFullLengthAboveASecond) {
    auto const start = std::chrono::steady_clock::now();

    EXPECT_FALSE(m_socket.Select(1050));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1050));
}

TEST_F(SocketTest, KeepsTheProductOfTheWaitIn32Bits) {
    LogCapture log;
    CallGate gate;

    EXPECT_FALSE(m_socket.Select(2147484));
    EXPECT_EQ(std::vector<std::string>{"select(0,-2147483296)"}, gate.calls());
    EXPECT_EQ(1, log.count("ERROR",
                           "something strange happen while waiting for socket in state:-1 with "
                           "error:Invalid argument "));
}

TEST_F(SocketTest, SelectOnAClosedDescriptorReportsALostConnection) {
    LogCapture log;
    int const fd = m_socket.m_fd;
    close(fd);

    EXPECT_FALSE(m_socket.Select(10000));
    EXPECT_FALSE(m_socket.m_connected);
    EXPECT_EQ(1, log.count("ERROR", "connection closed,socket:" + number(fd)));
    m_socket.m_fd = -1;
}

TEST_F(SocketTest, SelectDoesNotRepeatAnInterruptedWait) {
    LogCapture log;
    CallGate gate;
    gate.fail("select", EINTR);

    EXPECT_FALSE(m_socket.Select(10000));
    EXPECT_EQ(1, gate.count("select"));
    EXPECT_TRUE(m_socket.m_connected);
    EXPECT_EQ(1, log.count("ERROR",
                           "something strange happen while waiting for socket in state:-1 with "
                           "error:Interrupted system call "));
}

TEST_F(SocketTest, SelectWithoutADescriptorReportsALostConnection) {
    replace_descriptor(-1);
    LogCapture log;
    CallGate gate;

    EXPECT_FALSE(m_socket.Select(10000));
    EXPECT_EQ(0, gate.count("select"));
    EXPECT_FALSE(m_socket.m_connected);
    EXPECT_EQ(1, log.count("ERROR", "connection closed,socket:-1"));
}

TEST_F(SocketTest, SelectRefusesADescriptorThatItsSetHasNoRoomFor) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    m_far.send(text("a"));
    int const low = m_socket.m_fd;
    if (fcntl(low, F_DUPFD, 1024) == -1) GTEST_SKIP() << "1024 descriptors are not allowed here";
    LogCapture log;
    CallGate gate;

    m_socket.m_fd = 1024;
    EXPECT_FALSE(m_socket.Select(10000));
    EXPECT_EQ(1, log.count("ERROR", "connection closed,socket:1024"));

    ASSERT_EQ(1023, dup2(low, 1023));
    m_socket.m_fd = 1023;
    EXPECT_TRUE(m_socket.Select(10000));
    EXPECT_EQ(1, gate.count("select"));

    close(1024);
    close(1023);
    m_socket.m_fd = low;
}

TEST(GetErrorStrTest, NamesTheNumberAndItsWords) {
    EXPECT_EQ("linux ErrCode 2,errormsg:No such file or directory", GetErrorStr(2));
    EXPECT_EQ("linux ErrCode -5,errormsg:Unknown error -5", GetErrorStr(-5));
}

}  // namespace
