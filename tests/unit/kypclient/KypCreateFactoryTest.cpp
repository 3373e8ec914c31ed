#include "kypclient/KypCreateFactory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <functional>
#include <mutex>
#include <thread>

#include "kypclient/IvshmGroup.h"
#include "kypclient/Ivshmclient.h"
#include "kypclient/KypPeerConn.h"
#include "kypclient/KypRequest.h"
#include "kypclient/KypTcpclient.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/KypConnInfo.h"
#include "kypcomm/KypLibInit.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/ivshm/IvshmExtFunDef.h"
#include "support/Eventually.h"
#include "support/FakeTopics.h"
#include "support/FrameBytes.h"
#include "support/IvshmLibrary.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr _KypDeviceId kLoopback{{127, 0, 0, 1, 1, 1}};

// Takes a connection's events; they come from its receive thread too.
class EventLog {
public:
    static void on_event(_KypDeviceId* deviceId, void* ctx, int event) {
        auto* self = static_cast<EventLog*>(ctx);
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_deviceId = *deviceId;
        self->m_events.push_back(event);
    }

    std::vector<int> events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    _KypDeviceId device_id() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deviceId;
    }

private:
    std::mutex m_mutex;
    std::vector<int> m_events;
    _KypDeviceId m_deviceId{};
};

// A connection without a transport that tells when it is stopped and deleted.
class FakeConnection : public IKypPeerConnection {
public:
    FakeConnection(std::string name, std::vector<std::string>& story)
        : m_name(std::move(name)), m_story(story) {}
    ~FakeConnection() override { m_story.push_back("delete " + m_name); }

    int stop() override {
        m_story.push_back("stop " + m_name);
        if (m_onStop) m_onStop();
        return 0;
    }
    int raw_send(char const*, unsigned int, int) override { return -1; }
    int raw_send(Frame&, int) override { return -1; }
    int raw_recv(unsigned short*, char*, int, int) override { return -1; }

    std::function<void()> m_onStop;

private:
    std::string m_name;
    std::vector<std::string>& m_story;
};

class PeerConnMgrTest : public ::testing::Test {
protected:
    PeerConnMgrTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
    }

    IKypPeerConnection* make_tcp(_KypDeviceId id = kLoopback, EventLog* events = nullptr) {
        KypTcpConnInfo info{id, events == nullptr ? nullptr : EventLog::on_event, events};
        return m_manager.CreateFactoryConnection(KYP_CONN_TCP, &info, sizeof(info), 1500);
    }

    IKypPeerConnection* make_domain(int type, EventLog* events = nullptr, int timeoutMs = 1500) {
        KypDomainConnInfo info{events == nullptr ? nullptr : EventLog::on_event, events};
        return m_manager.CreateFactoryConnection(type, &info, sizeof(info), timeoutMs);
    }

    // A kept connection without a transport. `story` outlives the manager's use of it.
    FakeConnection* keep_fake(std::string const& name) {
        auto* conn = new FakeConnection(name, m_story);
        m_manager.AddPeerConnection(conn);
        return conn;
    }

    std::vector<std::string> m_story;
    CPeerConnMgr m_manager;
};

// ---- making connections ------------------------------------------------------------------------

TEST_F(PeerConnMgrTest, TcpConnectionGoesToPort9999OfTheDevice) {
    RawListener listener = RawListener::tcp(9999);
    LogCapture log;

    IKypPeerConnection* conn = make_tcp();
    RawPeer peer = listener.accept();

    ASSERT_NE(nullptr, conn);
    EXPECT_TRUE(peer.connected());
    EXPECT_TRUE(conn->isconnected());
    EXPECT_EQ(1, log.count("TRACE", "create tcp client <param:ip=127.0.0.1;port=9999>"));
    EXPECT_EQ("ip=127.0.0.1;port=9999", conn->m_param);
}

