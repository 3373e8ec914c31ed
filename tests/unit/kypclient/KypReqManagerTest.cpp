#include "kypclient/KypReqManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypTcpclient.h"
#include "kypcomm/KypStatus.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

class KypReqManagerTest : public ::testing::Test {
protected:
    KypReqManagerTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
    }
    ~KypReqManagerTest() override { owner().ClearPeerConnection(); }

    // Connections belong to the process-wide manager.
    static CPeerConnMgr& owner() { return utility::instance<CPeerConnMgr>(); }

    RawListener m_listener = RawListener::tcp(9999);
    CKypReqManager m_manager;
    _KypDeviceId m_id{{127, 0, 0, 1, 1, 1}};
};

TEST_F(KypReqManagerTest, FirstUseConnectsByTcpForUpTo1500Ms) {
    LogCapture log;

    IKypPeerConnection* const conn = m_manager.GetConnection(m_id);

    ASSERT_NE(nullptr, conn);
    RawPeer const peer = m_listener.accept();
    EXPECT_TRUE(peer.connected());
    EXPECT_TRUE(conn->isconnected());
    EXPECT_EQ(nullptr, conn->m_connEvent);
    EXPECT_THAT(conn->m_deviceId.bytes, ElementsAreArray(m_id.bytes));
    EXPECT_EQ(1, log.count("INFO",
                           "tcpclient ready connect  HostName:127.0.0.1,port:9999,timeoutms:1500,"
                           "isDomain:0"));
}

TEST_F(KypReqManagerTest, ReceiveThreadRuns) {
    IKypPeerConnection* const conn = m_manager.GetConnection(m_id);

    ASSERT_NE(nullptr, conn);
    EXPECT_TRUE(static_cast<CTcpclient*>(conn)->m_thread.joinable());
}

TEST_F(KypReqManagerTest, SameDeviceGetsTheSameConnection) {
    IKypPeerConnection* const first = m_manager.GetConnection(m_id);

    EXPECT_EQ(first, m_manager.GetConnection(m_id));
    EXPECT_EQ(1U, m_manager.m_connections.size());
    EXPECT_EQ(1U, owner().m_connections.size());
}

TEST_F(KypReqManagerTest, EachDeviceGetsItsOwnConnectionInTheOrderOfTheIds) {
    _KypDeviceId high{{127, 0, 0, 1, 200, 0}};
    _KypDeviceId low{{127, 0, 0, 1, 1, 0}};
    IKypPeerConnection* const highConn = m_manager.GetConnection(high);
    IKypPeerConnection* const midConn = m_manager.GetConnection(m_id);
    IKypPeerConnection* const lowConn = m_manager.GetConnection(low);

    std::vector<IKypPeerConnection*> order;
    for (auto const& entry : m_manager.m_connections) order.push_back(entry.second);

    EXPECT_THAT(order, ElementsAre(lowConn, midConn, highConn));
}

TEST_F(KypReqManagerTest, TableIsItsOwn) {
    IKypPeerConnection* const conn = m_manager.GetConnection(m_id);

    EXPECT_NE(conn, owner().GetPeerConnection(m_id));
    EXPECT_NE(conn, CKypReqManager().GetConnection(m_id));
    owner().m_byDeviceId.clear();
}

TEST_F(KypReqManagerTest, ConnectionsOutliveTheTable) {
    IKypPeerConnection* conn = nullptr;
    {
        CKypReqManager manager;
        conn = manager.GetConnection(m_id);
    }

    EXPECT_EQ(conn, owner().GetPeerConnection(static_cast<void*>(conn)));
    EXPECT_TRUE(conn->isconnected());
}

TEST_F(KypReqManagerTest, UnreachableDeviceStillGetsAConnection) {
    m_listener.close();

    IKypPeerConnection* const conn = m_manager.GetConnection(m_id);

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(conn, m_manager.GetConnection(m_id));
}

TEST_F(KypReqManagerTest, KeepsTheEntryOfAReleasedConnection) {
    IKypPeerConnection* const conn = m_manager.GetConnection(m_id);

    owner().DelPeerConnection(conn);

    EXPECT_THAT(owner().m_connections, IsEmpty());
    EXPECT_EQ(1U, m_manager.m_connections.count(m_id));
}

TEST_F(KypReqManagerTest, ThreadsThatMissTogetherAllGetAKeptConnection) {
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([this] {
            _KypDeviceId id = m_id;
            IKypPeerConnection* const conn = m_manager.GetConnection(id);
            EXPECT_EQ(conn, owner().GetPeerConnection(static_cast<void*>(conn)));
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(1U, m_manager.m_connections.size());
}

}  // namespace
