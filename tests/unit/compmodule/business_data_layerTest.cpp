#include "compmodule/business_data_layer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include "compmodule/net_channel.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/Socket.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcomm/protocol/CompRegisterPackage.h"
#include "support/CallGate.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"
#include "utils/Singleton.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Clock = std::chrono::steady_clock;

constexpr char const* kPath = "/var/tmp/kyp/kypserver";
constexpr int64_t kSecond = 1000000000;

client_bufpool& pool() {
    return utility::instance<client_bufpool>();
}

// What the connect callback was called with, and what it does then.
struct ConnectLog {
    static int record(int code, void* self) {
        auto& log = *static_cast<ConnectLog*>(self);
        {
            std::lock_guard<std::mutex> lock(log.m_mutex);
            log.m_codes.push_back(code);
            log.m_times.push_back(Clock::now());
        }
        if (log.m_onCode) log.m_onCode(code);
        return 0;
    }

    std::vector<int> codes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_codes;
    }

    bool wait_for(std::vector<int> const& expected) {
        return eventually([&] { return codes() == expected; });
    }

    std::mutex m_mutex;
    std::vector<int> m_codes;
    std::vector<Clock::time_point> m_times;
    std::function<void(int)> m_onCode;  // set before the thread that calls it
};

// The frames that the message callback was given, and what it does then.
struct FrameLog {
    static int record(RecvBuf* frame, void* self) {
        auto& log = *static_cast<FrameLog*>(self);
        {
            std::lock_guard<std::mutex> lock(log.m_mutex);
            log.m_frames.emplace_back(frame->GetVaildData(),
                                      frame->GetVaildData() + frame->GetVaildSize());
        }
        if (log.m_onFrame) log.m_onFrame();
        return 0;
    }

    std::vector<Bytes> frames() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_frames;
    }

    bool wait_for(std::vector<Bytes> const& expected) {
        return eventually([&] { return frames() == expected; });
    }

    std::mutex m_mutex;
    std::vector<Bytes> m_frames;
    std::function<void()> m_onFrame;
};

// Takes a part of everything, and is in time for nothing.
class SlowSocket : public Socket {
public:
    SlowSocket() : Socket("", 0, 0, false) {}
    bool Connect(int /*timeoutMs*/) override { return true; }
    int Shutdown() override { return 0; }
    bool isConnected() override { return true; }
    int write(const Frame& /*frame*/, int /*timeoutMs*/) override { return 1; }
    int write(const char* /*buf*/, unsigned int /*len*/, int timeoutMs) override {
        m_timeouts.push_back(timeoutMs);
        return 1;
    }

    std::vector<int> m_timeouts;  // of the writes
};

// The body of a registration, from its table.
Bytes register_body(uint16_t cmdId, uint32_t errId, std::string const& name, uint32_t param0,
                    uint32_t param1, Bytes const& routePort = {}) {
    return join({bytes("00"), u16_le(cmdId), u32_le(errId),
                 u16_le(static_cast<uint16_t>(name.size())), u32_le(param0), u32_le(param1),
                 text(name), routePort});
}

// A layer on its channel, and the server, which speaks raw bytes.
class BusinessDataLayerTest : public testing::Test {
protected:
    BusinessDataLayerTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
        ::mkdir("/var/tmp/kyp", 0755);
        pool().set_mem_limit(64UL << 20);
        m_listener = RawListener::unix_path(kPath);
        m_layer.register_connect_callback(ConnectLog::record, &m_connects);
        m_layer.register_message_callback(FrameLog::record, &m_frames);
    }

    // Nothing but the flag ends the receive thread.
    ~BusinessDataLayerTest() override {
        m_layer.stopFlag = true;
        m_server.close();
        if (m_layer.netThread.joinable()) m_layer.netThread.join();
    }

    void establish() {
        ASSERT_TRUE(m_layer.init_connect_channel());
        m_server = m_listener.accept();
        ASSERT_TRUE(m_server.connected());
    }

    // Runs the receive thread on a connected channel.
    void run() {
        establish();
        ASSERT_EQ(0, m_layer.start());
    }

    // Makes the latest attempt one of `seconds` ago; negative for one that is still to come.
    void set_latest_attempt(int64_t seconds) {
        m_layer.reconnectTimer.update();
        m_layer.reconnectTimer.m_nanoseconds -= seconds * kSecond;
    }

    // The thread tries again at once instead of every 3 seconds.
    void reconnect_without_delay() {
        m_connects.m_onCode = [this](int) { set_latest_attempt(4); };
    }

    void answer(Bytes const& body, uint16_t port = 102) {
        m_server.send(response_frame(port, 9, 1, body));
    }

    // The one buffer of the class that all short frames are of.
    pbuf* keep_one_buffer(int size = 128) {
        pool().make_buf_list(size, 1);
        return pool().m_freeLists.at(size);
    }

    RawListener m_listener;
    RawPeer m_server;
    ConnectLog m_connects;
    FrameLog m_frames;
    std::atomic<int> m_status{-1};  // of a registration on the receive thread
    tagCmpDrvInfo m_info{0x11223344, 0x55667788, "drive0"};
    CNetChannel m_channel{"drive0"};
    BusinessDataLayer m_layer{&m_info, &m_channel};
};

