#include "compmodule/net_channel.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/Socket.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"
#include "utils/Singleton.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kPath = "/var/tmp/kyp/kypserver";

client_bufpool& pool() {
    return utility::instance<client_bufpool>();
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// A pool in which no size has a class.
class NoClasses : public client_bufpool {
public:
    int get_cap(int /*size*/) override { return 0; }
};

#pragma GCC diagnostic pop

// A socket of a test's own making: writes down what it is asked and answers as told.
class FakeSocket : public Socket {
public:
    FakeSocket() : Socket("", 0, 0, false) {}

    bool Connect(int timeoutMs) override {
        note("Connect(" + std::to_string(timeoutMs) + ")");
        m_connected = m_connectResult;
        return m_connectResult;
    }
    int Shutdown() override {
        note("Shutdown()");
        m_connected = false;
        return 0;
    }
    void setConnectStatus(bool isConnected) override {
        note(isConnected ? "setConnectStatus(true)" : "setConnectStatus(false)");
        m_connected = isConnected;
    }
    bool isConnected() override {
        ++m_asked;
        return m_connected;
    }
    int readn(unsigned char* buf, unsigned long len) override {
        note("readn(" + std::to_string(len) + ")");
        std::copy_n(m_header.begin(), std::min<size_t>(len, m_header.size()), buf);
        return m_headerResult;
    }
    int readn(unsigned char* buf, int len, int timeoutMs) override {
        note("readn(" + std::to_string(len) + "," + std::to_string(timeoutMs) + ")");
        memset(buf, 0x5a, static_cast<size_t>(len));
        return m_bodyResult;
    }
    int write(const Frame& /*frame*/, int /*timeoutMs*/) override {
        note("write(frame)");
        return 0;
    }
    int write(const char* buf, unsigned int len, int timeoutMs) override {
        note("write(" + std::string(buf, len) + "," + std::to_string(timeoutMs) + ")");
        if (m_onWrite) m_onWrite();
        return m_writeResult;
    }

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    std::atomic<int> m_asked{0};  // calls of isConnected()
    bool m_connectResult = true;
    Bytes m_header;
    int m_headerResult = 8;
    int m_bodyResult = 0;
    int m_writeResult = 0;
    std::function<void()> m_onWrite;

private:
    void note(std::string const& call) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(call);
    }

    std::mutex m_mutex;
    std::vector<std::string> m_calls;  // guarded by m_mutex
};

// A channel and the server that it talks to, which speaks raw bytes.
class NetChannelTest : public testing::Test {
protected:
    NetChannelTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
        ::mkdir("/var/tmp/kyp", 0755);
        pool().set_mem_limit(64UL << 20);
        m_listener = RawListener::unix_path(kPath);
    }

    ~NetChannelTest() override { give_back(); }

    void establish() {
        ASSERT_TRUE(m_channel.connect(1000));
        m_server = m_listener.accept();
        ASSERT_TRUE(m_server.connected());
    }

    // In the place of the channel's own socket, connected.
    FakeSocket& fake() {
        auto made = std::make_shared<FakeSocket>();
        made->m_connected = true;
        m_channel.socket = made;
        m_channel.connected = true;
        return *made;
    }

    int read(int timeoutMs = 5000) {
        give_back();
        return m_channel.read(&m_buf, timeoutMs);
    }

    // The first `size` bytes of the buffer that the latest read() gave.
    Bytes frame(int size) const {
        if (m_buf == nullptr || size < 0) return {};
        return {m_buf->rawData(), m_buf->rawData() + size};
    }

    void give_back() {
        pool().put_one_free(m_buf);
        m_buf = nullptr;
    }

    void expect_link_closed(int status) {
        EXPECT_EQ(nullptr, m_buf);
        EXPECT_EQ(status, tlsErrno);
        EXPECT_FALSE(m_channel.isconnected());
        EXPECT_FALSE(m_channel.socket->m_connected);
        EXPECT_EQ(-1, m_channel.socket->m_fd);
    }

    RawListener m_listener;
    RawPeer m_server;
    pbuf* m_buf = nullptr;
    CNetChannel m_channel{"drive0"};
};

