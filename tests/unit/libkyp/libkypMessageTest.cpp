// The C interface's messages: requests and answers, routes, topics.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <stdexcept>

#include "LibkypFixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What a route or topic callback was given, one text for each call.
struct Calls {
    static void on_route(unsigned short port, char const* data, unsigned int len, void* ctx) {
        static_cast<Calls*>(ctx)->add(std::to_string(port) + ":" + std::string(data, len));
    }

    static void on_topic(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                         char const* data, unsigned int len, void* ctx) {
        static_cast<Calls*>(ctx)->add(std::to_string(indexGroup) + "/" +
                                      std::to_string(indexOffset) + " " + topic + ":" +
                                      std::string(data, len));
    }

    void add(std::string call) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(std::move(call));
    }

    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }

    bool wait(size_t count) {
        return eventually([&] { return get().size() >= count; });
    }

    std::mutex mutex;
    std::vector<std::string> seen;
};

// Messages end with the connection, before the contexts of their callbacks.
class LibkypMessageTest : public LibkypLinkTest {
protected:
    ~LibkypMessageTest() override { manager().ClearPeerConnection(); }

    // Waits until the connection has dealt with all that the peer has sent so far.
    void expect_dealt_with(LogCapture& log) {
        ASSERT_TRUE(m_peer.send(response_frame(999, 8, 0)));
        ASSERT_TRUE(log.wait_for("port:999 router is not register..."));
    }

    int receive(int len = 64, int timeoutMs = 20000) {
        m_port = 0;
        return libkyp_sync_recv(m_handle, &m_port, m_answer, len, timeoutMs);
    }

    unsigned short m_port = 0;
    Calls m_calls;
};

// ---- one exchange ------------------------------------------------------------------------------

TEST_F(LibkypMessageTest, SendWritesOneRequestAndCountsTheWholeFrame) {
    EXPECT_EQ(31, send_request("AB", 200));

    EXPECT_EQ(
        "00 01 C8 00 17 00 00 00 "
        "00 00 00 00 00 00 00 01 00 09 00 00 00 "
        "00 00 00 10 00 00 00 20 41 42",
        hex(m_peer.receive_frame()));
}

TEST_F(LibkypMessageTest, EmptyRequestNeedsNoData) {
    EXPECT_EQ(29, libkyp_sync_send(m_handle, 600, 0x10, 0x20, nullptr, 0, 20000));
    EXPECT_EQ(request_frame(600, 9, 1, 0x10, 0x20), m_peer.receive_frame());
}

TEST_F(LibkypMessageTest, RecvGivesThePayloadAndThePortOfTheAnswer) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("CDE"))));

    EXPECT_EQ(3, receive());
    EXPECT_STREQ("CDE", m_answer);
    EXPECT_EQ(600, m_port);
    EXPECT_EQ(0, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, PortOfTheAnswerNeedNotBeAskedFor) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("CDE"))));

    EXPECT_EQ(3, libkyp_sync_recv(m_handle, nullptr, m_answer, sizeof(m_answer), 20000));
}

TEST_F(LibkypMessageTest, ShortBufferLeavesTheRestForTheNextCall) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("CDEFG"))));

    EXPECT_EQ(2, receive(2));
    EXPECT_STREQ("CD", m_answer);
    EXPECT_EQ(3, receive());
    EXPECT_STREQ("EFG", m_answer);
    EXPECT_EQ(0, receive());
}

TEST_F(LibkypMessageTest, AnswerWithAnErrorGivesItsCodeAndItsPayload) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("why"), KYP_ERR_INDEX_GROUP)));

    EXPECT_EQ(-1, receive());
    EXPECT_EQ(KYP_ERR_INDEX_GROUP, libkyp_get_errno());
    EXPECT_STREQ("why", m_answer);
}

TEST_F(LibkypMessageTest, RecvWithoutARequestIsRefused) {
    EXPECT_EQ(-1, receive());
    EXPECT_EQ(KYP_ERR_NO_REQUEST, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, NoAnswerInTimeIsReportedAndALateOneGoesToItsRoute) {
    ASSERT_EQ(31, send_request("AB"));

    EXPECT_EQ(-1, receive(64, 10));
    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkyp_get_errno());
    ASSERT_EQ(0, libkyp__registerRouterEvent(m_handle, 600, Calls::on_route, &m_calls));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("late"))));
    ASSERT_TRUE(m_calls.wait(1));
    EXPECT_THAT(m_calls.get(), ElementsAre("600:late"));
}

TEST_F(LibkypMessageTest, AnswerMoreThanASecondAfterTheSendIsRefused) {
    ASSERT_EQ(31, send_request("AB"));
    {
        // A second passes at once: the answer finds its deadline behind it.
        KypResponse& slot = conn().m_responses[1];
        std::lock_guard<std::mutex> lock(slot.mutex);
        conn().m_pLatestRequest->deadline -= 1000000000;
    }
    LogCapture log;
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("late"))));
    ASSERT_TRUE(log.wait_for("response is timeout"));

    EXPECT_EQ(-1, receive());
    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, SecondRequestDropsTheAnswerThatNobodyFetched) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_EQ(31, send_request("CD"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("first"))));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 2, text("second"))));

    EXPECT_EQ(6, receive());
    EXPECT_STREQ("second", m_answer);
}

