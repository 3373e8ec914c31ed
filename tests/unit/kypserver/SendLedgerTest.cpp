#include "kypserver/SendLedger.h"

#include <gtest/gtest.h>

#include <string>

#include "FakeConn.h"
#include "kypserver/Connections.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace kypserver {
namespace {

class SendLedgerTest : public testing::Test {
protected:
    // A frame of 100 bytes.
    CSendLedger::Offer offer(size_t size = 79) {
        std::string const data(size, 'x');
        return m_ledger.offer(&m_conn, {0, 1, 103, static_cast<uint32_t>(13 + size)}, {},
                              data.data(), data.size());
    }

    // One frame that is being sent, and 300 bytes behind it.
    void fill() {
        for (int i = 0; i < 4; ++i) ASSERT_EQ(CSendLedger::QUEUED, offer());
    }

    // The loop has sent the frame that was queued as number `index`.
    void leave(size_t index) { m_ledger.left(&m_conn, m_conn.m_bufs[index]); }

    CConnections m_connections{10};
    CSendLedger m_ledger{m_connections, 300};
    FakeConn m_conn;
};

TEST_F(SendLedgerTest, QueuesAWholeFrame) {
    _AoEHeader aoe = {};
    aoe.cmd = utils_htons(8);

    EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&m_conn, {0, 1, 103, 15}, aoe, "AB", 2));

    ASSERT_EQ(1U, m_conn.m_sent.size());
    EXPECT_EQ("00 01 67 00 0F 00 00 00 00 00 00 00 00 00 00 00 00 08 00 00 00 41 42",
              hex(m_conn.m_sent[0]));
}

TEST_F(SendLedgerTest, CountsWhatWaits) {
    offer();
    offer();
    EXPECT_EQ(200U, m_ledger.waiting(&m_conn));

    leave(0);
    EXPECT_EQ(100U, m_ledger.waiting(&m_conn));
    leave(1);
    EXPECT_EQ(0U, m_ledger.waiting(&m_conn));
}

TEST_F(SendLedgerTest, DropsWhatWouldExceedTheBound) {
    fill();

    EXPECT_EQ(CSendLedger::DROPPED_FIRST, offer(0));

    EXPECT_EQ(4U, m_conn.m_sent.size());
    EXPECT_EQ(1U, m_ledger.dropped());
    EXPECT_EQ(400U, m_ledger.waiting(&m_conn));
}

TEST_F(SendLedgerTest, OneFrameMayWaitHoweverLarge) {
    EXPECT_EQ(CSendLedger::QUEUED, offer(5000));  // being sent
    EXPECT_EQ(CSendLedger::QUEUED, offer(5000));
    EXPECT_EQ(CSendLedger::DROPPED_FIRST, offer(0));
}

TEST_F(SendLedgerTest, ABurstIsNewsOnce) {
    fill();
    EXPECT_EQ(CSendLedger::DROPPED_FIRST, offer());
    EXPECT_EQ(CSendLedger::DROPPED, offer());
    leave(0);  // room for one again, but the burst goes on
    EXPECT_EQ(CSendLedger::QUEUED, offer());

    EXPECT_EQ(CSendLedger::DROPPED, offer());
}

TEST_F(SendLedgerTest, ABurstEndsWhenHalfIsFree) {
    SetLogLevel(LOG_LEVEL_INFO);
    fill();
    offer();
    offer();
    LogCapture log;
    leave(0);
    leave(1);
    EXPECT_EQ(0, log.count_containing("reads again"));
    leave(2);
    EXPECT_EQ(1, log.count_containing("reads again,2 messages were dropped"));
    for (int i = 0; i < 3; ++i) offer();

    EXPECT_EQ(CSendLedger::DROPPED_FIRST, offer());
}

TEST_F(SendLedgerTest, FramesOfOthersAreNotCounted) {
    pbuf other(64);
    offer();

    m_ledger.left(&m_conn, &other);

    EXPECT_EQ(100U, m_ledger.waiting(&m_conn));
}

TEST_F(SendLedgerTest, AClosedConnectionHasNothingWaiting) {
    offer();
    offer();

    m_ledger.closed(&m_conn);

    EXPECT_EQ(0U, m_ledger.waiting(&m_conn));
    leave(0);
    EXPECT_EQ(CSendLedger::QUEUED, offer());
}

TEST_F(SendLedgerTest, OneSlowPeerDoesNotTouchAnother) {
    FakeConn other;
    fill();
    EXPECT_EQ(CSendLedger::DROPPED_FIRST, offer());

    EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&other, {0, 1, 103, 13}, {}, nullptr, 0));
}

}  // namespace
}  // namespace kypserver