// --- construction -----------------------------------------------------------------------------

TEST_F(NetChannelTest, NewChannelAimsAtTheServerAndDoesNotConnect) {
    EXPECT_FALSE(m_channel.isconnected());
    EXPECT_EQ("drive0", m_channel.name);
    EXPECT_FALSE(m_channel.thread.joinable());
    EXPECT_EQ(kPath, m_channel.socket->m_host);
    EXPECT_EQ(0, m_channel.socket->m_port);
    EXPECT_EQ(1, m_channel.socket->m_type);
    EXPECT_TRUE(m_channel.socket->m_isDomain);
    EXPECT_FALSE(m_listener.accept(std::chrono::milliseconds(0)).connected());
}

TEST_F(NetChannelTest, NullNameThrows) {
    EXPECT_THROW(CNetChannel(nullptr), std::logic_error);
}

TEST_F(NetChannelTest, DestructorClosesTheLink) {
    RawPeer server;
    {
        CNetChannel channel("drive1");
        ASSERT_TRUE(channel.connect(1000));
        server = m_listener.accept();
    }

    EXPECT_TRUE(server.expect_closed());
}

// --- connect and disconnect -------------------------------------------------------------------

TEST_F(NetChannelTest, ConnectReachesTheServer) {
    EXPECT_TRUE(m_channel.connect(1000));

    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_TRUE(m_listener.accept().connected());
}

TEST_F(NetChannelTest, KeepsTheConnectTimeoutOutOfUse) {
    FakeSocket& socket = fake();

    m_channel.connect(5);
    m_channel.connect(60000);

    EXPECT_THAT(socket.calls(), ElementsAre("Connect(1000)", "Connect(1000)"));
}

TEST_F(NetChannelTest, FailedConnectClearsTheChannelAndCanBeTriedAgain) {
    m_listener.close();
    m_channel.connected = true;
    Socket* const socket = m_channel.socket.get();

    EXPECT_FALSE(m_channel.connect(1000));
    EXPECT_FALSE(m_channel.isconnected());

    m_listener = RawListener::unix_path(kPath);
    EXPECT_TRUE(m_channel.connect(1000));
    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_EQ(socket, m_channel.socket.get());
}

TEST_F(NetChannelTest, WithoutASocketConnectAnswersWhatStoodBefore) {
    m_channel.socket = nullptr;
    EXPECT_FALSE(m_channel.connect(1000));

    m_channel.connected = true;
    EXPECT_TRUE(m_channel.connect(1000));
    EXPECT_TRUE(m_channel.isconnected());
}

TEST_F(NetChannelTest, DisconnectClosesTheLink) {
    establish();

    m_channel.disconnect();

    EXPECT_TRUE(m_server.expect_closed());
    EXPECT_FALSE(m_channel.isconnected());
    EXPECT_EQ(-1, m_channel.socket->m_fd);
}

TEST_F(NetChannelTest, WithoutASocketDisconnectDoesNothing) {
    m_channel.socket = nullptr;
    m_channel.connected = true;

    m_channel.disconnect();

    EXPECT_TRUE(m_channel.isconnected());
    m_channel.connected = false;
}

TEST_F(NetChannelTest, IsconnectedDoesNotAskTheSocket) {
    FakeSocket& socket = fake();
    socket.m_connected = false;

    EXPECT_TRUE(m_channel.isconnected());

    EXPECT_EQ(0, socket.m_asked);
    EXPECT_THAT(socket.calls(), IsEmpty());
}

// --- write ------------------------------------------------------------------------------------

TEST_F(NetChannelTest, WritesBytesAndBuffersWhole) {
    establish();
    const Bytes data = pattern(300);
    pbuf* const buf = pool().get_one_buf(1000);
    buf->prepend(data.data(), static_cast<unsigned int>(data.size()));

    EXPECT_EQ(300, m_channel.write(reinterpret_cast<char const*>(data.data()), 300, 1000));
    EXPECT_EQ(data, m_server.receive(300));
    EXPECT_EQ(300, m_channel.write(buf, 1000));
    EXPECT_EQ(data, m_server.receive(300));
    EXPECT_EQ(0, m_channel.write("", 0, 1000));

    pool().put_one_free(buf);
}

