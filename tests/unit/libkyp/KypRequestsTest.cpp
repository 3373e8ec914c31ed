// The simple requests of the C interface, against a device that speaks raw bytes and against the
// server core.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include "LibkypFixture.h"
#include "kypcomm/KypWire.h"
#include "kypcore/router/RouteManage.h"
#include "support/CoreServer.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kPatient = 20000;  // ms; no test waits that long unless it fails
constexpr int kThreads = 32;
// Below 500 requests in all: no slot comes round again while a thread is still about to leave it.
constexpr int kRounds = 5;

// A device on TCP 9999 that hands each request to `answer` and sends what that gives, if anything.
class Device {
public:
    using Answer = std::function<Bytes(FrameParts const&)>;

    explicit Device(Answer answer)
        : m_answer(std::move(answer)), m_acceptor([this] { accept(); }) {}

    // The clients have ended by now, or are dropped here.
    ~Device() {
        m_stop = true;
        RawPeer::connect_tcp(9999);  // wakes the acceptor
        m_acceptor.join();
        for (std::thread& link : m_links) link.join();
    }
    Device(Device const&) = delete;
    Device& operator=(Device const&) = delete;

    std::vector<Bytes> requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

    int links() const { return m_accepted; }

private:
    void accept() {
        for (;;) {
            RawPeer peer = m_listener.accept(std::chrono::minutes(2));
            if (m_stop || !peer.connected()) return;
            ++m_accepted;
            m_links.emplace_back([this, peer = std::move(peer)]() mutable { serve(peer); });
        }
    }

    void serve(RawPeer& peer) {
        for (;;) {
            Bytes const request = peer.receive_frame();
            FrameParts const parts = take_apart(request);
            if (!parts.whole) return;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_requests.push_back(request);
            }
            Bytes const answer = m_answer(parts);
            if (!answer.empty() && !peer.send(answer)) return;
        }
    }

    Answer m_answer;
    RawListener m_listener = RawListener::tcp(9999);
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_accepted{0};
    std::mutex m_mutex;  // guards m_requests
    std::vector<Bytes> m_requests;
    std::vector<std::thread> m_links;
    std::thread m_acceptor;  // starts last: it uses all the others
};

Device::Answer answers_with(Bytes const& payload, uint32_t error = 0) {
    return [payload, error](FrameParts const& request) {
        return response_frame(request.port, request.cmd, request.invokeId, payload, error);
    };
}

Bytes is_silent(FrameParts const&) {
    return {};
}

// Gives back what it was sent, without the address.
Bytes echoes(FrameParts const& request) {
    return response_frame(request.port, request.cmd, request.invokeId,
                          Bytes(request.rest.begin() + 8, request.rest.end()));
}

class KypRequestsTest : public LibkypTest {
protected:
    ~KypRequestsTest() override { end_connections(); }

    void start(Device::Answer answer) { m_device = std::make_unique<Device>(std::move(answer)); }

    // Each connection takes half a second to stop: all at once.
    static void end_connections() {
        std::vector<std::thread> threads;
        for (IKypPeerConnection* conn : manager().m_connections) {
            threads.emplace_back([conn] { conn->stop(); });
        }
        for (std::thread& thread : threads) thread.join();
        manager().ClearPeerConnection();
        manager().m_byDeviceId.clear();
    }

    int read(unsigned int readLen, int timeoutMs = kPatient) {
        return KypSyncReadReq(m_loopback, 600, 0x10, 0x20, readLen, m_answer, &m_size, timeoutMs);
    }

    int write(std::string data, int timeoutMs = kPatient) {
        return KypSyncWriteReq(m_loopback, 600, 0x10, 0x20, static_cast<unsigned int>(data.size()),
                               &data[0], timeoutMs);
    }

    int read_write(std::string data, unsigned int readLen, int timeoutMs = kPatient) {
        return KypSyncReadWriteReq(m_loopback, 600, 0x10, 0x20, readLen, m_answer,
                                   static_cast<unsigned int>(data.size()), &data[0], &m_size,
                                   timeoutMs);
    }