// --- construction and callbacks ---------------------------------------------------------------

TEST_F(BusinessDataLayerTest, NewLayerHasNoThreadAndNoConnection) {
    BusinessDataLayer layer(&m_info, &m_channel);

    EXPECT_FALSE(layer.stopFlag);
    EXPECT_FALSE(layer.registered);
    EXPECT_EQ(0u, layer.lastInvokeId);
    EXPECT_EQ(0u, layer.invokeId);
    EXPECT_FALSE(layer.netThread.joinable());
    EXPECT_EQ(&m_channel, layer.channel);
    EXPECT_EQ(&m_info, layer.drvInfo);
    EXPECT_EQ(nullptr, layer.connectArg);
    EXPECT_EQ(nullptr, layer.messageArg);
    EXPECT_EQ(nullptr, layer.connectCallback);
    EXPECT_EQ(nullptr, layer.messageCallback);
    EXPECT_FALSE(m_channel.isconnected());
    EXPECT_LT(layer.reconnectTimer.getElapsedSecond(), 3600);
}

TEST_F(BusinessDataLayerTest, CallbacksAreStored) {
    BusinessDataLayer layer(&m_info, &m_channel);

    EXPECT_EQ(0, layer.register_connect_callback(ConnectLog::record, &m_connects));
    EXPECT_EQ(0, layer.register_message_callback(FrameLog::record, &m_frames));

    EXPECT_EQ(&ConnectLog::record, layer.connectCallback);
    EXPECT_EQ(&m_connects, layer.connectArg);
    EXPECT_EQ(&FrameLog::record, layer.messageCallback);
    EXPECT_EQ(&m_frames, layer.messageArg);
}

TEST_F(BusinessDataLayerTest, FirstConnectionIsReported) {
    EXPECT_TRUE(m_layer.init_connect_channel());

    EXPECT_THAT(m_connects.codes(), ElementsAre(1));
    EXPECT_TRUE(m_channel.isconnected());
}

TEST_F(BusinessDataLayerTest, FailedConnectionIsReported) {
    m_listener.close();

    EXPECT_FALSE(m_layer.init_connect_channel());

    EXPECT_THAT(m_connects.codes(), ElementsAre(6));
    EXPECT_FALSE(m_channel.isconnected());
}

TEST_F(BusinessDataLayerTest, KeepsANullConnectCallbackWithoutATest) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    m_layer.register_connect_callback(nullptr, nullptr);

    EXPECT_DEATH(m_layer.init_connect_channel(), "");
}

// --- invoke identifiers and heads -------------------------------------------------------------

TEST_F(BusinessDataLayerTest, InvokeIdsCountFromOne) {
    EXPECT_EQ(1u, m_layer.get_invokeId());
    EXPECT_EQ(2u, m_layer.get_invokeId());
    EXPECT_EQ(3u, m_layer.get_invokeId());
}

TEST_F(BusinessDataLayerTest, InvokeIdsPassOverZeroWhenTheyWrap) {
    m_layer.invokeId = 0xfffffffe;

    EXPECT_EQ(0xfffffffeu, m_layer.get_invokeId());
    EXPECT_EQ(0xffffffffu, m_layer.get_invokeId());
    EXPECT_EQ(1u, m_layer.get_invokeId());
}

