#include "kypclient/KypTcpclient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "FakePeerConnection.h"
#include "kypcomm/Socket.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"
#include "utils/Singleton.h"

namespace {

constexpr _KypDeviceId kDevice{{127, 0, 0, 1, 1, 1}};
constexpr char const* kPath = "/var/tmp/kyp/client-test";

using Events = std::vector<int>;

// What the connection callback was called with, and what it does then.
struct EventLog {
    static void record(_KypDeviceId* id, void* ctx, int event) {
        auto& log = *static_cast<EventLog*>(ctx);
        {
            std::lock_guard<std::mutex> lock(log.m_mutex);
            log.m_events.push_back(event);
            log.m_id = *id;
            log.m_status = tlsErrno;
        }
        if (log.m_onEvent) log.m_onEvent(event);
    }

    Events all() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    bool wait_for(Events const& expected) {
        return eventually([&] { return all() == expected; });
    }

    std::mutex m_mutex;
    Events m_events;
    _KypDeviceId m_id{};
    int m_status = 0;  // tlsErrno during the latest call
    std::function<void(int)> m_onEvent;
};

// A client and the peer that it talks to, which speaks raw bytes.
class TcpclientFixture {
public:
    explicit TcpclientFixture(bool isDomain) {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
        ::mkdir("/var/tmp/kyp", 0755);
        m_listener = isDomain ? RawListener::unix_path(kPath) : RawListener::tcp();
        const std::string param = isDomain
                                      ? std::string("hostname=") + kPath
                                      : "ip=127.0.0.1;port=" + std::to_string(m_listener.port());
        m_client = std::make_unique<CTcpclient>(kDevice, param, isDomain);
        m_client->register_connevent(EventLog::record, &m_events);
        m_client->set_reconnect_event(0, false);
    }

    // An end of the stream wakes the thread sooner than its half second.
    ~TcpclientFixture() {
        if (m_client != nullptr) m_client->m_stop = true;
        m_peer.close();
    }

    // A connected client with a running thread that does not reconnect.
    void establish() {
        ASSERT_EQ(1, m_client->connect(5000));
        m_peer = m_listener.accept();
        ASSERT_TRUE(m_peer.connected());
        ASSERT_EQ(0, m_client->start());
    }

    void reconnect_without_pause() { m_client->set_reconnect_event(0, true); }

    int send(std::string const& data = "AB", int timeoutMs = 5000) {
        Bytes payload = text(data);
        return m_client->send_request_packet(
            600, {9, 0x10, 0x20, static_cast<uint32_t>(payload.size()), payload.data()}, timeoutMs);
    }

    // The peer answers the next request.
    void answer(std::string const& data, uint32_t error = 0) {
        const FrameParts request = take_apart(m_peer.receive_frame());
        ASSERT_TRUE(request.whole);
        ASSERT_TRUE(m_peer.send(
            response_frame(request.port, request.cmd, request.invokeId, text(data), error)));
    }

    int fetch(size_t room = 100, int timeoutMs = 20000) {
        m_fetched.assign(room, 0);
        m_port = 0;
        const int n = m_client->raw_recv(&m_port, reinterpret_cast<char*>(m_fetched.data()),
                                         static_cast<int>(room), timeoutMs);
        return n;
    }

    std::string fetched(int n) const {
        return std::string(m_fetched.begin(), m_fetched.begin() + n);
    }