TEST_F(NetChannelTest, WriteHandsItsTimeoutOn) {
    FakeSocket& socket = fake();
    socket.m_writeResult = 2;
    pbuf* const buf = pool().get_one_buf(100);
    buf->prepend("CD", 2);

    EXPECT_EQ(2, m_channel.write("AB", 2, 77));
    EXPECT_EQ(2, m_channel.write(buf, 5000));

    EXPECT_THAT(socket.calls(), ElementsAre("write(AB,77)", "write(CD,5000)"));
    pool().put_one_free(buf);
}

TEST_F(NetChannelTest, WriteOnADownLinkGivesDisconnected) {
    EXPECT_EQ(-1, m_channel.write("AB", 2, 1000));
    EXPECT_EQ(5, tlsErrno);

    tlsErrno = 0;
    m_channel.socket = nullptr;
    EXPECT_EQ(-1, m_channel.write("AB", 2, 1000));
    EXPECT_EQ(5, tlsErrno);
}

TEST_F(NetChannelTest, FailedWriteLeavesTheSocketsStatus) {
    FakeSocket& socket = fake();
    socket.m_writeResult = -1;
    socket.m_onWrite = [] { tlsErrno = 32; };

    EXPECT_EQ(-1, m_channel.write("AB", 2, 1000));

    EXPECT_EQ(32, tlsErrno);
    EXPECT_THAT(socket.calls(), ElementsAre("write(AB,1000)"));
}

TEST_F(NetChannelTest, KeepsAChannelInUseBehindAWriteThatWasCutShort) {
    FakeSocket& socket = fake();
    socket.m_writeResult = 1;

    EXPECT_EQ(-1, m_channel.write("AB", 2, 1000));
    EXPECT_EQ(10, tlsErrno);
    EXPECT_TRUE(m_channel.isconnected());

    socket.m_writeResult = 2;
    EXPECT_EQ(2, m_channel.write("CD", 2, 1000));
    EXPECT_THAT(socket.calls(), ElementsAre("write(AB,1000)", "write(CD,1000)"));
}

TEST_F(NetChannelTest, WriteToAServerThatDoesNotReadTimesOut) {
    establish();
    const std::string data(8 << 20, 'x');

    EXPECT_EQ(-1, m_channel.write(data.data(), static_cast<unsigned int>(data.size()), 1));

    EXPECT_EQ(10, tlsErrno);
    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_TRUE(m_channel.socket->m_connected);
}

TEST_F(NetChannelTest, KeepsALinkThatAWriteFoundDeadOpenAndConnected) {
    establish();
    m_server.close();

    EXPECT_EQ(-1, m_channel.write("AB", 2, 1000));

    EXPECT_EQ(5, tlsErrno);
    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_FALSE(m_channel.socket->m_connected);
    EXPECT_NE(-1, m_channel.socket->m_fd);
}

TEST_F(NetChannelTest, ConcurrentWritersKeepFramesWhole) {
    constexpr int kWriters = 4;
    constexpr int kFrames = 40;
    establish();
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([this, w] {
            for (int i = 0; i < kFrames; ++i) {
                const auto size = static_cast<size_t>(1 + i * 997);
                const Bytes data =
                    join({kyp_head(static_cast<uint16_t>(600 + w), static_cast<uint32_t>(size)),
                          Bytes(size, static_cast<uint8_t>(i))});
                EXPECT_EQ(static_cast<int>(data.size()),
                          m_channel.write(reinterpret_cast<char const*>(data.data()),
                                          static_cast<unsigned int>(data.size()), 20000));
            }
        });
    }

    std::vector<int> seen(kWriters, 0);
    for (int n = 0; n < kWriters * kFrames; ++n) {
        const Bytes got = m_server.receive_frame();
        ASSERT_GE(got.size(), 8u);
        const int writer = got[2] + 256 * got[3] - 600;
        ASSERT_TRUE(writer >= 0 && writer < kWriters);
        const int i = seen[static_cast<size_t>(writer)]++;
        EXPECT_EQ(Bytes(static_cast<size_t>(1 + i * 997), static_cast<uint8_t>(i)),
                  Bytes(got.begin() + 8, got.end()));
    }
    for (std::thread& writer : writers) writer.join();
}