TEST_F(BusinessDataLayerTest, ThreadsNeverShareAnInvokeId) {
    m_layer.invokeId = 0xffffff00;
    std::vector<std::vector<unsigned int>> taken(4);
    std::vector<std::thread> threads;
    for (auto& ids : taken) {
        threads.emplace_back([this, &ids] {
            for (int i = 0; i < 1000; ++i) ids.push_back(m_layer.get_invokeId());
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::set<unsigned int> all;
    for (auto const& ids : taken) all.insert(ids.begin(), ids.end());
    EXPECT_EQ(4000u, all.size());
    EXPECT_EQ(0u, all.count(0));
}

TEST_F(BusinessDataLayerTest, HeadsOfARequestStandInFrontOfTheBuffer) {
    m_layer.invokeId = 0x01020304;
    pbuf* const buf = pool().get_one_buf(100);
    buf->prepend("AB", 2);

    EXPECT_EQ(0, m_layer.add_commkypheader_buf(buf, 0x0258, 9, 0x11121314, 0x21222324));

    EXPECT_EQ(
        "00 01 58 02 17 00 00 00 "
        "00 00 00 00 01 02 03 04 00 09 00 00 00 "
        "11 12 13 14 21 22 23 24 "
        "41 42",
        hex(buf->data(), static_cast<size_t>(buf->size())));
    EXPECT_EQ(0x01020304u, m_layer.lastInvokeId);
    pool().put_one_free(buf);
}

// --- registration -----------------------------------------------------------------------------

TEST_F(BusinessDataLayerTest, RegistrationSendsTheDescription) {
    establish();
    answer(register_body(0x1001, 0, "drive0", 0, 0));

    EXPECT_EQ(0, m_layer.register_component());

    EXPECT_EQ(
        "00 01 66 00 2C 00 00 00 "                 // port 102, 44 bytes follow
        "00 00 00 00 00 00 00 01 00 09 00 00 00 "  // invoke id 1, command 9
        "00 00 00 00 00 00 00 00 "
        "00 01 00 00 00 00 00 06 00 "  // type, command 1, error, length of the name
        "44 33 22 11 88 77 66 55 "
        "64 72 69 76 65 30",
        hex(m_server.receive_frame()));
    EXPECT_EQ(0u, m_server.waiting());
}

TEST_F(BusinessDataLayerTest, SuccessfulRegistrationIsMarkedAndLogged) {
    establish();
    tlsErrno = 0x2001;
    LogCapture log;
    answer(register_body(0x1001, 0, "drive0", 0, 0));

    EXPECT_EQ(0, m_layer.register_component());

    EXPECT_EQ(0, tlsErrno);
    EXPECT_TRUE(m_layer.registered);
    EXPECT_EQ(1, log.count("DEBUG", "component drive0 register cmd:4097 success"));
}

TEST_F(BusinessDataLayerTest, ALaterRefusalDoesNotTakeTheMarkBack) {
    establish();
    answer({});
    ASSERT_EQ(0, m_layer.register_component());

    answer(register_body(0x1001, 0x4003, "drive0", 0, 0));
    EXPECT_EQ(0x4003, m_layer.register_component());
    EXPECT_TRUE(m_layer.registered);
    m_channel.disconnect();
    EXPECT_EQ(0x4007, m_layer.register_component());
    EXPECT_TRUE(m_layer.registered);
}

TEST_F(BusinessDataLayerTest, RegistrationOnADownChannelSendsNothing) {
    EXPECT_EQ(0x4007, m_layer.register_component());

    EXPECT_EQ(0x4007, tlsErrno);
    EXPECT_FALSE(m_layer.registered);
    EXPECT_EQ(0u, m_layer.lastInvokeId);
}

TEST_F(BusinessDataLayerTest, RefusalOfTheServerComesBack) {
    establish();
    LogCapture log;
    answer(register_body(0x1001, 0x4003, "drive0", 0, 0));

    EXPECT_EQ(0x4003, m_layer.register_component());

    EXPECT_EQ(0x4003, tlsErrno);
    EXPECT_FALSE(m_layer.registered);
    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_EQ(1, log.count("ERROR",
                           "component drive0 register cmd:4097 fail,error:same component name "
                           "already register,kypserver refuse register,code:16387"));
}

TEST_F(BusinessDataLayerTest, NameWithoutAnEndIsCutAtTheRecord) {
    memset(m_info.name, 'n', sizeof m_info.name);
    establish();
    answer({});

    EXPECT_EQ(0, m_layer.register_component());

    EXPECT_EQ(request_frame(102, 9, 1, 0, 0,
                            register_body(1, 0, std::string(32, 'n'), 0x11223344, 0x55667788)),
              m_server.receive_frame());
}

TEST_F(BusinessDataLayerTest, RoutePortIsRegisteredByCommand3) {
    establish();
    LogCapture log;
    answer(register_body(0x1003, 0, "drive0", 0, 0, u32_le(600)));

    EXPECT_EQ(0, m_layer.register_route_port(600));

    EXPECT_EQ(
        request_frame(102, 9, 1, 0, 0,
                      register_body(3, 0, "drive0", 0x11223344, 0x55667788, bytes("58 02 00 00"))),
        m_server.receive_frame());
    EXPECT_FALSE(m_layer.registered);
    EXPECT_EQ(1, log.count("DEBUG", "component drive0 register cmd:4099 success"));
}

TEST_F(BusinessDataLayerTest, RoutePortThatIsTakenComesBack) {
    establish();
    LogCapture log;
    answer(register_body(0x1003, 0x1007, "drive0", 0, 0, u32_le(600)));

    EXPECT_EQ(0x1007, m_layer.register_route_port(600));

    EXPECT_EQ(0x1007, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR",
                           "component drive0 register cmd:4099 fail,error:router port alaready "
                           "register,code:4103"));
}

TEST_F(BusinessDataLayerTest, KeepsTheStatusOfAWriteForARoutePortOnADownChannel) {
    EXPECT_EQ(5, m_layer.register_route_port(600));

    EXPECT_EQ(5, tlsErrno);
}

TEST_F(BusinessDataLayerTest, RegistrationThatCannotBeSentIsLogged) {
    establish();
    m_server.close();
    LogCapture log;

    EXPECT_EQ(5, m_layer.register_component());

    EXPECT_EQ(5, tlsErrno);
    EXPECT_FALSE(m_layer.registered);
    EXPECT_EQ(1, log.count("ERROR", std::string("component:drive0 send register cmd:1 fail:") +
                                        strerror(EPIPE)));
}

TEST_F(BusinessDataLayerTest, NumbersOfExchangesGoOn) {
    establish();
    answer({});
    answer({});

    EXPECT_EQ(0, m_layer.register_component());
    EXPECT_EQ(0, m_layer.register_route_port(600));

    EXPECT_EQ(1u, take_apart(m_server.receive_frame()).invokeId);
    EXPECT_EQ(2u, take_apart(m_server.receive_frame()).invokeId);
    EXPECT_EQ(2u, m_layer.lastInvokeId);
}

// --- replies ----------------------------------------------------------------------------------

TEST_F(BusinessDataLayerTest, ReplyWithoutABodyIsASuccess) {
    establish();
    answer({});

    EXPECT_EQ(0, m_layer.register_component());
    EXPECT_TRUE(m_layer.registered);
}

TEST_F(BusinessDataLayerTest, KeepsFieldsThatTheReplyDoesNotCarry) {
    establish();
    LogCapture log;
    CompRegisterPackage package;
    package.errId = 0x1007;
    package.cmdId = 3;
    answer({});

    EXPECT_EQ(0x1007, m_layer.register_package_recv(&package));

    EXPECT_EQ(0x1007, tlsErrno);
    EXPECT_EQ(1, log.count_containing("component drive0 register cmd:3 fail"));
}

TEST_F(BusinessDataLayerTest, ReplyWithoutItsHeadsIsTooShort) {
    establish();
    for (const uint32_t length : {0, 1, 12}) {
        SCOPED_TRACE(length);
        m_server.send(join({kyp_head(102, length), Bytes(length)}));

        EXPECT_EQ(0x100c, m_layer.register_component());

        EXPECT_EQ(0x100c, tlsErrno);
        EXPECT_TRUE(m_channel.isconnected());
    }
    m_server.send(join({kyp_head(102, 13), Bytes(13)}));
    EXPECT_EQ(0, m_layer.register_component());
}

TEST_F(BusinessDataLayerTest, ReplyIsReadAsFarAsItGoes) {
    const Bytes whole = register_body(0x1001, 0x4003, "drive0", 1, 2);
    establish();
    for (size_t size = 0; size <= whole.size(); ++size) {
        answer(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)));

        // The error's low byte is 3; what is cut of it reads as zero.
        const int expected = size < 4 ? 0 : size == 4 ? 3 : 0x4003;
        EXPECT_EQ(expected, m_layer.register_component()) << size;
    }
}

