// The C interface's connections: made, controlled, released.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <mutex>

#include "LibkypFixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Events {
    static void on_event(_KypDeviceId*, void* ctx, int event) {
        auto* self = static_cast<Events*>(ctx);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->seen.push_back(event);
    }

    std::vector<int> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }

    std::mutex mutex;
    std::vector<int> seen;
};

// ---- making ------------------------------------------------------------------------------------

TEST_F(LibkypTest, CreateInstanceConnectsByTcpForUpTo1500MsWithoutACallback) {
    RawListener listener = RawListener::tcp(9999);
    LogCapture log;

    void* handle = libkyp_createInstance(&m_loopback, KYP_CONN_TCP);

    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(listener.accept().connected());
    EXPECT_EQ(1, log.count("INFO",
                           "tcpclient ready connect  HostName:127.0.0.1,port:9999,timeoutms:1500,"
                           "isDomain:0"));
    EXPECT_EQ(nullptr, static_cast<IKypPeerConnection*>(handle)->m_connEvent);
}

TEST_F(LibkypTest, CreateInstanceExTellsTheCallbackOfATcpConnection) {
    RawListener listener = RawListener::tcp(9999);
    Events events;

    void* handle =
        libkyp_createInstanceEx(&m_loopback, KYP_CONN_TCP, 1500, Events::on_event, &events);

    ASSERT_NE(nullptr, handle);
    EXPECT_THAT(events.get(), ElementsAre(KYP_CONNECTION_PENDING, KYP_CONNECT_SUCCESS));
    libkyp_destory();
}

TEST_F(LibkypTest, KeepsTheCallbackOfADomainConnectionFromBeingCalled) {
    RawListener listener = RawListener::unix_path("/var/tmp/kyp/kypserver");
    Events events;
    LogCapture log;

    void* handle =
        libkyp_createInstanceEx(nullptr, KYP_CONN_DOMAIN, 1500, Events::on_event, &events);
    ASSERT_NE(nullptr, handle);
    listener.accept().close();

    EXPECT_TRUE(log.wait_for("connection is close"));
    libkyp_destory();
    EXPECT_THAT(events.get(), IsEmpty());
}

TEST_F(LibkypTest, DomainTypesNeedNoDeviceId) {
    RawListener listener = RawListener::unix_path("/var/tmp/kyp/kypserver");
    for (int type : {KYP_CONN_DOMAIN, KYP_CONN_DOMAIN_ALIAS}) {
        SCOPED_TRACE(type);

        EXPECT_NE(nullptr, libkyp_createInstance(nullptr, type));
        EXPECT_TRUE(listener.accept().connected());
    }
}

TEST_F(LibkypTest, UnreachablePeerStillGivesAHandle) {
    void* handle = libkyp_createInstance(&m_loopback, KYP_CONN_TCP);

    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(0, libkyp_loop_start(handle));
}

TEST_F(LibkypTest, TcpConnectionNeedsADeviceId) {
    EXPECT_EQ(nullptr, libkyp_createInstance(nullptr, KYP_CONN_TCP));
    EXPECT_EQ(KYP_ERR_PARAM, libkyp_get_errno());
}

TEST_F(LibkypTest, KeepsTheStatusOfTypeOneThatOfAnUnknownType) {
    EXPECT_EQ(nullptr, libkyp_createInstance(&m_loopback, KYP_CONN_NONE));
    EXPECT_EQ(KYP_ERR_CONN_TYPE, libkyp_get_errno());
}

TEST_F(LibkypTest, CreateInstanceExRefusesOtherTypes) {
    struct Row {
        int type;
        int status;
    };
    for (Row const& row : {Row{KYP_CONN_IVSHM, KYP_ERR_PROTOCOL}, Row{5, KYP_ERR_CONN_TYPE},
                           Row{-1, KYP_ERR_CONN_TYPE}}) {
        SCOPED_TRACE(row.type);

        EXPECT_EQ(nullptr, libkyp_createInstanceEx(&m_loopback, row.type, 100, nullptr, nullptr));
        EXPECT_EQ(row.status, libkyp_get_errno());
    }
}

