#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LibkypCmpFixture.h"
#include "libkyp/libkypCmp.h"
#include "support/RecordingConn.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

void no_route(unsigned short, char const*, unsigned int, _msg_request, void*) {}

void no_topic(unsigned int, unsigned int, char const*, char const*, unsigned int, void*) {}

// Answers at once with the data in brackets.
void in_brackets(unsigned short port, char const* data, unsigned int size, _msg_request request,
                 void*) {
    std::string const answer = "[" + std::string(data, size) + "]";
    int err = -1;
    EXPECT_EQ(static_cast<int>(answer.size()),
              libkypcmp_send(port, answer.data(), static_cast<unsigned int>(answer.size()), request,
                             nullptr, &err));
    EXPECT_EQ(0, err);
}

// ---- ports -------------------------------------------------------------------------------------

TEST_F(LibkypCmpTest, AReservedPortIsRefusedBeforeTheHandleIsLookedAt) {
    for (unsigned int const port : {0U, 1U, 100U, 500U}) {
        SCOPED_TRACE(port);
        tlsErrno = KYP_OK;

        EXPECT_EQ(KYP_ERR_PORT_RESERVED,
                  libkypcmp_addrouter(unknown_handle(), port, no_route, nullptr));

        EXPECT_EQ(KYP_ERR_PORT_RESERVED, libkypcmp_get_errno());
    }
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_addrouter(unknown_handle(), 501, no_route, nullptr));
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_addrouter(unknown_handle(), 5000, no_route, nullptr));
}

TEST_F(LibkypCmpLinkTest, APortAboveTheTableIsRefusedByIt) {
    void* const handle = registered("drive0");

    for (unsigned int const port : {4097U, 5000U, 0xffffffffU}) {
        SCOPED_TRACE(port);
        EXPECT_EQ(KYP_ERR_PORT_RESERVED, libkypcmp_addrouter(handle, port, no_route, nullptr));
        EXPECT_EQ(KYP_ERR_PORT_RESERVED, libkypcmp_get_errno());
    }
    EXPECT_EQ(0U, m_server->peer().waiting());
}

TEST_F(LibkypCmpLinkTest, APortIsRegisteredWithTheServer) {
    void* const handle = registered("drive0");
    int result = -1;

    Bytes const request = answered(verdict_frame(3), [&] {
        tlsErrno = KYP_ERR_TOPIC;
        result = add_router(handle, 501, no_route);
    });

    EXPECT_EQ(0, result);
    EXPECT_EQ(0, libkypcmp_get_errno());
    EXPECT_EQ(
        "00 01 66 00 30 00 00 00 "
        "00 00 00 00 00 00 00 02 00 09 00 00 00 "
        "00 00 00 00 00 00 00 00 "
        "00 03 00 00 00 00 00 06 00 00 00 00 00 00 00 00 00 64 72 69 76 65 30 F5 01 00 00",
        hex(request));
}

TEST_F(LibkypCmpLinkTest, KeepsTheLowBitsOfAPortAboveSixteen) {
    void* const handle = registered("drive0");
    int result = -1;

    Bytes const request =
        answered(verdict_frame(3), [&] { result = add_router(handle, 65536 + 620, no_route); });

    EXPECT_EQ(0, result);
    EXPECT_EQ(hex(register_port_frame(2, "drive0", 620)), hex(request));
}

TEST_F(LibkypCmpLinkTest, APortThatIsTakenInTheProcessIsNotAskedFor) {
    void* const handle = registered("drive0");
    ASSERT_EQ(0, add_served_router(handle, 600, no_route));

    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkypcmp_addrouter(handle, 600, no_route, nullptr));

    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkypcmp_get_errno());
    EXPECT_EQ(0U, m_server->peer().waiting());
}

TEST_F(LibkypCmpLinkTest, ThePortsOfADestroyedComponentStayTaken) {
    void* const first = registered("drive0");
    ASSERT_EQ(0, add_served_router(first, 600, no_route));
    ASSERT_EQ(0, libkypcmp_destory(first));
    void* const second = registered("drive0");

    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkypcmp_addrouter(second, 600, no_route, nullptr));
}