    EventLog m_events;
    RouteCalls m_calls;
    RawListener m_listener;
    RawPeer m_peer;
    Bytes m_fetched;
    unsigned short m_port = 0;
    std::unique_ptr<CTcpclient> m_client;  // first to go: its thread uses all of the above
};

class KypTcpclientTest : public testing::Test, public TcpclientFixture {
protected:
    KypTcpclientTest() : TcpclientFixture(false) {}
};

class KypDomainclientTest : public testing::Test, public TcpclientFixture {
protected:
    KypDomainclientTest() : TcpclientFixture(true) {}
};

// Both transports behave alike from here on.
class KypStreamclientTest : public testing::TestWithParam<bool>, public TcpclientFixture {
protected:
    KypStreamclientTest() : TcpclientFixture(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Transports, KypStreamclientTest, testing::Bool(),
                         [](auto const& param) { return param.param ? "Domain" : "Tcp"; });

// --- construction -----------------------------------------------------------------------------

TEST(KypTcpclientConstructorTest, ReadsAddressAndPortFromItsText) {
    struct Row {
        char const* param;
        char const* host;
        uint16_t port;
    };
    const Row rows[] = {
        {"", "", 0},
        {"ip=10.0.0.1;port=9999", "10.0.0.1", 9999},
        {"ip=10.0.0.1;port=9999;", "10.0.0.1", 9999},
        {"IP=10.0.0.1;Port=9999", "10.0.0.1", 9999},
        {"port=9999;ip=10.0.0.1", "10.0.0.1", 9999},
        {"ip=10.0.0.1;ip=10.0.0.2;port=1;port=2", "10.0.0.2", 2},
        {";;ip;=;nonsense;other=1;ip=10.0.0.1", "10.0.0.1", 0},
        {"ip=a=b", "a=b", 0},
        {"ip=", "", 0},
        {"port= 12x", "", 12},
        {"port=70000", "", 4464},
        {"port=-1", "", 65535},
        {"hostname=/tmp/x", "", 0},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.param);
        CTcpclient client(kDevice, row.param, false);

        EXPECT_EQ(row.host, client.m_hostname);
        EXPECT_EQ(row.port, client.m_port);
        EXPECT_EQ(row.param, client.m_param);
    }
}

TEST(KypTcpclientConstructorTest, PortThatIsNoNumberThrows) {
    EXPECT_THROW(CTcpclient(kDevice, "port=abc", false), std::invalid_argument);
    EXPECT_THROW(CTcpclient(kDevice, "port=", false), std::invalid_argument);
    EXPECT_THROW(CTcpclient(kDevice, "port=99999999999", false), std::out_of_range);
}

TEST(KypTcpclientConstructorTest, NewClientIsNotConnectedAndHasNoThread) {
    LogCapture log;

    CTcpclient client(kDevice, "ip=10.0.0.1;port=9999", false);

    EXPECT_FALSE(client.isconnected());
    EXPECT_FALSE(client.m_isDomain);
    EXPECT_FALSE(client.m_stop);
    EXPECT_FALSE(client.m_thread.joinable());
    EXPECT_EQ(0, memcmp(&kDevice, &client.m_deviceId, sizeof(kDevice)));
    EXPECT_EQ(1, log.count("DEBUG", "Create  TCP Socket,Ready HostName:10.0.0.1,port:9999"));
}

TEST(KypTcpclientConstructorTest, DomainClientTakesItsPathFromHostname) {
    LogCapture log;

    CTcpclient client(kDevice, "HostName=/tmp/x;ip=10.0.0.1;port=abc", true);

    EXPECT_EQ("/tmp/x", client.m_hostname);
    EXPECT_EQ(0, client.m_port);
    EXPECT_TRUE(client.m_isDomain);
    EXPECT_EQ(1, log.count("DEBUG", "Create Unix Domain TCP Socket,Ready HostName:/tmp/x"));
}

TEST(KypTcpclientConstructorTest, KeepsIgnoringTheKeyDomain) {
    for (char const* param : {"", "domain=/tmp/x", "hostname="}) {
        SCOPED_TRACE(param);
        CTcpclient client(kDevice, param, true);

        EXPECT_EQ("/var/tmp/kyp/kypserver", client.m_hostname);
    }
}

// --- connecting -------------------------------------------------------------------------------

TEST_F(KypTcpclientTest, ConnectReportsPendingAndSuccess) {
    LogCapture log;

    EXPECT_EQ(1, m_client->connect(5000));

    EXPECT_EQ((Events{2, 1}), m_events.all());
    EXPECT_EQ(0, memcmp(&kDevice, &m_events.m_id, sizeof(kDevice)));
    EXPECT_TRUE(m_client->isconnected());
    const std::string port = std::to_string(m_listener.port());
    EXPECT_EQ(1, log.count("INFO", "tcpclient ready connect  HostName:127.0.0.1,port:" + port +
                                       ",timeoutms:5000,isDomain:0"));
    EXPECT_EQ(1,
              log.count("INFO", "Connect HostName:127.0.0.1,port:" + port + " Success,isDomain:0"));
}

TEST_F(KypTcpclientTest, ReconnectReportsTheSameWithItsOwnLine) {
    LogCapture log;

    EXPECT_EQ(1, m_client->reconnect(5000));

    EXPECT_EQ((Events{2, 1}), m_events.all());
    EXPECT_EQ(1, log.count("INFO", "Reconnect  HostName:127.0.0.1,port:" +
                                       std::to_string(m_listener.port()) +
                                       " Success,isDomain:0,timeout:5000 ms"));
    EXPECT_EQ(0, log.count_containing("tcpclient ready connect"));
}

TEST_P(KypStreamclientTest, FailedConnectReportsPendingAndTimeout) {
    m_listener.close();
    if (GetParam()) ::unlink(kPath);

    EXPECT_EQ(0, m_client->connect(5000));

    EXPECT_EQ((Events{2, 6}), m_events.all());
    EXPECT_FALSE(m_client->isconnected());
}

TEST_P(KypStreamclientTest, FailedReconnectReportsPendingAndTimeout) {
    m_listener.close();
    if (GetParam()) ::unlink(kPath);

    EXPECT_EQ(0, m_client->reconnect(5000));

    EXPECT_EQ((Events{2, 6}), m_events.all());
}

TEST_P(KypStreamclientTest, ConnectionNeedsNoCallback) {
    m_client->register_connevent(nullptr, nullptr);

    EXPECT_EQ(1, m_client->connect(5000));
}

TEST_F(KypTcpclientTest, ClientWithoutASocketAnswersWithoutOne) {
    m_client->m_socket.reset();
    LogCapture log;

    EXPECT_EQ(0, m_client->connect(10));
    EXPECT_EQ(0, m_client->reconnect(10));
    EXPECT_FALSE(m_client->isconnected());
    EXPECT_EQ(-1, m_client->raw_send("AB", 2, 10));
    m_client->disconnect();

    EXPECT_EQ(5, tlsErrno);
    EXPECT_TRUE(m_events.all().empty());
    EXPECT_EQ(1, log.count("ERROR", "connection is lost,ready reconnect"));
}

TEST_P(KypStreamclientTest, DisconnectClosesTheLink) {
    ASSERT_EQ(1, m_client->connect(5000));
    RawPeer peer = m_listener.accept();

    m_client->disconnect();

    EXPECT_FALSE(m_client->isconnected());
    EXPECT_TRUE(peer.expect_closed());
}

TEST_P(KypStreamclientTest, DestructorClosesTheLink) {
    establish();

    m_client.reset();

    EXPECT_TRUE(m_peer.expect_closed());
}

// --- sending ----------------------------------------------------------------------------------

TEST_P(KypStreamclientTest, BytesAndFramesGoOutAsTheyAre) {
    establish();
    Frame frame(3, "xyz");

    EXPECT_EQ(4, m_client->raw_send("abcd", 4, 1000));
    EXPECT_EQ(3, m_client->raw_send(frame, 1000));

    EXPECT_EQ("abcdxyz", as_text(m_peer.receive(7)));
    delete[] frame.rawData();
}

TEST_P(KypStreamclientTest, SendWithoutALinkFailsAndDoesNotConnect) {
    LogCapture log;
    Frame frame(3, "xyz");

    EXPECT_EQ(-1, m_client->raw_send("abcd", 4, 1000));
    EXPECT_EQ(5, tlsErrno);
    tlsErrno = 0;
    EXPECT_EQ(-1, m_client->raw_send(frame, 1000));
    EXPECT_EQ(5, tlsErrno);

    EXPECT_EQ(2, log.count("ERROR", "connection is lost,ready reconnect"));
    EXPECT_TRUE(m_events.all().empty());
    delete[] frame.rawData();
}

TEST_P(KypStreamclientTest, RequestWithoutALinkLeavesNothingAwaited) {
    EXPECT_EQ(-1, send());

    EXPECT_EQ(5, tlsErrno);
    EXPECT_EQ(0, fetch());
}

TEST_F(KypTcpclientTest, FullSocketBufferFailsTheRequestInItsTime) {
    establish();
    std::string const big(5 << 20, 'x');

    EXPECT_EQ(-1, send(big, 50));

    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(nullptr, m_client->m_pLatestResponse);
    EXPECT_TRUE(m_client->isconnected());
}

TEST_P(KypStreamclientTest, WriterThatWaitsForRoomIsWokenWhenTheLinkIsClosed) {
    establish();
    std::string const big(5 << 20, 'x');
    int sent = 0;
    int status = 0;
    std::thread writer([&] {
        tlsErrno = 0;
        sent = m_client->raw_send(big.data(), static_cast<unsigned>(big.size()), 60000);
        status = tlsErrno;
    });
    ASSERT_TRUE(eventually([&] { return m_peer.waiting() > 0; }));

    m_peer.send(kyp_head(0, 0));
    writer.join();

    EXPECT_EQ(-1, sent);
    EXPECT_EQ(5, status);
    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
}

// --- the split way ----------------------------------------------------------------------------

TEST_P(KypStreamclientTest, AnswerIsFetchedWithItsPort) {
    establish();
    ASSERT_EQ(31, send());
    answer("hello");

    EXPECT_EQ(5, fetch());

    EXPECT_EQ("hello", fetched(5));
    EXPECT_EQ(600, m_port);
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(5u, m_client->m_pLatestRequest->copied);
    EXPECT_EQ(100u, m_client->m_pLatestRequest->capacity);
    EXPECT_EQ(m_fetched.data(), m_client->m_pLatestRequest->buffer);
    EXPECT_EQ(nullptr, m_client->m_pLatestResponse);
    EXPECT_EQ(nullptr, m_client->m_responses[1].request.load());
}

TEST_P(KypStreamclientTest, SecondFetchReadsOnWithoutWaiting) {
    establish();
    ASSERT_EQ(31, send());
    answer("hello");

    EXPECT_EQ(3, fetch(3));
    EXPECT_EQ("hel", fetched(3));
    EXPECT_EQ(2, fetch(3));
    EXPECT_EQ("lo", fetched(2));
    EXPECT_EQ(600, m_port);
    EXPECT_EQ(0, fetch(3));
    EXPECT_EQ(0, m_port);
}

TEST_P(KypStreamclientTest, FetchWithoutAnyRequestFails) {
    LogCapture log;

    EXPECT_EQ(-1, fetch());

    EXPECT_EQ(0x1019, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "raw_recv m_pLatestRequest nullptr"));
}