    struct Row {
        char const* name;
        std::function<int()> ask;
    };
    std::vector<Row> all_requests(int timeoutMs = kPatient) {
        return {{"read", [=] { return read(64, timeoutMs); }},
                {"write", [=] { return write("AB", timeoutMs); }},
                {"read-write", [=] { return read_write("AB", 64, timeoutMs); }}};
    }

    std::unique_ptr<Device> m_device;
    char m_answer[128] = {};
    unsigned int m_size = 99;
};

// ---- other names -------------------------------------------------------------------------------

TEST_F(KypRequestsTest, InitStartsTheLibraryOnce) {
    LogCapture log;

    EXPECT_EQ(0, KypInit());
    EXPECT_EQ(0, libkyp_init());
    EXPECT_EQ(0, KypInit());
    // One, or none when an earlier run of this process has started it.
    EXPECT_GE(1, log.count_containing("libkyp Version"));
}

TEST_F(KypRequestsTest, SecondInitLeavesTheStatus) {
    ASSERT_EQ(0, KypInit());
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, KypInit());
    EXPECT_EQ(KYP_ERR_TOPIC, tlsErrno);
}

TEST_F(KypRequestsTest, LocalDeviceIdIsThatOfTheOtherName) {
    _KypDeviceId expected{};
    ASSERT_EQ(0, libkyp_getLocalKypDeviceId(&expected));
    _KypDeviceId id{{9, 9, 9, 9, 9, 9}};

    EXPECT_EQ(0, KypGetLocalDeviceId(&id));
    EXPECT_THAT(id.bytes, ::testing::ElementsAreArray(expected.bytes));
}

TEST_F(KypRequestsTest, LocalDeviceIdNeedsAPlace) {
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, KypGetLocalDeviceId(nullptr));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
}

TEST_F(KypRequestsTest, RemoteDeviceIsAskedForItsId) {
    RawUdp udp(38898);
    std::thread device([&udp] {
        RawDatagram const datagram = udp.receive();
        udp.send_to(datagram.port, response_frame(101, 1, take_apart(datagram.data).invokeId,
                                                  bytes("0A 00 00 05 01 02")));
    });
    _KypDeviceId id{};

    EXPECT_EQ(0, KypGetRemoteDeviceId("127.0.0.1", &id, kPatient));
    EXPECT_THAT(id.bytes, ElementsAre(10, 0, 0, 5, 1, 2));
    device.join();
}

TEST_F(KypRequestsTest, SilentRemoteDeviceIsReported) {
    RawUdp udp(38898);
    _KypDeviceId id{{9, 9, 9, 9, 9, 9}};

    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, KypGetRemoteDeviceId("127.0.0.1", &id, 10));
    EXPECT_THAT(id.bytes, Each(9));
}

TEST_F(KypRequestsTest, RemoteDeviceIdNeedsAHostAndAPlace) {
    _KypDeviceId id{};

    EXPECT_EQ(KYP_ERR_INPUT_PARAM, KypGetRemoteDeviceId("127.0.0.1", nullptr, 10));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, KypGetRemoteDeviceId(nullptr, &id, 10));
}

TEST_F(KypRequestsTest, DeviceIdIsMadeOfText) {
    _KypDeviceId id{};

    EXPECT_EQ(0, KypMakeDeviceId("192.168.1.10.2.3", &id));
    EXPECT_THAT(id.bytes, ElementsAre(192, 168, 1, 10, 2, 3));
    EXPECT_EQ(0, KypMakeDeviceId("no id", &id));
    EXPECT_THAT(id.bytes, Each(0));
}

TEST_F(KypRequestsTest, KeepsReadDeviceInfoWithoutAnyEffect) {
    LogCapture log;
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, KypSyncReadDeviceInfo());
    EXPECT_EQ(KYP_ERR_TOPIC, tlsErrno);
    EXPECT_EQ("", log.text());
    EXPECT_THAT(manager().m_connections, IsEmpty());
}

// ---- what is sent ------------------------------------------------------------------------------

