// The whole road: clients of the library, kypserver and components of the library. The server and
// each component are processes of their own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "support/Eventually.h"
#include "support/KypClient.h"
#include "support/ProcessUse.h"
#include "support/RoadComponent.h"
#include "support/ServerProcess.h"

namespace {

using testing::HasSubstr;

constexpr uint16_t kPort = 600;
constexpr uint16_t kOtherPort = 700;
constexpr std::chrono::milliseconds kLong = std::chrono::seconds(60);

// The most that a request may carry so that its component can take it with all heads.
constexpr size_t kLongestPayload = 0x5fffff - 34;

KypClient::Transport const kTransports[] = {KypClient::TCP, KypClient::UNIX};

Bytes const kHello = text("hello");  // is no message, see wait_until_it_hears

// The messages of all topics that begin with `prefix`, by their number, in the order of arrival.
std::vector<uint32_t> numbers(KypClient const& client, std::string const& prefix) {
    std::vector<uint32_t> all;
    for (KypClient::Message const& message : client.messages()) {
        if (message.data == kHello) continue;
        if (message.topic.compare(0, prefix.size(), prefix) == 0) all.push_back(message.indexGroup);
    }
    return all;
}

std::vector<uint32_t> counted(uint32_t count) {
    std::vector<uint32_t> all(count);
    for (uint32_t i = 0; i < count; ++i) all[i] = i;
    return all;
}

void hold(KypClient& client, RoadComponent const& component) {
    EXPECT_EQ(0, client.exchange(component.gate(), text("hold")).status);
}

void let_go(KypClient& client, RoadComponent const& component) {
    EXPECT_EQ(0, client.exchange(component.gate(), text("go")).status);
}

// Has `publisher` publish to a component until that publishes it back to `subscriber`.
bool wait_until_it_hears(std::string const& component, KypClient& publisher,
                         KypClient& subscriber) {
    EXPECT_EQ(0, subscriber.subscribe("from-" + component));
    EXPECT_TRUE(subscriber.wait_until_subscribed("from-" + component, publisher));
    return eventually(
        [&] {
            publisher.publish("to-" + component, kHello);
            return subscriber.message_count("from-" + component, kHello) > 0;
        },
        kLong);
}

TEST(ComponentRoadTest, AnAnswerThatTakesItsTimeHoldsNobodyUp) {
    ServerProcess server;
    RoadComponent component("motor", kPort);
    KypClient keeper(KypClient::TCP);
    hold(keeper, component);
    std::atomic<int> answered{0};
    std::vector<std::thread> patient;
    for (auto transport : kTransports) {
        patient.emplace_back([&, transport] {
            KypClient client(transport);
            KypClient::Answer const answer =
                client.exchange(component.later(), text("patience"), 0, 0, kLong);
            EXPECT_EQ(0, answer.status);
            EXPECT_EQ(text("patience"), answer.payload);
            ++answered;
        });
    }
    ASSERT_TRUE(component.has_seen(3, 0));

    for (int i = 0; i < 20; ++i) {
        Bytes const payload = text(std::to_string(i));
        EXPECT_EQ(payload, keeper.exchange(component.now(), payload).payload);
    }

    EXPECT_EQ(0, answered);
    let_go(keeper, component);
    for (std::thread& each : patient) each.join();
    EXPECT_EQ(2, answered);
}

TEST(ComponentRoadTest, ManyCallBothPortsAtOnceAndEachGetsItsOwnAnswer) {
    constexpr int kClients = 8;
    constexpr int kCalls = 100;
    ServerProcess server;
    RoadComponent component("motor", kPort);
    std::vector<std::thread> callers;
    for (int i = 0; i < kClients; ++i) {
        callers.emplace_back([&component, i] {
            KypClient client(i == 0 ? KypClient::UNIX : KypClient::TCP);
            for (int n = 0; n < kCalls; ++n) {
                uint16_t const port = (i + n) % 2 == 0 ? component.now() : component.later();
                Bytes payload = text(std::to_string(i) + "/" + std::to_string(n) + "/");
                payload.resize(payload.size() + static_cast<size_t>(n) * 50);
                KypClient::Answer const answer = client.exchange(port, payload);
                EXPECT_EQ(0, answer.status);
                EXPECT_EQ(port, answer.port);
                EXPECT_EQ(payload, answer.payload);
            }
        });
    }

    for (std::thread& each : callers) each.join();

    EXPECT_TRUE(component.has_seen(kClients, kClients));
}

TEST(ComponentRoadTest, TheLargestPayloadGoesThereAndBackAndOneByteMoreIsRefused) {
    ServerProcess server;
    RoadComponent component("motor", kPort);
    for (auto transport : kTransports) {
        KypClient client(transport);
        for (uint16_t port : {component.now(), component.later()}) {
            for (size_t size : {size_t{0}, size_t{1}, size_t{65536}, kLongestPayload}) {
                SCOPED_TRACE(size);
                KypClient::Answer const answer = client.exchange(port, pattern(size));
                EXPECT_EQ(0, answer.status);
                EXPECT_TRUE(pattern(size) == answer.payload);
            }
            EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG,
                      client.exchange(port, Bytes(kLongestPayload + 1)).status);
            EXPECT_EQ(text("AB"), client.exchange(port, text("AB")).payload);
        }
    }
}

