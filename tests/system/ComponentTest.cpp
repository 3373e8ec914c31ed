// kypserver as a process of its own, components of raw bytes and clients on both sides of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>

#include "kypcomm/KypStatus.h"
#include "support/Eventually.h"
#include "support/FakeComponent.h"
#include "support/KypClient.h"
#include "support/RawPeer.h"
#include "support/ServerProcess.h"

namespace {

using testing::HasSubstr;

constexpr uint16_t kPort = 600;
constexpr std::chrono::milliseconds kNothing{300};  // that nothing comes is seen by waiting so long

Bytes repeated(Bytes const& frame, size_t count) {
    Bytes all;
    for (size_t i = 0; i < count; ++i) all.insert(all.end(), frame.begin(), frame.end());
    return all;
}

// Answers every request with its own payload until it is told to stop or its channel ends.
class EchoComponent {
public:
    EchoComponent(std::string const& name, uint16_t port) : m_component(name) {
        EXPECT_TRUE(m_component.serve(port));
        m_thread = std::thread([this] { run(); });
    }
    ~EchoComponent() {
        m_component.peer().shut_writing();
        m_thread.join();
    }

    int leaves() const { return m_leaves; }
    std::set<uint16_t> clients() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_clients;
    }

private:
    void run() {
        for (;;) {
            Forwarded const request = m_component.receive(std::chrono::seconds(60));
            if (!request.whole) return;
            if (request.event == 1) {
                ++m_leaves;
                continue;
            }
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_clients.insert(request.client);
            }
            if (!m_component.answer(request, request.payload)) return;
        }
    }

    FakeComponent m_component;
    std::mutex m_mutex;  // guards m_clients
    std::set<uint16_t> m_clients;
    std::atomic<int> m_leaves{0};
    std::thread m_thread;
};

class ComponentTest : public testing::TestWithParam<KypClient::Transport> {
protected:
    RawPeer connect_raw() {
        return GetParam() == KypClient::TCP ? RawPeer::connect_tcp(9999)
                                            : RawPeer::connect_unix(kServerPath);
    }

    // The status of an answer, or nothing when none comes.
    static uint32_t status_of(Bytes const& frame) {
        FrameParts const parts = take_apart(frame);
        return parts.whole ? parts.error : 0xffffffff;
    }

    static uint32_t ask(RawPeer& peer, uint16_t port, uint32_t invokeId = 7) {
        peer.send(request_frame(port, 9, invokeId, 0, 0, text("AB")));
        return status_of(peer.receive_frame());
    }
};

INSTANTIATE_TEST_SUITE_P(Transports, ComponentTest,
                         testing::Values(KypClient::TCP, KypClient::UNIX),
                         [](auto const& transport) {
                             return transport.param == KypClient::TCP ? "Tcp" : "Unix";
                         });

TEST_P(ComponentTest, ServesAClientOfTheLibrary) {
    ServerProcess server;
    EchoComponent component("motor", kPort);
    KypClient client(GetParam());

    for (size_t size : {0u, 2u, 1000u, 70000u, 5u << 20}) {
        SCOPED_TRACE(size);
        KypClient::Answer const answer = client.exchange(kPort, pattern(size), 0x10, 0x20);
        EXPECT_EQ(0, answer.status);
        EXPECT_TRUE(pattern(size) == answer.payload);
    }
}

TEST_P(ComponentTest, BringsARequestAndItsAnswerByteForByte) {
    ServerProcess server;
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer client = connect_raw();

    client.send(request_frame(kPort, 4, 0x01020304, 0x11223344, 0x55667788, text("AB")));
    EXPECT_EQ(hex(forward_frame(kPort, 4, 0x01020304, 1, text("AB"), 0, 0x11223344, 0x55667788)),
              hex(motor.peer().receive_frame()));
    motor.peer().send(answer_frame(kPort, 4, 0x01020304, 1, text("CD"), 0x2004));
    EXPECT_EQ(hex(response_frame(kPort, 4, 0x01020304, text("CD"), 0x2004)),
              hex(client.receive_frame()));
}