TEST_F(NetChannelTest, WriterThatWaitedForItsTurnSeesThatTheLinkIsGone) {
    FakeSocket& socket = fake();
    socket.m_writeResult = 2;
    std::promise<void> release;
    socket.m_onWrite = [&, go = release.get_future().share()] { go.wait(); };
    std::thread first([this] { m_channel.write("AB", 2, 1000); });
    ASSERT_TRUE(eventually([&] { return socket.calls().size() == 1; }));
    const int asked = socket.m_asked;
    int result = 0;
    int status = 0;
    std::thread second([&] {
        result = m_channel.write("CD", 2, 1000);
        status = tlsErrno;
    });
    ASSERT_TRUE(eventually([&] { return socket.m_asked > asked; }));

    socket.m_connected = false;
    release.set_value();
    first.join();
    second.join();

    EXPECT_EQ(-1, result);
    EXPECT_EQ(5, status);
    EXPECT_THAT(socket.calls(), ElementsAre("write(AB,1000)"));
}

TEST_F(NetChannelTest, DisconnectEndsAWriteThatWaitsForRoom) {
    establish();
    const std::string data(8 << 20, 'x');
    int result = 0;
    int status = 0;
    std::thread writer([&] {
        result = m_channel.write(data.data(), static_cast<unsigned int>(data.size()), 3600000);
        status = tlsErrno;
    });
    ASSERT_TRUE(eventually([&] { return m_server.waiting() > 0; }));

    m_channel.disconnect();
    writer.join();

    EXPECT_EQ(-1, result);
    EXPECT_EQ(5, status);
    EXPECT_FALSE(m_channel.isconnected());
}

// --- read -------------------------------------------------------------------------------------

TEST_F(NetChannelTest, ReadGivesOneWholeFrame) {
    establish();
    const Bytes sent = response_frame(600, 9, 7, text("hello"));
    m_server.send(join({sent, request_frame(601, 9, 8, 1, 2)}));

    const int size = read();

    ASSERT_EQ(26, size);
    EXPECT_EQ(sent, frame(size));
    EXPECT_EQ(0, m_buf->size());
    EXPECT_EQ(29, read());
    EXPECT_TRUE(m_channel.isconnected());
}

TEST_F(NetChannelTest, FrameInAHolderGoesBackToThePool) {
    ASSERT_EQ(0, pool().make_buf_list(128, 1));
    pbuf* const only = pool().m_freeLists.at(128);
    establish();
    const Bytes sent = response_frame(600, 9, 7, text("hello"));
    m_server.send(sent);
    const int size = read();
    ASSERT_EQ(only, m_buf);
    {
        RecvBuf holder(false);
        holder.init_pbuf(std::exchange(m_buf, nullptr), 0);
        holder.AddBufSize(size);
        EXPECT_EQ(sent, Bytes(holder.GetVaildData(), holder.GetVaildData() + size));
        EXPECT_EQ(26, holder.GetVaildSize());
    }

    EXPECT_EQ(only, pool().m_freeLists.at(128));
}

TEST_F(NetChannelTest, FrameWithoutABodyIsItsHeadAlone) {
    establish();
    m_server.send(join({kyp_head(600, 0), kyp_head(601, 1), text("x")}));

    EXPECT_EQ(8, read());
    EXPECT_EQ(kyp_head(600, 0), frame(8));
    EXPECT_EQ(9, read());
    EXPECT_EQ(join({kyp_head(601, 1), text("x")}), frame(9));
}

