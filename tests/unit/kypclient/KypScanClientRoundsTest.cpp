// The scan as a whole: its thread, and its rounds as a device on a second host sees them.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kypclient/KypScanClient.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/CScanAdapter.h"
#include "support/CallGate.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/RawScanDevice.h"
#include "support/SecondHost.h"
#include "utils/Log.h"

namespace {

using std::chrono::milliseconds;

constexpr char const* kJson =
    R"({"device":{"kypDeviceId":"10.77.0.2.1.1","hostName":"press"},)"
    R"("frames":[{"frameIp":"10.77.0.2","frameMacAddr":"00:1a:2b:3c:4d:5e"}]})";

// Passes of the loop, 300 ms each with the gate shut, that make sure that something stays away.
constexpr int kSomePasses = 4;

// ---- the thread --------------------------------------------------------------------------------

class KypScanClientThreadTest : public ::testing::Test {
protected:
    KypScanClientThreadTest() { SetLogLevel(LOG_LEVEL_DEBUG); }
    ~KypScanClientThreadTest() override { m_client.stop(); }

    CKypScanClient m_client;
};

std::string name_of(std::thread& thread) {
    char name[16] = "";
    pthread_getname_np(thread.native_handle(), name, sizeof name);
    return name;
}

TEST_F(KypScanClientThreadTest, StartsOnceUnderItsName) {
    LogCapture log;

    EXPECT_EQ(0, m_client.start());
    auto const id = m_client.m_thread.get_id();
    EXPECT_EQ(0, m_client.start());

    EXPECT_EQ(id, m_client.m_thread.get_id());
    EXPECT_EQ("KypScan", name_of(m_client.m_thread));
    EXPECT_FALSE(m_client.m_stop);
    EXPECT_EQ(1, log.count("INFO", "KypScan Thread Start"));
}

TEST_F(KypScanClientThreadTest, StopWaitsForItsEnd) {
    LogCapture log;
    m_client.start();

    EXPECT_EQ(0, m_client.stop());

    EXPECT_FALSE(m_client.m_thread.joinable());
    EXPECT_TRUE(m_client.m_stop);
    EXPECT_EQ(1, log.count("DEBUG", "Kyp Scan Client End"));
    EXPECT_EQ(1, log.count("INFO", "KypScan thread stop Over"));
}

TEST_F(KypScanClientThreadTest, StopWithoutAThreadSaysNothing) {
    LogCapture log;

    EXPECT_EQ(0, m_client.stop());
    EXPECT_EQ(0, m_client.stop());

    EXPECT_EQ("", log.text());
}

TEST_F(KypScanClientThreadTest, EndOfTheObjectBeforeItsThreadEndsTheProcess) {
    auto const drop_running = [] {
        CKypScanClient client;
        client.start();
    };

    EXPECT_EXIT(drop_running(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(KypScanClientThreadTest, StartsAgainAfterAStop) {
    LogCapture log;
    CallGate gate;
    m_client.start();
    m_client.stop();

    m_client.start();

    int const before = gate.count("getifaddrs");
    EXPECT_TRUE(eventually([&] { return gate.count("getifaddrs") > before + 1; }));
    EXPECT_EQ(2, log.count("INFO", "KypScan Thread Start"));
}

TEST_F(KypScanClientThreadTest, RunsTheLoopOfADerivedClass) {
    class Counting : public CKypScanClient {
    public:
        int svc() override { return ++m_runs; }
        std::atomic<int> m_runs{0};
    };
    Counting client;

    client.start();
    client.stop();

    EXPECT_EQ(1, client.m_runs);
}

TEST_F(KypScanClientThreadTest, WithoutAnInterfaceTheLoopRests) {
    CallGate gate;
    m_client.startScan();

    m_client.start();

    EXPECT_TRUE(eventually([&] { return gate.count("nanosleep(0,300000000)") >= 2; }));
    EXPECT_EQ(0, gate.count("select"));
    EXPECT_EQ(0, gate.count("sendto"));
}

// ---- rounds, against a device ------------------------------------------------------------------

class KypScanClientRoundsTest : public KypScanClientThreadTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_host.ready() && m_device.ready());
        m_client.registerKypSacnEvent(collect, this);
    }

    ~KypScanClientRoundsTest() override { m_client.stop(); }

    // The first round comes in the first pass.
    void start() {
        m_client.m_lastSend.m_nanoseconds = 0;
        m_client.startScan();
        m_client.start();
    }

    static void collect(_KypDevice device, void* user) {
        auto& test = *static_cast<KypScanClientRoundsTest*>(user);
        std::lock_guard<std::mutex> lock(test.m_mutex);
        test.m_devices.push_back(device);
    }

    std::vector<_KypDevice> devices() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_devices;
    }