TEST(ComponentRoadTest, ACodeThatARouteSetsReachesItsClient) {
    ServerProcess server;
    RoadComponent component("motor", kPort);
    for (auto transport : kTransports) {
        KypClient client(transport);
        for (uint16_t port : {component.now(), component.later()}) {
            for (uint32_t code : {1u, 0x1002u, 0x3004u, 0x12345678u, 0x7fffffffu, 0u}) {
                SCOPED_TRACE(code);
                KypClient::Answer const answer = client.exchange(port, text("AB"), 0, code);
                EXPECT_EQ(static_cast<int>(code), answer.status);
            }
        }
    }
}

TEST(ComponentRoadTest, AComponentHearsOfEachClientOnce) {
    ServerProcess server;
    RoadComponent component("motor", kPort);
    RoadComponent other("drive", kOtherPort);
    KypClient silent(KypClient::TCP);
    auto first = std::make_unique<KypClient>(KypClient::TCP);
    auto second = std::make_unique<KypClient>(KypClient::UNIX);
    for (KypClient* client : {first.get(), second.get()}) {
        EXPECT_EQ(0, client->exchange(component.now(), text("AB")).status);
        EXPECT_EQ(0, client->exchange(component.later(), text("AB")).status);
    }
    EXPECT_TRUE(component.has_seen(2, 0));

    first.reset();
    EXPECT_TRUE(component.has_seen(2, 1));
    second.reset();
    EXPECT_TRUE(component.has_seen(2, 2));

    EXPECT_EQ(0, silent.exchange(component.now(), text("AB")).status);
    EXPECT_TRUE(component.has_seen(3, 2));
    EXPECT_TRUE(other.has_seen(0, 0));
}

TEST(ComponentRoadTest, MessagesGoFromClientToComponentToComponentToClient) {
    constexpr uint32_t kMessages = 500;
    ServerProcess server;
    RoadComponent motor("motor", kPort);
    RoadComponent drive("drive", kOtherPort);
    KypClient client(KypClient::TCP);
    KypClient other(KypClient::UNIX);
    ASSERT_TRUE(wait_until_it_hears("motor", other, client));
    ASSERT_TRUE(wait_until_it_hears("drive", client, other));

    ASSERT_EQ(0, client.exchange(motor.publisher(), text("to-drive"), kMessages).status);

    EXPECT_TRUE(
        eventually([&] { return numbers(other, "from-drive").size() >= kMessages; }, kLong));
    EXPECT_EQ(counted(kMessages), numbers(other, "from-drive"));
}

TEST(ComponentRoadTest, EachSubscriberHearsEachPublisherInOrder) {
    constexpr uint32_t kMessages = 2000;
    ServerProcess server({"--workers=8"});
    RoadComponent motor("motor", kPort);
    RoadComponent drive("drive", kOtherPort);
    KypClient publisher(KypClient::TCP);
    KypClient first(KypClient::TCP);
    KypClient second(KypClient::UNIX);
    for (KypClient* subscriber : {&first, &second}) {
        for (char const* topic : {"motor/0", "motor/1", "motor/2", "drive/0", "drive/1", "drive/2",
                                  "client/0", "client/1", "client/2"}) {
            ASSERT_EQ(0, subscriber->subscribe(topic));
            ASSERT_TRUE(subscriber->wait_until_subscribed(topic, publisher));
        }
    }

    std::vector<std::thread> publishers;
    for (uint16_t port : {motor.publisher(), drive.publisher()}) {
        publishers.emplace_back([port] {
            KypClient client(KypClient::TCP);
            EXPECT_EQ(0, client.exchange(port, {}, kMessages, 0, kLong).status);
        });
    }
    for (uint32_t i = 0; i < kMessages; ++i) {
        EXPECT_EQ(0, publisher.publish("client/" + std::to_string(i % 3), text("AB"), i));
    }
    for (std::thread& each : publishers) each.join();

    for (KypClient* subscriber : {&first, &second}) {
        EXPECT_TRUE(subscriber->wait_for_messages(3 * kMessages, kLong));
        for (char const* source : {"motor/", "drive/", "client/"}) {
            EXPECT_EQ(counted(kMessages), numbers(*subscriber, source)) << source;
        }
    }
}

