#include "kypserver/ClientNumbers.h"

#include <gtest/gtest.h>

#include "FakeSocketConn.h"

namespace kypserver {
namespace {

class ClientNumbersTest : public testing::Test {
protected:
    uint16_t take(time_t now = 0) { return m_numbers.take(&m_client, now, &m_wasResting); }

    void take_all() {
        for (int i = 0; i < 65535; ++i) ASSERT_NE(0, take());
    }

    CClientNumbers m_numbers;
    FakeSocketConn m_client;
    bool m_wasResting = false;
};

TEST_F(ClientNumbersTest, BeginAtOneAndGoOn) {
    EXPECT_EQ(1, take());
    EXPECT_EQ(2, take());
    EXPECT_EQ(&m_client, m_numbers.owner(1));
    EXPECT_EQ(nullptr, m_numbers.owner(3));
    EXPECT_EQ(nullptr, m_numbers.owner(0));
}

TEST_F(ClientNumbersTest, AFreeNumberComesBackAsLateAsCanBe) {
    take();
    m_numbers.release(1);

    for (int i = 2; i <= 65535; ++i) ASSERT_EQ(i, take());
    EXPECT_EQ(1, take());
}

TEST_F(ClientNumbersTest, ThereAre65535) {
    take_all();

    EXPECT_EQ(0, take());
    m_numbers.release(4711);
    EXPECT_EQ(4711, take());
}

TEST_F(ClientNumbersTest, ANumberThatRestsIsNotGivenOut) {
    take_all();
    m_numbers.rest(5, 0);
    EXPECT_EQ(nullptr, m_numbers.owner(5));

    EXPECT_EQ(0, take(CClientNumbers::kLongestRest - 1));

    m_numbers.release(5);
    EXPECT_EQ(5, take(0));
    EXPECT_FALSE(m_wasResting);
}

TEST_F(ClientNumbersTest, TheLongestRestEndsWhenNothingElseIsLeft) {
    take_all();
    m_numbers.rest(5, 20);
    m_numbers.rest(6, 10);
    m_numbers.rest(7, 30);

    EXPECT_EQ(6, take(30 + CClientNumbers::kLongestRest));
    EXPECT_TRUE(m_wasResting);
    EXPECT_EQ(5, take(30 + CClientNumbers::kLongestRest));
    EXPECT_EQ(7, take(30 + CClientNumbers::kLongestRest));
    EXPECT_EQ(0, take(30 + CClientNumbers::kLongestRest));
}

}  // namespace
}  // namespace kypserver