TEST_F(LibkypCmpLinkTest, TheServersRefusalOfAPortIsReported) {
    void* const handle = registered("drive0");
    int result = -1;

    answered(verdict_frame(3, 0x1007), [&] { result = add_router(handle, 600, no_route); });

    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, result);
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, APortWithoutALinkIsReportedAndKept) {
    void* const handle = register_named("drive0");

    EXPECT_EQ(KYP_ERR_DISCONNECTED, add_router(handle, 600, no_route));

    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkypcmp_get_errno());
    EXPECT_THAT(module(handle).routePorts, ElementsAre(600));
}

// ---- topics ------------------------------------------------------------------------------------

TEST_F(LibkypCmpLinkTest, APublishGoesOutWithTopicWordsAndData) {
    void* const handle = registered("drive0");
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkypcmp_publish(handle, 0x10, 0x20, "line1", "21.5", 4));

    Bytes const frame = m_server->receive();
    EXPECT_EQ(hex(publish_frame(2, "line1", text("21.5"), 0x10, 0x20)), hex(frame));
    EXPECT_EQ(
        "00 01 67 00 44 00 00 00 "                 // port 103
        "00 00 00 00 00 00 00 02 00 08 00 00 00 "  // id 2, command 8
        "00 00 00 10 00 00 00 20 "
        "03 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 "
        "70 75 62 00 6C 69 6E 65 31 00 32 31 2E 35 00 10 00 00 00 20 00 00 00",
        hex(frame));
    EXPECT_EQ(0, libkypcmp_get_errno());
}

TEST_F(LibkypCmpLinkTest, AnEmptyPublishGoesOut) {
    void* const handle = registered("drive0");

    EXPECT_EQ(0, libkypcmp_publish(handle, 0, 0, "t", nullptr, 0));

    EXPECT_EQ(hex(publish_frame(2, "t", {})), hex(m_server->receive()));
}

TEST_F(LibkypCmpLinkTest, SubscriptionsGoOut) {
    void* const handle = registered("drive0");
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkypcmp_subscribe(handle, "limits", no_topic, nullptr));
    EXPECT_EQ(0, libkypcmp_get_errno());
    EXPECT_EQ(hex(subscribe_frame(2, "limits")), hex(m_server->receive()));
    tlsErrno = KYP_ERR_TOPIC;
    EXPECT_EQ(0, libkypcmp_unsubscribe(handle, "limits"));
    EXPECT_EQ(hex(unsubscribe_frame(3, "limits")), hex(m_server->receive()));
    EXPECT_EQ(0, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, KeepsZeroForTopicCallsThatDidNotReachTheServer) {
    void* const handle = register_named("drive0");

    EXPECT_EQ(0, libkypcmp_publish(handle, 0, 0, "limits", "x", 1));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkypcmp_get_errno());
    EXPECT_EQ(0, libkypcmp_subscribe(handle, "limits", no_topic, nullptr));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkypcmp_get_errno());
    EXPECT_EQ(0, libkypcmp_unsubscribe(handle, "limits"));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, KeepsZeroForTheEndOfAnUnknownSubscription) {
    void* const handle = register_named("drive0");
    LogCapture log;

    EXPECT_EQ(0, libkypcmp_unsubscribe(handle, "limits"));

    EXPECT_EQ(KYP_ERR_TOPIC, libkypcmp_get_errno());
    EXPECT_EQ(1, log.count("ERROR", "topic:limits no subscribe"));
}

TEST_F(LibkypCmpLinkTest, KeepsZeroForAPublishThatIsTooLong) {
    void* const handle = registered("drive0");
    std::string const data(0x5fffff - 77 - 1 + 1, 'x');

    EXPECT_EQ(0, libkypcmp_publish(handle, 0, 0, "t", data.data(),
                                   static_cast<unsigned int>(data.size())));

    EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG, libkypcmp_get_errno());
    EXPECT_EQ(0U, m_server->peer().waiting());
}

TEST_F(LibkypCmpLinkTest, ALengthWithoutDataIsNotPublished) {
    void* const handle = registered("drive0");

    EXPECT_EQ(0, libkypcmp_publish(handle, 0, 0, "t", nullptr, 1));

    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkypcmp_get_errno());
    EXPECT_EQ(0U, m_server->peer().waiting());
}

TEST_F(LibkypCmpTest, ANullTopicThrows) {
    void* const handle = register_named("drive0");

    EXPECT_THROW(libkypcmp_publish(handle, 0, 0, nullptr, "x", 1), std::logic_error);
    EXPECT_THROW(libkypcmp_subscribe(handle, nullptr, no_topic, nullptr), std::logic_error);
    EXPECT_THROW(libkypcmp_unsubscribe(handle, nullptr), std::logic_error);
}

