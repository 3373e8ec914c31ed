// kypserver, components and clients of the library, each a process of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "support/ChildProcess.h"
#include "support/ComponentFrames.h"
#include "support/Eventually.h"
#include "support/KypClient.h"
#include "support/RawPeer.h"
#include "support/ServerProcess.h"

namespace {

using testing::HasSubstr;

constexpr uint16_t kPort = 600;
constexpr uint16_t kLaterPort = 700;

// A component with ports 600 to 604, which answer at once, and 700, which answers later.
class ComponentProcess {
public:
    explicit ComponentProcess(std::string const& name = "motor") {
        m_process = std::make_unique<ChildProcess>(std::vector<std::string>{
            "echo_component", name, "600", "601", "602", "603", "604", "later", "700"});
        EXPECT_TRUE(m_process->wait_for_output("component ready")) << m_process->all_output();
    }

    ChildProcess& process() { return *m_process; }

private:
    std::unique_ptr<ChildProcess> m_process;
};

uint32_t ask(RawPeer& peer, uint16_t port, std::chrono::milliseconds deadline = kRawDeadline) {
    peer.send(request_frame(port, 9, 7, 0, 0, text("AB")));
    FrameParts const answer = take_apart(peer.receive_frame(deadline));
    if (!answer.whole) return 0xffffffff;
    return answer.error == 0 && answer.rest != text("AB") ? 0xfffffffe : answer.error;
}

TEST(RealComponentTest, ServesClientsOfBothTransportsAtOnce) {
    ServerProcess server;
    ComponentProcess component;
    std::vector<std::thread> callers;
    for (auto transport : {KypClient::TCP, KypClient::UNIX}) {
        for (uint16_t port : {kPort, kLaterPort}) {
            callers.emplace_back([transport, port] {
                KypClient client(transport);
                for (size_t size : {0u, 2u, 1000u, 70000u, 3u << 20, 2u}) {
                    KypClient::Answer const answer = client.exchange(port, pattern(size));
                    EXPECT_EQ(0, answer.status);
                    EXPECT_TRUE(pattern(size) == answer.payload);
                }
            });
        }
    }
    for (std::thread& caller : callers) caller.join();
}

TEST(RealComponentTest, HearsTopicsAndPublishesThem) {
    ServerProcess server;
    ComponentProcess component;
    KypClient client(KypClient::TCP);
    ASSERT_EQ(0, client.subscribe("from-motor"));
    ASSERT_TRUE(client.wait_until_subscribed("from-motor", client));

    for (unsigned int i = 0; i < 200; ++i) {
        ASSERT_EQ(0, client.publish("to-motor", text(std::to_string(i)), i, 1));
    }

    ASSERT_TRUE(client.wait_for_messages(200));
    for (unsigned int i = 0; i < 200; ++i) {
        EXPECT_EQ(i, client.messages()[i].indexGroup);
        EXPECT_EQ(std::to_string(i), as_text(client.messages()[i].data));
    }
}

TEST(RealComponentTest, ASecondOfTheSameNameIsRefused) {
    ServerProcess server;
    ComponentProcess component;

    ChildProcess second({"echo_component", "motor", "800"});
    EXPECT_EQ(1, second.wait_exit());

    EXPECT_THAT(second.output(), HasSubstr("component refused: 0x4003"));
    RawPeer client = RawPeer::connect_tcp(9999);
    EXPECT_EQ(0u, ask(client, kPort));
    EXPECT_EQ(static_cast<uint32_t>(KYP_ERR_ROUTE_NOT_REGISTERED), ask(client, 800));
}

TEST(RealComponentTest, ServesFiveHundredClientsAndTellsTheNext) {
    constexpr size_t kClients = 500;
    ServerProcess server;
    ComponentProcess component;
    std::vector<RawPeer> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(i % 2 == 0 ? RawPeer::connect_tcp(9999)
                                     : RawPeer::connect_unix(kServerPath));
    }

    for (int round = 0; round < 3; ++round) {
        uint16_t const port = round == 1 ? kLaterPort : kPort;
        for (RawPeer& client : clients) {
            ASSERT_TRUE(client.send(request_frame(port, 9, 7, 0, 0, text("AB"))));
        }
        for (RawPeer& client : clients) {
            ASSERT_EQ(hex(response_frame(port, 9, 7, text("AB"))), hex(client.receive_frame()));
        }
    }
    RawPeer next = RawPeer::connect_tcp(9999);
    EXPECT_EQ(static_cast<uint32_t>(KYP_ERR_CLIENT_LIMIT), ask(next, kPort));
    EXPECT_EQ(0u, ask(clients.front(), kPort));

    clients.pop_back();
    EXPECT_TRUE(eventually([&] {
        RawPeer another = RawPeer::connect_tcp(9999);
        return ask(another, kPort) == 0;
    }));
}

TEST(RealComponentTest, IsBackAtOnceAfterItsDeath) {
    ServerProcess server;
    RawPeer client = RawPeer::connect_tcp(9999);
    for (int i = 0; i < 5; ++i) {
        ComponentProcess component;
        EXPECT_THAT(component.process().output(), HasSubstr("component ready: 0x0"));
        EXPECT_EQ(0u, ask(client, kPort));
        EXPECT_EQ(0u, ask(client, kLaterPort));
    }
    EXPECT_TRUE(eventually(
        [&] { return ask(client, kPort) == static_cast<uint32_t>(KYP_ERR_COMPONENT_OFFLINE); }));
}

// Clients call while it registers again, port by port: no answer goes astray, however slow the
// machine is.
TEST(RealComponentTest, ComesBackByItselfAfterARestartOfTheServer) {
    std::vector<std::string> const options = {"--quiet-ms=1000"};
    auto server = std::make_unique<ServerProcess>(options);
    ComponentProcess component;
    KypClient subscriber(KypClient::UNIX);
    libkyp_reconnect_delay_set(subscriber.handle(), 0);
    ASSERT_EQ(0, subscriber.subscribe("from-motor"));
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&stop, i] {
            while (!stop) {
                RawPeer client = RawPeer::connect_tcp(9999);
                for (int n = 0; n < 20 && !stop; ++n) {
                    // Every call is answered: by the component, or by the server in its place.
                    uint32_t const status = ask(client, static_cast<uint16_t>(kPort + i));
                    if (status == 0xffffffff) break;  // the server has gone
                    EXPECT_THAT(status, testing::AnyOf(0u, KYP_ERR_ROUTE_NOT_REGISTERED,
                                                       KYP_ERR_COMPONENT_OFFLINE));
                }
            }
        });
    }

    for (int restart = 0; restart < 2; ++restart) {
        server->kill();
        server = std::make_unique<ServerProcess>(options);
        RawPeer client = RawPeer::connect_tcp(9999);
        for (uint16_t port : {600, 601, 602, 603, 604, 700}) {
            EXPECT_TRUE(
                eventually([&] { return ask(client, port) == 0; }, std::chrono::seconds(30)));
        }
        EXPECT_TRUE(eventually([&] {
            subscriber.publish("to-motor", text("again"));
            return subscriber.message_count("from-motor", text("again")) > 0;
        }));
    }
    stop = true;
    for (std::thread& caller : callers) caller.join();
}

}  // namespace
