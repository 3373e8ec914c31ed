#include "kypserver/Counters.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "kypcomm/KypWire.h"
#include "support/FrameBytes.h"

namespace kypserver {
namespace {

// A frame with this state and error word behind its first head.
Bytes frame(uint8_t state, uint32_t error, size_t payload) {
    Bytes bytes = kyp_head(600, static_cast<uint32_t>(13 + payload));
    bytes.resize(21 + payload);
    for (int i = 0; i < 4; ++i) bytes[8 + i] = static_cast<uint8_t>(error >> (24 - 8 * i));
    bytes[20] = state;
    return bytes;
}

class CountersTest : public testing::Test {
protected:
    void send(Bytes const& bytes) { m_counters.sent(bytes.data(), bytes.size()); }

    CCounters m_counters;
};

TEST_F(CountersTest, BeginWithNothing) {
    CCounters::Snapshot const now = m_counters.snapshot();

    EXPECT_EQ(0u, now.accepted + now.received + now.receivedBytes + now.replies + now.replyBytes +
                      now.others + now.otherBytes + now.published + now.otherErrors);
    EXPECT_TRUE(now.errors.empty());
    for (uint64_t const dropped : now.dropped) EXPECT_EQ(0u, dropped);
}

TEST_F(CountersTest, TellRepliesFromOtherFrames) {
    send(frame(KYP_STATE_RESPONSE, 0, 10));
    send(frame(KYP_STATE_RESPONSE, 0, 0));
    send(frame(KYP_STATE_REQUEST, 0, 4));

    CCounters::Snapshot const now = m_counters.snapshot();
    EXPECT_EQ(2u, now.replies);
    EXPECT_EQ(31u + 21u, now.replyBytes);
    EXPECT_EQ(1u, now.others);
    EXPECT_EQ(25u, now.otherBytes);
    EXPECT_TRUE(now.errors.empty());
}

TEST_F(CountersTest, CountRepliesByTheirCode) {
    for (uint32_t const code : {0x1006u, 0x4004u, 0x1006u}) {
        send(frame(KYP_STATE_RESPONSE, code, 0));
    }

    EXPECT_EQ((std::map<uint32_t, uint64_t>{{0x1006, 2}, {0x4004, 1}}),
              m_counters.snapshot().errors);
}

TEST_F(CountersTest, AnErrorWordInARequestIsNoError) {
    send(frame(KYP_STATE_REQUEST, 0x1006, 0));

    EXPECT_TRUE(m_counters.snapshot().errors.empty());
}

TEST_F(CountersTest, AFrameWithoutItsHeadsIsNoReply) {
    send(Bytes(20, 0xff));

    EXPECT_EQ(0u, m_counters.snapshot().replies);
    EXPECT_EQ(1u, m_counters.snapshot().others);
}

TEST_F(CountersTest, CodesBeyondTheTableAreCountedTogether) {
    for (uint32_t code = 1; code <= 70; ++code) send(frame(KYP_STATE_RESPONSE, code, 0));
    send(frame(KYP_STATE_RESPONSE, 64, 0));

    CCounters::Snapshot const now = m_counters.snapshot();
    EXPECT_EQ(64u, now.errors.size());
    EXPECT_EQ(2u, now.errors.at(64));
    EXPECT_EQ(6u, now.otherErrors);
}

TEST_F(CountersTest, EachKindHasItsNumber) {
    m_counters.accepted();
    m_counters.received(100);
    m_counters.received(21);
    m_counters.published();
    m_counters.dropped(CCounters::DROP_REPLY);

    CCounters::Snapshot const now = m_counters.snapshot();
    EXPECT_EQ(1u, now.accepted);
    EXPECT_EQ(2u, now.received);
    EXPECT_EQ(121u, now.receivedBytes);
    EXPECT_EQ(1u, now.published);
    EXPECT_EQ(1u, now.dropped[CCounters::DROP_REPLY]);
    EXPECT_EQ(0u, now.dropped[CCounters::DROP_DATAGRAM]);
}

TEST_F(CountersTest, NothingIsLostBetweenThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            for (uint32_t i = 0; i < 1000; ++i) send(frame(KYP_STATE_RESPONSE, 1 + i % 8, 0));
        });
    }
    for (std::thread& thread : threads) thread.join();

    CCounters::Snapshot const now = m_counters.snapshot();
    EXPECT_EQ(4000u, now.replies);
    EXPECT_EQ(8u, now.errors.size());
    for (auto const& [code, count] : now.errors) EXPECT_EQ(500u, count) << code;
}

}  // namespace
}  // namespace kypserver