    bool wait_for_devices(size_t count) {
        return eventually([this, count] { return devices().size() >= count; });
    }

    // Lets the loop come round often enough to have done what it would do.
    static void let_pass(CallGate& gate) {
        int const before = gate.count("getifaddrs");
        EXPECT_TRUE(eventually([&] { return gate.count("getifaddrs") > before + kSomePasses; }));
    }

    SecondHost m_host;
    RawScanDevice m_device{m_host};
    std::mutex m_mutex;
    std::vector<_KypDevice> m_devices;  // guarded by m_mutex
};

TEST_F(KypScanClientRoundsTest, WithTheGateShutNothingLeavesWhileInterfacesAreListed) {
    CallGate gate;
    m_client.m_lastSend.m_nanoseconds = 0;

    m_client.start();

    let_pass(gate);
    EXPECT_EQ(0, gate.count("sendto"));
    EXPECT_EQ(0, gate.count("bind"));
    EXPECT_EQ(0, gate.count("select"));
    EXPECT_EQ(ScanRequest::NONE, m_device.receive(milliseconds(0)).road);
}

TEST_F(KypScanClientRoundsTest, RoundAsksByMulticastAndByBroadcast) {
    auto const before = time(nullptr);
    start();

    ScanRequest const multicast = m_device.receive_by(ScanRequest::MULTICAST);
    ScanRequest const broadcast = m_device.receive_by(ScanRequest::BROADCAST);

    ASSERT_EQ(9u, multicast.data.size());
    EXPECT_EQ("00 00 00 00 00", hex(multicast.data.data(), 5));
    EXPECT_EQ("10.77.0.1", multicast.host);
    EXPECT_EQ(38897, multicast.port);
    ASSERT_EQ(9u, broadcast.data.size());
    EXPECT_EQ("02 00 00 00 00", hex(broadcast.data.data(), 5));
    EXPECT_EQ("10.77.0.1", broadcast.host);
    EXPECT_NE(38897, broadcast.port);
    uint32_t const stamp = uint32_t{multicast.data[5]} << 24 | uint32_t{multicast.data[6]} << 16 |
                           uint32_t{multicast.data[7]} << 8 | uint32_t{multicast.data[8]};
    EXPECT_LE(static_cast<uint32_t>(before), stamp);
}

TEST_F(KypScanClientRoundsTest, LoopWaitsHalfASecondForReplies) {
    CallGate gate;
    start();

    ASSERT_EQ(ScanRequest::MULTICAST, m_device.receive_by(ScanRequest::MULTICAST).road);

    EXPECT_LE(1, gate.count("select(0,500000)"));
    EXPECT_EQ(gate.count("select"), gate.count("select(0,500000)"));
}

// The datagrams' times are those at the far interface; a round that was held up on its way there
// comes nearer to the next one, so a part of the second is spared.
constexpr milliseconds kLeastApart(800);