TEST_F(LibkypTest, CreateInstanceV2TakesTheRecordOfTheTransport) {
    RawListener listener = RawListener::tcp(9999);
    Events events;
    KypTcpConnInfo info{m_loopback, Events::on_event, &events};

    ASSERT_NE(nullptr, libkyp_createInstanceV2(KYP_CONN_TCP, &info, sizeof(info), 1500));

    EXPECT_THAT(events.get(), ElementsAre(KYP_CONNECTION_PENDING, KYP_CONNECT_SUCCESS));
    libkyp_destory();
}

TEST_F(LibkypTest, CreateInstanceV2RefusesWhatItCannotMake) {
    struct Row {
        int type;
        int size;
        int status;
    };
    char info[24] = {};
    for (Row const& row :
         {Row{KYP_CONN_TCP, 21, KYP_ERR_PARAM}, Row{KYP_CONN_DOMAIN, 24, KYP_ERR_PARAM},
          Row{KYP_CONN_NONE, 24, KYP_ERR_PROTOCOL}, Row{KYP_CONN_IVSHM, 23, KYP_ERR_PARAM},
          Row{5, 24, KYP_ERR_CONN_TYPE}}) {
        SCOPED_TRACE(row.type);

        EXPECT_EQ(nullptr, libkyp_createInstanceV2(row.type, info, row.size, 100));
        EXPECT_EQ(row.status, libkyp_get_errno());
    }
}

TEST_F(LibkypTest, KeepsTheStatusOfAnEarlierCallBehindCreateInstanceV2) {
    KypDomainConnInfo info{nullptr, nullptr};
    tlsErrno = KYP_ERR_TOPIC;

    ASSERT_NE(nullptr, libkyp_createInstanceV2(KYP_CONN_DOMAIN, &info, sizeof(info), 100));

    EXPECT_EQ(KYP_ERR_TOPIC, libkyp_get_errno());
}

// ---- releasing ---------------------------------------------------------------------------------

TEST_F(LibkypLinkTest, ReleaseClosesTheLink) {
    (void)libkyp_releaseInstance(m_handle);

    EXPECT_TRUE(m_peer.expect_closed());
    EXPECT_THAT(manager().m_connections, IsEmpty());
}

TEST_F(LibkypLinkTest, KeepsReleaseReportingAnUnknownHandle) {
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_releaseInstance(m_handle));
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_releaseInstance(m_handle));
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
}

// ---- unknown handles ---------------------------------------------------------------------------

TEST_F(LibkypTest, UnknownHandleIsReportedByEveryEntry) {
    void* const handle = unknown_handle();
    char buffer[8] = {};
    unsigned short port = 0;
    struct Row {
        char const* name;
        int result;
        std::function<int()> call;
    };
    for (Row const& row :
         {Row{"releaseInstance", KYP_ERR_HANDLE, [&] { return libkyp_releaseInstance(handle); }},
          Row{"reconnect_delay_set", KYP_ERR_HANDLE,
              [&] { return libkyp_reconnect_delay_set(handle, 1); }},
          Row{"loop_start", KYP_ERR_HANDLE, [&] { return libkyp_loop_start(handle); }},
          Row{"loop_stop", KYP_ERR_HANDLE, [&] { return libkyp_loop_stop(handle); }},
          Row{"sync_send", -1, [&] { return libkyp_sync_send(handle, 600, 1, 2, buffer, 8, 10); }},
          Row{"sync_recv", -1, [&] { return libkyp_sync_recv(handle, &port, buffer, 8, 10); }},
          Row{"registerRouterEvent", KYP_ERR_HANDLE,
              [&] { return libkyp__registerRouterEvent(handle, 501, nullptr, nullptr); }},
          Row{"unregisterRouterEvent", KYP_ERR_HANDLE,
              [&] { return libkyp__unregisterRouterEvent(handle, 501); }},
          Row{"publish", KYP_ERR_HANDLE,
              [&] { return libkyp_publish(handle, 1, 2, "topic", buffer, 8); }},
          Row{"subscribe", KYP_ERR_HANDLE,
              [&] { return libkyp_subscribe(handle, "topic", nullptr, nullptr); }},
          Row{"unsubscribe", KYP_ERR_HANDLE,
              [&] { return libkyp_unsubscribe(handle, "topic"); }}}) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_OK;

        EXPECT_EQ(row.result, row.call());
        EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
    }
}