TEST_P(ComponentTest, AnswersMayComeLaterAndInAnyOrder) {
    ServerProcess server;
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer first = connect_raw();
    RawPeer second = connect_raw();
    first.send(request_frame(kPort, 9, 1, 0, 0, text("1")));
    Forwarded const one = motor.receive();
    first.send(request_frame(kPort, 9, 2, 0, 0, text("2")));
    Forwarded const two = motor.receive();
    second.send(request_frame(kPort, 9, 1, 0, 0, text("3")));
    Forwarded const three = motor.receive();
    ASSERT_TRUE(one.whole && two.whole && three.whole);

    motor.answer(three, text("III"));
    motor.answer(two, text("II"));
    EXPECT_EQ(hex(response_frame(kPort, 9, 1, text("III"))), hex(second.receive_frame()));
    EXPECT_EQ(hex(response_frame(kPort, 9, 2, text("II"))), hex(first.receive_frame()));
    motor.answer(one, text("I"));
    EXPECT_EQ(hex(response_frame(kPort, 9, 1, text("I"))), hex(first.receive_frame()));
}

TEST_P(ComponentTest, AComponentMaySendToAClientUnasked) {
    ServerProcess server;
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer client = connect_raw();
    client.send(request_frame(kPort, 9, 1, 0, 0));
    Forwarded const request = motor.receive();
    motor.answer(request);
    client.receive_frame();

    for (int i = 0; i < 3; ++i) {
        motor.peer().send(answer_frame(kPort, 8, 0, request.client, text("news")));
        EXPECT_EQ(hex(response_frame(kPort, 8, 0, text("news"))), hex(client.receive_frame()));
    }
}

TEST_P(ComponentTest, TellsEachComponentThatAClientHasGone) {
    ServerProcess server;
    FakeComponent motor("motor");
    FakeComponent drive("drive");
    FakeComponent idle("idle");
    ASSERT_TRUE(motor.serve(kPort));
    ASSERT_TRUE(drive.serve(700));
    ASSERT_TRUE(idle.serve(800));
    RawPeer client = connect_raw();
    client.send(request_frame(kPort, 9, 1, 0, 0));
    client.send(request_frame(700, 9, 2, 0, 0));
    uint16_t const number = motor.receive().client;
    EXPECT_EQ(number, drive.receive().client);

    client.close();

    for (FakeComponent* component : {&motor, &drive}) {
        Forwarded const leave = component->receive();
        ASSERT_TRUE(leave.whole);
        EXPECT_EQ(1u, leave.event);
        EXPECT_EQ(number, leave.client);
        EXPECT_TRUE(leave.payload.empty());
    }
    EXPECT_FALSE(idle.receive(kNothing).whole);
}

TEST_P(ComponentTest, APortIsServedFromItsRegistrationToTheEndOfItsChannel) {
    ServerProcess server;
    RawPeer client = connect_raw();
    EXPECT_EQ(KYP_ERR_ROUTE_NOT_REGISTERED, ask(client, kPort));
    {
        EchoComponent component("motor", kPort);
        EXPECT_EQ(KYP_OK, ask(client, kPort));
    }
    EXPECT_TRUE(eventually([&] { return ask(client, kPort) == KYP_ERR_COMPONENT_OFFLINE; }));
    EXPECT_EQ(KYP_ERR_ROUTE_NOT_REGISTERED, ask(client, 601));

    EchoComponent again("motor", kPort);
    EXPECT_EQ(KYP_OK, ask(client, kPort));
}

TEST_P(ComponentTest, WhoeverWaitsForAComponentHearsAtOnceThatItHasGone) {
    ServerProcess server;
    auto motor = std::make_unique<FakeComponent>("motor");
    ASSERT_TRUE(motor->serve(kPort));
    RawPeer client = connect_raw();
    client.send(request_frame(kPort, 9, 7, 0, 0));
    ASSERT_TRUE(motor->receive().whole);

    motor.reset();

    EXPECT_EQ(hex(response_frame(kPort, 9, 7, {}, KYP_ERR_COMPONENT_OFFLINE)),
              hex(client.receive_frame()));
}

