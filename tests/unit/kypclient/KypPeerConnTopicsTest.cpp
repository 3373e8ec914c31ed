#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "FakePeerConnection.h"
#include "kypclient/KypPeerConn.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "support/LogCapture.h"
#include "utils/Singleton.h"

namespace {

class KypPeerConnTopicsTest : public testing::Test {
protected:
    void SetUp() override { tlsErrno = 0; }

    int publish(std::string const& topic, Bytes data) {
        return m_conn.publish(topic.c_str(),
                              {8, 0x10, 0x20, static_cast<uint32_t>(data.size()), data.data()});
    }

    int subscribe(std::string const& topic) {
        return m_conn.subscribe(topic.c_str(), TopicCalls::record, &m_calls);
    }

    int filter(Bytes const& body) {
        return m_conn.filter(reinterpret_cast<char const*>(body.data()),
                             static_cast<unsigned int>(body.size()));
    }

    FakePeerConnection m_conn;
    TopicCalls m_calls;
};

// --- sending ----------------------------------------------------------------------------------

TEST_F(KypPeerConnTopicsTest, PublicationIsABodyBehindTheThreeHeads) {
    m_conn.m_invokeId = 7;

    EXPECT_EQ(0, publish("t", text("AB")));

    ASSERT_EQ(1u, m_conn.m_sent.size());
    EXPECT_EQ(
        "00 01 67 00 3E 00 00 00 "
        "00 00 00 00 00 00 00 07 00 08 00 00 00 "
        "00 00 00 10 00 00 00 20 "
        "03 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 "
        "70 75 62 00 74 00 41 42 00 10 00 00 00 20 00 00 00",
        hex(m_conn.m_sent[0]));
    EXPECT_EQ(5000, m_conn.m_timeouts[0]);
    EXPECT_EQ(7u, m_conn.m_lastInvokeId);
    EXPECT_EQ(nullptr, m_conn.m_pLatestRequest);
    EXPECT_EQ(nullptr, m_conn.slot(7).request.load());
}

TEST_F(KypPeerConnTopicsTest, PublicationWithoutDataCarriesALengthOfZero) {
    EXPECT_EQ(0, publish("topic", {}));

    EXPECT_EQ(publish_frame(1, "topic", {}, 0x10, 0x20), m_conn.m_sent.at(0));
}

TEST_F(KypPeerConnTopicsTest, SubscribingEntersTheTopicAndTellsThePeer) {
    EXPECT_EQ(0, subscribe("topic"));

    EXPECT_EQ(subscribe_frame(1, "topic"), m_conn.m_sent.at(0));
    const auto topics = m_conn.GetSubscribeTopics();
    ASSERT_EQ(1u, topics.size());
    EXPECT_TRUE(topics.at("topic").callback == TopicCalls::record);
    EXPECT_EQ(&m_calls, topics.at("topic").user);
}

TEST_F(KypPeerConnTopicsTest, SubscribingTwiceReplacesTheCallbackAndTellsThePeerAgain) {
    ASSERT_EQ(0, m_conn.subscribe("topic", nullptr, nullptr));

    EXPECT_EQ(0, subscribe("topic"));

    EXPECT_EQ(2u, m_conn.m_sent.size());
    EXPECT_EQ(subscribe_frame(2, "topic"), m_conn.m_sent.at(1));
    ASSERT_EQ(1u, m_conn.m_topics.size());
    EXPECT_TRUE(m_conn.m_topics.at("topic").callback == TopicCalls::record);
}

TEST_F(KypPeerConnTopicsTest, SubscriptionStaysWhenThePeerCannotBeTold) {
    m_conn.fail_sends(-1, 5);

    EXPECT_EQ(5, subscribe("topic"));

    EXPECT_EQ(1u, m_conn.m_topics.count("topic"));
}

TEST_F(KypPeerConnTopicsTest, UnsubscribingRemovesTheTopicAndTellsThePeer) {
    ASSERT_EQ(0, subscribe("topic"));

    EXPECT_EQ(0, m_conn.unsubscribe("topic"));

    EXPECT_EQ(unsubscribe_frame(2, "topic"), m_conn.m_sent.at(1));
    EXPECT_TRUE(m_conn.m_topics.empty());
}

TEST_F(KypPeerConnTopicsTest, UnsubscribingAnUnknownTopicSendsNothing) {
    LogCapture log;

    EXPECT_EQ(0x100a, m_conn.unsubscribe("topic"));

    EXPECT_EQ(0x100a, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "topic:topic no subscribe"));
    EXPECT_TRUE(m_conn.m_sent.empty());
}