TEST_F(BusinessDataLayerTest, DeclaredLengthsOfAReplyEndAtItsBody) {
    establish();
    answer(join({bytes("00 01 10 03 40 00 00 FF FF"), u32_le(0), u32_le(0), text("x")}));

    EXPECT_EQ(0x4003, m_layer.register_component());
}

TEST_F(BusinessDataLayerTest, KeepsTheNextFrameForTheReplyWhateverItIs) {
    establish();
    m_server.send(delivery_frame(77, "topic", text("data")));
    answer(register_body(0x1001, 0x4003, "drive0", 0, 0));

    EXPECT_NE(0x4003, m_layer.register_component());
    EXPECT_EQ(0x4003, m_layer.register_component());
}

TEST_F(BusinessDataLayerTest, LinkThatIsLostBeforeTheReplyGivesTheReadsStatus) {
    struct Row {
        Bytes sent;
        int status;
    };
    const Row rows[] = {
        {{}, 5},
        {kyp_head(102, 30), 0x1010},
        {kyp_head(0, 0), 0x1012},
        {kyp_head(102, 0x600000), 0x100d},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.status);
        establish();
        m_server.send(row.sent);
        m_server.shut_writing();

        EXPECT_EQ(row.status, m_layer.register_component());

        EXPECT_EQ(row.status, tlsErrno);
        EXPECT_FALSE(m_channel.isconnected());
    }
    EXPECT_THAT(m_connects.codes(), ElementsAre(1, 1, 1, 1));
}

TEST_F(BusinessDataLayerTest, ReplyOnADownChannelIsNotWaitedFor) {
    CompRegisterPackage package;
    EXPECT_EQ(9, m_layer.register_package_recv(&package));

    m_channel.disconnect();
    EXPECT_EQ(9, m_layer.register_package_recv(&package));
    EXPECT_EQ(9, tlsErrno);
}

