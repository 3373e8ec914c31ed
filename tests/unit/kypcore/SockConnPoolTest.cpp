#include "kypcore/SockConnPool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "KernelCalls.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "support/LogCapture.h"

namespace {

// Notes how the connection looks at the moment of its end.
class EndObserver : public IObserverConn {
public:
    void conn_close(IConnection* conn) override {
        auto* const record = static_cast<CSocketConnection*>(conn);
        ++m_told;
        m_fdOpen = fcntl(record->get_fd(), F_GETFD) != -1;
        m_sequence = record->iCurrsequence;
    }

    int m_told = 0;
    bool m_fdOpen = false;
    uint64_t m_sequence = 0;
};

class SockConnPoolTest : public testing::Test {
protected:
    static int open_socket() { return socket(AF_UNIX, SOCK_STREAM, 0); }

    LogCapture m_log;
    time_t m_now = 1000000;
    KernelHook<time_t(time_t*)> m_clock{kernel::time, [this](time_t*) { return m_now; }};
    CSockConnPool m_pool;
};

TEST_F(SockConnPoolTest, BeginsEmptyWithADelayOfAMinute) {
    EXPECT_EQ(60, m_pool.m_nRecyDelay);
    EXPECT_EQ(0, m_pool.m_nTotal);
    EXPECT_EQ(0, m_pool.m_nFree);
    EXPECT_EQ(0, m_pool.m_nRecy);
}

TEST_F(SockConnPoolTest, InitConnectionsMakesRecordsThatAreReady) {
    EXPECT_EQ(0, m_pool.init_connections(3));

    EXPECT_EQ(3, m_pool.m_nTotal);
    EXPECT_EQ(3, m_pool.m_nFree);
    EXPECT_EQ(3u, m_pool.m_listAll.size());
    EXPECT_EQ(m_pool.m_listAll, m_pool.m_listFree);
    EXPECT_EQ(1u, m_pool.m_listFree.front()->iCurrsequence);
}

TEST_F(SockConnPoolTest, InitConnectionsBelowOneDoesNothing) {
    EXPECT_EQ(0, m_pool.init_connections(0));
    EXPECT_EQ(0, m_pool.init_connections(-5));

    EXPECT_EQ(0, m_pool.m_nTotal);
    EXPECT_TRUE(m_pool.m_listAll.empty());
}

TEST_F(SockConnPoolTest, KeepsCountingRecordsInUseAsFreeAfterASecondInit) {
    m_pool.init_connections(2);
    m_pool.get_connection(-1);

    m_pool.init_connections(1);
    EXPECT_EQ(3, m_pool.m_nTotal);
    EXPECT_EQ(3, m_pool.m_nFree);
    EXPECT_EQ(2u, m_pool.m_listFree.size());
}

TEST_F(SockConnPoolTest, AnEmptyFreeListMeansANewRecordAndAnUnchangedCount) {
    CSocketConnection* const conn = m_pool.get_connection(77);

    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(77, conn->m_fd);
    EXPECT_EQ(1u, conn->iCurrsequence);
    EXPECT_EQ(1, m_pool.m_nTotal);
    EXPECT_EQ(0, m_pool.m_nFree);
    EXPECT_TRUE(m_pool.m_listFree.empty());
}

TEST_F(SockConnPoolTest, AReadyRecordIsTakenFromTheHead) {
    m_pool.init_connections(2);
    CSocketConnection* const head = m_pool.m_listFree.front();

    EXPECT_EQ(head, m_pool.get_connection(77));
    EXPECT_EQ(77, head->m_fd);
    EXPECT_EQ(2u, head->iCurrsequence);
    EXPECT_EQ(1, m_pool.m_nFree);
    EXPECT_EQ(2, m_pool.m_nTotal);
}

TEST_F(SockConnPoolTest, TheRecordFreedLongestAgoIsReusedFirst) {
    CSocketConnection* const a = m_pool.get_connection(-1);
    CSocketConnection* const b = m_pool.get_connection(-1);
    m_pool.free_connection(b);
    m_pool.free_connection(a);

    EXPECT_EQ(b, m_pool.get_connection(-1));
    EXPECT_EQ(a, m_pool.get_connection(-1));
}

TEST_F(SockConnPoolTest, FreeConnectionEmptiesTheRecordAndCountsIt) {
    CSocketConnection* const conn = m_pool.get_connection(-1);
    strcpy(conn->m_szPeerName, "somebody");
    conn->m_pRecvMsg = new CMsgHeader(MSG_MODE_RECV, MSG_TYPE_STREAM);

    m_pool.free_connection(conn);
    EXPECT_EQ(1, m_pool.m_nFree);
    EXPECT_EQ(nullptr, conn->m_pRecvMsg);
    EXPECT_STREQ("", conn->m_szPeerName);
    EXPECT_EQ(2u, conn->iCurrsequence);
}

TEST_F(SockConnPoolTest, ReuseLeavesTheHandlersOfThePreviousPeer) {
    CSocketConnection* const conn = m_pool.get_connection(-1);
    SockEventHandler const before = &ISocketServer::sock_event_accept;
    conn->m_readHandler = before;
    m_pool.free_connection(conn);

    ASSERT_EQ(conn, m_pool.get_connection(-1));
    EXPECT_TRUE(conn->m_readHandler == before);
}

TEST_F(SockConnPoolTest, ClosingLogsTheRecordBeforeAnythingChanges) {
    int const fd = open_socket();
    CSocketConnection* const conn = m_pool.get_connection(fd);
    char line[128];
    snprintf(line, sizeof line, "close connection:%p,fd:%d,iCurrsequence:1",
             static_cast<void*>(conn), fd);

    m_pool.close_connections(conn);
    EXPECT_EQ(1, m_log.count("WARNING", line));
}

TEST_F(SockConnPoolTest, ClosingClosesTheSocketAndQueuesTheRecord) {
    int const fd = open_socket();
    CSocketConnection* const conn = m_pool.get_connection(fd);

    m_pool.close_connections(conn);
    EXPECT_EQ(-1, conn->get_fd());
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(2u, conn->iCurrsequence);
    EXPECT_EQ(m_now, conn->m_tRecycle);
    EXPECT_EQ(1, m_pool.m_nRecy);
    EXPECT_EQ(std::list<CSocketConnection*>{conn}, m_pool.m_listRecy);
    EXPECT_EQ(0, m_pool.m_nFree);
}

TEST_F(SockConnPoolTest, ObserversAreToldWhileTheSocketIsOpenAndTheSequenceStands) {
    CSocketConnection* const conn = m_pool.get_connection(open_socket());
    EndObserver observer;
    conn->attach(&observer);

    m_pool.close_connections(conn);
    EXPECT_EQ(1, observer.m_told);
    EXPECT_TRUE(observer.m_fdOpen);
    EXPECT_EQ(1u, observer.m_sequence);
    EXPECT_TRUE(conn->m_vecObserver.empty());
}

TEST_F(SockConnPoolTest, ObserversAreToldOutsideTheLocks) {
    class LockingObserver : public IObserverConn {
    public:
        explicit LockingObserver(CSockConnPool& pool) : m_pool(pool) {}
        void conn_close(IConnection* conn) override {
            m_free = m_pool.m_recyMutex.try_lock() && m_pool.m_connMutex.try_lock();
            m_pool.m_recyMutex.unlock();
            m_pool.m_connMutex.unlock();
            conn->send_message("farewell", 8);  // takes the record's own lock
        }
        CSockConnPool& m_pool;
        bool m_free = false;
    };
    CSocketConnection* const conn = m_pool.get_connection(open_socket());
    LockingObserver observer(m_pool);
    conn->attach(&observer);

    m_pool.close_connections(conn);
    EXPECT_TRUE(observer.m_free);
}

TEST_F(SockConnPoolTest, ARecordClosedTwiceIsQueuedOnceWithItsFirstTime) {
    CSocketConnection* const conn = m_pool.get_connection(open_socket());
    m_pool.close_connections(conn);
    time_t const first = m_now;
    m_now += 10;

    m_pool.close_connections(conn);
    EXPECT_EQ(1, m_pool.m_nRecy);
    EXPECT_EQ(1u, m_pool.m_listRecy.size());
    EXPECT_EQ(first, conn->m_tRecycle);
    EXPECT_EQ(2u, conn->iCurrsequence);
}

TEST_F(SockConnPoolTest, QueueingAloneLeavesTheSocketOpen) {
    int const fd = open_socket();
    CSocketConnection* const conn = m_pool.get_connection(fd);

    EXPECT_EQ(0, m_pool.inRecyConnectQueue(conn));
    EXPECT_EQ(0, m_pool.inRecyConnectQueue(conn));
    EXPECT_EQ(fd, conn->get_fd());
    EXPECT_EQ(2u, conn->iCurrsequence);
    EXPECT_EQ(1, m_pool.m_nRecy);
    close(fd);
}

TEST_F(SockConnPoolTest, ARecordIsReadyAgainAfterTheDelayAndNotASecondEarlier) {
    CSocketConnection* const conn = m_pool.get_connection(-1);
    m_pool.close_connections(conn);

    m_now += 59;
    m_pool.IdelRecyConnections();
    EXPECT_EQ(1, m_pool.m_nRecy);
    EXPECT_EQ(0, m_pool.m_nFree);

    m_now += 1;
    m_pool.IdelRecyConnections();
    EXPECT_EQ(0, m_pool.m_nRecy);
    EXPECT_EQ(1, m_pool.m_nFree);
    EXPECT_TRUE(m_pool.m_listRecy.empty());
    EXPECT_EQ(3u, conn->iCurrsequence);
}

TEST_F(SockConnPoolTest, RecyclingNamesThePeerInTheLog) {
    CSocketConnection* const conn = m_pool.get_connection(-1);
    strcpy(conn->m_szPeerName, "10.0.0.1:99");
    m_pool.close_connections(conn);
    m_pool.m_nRecyDelay = 0;
    char line[128];
    snprintf(line, sizeof line, "client:10.0.0.1:99,conn:%p delay the recycle",
             static_cast<void*>(conn));

    m_pool.IdelRecyConnections();
    EXPECT_EQ(1, m_log.count("INFO", line));
}

TEST_F(SockConnPoolTest, RecyclingDoesNotStopAtTheFirstYoungRecord) {
    CSocketConnection* const young = m_pool.get_connection(-1);
    CSocketConnection* const old = m_pool.get_connection(-1);
    m_pool.close_connections(young);
    m_pool.close_connections(old);
    old->m_tRecycle -= 60;

    m_pool.IdelRecyConnections();
    EXPECT_EQ(std::list<CSocketConnection*>{young}, m_pool.m_listRecy);
    EXPECT_EQ(std::list<CSocketConnection*>{old}, m_pool.m_listFree);
}

TEST_F(SockConnPoolTest, AnIdleRoundOfTheRecyclerTakesNoLockAndAsksForNoTime) {
    std::lock_guard<std::mutex> lock(m_pool.m_recyMutex);
    int asked = 0;
    kernel::time.hook = [&](time_t*) { return ++asked; };

    m_pool.IdelRecyConnections();
    EXPECT_EQ(0, asked);
}

TEST_F(SockConnPoolTest, KeepsListsAndCountersWhenAllRecordsAreDestroyed) {
    m_pool.init_connections(2);

    m_pool.clear_connections();
    EXPECT_TRUE(m_pool.m_listAll.empty());
    EXPECT_EQ(2u, m_pool.m_listFree.size());
    EXPECT_EQ(2, m_pool.m_nTotal);
    EXPECT_EQ(2, m_pool.m_nFree);
    EXPECT_EQ(1, m_log.count("INFO", "clear all socket connection from pool"));
}

TEST_F(SockConnPoolTest, AMessageFromBeforeACloseIsDroppedByTheWorker) {
    CSocketConnection* const conn = m_pool.get_connection(-1);
    CMsgHeader msg(MSG_MODE_RECV, MSG_TYPE_STREAM);
    msg.m_pConn = conn;
    msg.m_nSequence = conn->iCurrsequence;

    m_pool.close_connections(conn);
    EXPECT_EQ(-1, utility::instance<CThreadPool>().dealMessage(&msg));
}

}  // namespace