TEST_F(KypScanClientRoundsTest, RoundsAreASecondApartAlsoWhileRepliesCome) {
    start();
    std::atomic<bool> isOver{false};
    ScanRequest previous[2] = {m_device.receive_by(ScanRequest::MULTICAST),
                               m_device.receive_by(ScanRequest::BROADCAST)};
    ASSERT_EQ(ScanRequest::BROADCAST, previous[1].road);
    // Each reply wakes the loop, which then comes round much more often than each half second.
    std::thread chatter([&, first = previous[0]] {
        while (!isOver) {
            m_device.answer(first, scan_reply(1, kJson));
            std::this_thread::sleep_for(milliseconds(5));
        }
    });

    int requests = 0;
    for (; requests < 4; ++requests) {
        ScanRequest const request = m_device.receive();
        if (request.road == ScanRequest::NONE) break;
        ScanRequest& last = previous[request.road == ScanRequest::BROADCAST];
        EXPECT_LE(kLeastApart, request.arrival - last.arrival);
        last = request;
    }
    isOver = true;
    chatter.join();

    EXPECT_EQ(4, requests);
    EXPECT_LT(10u, devices().size());
}

TEST_F(KypScanClientRoundsTest, RepliesOfBothRoadsAreReported) {
    start();

    m_device.answer(m_device.receive_by(ScanRequest::MULTICAST), scan_reply(1, kJson));
    ASSERT_TRUE(wait_for_devices(1));
    m_device.answer(m_device.receive_by(ScanRequest::BROADCAST), scan_reply(3, kJson));
    ASSERT_TRUE(wait_for_devices(2));

    for (_KypDevice const& device : devices()) {
        EXPECT_STREQ("10.77.0.2", device.ipAddr);
        EXPECT_STREQ("00:1a:2b:3c:4d:5e", device.macAddr);
        EXPECT_STREQ("10.77.0.2.1.1", device.kypDeviceId);
        EXPECT_STREQ("press", device.hostName);
    }
}

TEST_F(KypScanClientRoundsTest, BadRepliesAreDroppedAndGoodOnesStillCome) {
    LogCapture log;
    start();
    ScanRequest const request = m_device.receive_by(ScanRequest::BROADCAST);

    for (Bytes const& bad :
         {Bytes{}, bytes("03"), bytes("03 00 00 00 00 00 00 00"), scan_reply(3, ""),
          scan_reply(3, "garbage"), scan_reply(0, kJson), scan_reply(2, kJson),
          scan_reply(4, kJson), scan_reply(3, kJson, 1), scan_reply(3, R"({"frames":null})"),
          scan_reply(3, std::string(3000, '[')), scan_reply(3, R"({"device":{"sn":7}})"),
          request.data}) {
        m_device.answer(request, bad);
    }
    m_device.answer(request, scan_reply(3, kJson));

    ASSERT_TRUE(wait_for_devices(1));
    EXPECT_STREQ("press", devices()[0].hostName);
    EXPECT_EQ(1, log.count("ERROR", "not json:"));
    EXPECT_EQ(1, log.count("ERROR", "not json:garbage"));
    EXPECT_EQ(1, log.count("ERROR", R"(not json:{"device":{"sn":7}})"));
    EXPECT_EQ(1, log.count("ERROR", "not json:" + std::string(2039, '[')));
    EXPECT_EQ(4, log.count_containing("not json:"));
}

TEST_F(KypScanClientRoundsTest, ShutGateEndsTheRounds) {
    start();
    ASSERT_EQ(ScanRequest::BROADCAST, m_device.receive_by(ScanRequest::BROADCAST).road);

    m_client.stopScan();

    // The gate is looked at before each round; one that has begun goes out.
    CallGate gate;
    EXPECT_TRUE(eventually([&] { return gate.count("nanosleep(0,300000000)") >= 1; }));
    while (m_device.receive(milliseconds(0)).road != ScanRequest::NONE) {
    }
    let_pass(gate);  // more than the second behind which a round is due
    EXPECT_EQ(ScanRequest::NONE, m_device.receive(milliseconds(0)).road);
}