// ---- failures of one exchange ------------------------------------------------------------------

TEST_F(LibkypMessageTest, SendOnALostLinkFailsAndRecvThenHasNothing) {
    drop_link();

    EXPECT_EQ(-1, send_request("AB"));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkyp_get_errno());
    EXPECT_EQ(0, receive());
}

TEST_F(LibkypMessageTest, OccupiedSlotRefusesTheRequestWithoutAStatus) {
    KypRequest* const owner = reinterpret_cast<KypRequest*>(uintptr_t{8});
    conn().m_responses[1].request = owner;

    EXPECT_EQ(-1, send_request("AB"));
    EXPECT_EQ(0, libkyp_get_errno());
    conn().m_responses[1].request = nullptr;
}

TEST_F(LibkypMessageTest, LengthWithoutDataIsRefused) {
    EXPECT_EQ(-1, libkyp_sync_send(m_handle, 600, 1, 2, nullptr, 5, 1000));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, BadBufferIsRefusedAndTheAnswerStays) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("CDE"))));

    EXPECT_EQ(-1, libkyp_sync_recv(m_handle, &m_port, nullptr, 5, 20000));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
    EXPECT_EQ(-1, receive(-1));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
    EXPECT_EQ(3, receive());
}

// ---- routes ------------------------------------------------------------------------------------

TEST_F(LibkypMessageTest, RouteGetsWhatAnswersNoRequest) {
    ASSERT_EQ(0, libkyp__registerRouterEvent(m_handle, 501, Calls::on_route, &m_calls));

    ASSERT_TRUE(m_peer.send(response_frame(501, 9, 77, text("hello"))));

    ASSERT_TRUE(m_calls.wait(1));
    EXPECT_THAT(m_calls.get(), ElementsAre("501:hello"));
}

TEST_F(LibkypMessageTest, PortsBelow501AreReserved) {
    for (unsigned short port : {0, 1, 103, 500}) {
        SCOPED_TRACE(port);

        EXPECT_EQ(KYP_ERR_PORT_RESERVED,
                  libkyp__registerRouterEvent(m_handle, port, Calls::on_route, &m_calls));
        EXPECT_EQ(KYP_ERR_PORT_RESERVED, libkyp_get_errno());
    }
    EXPECT_EQ(0, libkyp__registerRouterEvent(m_handle, 501, Calls::on_route, &m_calls));
}

TEST_F(LibkypMessageTest, ReservedPortIsReportedBeforeAnUnknownHandle) {
    EXPECT_EQ(KYP_ERR_PORT_RESERVED,
              libkyp__registerRouterEvent(unknown_handle(), 500, nullptr, nullptr));
}

TEST_F(LibkypMessageTest, PortsAboveWhatCanArriveAreTaken) {
    EXPECT_EQ(0, libkyp__registerRouterEvent(m_handle, 65535, Calls::on_route, &m_calls));
}

TEST_F(LibkypMessageTest, SecondRouteOfAPortIsRefused) {
    ASSERT_EQ(0, libkyp__registerRouterEvent(m_handle, 501, Calls::on_route, &m_calls));

    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED,
              libkyp__registerRouterEvent(m_handle, 501, Calls::on_route, &m_calls));
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, UnregisteredRouteIsCalledNoMore) {
    LogCapture log;
    ASSERT_EQ(0, libkyp__registerRouterEvent(m_handle, 501, Calls::on_route, &m_calls));
    ASSERT_EQ(0, libkyp__unregisterRouterEvent(m_handle, 501));

    ASSERT_TRUE(m_peer.send(response_frame(501, 9, 77, text("hello"))));

    EXPECT_TRUE(log.wait_for("port:501 router is not register..."));
    EXPECT_THAT(m_calls.get(), IsEmpty());
}

TEST_F(LibkypMessageTest, UnregisteringAPortWithoutARouteIsReported) {
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkyp__unregisterRouterEvent(m_handle, 501));
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, KeepsTheRouteOfTopicsUnprotected) {
    LogCapture log;
    ASSERT_EQ(0, libkyp_subscribe(m_handle, "news", Calls::on_topic, &m_calls));

    EXPECT_EQ(0, libkyp__unregisterRouterEvent(m_handle, 103));

    ASSERT_TRUE(m_peer.send(delivery_frame(0, "news", text("x"))));
    EXPECT_TRUE(log.wait_for("port:103 router is not register..."));
    EXPECT_THAT(m_calls.get(), IsEmpty());
}

// ---- topics ------------------------------------------------------------------------------------