TEST_F(LibkypTest, NoHandleIsAnUnknownHandle) {
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_loop_start(nullptr));
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
}

TEST_F(LibkypTest, KeepsZeroAsTheResultOfReconnectingAnUnknownHandle) {
    EXPECT_EQ(0, libkyp_reconnect(unknown_handle(), 1000));
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
}

// ---- control -----------------------------------------------------------------------------------

TEST_F(LibkypLinkTest, ReconnectDelayIsSetAndTurnsReconnectionOn) {
    conn().set_reconnect_event(2, false);

    EXPECT_EQ(0, libkyp_reconnect_delay_set(m_handle, 7));

    EXPECT_EQ(7, conn().m_reconnectIntervalSec);
    EXPECT_TRUE(conn().m_reconnectEnabled);
}

TEST_F(LibkypLinkTest, ReconnectConnectsOnTheCallingThread) {
    ASSERT_EQ(0, libkyp_loop_stop(m_handle));
    conn().disconnect();
    LogCapture log;

    EXPECT_EQ(1, libkyp_reconnect(m_handle, 1000));

    EXPECT_TRUE(m_listener.accept().connected());
    EXPECT_EQ(1, log.count("INFO",
                           "Reconnect  HostName:127.0.0.1,port:9999 Success,isDomain:0,"
                           "timeout:1000 ms"));
}

TEST_F(LibkypLinkTest, ReconnectRaisesTimeoutsBelow50) {
    ASSERT_EQ(0, libkyp_loop_stop(m_handle));
    struct Row {
        int given;
        std::string used;
    };
    for (Row const& row : {Row{-1, "50"}, Row{10, "50"}, Row{50, "50"}, Row{51, "51"}}) {
        SCOPED_TRACE(row.given);
        conn().disconnect();
        LogCapture log;

        // A busy machine may need more than 50 ms for the handshake; then the next attempt counts.
        EXPECT_TRUE(eventually([&] { return libkyp_reconnect(m_handle, row.given) == 1; }));

        EXPECT_EQ(1, log.count_containing("timeout:" + row.used + " ms"));
    }
}

TEST_F(LibkypLinkTest, FailedReconnectGivesZeroAndNoStatus) {
    ASSERT_EQ(0, libkyp_loop_stop(m_handle));
    conn().disconnect();
    m_listener.close();

    EXPECT_EQ(0, libkyp_reconnect(m_handle, 1000));
    EXPECT_EQ(0, libkyp_get_errno());
}

TEST_F(LibkypLinkTest, LoopStopsAndStartsAgain) {
    EXPECT_EQ(0, libkyp_loop_stop(m_handle));
    EXPECT_FALSE(conn().m_thread.joinable());

    EXPECT_EQ(0, libkyp_loop_start(m_handle));
    EXPECT_TRUE(conn().m_thread.joinable());
}

TEST_F(LibkypLinkTest, StartingARunningLoopChangesNothing) {
    std::thread::id const before = conn().m_thread.get_id();

    EXPECT_EQ(0, libkyp_loop_start(m_handle));

    EXPECT_EQ(before, conn().m_thread.get_id());
}

}  // namespace