TEST_F(KypScanClientRoundsTest, KeepsReportingWhatCameWhileTheGateWasShut) {
    start();
    ScanRequest const request = m_device.receive_by(ScanRequest::MULTICAST);
    m_client.stopScan();
    CallGate gate;
    ASSERT_TRUE(eventually([&] { return gate.count("nanosleep(0,300000000)") >= 1; }));

    m_device.answer(request, scan_reply(1, kJson));
    let_pass(gate);
    EXPECT_TRUE(devices().empty());
    m_client.startScan();

    EXPECT_TRUE(wait_for_devices(1));
}

TEST_F(KypScanClientRoundsTest, MulticastSocketIsReadBeforeTheBroadcastSocket) {
    start();
    ScanRequest const multicast = m_device.receive_by(ScanRequest::MULTICAST);
    ScanRequest const broadcast = m_device.receive_by(ScanRequest::BROADCAST);
    m_client.stopScan();
    CallGate gate;
    ASSERT_TRUE(eventually([&] { return gate.count("nanosleep(0,300000000)") >= 1; }));

    // Both wait when the gate opens, the later one on the socket that is read first.
    m_device.answer(broadcast, scan_reply(3, R"({"device":{"sn":"broadcast"}})"));
    m_device.answer(multicast, scan_reply(1, R"({"device":{"sn":"multicast"}})"));
    m_client.startScan();

    ASSERT_TRUE(wait_for_devices(2));
    EXPECT_STREQ("multicast", devices()[0].sn);
    EXPECT_STREQ("broadcast", devices()[1].sn);
}

TEST_F(KypScanClientRoundsTest, InterfaceWithANewAddressIsAskedFromThere) {
    start();
    ASSERT_EQ("10.77.0.1", m_device.receive_by(ScanRequest::BROADCAST).host);

    ASSERT_EQ(0, system("ip addr add 10.77.0.7/24 broadcast + dev kyp0 && "
                        "ip addr del 10.77.0.1/24 dev kyp0; ip addr replace 10.77.0.7/24 broadcast "
                        "+ dev kyp0"));

    ScanRequest multicast;
    EXPECT_TRUE(eventually([&] {
        multicast = m_device.receive_by(ScanRequest::MULTICAST);
        return multicast.host == "10.77.0.7";
    }));
    EXPECT_EQ("10.77.0.7", m_device.receive_by(ScanRequest::BROADCAST).host);
    m_device.answer(multicast, scan_reply(1, kJson));
    EXPECT_TRUE(wait_for_devices(1));
}

TEST_F(KypScanClientRoundsTest, InterfaceThatComesLaterIsTakenIn) {
    ASSERT_EQ(0, system("ip link set kyp0 down"));
    CallGate gate;
    start();
    let_pass(gate);
    EXPECT_EQ(0, gate.count("sendto"));

    ASSERT_EQ(0, system("ip link set kyp0 up"));

    EXPECT_EQ("10.77.0.1", m_device.receive_by(ScanRequest::BROADCAST).host);
}

TEST_F(KypScanClientRoundsTest, SocketThatFailedToOpenLeavesTheOtherRoad) {
    LogCapture log;
    CallGate gate;
    gate.fail("bind(16)", EADDRINUSE);
    start();

    ScanRequest const request = m_device.receive();

    EXPECT_EQ(ScanRequest::BROADCAST, request.road);
    EXPECT_EQ(1, log.count("ERROR", "ip:10.77.0.1 bind port:38897 error,Address already in use"));
    m_device.answer(request, scan_reply(3, kJson));
    EXPECT_TRUE(wait_for_devices(1));
}

TEST_F(KypScanClientRoundsTest, WithoutAnySocketTheLoopGoesOn) {
    CallGate gate;
    gate.fail("bind(16)", EADDRINUSE);
    gate.fail("setsockopt(1,6,", EACCES);
    start();

    let_pass(gate);

    EXPECT_EQ(0, gate.count("sendto"));
    EXPECT_LE(1, gate.count("select(0,500000)"));
    EXPECT_EQ(1, gate.select_width());
}