TEST_F(BusinessDataLayerTest, ReplyThatDoesNotComeTimesOutAndLeavesTheLink) {
    establish();
    const auto begin = Clock::now();

    EXPECT_EQ(0x1008, m_layer.register_component());

    EXPECT_GE(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(0x1008, tlsErrno);
    EXPECT_FALSE(m_layer.registered);
    EXPECT_TRUE(m_channel.isconnected());
    EXPECT_TRUE(m_channel.socket->m_connected);
    answer(register_body(0x1001, 0, "drive0", 0, 0));
    EXPECT_EQ(0, m_layer.register_component());
}

TEST_F(BusinessDataLayerTest, ReplyWhoseHeadStopsHalfWayTimesOutAndLeavesTheLink) {
    const Bytes reply = response_frame(102, 9, 1, register_body(0x1001, 0x4003, "drive0", 0, 0));
    establish();
    m_server.send(Bytes(reply.begin(), reply.begin() + 7));

    EXPECT_EQ(0x1008, m_layer.register_component());

    EXPECT_EQ(0x1008, tlsErrno);
    EXPECT_TRUE(m_channel.isconnected());
    m_server.send(Bytes(reply.begin() + 7, reply.end()));
    EXPECT_EQ(0x4003, m_layer.register_component());
}

TEST_F(BusinessDataLayerTest, ReplyMayComeInPieces) {
    establish();
    const Bytes reply = response_frame(102, 9, 1, register_body(0x1001, 0x4003, "drive0", 0, 0));
    m_server.send(Bytes(reply.begin(), reply.begin() + 3));
    auto status = std::async(std::launch::async, [this] { return m_layer.register_component(); });
    m_server.receive_frame();

    m_server.send(Bytes(reply.begin() + 3, reply.end()));

    EXPECT_EQ(0x4003, status.get());
}

TEST_F(BusinessDataLayerTest, LinkThatEndsInsideTheHeadOfAReplyIsNotWaitedFor) {
    establish();
    m_server.send(bytes("00 01 66"));
    m_server.shut_writing();

    EXPECT_EQ(5, m_layer.register_component());

    EXPECT_FALSE(m_channel.isconnected());
}

TEST_F(BusinessDataLayerTest, SignalDoesNotEndTheWaitForAReply) {
    establish();
    LogCapture log;
    CallGate gate;
    gate.fail("select", EINTR, 3);
    answer({});

    EXPECT_EQ(0, m_layer.register_component());

    EXPECT_EQ(4, gate.count("select"));
}

TEST_F(BusinessDataLayerTest, ExchangesGiveTheirBuffersBack) {
    pbuf* const only = keep_one_buffer();
    pbuf* const larger = keep_one_buffer(256);
    const uint64_t total = pool().m_totalSize;
    struct Row {
        char const* what;
        Bytes reply;
    };
    const Row rows[] = {
        {"success", response_frame(102, 9, 1)},
        {"refusal", response_frame(102, 9, 1, register_body(0x1001, 0x4003, "drive0", 0, 0))},
        {"too short", kyp_head(102, 0)},
        {"bad port", kyp_head(0, 0)},
        {"cut body", kyp_head(102, 30)},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.what);
        m_channel.disconnect();
        establish();
        m_server.send(row.reply);
        m_server.shut_writing();

        m_layer.register_component();

        EXPECT_EQ(only, pool().m_freeLists.at(128));
        EXPECT_EQ(larger, pool().m_freeLists.at(256));
    }
    m_layer.register_route_port(600);  // cannot be sent

    EXPECT_EQ(only, pool().m_freeLists.at(128));
    EXPECT_EQ(larger, pool().m_freeLists.at(256));
    EXPECT_EQ(total, pool().m_totalSize);
}

// --- topics -----------------------------------------------------------------------------------

TEST_F(BusinessDataLayerTest, TopicFramesCarryTheirHeadAndBody) {
    establish();

    EXPECT_EQ(0, m_layer.publish("speed", 0x10, 0x20, "\0\1\2", 3));
    EXPECT_EQ(0, m_layer.subscribe("speed"));
    EXPECT_EQ(0, m_layer.unsubscribe("speed"));

    EXPECT_EQ(request_frame(103, 8, 1, 0x10, 0x20,
                            pubsub_body("pub", "speed", bytes("00 01 02"), 0x10, 0x20)),
              m_server.receive_frame());
    EXPECT_EQ(request_frame(103, 6, 2, 0, 0, pubsub_body("sub", "speed")),
              m_server.receive_frame());
    EXPECT_EQ(request_frame(103, 7, 3, 0, 0, pubsub_body("unsub", "speed")),
              m_server.receive_frame());
}

TEST_F(BusinessDataLayerTest, TopicFrameTakesCommandWordsAndDataFromItsPayload) {
    establish();
    Bytes data = text("data");

    EXPECT_EQ(0, m_layer.write_pubsub_msg("other", "t", {77, 1, 2, 4, data.data()}));

    EXPECT_EQ(request_frame(103, 77, 1, 1, 2, pubsub_body("other", "t", data, 1, 2)),
              m_server.receive_frame());
}