TEST_P(ComponentTest, RequestsOfOneClientAndAnswersToItKeepTheirOrder) {
    constexpr uint32_t kRequests = 5000;
    ServerProcess server({"--workers=16"});
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer client = connect_raw();
    Bytes all;
    for (uint32_t i = 0; i < kRequests; ++i) {
        Bytes const frame = request_frame(kPort, 9, i, 0, 0);
        all.insert(all.end(), frame.begin(), frame.end());
    }
    std::thread sender([&] { EXPECT_TRUE(client.send(all)); });
    std::thread component([&] {
        Bytes answers;
        for (uint32_t i = 0; i < kRequests; ++i) {
            Forwarded const request = motor.receive();
            ASSERT_TRUE(request.whole);
            ASSERT_EQ(i, request.invokeId);
            Bytes const answer = answer_frame(kPort, 9, i, request.client);
            answers.insert(answers.end(), answer.begin(), answer.end());
        }
        EXPECT_TRUE(motor.peer().send(answers));
    });

    for (uint32_t i = 0; i < kRequests; ++i) {
        FrameParts const answer = take_apart(client.receive_frame());
        EXPECT_TRUE(answer.whole && answer.invokeId == i) << i;
        if (!answer.whole || answer.invokeId != i) break;
    }
    sender.join();
    component.join();
}

TEST_P(ComponentTest, TopicsGoBothWays) {
    ServerProcess server;
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    KypClient client(GetParam());
    ASSERT_EQ(0, client.subscribe("speed"));
    ASSERT_TRUE(client.wait_until_subscribed("speed", client));
    ASSERT_TRUE(motor.peer().send(subscribe_frame(1, "limits")));

    ASSERT_TRUE(motor.peer().send(publish_frame(2, "speed", text("21"), 3, 4)));
    ASSERT_TRUE(client.wait_for_messages(1));
    EXPECT_EQ(text("21"), client.messages().front().data);

    // What the component has sent before has been served by now.
    ASSERT_EQ(0, client.publish("limits", text("99"), 5, 6));
    FrameParts const frame = take_apart(motor.peer().receive_frame());
    EXPECT_EQ(8, frame.cmd);
    EXPECT_EQ(hex(pubsub_body("pub", "limits", text("99"), 5, 6)), hex(frame.rest));
}

TEST_P(ComponentTest, RefusesWhatAComponentCouldNotTake) {
    ServerProcess server;
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer client = connect_raw();

    ASSERT_TRUE(client.send(request_frame(kPort, 9, 7, 0, 0, Bytes(0x5fffff - 33))));
    EXPECT_EQ(hex(response_frame(kPort, 9, 7, {}, KYP_ERR_PACKET_TOO_LONG)),
              hex(client.receive_frame()));
    ASSERT_TRUE(client.send(request_frame(kPort, 9, 8, 0, 0, Bytes(0x5fffff - 34))));
    EXPECT_EQ(0x5fffffu + 8, motor.peer().receive_frame().size());
}

TEST_P(ComponentTest, AComponentThatDoesNotReadHoldsNobodyUp) {
    ServerProcess server({"--max-component-bytes=1mb"});
    FakeComponent deaf("deaf");
    ASSERT_TRUE(deaf.serve(kPort));
    EchoComponent quick("quick", 700);
    RawPeer victim = connect_raw();
    RawPeer bystander = connect_raw();
    Bytes const big = request_frame(kPort, 9, 7, 0, 0, pattern(256 << 10));
    auto const is_refused = [&big](RawPeer& client) {
        client.send(big);
        return client.waiting() > 0 &&
               client.receive_frame() == response_frame(kPort, 9, 7, {}, KYP_ERR_SEND);
    };

    EXPECT_TRUE(eventually([&] { return is_refused(victim); }));

    EXPECT_EQ(KYP_OK, ask(bystander, 700));
    EXPECT_TRUE(eventually([&] { return is_refused(bystander); }));
    EXPECT_TRUE(server.process().wait_for_output("component deaf reads too slowly"));
}

TEST_P(ComponentTest, AClientThatDoesNotReadItsAnswersLosesItsConnectionAlone) {
    ServerProcess server({"--max-held-bytes=4mb"});
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer deaf = connect_raw();
    RawPeer other = connect_raw();
    deaf.send(request_frame(kPort, 9, 7, 0, 0));
    Forwarded const request = motor.receive();
    ASSERT_TRUE(request.whole);
    Bytes const news = answer_frame(kPort, 8, 0, request.client, pattern(64 << 10));

    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(motor.peer().send(news));

    EXPECT_TRUE(deaf.drain_until_closed());
    EXPECT_TRUE(server.process().wait_for_output("as many answers unread as may be"));
    EXPECT_EQ(1u, motor.receive().event);
    other.send(request_frame(kPort, 9, 8, 0, 0));
    EXPECT_TRUE(motor.answer(motor.receive()));
    EXPECT_EQ(0u, status_of(other.receive_frame()));
}