// ---- answers -----------------------------------------------------------------------------------

TEST_F(LibkypCmpTest, AnAnswerCarriesTheRequestsCommandIdAndError) {
    RecordingConn conn;
    _msg_request const request = {1, 9, 0x01020304, 5, 6, 0x3001, &conn};
    int err = -1;
    int unread = 7;
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkypcmp_send(600, "AB", 2, request, &unread, &err));

    EXPECT_EQ(0, err);
    EXPECT_EQ(0, libkypcmp_get_errno());
    EXPECT_EQ(7, unread);
    ASSERT_THAT(conn.m_answers, SizeIs(1));
    EXPECT_EQ("00 00 30 01 01 02 03 04 00 09 00 00 01", hex(conn.m_answers[0].aoe));
    EXPECT_EQ(600, conn.m_answers[0].port);
    EXPECT_EQ("AB", as_text(conn.m_answers[0].data));
    EXPECT_EQ(1000, conn.m_answers[0].timeoutMs);
}

TEST_F(LibkypCmpTest, AnAnswersResultAndStatusAreThoseOfItsConnection) {
    RecordingConn conn;
    conn.m_result = -1;
    conn.m_status = KYP_ERR_SEND;
    int err = 0;

    EXPECT_EQ(-1, libkypcmp_send(600, nullptr, 0, {1, 9, 1, 0, 0, 0, &conn}, nullptr, &err));

    EXPECT_EQ(KYP_ERR_SEND, err);
    EXPECT_EQ(KYP_ERR_SEND, libkypcmp_get_errno());
    EXPECT_THAT(conn.m_answers, SizeIs(1));
}

TEST_F(LibkypCmpTest, AnAnswerWithoutDataOrConnectionIsRefused) {
    RecordingConn conn;
    int err = 0;

    EXPECT_EQ(-1, libkypcmp_send(600, nullptr, 1, {1, 9, 1, 0, 0, 0, &conn}, nullptr, &err));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, err);
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkypcmp_get_errno());
    err = 0;
    EXPECT_EQ(-1, libkypcmp_send(600, "A", 1, {1, 9, 1, 0, 0, 0, nullptr}, nullptr, &err));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, err);
    EXPECT_THAT(conn.m_answers, IsEmpty());
}

TEST_F(LibkypCmpTest, AnAnswerBeyondTwoGibibytesIsRefused) {
    RecordingConn conn;
    int err = 0;

    EXPECT_EQ(-1, libkypcmp_send(600, "A", 0x80000000U, {1, 9, 1, 0, 0, 0, &conn}, nullptr, &err));

    EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG, err);
    EXPECT_THAT(conn.m_answers, IsEmpty());
}

// ---- a started component -----------------------------------------------------------------------

// What callbacks tell the test's thread.
class Mailbox {
public:
    void put(std::string message) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(std::move(message));
    }

    // All messages, once there are `count`.
    std::vector<std::string> wait_for(size_t count) {
        (void)eventually([&] {
            std::lock_guard<std::mutex> lock(m_mutex);
            return m_messages.size() >= count;
        });
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_messages;
};

class LibkypCmpStartedTest : public LibkypCmpLinkTest {
protected:
    void SetUp() override {
        m_handle = registered("drive0");
        ASSERT_NE(nullptr, m_handle);
    }

    void TearDown() override { end_thread(&module(m_handle)); }

    void start() { ASSERT_EQ(0, libkypcmp_loop_start(m_handle)); }

    // The server asks for client 5 and gives what comes back.
    std::string ask(uint16_t port, uint32_t id, std::string const& data) {
        EXPECT_TRUE(m_server->send(forward_frame(port, 9, id, 5, text(data))));
        return hex(m_server->receive());
    }

    static std::string answer(uint16_t port, uint32_t id, std::string const& data) {
        return hex(answer_frame(port, 9, id, 5, text(data)));
    }

    void* m_handle = nullptr;
    Mailbox m_mail;
};

TEST_F(LibkypCmpStartedTest, ARouteAnswersOverTheChannel) {
    ASSERT_EQ(0, add_served_router(m_handle, 600, in_brackets));
    start();

    EXPECT_EQ(answer(600, 7, "[one]"), ask(600, 7, "one"));
    EXPECT_EQ(answer(600, 8, "[]"), ask(600, 8, ""));
}