TEST_F(PeerConnMgrTest, TcpConnectionKnowsItsDevice) {
    RawListener listener = RawListener::tcp(9999);

    IKypPeerConnection* conn = make_tcp();

    ASSERT_NE(nullptr, conn);
    EXPECT_THAT(conn->m_deviceId.bytes, ElementsAreArray(kLoopback.bytes));
}

TEST_F(PeerConnMgrTest, TcpConnectionTellsItsCallbackOfTheAttempt) {
    RawListener listener = RawListener::tcp(9999);
    EventLog events;

    ASSERT_NE(nullptr, make_tcp(kLoopback, &events));

    EXPECT_THAT(events.events(), ElementsAre(KYP_CONNECTION_PENDING, KYP_CONNECT_SUCCESS));
    EXPECT_THAT(events.device_id().bytes, ElementsAreArray(kLoopback.bytes));
    m_manager.ClearPeerConnection();
}

TEST_F(PeerConnMgrTest, ReceiveThreadRunsFromTheStart) {
    RawListener listener = RawListener::tcp(9999);
    EventLog events;
    ASSERT_NE(nullptr, make_tcp(kLoopback, &events));
    RawPeer peer = listener.accept();

    peer.close();

    ASSERT_TRUE(eventually([&] { return events.events().size() >= 3; }));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, events.events().at(2));
    m_manager.ClearPeerConnection();
}

TEST_F(PeerConnMgrTest, UnreachableTcpPeerStillGivesAConnection) {
    EventLog events;

    IKypPeerConnection* conn = make_tcp(kLoopback, &events);

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(conn, m_manager.GetPeerConnection(static_cast<void*>(conn)));
    std::vector<int> const seen = events.events();
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(KYP_CONNECTION_PENDING, seen[0]);
    EXPECT_EQ(KYP_ERR_CONNECT_TIMEOUT, seen[1]);
    EXPECT_TRUE(static_cast<CTcpclient*>(conn)->m_thread.joinable());
    m_manager.ClearPeerConnection();
}

TEST_F(PeerConnMgrTest, DeviceWithoutARouteIsSoughtAtItsFirstFourBytes) {
    IKypPeerConnection* conn = make_tcp({{192, 168, 1, 7, 9, 9}});

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ("192.168.1.7", static_cast<CTcpclient*>(conn)->m_hostname);
    EXPECT_EQ(9999, static_cast<CTcpclient*>(conn)->m_port);
}

TEST_F(PeerConnMgrTest, DeviceWithARouteIsSoughtThere) {
    RawListener listener = RawListener::tcp(9999);
    _KypDeviceId const device{{192, 168, 1, 8, 9, 9}};
    utility::instance<CRouterTable>().AddDeviceId2RouterTable(device, "127.0.0.1");

    ASSERT_NE(nullptr, make_tcp(device));

    EXPECT_TRUE(listener.accept().connected());
}

TEST_F(PeerConnMgrTest, TcpRecordOfAnyOtherSizeIsRefused) {
    KypTcpConnInfo info{kLoopback, nullptr, nullptr};
    for (int size : {-1, 0, 16, 21, 23, 24}) {
        SCOPED_TRACE(size);
        tlsErrno = 0;

        EXPECT_EQ(nullptr, m_manager.CreateFactoryConnection(KYP_CONN_TCP, &info, size, 100));
        EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
    }
    EXPECT_THAT(m_manager.m_connections, IsEmpty());
}

TEST_F(PeerConnMgrTest, MissingTcpRecordIsRefused) {
    EXPECT_EQ(nullptr, m_manager.CreateFactoryConnection(KYP_CONN_TCP, nullptr, 22, 100));
    EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
}