TEST_P(ComponentTest, FiveHundredClientsCallOneComponent) {
    constexpr size_t kClients = 500;
    constexpr uint32_t kRounds = 4;
    ServerProcess server;
    EchoComponent component("motor", kPort);
    std::vector<RawPeer> clients;
    for (size_t i = 0; i < kClients; ++i) clients.push_back(connect_raw());

    for (uint32_t round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < kClients; ++i) {
            Bytes const payload = text(std::to_string(i) + "/" + std::to_string(round));
            ASSERT_TRUE(clients[i].send(request_frame(kPort, 9, round, 0, 0, payload)));
        }
        for (size_t i = 0; i < kClients; ++i) {
            Bytes const payload = text(std::to_string(i) + "/" + std::to_string(round));
            ASSERT_EQ(hex(response_frame(kPort, 9, round, payload)),
                      hex(clients[i].receive_frame()));
        }
    }

    EXPECT_EQ(kClients, component.clients().size());
    clients.clear();
    EXPECT_TRUE(eventually([&] { return component.leaves() == static_cast<int>(kClients); }));
}

TEST_P(ComponentTest, WhoeverIsNoComponentMayNotAnswer) {
    ServerProcess server;
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer client = connect_raw();
    client.send(request_frame(kPort, 9, 7, 0, 0));
    Forwarded const request = motor.receive();
    ASSERT_TRUE(request.whole);

    RawPeer liar = connect_raw();
    liar.send(answer_frame(kPort, 9, 7, request.client, text("lie")));
    EXPECT_TRUE(liar.expect_closed());

    motor.answer(request, text("truth"));
    EXPECT_EQ(hex(response_frame(kPort, 9, 7, text("truth"))), hex(client.receive_frame()));
    EXPECT_TRUE(server.process().wait_for_output("and is no component"));
}

TEST_P(ComponentTest, AnotherComponentMayNotAnswerInItsPlace) {
    ServerProcess server;
    FakeComponent motor("motor");
    FakeComponent liar("liar");
    ASSERT_TRUE(motor.serve(kPort));
    ASSERT_TRUE(liar.serve(700));
    RawPeer client = connect_raw();
    client.send(request_frame(kPort, 9, 7, 0, 0));
    Forwarded const request = motor.receive();
    ASSERT_TRUE(request.whole);

    liar.answer(request, text("lie"));
    ASSERT_TRUE(server.process().wait_for_output("has never called it"));

    motor.answer(request, text("truth"));
    EXPECT_EQ(hex(response_frame(kPort, 9, 7, text("truth"))), hex(client.receive_frame()));
    EXPECT_EQ(0x4003u, FakeComponent("liar").enter());
}

// Which of the peers a bad frame comes from.
struct BadComponentFrame {
    char const* what;
    Bytes data;
};

std::vector<BadComponentFrame> bad_component_frames() {
    Bytes const whole = registration_body(3, "bad", 900);
    Bytes lyingName = whole;
    lyingName[7] = 0xff;
    lyingName[8] = 0xff;
    return {
        {"a registration without a body", registration_frame(1, {})},
        {"a registration of one byte", registration_frame(1, {0})},
        {"a registration cut in its port",
         registration_frame(1, Bytes(whole.begin(), whole.end() - 1))},
        {"a registration with a byte too many", registration_frame(1, join({whole, {0}}))},
        {"a name that reaches outside", registration_frame(1, lyingName)},
        {"a name of 64 KiB", registration_frame(1, registration_body(1, std::string(65535, 'a')))},
        {"a name of zeros", registration_frame(1, registration_body(1, std::string(5, '\0')))},
        {"a port of nobody's", registration_frame(1, whole)},
        {"a command of nobody's", registration_frame(1, registration_body(77, "bad"))},
        {"a registration too short for its heads", join({kyp_head(102, 3), Bytes(3)})},
        {"a registration that is a publication",
         request_frame(102, 8, 1, 0, 0, registration_body(1, "bad"))},
        {"a reply to no registration", response_frame(102, 9, 1, whole)},
        {"an answer of no component", answer_frame(kPort, 9, 1, 1, text("x"))},
        {"an answer without its forward head", response_frame(kPort, 9, 1, text("x"))},
        {"an answer on a reserved port", answer_frame(200, 9, 1, 1, text("x"))},
        {"a request too short for its heads", join({kyp_head(kPort, 1), bytes("00")})},
        {"a request without an address", join({kyp_head(kPort, 13), aoe_head(0, 1, 9, 0)})},
        {"a state that nobody knows",
         join({kyp_head(kPort, 21), aoe_head(0, 1, 9, 77), address_head(0, 0)})},
    };
}