// ---- five hundred clients

// One client of this process and 499 of another one.
class FullComponentTest : public testing::Test {
protected:
    static constexpr int kClients = 500;

    void fill() {
        EXPECT_EQ(0, ask(*m_client));
        ASSERT_TRUE(m_component.has_seen(1, 0));
        m_crowd = std::make_unique<ChildProcess>(std::vector<std::string>{
            "road_crowd", std::to_string(kPort), std::to_string(kClients - 1)});
        ASSERT_TRUE(m_component.has_seen(kClients, 0));
        EXPECT_TRUE(crowd_is_served());
    }

    // Whether all the others are served on both ports from now on, and have always been.
    bool crowd_is_served() {
        int const before = rounds("served ");
        return eventually([&] { return rounds("served ") >= before + 3; }, kLong) &&
               rounds("served ") == rounds("served 499\n");
    }

    int ask(KypClient& client) {
        return client.exchange(m_component.now(), text("AB"), 0, 0, kLong).status;
    }

    ServerProcess m_server;
    RoadComponent m_component{"motor", kPort};
    std::unique_ptr<KypClient> m_client = std::make_unique<KypClient>(KypClient::UNIX);

private:
    int rounds(std::string const& line) const {
        std::string const all = m_crowd->output();
        int count = 0;
        for (size_t at = 0; (at = all.find(line, at)) != std::string::npos; ++at) ++count;
        return count;
    }

    std::unique_ptr<ChildProcess> m_crowd;
};

TEST_F(FullComponentTest, ServesFiveHundredAndTurnsTheNextAway) {
    fill();
    KypClient next(KypClient::TCP);

    EXPECT_EQ(KYP_ERR_CLIENT_LIMIT, ask(next));
    EXPECT_EQ(KYP_ERR_CLIENT_LIMIT, ask(next));

    EXPECT_TRUE(crowd_is_served());
    EXPECT_EQ(0, ask(*m_client));
    EXPECT_TRUE(m_component.has_seen(kClients, 0));
    m_client.reset();
    ASSERT_TRUE(m_component.has_seen(kClients, 1));
    EXPECT_EQ(0, ask(next));
    EXPECT_TRUE(m_component.has_seen(kClients + 1, 1));
    EXPECT_TRUE(crowd_is_served());
}

// What a component keeps of a client that it has turned away is nothing.
TEST_F(FullComponentTest, AClientThatWasTurnedAwayTakesNoPlaceWhenItLeaves) {
    fill();
    auto turnedAway = std::make_unique<KypClient>(KypClient::TCP);
    auto takenInLater = std::make_unique<KypClient>(KypClient::TCP);
    ASSERT_EQ(KYP_ERR_CLIENT_LIMIT, ask(*turnedAway));
    ASSERT_EQ(KYP_ERR_CLIENT_LIMIT, ask(*takenInLater));
    m_client.reset();
    ASSERT_TRUE(m_component.has_seen(kClients, 1));

    pid_t const server = m_server.process().pid();
    size_t const open = open_descriptors(server);
    turnedAway.reset();
    ASSERT_TRUE(eventually([&] { return open_descriptors(server) < open; }));

    EXPECT_EQ(0, ask(*takenInLater));
    EXPECT_TRUE(m_component.has_seen(kClients + 1, 1));
    KypClient next(KypClient::TCP);
    EXPECT_EQ(KYP_ERR_CLIENT_LIMIT, ask(next));
    takenInLater.reset();
    EXPECT_TRUE(m_component.has_seen(kClients + 1, 2));
    EXPECT_EQ(0, ask(next));
    EXPECT_TRUE(crowd_is_served());
}

// ---- names and ports

