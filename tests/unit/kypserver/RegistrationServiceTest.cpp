#include "kypserver/RegistrationService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeSocketConn.h"
#include "kypcore/TcpDomainServer.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/Errands.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/SendLedger.h"
#include "kypserver/Switchboard.h"
#include "support/Eventually.h"
#include "support/FakeComponent.h"
#include "utils/Log.h"

namespace kypserver {
namespace {

using testing::HasSubstr;

class RegistrationServiceTest : public testing::Test {
protected:
    RegistrationServiceTest() {
        SetLogLevel(LOG_LEVEL_ERROR);
        m_connections.on_end([this](IConnection* conn) {
            m_switchboard.end(conn);
            m_ledger.closed(conn);
        });
        for (FakeSocketConn* conn : {&m_local, &m_other}) {
            conn->SetSockServer(&m_server);
            m_connections.begin(conn);
        }
        m_connections.begin(&m_remote);
    }

    ~RegistrationServiceTest() override { m_errands.stop(); }

    // Serves a request with `body`; gives the reply.
    Bytes serve(FakeSocketConn& conn, Bytes const& body, uint16_t cmd = 9, uint8_t state = 0) {
        Request request = {};
        request.port = 102;
        request.data = reinterpret_cast<char const*>(body.data());
        request.size = static_cast<unsigned int>(body.size());
        request.head.cmd = cmd;
        request.head.invokeId = 7;
        request.head.conn = &conn;
        request.held = &m_held;
        request.state = state;
        conn.last();
        testing::internal::CaptureStderr();
        m_service.serve(request);
        m_said = testing::internal::GetCapturedStderr();
        return conn.last();
    }

    // What a reply with this verdict looks like.
    static Bytes reply(uint16_t cmdId, std::string const& name, uint32_t port, uint32_t status) {
        return response_frame(102, 9, 7,
                              registration_body(cmdId | 0x1000, name, port, 0, 0, status), status);
    }