TEST_F(KypRequestsTest, ReadSendsItsCommandAndAddress) {
    start(answers_with({}));

    EXPECT_EQ(
        0, KypSyncReadReq(m_loopback, 600, 0x01020304, 0x05060708, 0, nullptr, nullptr, kPatient));
    EXPECT_THAT(m_device->requests(), ElementsAre(bytes("00 01 58 02 15 00 00 00 "
                                                        "00 00 00 00 00 00 00 01 00 02 00 00 00 "
                                                        "01 02 03 04 05 06 07 08")));
}

TEST_F(KypRequestsTest, WriteSendsItsDataToo) {
    start(answers_with({}));

    EXPECT_EQ(0, write("AB"));
    EXPECT_THAT(m_device->requests(), ElementsAre(bytes("00 01 58 02 17 00 00 00 "
                                                        "00 00 00 00 00 00 00 01 00 04 00 00 00 "
                                                        "00 00 00 10 00 00 00 20 41 42")));
}

TEST_F(KypRequestsTest, ReadWriteSendsItsDataToo) {
    start(answers_with({}));

    EXPECT_EQ(0, read_write("AB", 64));
    EXPECT_THAT(m_device->requests(), ElementsAre(bytes("00 01 58 02 17 00 00 00 "
                                                        "00 00 00 00 00 00 00 01 00 09 00 00 00 "
                                                        "00 00 00 10 00 00 00 20 41 42")));
}

TEST_F(KypRequestsTest, WriteOfNothingNeedsNoData) {
    start(answers_with({}));

    EXPECT_EQ(0, KypSyncWriteReq(m_loopback, 600, 0x10, 0x20, 0, nullptr, kPatient));
    EXPECT_EQ(0, KypSyncReadWriteReq(m_loopback, 600, 0x10, 0x20, 0, nullptr, 0, nullptr, nullptr,
                                     kPatient));
    EXPECT_THAT(m_device->requests(), ElementsAre(request_frame(600, 4, 1, 0x10, 0x20),
                                                  request_frame(600, 9, 2, 0x10, 0x20)));
}

TEST_F(KypRequestsTest, LengthWithoutDataIsRefused) {
    EXPECT_EQ(KYP_ERR_INPUT_PARAM,
              KypSyncWriteReq(m_loopback, 600, 0x10, 0x20, 5, nullptr, kPatient));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
    tlsErrno = KYP_OK;
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, KypSyncReadWriteReq(m_loopback, 600, 0x10, 0x20, 64, m_answer, 5,
                                                       nullptr, &m_size, kPatient));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
    EXPECT_EQ(0U, m_size);
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, KypSyncReadWriteReq(m_loopback, 600, 0x10, 0x20, 64, m_answer, 5,
                                                       nullptr, nullptr, kPatient));
    EXPECT_THAT(manager().m_connections, IsEmpty());
}

TEST_F(KypRequestsTest, LargePayloadsPassWhole) {
    start(echoes);
    Bytes data = pattern(1000000);
    Bytes answer(data.size());

    EXPECT_EQ(0, KypSyncReadWriteReq(m_loopback, 600, 1, 2, 1000000, answer.data(), 1000000,
                                     data.data(), &m_size, kPatient));
    EXPECT_EQ(1000000U, m_size);
    EXPECT_TRUE(data == answer);
}

TEST_F(KypRequestsTest, OneBufferServesBothWays) {
    start(answers_with(text("CDE")));
    char both[] = "AB.";

    EXPECT_EQ(0, KypSyncReadWriteReq(m_loopback, 600, 1, 2, 3, both, 2, both, nullptr, kPatient));
    EXPECT_STREQ("CDE", both);
    Bytes const request = m_device->requests().at(0);
    EXPECT_EQ(text("AB"), Bytes(request.begin() + 29, request.end()));
}

// ---- what comes back ---------------------------------------------------------------------------

TEST_F(KypRequestsTest, AnswerGoesToTheBuffer) {
    start(answers_with(text("CDE")));

    EXPECT_EQ(0, read(64));
    EXPECT_STREQ("CDE", m_answer);
    EXPECT_EQ(3U, m_size);
    EXPECT_EQ(0, read_write("AB", 64));
    EXPECT_EQ(3U, m_size);
}