TEST_F(LibkypCmpStartedTest, Port100Echoes) {
    start();

    EXPECT_EQ(answer(100, 9, "echo"), ask(100, 9, "echo"));
}

TEST_F(LibkypCmpStartedTest, ARouteSeesTheWholeRequestAndItsOwnArgument) {
    auto const route = [](unsigned short port, char const* data, unsigned int size,
                          _msg_request request, void* user) {
        static_cast<Mailbox*>(user)->put(
            std::to_string(port) + "," + std::string(data, size) + "," +
            std::to_string(request.version) + "," + std::to_string(request.cmd) + "," +
            std::to_string(request.invokeId) + "," + std::to_string(request.indexGroup) + "," +
            std::to_string(request.indexOffset) + "," + std::to_string(request.error) + "," +
            std::to_string(request.conn->get_fd()));
    };
    ASSERT_EQ(0, add_served_router(m_handle, 600, route, &m_mail));
    start();

    ASSERT_TRUE(m_server->send(forward_frame(600, 4, 70, 9, text("data"), 0, 16, 32)));

    EXPECT_THAT(m_mail.wait_for(1), ElementsAre("600,data,1,4,70,16,32,0,9"));
}

TEST_F(LibkypCmpStartedTest, AnAnswerMayComeLaterFromAnyThread) {
    static _msg_request s_kept;
    auto const keep = [](unsigned short, char const*, unsigned int, _msg_request request,
                         void* user) {
        s_kept = request;
        static_cast<Mailbox*>(user)->put("kept");
    };
    ASSERT_EQ(0, add_served_router(m_handle, 600, in_brackets));
    ASSERT_EQ(0, add_served_router(m_handle, 601, keep, &m_mail));
    start();
    ASSERT_TRUE(m_server->send(forward_frame(601, 9, 7, 5, text("first"))));
    ASSERT_THAT(m_mail.wait_for(1), SizeIs(1));
    ASSERT_EQ(answer(600, 8, "[second]"), ask(600, 8, "second"));
    int err = -1;
    int result = -1;

    s_kept.error = 0x3001;
    std::thread([&] { result = libkypcmp_send(601, "late", 4, s_kept, nullptr, &err); }).join();

    EXPECT_EQ(4, result);
    EXPECT_EQ(0, err);
    EXPECT_EQ(hex(answer_frame(601, 9, 7, 5, text("late"), 0x3001)), hex(m_server->receive()));
}

TEST_F(LibkypCmpStartedTest, AnAnswerOverALostLinkIsReported) {
    static _msg_request s_kept;
    auto const keep = [](unsigned short, char const*, unsigned int, _msg_request request,
                         void* user) {
        s_kept = request;
        static_cast<Mailbox*>(user)->put("kept");
    };
    ASSERT_EQ(0, add_served_router(m_handle, 600, keep, &m_mail));
    start();
    ASSERT_TRUE(m_server->send(forward_frame(600, 9, 7, 5)));
    ASSERT_THAT(m_mail.wait_for(1), SizeIs(1));
    drop_link(m_handle);
    int err = 0;

    EXPECT_EQ(-1, libkypcmp_send(600, "late", 4, s_kept, nullptr, &err));

    EXPECT_EQ(KYP_ERR_SEND, err);
    EXPECT_EQ(KYP_ERR_SEND, libkypcmp_get_errno());
}

TEST_F(LibkypCmpStartedTest, ClientsComeAndGo) {
    CmpConnConfig* const config = libkypcmp_getconfig(m_handle);
    config->onConnect = [](VirtualConn* client, void* user) {
        static_cast<Mailbox*>(user)->put("came " + std::to_string(client->get_fd()));
    };
    config->onDisconnect = [](VirtualConn* client, void* user) {
        static_cast<Mailbox*>(user)->put("left " + std::to_string(client->get_fd()));
    };
    config->userData = &m_mail;
    ASSERT_EQ(0, add_served_router(m_handle, 600, no_route));
    start();

    for (Bytes const& frame : {forward_frame(600, 9, 1, 5), forward_frame(600, 9, 2, 5),
                               forward_frame(600, 9, 3, 6), leave_frame(600, 5)}) {
        ASSERT_TRUE(m_server->send(frame));
    }

    EXPECT_THAT(m_mail.wait_for(3), ElementsAre("came 5", "came 6", "left 5"));
}

