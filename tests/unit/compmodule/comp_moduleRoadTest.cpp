// A component with its receive thread, and the server as a test plays it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "compmodule/business_data_layer.h"
#include "compmodule/comp_module.h"
#include "compmodule/net_channel.h"
#include "kypcomm/KypStatus.h"
#include "kypcore/IConnection.h"
#include "support/ComponentFrames.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

using libkyp::compmodule::CompModule;

constexpr int64_t kTenSeconds = 10000000000;

int answer(_msg_request const& request, uint16_t port, Bytes const& payload) {
    _AoEHeader const aoe = {utils_htonl(request.error), utils_htonl(request.invokeId),
                            utils_htons(request.cmd), 0, 1};
    return request.conn->send_message(aoe, port, reinterpret_cast<char const*>(payload.data()),
                                      static_cast<int>(payload.size()), 5000);
}

// A component "cmp" that sends every payload back on port 600.
class CompModuleRoadTest : public testing::Test {
protected:
    using Route = std::function<void(_msg_request const& request, uint16_t port, Bytes data)>;

    CompModuleRoadTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = 0;
        tagCmpDrvInfo info = {0, 0, "cmp"};
        m_module = std::make_unique<CompModule>(&info, nullptr, nullptr);
        // The first attempt to connect again need not wait.
        m_module->dataLayer->reconnectTimer.m_nanoseconds -= kTenSeconds;
    }

    ~CompModuleRoadTest() override { end_thread(); }

    // Nothing but the flag ends the thread. A test whose route uses the test's own objects ends it
    // while they are there.
    void end_thread() {
        if (!m_module->dataLayer->netThread.joinable()) return;
        m_module->dataLayer->stopFlag = true;
        m_module->dataLayer->netThread.join();
    }

    static void call_route(unsigned short port, char const* data, unsigned int size,
                           _msg_request request, void* self) {
        static_cast<CompModuleRoadTest*>(self)->m_route(request, port, Bytes(data, data + size));
    }

    static void take_message(unsigned int, unsigned int, char const*, char const*, unsigned int,
                             void*) {}

    // Registers component, port 600 and topic "limits", and starts.
    void start_on_the_server() {
        auto server = std::async(std::launch::async, [this] {
            m_server.accept();
            m_server.answer_with(verdict_frame(1));
            m_server.answer_with(verdict_frame(3));
            m_server.receive();
        });
        EXPECT_EQ(0, m_module->init_comp_module());
        EXPECT_EQ(0, m_module->register_route_port(600, call_route, this));
        EXPECT_EQ(0, m_module->subscribe("limits", take_message, nullptr));
        server.get();
        EXPECT_EQ(0, m_module->start());
    }

    // The component comes back, with all that it had.
    void expect_registration() {
        ASSERT_TRUE(m_server.accept());
        EXPECT_EQ("01", command_of(m_server.answer_with(verdict_frame(1))));
        EXPECT_EQ("03", command_of(m_server.answer_with(verdict_frame(3))));
        FrameParts const topic = take_apart(m_server.receive());
        EXPECT_EQ(103, topic.port);
        EXPECT_EQ(6, topic.cmd);
    }

    // The kind of a registration: its second byte.
    static std::string command_of(Bytes const& frame) {
        FrameParts const parts = take_apart(frame);
        return parts.port == 102 && parts.rest.size() > 9 ? hex({parts.rest[9]}) : "none";
    }

    // One request of client `client`, and its answer.
    void expect_exchange(uint16_t client, std::string const& payload) {
        ASSERT_TRUE(m_server.send(forward_frame(600, 9, 7, client, text(payload))));
        EXPECT_EQ(hex(answer_frame(600, 9, 7, client, text(payload))), hex(m_server.receive()));
    }

    FakeKypserver m_server;
    Route m_route = answer;
    std::unique_ptr<CompModule> m_module;
};

TEST_F(CompModuleRoadTest, ARequestIsAnswered) {
    start_on_the_server();

    expect_exchange(5, "AB");
    expect_exchange(6, "");
    expect_exchange(5, "CD");
}