TEST_P(KypStreamclientTest, FetchEndsWithItsTimeout) {
    establish();
    ASSERT_EQ(31, send());

    EXPECT_EQ(-1, fetch(100, 1));

    EXPECT_EQ(0x1008, tlsErrno);
    EXPECT_EQ(nullptr, m_client->m_pLatestResponse);
    EXPECT_EQ(0u, m_client->m_responses[1].invokeId.load());
    EXPECT_EQ(0, fetch());
}

TEST_P(KypStreamclientTest, AnswerBehindTheTimeoutGoesToTheRoute) {
    establish();
    ASSERT_EQ(31, send());
    ASSERT_EQ(-1, fetch(100, 0));
    LogCapture log;

    answer("late");

    EXPECT_TRUE(log.wait_for("port:600 router is not register..."));
    EXPECT_TRUE(m_client->isconnected());
}

TEST_P(KypStreamclientTest, PeersErrorComesWithItsPayload) {
    establish();
    ASSERT_EQ(31, send());
    answer("why", 0x1006);

    EXPECT_EQ(-1, fetch());

    EXPECT_EQ(0x1006, tlsErrno);
    EXPECT_EQ("why", fetched(3));
    EXPECT_EQ(3u, m_client->m_pLatestRequest->copied);
}

TEST_P(KypStreamclientTest, AnswerRefusedBeforeTheFetchIsATimeout) {
    establish();
    ASSERT_EQ(31, send());
    {
        std::lock_guard<std::mutex> lock(m_client->m_pLatestResponse->mutex);
        m_client->m_pLatestRequest->deadline =
            (std::chrono::steady_clock::now().time_since_epoch() - std::chrono::seconds(1)).count();
    }
    LogCapture log;
    answer("late");
    ASSERT_TRUE(log.wait_for("invokid:1,response is timeout,time usec:-"));

    EXPECT_EQ(-1, fetch());
    EXPECT_EQ(0x1008, tlsErrno);
}

