#include "kypserver/TopicBroker.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "FakeConn.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/SendLedger.h"
#include "support/FrameBytes.h"

namespace kypserver {
namespace {

class TopicBrokerTest : public testing::Test {
protected:
    TopicBrokerTest() {
        m_connections.on_end([this](IConnection* conn) {
            m_broker.end(conn);
            m_ledger.closed(conn);
        });
        for (FakeConn* conn : {&m_first, &m_second, &m_third}) m_connections.begin(conn);
    }

    void serve(FakeConn& conn, uint16_t cmd, Bytes const& body) {
        _msg_request const head = {1, cmd, 7, 0, 0, 0, &conn};
        m_broker.serve({103, reinterpret_cast<char const*>(body.data()),
                        static_cast<unsigned int>(body.size()), head});
    }
    void subscribe(FakeConn& conn, std::string const& topic) {
        serve(conn, 6, pubsub_body("sub", topic));
    }
    void unsubscribe(FakeConn& conn, std::string const& topic) {
        serve(conn, 7, pubsub_body("unsub", topic));
    }
    void publish(FakeConn& conn, std::string const& topic, std::string const& data) {
        serve(conn, 8, pubsub_body("pub", topic, text(data), 5, 6));
    }

    // Serves a message that is to be dropped and gives what standard error says.
    std::string refusal(uint16_t cmd, Bytes const& body) {
        testing::internal::CaptureStderr();
        serve(m_first, cmd, body);
        return testing::internal::GetCapturedStderr();
    }