TEST_F(KypPeerConnTopicsTest, UnsubscribedTopicIsGoneAlsoWhenThePeerCannotBeTold) {
    ASSERT_EQ(0, subscribe("topic"));
    m_conn.fail_sends(-1, 5);
    ASSERT_EQ(5, m_conn.unsubscribe("topic"));
    LogCapture log;

    EXPECT_EQ(0, filter(pubsub_body("pub", "topic")));

    EXPECT_EQ(1, log.count("ERROR", "unknow topic:topic"));
}

TEST_F(KypPeerConnTopicsTest, MessageOfExactlyTheLimitIsAccepted) {
    Bytes data(0x5fffff - 77 - 1);

    EXPECT_EQ(0, publish("t", data));

    EXPECT_EQ(1u, m_conn.m_sent.size());
}

TEST_F(KypPeerConnTopicsTest, MessageOneBeyondTheLimitIsRefused) {
    Bytes data(0x5fffff - 77);

    EXPECT_EQ(0x100d, publish("t", data));

    EXPECT_EQ(0x100d, tlsErrno);
    EXPECT_TRUE(m_conn.m_sent.empty());
    EXPECT_EQ(0u, m_conn.m_lastInvokeId);
}

TEST_F(KypPeerConnTopicsTest, LengthNearFourGigabytesIsRefusedWithoutBeingRead) {
    for (const uint32_t length : {0x80000000u, 0xffffff00u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        char data = 0;

        EXPECT_EQ(0x100d, m_conn.publish("t", {8, 0, 0, length, &data}));
    }
}

TEST_F(KypPeerConnTopicsTest, MessageInAClassWithSmallerBuffersIsWhole) {
    auto& pool = utility::instance<client_bufpool>();
    pool.put_one_free(pool.get_one_buf(16383));  // a buffer of 16384 stands in class 32768 now
    const Bytes data = pattern(20000);

    EXPECT_EQ(0, publish("t", data));

    EXPECT_EQ(publish_frame(1, "t", data, 0x10, 0x20), m_conn.m_sent.at(0));
}

TEST_F(KypPeerConnTopicsTest, FailedSendReturnsTheStatusOfTheLink) {
    m_conn.fail_sends(-1, 5);
    EXPECT_EQ(5, publish("t", {}));

    m_conn.fail_sends(-1, 32);
    EXPECT_EQ(32, publish("t", {}));
}

TEST_F(KypPeerConnTopicsTest, KeepsTakingAPartOfAMessageForASuccess) {
    m_conn.fail_sends(1);
    EXPECT_EQ(0, publish("t", {}));

    tlsErrno = 77;
    m_conn.fail_sends(0);
    EXPECT_EQ(77, publish("t", {}));
}

TEST_F(KypPeerConnTopicsTest, BufferOfAMessageGoesBackToItsPool) {
    auto& pool = utility::instance<client_bufpool>();
    ASSERT_EQ(0, pool.make_buf_list(128, 1));
    pbuf* const only = pool.m_freeLists.at(128);

    ASSERT_EQ(0, publish("t", {}));

    EXPECT_EQ(only, pool.m_freeLists.at(128));
}

TEST_F(KypPeerConnTopicsTest, NullTopicThrows) {
    EXPECT_THROW(m_conn.subscribe(nullptr, TopicCalls::record, &m_calls), std::logic_error);
    EXPECT_THROW(m_conn.unsubscribe(nullptr), std::logic_error);
    EXPECT_THROW(m_conn.publish(nullptr, {8, 0, 0, 0, nullptr}), std::logic_error);

    EXPECT_TRUE(m_conn.m_topics.empty());
    EXPECT_TRUE(m_conn.m_sent.empty());
}

TEST_F(KypPeerConnTopicsTest, TopicsAreOrderedByTheirBytes) {
    for (char const* topic : {"b", "a", "\xc3\xa4", "B", "aa"}) ASSERT_EQ(0, subscribe(topic));

    std::vector<std::string> order;
    for (auto const& entry : m_conn.GetSubscribeTopics()) order.push_back(entry.first);
    EXPECT_EQ((std::vector<std::string>{"B", "a", "aa", "b", "\xc3\xa4"}), order);
}

// --- delivery ---------------------------------------------------------------------------------

TEST_F(KypPeerConnTopicsTest, DeliveredFrameReachesTheTopicsCallback) {
    ASSERT_EQ(0, subscribe("topic"));
    LogCapture log;

    EXPECT_EQ(0, m_conn.receive(delivery_frame(0, "topic", bytes("41 00 42"), 0x11, 0x22)));

    ASSERT_EQ(1u, m_calls.count());
    EXPECT_EQ(0x11u, m_calls.m_calls[0].indexGroup);
    EXPECT_EQ(0x22u, m_calls.m_calls[0].indexOffset);
    EXPECT_EQ("topic", m_calls.m_calls[0].topic);
    EXPECT_EQ("41 00 42", hex(m_calls.m_calls[0].data));
    EXPECT_EQ(1, log.count("TRACE", "libkyp recv subscribe message,TotalSize:46"));
}

TEST_F(KypPeerConnTopicsTest, MessageOfAnUnknownTopicIsDropped) {
    ASSERT_EQ(0, subscribe("topic"));
    LogCapture log;

    EXPECT_EQ(0, filter(pubsub_body("pub", "topics", text("AB"))));

    EXPECT_EQ(0u, m_calls.count());
    EXPECT_EQ(1, log.count("ERROR", "unknow topic:topics"));
}

TEST_F(KypPeerConnTopicsTest, MessageWithoutDataIsDelivered) {
    ASSERT_EQ(0, subscribe("topic"));

    EXPECT_EQ(0, filter(pubsub_body("pub", "topic")));

    ASSERT_EQ(1u, m_calls.count());
    EXPECT_TRUE(m_calls.m_calls[0].data.empty());
}

TEST_F(KypPeerConnTopicsTest, MessageHasNothingOfTheOneBefore) {
    ASSERT_EQ(0, subscribe("topic"));
    EXPECT_EQ(0, filter(pubsub_body("pub", "topic", text(std::string(100, 'A')), 0x11, 0x22)));

    Bytes body = pubsub_body("pub", "topic", text("B"));
    body.resize(24 + 4 + 6);  // ends behind the topic
    EXPECT_EQ(0, filter(body));

    ASSERT_EQ(2u, m_calls.count());
    EXPECT_EQ(100u, m_calls.m_calls[0].data.size());
    EXPECT_TRUE(m_calls.m_calls[1].data.empty());
    EXPECT_EQ(0u, m_calls.m_calls[1].indexGroup);
    EXPECT_EQ(0u, m_calls.m_calls[1].indexOffset);
}

TEST_F(KypPeerConnTopicsTest, LongMessageIsDeliveredBetweenShortOnes) {
    ASSERT_EQ(0, subscribe("topic"));

    for (size_t const size : {10u, 1000000u, 10u, 65536u, 65537u}) {
        EXPECT_EQ(0, filter(pubsub_body("pub", "topic", Bytes(size, 'A'))));
        EXPECT_EQ(size, m_calls.m_calls.back().data.size());
    }
}

TEST_F(KypPeerConnTopicsTest, CallbackThatDeliversAMessageKeepsItsOwn) {
    struct Nested {
        FakePeerConnection& conn;
        std::vector<std::string> seen;
    } nested{m_conn, {}};
    const auto inner = [](unsigned int, unsigned int, char const*, char const* data,
                          unsigned int len,
                          void* ctx) { static_cast<Nested*>(ctx)->seen.emplace_back(data, len); };
    const auto outer = [](unsigned int, unsigned int, char const* topic, char const* data,
                          unsigned int len, void* ctx) {
        auto& own = *static_cast<Nested*>(ctx);
        const Bytes body = pubsub_body("pub", "inner", text("later"));
        own.conn.filter(reinterpret_cast<char const*>(body.data()),
                        static_cast<unsigned int>(body.size()));
        own.seen.push_back(topic + std::string(data, len));
    };
    ASSERT_EQ(0, m_conn.subscribe("outer", outer, &nested));
    ASSERT_EQ(0, m_conn.subscribe("inner", inner, &nested));

    EXPECT_EQ(0, filter(pubsub_body("pub", "outer", text("first"))));

    EXPECT_EQ((std::vector<std::string>{"later", "outerfirst"}), nested.seen);
}

TEST_F(KypPeerConnTopicsTest, SubscriptionWithoutACallbackTakesMessages) {
    ASSERT_EQ(0, m_conn.subscribe("topic", nullptr, nullptr));

    EXPECT_EQ(0, filter(pubsub_body("pub", "topic", text("AB"))));
}

TEST_F(KypPeerConnTopicsTest, CallbackMaySubscribeAndUnsubscribe) {
    const auto change = [](unsigned int, unsigned int, char const* topic, char const*, unsigned int,
                           void* ctx) {
        auto& conn = *static_cast<FakePeerConnection*>(ctx);
        conn.unsubscribe(topic);
        conn.subscribe("other", nullptr, nullptr);
    };
    ASSERT_EQ(0, m_conn.subscribe("topic", change, &m_conn));

    EXPECT_EQ(0, filter(pubsub_body("pub", "topic")));

    EXPECT_EQ(0u, m_conn.m_topics.count("topic"));
    EXPECT_EQ(1u, m_conn.m_topics.count("other"));
}

TEST_F(KypPeerConnTopicsTest, BodyCutInEveryPlaceIsSafe) {
    ASSERT_EQ(0, subscribe("topic"));
    const Bytes body = pubsub_body("pub", "topic", text("data"), 1, 2);

    for (size_t size = 0; size < body.size(); ++size) {
        SCOPED_TRACE(size);
        Bytes cut(body.begin(), body.begin() + static_cast<long>(size));
        cut.shrink_to_fit();
        EXPECT_EQ(0, filter(cut));
    }
    for (auto const& call : m_calls.all()) EXPECT_LE(call.data.size(), 4u);
}

TEST_F(KypPeerConnTopicsTest, BodyThatDeclaresMoreThanItHoldsIsSafe) {
    ASSERT_EQ(0, subscribe("topic"));

    for (size_t offset : {size_t{0}, size_t{8}, size_t{16}}) {
        for (uint64_t length : {uint64_t{1000}, uint64_t{0x7fffffff}, ~uint64_t{0}}) {
            Bytes body = pubsub_body("pub", "topic", text("data"));
            const Bytes word = u64_le(length);
            std::copy(word.begin(), word.end(), body.begin() + static_cast<long>(offset));
            EXPECT_EQ(0, filter(body));
        }
    }
    for (auto const& call : m_calls.all()) EXPECT_LE(call.data.size(), 20u);
}

TEST_F(KypPeerConnTopicsTest, ThreadsMaySubscribeWhileMessagesArrive) {
    std::thread caller([this] {
        for (int round = 0; round < 200; ++round) {
            subscribe("topic");
            m_conn.unsubscribe("topic");
        }
    });
    for (int round = 0; round < 200; ++round) filter(pubsub_body("pub", "topic", text("AB")));
    caller.join();

    EXPECT_TRUE(m_conn.GetSubscribeTopics().empty());
}

}  // namespace