TEST_P(KypStreamclientTest, KeepsGivingTheRestOfTheFormerAnswerToAFetchThatFails) {
    establish();
    ASSERT_EQ(31, send());
    answer("hello");
    ASSERT_EQ(3, fetch(3));
    ASSERT_EQ(31, send());

    EXPECT_EQ(-1, fetch(100, 1));

    EXPECT_EQ(0x1008, tlsErrno);
    EXPECT_EQ("lo", fetched(2));
    EXPECT_EQ(2u, m_client->m_pLatestRequest->copied);
    EXPECT_EQ(0, fetch());
}

TEST_P(KypStreamclientTest, FetchIntoNoRoomTakesNothing) {
    establish();
    ASSERT_EQ(31, send());
    answer("hello");
    unsigned short port = 0;
    char buf = 0;

    EXPECT_EQ(0, m_client->raw_recv(&port, &buf, -5, 20000));
    EXPECT_EQ(0, m_client->raw_recv(&port, &buf, 0, 20000));

    EXPECT_EQ(600, port);
    EXPECT_EQ(1, m_client->raw_recv(nullptr, &buf, 1, 20000));
    EXPECT_EQ('h', buf);
}

TEST_P(KypStreamclientTest, LargeAnswerArrivesWhole) {
    establish();
    std::string const big(5 << 20, 'y');
    ASSERT_EQ(31, send());
    std::thread peer([&] { answer(big); });

    EXPECT_EQ(5 << 20, fetch(5 << 20));
    peer.join();

    EXPECT_EQ(big, fetched(5 << 20));
}

// --- the receive loop -------------------------------------------------------------------------

TEST_P(KypStreamclientTest, ThreadTellsItsBeginAndEnd) {
    LogCapture log;

    EXPECT_EQ(0, m_client->start());
    EXPECT_EQ(0, m_client->start());
    EXPECT_TRUE(log.wait_for("connect:" + m_client->m_param + " socket thread start"));
    EXPECT_EQ(0, m_client->stop());
    EXPECT_EQ(0, m_client->stop());

    EXPECT_EQ(1, log.count("DEBUG", "connect:" + m_client->m_param + " socket thread start"));
    EXPECT_EQ(1, log.count("DEBUG", "connect:" + m_client->m_param + " socket thread stop"));
    EXPECT_FALSE(m_client->m_thread.joinable());
}

TEST_P(KypStreamclientTest, ThreadMayBeStartedAgain) {
    establish();
    m_client->stop();
    ASSERT_EQ(31, send());
    answer("hello");

    EXPECT_EQ(0, m_client->start());

    EXPECT_EQ(5, fetch());
}

TEST_P(KypStreamclientTest, CallbackMayStopItsOwnThread) {
    ASSERT_EQ(0, m_client->add_router(
                     600,
                     [](unsigned short, char const*, unsigned int, void* ctx) {
                         static_cast<CTcpclient*>(ctx)->stop();
                     },
                     m_client.get()));
    LogCapture log;
    establish();

    m_peer.send(response_frame(600, 9, 77));

    EXPECT_TRUE(log.wait_for("socket thread stop"));
    EXPECT_EQ(0, m_client->stop());
}