TEST_F(KypScanClientRoundsTest, WithoutAnAddressTheLoopWaitsForOneDescriptor) {
    ASSERT_EQ(0, system("ip addr flush dev kyp0"));
    CallGate gate;
    start();

    let_pass(gate);

    EXPECT_LE(1, gate.count("select(0,500000)"));
    EXPECT_EQ(1, gate.select_width());
    EXPECT_EQ(0, gate.count("bind"));
    EXPECT_EQ(0, gate.count("sendto"));
}

TEST_F(KypScanClientRoundsTest, SocketsBeyondTheSelectableOnesSendAndAreNotRead) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1100) GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors";
    limit.rlim_cur = 1100;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> held;
    do {
        held.push_back(dup(0));
    } while (held.back() < 1023);
    start();

    ScanRequest const request = m_device.receive_by(ScanRequest::BROADCAST);
    m_device.answer(request, scan_reply(3, kJson));
    EXPECT_EQ(ScanRequest::BROADCAST, m_device.receive_by(ScanRequest::BROADCAST).road);

    EXPECT_TRUE(devices().empty());
    for (int const fd : held) close(fd);
}

TEST_F(KypScanClientRoundsTest, FailedSelectIsLoggedAndTheLoopGoesOn) {
    LogCapture log;
    CallGate gate;
    gate.fail("select", EINTR, 2);
    start();

    EXPECT_EQ(ScanRequest::BROADCAST, m_device.receive_by(ScanRequest::BROADCAST).road);

    EXPECT_EQ(2, log.count("ERROR", "Select error!"));
}

TEST_F(KypScanClientRoundsTest, FailedSendIsLoggedAndTheRoundGoesOn) {
    LogCapture log;
    CallGate gate;
    gate.fail("sendto", ENETUNREACH);
    start();

    EXPECT_EQ(ScanRequest::BROADCAST, m_device.receive().road);

    EXPECT_EQ(1, log.count("ERROR", "send kyp search packet fail"));
}

TEST_F(KypScanClientRoundsTest, CallbackThatThrowsDoesNotEndTheLoop) {
    LogCapture log;
    static std::atomic<int> calls{0};
    m_client.registerKypSacnEvent(
        [](_KypDevice, void*) {
            if (++calls == 1) throw std::runtime_error("no room");
            if (calls == 2) throw 17;
        },
        nullptr);
    start();
    ScanRequest const request = m_device.receive_by(ScanRequest::MULTICAST);

    for (int i = 0; i < 3; ++i) m_device.answer(request, scan_reply(1, kJson));

    EXPECT_TRUE(eventually([] { return calls == 3; }));
    EXPECT_EQ(1, log.count("ERROR", "scan pass fail,error:no room"));
    EXPECT_EQ(1, log.count("ERROR", "scan pass fail,error:unknown exception"));
    EXPECT_EQ(0, log.count_containing("not json"));
}

TEST_F(KypScanClientRoundsTest, StopFromTheCallbackOnlyAsksForTheEnd) {
    LogCapture log;
    m_client.registerKypSacnEvent(
        [](_KypDevice, void* user) { static_cast<CKypScanClient*>(user)->stop(); }, &m_client);
    start();

    m_device.answer(m_device.receive_by(ScanRequest::MULTICAST), scan_reply(1, kJson));

    EXPECT_TRUE(log.wait_for("Kyp Scan Client End"));
    EXPECT_EQ(1u, m_client.m_adapters.size());
    m_client.stop();
    EXPECT_EQ(1, log.count("INFO", "KypScan thread stop Over"));
}

TEST_F(KypScanClientRoundsTest, NewStartAfterAStopScansAgain) {
    start();
    ASSERT_EQ(ScanRequest::BROADCAST, m_device.receive_by(ScanRequest::BROADCAST).road);
    m_client.stop();
    EXPECT_TRUE(m_client.m_adapters.empty());

    start();

    EXPECT_EQ(ScanRequest::BROADCAST, m_device.receive_by(ScanRequest::BROADCAST).road);
}

}  // namespace
