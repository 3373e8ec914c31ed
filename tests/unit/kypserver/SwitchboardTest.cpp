#include "kypserver/Switchboard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "FakeSocketConn.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/SendLedger.h"
#include "support/FakeComponent.h"

namespace kypserver {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr size_t kEach = CHeldBytes::kPerMessage;

class SwitchboardTest : public testing::Test {
protected:
    SwitchboardTest() {
        m_connections.on_begin([this](IConnection* conn) { m_held.begin(conn); });
        m_connections.on_end([this](IConnection* conn) {
            m_switchboard.end(conn);
            m_ledger.closed(conn);
        });
        for (FakeSocketConn* conn : {&m_first, &m_second, &m_motor, &m_drive}) {
            m_connections.begin(conn);
        }
        EXPECT_EQ(0U, m_switchboard.register_component(&m_motor, {"motor", 0, 0, {}}));
        EXPECT_EQ(0U, m_switchboard.register_port(&m_motor, "motor", 600));
        EXPECT_EQ(0U, m_switchboard.register_component(&m_drive, {"drive", 0, 0, {}}));
        EXPECT_EQ(0U, m_switchboard.register_port(&m_drive, "drive", 700));
    }

    // `frame` comes from `conn`; gives what standard error says.
    std::string receive(FakeSocketConn& conn, Bytes const& frame,
                        EnMsgType type = MSG_TYPE_STREAM) {
        _KypHeader head;
        _AoEHeader aoe;
        auto const msg = received(&conn, frame, head, aoe, type);
        m_held.take(&conn, head);
        testing::internal::CaptureStderr();
        m_switchboard.handle(*msg, head, aoe);
        return testing::internal::GetCapturedStderr();
    }

    // A request of `conn`; gives the number that its component sees, 0 when it sees nothing.
    uint16_t call(FakeSocketConn& conn, uint16_t port, uint32_t invokeId) {
        FakeSocketConn& component = port == 700 ? m_drive : m_motor;
        component.last();
        receive(conn, request_frame(port, 9, invokeId, 0, 0));
        return take_forwarded_apart(component.last()).client;
    }