TEST_F(PeerConnMgrTest, DomainRecordOfAnyOtherSizeIsRefused) {
    KypDomainConnInfo info{nullptr, nullptr};
    for (int type : {KYP_CONN_DOMAIN, KYP_CONN_DOMAIN_ALIAS}) {
        for (int size : {-1, 0, 15, 17, 22}) {
            SCOPED_TRACE(::testing::Message() << "type " << type << " size " << size);
            tlsErrno = 0;

            EXPECT_EQ(nullptr, m_manager.CreateFactoryConnection(type, &info, size, 100));
            EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
        }
    }
    EXPECT_THAT(m_manager.m_connections, IsEmpty());
}

TEST_F(PeerConnMgrTest, BothDomainTypesGoToTheLocalServer) {
    RawListener listener = RawListener::unix_path("/var/tmp/kyp/kypserver");
    for (int type : {KYP_CONN_DOMAIN, KYP_CONN_DOMAIN_ALIAS}) {
        SCOPED_TRACE(type);
        LogCapture log;

        IKypPeerConnection* conn = make_domain(type);
        RawPeer peer = listener.accept();

        ASSERT_NE(nullptr, conn);
        EXPECT_TRUE(peer.connected());
        EXPECT_TRUE(conn->isconnected());
        EXPECT_TRUE(static_cast<CTcpclient*>(conn)->m_isDomain);
        EXPECT_EQ(1, log.count("TRACE",
                               "create unix domain tcp client <param:domain=/var/tmp/kyp/"
                               "kypserver>"));
        EXPECT_EQ("domain=/var/tmp/kyp/kypserver", conn->m_param);
    }
}

TEST_F(PeerConnMgrTest, DomainConnectionCarriesTheLocalDeviceId) {
    _KypDeviceId const local = utility::instance<CKypLibInit>().GetKypDeviceId();

    IKypPeerConnection* conn = make_domain(KYP_CONN_DOMAIN);

    ASSERT_NE(nullptr, conn);
    EXPECT_THAT(conn->m_deviceId.bytes, ElementsAreArray(local.bytes));
}

TEST_F(PeerConnMgrTest, UnreachableLocalServerStillGivesAConnection) {
    IKypPeerConnection* conn = make_domain(KYP_CONN_DOMAIN);

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(conn, m_manager.GetPeerConnection(static_cast<void*>(conn)));
}

TEST_F(PeerConnMgrTest, KeepsTheCallbackOfADomainConnectionSilent) {
    RawListener listener = RawListener::unix_path("/var/tmp/kyp/kypserver");
    EventLog events;
    LogCapture log;

    IKypPeerConnection* conn = make_domain(KYP_CONN_DOMAIN, &events);
    ASSERT_NE(nullptr, conn);
    listener.accept().close();

    EXPECT_TRUE(log.wait_for("connection is close"));
    m_manager.ClearPeerConnection();
    EXPECT_THAT(events.events(), IsEmpty());
}

TEST_F(PeerConnMgrTest, DomainConnectionWithoutARecordHasNoCallback) {
    IKypPeerConnection* conn =
        m_manager.CreateFactoryConnection(KYP_CONN_DOMAIN, nullptr, sizeof(KypDomainConnInfo), 100);

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(nullptr, conn->m_connEvent);
}

TEST_F(PeerConnMgrTest, FactoryRaisesTimeoutsBelow100) {
    struct Row {
        int given;
        std::string used;
    };
    for (Row const& row : {Row{-5, "100"}, Row{0, "100"}, Row{99, "100"}, Row{100, "100"},
                           Row{101, "101"}, Row{1500, "1500"}}) {
        SCOPED_TRACE(row.given);
        LogCapture log;

        ASSERT_NE(nullptr, make_domain(KYP_CONN_DOMAIN, nullptr, row.given));

        EXPECT_EQ(1, log.count_containing("timeoutms:" + row.used + ","));
    }
}

TEST_F(PeerConnMgrTest, TransportsTakeTheirTimeoutAsItIs) {
    KypDomainConnInfo info{nullptr, nullptr};
    LogCapture log;

    m_manager.AddPeerConnection(m_manager.CreateDomainClient(&info, sizeof(info), 7));

    EXPECT_EQ(1, log.count_containing("timeoutms:7,"));
}

