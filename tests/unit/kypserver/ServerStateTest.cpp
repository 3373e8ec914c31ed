#include "kypserver/ServerState.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "FakeConn.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/Options.h"
#include "kypserver/SendLedger.h"
#include "kypserver/Switchboard.h"
#include "kypserver/TopicBroker.h"

namespace kypserver {
namespace {

class ServerStateTest : public testing::Test {
protected:
    nlohmann::ordered_json state() {
        nlohmann::ordered_json object = nlohmann::ordered_json::object();
        m_section(object);
        return object;
    }

    Options m_options;
    CConnections m_connections{10};
    CSendLedger m_ledger{m_connections, 300, 300};
    CHeldBytes m_held{100000};
    CCounters m_counters;
    CTopicBroker m_topics{m_connections, m_ledger, m_counters, 3};
    CSwitchboard m_switchboard{m_connections, m_ledger, m_held, m_counters};
    CStateService::Section m_section = describe_server(
        {m_options, m_connections, m_topics, m_switchboard, m_ledger, m_held, m_counters});
};

TEST_F(ServerStateTest, HasASectionForEachSubject) {
    std::string names;
    nlohmann::ordered_json const object = state();
    for (auto const& [name, value] : object.items()) names += name + " ";

    EXPECT_EQ(
        "server clients components topics requests replies otherFrames dropped queues workers ",
        names);
}

TEST_F(ServerStateTest, TellsWhatIsThereNow) {
    FakeConn conn;
    m_connections.begin(&conn);
    m_held.take(&conn, {0, 1, 600, 121});
    m_ledger.offer(&conn, {0, 1, 103, 13}, {}, nullptr, 0);

    EXPECT_EQ(1, state()["clients"]["connected"]);
    EXPECT_EQ(1000, state()["clients"]["limit"]);
    EXPECT_EQ(100 + CHeldBytes::kPerMessage, state()["queues"]["heldBytes"]);
    EXPECT_EQ(21, state()["queues"]["waitingBytes"]);
    EXPECT_EQ(0, state()["queues"]["messagesForWorkers"]);
    EXPECT_EQ(0, state()["workers"]["busy"]);
    EXPECT_TRUE(state()["components"].empty());
}

TEST_F(ServerStateTest, TellsErrorsByTheirCode) {
    Bytes frame = kyp_head(600, 13);
    frame.resize(21);
    frame[10] = 0x10;
    frame[11] = 0x06;
    frame[20] = 1;
    m_counters.sent(frame.data(), frame.size());

    EXPECT_EQ(R"({"sent":1,"bytes":21,"errors":{"0x1006":1}})", state()["replies"].dump());
}

TEST_F(ServerStateTest, TellsEveryKindOfDrop) {
    for (int kind = 0; kind < CCounters::DROP_KINDS; ++kind) {
        for (int i = 0; i <= kind; ++i) m_counters.dropped(static_cast<CCounters::Drop>(kind));
    }

    EXPECT_EQ(
        R"({"topicMessages":1,"datagrams":2,"requestsToComponents":3,"replies":4,"clients":5})",
        state()["dropped"].dump());
}

}  // namespace
}  // namespace kypserver