TEST_P(KypStreamclientTest, StopWaitsForAReconnectUnderWay) {
    std::atomic<bool> pending{false};
    std::atomic<bool> open{false};
    m_events.m_onEvent = [&](int event) {
        if (event != 2) return;
        pending = true;
        eventually([&] { return open.load(); });
    };
    reconnect_without_pause();
    m_client->start();
    ASSERT_TRUE(eventually([&] { return pending.load(); }));

    std::thread stopper([&] { m_client->stop(); });
    ASSERT_TRUE(eventually([&] { return m_client->m_stop.load(); }));
    EXPECT_EQ((Events{2}), m_events.all());
    open = true;
    stopper.join();

    EXPECT_EQ((Events{2, 1}), m_events.all());
}

TEST_F(KypDomainclientTest, KeepsWaitingForTheRestOfAHeaderAlsoWhenStopped) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();
    const Bytes frame = response_frame(600, 9, 77);
    m_peer.send(Bytes(frame.begin(), frame.begin() + 5));
    ASSERT_TRUE(eventually([&] {
        int unread = -1;
        return ::ioctl(m_client->m_socket->m_fd, FIONREAD, &unread) == 0 && unread == 0;
    }));

    std::thread stopper([&] { m_client->stop(); });
    EXPECT_TRUE(eventually([&] { return m_client->m_stop.load(); }));
    m_peer.send(Bytes(frame.begin() + 5, frame.end()));
    stopper.join();

    EXPECT_EQ(1u, m_calls.count());
}

TEST_P(KypStreamclientTest, PortsAtTheEdgesPass) {
    for (const uint16_t port : {uint16_t{1}, uint16_t{4096}}) {
        ASSERT_EQ(0, m_client->add_router(port, RouteCalls::record, &m_calls));
    }
    establish();

    m_peer.send(join({response_frame(1, 9, 77), response_frame(4096, 9, 77)}));

    EXPECT_TRUE(eventually([&] { return m_calls.count() == 2; }));
    EXPECT_EQ((Events{2, 1}), m_events.all());
}

TEST_P(KypStreamclientTest, PortsBeyondTheEdgesCloseTheLink) {
    for (const uint16_t port : {uint16_t{0}, uint16_t{4097}, uint16_t{65535}}) {
        SCOPED_TRACE(port);
        m_client->stop();
        m_events.m_events.clear();
        LogCapture log;
        establish();

        m_peer.send(response_frame(port, 9, 77));

        EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
        EXPECT_TRUE(m_peer.expect_closed());
        EXPECT_EQ(1,
                  log.count("ERROR", "recv port:" + std::to_string(port) + " invaild,msgLen:13"));
    }
}

TEST_P(KypStreamclientTest, LongestFramePasses) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();

    m_peer.send(join({kyp_head(600, 0x5fffff), aoe_head(0, 77, 9, 1), Bytes(0x5fffff - 13)}));

    ASSERT_TRUE(eventually([&] { return m_calls.count() == 1; }));
    EXPECT_EQ(0x5fffffu - 13, m_calls.m_calls[0].data.size());
    EXPECT_EQ((Events{2, 1}), m_events.all());
}

TEST_P(KypStreamclientTest, LongerFramesCloseTheLink) {
    struct Row {
        uint32_t length;
        char const* message;
    };
    for (Row const& row : {Row{0x600000, "kypheader msglen:6291456 too long"},
                           Row{0xffffffff, "kypheader msglen:-1 too long"}}) {
        SCOPED_TRACE(row.length);
        m_client->stop();
        m_events.m_events.clear();
        LogCapture log;
        establish();

        m_peer.send(kyp_head(600, row.length));

        EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
        EXPECT_EQ(1, log.count("ERROR", row.message));
    }
}

TEST_P(KypStreamclientTest, PortIsLookedAtBeforeTheLength) {
    establish();
    LogCapture log;

    m_peer.send(kyp_head(0, 0xffffffff));

    EXPECT_TRUE(log.wait_for("recv port:0 invaild,msgLen:-1"));
    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
    EXPECT_EQ(0, log.count_containing("too long"));
}

TEST_P(KypStreamclientTest, FrameWithoutABodyLeavesTheLinkOpen) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    m_client->m_responses[0].invokeId = 500;
    establish();

    m_peer.send(join({kyp_head(600, 0, 0), kyp_head(600, 0, 1), response_frame(600, 9, 77)}));

    EXPECT_TRUE(eventually([&] { return m_calls.count() == 2; }));
    EXPECT_TRUE(m_calls.all().at(0).data.empty());
    EXPECT_EQ((Events{2, 1}), m_events.all());
}

TEST_P(KypStreamclientTest, FrameForAPortWithoutARouteLeavesTheLinkOpen) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();
    LogCapture log;

    m_peer.send(join({response_frame(601, 9, 77), response_frame(600, 9, 77)}));

    EXPECT_TRUE(eventually([&] { return m_calls.count() == 1; }));
    EXPECT_EQ(1, log.count("ERROR", "port:601 router is not register..."));
    EXPECT_EQ((Events{2, 1}), m_events.all());
}