TEST_F(PeerConnMgrTest, TypesWithoutATransportAreRefused) {
    struct Row {
        int type;
        int status;
    };
    char info[24] = {};
    for (Row const& row : {Row{KYP_CONN_NONE, KYP_ERR_PROTOCOL}, Row{-1, KYP_ERR_CONN_TYPE},
                           Row{5, KYP_ERR_CONN_TYPE}, Row{1000, KYP_ERR_CONN_TYPE}}) {
        SCOPED_TRACE(row.type);
        tlsErrno = 0;

        EXPECT_EQ(nullptr, m_manager.CreateFactoryConnection(row.type, info, sizeof(info), 100));
        EXPECT_EQ(row.status, tlsErrno);
    }
    EXPECT_THAT(m_manager.m_connections, IsEmpty());
}

// ---- shared memory ----------------------------------------------------------------------------

class IvshmConnTest : public PeerConnMgrTest {
protected:
    ~IvshmConnTest() override {
        m_topics.end_waits();
        IvshmGroup* const group = IvshmGroup::m_arrIvshmGroup[0];
        m_manager.ClearPeerConnection();
        while (group != nullptr && group->getRefCount() > 1) group->subRefCount();
        if (group != nullptr) IvshmGroup::destoryIvshmGroup(group);
    }

    IKypPeerConnection* create(int group = 0, int timeoutMs = 1) {
        KypIvshmConnInfo info{group, 4096, EventLog::on_event, &m_events};
        return m_manager.CreateFactoryConnection(KYP_CONN_IVSHM, &info, sizeof(info), timeoutMs);
    }

    // A group whose handles are set before its first connection.
    IvshmGroup* group_with_handles() {
        IvshmGroup* const group = IvshmGroup::makeIvshmGroup(1, 0, 4096);
        group->m_hRead = m_topics.handle(0);
        group->m_hWrite = m_topics.handle(1);
        return group;
    }

    FakeTopics m_topics;
    EventLog m_events;
};

TEST_F(IvshmConnTest, NeedsItsRecordWithItsExactSize) {
    KypIvshmConnInfo info{0, 4096, nullptr, nullptr};
    struct Row {
        void* info;
        int size;
    };
    for (Row const& row : {Row{nullptr, 24}, Row{&info, 23}, Row{&info, 25}, Row{&info, 0}}) {
        SCOPED_TRACE(row.size);
        tlsErrno = 0;
        EXPECT_EQ(nullptr,
                  m_manager.CreateFactoryConnection(KYP_CONN_IVSHM, row.info, row.size, 100));
        EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
    }
    EXPECT_EQ(nullptr, IvshmGroup::m_arrIvshmGroup[0]);
}

TEST_F(IvshmConnTest, NeedsAGroupThatThereIs) {
    LogCapture log;
    tlsErrno = 0;

    EXPECT_EQ(nullptr, create(2));

    EXPECT_EQ(0x101a, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "create ivshm group fail,idx:2,maxbyte:4096"));
}

TEST_F(IvshmConnTest, KeepsBeingRefusedWithTheStatusThatStood) {
    LogCapture log;
    tlsErrno = 77;

    EXPECT_EQ(nullptr, create());

    EXPECT_EQ(77, tlsErrno);
    EXPECT_THAT(m_topics.opened(), ElementsAre(Pair(0, 1), Pair(1, 1)));
    EXPECT_EQ(1, log.count("ERROR", "init rhandle:0,whandle:0 fail"));
    EXPECT_EQ(1, log.count("INFO", "ivshm group idx:0 refcount==0 release object"));
    EXPECT_EQ(nullptr, IvshmGroup::m_arrIvshmGroup[0]);
    EXPECT_THAT(m_manager.m_connections, IsEmpty());
}

