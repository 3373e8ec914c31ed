#include "kypserver/Sessions.h"

#include <gtest/gtest.h>

#include <memory>

#include "FakeSocketConn.h"

namespace kypserver {
namespace {

class SessionsTest : public testing::Test {
protected:
    // A request of `client` that was passed on.
    uint16_t call(FakeSocketConn& client, FakeSocketConn& component, uint32_t invokeId,
                  unsigned short port = 600, bool isAwaited = true) {
        uint16_t const number = m_sessions.number(&client, 0);
        m_sessions.passed_on(&client, &component, {invokeId, port, 9}, isAwaited);
        return number;
    }

    CSessions::Verdict answer(FakeSocketConn& component, uint16_t number, uint32_t invokeId,
                              bool isTurnedAway = false) {
        m_client = nullptr;
        return m_sessions.answered(&component, number, invokeId, isTurnedAway, &m_client);
    }

    // Numbers that are given out until `number` is, with as many clients.
    int clients_until(uint16_t number, int most) {
        char record;  // is known by its address alone
        auto* const client = reinterpret_cast<CSocketConnection*>(&record);
        for (int i = 1; i <= most; ++i) {
            uint16_t const got = m_sessions.number(client, 0);
            m_sessions.end_client(client, 0);
            if (got == number) return i;
        }
        return 0;
    }