TEST_P(KypStreamclientTest, FrameMayArriveInSmallPieces) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();

    for (uint8_t byte : response_frame(600, 9, 77, text("pieces"))) m_peer.send({byte});

    ASSERT_TRUE(eventually([&] { return m_calls.count() == 1; }));
    EXPECT_EQ("pieces", as_text(m_calls.m_calls[0].data));
}

TEST_P(KypStreamclientTest, BufferIsUsedAgainAndExchangedForALargerOne) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();
    const std::vector<size_t> sizes{10, 100, 5000, 10, 20000, 40000, 3};

    for (const size_t size : sizes) m_peer.send(response_frame(600, 9, 77, pattern(size)));

    ASSERT_TRUE(eventually([&] { return m_calls.count() == sizes.size(); }));
    for (size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(pattern(sizes[i]), m_calls.m_calls[i].data) << sizes[i];
    }
}

TEST_P(KypStreamclientTest, FrameInAClassWithSmallerBuffersArrivesWhole) {
    auto& pool = utility::instance<client_bufpool>();
    pool.put_one_free(pool.get_one_buf(16383));  // a buffer of 16384 stands in class 32768 now
    pool.put_one_free(pool.get_one_buf(16384));
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();

    m_peer.send(response_frame(600, 9, 77, pattern(30000)));

    ASSERT_TRUE(eventually([&] { return m_calls.count() == 1; }));
    EXPECT_EQ(pattern(30000), m_calls.m_calls[0].data);
}

TEST_P(KypStreamclientTest, KeepsTheBufferInHandFromThePool) {
    auto& pool = utility::instance<client_bufpool>();
    ASSERT_EQ(0, pool.make_buf_list(128, 1));
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();
    m_peer.send(response_frame(600, 9, 77));
    ASSERT_TRUE(eventually([&] { return m_calls.count() == 1; }));

    m_client->stop();

    EXPECT_EQ(nullptr, pool.m_freeLists.at(128));
}

// --- losing the link --------------------------------------------------------------------------

TEST_P(KypStreamclientTest, OrderlyCloseIsReported) {
    establish();
    LogCapture log;

    m_peer.close();

    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
    EXPECT_EQ(1, log.count("ERROR", "connection is close"));
    EXPECT_EQ(0, log.count_containing("received not a complete KypHeader"));
    EXPECT_FALSE(m_client->isconnected());
}

TEST_P(KypStreamclientTest, CloseInMidHeaderIsReported) {
    establish();
    LogCapture log;

    m_peer.send(bytes("00 01 58 02 0D"));
    m_peer.close();

    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
    EXPECT_EQ(1,
              log.count("ERROR", "received not a complete KypHeader,recv:0!=8 sizeof(KypHeader)"));
    EXPECT_EQ(1, log.count("ERROR", "connection is close"));
    EXPECT_FALSE(m_client->isconnected());
}

TEST_P(KypStreamclientTest, CloseInMidBodyIsReported) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();
    LogCapture log;

    m_peer.send(join({kyp_head(600, 100), Bytes(10)}));
    m_peer.close();

    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
    EXPECT_EQ(1,
              log.count("ERROR", "received not a complete package,recv:0!=100 KypHeader nMsgLen"));
    EXPECT_EQ(0u, m_calls.count());
}

TEST_P(KypStreamclientTest, HeaderThatCannotBeReadIsReported) {
    ASSERT_EQ(1, m_client->connect(5000));
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    ASSERT_EQ(8, ::write(ends[1], "12345678", 8));
    ASSERT_NE(-1, ::dup2(ends[0], m_client->m_socket->m_fd));  // readable, and no socket
    LogCapture log;

    m_client->start();

    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
    EXPECT_EQ(0x1010, m_events.m_status);
    EXPECT_EQ(1,
              log.count("ERROR", "received not a complete KypHeader,recv:-1!=8 sizeof(KypHeader)"));
    EXPECT_EQ(0, log.count_containing("connection is close"));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_P(KypStreamclientTest, StatusTellsTheCallbackWhyTheLinkWasLost) {
    struct Row {
        char const* name;
        Bytes sent;
        int status;
    };
    const Row rows[] = {
        {"close", {}, 5},
        {"close in mid-header", bytes("00 01 58 02 0D"), 5},
        {"close in mid-body", join({kyp_head(600, 100), Bytes(10)}), 0x1010},
        {"port", kyp_head(0, 13), 0x1012},
        {"length", kyp_head(600, 0x600000), 0x100d},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.name);
        m_client->stop();
        m_events.m_events.clear();
        establish();

        if (!row.sent.empty()) m_peer.send(row.sent);
        m_peer.shut_writing();

        EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
        EXPECT_EQ(row.status, m_events.m_status);
    }
}