TEST_F(IvshmConnTest, IsMadeWhereTheGroupHasItsHandles) {
    IvshmGroup* const group = group_with_handles();

    IKypPeerConnection* const conn = create();

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(conn, m_manager.GetPeerConnection(static_cast<void*>(conn)));
    EXPECT_EQ(2, group->getRefCount());
    EXPECT_EQ(conn, group->m_arrClient[0]);
    EXPECT_TRUE(group->m_thread.joinable());
    EXPECT_TRUE(conn->m_connEvent == EventLog::on_event);
    EXPECT_EQ(&m_events, conn->m_connEventCtx);
    EXPECT_THAT(m_events.events(), IsEmpty());
}

TEST_F(IvshmConnTest, KeepsTheCallersTimeoutOutOfItsMaking) {
    group_with_handles();

    for (int const timeoutMs : {INT_MIN, 0, 100, INT_MAX}) {
        SCOPED_TRACE(timeoutMs);
        EXPECT_NE(nullptr, create(0, timeoutMs));
    }
}

TEST_F(IvshmConnTest, KeepsItsHoldOnTheGroupWhenItGivesItsPlaceBack) {
    IvshmGroup* const group = group_with_handles();
    IKypPeerConnection* const conn = create();

    m_manager.DelPeerConnection(conn);

    EXPECT_EQ(nullptr, group->m_arrClient[0]);
    EXPECT_FALSE(group->m_arrVClient[0].IsOpen());
    EXPECT_EQ(2, group->getRefCount());
    EXPECT_TRUE(group->m_thread.joinable());
}

TEST_F(IvshmConnTest, IsRefusedWhereTheGroupIsFull) {
    IvshmGroup* const group = group_with_handles();
    for (int i = 0; i < 32; ++i) ASSERT_NE(nullptr, create());
    tlsErrno = 0;

    EXPECT_EQ(nullptr, create());

    EXPECT_EQ(0x101b, tlsErrno);
    EXPECT_EQ(33, group->getRefCount());
    m_manager.DelPeerConnection(group->m_arrClient[11]);
    EXPECT_NE(nullptr, create());
    EXPECT_NE(nullptr, group->m_arrClient[11]);
}

TEST_F(IvshmConnTest, IsRefusedWithoutTheTransport) {
    withdraw_ivshm_library();
    ExtIvshmApiDef::GetInstance().m_bLoaded = false;
    LogCapture log;
    tlsErrno = 77;

    EXPECT_EQ(nullptr, create());

    EXPECT_EQ(77, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "Load /usr/lib/libivshmAPI.so Fail"));
    EXPECT_EQ(nullptr, IvshmGroup::m_arrIvshmGroup[0]);
}

// ---- keeping them ------------------------------------------------------------------------------

TEST_F(PeerConnMgrTest, NullIsNotTakenOver) {
    m_manager.AddPeerConnection(nullptr);

    EXPECT_THAT(m_manager.m_connections, IsEmpty());
    EXPECT_EQ(nullptr, m_manager.GetPeerConnection(static_cast<void*>(nullptr)));
}

TEST_F(PeerConnMgrTest, HandleOfAKeptConnectionIsItsAddress) {
    IKypPeerConnection* const conn = keep_fake("a");

    EXPECT_EQ(conn, m_manager.GetPeerConnection(static_cast<void*>(conn)));
}

TEST_F(PeerConnMgrTest, ForeignHandleIsNotFollowed) {
    EXPECT_EQ(nullptr, m_manager.GetPeerConnection(reinterpret_cast<void*>(uintptr_t{0x1234})));
}

TEST_F(PeerConnMgrTest, StaleHandleIsNotFollowed) {
    IKypPeerConnection* const conn = keep_fake("a");
    void* const handle = conn;
    m_manager.DelPeerConnection(conn);

    EXPECT_EQ(nullptr, m_manager.GetPeerConnection(handle));
}