    CConnections m_connections{10};
    CSendLedger m_ledger{m_connections, 300, 300};
    CHeldBytes m_held{100000};
    CCounters m_counters;
    CSwitchboard m_switchboard{m_connections, m_ledger, m_held, m_counters};
    CErrands m_errands;
    CRegistrationService m_service{m_connections, m_switchboard, m_ledger, m_errands,
                                   std::chrono::milliseconds(500)};
    TcpDomainserver m_server{"/tmp/server"};
    FakeSocketConn m_local;
    FakeSocketConn m_other;
    FakeSocketConn m_remote;
    std::string m_said;
};

TEST_F(RegistrationServiceTest, TakesAComponentInAndItsPort) {
    EXPECT_EQ(
        "00 01 66 00 23 00 00 00"
        " 00 00 00 00 00 00 00 07 00 09 00 00 01"
        " 00 01 10 00 00 00 00 05 00 11 00 00 00 22 00 00 00 6D 6F 74 6F 72",
        hex(serve(m_local, registration_body(1, "motor", 0, 0x11, 0x22))));
    EXPECT_EQ(
        "00 01 66 00 27 00 00 00"
        " 00 00 00 00 00 00 00 07 00 09 00 00 01"
        " 00 03 10 00 00 00 00 05 00 00 00 00 00 00 00 00 00 6D 6F 74 6F 72 58 02 00 00",
        hex(serve(m_local, registration_body(3, "motor", 600))));
    EXPECT_EQ("", m_said);
    EXPECT_EQ(1U, m_switchboard.components());
}

TEST_F(RegistrationServiceTest, SaysWhyNot) {
    serve(m_other, registration_body(1, "drive"));
    serve(m_other, registration_body(3, "drive", 700));

    EXPECT_EQ(hex(reply(3, "motor", 600, 0x4001)),
              hex(serve(m_local, registration_body(3, "motor", 600))));
    EXPECT_EQ(hex(reply(1, "a b", 0, 0x4005)), hex(serve(m_local, registration_body(1, "a b"))));
    EXPECT_EQ(hex(reply(1, "", 0, 0x4005)), hex(serve(m_local, registration_body(1, ""))));
    EXPECT_EQ(hex(reply(1, "drive", 0, 0x4003)),
              hex(serve(m_local, registration_body(1, "drive"))));
    EXPECT_THAT(m_said, HasSubstr("is refused: component drive, command 1, port 0: 0x4003, same "
                                  "component name already register"));
    serve(m_local, registration_body(1, "motor"));
    EXPECT_EQ(hex(reply(3, "motor", 700, 0x1007)),
              hex(serve(m_local, registration_body(3, "motor", 700))));
    EXPECT_EQ(hex(reply(3, "motor", 500, 0x1012)),
              hex(serve(m_local, registration_body(3, "motor", 500))));
    EXPECT_EQ(hex(reply(3, "motor", 4097, 0x1012)),
              hex(serve(m_local, registration_body(3, "motor", 4097))));
    EXPECT_EQ(hex(reply(4, "motor", 600, 0x1009)),
              hex(serve(m_local, registration_body(4, "motor", 600))));
    EXPECT_EQ(hex(reply(1, "other", 0, 0x1018)),
              hex(serve(m_local, registration_body(1, "other"))));
}

TEST_F(RegistrationServiceTest, AMalformedBodyIsAnsweredAsFarAsItGoes) {
    EXPECT_EQ(hex(reply(0, "", 0, 0x100c)), hex(serve(m_local, {})));
    EXPECT_EQ(hex(reply(1, "", 0, 0x100c)), hex(serve(m_local, bytes("00 01 00"))));
    EXPECT_EQ(hex(reply(1, "motor", 0, 0x1004)),
              hex(serve(m_local, join({registration_body(1, "motor"), {0}}))));
    Bytes lies = registration_body(3, "motor", 600);
    lies[8] = 0xff;
    EXPECT_EQ(hex(reply(3, "", 0, 0x100c)), hex(serve(m_local, lies)));
    EXPECT_EQ(0U, m_switchboard.components());
}

TEST_F(RegistrationServiceTest, OnlyLocalPeersAreComponents) {
    EXPECT_EQ(hex(reply(1, "motor", 0, 0x100b)),
              hex(serve(m_remote, registration_body(1, "motor"))));

    EXPECT_EQ(0U, m_switchboard.components());
}

TEST_F(RegistrationServiceTest, OtherCommandsAreNotKnown) {
    EXPECT_EQ(0x1009U, take_apart(serve(m_local, registration_body(1, "motor"), 2)).error);
    for (uint16_t cmd : {6, 7, 8}) {
        EXPECT_EQ("", hex(serve(m_local, registration_body(1, "motor"), cmd)));
        EXPECT_THAT(m_said, HasSubstr("is dropped"));
    }
    EXPECT_EQ(0U, m_switchboard.components());
}

TEST_F(RegistrationServiceTest, WhoeverSendsAResponseLosesItsConnection) {
    EXPECT_EQ("", hex(serve(m_local, registration_body(1, "motor"), 9, 1)));

    EXPECT_TRUE(m_local.m_far.expect_closed());
    EXPECT_THAT(m_said, HasSubstr("is closed: it answers on port 102"));
    EXPECT_EQ(0U, m_switchboard.components());
}

TEST_F(RegistrationServiceTest, OtherFramesAreKeptBackUntilTheComponentIsQuiet) {
    serve(m_local, registration_body(1, "motor"));
    char const data[] = "kept back";
    m_ledger.offer(&m_local, {0, 1, 103, 22}, {}, data, 9);
    serve(m_local, registration_body(3, "motor", 600));
    Bytes const kept = join({kyp_head(103, 22), Bytes(13), text(data)});
    ASSERT_THAT(m_local.m_sent, testing::Not(testing::Contains(kept)));

    EXPECT_TRUE(eventually([&] { return m_local.count() == 3; }));

    EXPECT_EQ(hex(kept), hex(m_local.last()));
}

TEST_F(RegistrationServiceTest, AChannelMayBeQuietAgainAndAgain) {
    for (size_t i = 0; i < 2; ++i) {
        serve(m_local, registration_body(1, "motor"));
        m_ledger.offer(&m_local, {0, 1, 103, 13}, {}, nullptr, 0);
        EXPECT_TRUE(eventually([&] { return m_local.count() == 2 * i + 2; }));
    }
}

TEST_F(RegistrationServiceTest, AChannelMayCloseWhileItIsQuiet) {
    serve(m_local, registration_body(1, "motor"));
    m_connections.end(&m_local);
    serve(m_other, registration_body(1, "motor"));
    m_ledger.offer(&m_other, {0, 1, 103, 13}, {}, nullptr, 0);

    EXPECT_TRUE(eventually([&] { return m_other.count() == 2; }));
    EXPECT_EQ(1U, m_local.count());
}

}  // namespace
}  // namespace kypserver