TEST_F(KypTcpclientTest, ResetOfThePeerIsReported) {
    establish();
    LogCapture log;

    m_peer.reset();

    EXPECT_TRUE(m_events.wait_for({2, 1, 5}));
    EXPECT_EQ(1, log.count("ERROR", "connection is close"));
}

TEST_P(KypStreamclientTest, GarbageClosesTheLinkAndTheNextOneWorks) {
    m_events.m_onEvent = [](int) { tlsErrno = 0; };
    establish();
    reconnect_without_pause();

    m_peer.send(Bytes(4096, 0xff));
    RawPeer next = m_listener.accept();

    ASSERT_TRUE(next.connected());
    EXPECT_TRUE(m_events.wait_for({2, 1, 5, 2, 1}));
    m_peer = std::move(next);
    ASSERT_EQ(31, send());
    answer("hello");
    EXPECT_EQ(5, fetch());
}

TEST_P(KypStreamclientTest, WaiterOfALostLinkRunsIntoItsTimeout) {
    establish();
    ASSERT_EQ(31, send());
    m_peer.close();
    ASSERT_TRUE(m_events.wait_for({2, 1, 5}));

    EXPECT_EQ(-1, fetch(100, 1));
    EXPECT_EQ(0x1008, tlsErrno);
}

TEST_P(KypStreamclientTest, KeepsClosingTheNextLinkBehindItsFirstFrame) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    establish();
    reconnect_without_pause();
    m_peer.close();
    RawPeer next = m_listener.accept();
    ASSERT_TRUE(m_events.wait_for({2, 1, 5, 2, 1}));
    m_client->set_reconnect_event(0, false);

    next.send(response_frame(600, 9, 77, text("delivered")));

    EXPECT_TRUE(m_events.wait_for({2, 1, 5, 2, 1, 5}));
    ASSERT_EQ(1u, m_calls.count());
    EXPECT_EQ("delivered", as_text(m_calls.m_calls[0].data));
}

TEST_P(KypStreamclientTest, CallbackThatClearsTheStatusKeepsTheNextLink) {
    ASSERT_EQ(0, m_client->add_router(600, RouteCalls::record, &m_calls));
    m_events.m_onEvent = [](int) { tlsErrno = 0; };
    establish();
    reconnect_without_pause();
    m_peer.close();
    RawPeer next = m_listener.accept();
    ASSERT_TRUE(m_events.wait_for({2, 1, 5, 2, 1}));

    next.send(join({response_frame(600, 9, 77), response_frame(600, 9, 78)}));

    EXPECT_TRUE(eventually([&] { return m_calls.count() == 2; }));
    EXPECT_EQ((Events{2, 1, 5, 2, 1}), m_events.all());
}

// --- reconnecting -----------------------------------------------------------------------------

TEST_F(KypTcpclientTest, TriggerNeedsToBeEnabled) {
    m_client->set_reconnect_event(0, false);

    EXPECT_EQ(0, m_client->is_trigger_reconnect(1500));

    EXPECT_TRUE(m_events.all().empty());
}

TEST_F(KypTcpclientTest, TriggerWaitsForItsInterval) {
    m_client->set_reconnect_event(3600, true);

    EXPECT_EQ(0, m_client->is_trigger_reconnect(1500));

    EXPECT_TRUE(m_events.all().empty());
}

TEST_F(KypTcpclientTest, TriggerReconnectsBehindItsIntervalAndStartsItAnew) {
    m_client->set_reconnect_event(3600, true);
    m_client->m_reconnectTimer.m_nanoseconds -= 3601 * int64_t{1000000000};
    LogCapture log;

    EXPECT_EQ(1, m_client->is_trigger_reconnect(1500));
    EXPECT_EQ(0, m_client->is_trigger_reconnect(1500));

    EXPECT_EQ((Events{2, 1}), m_events.all());
    EXPECT_EQ(1, log.count_containing("trigger Reconnect  HostName:127.0.0.1,port:" +
                                      std::to_string(m_listener.port()) +
                                      ",isDomain:0,IntercalSec:3601."));
    EXPECT_EQ(1, log.count_containing("[libkyp,DEBUG,KypTcpclient.cpp,is_trigger_reconnect,"));
}

TEST_F(KypTcpclientTest, IntervalIsStartedAnewByAFailedAttemptToo) {
    m_listener.close();
    m_client->set_reconnect_event(3600, true);
    m_client->m_reconnectTimer.m_nanoseconds = 0;

    EXPECT_EQ(0, m_client->is_trigger_reconnect(1500));
    EXPECT_EQ((Events{2, 6}), m_events.all());
    EXPECT_EQ(0, m_client->is_trigger_reconnect(1500));
    EXPECT_EQ((Events{2, 6}), m_events.all());
}

TEST_F(KypTcpclientTest, IntervalBelowZeroTriggersEachTime) {
    m_client->set_reconnect_event(-1, true);

    EXPECT_EQ(1, m_client->is_trigger_reconnect(1500));
}