TEST_F(KypRequestsTest, LongerAnswerIsCutAndItsSizeTold) {
    Bytes const payload = pattern(100);
    start(answers_with(payload));

    for (Row const& row : {Row{"read", [&] { return read(10); }},
                           Row{"read-write", [&] { return read_write("AB", 10); }}}) {
        SCOPED_TRACE(row.name);
        memset(m_answer, 0x55, sizeof(m_answer));

        EXPECT_EQ(0, row.ask());
        EXPECT_EQ(100U, m_size);
        EXPECT_EQ(0, memcmp(payload.data(), m_answer, 10));
        EXPECT_THAT(std::string(m_answer + 10, sizeof(m_answer) - 10), Each('\x55'));
    }
}

TEST_F(KypRequestsTest, AnswerAsLargeAsTheBufferIsWhole) {
    Bytes const payload = pattern(100);
    start(answers_with(payload));

    EXPECT_EQ(0, read(100));
    EXPECT_EQ(payload, Bytes(m_answer, m_answer + 100));
    EXPECT_EQ(0, m_answer[100]);
}

TEST_F(KypRequestsTest, SizeOfTheAnswerNeedNotBeAskedFor) {
    start(answers_with(text("CDE")));

    EXPECT_EQ(0, KypSyncReadReq(m_loopback, 600, 1, 2, 64, m_answer, nullptr, kPatient));
    EXPECT_STREQ("CDE", m_answer);
    EXPECT_EQ(
        0, KypSyncReadWriteReq(m_loopback, 600, 1, 2, 64, m_answer, 0, nullptr, nullptr, kPatient));
}

TEST_F(KypRequestsTest, AnswerWithoutABufferIsOnlyCounted) {
    start(answers_with(text("CDE")));

    EXPECT_EQ(0, KypSyncReadReq(m_loopback, 600, 1, 2, 64, nullptr, &m_size, kPatient));
    EXPECT_EQ(3U, m_size);
}

TEST_F(KypRequestsTest, PayloadOfTheAnswerToAWriteIsDropped) {
    start(answers_with(pattern(5000)));
    std::string data = "AB";

    EXPECT_EQ(0, KypSyncWriteReq(m_loopback, 600, 1, 2, 2, &data[0], kPatient));
    EXPECT_EQ("AB", data);
    EXPECT_EQ(0, write("CD"));
}

TEST_F(KypRequestsTest, ErrorOfTheDeviceIsTheResult) {
    start(answers_with(text("why"), KYP_ERR_INDEX_GROUP));

    for (Row const& row : all_requests()) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_OK;

        EXPECT_EQ(KYP_ERR_INDEX_GROUP, row.ask());
        EXPECT_EQ(KYP_ERR_INDEX_GROUP, libkyp_get_errno());
    }
}

TEST_F(KypRequestsTest, PayloadOfAnErrorIsDeliveredAndCounted) {
    start(answers_with(text("why"), KYP_ERR_INDEX_GROUP));

    EXPECT_EQ(KYP_ERR_INDEX_GROUP, read_write("AB", 64));
    EXPECT_EQ(3U, m_size);
    EXPECT_STREQ("why", m_answer);
}

TEST_F(KypRequestsTest, SuccessClearsTheStatusOfAnEarlierCall) {
    start(answers_with({}));

    for (Row const& row : all_requests()) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_ERR_TOPIC;

        EXPECT_EQ(0, row.ask());
        EXPECT_EQ(0, libkyp_get_errno());
    }
}

// ---- no answer ---------------------------------------------------------------------------------

TEST_F(KypRequestsTest, SilentDeviceIsReportedInTime) {
    start(is_silent);

    for (Row const& row : all_requests(10)) {
        SCOPED_TRACE(row.name);
        m_size = 0;
        tlsErrno = KYP_OK;

        EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, row.ask());
        EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkyp_get_errno());
        EXPECT_EQ(0U, m_size);
    }
}