    CSessions m_sessions;
    FakeSocketConn m_first;
    FakeSocketConn m_second;
    FakeSocketConn m_motor;
    FakeSocketConn m_drive;
    CSocketConnection* m_client = nullptr;
};

TEST_F(SessionsTest, AClientHasOneNumberForAllComponents) {
    EXPECT_EQ(1, m_sessions.number(&m_first, 0));
    EXPECT_EQ(1, m_sessions.number(&m_first, 0));
    EXPECT_EQ(2, m_sessions.number(&m_second, 0));
}

TEST_F(SessionsTest, AnAnswerIsForWhoeverHasTheNumber) {
    uint16_t const first = call(m_first, m_motor, 7);
    uint16_t const second = call(m_second, m_motor, 7);

    EXPECT_EQ(CSessions::FOR_CLIENT, answer(m_motor, second, 7));
    EXPECT_EQ(&m_second, m_client);
    EXPECT_EQ(CSessions::FOR_CLIENT, answer(m_motor, first, 7));
    EXPECT_EQ(&m_first, m_client);
}

TEST_F(SessionsTest, AComponentMaySendUnaskedToAClientThatItKnows) {
    uint16_t const first = call(m_first, m_motor, 7);

    for (uint32_t invokeId : {7, 7, 0, 99}) {
        EXPECT_EQ(CSessions::FOR_CLIENT, answer(m_motor, first, invokeId));
    }
}

TEST_F(SessionsTest, AComponentKnowsOnlyWhoHasCalledIt) {
    uint16_t const first = call(m_first, m_motor, 7);

    EXPECT_EQ(CSessions::NEVER_CALLED, answer(m_drive, first, 7));
    EXPECT_EQ(CSessions::CLIENT_HAS_GONE, answer(m_motor, 99, 7));
    EXPECT_EQ(CSessions::CLIENT_HAS_GONE, answer(m_motor, 0, 7));
}

TEST_F(SessionsTest, EveryComponentThatHasSeenAClientHearsOfItsEnd) {
    uint16_t const first = call(m_first, m_motor, 7, 600);
    call(m_first, m_motor, 8, 601);
    call(m_first, m_drive, 9, 700);
    call(m_second, m_drive, 9, 700);

    auto const leaves = m_sessions.end_client(&m_first, 0);

    ASSERT_EQ(2U, leaves.size());
    EXPECT_EQ(&m_motor, leaves[0].component);
    EXPECT_EQ(601, leaves[0].port);
    EXPECT_EQ(first, leaves[0].number);
    EXPECT_EQ(&m_drive, leaves[1].component);
    EXPECT_EQ(700, leaves[1].port);
    EXPECT_TRUE(m_sessions.end_client(&m_first, 0).empty());
}

TEST_F(SessionsTest, NobodyHearsOfAClientThatHasCalledNobody) {
    m_sessions.number(&m_first, 0);

    EXPECT_TRUE(m_sessions.end_client(&m_first, 0).empty());
}

TEST_F(SessionsTest, AComponentThatHasTurnedAClientAwayDoesNotHearOfItsEnd) {
    uint16_t const first = call(m_first, m_motor, 7);
    call(m_first, m_motor, 8, 600, false);
    call(m_first, m_drive, 9, 700);

    EXPECT_EQ(CSessions::FOR_CLIENT, answer(m_motor, first, 7, true));
    EXPECT_EQ(CSessions::FOR_CLIENT, answer(m_motor, first, 8, true));

    auto const leaves = m_sessions.end_client(&m_first, 0);
    ASSERT_EQ(1U, leaves.size());
    EXPECT_EQ(&m_drive, leaves[0].component);
}

TEST_F(SessionsTest, AClientThatWasTakenInLaterIsReported) {
    uint16_t const first = call(m_first, m_motor, 7);
    answer(m_motor, first, 7, true);
    call(m_first, m_motor, 8);

    EXPECT_EQ(1U, m_sessions.end_client(&m_first, 0).size());

    uint16_t const second = call(m_second, m_motor, 7);
    for (uint32_t invokeId : {7, 7, 99}) answer(m_motor, second, invokeId, true);
    call(m_second, m_motor, 8);
    answer(m_motor, second, 8);

    EXPECT_EQ(1U, m_sessions.end_client(&m_second, 0).size());
}

TEST_F(SessionsTest, ANumberRestsUntilTheLastAnswerHasCome) {
    uint16_t const first = call(m_first, m_motor, 7);
    call(m_first, m_motor, 8);
    call(m_first, m_drive, 9);
    m_sessions.end_client(&m_first, 0);
    EXPECT_EQ(0, clients_until(first, 65600));

    for (uint32_t invokeId : {7, 7, 99}) {
        EXPECT_EQ(CSessions::CLIENT_HAS_GONE, answer(m_motor, first, invokeId));
    }
    answer(m_drive, first, 9);
    EXPECT_EQ(0, clients_until(first, 65600));

    answer(m_motor, first, 8);
    EXPECT_NE(0, clients_until(first, 65600));
}

TEST_F(SessionsTest, ARequestWithoutAnAnswerDoesNotHoldANumber) {
    uint16_t const first = call(m_first, m_motor, 7, 600, false);
    m_sessions.end_client(&m_first, 0);

    EXPECT_NE(0, clients_until(first, 65600));
}

TEST_F(SessionsTest, AComponentThatEndsLeavesWhatItHasNotAnswered) {
    call(m_first, m_motor, 7, 600);
    call(m_first, m_motor, 8, 601);
    call(m_first, m_drive, 9);
    uint16_t const second = call(m_second, m_motor, 7);
    answer(m_motor, second, 7);

    auto const unanswered = m_sessions.end_component(&m_motor);

    ASSERT_EQ(2U, unanswered.size());
    EXPECT_EQ(&m_first, unanswered[0].client);
    EXPECT_EQ(7U, unanswered[0].request.invokeId);
    EXPECT_EQ(600, unanswered[0].request.port);
    EXPECT_EQ(8U, unanswered[1].request.invokeId);
    EXPECT_EQ(601, unanswered[1].request.port);
    EXPECT_EQ(CSessions::NEVER_CALLED, answer(m_motor, second, 7));
    EXPECT_EQ(1U, m_sessions.end_client(&m_first, 0).size());
}

TEST_F(SessionsTest, AComponentThatEndsFreesTheNumbersThatRestForIt) {
    uint16_t const first = call(m_first, m_motor, 7);
    call(m_first, m_drive, 7);
    m_sessions.end_client(&m_first, 0);

    m_sessions.end_component(&m_motor);
    EXPECT_EQ(0, clients_until(first, 65600));
    m_sessions.end_component(&m_drive);
    EXPECT_NE(0, clients_until(first, 65600));
}

TEST_F(SessionsTest, ANumberTakenOutOfItsRestIsForgottenByItsFormerOwner) {
    uint16_t const first = call(m_first, m_motor, 7);
    m_sessions.end_client(&m_first, 0);
    std::vector<std::unique_ptr<char[]>> clients;
    // Records are known by their address alone.
    for (int i = 1; i < 65535; ++i) {
        clients.push_back(std::make_unique<char[]>(1));
        ASSERT_NE(0,
                  m_sessions.number(reinterpret_cast<CSocketConnection*>(clients.back().get()), 0));
    }
    ASSERT_EQ(0, m_sessions.number(&m_second, CClientNumbers::kLongestRest - 1));

    ASSERT_EQ(first, m_sessions.number(&m_second, CClientNumbers::kLongestRest));

    EXPECT_EQ(CSessions::NEVER_CALLED, answer(m_motor, first, 7));
    EXPECT_EQ(first, call(m_second, m_motor, 8));
    EXPECT_EQ(CSessions::FOR_CLIENT, answer(m_motor, first, 8));
}

TEST_F(SessionsTest, OfMoreThan512RequestsTheOldestIsForgotten) {
    for (uint32_t i = 0; i < 513; ++i) call(m_first, m_motor, i);

    auto const unanswered = m_sessions.end_component(&m_motor);

    ASSERT_EQ(512U, unanswered.size());
    EXPECT_EQ(1U, unanswered.front().request.invokeId);
    EXPECT_EQ(512U, unanswered.back().request.invokeId);
}

}  // namespace
}  // namespace kypserver
