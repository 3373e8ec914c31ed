#include "kypserver/SendLedger.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "FakeConn.h"
#include "FakeSocketConn.h"
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
    CSendLedger m_ledger{m_connections, 300, 300};
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

// Frames that go into the queue of a socket as they are.
class SendLedgerFrameTest : public testing::Test {
protected:
    static constexpr size_t kOne = 100 + CSendLedger::kPerRequest;  // what frame() counts for

    // A frame of `size` bytes that does not stand at the end of its block.
    static std::unique_ptr<CMsgHeader> frame(size_t size = 100, uint8_t fill = 'x') {
        auto made = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM);
        made->setpBuf(take_pbuf(utility::instance<server_bufpool>(), static_cast<int>(size) + 99),
                      48);
        memset(made->GetVaildData(), fill, size);
        made->addRecvBufSize(static_cast<int>(size));
        return made;
    }

    CConnections m_connections{10};
    CSendLedger m_ledger{m_connections, 300, 3 * kOne};
    FakeSocketConn m_conn;
};

TEST_F(SendLedgerFrameTest, IsQueuedWhereItStands) {
    std::unique_ptr<CMsgHeader> made = frame();
    unsigned char* const at = made->GetVaildData();

    EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&m_conn, std::move(made)));

    ASSERT_EQ(1U, m_conn.m_queued.size());
    EXPECT_EQ(at, m_conn.m_queued[0]->GetVaildData());
    EXPECT_EQ(&m_conn, m_conn.m_queued[0]->m_pConn);
    EXPECT_EQ(kOne, m_ledger.waiting(&m_conn));
    EXPECT_TRUE(m_ledger.left(&m_conn, m_conn.m_queued[0]->getpBuf()));
    EXPECT_EQ(0U, m_ledger.waiting(&m_conn));
}

TEST_F(SendLedgerFrameTest, IsDroppedBeyondTheBoundUnlessItMustNotBe) {
    for (int i = 0; i < 4; ++i) EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&m_conn, frame()));
    EXPECT_EQ(CSendLedger::DROPPED_FIRST, m_ledger.offer(&m_conn, frame(1)));

    m_ledger.push(&m_conn, frame());

    EXPECT_EQ(5U, m_conn.m_sent.size());
    EXPECT_EQ(5 * kOne, m_ledger.waiting(&m_conn));
}

TEST_F(SendLedgerFrameTest, RequestsAndTopicMessagesHaveABoundEach) {
    std::string const data(79, 'x');
    auto const offer_topic = [&] {
        return m_ledger.offer(&m_conn, {0, 1, 103, 92}, {}, data.data(), data.size());
    };
    for (int i = 0; i < 4; ++i) EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&m_conn, frame()));
    EXPECT_EQ(CSendLedger::DROPPED_FIRST, m_ledger.offer(&m_conn, frame()));

    for (int i = 0; i < 3; ++i) EXPECT_EQ(CSendLedger::QUEUED, offer_topic());
    EXPECT_EQ(CSendLedger::DROPPED_FIRST, offer_topic());

    EXPECT_EQ(4 * kOne + 300, m_ledger.waiting(&m_conn));
    EXPECT_EQ(2U, m_ledger.dropped());
    m_ledger.left(&m_conn, m_conn.m_queued[0]->getpBuf());
    EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&m_conn, frame()));
    EXPECT_EQ(CSendLedger::DROPPED, offer_topic());
}

TEST_F(SendLedgerFrameTest, WaitsHereWhileItsConnectionIsHeld) {
    uint32_t const ticket = m_ledger.hold(&m_conn);
    m_ledger.offer(&m_conn, frame(100, 'a'));
    m_ledger.offer(&m_conn, {0, 1, 103, 13}, {}, nullptr, 0);
    m_ledger.push(&m_conn, frame(100, 'b'));
    EXPECT_EQ(0U, m_conn.m_sent.size());
    EXPECT_EQ(2 * kOne + 21, m_ledger.waiting(&m_conn));

    m_ledger.release(&m_conn, ticket);

    ASSERT_EQ(3U, m_conn.m_sent.size());
    EXPECT_EQ('a', m_conn.m_sent[0][0]);
    EXPECT_EQ(21U, m_conn.m_sent[1].size());
    EXPECT_EQ('b', m_conn.m_sent[2][0]);
    for (auto const& queued : m_conn.m_queued) {
        EXPECT_TRUE(m_ledger.left(&m_conn, queued->getpBuf()));
    }
    EXPECT_EQ(0U, m_ledger.waiting(&m_conn));
    m_ledger.offer(&m_conn, frame());
    EXPECT_EQ(4U, m_conn.m_sent.size());
}

TEST_F(SendLedgerFrameTest, TheBoundHoldsAlsoWhileItsConnectionIsHeld) {
    m_ledger.hold(&m_conn);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(CSendLedger::QUEUED, m_ledger.offer(&m_conn, frame()));

    EXPECT_EQ(CSendLedger::DROPPED_FIRST, m_ledger.offer(&m_conn, frame(1)));
}

TEST_F(SendLedgerFrameTest, ALaterHoldMakesAnEarlierTicketVoid) {
    uint32_t const first = m_ledger.hold(&m_conn);
    uint32_t const second = m_ledger.hold(&m_conn);
    m_ledger.offer(&m_conn, frame());

    m_ledger.release(&m_conn, first);
    EXPECT_EQ(0U, m_conn.m_sent.size());
    m_ledger.release(&m_conn, second);
    EXPECT_EQ(1U, m_conn.m_sent.size());
}

TEST_F(SendLedgerFrameTest, WhatIsKeptGoesWithItsConnection) {
    uint32_t const ticket = m_ledger.hold(&m_conn);
    m_ledger.offer(&m_conn, frame());

    m_ledger.closed(&m_conn);
    m_ledger.release(&m_conn, ticket);

    EXPECT_EQ(0U, m_conn.m_sent.size());
    EXPECT_EQ(0U, m_ledger.waiting(&m_conn));
    m_ledger.offer(&m_conn, frame());
    EXPECT_EQ(1U, m_conn.m_sent.size());
}

}  // namespace
}  // namespace kypserver