TEST_F(NetChannelTest, FrameWithoutABodyDoesNotAskTheSocketForOne) {
    FakeSocket& socket = fake();
    socket.m_header = kyp_head(600, 0);

    EXPECT_EQ(8, read());

    EXPECT_THAT(socket.calls(), ElementsAre("readn(8)"));
}

TEST_F(NetChannelTest, BodyIsReadWithTheCallersTimeout) {
    FakeSocket& socket = fake();
    socket.m_header = kyp_head(600, 3);
    socket.m_bodyResult = 3;

    EXPECT_EQ(11, read(77));

    EXPECT_THAT(socket.calls(), ElementsAre("readn(8)", "readn(3,77)"));
    EXPECT_EQ(join({kyp_head(600, 3), text("ZZZ")}), frame(11));
}

TEST_F(NetChannelTest, LongestFrameArrivesWhole) {
    establish();
    const Bytes sent = join({kyp_head(600, 0x5fffff), pattern(0x5fffff)});
    std::thread sender([&] { m_server.send(sent); });

    const int size = read(60000);
    sender.join();

    ASSERT_EQ(0x5fffff + 8, size);
    EXPECT_TRUE(sent == frame(size));
}

TEST_F(NetChannelTest, LongerFrameClosesTheLink) {
    struct Row {
        uint32_t length;
        char const* line;
    };
    const Row rows[] = {
        {0x600000, "kypheader msglen:6291456 too long"},
        {0x7fffffff, "kypheader msglen:2147483647 too long"},
        {0x80000000, "kypheader msglen:-2147483648 too long"},
        {0xffffffff, "kypheader msglen:-1 too long"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.line);
        establish();
        LogCapture log;
        m_server.send(kyp_head(600, row.length));

        EXPECT_EQ(-1, read());

        expect_link_closed(0x100d);
        EXPECT_TRUE(m_server.expect_closed());
        EXPECT_EQ(1, log.count("ERROR", row.line));
    }
}

TEST_F(NetChannelTest, PortsFrom1To4096AreAccepted) {
    establish();
    for (const uint16_t port : {1, 102, 500, 501, 4096}) {
        m_server.send(kyp_head(port, 0));

        EXPECT_EQ(8, read()) << port;
    }
}

TEST_F(NetChannelTest, KeepsTheCodeOfReservedPortsForPortsOutOfRange) {
    struct Row {
        uint16_t port;
        uint32_t length;
        char const* line;
    };
    const Row rows[] = {
        {0, 0, "recv port:0 invaild,msgLen:0"},
        {4097, 5, "recv port:4097 invaild,msgLen:5"},
        {65535, 0x600000, "recv port:65535 invaild,msgLen:6291456"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.line);
        establish();
        LogCapture log;
        m_server.send(kyp_head(row.port, row.length));

        EXPECT_EQ(-1, read());

        expect_link_closed(0x1012);
        EXPECT_TRUE(m_server.expect_closed());
        EXPECT_EQ(1, log.count("ERROR", row.line));
    }
}

TEST_F(NetChannelTest, ServerThatClosesIsADisconnect) {
    establish();
    LogCapture log;
    m_server.close();

    EXPECT_EQ(-1, read());

    expect_link_closed(5);
    EXPECT_EQ(1, log.count("ERROR", "netchannel:drive0 disconnect"));
}

TEST_F(NetChannelTest, ServerThatClosesInsideAHeadIsADisconnect) {
    establish();
    LogCapture log;
    m_server.send(bytes("00 01 58"));
    m_server.close();

    EXPECT_EQ(-1, read());

    expect_link_closed(5);
    EXPECT_EQ(1, log.count("ERROR", "netchannel:drive0 disconnect"));
}

TEST_F(NetChannelTest, KeepsWaitingForTheRestOfAHead) {
    establish();
    const Bytes sent = kyp_head(600, 0);
    m_server.send(Bytes(sent.begin(), sent.begin() + 3));
    std::future<int> result = std::async(std::launch::async, [this] { return read(1); });
    ASSERT_TRUE(eventually([&] { return !m_channel.waiting(0); }));

    m_server.send(Bytes(sent.begin() + 3, sent.end()));

    EXPECT_EQ(8, result.get());
}