TEST_F(PeerConnMgrTest, DeletingStopsTheConnectionFirst) {
    FakeConnection* const conn = keep_fake("a");

    m_manager.DelPeerConnection(conn);

    EXPECT_THAT(m_story, ElementsAre("stop a", "delete a"));
    EXPECT_THAT(m_manager.m_connections, IsEmpty());
}

TEST_F(PeerConnMgrTest, ManagerIsLockedWhileAConnectionStops) {
    int lockedOut = 0;
    auto const try_the_lock = [&] {
        std::thread([&] {
            if (!m_manager.m_mutex.try_lock()) {
                ++lockedOut;
                return;
            }
            m_manager.m_mutex.unlock();
        }).join();
    };
    FakeConnection* const conn = keep_fake("a");
    conn->m_onStop = try_the_lock;
    keep_fake("b")->m_onStop = try_the_lock;

    m_manager.DelPeerConnection(conn);
    EXPECT_EQ(1, lockedOut);
    m_manager.ClearPeerConnection();
    EXPECT_EQ(2, lockedOut);
}

TEST_F(PeerConnMgrTest, DeletingAForeignConnectionDoesNothing) {
    FakeConnection foreign("foreign", m_story);

    m_manager.DelPeerConnection(&foreign);
    m_manager.DelPeerConnection(nullptr);

    EXPECT_THAT(m_story, IsEmpty());
}

TEST_F(PeerConnMgrTest, ClearingStopsAndDeletesEveryConnectionInTheOrderOfTheSet) {
    FakeConnection* const a = keep_fake("a");
    FakeConnection* const b = keep_fake("b");
    std::vector<std::string> expected{"stop a", "delete a", "stop b", "delete b"};
    if (std::less<FakeConnection*>()(b, a)) {
        expected = {"stop b", "delete b", "stop a", "delete a"};
    }

    m_manager.ClearPeerConnection();

    EXPECT_EQ(expected, m_story);
    EXPECT_THAT(m_manager.m_connections, IsEmpty());
}

TEST_F(PeerConnMgrTest, EndOfTheManagerIsTheEndOfItsConnections) {
    {
        CPeerConnMgr manager;
        manager.AddPeerConnection(new FakeConnection("a", m_story));
    }

    EXPECT_THAT(m_story, ElementsAre("stop a", "delete a"));
}

TEST_F(PeerConnMgrTest, KeepsTheDeviceIdEntryOfADeletedConnection) {
    FakeConnection* const conn = keep_fake("a");
    m_manager.m_byDeviceId["1.2.3.4.5.6"] = conn;

    m_manager.DelPeerConnection(conn);

    EXPECT_EQ(1U, m_manager.m_byDeviceId.count("1.2.3.4.5.6"));
}

TEST_F(PeerConnMgrTest, KeepsTheDeviceIdEntriesWhenCleared) {
    m_manager.m_byDeviceId["1.2.3.4.5.6"] = keep_fake("a");

    m_manager.ClearPeerConnection();

    EXPECT_EQ(1U, m_manager.m_byDeviceId.count("1.2.3.4.5.6"));
}

// ---- requests by device id ---------------------------------------------------------------------