TEST_F(LibkypMessageTest, PublishSendsOneMessageToTheTopic) {
    EXPECT_EQ(0, libkyp_publish(m_handle, 0x11, 0x22, "news", "AB", 2));

    EXPECT_EQ(publish_frame(1, "news", text("AB"), 0x11, 0x22), m_peer.receive_frame());
}

TEST_F(LibkypMessageTest, EmptyMessageNeedsNoData) {
    EXPECT_EQ(0, libkyp_publish(m_handle, 0, 0, "news", nullptr, 0));

    EXPECT_EQ(publish_frame(1, "news", {}), m_peer.receive_frame());
}

TEST_F(LibkypMessageTest, PublishOnALostLinkIsReported) {
    drop_link();

    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkyp_publish(m_handle, 0, 0, "news", "AB", 2));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, MessageThatIsTooLongIsNotSent) {
    std::vector<char> const data(0x5fffff - 77 - 4 + 1);

    EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG, libkyp_publish(m_handle, 0, 0, "news", data.data(),
                                                      static_cast<unsigned int>(data.size())));
    EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, LengthWithoutAMessageIsRefused) {
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_publish(m_handle, 0, 0, "news", nullptr, 5));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, SubscriptionIsSentAndItsMessagesAreDelivered) {
    EXPECT_EQ(0, libkyp_subscribe(m_handle, "news", Calls::on_topic, &m_calls));
    EXPECT_EQ(subscribe_frame(1, "news"), m_peer.receive_frame());

    ASSERT_TRUE(m_peer.send(delivery_frame(0, "news", text("AB"), 3, 4)));

    ASSERT_TRUE(m_calls.wait(1));
    EXPECT_THAT(m_calls.get(), ElementsAre("3/4 news:AB"));
}

TEST_F(LibkypMessageTest, EndOfASubscriptionIsSent) {
    LogCapture log;
    ASSERT_EQ(0, libkyp_subscribe(m_handle, "news", Calls::on_topic, &m_calls));
    ASSERT_EQ(subscribe_frame(1, "news"), m_peer.receive_frame());

    EXPECT_EQ(0, libkyp_unsubscribe(m_handle, "news"));

    EXPECT_EQ(unsubscribe_frame(2, "news"), m_peer.receive_frame());
    ASSERT_TRUE(m_peer.send(delivery_frame(0, "news", text("AB"))));
    expect_dealt_with(log);
    EXPECT_THAT(m_calls.get(), IsEmpty());
}

TEST_F(LibkypMessageTest, EndingWhatWasNotSubscribedIsReported) {
    EXPECT_EQ(KYP_ERR_TOPIC, libkyp_unsubscribe(m_handle, "news"));
    EXPECT_EQ(KYP_ERR_TOPIC, libkyp_get_errno());
}

// ---- status ------------------------------------------------------------------------------------

TEST_F(LibkypMessageTest, EntriesWithAHandleClearTheStatusOfAnEarlierCall) {
    struct Row {
        char const* name;
        std::function<void()> call;
    };
    for (Row const& row :
         {Row{"reconnect_delay_set", [&] { libkyp_reconnect_delay_set(m_handle, 2); }},
          Row{"loop_start", [&] { libkyp_loop_start(m_handle); }},
          Row{"sync_send", [&] { libkyp_sync_send(m_handle, 600, 1, 2, nullptr, 0, 20000); }},
          Row{"registerRouterEvent",
              [&] { libkyp__registerRouterEvent(m_handle, 501, Calls::on_route, &m_calls); }},
          Row{"unregisterRouterEvent", [&] { libkyp__unregisterRouterEvent(m_handle, 501); }},
          Row{"publish", [&] { libkyp_publish(m_handle, 0, 0, "news", nullptr, 0); }},
          Row{"subscribe", [&] { libkyp_subscribe(m_handle, "news", Calls::on_topic, &m_calls); }},
          Row{"unsubscribe", [&] { libkyp_unsubscribe(m_handle, "news"); }},
          Row{"loop_stop", [&] { libkyp_loop_stop(m_handle); }},
          Row{"reconnect", [&] { libkyp_reconnect(m_handle, 1000); }}}) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_ERR_TOPIC;

        row.call();

        EXPECT_EQ(0, libkyp_get_errno());
    }
}

TEST_F(LibkypMessageTest, FetchingAnAnswerClearsTheStatusOfAnEarlierCall) {
    ASSERT_EQ(31, send_request("AB"));
    ASSERT_TRUE(m_peer.send(response_frame(600, 9, 1, text("CDE"))));
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(3, receive());
    EXPECT_EQ(0, libkyp_get_errno());
}

TEST_F(LibkypMessageTest, MissingTopicThrows) {
    EXPECT_THROW(libkyp_subscribe(m_handle, nullptr, Calls::on_topic, &m_calls), std::logic_error);
    EXPECT_THROW(libkyp_unsubscribe(m_handle, nullptr), std::logic_error);
    EXPECT_THROW(libkyp_publish(m_handle, 0, 0, nullptr, "AB", 2), std::logic_error);
}

}  // namespace