TEST_F(KypRequestsTest, NoTimeIsNeverEnough) {
    start(answers_with(text("CDE")));
    ASSERT_EQ(0, write("AB"));

    for (int timeoutMs : {0, -1, -1000000}) {
        for (Row const& row : all_requests(timeoutMs)) {
            SCOPED_TRACE(row.name);
            SCOPED_TRACE(timeoutMs);

            EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, row.ask());
            EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkyp_get_errno());
        }
    }
    EXPECT_STREQ("", m_answer);
}

TEST_F(KypRequestsTest, LateAnswerTouchesNothing) {
    std::atomic<bool> late{false};
    start([&late](FrameParts const& request) {
        eventually([&late] { return late.load(); });
        return response_frame(request.port, request.cmd, request.invokeId, text("late"));
    });
    LogCapture log;
    ASSERT_EQ(KYP_ERR_RECV_TIMEOUT, read(64, 10));

    late = true;

    EXPECT_TRUE(log.wait_for("port:600 router is not register..."));
    EXPECT_STREQ("", m_answer);
    EXPECT_EQ(0U, m_size);
    EXPECT_EQ(0, read(64));
}

TEST_F(KypRequestsTest, AnswerOfAnEarlierRequestIsNotTaken) {
    start([](FrameParts const& request) {
        return join({response_frame(request.port, request.cmd, request.invokeId - 1, text("old")),
                     response_frame(request.port, request.cmd, request.invokeId, text("new"))});
    });
    ASSERT_EQ(0, write("AB"));

    EXPECT_EQ(0, read(64));
    EXPECT_STREQ("new", m_answer);
}

TEST_F(KypRequestsTest, KeepsTheStatusAtZeroWhenTheSlotIsStillInUse) {
    start(answers_with({}));
    ASSERT_EQ(0, write("AB"));
    IKypPeerConnection* const conn = manager().GetPeerConnection(m_loopback);
    auto* const owner = reinterpret_cast<KypRequest*>(uintptr_t{8});
    unsigned int id = 2;

    for (Row const& row : all_requests()) {
        SCOPED_TRACE(row.name);
        KypResponse& slot = conn->m_responses[id++];
        slot.request = owner;
        tlsErrno = KYP_ERR_TOPIC;

        EXPECT_EQ(-1, row.ask());
        EXPECT_EQ(0, libkyp_get_errno());
        slot.request = nullptr;
    }
    EXPECT_THAT(m_device->requests(), SizeIs(1));
}

// ---- the connection ----------------------------------------------------------------------------

TEST_F(KypRequestsTest, FirstRequestConnectsForUpTo1500MsAndLaterOnesShareTheConnection) {
    start(answers_with({}));
    LogCapture log;

    for (Row const& row : all_requests()) EXPECT_EQ(0, row.ask());

    EXPECT_EQ(1, log.count("INFO",
                           "tcpclient ready connect  HostName:127.0.0.1,port:9999,timeoutms:1500,"
                           "isDomain:0"));
    EXPECT_EQ(1, m_device->links());
    EXPECT_THAT(manager().m_connections, SizeIs(1));
}

TEST_F(KypRequestsTest, UnreachableDeviceIsReportedAndTheConnectionKept) {
    for (Row const& row : all_requests()) {
        SCOPED_TRACE(row.name);
        m_size = 0;
        tlsErrno = KYP_OK;

        EXPECT_EQ(-1, row.ask());
        EXPECT_EQ(KYP_ERR_DISCONNECTED, libkyp_get_errno());
        EXPECT_EQ(0U, m_size);
    }
    EXPECT_THAT(manager().m_connections, SizeIs(1));
}

TEST_F(KypRequestsTest, UnansweredRequestClearsTheSize) {
    EXPECT_EQ(-1, read(64));
    EXPECT_EQ(0U, m_size);
}