TEST_P(ComponentTest, NobodyElseNoticesWhatABadPeerSends) {
    ServerProcess server;
    EchoComponent component("motor", kPort);
    RawPeer bystander = connect_raw();
    for (BadComponentFrame const& row : bad_component_frames()) {
        SCOPED_TRACE(row.what);
        RawPeer orderly = connect_raw();
        RawPeer hasty = connect_raw();
        orderly.send(row.data);
        hasty.send(row.data);
        hasty.close();
        orderly.shut_writing();

        EXPECT_TRUE(orderly.drain_until_closed());
        EXPECT_EQ(KYP_OK, ask(bystander, kPort));
    }
}

// ---- what only a local peer can do

class ComponentChannelTest : public ComponentTest {};

INSTANTIATE_TEST_SUITE_P(Local, ComponentChannelTest, testing::Values(KypClient::UNIX),
                         [](auto const& /*transport*/) { return "Unix"; });

TEST_P(ComponentChannelTest, NobodyElseNoticesWhatABadComponentSends) {
    ServerProcess server;
    EchoComponent component("motor", kPort);
    RawPeer bystander = connect_raw();
    ASSERT_EQ(KYP_OK, ask(bystander, kPort));
    for (BadComponentFrame const& row : bad_component_frames()) {
        SCOPED_TRACE(row.what);
        FakeComponent bad("bad");
        ASSERT_TRUE(bad.serve(700));
        bad.peer().send(row.data);
        bad.peer().shut_writing();

        EXPECT_TRUE(bad.peer().drain_until_closed());
        EXPECT_EQ(KYP_OK, ask(bystander, kPort));
    }
}

TEST_P(ComponentChannelTest, AnswersEachRegistrationWithItsVerdict) {
    ServerProcess server;
    FakeComponent motor("motor");

    EXPECT_EQ(0x4001u, motor.enter_port(kPort));
    EXPECT_EQ(0u, motor.enter());
    EXPECT_EQ(0u, motor.enter());
    EXPECT_EQ(0u, motor.enter_port(kPort));
    EXPECT_EQ(0u, motor.enter_port(kPort));
    EXPECT_EQ(0x1012u, motor.enter_port(500));
    EXPECT_EQ(0x1012u, motor.enter_port(4097));
    EXPECT_EQ(0x1018u, motor.enter(registration_body(1, "other")));
    EXPECT_EQ(0x4005u, FakeComponent("a b").enter());
    EXPECT_EQ(0x4005u, FakeComponent("").enter());
    EXPECT_EQ(0x4003u, FakeComponent("motor").enter());
    FakeComponent drive("drive-0_A");
    EXPECT_EQ(0u, drive.enter());
    EXPECT_EQ(0x1007u, drive.enter_port(kPort));
}

TEST_P(ComponentChannelTest, IsClosedToPeersFromTheNetwork) {
    ServerProcess server;
    RawPeer peer = RawPeer::connect_tcp(9999);

    peer.send(registration_frame(1, registration_body(1, "motor")));

    FrameParts const reply = take_apart(peer.receive_frame());
    EXPECT_EQ(static_cast<uint32_t>(KYP_ERR_PROTOCOL), reply.error);
    EXPECT_EQ(hex(registration_body(0x1001, "motor", 0, 0, 0, KYP_ERR_PROTOCOL)), hex(reply.rest));
    RawUdp udp;
    udp.send_to(38898, registration_frame(1, registration_body(1, "motor")));
    EXPECT_EQ(static_cast<uint32_t>(KYP_ERR_PROTOCOL), take_apart(udp.receive().data).error);
    EXPECT_EQ(0u, FakeComponent("motor").enter());
}

