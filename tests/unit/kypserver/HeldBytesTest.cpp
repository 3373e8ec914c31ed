#include "kypserver/HeldBytes.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "FakeConn.h"

namespace kypserver {
namespace {

constexpr size_t kEach = CHeldBytes::kPerMessage;

class HeldBytesTest : public testing::Test {
protected:
    // A request with `payload` bytes.
    bool take(size_t payload, unsigned short port = 100) {
        return m_held.take(&m_conn, {0, 1, port, static_cast<uint32_t>(21 + payload)});
    }

    size_t held() { return m_held.held(&m_conn); }

    CHeldBytes m_held{10000};
    FakeConn m_conn;
};

TEST_F(HeldBytesTest, ARequestIsHeldUntilItIsServed) {
    EXPECT_EQ(0U, held());

    take(100);
    EXPECT_EQ(100 + kEach, held());

    m_held.served(&m_conn, 100);
    EXPECT_EQ(0U, held());
}

TEST_F(HeldBytesTest, AnAnswerIsHeldUntilItHasLeft) {
    take(100);
    m_held.answering(&m_conn, 40);
    m_held.served(&m_conn, 100);
    EXPECT_EQ(61 + kEach, held());

    m_held.left(&m_conn, 100, 61);
    EXPECT_EQ(0U, held());
}

TEST_F(HeldBytesTest, RefusesWhatWouldExceedTheBound) {
    ASSERT_TRUE(take(5000 - kEach));
    ASSERT_TRUE(take(5000 - kEach));

    EXPECT_FALSE(take(0));

    EXPECT_EQ(10000U, held());
    m_held.served(&m_conn, 5000 - kEach);
    EXPECT_TRUE(take(5000 - kEach));
}

TEST_F(HeldBytesTest, OneRequestMayComeHoweverLarge) {
    EXPECT_TRUE(take(50000));
    EXPECT_FALSE(take(0));
}

TEST_F(HeldBytesTest, TellsWhetherAnAnswerHasRoom) {
    m_held.begin(&m_conn);
    EXPECT_TRUE(m_held.has_room(&m_conn, 50000));  // one always has
    m_held.answering(&m_conn, 5000);

    EXPECT_TRUE(m_held.has_room(&m_conn, 5000 - 2 * (21 + kEach)));
    EXPECT_FALSE(m_held.has_room(&m_conn, 5001 - 2 * (21 + kEach)));
}

TEST_F(HeldBytesTest, AFrameShorterThanItsHeadsHasNoPayload) {
    for (uint32_t length : {0U, 1U, 21U, 0xffffffffU, 0x80000000U}) {
        SCOPED_TRACE(length);
        EXPECT_TRUE(m_held.take(&m_conn, {0, 1, 100, length}));
        EXPECT_EQ(kEach, held());
        m_held.served(&m_conn, 0);
    }
}

TEST_F(HeldBytesTest, TheLibrarysAnswerEndsARequestOnAPortWithoutService) {
    for (unsigned short port : {0, 4097, 65535}) {
        SCOPED_TRACE(port);
        take(3000, port);
        EXPECT_EQ(3000 + kEach, held());

        m_held.left(&m_conn, port, 21);
        EXPECT_EQ(0U, held());
        m_held.left(&m_conn, port, 21);  // one that nobody asked for
        EXPECT_EQ(0U, held());
    }
}

TEST_F(HeldBytesTest, ANewClientOfTheRecordBeginsWithNothing) {
    take(3000);
    take(3000, 5000);

    m_held.begin(&m_conn);

    EXPECT_EQ(0U, held());
    m_held.left(&m_conn, 5000, 21);
    EXPECT_EQ(0U, held());
}

TEST_F(HeldBytesTest, OneClientDoesNotTouchAnother) {
    std::vector<std::unique_ptr<FakeConn>> others;
    for (int i = 0; i < 3000; ++i) others.push_back(std::make_unique<FakeConn>());
    for (auto const& other : others) m_held.begin(other.get());

    take(100);

    EXPECT_EQ(100 + kEach, held());
    for (auto const& other : others) ASSERT_EQ(0U, m_held.held(other.get()));
}

TEST_F(HeldBytesTest, WhoeverIsUnknownHoldsNothing) {
    m_held.served(&m_conn, 1);
    m_held.answering(&m_conn, 1);
    m_held.left(&m_conn, 100, 1);
    m_held.left(&m_conn, 5000, 1);

    EXPECT_EQ(0U, held());
}

TEST_F(HeldBytesTest, ManyThreadsCountTogether) {
    std::vector<std::thread> loops;
    std::vector<std::unique_ptr<FakeConn>> conns(4);
    for (auto& conn : conns) {
        conn = std::make_unique<FakeConn>();
        loops.emplace_back([this, &conn] {
            m_held.begin(conn.get());
            std::thread worker([&] {
                for (int i = 0; i < 1000; ++i) m_held.answering(conn.get(), 10);
            });
            for (int i = 0; i < 1000; ++i) m_held.left(conn.get(), 100, 31);
            worker.join();
        });
    }
    for (std::thread& loop : loops) loop.join();

    for (auto const& conn : conns) EXPECT_EQ(0U, m_held.held(conn.get()));
}

}  // namespace
}  // namespace kypserver