    CConnections m_connections{10};
    CSendLedger m_ledger{m_connections, 300, 300};
    CCounters m_counters;
    CTopicBroker m_broker{m_connections, m_ledger, m_counters, 3};
    FakeConn m_first{11};
    FakeConn m_second{12};
    FakeConn m_third{13};
};

TEST_F(TopicBrokerTest, CountsTopicsSubscriptionsAndMessages) {
    subscribe(m_first, "a");
    subscribe(m_second, "a");
    subscribe(m_second, "b");
    publish(m_third, "a", "1");
    publish(m_third, "nobody's", "2");

    EXPECT_EQ(2U, m_broker.totals().topics);
    EXPECT_EQ(3U, m_broker.totals().subscriptions);
    EXPECT_EQ(2U, m_counters.snapshot().published);
    m_connections.end(&m_second);
    EXPECT_EQ(1U, m_broker.totals().topics);
    EXPECT_EQ(1U, m_broker.totals().subscriptions);
}

TEST_F(TopicBrokerTest, DeliversTheBodyBehindTheSecondHead) {
    subscribe(m_first, "a");

    publish(m_second, "a", "AB");

    ASSERT_EQ(1U, m_first.m_sent.size());
    EXPECT_EQ(
        "00 01 67 00 36 00 00 00"
        " 00 00 00 00 00 00 00 00 00 08 00 00 00"
        " 03 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00"
        " 70 75 62 00 61 00 41 42 00 05 00 00 00 06 00 00 00",
        hex(m_first.m_sent[0]));
}

TEST_F(TopicBrokerTest, ReachesEverySubscriberAndNobodyElse) {
    subscribe(m_first, "a");
    subscribe(m_second, "a");
    subscribe(m_third, "b");

    publish(m_third, "a", "x");

    EXPECT_EQ(1U, m_first.m_sent.size());
    EXPECT_EQ(1U, m_second.m_sent.size());
    EXPECT_TRUE(m_third.m_sent.empty());
}

TEST_F(TopicBrokerTest, APublisherThatHasSubscribedHearsItself) {
    subscribe(m_first, "a");

    publish(m_first, "a", "x");

    EXPECT_EQ(1U, m_first.m_sent.size());
}

TEST_F(TopicBrokerTest, ASecondSubscriptionChangesNothing) {
    subscribe(m_first, "a");
    subscribe(m_first, "a");

    publish(m_second, "a", "x");

    EXPECT_EQ(1U, m_first.m_sent.size());
    EXPECT_EQ(1U, m_broker.subscribers("a"));
}

TEST_F(TopicBrokerTest, AnUnsubscriptionEndsDelivery) {
    subscribe(m_first, "a");
    subscribe(m_first, "b");
    unsubscribe(m_first, "a");
    unsubscribe(m_first, "never");
    unsubscribe(m_second, "a");

    publish(m_second, "a", "x");
    publish(m_second, "b", "x");

    EXPECT_EQ(1U, m_first.m_sent.size());
}

TEST_F(TopicBrokerTest, SubscriptionsEndWithTheConnection) {
    subscribe(m_first, "a");
    subscribe(m_first, "b");
    subscribe(m_second, "a");

    m_connections.end(&m_first);

    EXPECT_EQ(1U, m_broker.subscribers("a"));
    EXPECT_EQ(0U, m_broker.subscribers("b"));
}

TEST_F(TopicBrokerTest, AConnectionThatHasClosedCannotSubscribe) {
    m_connections.end(&m_first);

    EXPECT_NE(std::string::npos,
              refusal(6, pubsub_body("sub", "a")).find("it did not come on an open connection"));

    EXPECT_EQ(0U, m_broker.subscribers("a"));
}

TEST_F(TopicBrokerTest, ReportsAndDropsWhatIsMalformed) {
    subscribe(m_first, "a");
    Bytes const body = pubsub_body("pub", "a", text("x"));

    EXPECT_NE(std::string::npos,
              refusal(8, Bytes(body.begin(), body.end() - 1)).find("its body is malformed"));
    EXPECT_NE(std::string::npos, refusal(8, {}).find("its body is malformed"));
    EXPECT_NE(std::string::npos, refusal(6, body).find("its command is not that of its body"));
    EXPECT_NE(std::string::npos,
              refusal(8, pubsub_body("sub", "a")).find("its command is not that of its body"));
    EXPECT_NE(std::string::npos,
              refusal(7, pubsub_body("sub", "a")).find("its command is not that of its body"));

    EXPECT_TRUE(m_first.m_sent.empty());
}

TEST_F(TopicBrokerTest, RefusesATopicOfMoreThan1024Bytes) {
    subscribe(m_first, std::string(1024, 't'));
    EXPECT_EQ(1U, m_broker.subscribers(std::string(1024, 't')));

    EXPECT_NE(std::string::npos,
              refusal(6, pubsub_body("sub", std::string(1025, 't'))).find("its topic is too long"));
}

TEST_F(TopicBrokerTest, BoundsTheSubscriptionsOfOneConnection) {
    for (char const* topic : {"a", "b", "c"}) subscribe(m_first, topic);

    EXPECT_NE(std::string::npos,
              refusal(6, pubsub_body("sub", "d")).find("there are too many subscriptions"));

    EXPECT_EQ(0U, m_broker.subscribers("d"));
    unsubscribe(m_first, "a");
    subscribe(m_first, "d");
    EXPECT_EQ(1U, m_broker.subscribers("d"));
}

TEST_F(TopicBrokerTest, AnswersOtherCommandsWithUnknownCommand) {
    serve(m_first, 9, pubsub_body("pub", "a"));

    ASSERT_EQ(1U, m_first.m_sent.size());
    EXPECT_EQ("00 01 67 00 0D 00 00 00 00 00 10 09 00 00 00 07 00 09 00 00 01",
              hex(m_first.m_sent[0]));
}

TEST_F(TopicBrokerTest, ASlowSubscriberLosesMessagesAndIsReportedOnce) {
    subscribe(m_first, "a");
    subscribe(m_second, "a");
    testing::internal::CaptureStderr();

    for (int i = 0; i < 10; ++i) {
        publish(m_third, "a", std::string(100 - 21 - 39, 'x'));
        m_ledger.left(&m_second, m_second.m_bufs.back());
    }

    std::string const said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(4U, m_first.m_sent.size());
    EXPECT_EQ(10U, m_second.m_sent.size());
    EXPECT_EQ(6U, m_ledger.dropped());
    size_t const first = said.find("local client 11 reads too slowly");
    EXPECT_NE(std::string::npos, first);
    EXPECT_EQ(std::string::npos, said.find("reads too slowly", first + 20));
}

TEST_F(TopicBrokerTest, SubscribersComeAndGoWhileOthersPublish) {
    testing::internal::CaptureStderr();
    std::thread publisher([this] {
        for (int i = 0; i < 500; ++i) publish(m_third, "a", "x");
    });
    std::thread guest([this] {
        for (int i = 0; i < 200; ++i) {
            subscribe(m_second, "a");
            m_connections.end(&m_second);
            m_connections.begin(&m_second);
        }
    });
    publisher.join();
    guest.join();
    testing::internal::GetCapturedStderr();

    EXPECT_EQ(0U, m_broker.subscribers("a"));
}

}  // namespace
}  // namespace kypserver