TEST_P(ComponentChannelTest, MayNotServeWhatTheServerServesItself) {
    ServerProcess server({"--receive-files", "--file-port=600", "--spool-dir=/var/tmp/kyp"});
    FakeComponent motor("motor");

    EXPECT_EQ(0u, motor.enter());
    EXPECT_EQ(0x1007u, motor.enter_port(600));
    EXPECT_EQ(0u, motor.enter_port(601));
}

// A component takes the next frame for the reply to its registration.
TEST_P(ComponentChannelTest, NothingComesBetweenARegistrationAndItsReply) {
    ServerProcess server({"--quiet-ms=3000"});
    FakeComponent motor("motor");
    ASSERT_EQ(0u, motor.enter());
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&stop] {
            RawPeer client = RawPeer::connect_tcp(9999);
            uint32_t invokeId = 0;
            client.send(subscribe_frame(1, "noise"));
            while (!stop) {
                client.send_without_waiting(request_frame(kPort, 9, ++invokeId, 0, 0));
                client.send_without_waiting(publish_frame(1, "noise", text("x")));
                client.receive(client.waiting());
                RawPeer passer_by = RawPeer::connect_tcp(9999);
                passer_by.send_without_waiting(request_frame(kPort, 9, 1, 0, 0));
            }
        });
    }

    motor.peer().send(subscribe_frame(1, "noise"));
    for (uint16_t port = kPort; port < kPort + 50; ++port) EXPECT_EQ(0u, motor.enter_port(port));

    EXPECT_TRUE(take_apart(motor.peer().receive_frame()).whole);
    stop = true;
    for (std::thread& caller : callers) caller.join();
}

TEST_P(ComponentChannelTest, AComponentThatDiedIsBackAtOnce) {
    ServerProcess server;
    RawPeer client = connect_raw();
    for (int i = 0; i < 50; ++i) {
        FakeComponent motor("motor");
        ASSERT_EQ(0u, motor.enter()) << i;
        ASSERT_EQ(0u, motor.enter_port(kPort)) << i;
    }
    EchoComponent last("motor", kPort);
    EXPECT_EQ(KYP_OK, ask(client, kPort));
}

TEST_P(ComponentChannelTest, OneComponentCallsAnother) {
    ServerProcess server;
    FakeComponent motor("motor");
    FakeComponent drive("drive");
    ASSERT_TRUE(motor.serve(kPort));
    ASSERT_TRUE(drive.serve(700));

    motor.peer().send(request_frame(700, 9, 5, 1, 2, text("AB")));
    Forwarded const request = drive.receive();
    EXPECT_EQ("AB", as_text(request.payload));
    drive.answer(request, text("CD"));

    EXPECT_EQ(hex(response_frame(700, 9, 5, text("CD"))), hex(motor.peer().receive_frame()));
    motor.peer().close();
    EXPECT_EQ(1u, drive.receive().event);
}

TEST_P(ComponentChannelTest, DatagramsReachAComponentToo) {
    ServerProcess server;
    EchoComponent component("motor", kPort);
    std::vector<std::thread> askers;
    for (int asker = 0; asker < 4; ++asker) {
        askers.emplace_back([asker] {
            RawUdp udp;
            for (uint32_t i = 0; i < 50; ++i) {
                Bytes const payload = text(std::to_string(asker) + "/" + std::to_string(i));
                udp.send_to(38898, request_frame(kPort, 9, i, 0, 0, payload));
                EXPECT_EQ(hex(response_frame(kPort, 9, i, payload)), hex(udp.receive().data));
            }
        });
    }
    for (std::thread& asker : askers) asker.join();

    EXPECT_EQ(1u, component.clients().size());
}

TEST_P(ComponentChannelTest, TheServerStopsWithCallsUnderWay) {
    auto server = std::make_unique<ServerProcess>();
    FakeComponent motor("motor");
    ASSERT_TRUE(motor.serve(kPort));
    RawPeer client = connect_raw();
    ASSERT_TRUE(client.send(repeated(request_frame(kPort, 9, 7, 0, 0, text("AB")), 100)));
    ASSERT_TRUE(motor.receive().whole);
    FakeComponent late("late");
    ASSERT_EQ(0u, late.enter());

    server.reset();

    EXPECT_TRUE(client.drain_until_closed());
    EXPECT_TRUE(motor.peer().drain_until_closed());
}

}  // namespace