TEST_F(NetChannelTest, ShortHeadClosesTheLink) {
    for (const int result : {-1, 1, 7, 9}) {
        FakeSocket& socket = fake();
        socket.m_headerResult = result;
        LogCapture log;

        EXPECT_EQ(-1, read());

        expect_link_closed(0x1010);
        EXPECT_EQ(1, log.count("ERROR", "netchannel:drive0 Received not a complete package,recv:" +
                                            std::to_string(result) + "!=8 sizeof(KypHeader)"));
        EXPECT_THAT(socket.calls(),
                    ElementsAre("readn(8)", "Shutdown()", "setConnectStatus(false)"));
    }
}

TEST_F(NetChannelTest, ShortBodyClosesTheLinkAndGivesTheBufferBack) {
    ASSERT_EQ(0, pool().make_buf_list(128, 1));
    pbuf* const only = pool().m_freeLists.at(128);
    for (const int result : {-1, 0, 4, 9}) {
        FakeSocket& socket = fake();
        socket.m_header = kyp_head(600, 10);
        socket.m_bodyResult = result;
        LogCapture log;

        EXPECT_EQ(-1, read());

        expect_link_closed(0x1010);
        EXPECT_EQ(only, pool().m_freeLists.at(128));
        EXPECT_EQ(1, log.count("ERROR", "netchannel:drive0 Received not a complete package,recv:" +
                                            std::to_string(result) + "!=10 KypHeader nMsgLen"));
        EXPECT_THAT(socket.calls(), ElementsAre("readn(8)", "readn(10,5000)", "Shutdown()",
                                                "setConnectStatus(false)"));
    }
}

TEST_F(NetChannelTest, BodyThatStopsInTheMiddleClosesTheLink) {
    establish();
    LogCapture log;
    m_server.send(join({kyp_head(600, 10), text("half")}));

    EXPECT_EQ(-1, read(1));

    expect_link_closed(0x1010);
    EXPECT_TRUE(m_server.expect_closed());
    EXPECT_EQ(1, log.count("ERROR",
                           "netchannel:drive0 Received not a complete package,recv:4!=10 "
                           "KypHeader nMsgLen"));
}

TEST_F(NetChannelTest, BadHeadTakesNoBuffer) {
    ASSERT_EQ(0, pool().make_buf_list(128, 1));
    pbuf* const only = pool().m_freeLists.at(128);
    const uint64_t total = pool().m_totalSize;
    for (Bytes const& head : {kyp_head(0, 0), kyp_head(600, 0x600000)}) {
        fake().m_header = head;
        EXPECT_EQ(-1, read());
    }

    EXPECT_EQ(only, pool().m_freeLists.at(128));
    EXPECT_EQ(total, pool().m_totalSize);
}

TEST_F(NetChannelTest, FrameWithoutABufferClosesTheLink) {
    NoClasses none;
    client_bufpool* const real = &pool();
    establish();
    LogCapture log;
    m_server.send(kyp_head(600, 0));

    utility::Singleton<client_bufpool>::m_instance = &none;
    EXPECT_EQ(-1, read());
    utility::Singleton<client_bufpool>::m_instance = real;

    expect_link_closed(0x2008);
    EXPECT_TRUE(m_server.expect_closed());
    EXPECT_EQ(1, log.count("ERROR", "netchannel:drive0 no buffer for a frame,nMsgLen:0"));
}