    CConnections m_connections{10};
    CSendLedger m_ledger{m_connections, 300, 7 * (42 + CSendLedger::kPerRequest)};
    CHeldBytes m_held{100000};
    CCounters m_counters;
    CSwitchboard m_switchboard{m_connections, m_ledger, m_held, m_counters};
    FakeSocketConn m_first;
    FakeSocketConn m_second;
    FakeSocketConn m_motor;
    FakeSocketConn m_drive;
};

TEST_F(SwitchboardTest, ARequestGetsTheNumberOfItsClientInFrontOfItsPayload) {
    receive(m_first, request_frame(600, 9, 7, 0x10, 0x20, text("AB")));

    EXPECT_EQ(
        "00 01 58 02 24 00 00 00"
        " 00 00 00 00 00 00 00 07 00 09 00 00 00"
        " 00 00 00 10 00 00 00 20"
        " 00 00 00 00 00 01 00 00 00 00 00 00 00"
        " 41 42",
        hex(m_motor.last()));
    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, AnAnswerLosesItsForwardHead) {
    receive(m_first, request_frame(600, 9, 7, 0x10, 0x20, text("AB")));
    receive(m_motor, bytes("00 01 58 02 1C 00 00 00"
                           " 00 00 00 00 00 00 00 07 00 09 00 00 01"
                           " 00 00 00 00 00 00 00 01 00 07 00 00 00"
                           " 43 44"));

    EXPECT_EQ(
        "00 01 58 02 0F 00 00 00"
        " 00 00 00 00 00 00 00 07 00 09 00 00 01"
        " 43 44",
        hex(m_first.last()));
}

TEST_F(SwitchboardTest, NoPayloadIsMoved) {
    _KypHeader head;
    _AoEHeader aoe;
    Bytes const payload = pattern(100000);
    auto const request = received(&m_first, request_frame(600, 9, 7, 0, 0, payload), head, aoe);
    unsigned char* const at = request->GetVaildData() + 8;

    m_switchboard.handle(*request, head, aoe);

    ASSERT_EQ(1U, m_motor.m_queued.size());
    EXPECT_EQ(at, m_motor.m_queued[0]->GetVaildData() + 42);
    auto const answer = received(&m_motor, answer_frame(600, 9, 7, 1, payload), head, aoe);
    unsigned char* const answered = answer->GetVaildData() + 13;

    m_switchboard.handle(*answer, head, aoe);

    ASSERT_EQ(1U, m_first.m_queued.size());
    EXPECT_EQ(answered, m_first.m_queued[0]->GetVaildData() + 21);
}

TEST_F(SwitchboardTest, TheHeadsGoAsTheyCame) {
    receive(m_first, join({kyp_head(600, 21, 0), aoe_head(5, 7, 4711, 0), address_head(1, 2)}));
    EXPECT_EQ(hex(join({kyp_head(600, 34, 0), aoe_head(5, 7, 4711, 0), address_head(1, 2),
                        bytes("00 00 00 00 00 01 00 00 00 00 00 00 00")})),
              hex(m_motor.last()));

    receive(m_motor, join({kyp_head(601, 26, 3), aoe_head(0x101b, 8, 2, 1),
                           bytes("00 00 00 00 00 00 00 01 00 08 00 00 00")}));
    EXPECT_EQ(hex(join({kyp_head(601, 13, 3), aoe_head(0x101b, 8, 2, 1)})), hex(m_first.last()));
}

TEST_F(SwitchboardTest, ClientsAreToldApartByTheirNumbers) {
    EXPECT_EQ(1, call(m_first, 600, 7));
    EXPECT_EQ(2, call(m_second, 600, 7));
    EXPECT_EQ(1, call(m_first, 700, 7));

    receive(m_motor, answer_frame(600, 9, 7, 2));
    EXPECT_EQ(1U, m_second.m_sent.size());
    EXPECT_THAT(m_first.m_sent, IsEmpty());
    receive(m_motor, answer_frame(600, 9, 7, 1));
    EXPECT_EQ(1U, m_first.m_sent.size());
}

TEST_F(SwitchboardTest, TellsOfItsComponentsInTheOrderOfTheirNames) {
    call(m_first, 600, 7);
    call(m_second, 600, 8);
    EXPECT_EQ(0U, m_switchboard.register_port(&m_motor, "motor", 601));

    auto const state = m_switchboard.state();

    ASSERT_EQ(2U, state.size());
    EXPECT_EQ("drive", state[0].name);
    EXPECT_THAT(state[0].ports, testing::ElementsAre(700));
    EXPECT_EQ(0U, state[0].clients);
    EXPECT_EQ("motor", state[1].name);
    EXPECT_THAT(state[1].ports, testing::ElementsAre(600, 601));
    EXPECT_EQ(2U, state[1].clients);
    m_connections.end(&m_first);
    EXPECT_EQ(1U, m_switchboard.state()[1].clients);
}

TEST_F(SwitchboardTest, CountsTheAnswersThatNobodyWaitsFor) {
    call(m_first, 600, 7);
    receive(m_motor, answer_frame(600, 9, 7, 9));  // never called it
    m_connections.end(&m_first);
    receive(m_motor, answer_frame(600, 9, 7, 1));  // has gone

    EXPECT_EQ(2U, m_counters.snapshot().dropped[CCounters::DROP_REPLY]);
}

TEST_F(SwitchboardTest, OneComponentMayCallAnother) {
    EXPECT_EQ(1, call(m_motor, 700, 7));
    receive(m_drive, answer_frame(700, 9, 7, 1, text("CD")));

    EXPECT_EQ(hex(response_frame(700, 9, 7, text("CD"))), hex(m_motor.last()));
}

TEST_F(SwitchboardTest, AComponentMayCallItself) {
    EXPECT_EQ(1, call(m_motor, 600, 7));
    receive(m_motor, answer_frame(600, 9, 7, 1, text("CD")));
    EXPECT_EQ(hex(response_frame(600, 9, 7, text("CD"))), hex(m_motor.last()));

    call(m_motor, 600, 8);
    m_connections.end(&m_motor);
    EXPECT_EQ(1U, m_switchboard.components());
}

TEST_F(SwitchboardTest, APortThatNobodyServesAndOneThatIsServedNoMore) {
    for (uint16_t port : {1, 500, 501, 601, 4096}) {
        receive(m_first, request_frame(port, 9, 7, 0, 0, text("AB")));
        EXPECT_EQ(hex(response_frame(port, 9, 7, {}, 0x1006)), hex(m_first.last()));
    }

    m_connections.end(&m_motor);
    receive(m_first, request_frame(600, 9, 8, 0, 0, text("AB")));
    EXPECT_EQ(hex(response_frame(600, 9, 8, {}, 0x4004)), hex(m_first.last()));
}

TEST_F(SwitchboardTest, NobodyIsToldWhoDoesNotAwaitIt) {
    for (uint16_t cmd : {6, 7, 8}) receive(m_first, request_frame(601, cmd, 7, 0, 0));

    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, ARequestWithoutAnAddressIsTooShort) {
    receive(m_first, join({kyp_head(600, 20), aoe_head(0, 7, 9, 0), Bytes(7)}));
    EXPECT_EQ(hex(response_frame(600, 9, 7, {}, 0x100c)), hex(m_first.last()));

    receive(m_first, join({kyp_head(600, 3), Bytes(3)}));
    EXPECT_EQ(hex(response_frame(600, 0, 0, {}, 0x100c)), hex(m_first.last()));
    EXPECT_THAT(m_motor.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, ARequestMustFitWithItsForwardHead) {
    // 21 bytes of heads in front of the payload and 13 more towards the component.
    Bytes const fits = request_frame(600, 9, 7, 0, 0, Bytes(0x5fffff - 34));
    Bytes const tooLong = request_frame(600, 9, 8, 0, 0, Bytes(0x5fffff - 33));

    receive(m_first, fits);
    ASSERT_EQ(1U, m_motor.m_sent.size());
    EXPECT_EQ(0x5fffffU, take_apart(m_motor.last()).msgLen);
    receive(m_first, tooLong);
    EXPECT_EQ(1U, m_motor.m_sent.size());
    EXPECT_EQ(hex(response_frame(600, 9, 8, {}, 0x100d)), hex(m_first.last()));
}

TEST_F(SwitchboardTest, AClientThatOneOfItsComponentsHasTurnedAwayIsReportedToTheOthers) {
    uint16_t const first = call(m_first, 600, 7);
    call(m_first, 700, 8);
    receive(m_motor, answer_frame(600, 9, 7, first, {}, 0x101b));
    EXPECT_EQ(hex(response_frame(600, 9, 7, {}, 0x101b)), hex(m_first.last()));
    m_motor.last();
    m_drive.last();

    m_connections.end(&m_first);

    EXPECT_THAT(m_motor.last(), IsEmpty());
    EXPECT_EQ(1U, take_forwarded_apart(m_drive.last()).event);
}

TEST_F(SwitchboardTest, AnAnswerForAClientThatHasGoneIsDropped) {
    call(m_first, 600, 7);
    m_connections.end(&m_first);

    EXPECT_EQ("", receive(m_motor, answer_frame(600, 9, 7, 1)));

    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, AnAnswerOfAComponentThatWasNotAskedIsDroppedAndReported) {
    call(m_first, 600, 7);

    EXPECT_THAT(receive(m_drive, answer_frame(600, 9, 7, 1)),
                HasSubstr("an answer of component drive on port 600 is dropped: client 1 has never "
                          "called it"));

    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, AnAnswerOnAReservedPortIsDroppedAndReported) {
    call(m_first, 600, 7);

    EXPECT_THAT(receive(m_motor, answer_frame(500, 9, 7, 1)),
                HasSubstr("an answer of component motor on port 500 is dropped: the port is "
                          "reserved"));
    EXPECT_THAT(m_first.m_sent, IsEmpty());

    receive(m_motor, answer_frame(501, 9, 7, 1));
    EXPECT_EQ(1U, m_first.m_sent.size());
}

TEST_F(SwitchboardTest, AnAnswerTooShortForItsForwardHeadIsDroppedAndReported) {
    call(m_first, 600, 7);

    for (size_t size : {0, 1, 12}) {
        EXPECT_THAT(receive(m_motor, response_frame(600, 9, 7, Bytes(size))),
                    HasSubstr("an answer of component motor on port 600 is dropped: it is too "
                              "short"));
    }
    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, WhoeverAnswersWithoutBeingAComponentLosesItsConnection) {
    call(m_first, 600, 7);

    EXPECT_THAT(receive(m_second, answer_frame(600, 9, 7, 1)),
                HasSubstr("is closed: it answers on port 600 and is no component"));

    EXPECT_TRUE(m_second.m_far.expect_closed());
    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, AComponentHearsThatItsClientHasGone) {
    call(m_first, 600, 7);
    call(m_second, 600, 7);

    m_connections.end(&m_first);

    EXPECT_EQ(hex(forward_frame(600, 8, 0, 1, {}, 1)), hex(m_motor.last()));
    EXPECT_THAT(m_drive.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, WhatWaitsForAComponentThatEndsIsRefused) {
    call(m_first, 600, 7);
    call(m_first, 600, 8);
    receive(m_first, request_frame(600, 8, 9, 0, 0));  // not awaited
    receive(m_motor, answer_frame(600, 9, 7, 1));
    m_first.last();

    m_connections.end(&m_motor);

    EXPECT_EQ(2U, m_first.m_sent.size());
    EXPECT_EQ(hex(response_frame(600, 9, 8, {}, 0x4004)), hex(m_first.last()));
}

TEST_F(SwitchboardTest, AComponentThatDoesNotReadIsRefusedAtOnceAndReportedOnce) {
    std::string said;
    size_t refused = 0;
    for (uint32_t i = 0; i < 20; ++i) {
        said += receive(m_first, request_frame(600, 9, i, 0, 0));
        refused += m_first.last() == response_frame(600, 9, i, {}, 0x1011) ? 1 : 0;
    }

    EXPECT_EQ(8U, m_motor.m_sent.size());  // one that is being sent, and seven behind it
    EXPECT_EQ(12U, refused);
    EXPECT_THAT(said, HasSubstr("component motor reads too slowly"));
    EXPECT_EQ(said.find("reads too slowly"), said.rfind("reads too slowly"));
}

TEST_F(SwitchboardTest, NobodyHearsOfAClientWhoseRequestsWereAllRefused) {
    for (uint32_t i = 0; i < 20; ++i) call(m_first, 600, i);
    receive(m_second, request_frame(600, 9, 7, 0, 0));
    size_t const before = m_motor.m_sent.size();

    m_connections.end(&m_second);
    EXPECT_EQ(before, m_motor.m_sent.size());

    m_connections.end(&m_first);  // heard of, however much waits
    EXPECT_EQ(before + 1, m_motor.m_sent.size());
}

TEST_F(SwitchboardTest, NothingIsPassedOnBehindTheEndOfAClient) {
    call(m_first, 600, 7);
    m_connections.end(&m_first);
    m_motor.last();

    EXPECT_EQ(0, call(m_first, 600, 8));

    EXPECT_THAT(m_first.m_sent, IsEmpty());
}

TEST_F(SwitchboardTest, ARequestIsHeldUntilItIsPassedOnAndItsAnswerUntilItHasLeft) {
    for (Bytes const& frame :
         {request_frame(600, 9, 7, 0, 0, text("AB")), request_frame(600, 8, 7, 0, 0),
          join({kyp_head(600, 3), Bytes(3)}), request_frame(601, 9, 7, 0, 0, text("AB"))}) {
        SCOPED_TRACE(hex(frame));
        receive(m_first, frame);
        size_t const refused = m_first.m_sent.size();
        EXPECT_EQ(refused * (21 + kEach), m_held.held(&m_first));
    }
    for (size_t i = 0; i < m_first.m_sent.size(); ++i) m_held.left(&m_first, 600, 21);
    ASSERT_EQ(0U, m_held.held(&m_first));

    receive(m_motor, answer_frame(600, 9, 7, 1, text("CD")));

    EXPECT_EQ(23 + kEach, m_held.held(&m_first));
    EXPECT_EQ(0U, m_held.held(&m_motor));
    m_held.left(&m_first, 600, 23);
    EXPECT_EQ(0U, m_held.held(&m_first));
}

TEST_F(SwitchboardTest, AClientThatTakesNoAnswersLosesItsConnection) {
    call(m_first, 600, 7);
    for (int i = 0; i < 9; ++i) receive(m_motor, answer_frame(600, 9, 7, 1, Bytes(10000)));
    ASSERT_EQ(9U, m_first.m_sent.size());

    EXPECT_THAT(receive(m_motor, answer_frame(600, 9, 7, 1, Bytes(10000))),
                HasSubstr("as many answers unread as may be (--max-held-bytes)"));

    EXPECT_EQ(9U, m_first.m_sent.size());
    EXPECT_TRUE(m_first.m_far.expect_closed());
}

TEST_F(SwitchboardTest, AllSendersOfDatagramsAreOneClientThatNeverGoes) {
    FakeSocketConn udp;
    receive(udp, request_frame(600, 9, 7, 0, 0), MSG_TYPE_DATAGRAM);
    EXPECT_EQ(1, take_forwarded_apart(m_motor.last()).client);
    receive(udp, request_frame(600, 9, 8, 0, 0), MSG_TYPE_DATAGRAM);
    EXPECT_EQ(1, take_forwarded_apart(m_motor.last()).client);

    receive(m_motor, answer_frame(600, 9, 8, 1, text("CD")));

    EXPECT_EQ(hex(response_frame(600, 9, 8, text("CD"))), hex(udp.last()));
}

TEST_F(SwitchboardTest, AClosedChannelIsNotRegistered) {
    m_connections.end(&m_first);

    EXPECT_EQ(5U, m_switchboard.register_component(&m_first, {"late", 0, 0, {}}));
    EXPECT_EQ(5U, m_switchboard.register_port(&m_first, "late", 800));
    EXPECT_EQ(2U, m_switchboard.components());
}

TEST_F(SwitchboardTest, AComponentTakesNameAndPortsOverFromItsGhost) {
    EXPECT_EQ(0x4003U, m_switchboard.register_component(&m_first, {"motor", 0, 0, {}}));
    call(m_second, 600, 7);
    m_motor.m_far.close();

    EXPECT_EQ(0U, m_switchboard.register_component(&m_first, {"motor", 0, 0, {}}));
    EXPECT_EQ(0U, m_switchboard.register_port(&m_first, "motor", 600));

    EXPECT_EQ(hex(response_frame(600, 9, 7, {}, 0x4004)), hex(m_second.last()));
    m_connections.end(&m_motor);
    receive(m_second, request_frame(600, 9, 8, 0, 0));
    EXPECT_EQ(8U, take_forwarded_apart(m_first.last()).invokeId);
}

TEST_F(SwitchboardTest, AComponentTakesOverFromOneWhoseEndIsStillToCome) {
    CConnections connections(10);
    CSwitchboard switchboard(connections, m_ledger, m_held, m_counters);
    connections.begin(&m_first);
    connections.begin(&m_second);
    switchboard.register_component(&m_first, {"spare", 0, 0, {}});
    switchboard.register_port(&m_first, "spare", 800);

    connections.end(&m_first);
    EXPECT_EQ(0U, switchboard.register_component(&m_second, {"spare", 0, 0, {}}));
    EXPECT_EQ(0U, switchboard.register_port(&m_second, "spare", 800));
    switchboard.end(&m_first);

    EXPECT_EQ(1U, switchboard.components());
    EXPECT_EQ(0U, switchboard.register_port(&m_second, "spare", 800));
}

TEST_F(SwitchboardTest, AComponentTakesAPortOverFromAGhostOfAnotherName) {
    m_switchboard.register_component(&m_first, {"spare", 0, 0, {}});
    EXPECT_EQ(0x1007U, m_switchboard.register_port(&m_first, "spare", 600));
    m_motor.m_far.close();

    EXPECT_EQ(0U, m_switchboard.register_port(&m_first, "spare", 600));
}

TEST_F(SwitchboardTest, ClientsAndComponentsComeAndGoWhileOthersCall) {
    testing::internal::CaptureStderr();
    std::thread caller([this] {
        for (uint32_t i = 0; i < 2000; ++i) {
            _KypHeader head;
            _AoEHeader aoe;
            auto const msg = received(&m_first, request_frame(600, 9, i, 0, 0), head, aoe);
            m_switchboard.handle(*msg, head, aoe);
        }
    });
    std::thread guest([this] {
        for (uint32_t i = 0; i < 500; ++i) {
            _KypHeader head;
            _AoEHeader aoe;
            auto const msg = received(&m_second, request_frame(700, 9, i, 0, 0), head, aoe);
            m_switchboard.handle(*msg, head, aoe);
            m_connections.end(&m_second);
            m_connections.begin(&m_second);
        }
    });
    std::thread component([this] {
        for (int i = 0; i < 500; ++i) {
            m_connections.end(&m_motor);
            m_connections.begin(&m_motor);
            m_switchboard.register_component(&m_motor, {"motor", 0, 0, {}});
            m_switchboard.register_port(&m_motor, "motor", 600);
        }
    });
    caller.join();
    guest.join();
    component.join();
    m_connections.end(&m_motor);
    testing::internal::GetCapturedStderr();

    // Every request has been answered: none was passed on to the motor behind its end.
    EXPECT_EQ(2000U, m_first.m_sent.size());
}

}  // namespace
}  // namespace kypserver