TEST_F(BusinessDataLayerTest, EmptyTopicAndNoDataAreSent) {
    establish();

    EXPECT_EQ(0, m_layer.publish("", 0, 0, nullptr, 0));

    EXPECT_EQ(request_frame(103, 8, 1, 0, 0, pubsub_body("pub", "")), m_server.receive_frame());
}

TEST_F(BusinessDataLayerTest, LargestTopicMessageIsSentAndOneByteMoreIsNot) {
    constexpr unsigned int kLargest = 0x5fffff - 77 - 5;
    const Bytes data = pattern(kLargest + 1);
    auto const* const chars = reinterpret_cast<char const*>(data.data());
    establish();
    Bytes got;
    std::thread reader([&] { got = m_server.receive_frame(std::chrono::seconds(60)); });

    EXPECT_EQ(0, m_layer.publish("speed", 0, 0, chars, kLargest));
    reader.join();
    EXPECT_TRUE(request_frame(103, 8, 1, 0, 0,
                              pubsub_body("pub", "speed", Bytes(data.begin(), data.end() - 1))) ==
                got);

    EXPECT_EQ(0x100d, m_layer.publish("speed", 0, 0, chars, kLargest + 1));
    EXPECT_EQ(0x100d, tlsErrno);
    EXPECT_EQ(0x100d, m_layer.publish("speed6", 0, 0, chars, kLargest));
    EXPECT_EQ(0x100d, m_layer.publish("speed", 0, 0, chars, 0xffffffff));
    EXPECT_EQ(0x100d, m_layer.publish("speed", 0, 0, chars, 0xffffffb0));
    EXPECT_EQ(0x100d, m_layer.publish("speed", 0, 0, chars, 0x80000000));
    EXPECT_EQ(0u, m_server.waiting());
    EXPECT_EQ(1u, m_layer.lastInvokeId);
}

TEST_F(BusinessDataLayerTest, NullTopicThrows) {
    EXPECT_THROW(m_layer.publish(nullptr, 0, 0, "", 0), std::logic_error);
    EXPECT_THROW(m_layer.subscribe(nullptr), std::logic_error);
    EXPECT_THROW(m_layer.unsubscribe(nullptr), std::logic_error);
}

TEST_F(BusinessDataLayerTest, TopicFrameOnADownChannelGivesDisconnected) {
    LogCapture log;

    EXPECT_EQ(5, m_layer.publish("speed", 0, 0, "x", 1));

    EXPECT_EQ(5, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "channel write fail,err:5,msg:connection disconnect"));
}

TEST_F(BusinessDataLayerTest, TopicFrameThatTheLinkTakesInPartTimesOut) {
    establish();
    auto socket = std::make_shared<SlowSocket>();
    m_channel.socket = socket;
    LogCapture log;

    EXPECT_EQ(10, m_layer.publish("speed", 0, 0, "x", 1));

    EXPECT_EQ(10, tlsErrno);
    EXPECT_THAT(socket->m_timeouts, ElementsAre(5000));
    EXPECT_EQ(1, log.count("ERROR", "channel write fail,err:10,msg:send timeout"));
}

TEST_F(BusinessDataLayerTest, RegistrationThatTheLinkTakesInPartTimesOut) {
    establish();
    auto socket = std::make_shared<SlowSocket>();
    m_channel.socket = socket;

    EXPECT_EQ(10, m_layer.register_component());

    EXPECT_EQ(10, tlsErrno);
    EXPECT_THAT(socket->m_timeouts, ElementsAre(5000));
    EXPECT_FALSE(m_layer.registered);
}

TEST_F(BusinessDataLayerTest, TopicFramesGiveTheirBuffersBack) {
    pbuf* const only = keep_one_buffer();
    establish();

    EXPECT_EQ(0, m_layer.publish("speed", 0, 0, "x", 1));
    EXPECT_EQ(only, pool().m_freeLists.at(128));

    m_channel.disconnect();
    EXPECT_EQ(5, m_layer.publish("speed", 0, 0, "x", 1));
    EXPECT_EQ(only, pool().m_freeLists.at(128));
}

TEST_F(BusinessDataLayerTest, PublishersKeepFramesWhole) {
    constexpr int kPublishers = 4;
    constexpr int kMessages = 50;
    establish();
    std::vector<std::thread> publishers;
    for (int p = 0; p < kPublishers; ++p) {
        publishers.emplace_back([this, p] {
            for (int i = 0; i < kMessages; ++i) {
                const std::string data(static_cast<size_t>(i) * 499, static_cast<char>('a' + p));
                EXPECT_EQ(
                    0, m_layer.publish(std::to_string(p).c_str(), 0, static_cast<unsigned int>(i),
                                       data.data(), static_cast<unsigned int>(data.size())));
            }
        });
    }

    std::set<uint32_t> ids;
    std::vector<uint32_t> next(kPublishers, 0);
    for (int n = 0; n < kPublishers * kMessages; ++n) {
        const FrameParts frame = take_apart(m_server.receive_frame());
        ASSERT_TRUE(frame.whole);
        ids.insert(frame.invokeId);
        const PubSubParts body = take_body_apart(Bytes(frame.rest.begin() + 8, frame.rest.end()));
        ASSERT_TRUE(body.whole);
        const int p = std::stoi(body.topic);
        const uint32_t i = next.at(static_cast<size_t>(p))++;
        EXPECT_EQ(i, body.indexOffset);
        EXPECT_EQ(Bytes(static_cast<size_t>(i) * 499, static_cast<uint8_t>('a' + p)), body.data);
    }
    for (std::thread& publisher : publishers) publisher.join();
    EXPECT_EQ(static_cast<size_t>(kPublishers * kMessages), ids.size());
}