TEST_F(NetChannelTest, FramesAroundTheShortClassesArriveWhole) {
    pool().put_one_free(pool().get_one_buf(16383));  // a buffer of 16384 stands in class 32768 now
    pool().put_one_free(pool().get_one_buf(16384));
    establish();
    for (const uint32_t total : {16383, 16384, 16385, 30000, 32767, 32768, 32769, 65536, 65537}) {
        SCOPED_TRACE(total);
        const Bytes sent = join({kyp_head(600, total - 8), pattern(total - 8)});
        std::thread sender([&] { m_server.send(sent); });

        const int size = read();
        sender.join();

        ASSERT_EQ(static_cast<int>(total), size);
        EXPECT_GE(m_buf->capacity(), size);
        EXPECT_TRUE(sent == frame(size));
    }
}

TEST_F(NetChannelTest, SteadyReaderAllocatesNoBuffers) {
    establish();
    m_server.send(kyp_head(600, 0));
    ASSERT_EQ(8, read());
    const uint64_t total = pool().m_totalSize;

    for (int i = 0; i < 100; ++i) {
        m_server.send(response_frame(600, 9, 7, pattern(90)));
        ASSERT_EQ(111, read());
    }

    EXPECT_EQ(total, pool().m_totalSize);
}

TEST_F(NetChannelTest, KeepsNineForAReadOfADownLinkAndClosesNothing) {
    FakeSocket& socket = fake();
    socket.m_connected = false;

    EXPECT_EQ(-1, read());
    EXPECT_EQ(9, tlsErrno);
    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_EQ(nullptr, m_buf);
    EXPECT_THAT(socket.calls(), IsEmpty());

    tlsErrno = 0;
    m_channel.socket = nullptr;
    EXPECT_EQ(-1, read());
    EXPECT_EQ(9, tlsErrno);
    EXPECT_TRUE(m_channel.isconnected());
    m_channel.connected = false;
}

TEST_F(NetChannelTest, WriteBehindAFatalReadDoesNotTouchTheSocket) {
    FakeSocket& socket = fake();
    socket.m_headerResult = 0;
    EXPECT_EQ(-1, read());
    const size_t calls = socket.calls().size();

    EXPECT_FALSE(m_channel.isconnected());
    EXPECT_EQ(-1, m_channel.write("AB", 2, 1000));

    EXPECT_EQ(5, tlsErrno);
    EXPECT_EQ(calls, socket.calls().size());
}

TEST_F(NetChannelTest, ChannelConnectsAgainBehindAFatalRead) {
    establish();
    Socket* const socket = m_channel.socket.get();
    m_server.send(kyp_head(0, 0));
    ASSERT_EQ(-1, read());

    establish();

    EXPECT_EQ(socket, m_channel.socket.get());
    m_server.send(kyp_head(600, 0));
    EXPECT_EQ(8, read());
    EXPECT_EQ(2, m_channel.write("AB", 2, 1000));
    EXPECT_EQ(text("AB"), m_server.receive(2));
}

TEST_F(NetChannelTest, FatalReadEndsAWriteThatWaitsForRoom) {
    establish();
    const std::string data(8 << 20, 'x');
    int result = 0;
    int status = 0;
    std::thread writer([&] {
        result = m_channel.write(data.data(), static_cast<unsigned int>(data.size()), 3600000);
        status = tlsErrno;
    });
    ASSERT_TRUE(eventually([&] { return m_server.waiting() > 0; }));
    m_server.send(kyp_head(0, 0));

    EXPECT_EQ(-1, read());
    writer.join();

    EXPECT_EQ(0x1012, tlsErrno);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(5, status);
}

// --- waiting ----------------------------------------------------------------------------------

TEST_F(NetChannelTest, WaitingTellsWhetherThereIsSomethingToRead) {
    establish();
    EXPECT_FALSE(m_channel.waiting(10));

    m_server.send(kyp_head(600, 0));
    EXPECT_TRUE(m_channel.waiting(10000));
    ASSERT_EQ(8, read());
    EXPECT_FALSE(m_channel.waiting(10));

    m_server.close();
    EXPECT_TRUE(m_channel.waiting(10000));
}

TEST_F(NetChannelTest, WaitingOnAClosedLinkIsFalseAtOnce) {
    establish();
    m_channel.disconnect();

    EXPECT_FALSE(m_channel.waiting(3600000));
}

}  // namespace