TEST_F(KypRequestsTest, LostLinkIsReported) {
    RawListener listener = RawListener::tcp(9999);
    std::thread device([&listener] {
        RawPeer peer = listener.accept();
        FrameParts const request = take_apart(peer.receive_frame());
        peer.send(response_frame(600, 4, request.invokeId));
        listener.close();
    });
    ASSERT_EQ(0, write("AB"));
    device.join();
    IKypPeerConnection* const conn = manager().GetPeerConnection(m_loopback);
    ASSERT_TRUE(eventually([conn] { return !conn->isconnected(); }));

    for (Row const& row : all_requests()) {
        SCOPED_TRACE(row.name);

        EXPECT_EQ(-1, row.ask());
        EXPECT_EQ(KYP_ERR_DISCONNECTED, libkyp_get_errno());
    }
}

// ---- from many threads -------------------------------------------------------------------------

class ManyThreadsTest : public KypRequestsTest {
protected:
    // Thread `n` asks `rounds` times in each of the three ways and checks each answer, which is
    // its own data.
    static void run_threads(_KypDeviceId id, unsigned short port, int rounds) {
        std::vector<std::thread> threads;
        for (int n = 0; n < kThreads; ++n) {
            threads.emplace_back([=] { ask(id, port, n, rounds); });
        }
        for (std::thread& thread : threads) thread.join();
    }

    static void ask(_KypDeviceId id, unsigned short port, int n, int rounds) {
        for (int round = 0; round < rounds; ++round) {
            std::string data = "thread " + std::to_string(n) + " round " + std::to_string(round);
            auto const len = static_cast<unsigned int>(data.size());
            char answer[64] = {};
            unsigned int size = 99;

            EXPECT_EQ(0, KypSyncReadWriteReq(id, port, 1, 2, sizeof(answer), answer, len, &data[0],
                                             &size, kPatient));
            EXPECT_EQ(data, answer);
            EXPECT_EQ(len, size);
            EXPECT_EQ(0, KypSyncWriteReq(id, port, 1, 2, len, &data[0], kPatient));
            EXPECT_EQ(0, KypSyncReadReq(id, port, 1, 2, sizeof(answer), answer, &size, kPatient));
            EXPECT_EQ(0U, size);
            EXPECT_EQ(0, libkyp_get_errno());
        }
    }
};

TEST_F(ManyThreadsTest, AskARawDeviceForTheFirstTimeAtOnce) {
    SetLogLevel(LOG_LEVEL_WARNING);
    start(echoes);

    run_threads(m_loopback, 600, kRounds);

    EXPECT_THAT(manager().m_byDeviceId, SizeIs(1));
    EXPECT_THAT(m_device->requests(), SizeIs(kThreads * kRounds * 3));
}

TEST_F(ManyThreadsTest, ShareOneConnection) {
    SetLogLevel(LOG_LEVEL_WARNING);
    start(echoes);
    ASSERT_EQ(0, write("AB"));

    run_threads(m_loopback, 600, kRounds);

    EXPECT_EQ(1, m_device->links());
}

TEST_F(ManyThreadsTest, AskTheServerCore) {
    SetLogLevel(LOG_LEVEL_WARNING);
    CoreServer server;
    ASSERT_TRUE(server.listen_tcp());
    ASSERT_EQ(0, KypSyncWriteReq(m_loopback, kPortEcho, 1, 2, 0, nullptr, kPatient));

    run_threads(m_loopback, kPortEcho, kRounds);

    EXPECT_THAT(server.connections(), SizeIs(1));
    end_connections();
}

TEST_F(ManyThreadsTest, TimeoutsOfSomeLeaveTheOthersAlone) {
    SetLogLevel(LOG_LEVEL_WARNING);
    // Port 601 gets no answers.
    start(
        [](FrameParts const& request) { return request.port == 601 ? Bytes() : echoes(request); });
    ASSERT_EQ(0, write("AB"));
    std::thread impatient([this] {
        for (int n = 0; n < 20; ++n) {
            EXPECT_EQ(KYP_ERR_RECV_TIMEOUT,
                      KypSyncReadReq(m_loopback, 601, 1, 2, 0, nullptr, nullptr, 1));
        }
    });

    run_threads(m_loopback, 600, kRounds - 1);

    impatient.join();
}

}  // namespace