TEST_P(KypStreamclientTest, ThreadConnectsALinkThatWasNeverUp) {
    reconnect_without_pause();
    LogCapture log;

    m_client->start();

    EXPECT_TRUE(m_listener.accept().connected());
    EXPECT_TRUE(log.wait_for(",timeout:1500 ms"));
    EXPECT_TRUE(eventually([&] {
        const Events events = m_events.all();
        return events.size() >= 2 && events[0] == 2 && events[1] == 1;
    }));
}

TEST_P(KypStreamclientTest, CallerMayReconnectALostLink) {
    establish();
    m_peer.close();
    ASSERT_TRUE(m_events.wait_for({2, 1, 5}));

    EXPECT_EQ(1, m_client->reconnect(5000));

    EXPECT_TRUE(m_listener.accept().connected());
    EXPECT_EQ((Events{2, 1, 5, 2, 1}), m_events.all());
}

TEST_P(KypStreamclientTest, SubscriptionsAreSentAgainInTheirOrder) {
    establish();
    for (char const* topic : {"b", "c", "a"}) {
        ASSERT_EQ(0, m_client->subscribe(topic, TopicCalls::record, nullptr));
    }
    reconnect_without_pause();

    m_peer.close();
    RawPeer next = m_listener.accept();

    EXPECT_EQ(subscribe_frame(4, "a"), next.receive_frame());
    EXPECT_EQ(subscribe_frame(5, "b"), next.receive_frame());
    EXPECT_EQ(subscribe_frame(6, "c"), next.receive_frame());
    EXPECT_EQ(3u, m_client->GetSubscribeTopics().size());
}

TEST_P(KypStreamclientTest, CallbackRunsBeforeTheSubscriptionsAreRenewed) {
    ASSERT_EQ(5, m_client->subscribe("topic", TopicCalls::record, nullptr));
    uint32_t idAtEvent = 0;
    m_events.m_onEvent = [&](int event) {
        if (event == 1) idAtEvent = m_client->m_invokeId;
    };

    ASSERT_EQ(1, m_client->connect(5000));

    // The failed "sub" took id 1; the callback still sees 2 as the next one.
    EXPECT_EQ(2u, idAtEvent);
    EXPECT_EQ(subscribe_frame(2, "topic"), m_listener.accept().receive_frame());
}

TEST_P(KypStreamclientTest, TopicMessagesReachTheirCallback) {
    TopicCalls topics;
    establish();
    ASSERT_EQ(0, m_client->subscribe("topic", TopicCalls::record, &topics));

    m_peer.send(delivery_frame(0, "topic", text("news"), 1, 2));

    ASSERT_TRUE(eventually([&] { return topics.count() == 1; }));
    EXPECT_EQ("news", as_text(topics.m_calls[0].data));
    m_client->stop();
}

// --- many threads -----------------------------------------------------------------------------

TEST_P(KypStreamclientTest, SixtyFourThreadsShareOneConnection) {
    SetLogLevel(LOG_LEVEL_CRITICAL);
    establish();
    std::thread peer([this] {
        for (;;) {
            const FrameParts request = take_apart(m_peer.receive_frame());
            if (!request.whole) return;
            m_peer.send(response_frame(request.port, request.cmd, request.invokeId,
                                       Bytes(request.rest.begin() + 8, request.rest.end())));
        }
    });
    std::atomic<int> wrong{0};

    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 64; ++i) {
        threads.emplace_back([&, i] {
            for (uint32_t round = 0; round < 20;) {
                const Bytes payload = join({u32_be(i), u32_be(round), pattern(i * 10)});
                BlockingRequest request(static_cast<uint32_t>(payload.size()));
                request.fill(payload);
                const int result = m_client->AddKypRequest(&request.request);
                if (result == -1) continue;  // its slot is still in use 500 ids later
                if (result != 0 || request.answer != payload) ++wrong;
                ++round;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    m_client.reset();
    peer.join();

    EXPECT_EQ(0, wrong);
}

TEST_P(KypStreamclientTest, SendersAndSubscribersLiveThroughLostLinks) {
    SetLogLevel(LOG_LEVEL_CRITICAL);
    m_events.m_onEvent = [](int) { tlsErrno = 0; };
    reconnect_without_pause();
    m_client->start();
    std::atomic<bool> ended{false};
    std::thread sender([&] {
        while (!ended) {
            send();
            std::this_thread::yield();
        }
    });
    std::thread subscriber([&] {
        for (int round = 0; !ended; ++round) {
            m_client->subscribe(std::to_string(round % 10).c_str(), TopicCalls::record, nullptr);
            std::this_thread::yield();
        }
    });

    for (int round = 0; round < 3; ++round) {
        RawPeer peer = m_listener.accept();
        ASSERT_TRUE(peer.connected());
        EXPECT_TRUE(take_apart(peer.receive_frame()).whole);
    }
    ended = true;
    sender.join();
    subscriber.join();

    EXPECT_FALSE(m_client->GetSubscribeTopics().empty());
}

}  // namespace