// --- reconnecting -----------------------------------------------------------------------------

TEST_F(BusinessDataLayerTest, NoSecondAttemptWithinThreeSeconds) {
    LogCapture log;
    set_latest_attempt(-3600);

    EXPECT_EQ(0, m_layer.reconect_channel());

    EXPECT_THAT(m_connects.codes(), IsEmpty());
    EXPECT_EQ(0, log.count_containing("trigger reconnect"));
}

TEST_F(BusinessDataLayerTest, AttemptAfterThreeSecondsConnects) {
    LogCapture log;
    set_latest_attempt(4);

    EXPECT_EQ(1, m_layer.reconect_channel());

    EXPECT_THAT(m_connects.codes(), ElementsAre(1));
    EXPECT_EQ(1, log.count("DEBUG", "component:drive0 trigger reconnect"));
}

TEST_F(BusinessDataLayerTest, FailedAttemptGivesZeroAndCountsAsAnAttempt) {
    m_listener.close();
    set_latest_attempt(3600);

    EXPECT_EQ(0, m_layer.reconect_channel());

    EXPECT_THAT(m_connects.codes(), ElementsAre(6));
    EXPECT_LT(m_layer.reconnectTimer.getElapsedSecond(), 3000);
}

// --- the receive thread -----------------------------------------------------------------------

TEST_F(BusinessDataLayerTest, ThreadBeginsWithALine) {
    LogCapture log;
    run();

    EXPECT_TRUE(log.wait_for("start net thread"));
    EXPECT_EQ(1, log.count("DEBUG", "start net thread"));
}

TEST_F(BusinessDataLayerTest, SecondStartStartsNoSecondThread) {
    run();
    const std::thread::id id = m_layer.netThread.get_id();

    EXPECT_EQ(0, m_layer.start());

    EXPECT_EQ(id, m_layer.netThread.get_id());
}

TEST_F(BusinessDataLayerTest, LoopEndsWhenTheFlagIsSet) {
    m_layer.stopFlag = true;

    EXPECT_EQ(0, m_layer.svc());
}

TEST_F(BusinessDataLayerTest, FramesReachTheCallbackWholeAndInOrder) {
    run();
    const std::vector<Bytes> sent = {kyp_head(600, 0), response_frame(600, 9, 1, pattern(5000)),
                                     delivery_frame(2, "t", text("x"))};
    m_server.send(join({sent[0], sent[1], sent[2]}));

    EXPECT_TRUE(m_frames.wait_for(sent));
}

TEST_F(BusinessDataLayerTest, FrameGoesBackToThePoolBehindTheCallback) {
    pbuf* const only = keep_one_buffer();
    std::atomic<bool> isOut{false};
    m_frames.m_onFrame = [&] { isOut = pool().m_freeLists.at(128) == nullptr; };
    run();

    m_server.send(kyp_head(600, 0));

    EXPECT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(pool().m_mutex);
        return isOut && pool().m_freeLists.at(128) == only;
    }));
}

TEST_F(BusinessDataLayerTest, FrameWithoutACallbackIsDropped) {
    pbuf* const only = keep_one_buffer();
    m_layer.register_message_callback(nullptr, nullptr);
    LogCapture log;
    run();
    m_server.send(kyp_head(600, 0));
    m_server.close();

    EXPECT_TRUE(log.wait_for("netchannel:drive0 disconnect"));
    EXPECT_TRUE(m_connects.wait_for({1, 5}));
    EXPECT_EQ(only, pool().m_freeLists.at(128));
}

TEST_F(BusinessDataLayerTest, ThreadConnectsByItselfAndRegistersInTheCallback) {
    m_connects.m_onCode = [this](int code) {
        if (code == 1) m_status = m_layer.register_component();
    };
    set_latest_attempt(4);
    m_layer.start();

    m_server = m_listener.accept();
    EXPECT_EQ(102, take_apart(m_server.receive_frame()).port);
    answer(register_body(0x1001, 0, "drive0", 0, 0));

    EXPECT_TRUE(eventually([&] { return m_status == 0; }));
    EXPECT_THAT(m_connects.codes(), ElementsAre(1));
}