TEST(ComponentRoadTest, ASecondComponentOfANameIsRefusedAndTheFirstGoesOn) {
    ServerProcess server;
    RoadComponent first("motor", kPort);
    KypClient client(KypClient::TCP);
    KypClient subscriber(KypClient::UNIX);
    ASSERT_TRUE(wait_until_it_hears("motor", client, subscriber));

    for (uint16_t port : {kPort, kOtherPort}) {
        RoadComponent second("motor", port);
        EXPECT_EQ(1, second.process().wait_exit());
        EXPECT_THAT(second.process().output(), HasSubstr("refused: 0x4003"));
    }

    EXPECT_EQ(text("AB"), client.exchange(first.now(), text("AB")).payload);
    EXPECT_EQ(text("AB"), client.exchange(first.later(), text("AB")).payload);
    EXPECT_EQ(KYP_ERR_ROUTE_NOT_REGISTERED, client.exchange(kOtherPort, text("AB")).status);
    EXPECT_EQ(0, client.publish("to-motor", text("still there")));
    EXPECT_TRUE(eventually(
        [&] { return subscriber.message_count("from-motor", text("still there")) == 1; }, kLong));
}

TEST(ComponentRoadTest, AComponentThatDiesLeavesACodeAndItsNameAndPortsToTheNext) {
    ServerProcess server;
    auto dying = std::make_unique<RoadComponent>("motor", kPort);
    KypClient client(KypClient::TCP);
    hold(client, *dying);
    std::vector<std::thread> patient;
    for (auto transport : kTransports) {
        patient.emplace_back([transport] {
            KypClient waiting(transport);
            EXPECT_EQ(KYP_ERR_COMPONENT_OFFLINE,
                      waiting.exchange(kPort + 1, text("AB"), 0, 0, kLong).status);
        });
    }
    ASSERT_TRUE(dying->has_seen(3, 0));

    dying.reset();

    for (std::thread& each : patient) each.join();
    EXPECT_EQ(KYP_ERR_COMPONENT_OFFLINE, client.exchange(kPort, text("AB")).status);
    RoadComponent heir("drive", kPort);
    EXPECT_THAT(heir.process().output(), HasSubstr("ready: 0x0"));
    EXPECT_EQ(text("AB"), client.exchange(kPort, text("AB")).payload);
    RoadComponent again("motor", kOtherPort);
    EXPECT_THAT(again.process().output(), HasSubstr("ready: 0x0"));
    EXPECT_EQ(text("AB"), client.exchange(kOtherPort, text("AB")).payload);
}

// ---- a component that does not read

TEST(ComponentRoadTest, AComponentThatStandsStillHoldsUpNobodyElseAndGoesOn) {
    constexpr uint32_t kMessages = 100;
    ServerProcess server({"--max-component-bytes=1mb"});
    RoadComponent deaf("deaf", kPort);
    RoadComponent other("drive", kOtherPort);
    KypClient client(KypClient::TCP);
    KypClient bystander(KypClient::UNIX);
    ASSERT_EQ(0, bystander.subscribe("to-deaf"));
    ASSERT_TRUE(bystander.wait_until_subscribed("to-deaf", client));
    ASSERT_EQ(0, client.exchange(deaf.now(), text("AB")).status);
    Bytes const big = pattern(300 << 10);
    deaf.process().signal(SIGSTOP);

    // Calls that it is still to take are not answered; the others are, and at once.
    EXPECT_TRUE(eventually(
        [&] {
            auto const patience = std::chrono::milliseconds(300);
            return client.exchange(deaf.now(), big, 0, 0, patience).status == KYP_ERR_SEND;
        },
        kLong));
    for (KypClient* each : {&client, &bystander}) {
        EXPECT_EQ(KYP_ERR_SEND, each->exchange(deaf.later(), big, 0, 0, kLong).status);
    }

    for (uint32_t i = 0; i < kMessages; ++i) {
        ASSERT_EQ(0, client.publish("to-deaf", Bytes(1000), i));
        EXPECT_EQ(0, client.exchange(other.now(), text("AB")).status);
        EXPECT_EQ(0, bystander.exchange(other.later(), text("AB")).status);
    }
    EXPECT_TRUE(bystander.wait_for_messages(kMessages, kLong));
    EXPECT_EQ(counted(kMessages), numbers(bystander, "to-deaf"));
    EXPECT_EQ(KYP_ERR_SEND, client.exchange(deaf.now(), big, 0, 0, kLong).status);

    deaf.process().signal(SIGCONT);

    for (KypClient* each : {&client, &bystander}) {
        EXPECT_TRUE(each->exchange_again(deaf.now(), big, kLong));
        EXPECT_TRUE(each->exchange_again(deaf.later(), big, kLong));
    }
    EXPECT_TRUE(wait_until_it_hears("deaf", client, bystander));
}

}  // namespace