TEST_F(CompModuleRoadTest, AnAnswerMayComeLaterAndFromAnyThread) {
    std::promise<_msg_request> asked;
    m_route = [&asked](_msg_request const& request, uint16_t, Bytes const& data) {
        if (data == text("later")) return asked.set_value(request);
        answer(request, 600, data);
    };
    start_on_the_server();
    ASSERT_TRUE(m_server.send(forward_frame(600, 9, 1, 5, text("later"))));
    expect_exchange(6, "AB");

    std::thread([&asked] {
        _msg_request request = asked.get_future().get();
        request.error = KYP_ERR_INDEX_GROUP;
        EXPECT_EQ(2, answer(request, 600, text("CD")));
    }).join();
    EXPECT_EQ(hex(answer_frame(600, 9, 1, 5, text("CD"), KYP_ERR_INDEX_GROUP)),
              hex(m_server.receive()));
    end_thread();
}

// Answers requests on threads of its own.
class Workers {
public:
    explicit Workers(int count) {
        for (int i = 0; i < count; ++i) m_threads.emplace_back([this] { work(); });
    }
    ~Workers() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_isEnded = true;
        }
        m_wake.notify_all();
        for (std::thread& thread : m_threads) thread.join();
    }

    void put(_msg_request const& request, Bytes data) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.emplace_back(request, std::move(data));
        }
        m_wake.notify_one();
    }

private:
    void work() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_isEnded || !m_queue.empty(); });
            if (m_queue.empty()) return;
            auto const [request, data] = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            EXPECT_EQ(static_cast<int>(data.size()), answer(request, 600, data));
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::pair<_msg_request, Bytes>> m_queue;  // guarded by m_mutex, as the flag is
    bool m_isEnded = false;
    std::vector<std::thread> m_threads;
};

TEST_F(CompModuleRoadTest, FiveHundredClientsAreAnsweredEachOnItsOwn) {
    constexpr int kClients = 500;
    constexpr uint32_t kRequests = 4;
    SetLogLevel(LOG_LEVEL_WARNING);
    Workers workers(4);
    m_route = [&workers](_msg_request const& request, uint16_t, Bytes data) {
        workers.put(request, std::move(data));
    };
    start_on_the_server();
    std::thread clients([this] {
        for (uint32_t invoke = 1; invoke <= kRequests; ++invoke) {
            for (uint16_t client = 1; client <= kClients; ++client) {
                m_server.send(
                    forward_frame(600, 9, invoke, client, join({u16_le(client), u32_le(invoke)})));
            }
        }
    });

    std::map<uint16_t, std::set<uint32_t>> answered;
    for (int n = 0; n < kClients * static_cast<int>(kRequests); ++n) {
        Bytes const frame = m_server.receive();
        FrameParts const parts = take_apart(frame);
        ASSERT_TRUE(parts.whole);
        auto const client = static_cast<uint16_t>(parts.rest[7] | parts.rest[8] << 8);
        EXPECT_EQ(hex(answer_frame(600, 9, parts.invokeId, client,
                                   join({u16_le(client), u32_le(parts.invokeId)}))),
                  hex(frame));
        EXPECT_TRUE(answered[client].insert(parts.invokeId).second);
    }
    clients.join();
    EXPECT_EQ(static_cast<size_t>(kClients), answered.size());

    m_server.send(forward_frame(600, 9, 1, 501));
    EXPECT_EQ(hex(answer_frame(600, 9, 1, 501, {}, KYP_ERR_CLIENT_LIMIT)), hex(m_server.receive()));
    m_server.send(leave_frame(600, 17));
    expect_exchange(501, "AB");
    end_thread();
}

TEST_F(CompModuleRoadTest, AServerThatWasAwayIsFoundLater) {
    m_server.kill();
    EXPECT_EQ(KYP_ERR_SERVER_OFFLINE, m_module->init_comp_module());
    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->register_route_port(600, call_route, this));
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, m_module->register_route_port(600, call_route, this));
    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->subscribe("limits", take_message, nullptr));
    m_server.restart();

    EXPECT_EQ(0, m_module->start());
    expect_registration();
    expect_exchange(5, "AB");
}