TEST_F(BusinessDataLayerTest, LostLinkIsReportedOnceAndMadeAgain) {
    set_latest_attempt(4);
    run();
    m_server.close();

    m_server = m_listener.accept();
    EXPECT_TRUE(m_connects.wait_for({1, 5, 1}));
    m_server.send(kyp_head(600, 0));
    EXPECT_TRUE(m_frames.wait_for({kyp_head(600, 0)}));
}

TEST_F(BusinessDataLayerTest, FrameThatIsCutIsALostLink) {
    set_latest_attempt(-3600);
    run();
    m_server.send(join({kyp_head(600, 10), text("half")}));
    m_server.close();

    EXPECT_TRUE(m_connects.wait_for({1, 5}));
    EXPECT_FALSE(m_channel.isconnected());
}

TEST_F(BusinessDataLayerTest, KeepsALinkThatABadHeadClosedWithoutAReport) {
    reconnect_without_delay();
    run();
    for (Bytes const& head : {kyp_head(0, 0), kyp_head(4097, 0), kyp_head(600, 0x600000)}) {
        RawPeer before = std::move(m_server);
        before.send(head);
        m_server = m_listener.accept();
        EXPECT_TRUE(before.expect_closed());
    }

    EXPECT_TRUE(m_connects.wait_for({1, 1, 1, 1}));
    EXPECT_THAT(m_frames.frames(), IsEmpty());
}

TEST_F(BusinessDataLayerTest, LinkThatAWriterFoundDeadIsReportedAndMadeAgain) {
    establish();
    m_server.close();
    ASSERT_EQ(5, m_layer.publish("speed", 0, 0, "x", 1));
    ASSERT_TRUE(m_channel.isconnected());
    set_latest_attempt(4);
    m_layer.start();

    m_server = m_listener.accept();
    EXPECT_TRUE(m_connects.wait_for({1, 5, 1}));
    EXPECT_EQ(0, m_layer.publish("speed", 0, 0, "x", 1));
}

TEST_F(BusinessDataLayerTest, LinkThatCannotBeWatchedIsReportedAndMadeAgain) {
    establish();
    m_channel.socket->Shutdown();
    ASSERT_TRUE(m_channel.isconnected());
    set_latest_attempt(4);
    m_layer.start();

    m_server = m_listener.accept();
    EXPECT_TRUE(m_connects.wait_for({1, 5, 1}));
}

TEST_F(BusinessDataLayerTest, ServerThatStaysAwayIsTriedForEveryThreeSeconds) {
    establish();
    set_latest_attempt(4);
    m_listener.close();
    m_layer.start();
    m_server.close();

    ASSERT_TRUE(m_connects.wait_for({1, 5, 6, 6}));
    std::lock_guard<std::mutex> lock(m_connects.m_mutex);
    EXPECT_GE(m_connects.m_times[3] - m_connects.m_times[1], std::chrono::milliseconds(2990));
}

// --- stop -------------------------------------------------------------------------------------

TEST_F(BusinessDataLayerTest, StopWithoutAThreadReturnsAtOnce) {
    EXPECT_EQ(0, m_layer.stop());
}

TEST_F(BusinessDataLayerTest, KeepsStopAndStartStoringTheSameFlag) {
    m_layer.stopFlag = true;
    EXPECT_EQ(0, m_layer.stop());
    EXPECT_FALSE(m_layer.stopFlag);

    m_layer.stopFlag = true;
    m_layer.start();
    EXPECT_FALSE(m_layer.stopFlag);
}

TEST_F(BusinessDataLayerTest, KeepsTheThreadRunningThroughAStop) {
    LogCapture log;
    run();
    ASSERT_TRUE(log.wait_for("start net thread"));
    std::atomic<bool> isBack{false};
    std::atomic<bool> isCalled{false};
    std::thread stopper([&] {
        isCalled = true;
        m_layer.stop();
        isBack = true;
    });
    ASSERT_TRUE(eventually([&] { return isCalled.load(); }));

    for (int i = 1; i <= 20; ++i) {
        m_server.send(kyp_head(600, 0));
        ASSERT_TRUE(eventually([&] { return m_frames.frames().size() == static_cast<size_t>(i); }));
    }
    EXPECT_FALSE(isBack);
    EXPECT_FALSE(m_layer.stopFlag);

    EXPECT_TRUE(eventually([&] {
        m_layer.stopFlag = true;
        return isBack.load();
    }));
    stopper.join();
}

// The thread cannot be ended any more: a process of its own.
TEST_F(BusinessDataLayerTest, KeepsAStopInACallbackWaiting) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            CallGate gate;
            std::atomic<bool> isBack{false};
            m_frames.m_onFrame = [&] {
                m_layer.stop();
                isBack = true;
            };
            run();
            m_server.send(kyp_head(600, 0));
            const bool waits = eventually([&] { return gate.count("nanosleep(5,0)") > 0; });
            _exit(waits && !isBack ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