// These connections go through the exported interface and so into the process-wide manager.
class DeviceIdRequestTest : public ::testing::Test {
protected:
    DeviceIdRequestTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
    }

    ~DeviceIdRequestTest() override {
        m_manager.ClearPeerConnection();
        m_manager.m_byDeviceId.clear();
        if (m_device.joinable()) m_device.join();
    }

    // A device that answers one request with `answer`.
    void start_device(Bytes const& answer) {
        m_device = std::thread([this, answer] {
            RawPeer peer = m_listener.accept();
            m_request = take_apart(peer.receive_frame());
            peer.send(response_frame(600, KYP_CMD_READ, m_request.invokeId, answer));
            peer.drain_until_closed();
        });
    }

    // A blocking read of group 0x10, offset 0x20; its answer goes to m_answer.
    int ask(uint32_t* recvLen) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        KypRequest request{true,
                           Frame(29, nullptr),
                           m_id,
                           600,
                           KYP_CMD_READ,
                           sizeof(m_answer),
                           m_answer,
                           recvLen,
                           0,
                           std::chrono::nanoseconds(deadline.time_since_epoch()).count()};
        AoERequestHeader const address{utils_htonl(0x10), utils_htonl(0x20)};
        request.frame.prepend(&address, sizeof(address));
        int const status = m_manager.AddKypRequest(&request);
        delete[] request.frame.rawData();
        return status;
    }

    CPeerConnMgr& m_manager = utility::instance<CPeerConnMgr>();
    _KypDeviceId m_id = kLoopback;
    RawListener m_listener = RawListener::tcp(9999);
    std::thread m_device;
    FrameParts m_request;  // what the device saw
    char m_answer[16] = {};
};

TEST_F(DeviceIdRequestTest, FirstUseConnectsByTcpForUpTo1500Ms) {
    LogCapture log;

    IKypPeerConnection* conn = m_manager.GetPeerConnection(m_id);

    ASSERT_NE(nullptr, conn);
    EXPECT_TRUE(conn->isconnected());
    EXPECT_EQ(nullptr, conn->m_connEvent);
    EXPECT_EQ(1, log.count("INFO",
                           "tcpclient ready connect  HostName:127.0.0.1,port:9999,timeoutms:1500,"
                           "isDomain:0"));
    EXPECT_EQ(conn, m_manager.GetPeerConnection(static_cast<void*>(conn)));
}

TEST_F(DeviceIdRequestTest, SameDeviceGetsTheSameConnection) {
    IKypPeerConnection* first = m_manager.GetPeerConnection(m_id);

    EXPECT_EQ(first, m_manager.GetPeerConnection(m_id));
    EXPECT_EQ(1U, m_manager.m_connections.size());
    EXPECT_THAT(m_manager.m_byDeviceId, ElementsAre(Pair("127.0.0.1.1.1", first)));
}

TEST_F(DeviceIdRequestTest, ThreadsThatMissTogetherAllGetAKeptConnection) {
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([this] {
            _KypDeviceId id = m_id;
            IKypPeerConnection* conn = m_manager.GetPeerConnection(id);
            EXPECT_EQ(conn, m_manager.GetPeerConnection(static_cast<void*>(conn)));
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(1U, m_manager.m_byDeviceId.size());
}

TEST_F(DeviceIdRequestTest, RequestIsAnsweredIntoTheCallersBuffer) {
    start_device(text("CD"));
    uint32_t recvLen = 99;

    EXPECT_EQ(KYP_OK, ask(&recvLen));
    EXPECT_EQ(2U, recvLen);
    EXPECT_STREQ("CD", m_answer);
    m_manager.ClearPeerConnection();
    m_device.join();
    EXPECT_EQ("00 00 00 10 00 00 00 20", hex(m_request.rest));
}

TEST_F(DeviceIdRequestTest, SizeOfTheAnswerNeedNotBeAskedFor) {
    start_device(text("CD"));

    EXPECT_EQ(KYP_OK, ask(nullptr));
    EXPECT_STREQ("CD", m_answer);
}

TEST_F(DeviceIdRequestTest, RequestToAnUnreachableDeviceClearsTheSizeAndFails) {
    m_listener.close();
    uint32_t recvLen = 99;

    EXPECT_EQ(-1, ask(&recvLen));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, tlsErrno);
    EXPECT_EQ(0U, recvLen);
}

TEST_F(DeviceIdRequestTest, MissingRequestIsRefused) {
    EXPECT_EQ(KYP_ERR_PARAM, m_manager.AddKypRequest(nullptr));
    EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
}

}  // namespace