TEST_F(LibkypCmpStartedTest, MessagesOfASubscribedTopicArrive) {
    auto const on_topic = [](unsigned int group, unsigned int offset, char const* topic,
                             char const* data, unsigned int length, void* user) {
        static_cast<Mailbox*>(user)->put(std::to_string(group) + "," + std::to_string(offset) +
                                         "," + topic + "," + std::string(data, length));
    };
    ASSERT_EQ(0, libkypcmp_subscribe(m_handle, "limits", on_topic, &m_mail));
    ASSERT_EQ(hex(subscribe_frame(2, "limits")), hex(m_server->receive()));
    start();

    ASSERT_TRUE(m_server->send(delivery_frame(1, "limits", text("21.5"), 3, 4)));

    EXPECT_THAT(m_mail.wait_for(1), ElementsAre("3,4,limits,21.5"));
}

TEST_F(LibkypCmpStartedTest, ACallbackMayAddAPortAndPublish) {
    static void* s_handle;
    s_handle = m_handle;
    m_ports.push_back(602);
    auto const route = [](unsigned short, char const*, unsigned int, _msg_request, void* user) {
        int const added = libkypcmp_addrouter(s_handle, 602, no_route, nullptr);
        int const published = libkypcmp_publish(s_handle, 0, 0, "t", "x", 1);
        static_cast<Mailbox*>(user)->put(std::to_string(added) + "," + std::to_string(published));
    };
    ASSERT_EQ(0, add_served_router(m_handle, 600, route, &m_mail));
    start();
    ASSERT_TRUE(m_server->send(forward_frame(600, 9, 7, 5)));

    EXPECT_EQ(hex(register_port_frame(3, "drive0", 602)),
              hex(m_server->answer_with(verdict_frame(3))));

    EXPECT_EQ(hex(publish_frame(4, "t", text("x"))), hex(m_server->receive()));
    EXPECT_THAT(m_mail.wait_for(1), ElementsAre("0,0"));
}

TEST_F(LibkypCmpStartedTest, ASecondStartChangesNothing) {
    start();
    ASSERT_EQ(answer(100, 8, "echo"), ask(100, 8, "echo"));
    LogCapture log;

    EXPECT_EQ(0, libkypcmp_loop_start(m_handle));

    EXPECT_EQ(answer(100, 9, "echo"), ask(100, 9, "echo"));
    EXPECT_EQ(0, log.count_containing("start net thread"));
}

// The reconnection waits for more than three seconds.
TEST_F(LibkypCmpStartedTest, AServerThatComesBackFindsNamePortsAndTopics) {
    ASSERT_EQ(0, add_served_router(m_handle, 600, in_brackets));
    ASSERT_EQ(0, libkypcmp_subscribe(m_handle, "limits", no_topic, nullptr));
    m_server->receive();
    start();

    drop_link(m_handle);
    m_server->restart();
    ASSERT_TRUE(m_server->accept());

    EXPECT_EQ(hex(register_frame(4, "drive0")), hex(m_server->answer_with(verdict_frame(1))));
    EXPECT_EQ(hex(register_port_frame(5, "drive0", 600)),
              hex(m_server->answer_with(verdict_frame(3))));
    EXPECT_EQ(hex(subscribe_frame(6, "limits")), hex(m_server->receive()));
    EXPECT_EQ(answer(600, 7, "[again]"), ask(600, 7, "again"));
}

TEST_F(LibkypCmpTest, AComponentThatCameBeforeItsServerIsRegisteredOnceStarted) {
    void* const handle = register_named("drive0");
    ASSERT_NE(nullptr, handle);
    ASSERT_EQ(KYP_ERR_DISCONNECTED, add_router(handle, 600, in_brackets));
    FakeKypserver server;

    ASSERT_EQ(0, libkypcmp_loop_start(handle));
    ASSERT_TRUE(server.accept());

    EXPECT_EQ(hex(register_frame(2, "drive0")), hex(server.answer_with(verdict_frame(1))));
    EXPECT_EQ(hex(register_port_frame(3, "drive0", 600)),
              hex(server.answer_with(verdict_frame(3))));
    ASSERT_TRUE(server.send(forward_frame(600, 9, 7, 5, text("one"))));
    EXPECT_EQ(hex(answer_frame(600, 9, 7, 5, text("[one]"))), hex(server.receive()));
}

}  // namespace