TEST_F(CompModuleRoadTest, AServerThatIsKilledIsJoinedAgainWithAllThatThereWas) {
    start_on_the_server();
    expect_exchange(5, "AB");
    // The second time the component waits its three seconds.
    for (char const* payload : {"once", "again"}) {
        SCOPED_TRACE(payload);
        LogCapture log;
        m_server.kill();
        ASSERT_TRUE(log.wait_for("component:cmp and kypserver channel has been disconnected"));

        m_server.restart();
        expect_registration();
        expect_exchange(5, payload);
        expect_exchange(6, payload);
        EXPECT_EQ(1,
                  log.count("ERROR", "component:cmp and kypserver channel has been disconnected"));
        EXPECT_EQ(1, log.count("DEBUG", "component:cmp connect kypserver Success"));
    }
    EXPECT_EQ(2U, m_module->connMap.size());
}

TEST_F(CompModuleRoadTest, ALinkThatAnAnswerFindsLostIsJoinedAgain) {
    std::promise<void> asked;
    std::promise<void> killed;
    m_route = [&](_msg_request const& request, uint16_t, Bytes const& data) {
        if (data != text("wait")) return (void)answer(request, 600, data);
        asked.set_value();
        killed.get_future().wait();
        EXPECT_EQ(-1, answer(request, 600, data));
        EXPECT_EQ(KYP_ERR_SEND, tlsErrno);
    };
    start_on_the_server();
    ASSERT_TRUE(m_server.send(forward_frame(600, 9, 1, 5, text("wait"))));
    asked.get_future().wait();
    m_server.kill();
    m_server.restart();
    killed.set_value();

    expect_registration();
    expect_exchange(5, "AB");
    end_thread();
}

TEST_F(CompModuleRoadTest, ALinkThatAPortExchangeFindsLostIsJoinedAgain) {
    m_route = [this](_msg_request const& request, uint16_t, Bytes const& data) {
        if (data != text("port")) return (void)answer(request, 600, data);
        EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->register_route_port(601, call_route, this));
    };
    start_on_the_server();
    ASSERT_TRUE(m_server.send(forward_frame(600, 9, 1, 5, text("port"))));
    EXPECT_EQ("03", command_of(m_server.receive()));
    m_server.kill();
    m_server.restart();

    ASSERT_TRUE(m_server.accept());
    EXPECT_EQ("01", command_of(m_server.answer_with(verdict_frame(1))));
    EXPECT_EQ("03", command_of(m_server.answer_with(verdict_frame(3))));
    EXPECT_EQ("03", command_of(m_server.answer_with(verdict_frame(3))));
    EXPECT_EQ(6, take_apart(m_server.receive()).cmd);
    expect_exchange(5, "AB");
}

TEST_F(CompModuleRoadTest, APortMayBeRegisteredInACallback) {
    std::promise<int> registered;
    m_route = [&](_msg_request const& request, uint16_t port, Bytes const& data) {
        if (data != text("port")) return (void)answer(request, port, data);
        registered.set_value(m_module->register_route_port(601, call_route, this));
    };
    start_on_the_server();
    ASSERT_TRUE(m_server.send(forward_frame(600, 9, 1, 5, text("port"))));
    EXPECT_EQ("03", command_of(m_server.answer_with(verdict_frame(3))));

    EXPECT_EQ(0, registered.get_future().get());
    ASSERT_TRUE(m_server.send(forward_frame(601, 9, 2, 5, text("AB"))));
    EXPECT_EQ(hex(answer_frame(601, 9, 2, 5, text("AB"))), hex(m_server.receive()));
    end_thread();
}

TEST_F(CompModuleRoadTest, KeepsUnregisteredBehindAFrameWithABadPort) {
    start_on_the_server();
    LogCapture log;
    ASSERT_TRUE(m_server.send(kyp_head(0, 0)));
    ASSERT_TRUE(m_server.peer().expect_closed());

    ASSERT_TRUE(m_server.accept());
    EXPECT_EQ(6, take_apart(m_server.receive()).cmd);
    expect_exchange(5, "AB");
    EXPECT_EQ(0, log.count_containing("channel has been disconnected"));
    EXPECT_EQ(1, log.count("DEBUG", "component:cmp connect kypserver Success"));
}

}  // namespace
