// kypserver as a process of its own, and clients of the C interface in this one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>

#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "support/BadFrames.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/KypClient.h"
#include "support/RawPeer.h"
#include "support/SecondHost.h"
#include "support/ServerProcess.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string text_of(_KypDeviceId const& id) {
    return hex(id.bytes, sizeof id.bytes);
}

long lines_with(std::string const& all, std::string const& part) {
    long count = 0;
    for (size_t at = 0; (at = all.find(part, at)) != std::string::npos; ++at) ++count;
    return count;
}

// A subscriber of raw bytes, whose subscription is in force when this returns.
RawPeer subscribe_raw(RawPeer peer, std::string const& topic, KypClient& publisher) {
    peer.send(subscribe_frame(1, topic));
    eventually([&] { return publisher.publish(topic, text("first")) == 0 && peer.waiting() > 0; });
    return peer;
}

class ServerTest : public testing::TestWithParam<KypClient::Transport> {
protected:
    RawPeer connect_raw() {
        return GetParam() == KypClient::TCP ? RawPeer::connect_tcp(9999)
                                            : RawPeer::connect_unix("/var/tmp/kyp/kypserver");
    }

    KypClient::Transport other_transport() {
        return GetParam() == KypClient::TCP ? KypClient::UNIX : KypClient::TCP;
    }
};

INSTANTIATE_TEST_SUITE_P(Transports, ServerTest, testing::Values(KypClient::TCP, KypClient::UNIX),
                         [](auto const& transport) {
                             return transport.param == KypClient::TCP ? "Tcp" : "Unix";
                         });

TEST_P(ServerTest, EchoesPayloadsOfAnySize) {
    ServerProcess server;
    KypClient client(GetParam());

    for (size_t size : {0u, 32u, 1024u, 8192u, 5u << 20}) {
        SCOPED_TRACE(size);
        KypClient::Answer const answer = client.exchange(kPortEcho, pattern(size));
        EXPECT_EQ(0, answer.status);
        EXPECT_TRUE(pattern(size) == answer.payload);
    }
}

TEST_P(ServerTest, SaysThatNobodyServesAPort) {
    ServerProcess server;
    KypClient client(GetParam());

    for (uint16_t port : {1, 99, 105, 500, 501, 600, 4096}) {
        SCOPED_TRACE(port);
        EXPECT_EQ(KYP_ERR_ROUTE_NOT_REGISTERED, client.exchange(port, text("AB")).status);
    }
    EXPECT_EQ(text("AB"), client.exchange(kPortEcho, text("AB")).payload);
}

TEST_P(ServerTest, AnswersAPortOutOfRangeWithItsCode) {
    ServerProcess server;
    RawPeer peer = connect_raw();

    ASSERT_TRUE(peer.send(request_frame(5000, 9, 7, 0, 0, text("AB"))));
    EXPECT_EQ(
        "00 01 88 13 0D 00 00 00 "
        "00 00 10 14 00 00 00 07 00 09 00 00 01",
        hex(peer.receive_frame()));
    ASSERT_TRUE(peer.send(request_frame(0, 9, 8, 0, 0)));
    EXPECT_EQ(
        "00 01 00 00 0D 00 00 00 "
        "00 00 10 14 00 00 00 08 00 09 00 00 01",
        hex(peer.receive_frame()));
}

TEST_P(ServerTest, BringsAPublicationToTheOtherTransport) {
    ServerProcess server;
    KypClient publisher(GetParam());
    KypClient subscriber(other_transport());
    ASSERT_EQ(0, subscriber.subscribe("news"));
    ASSERT_TRUE(subscriber.wait_until_subscribed("news", publisher));

    EXPECT_EQ(0, publisher.publish("news", text("hello"), 0x11223344, 0x55667788));

    ASSERT_TRUE(subscriber.wait_for_messages(1));
    KypClient::Message const message = subscriber.messages().front();
    EXPECT_EQ("news", message.topic);
    EXPECT_EQ(text("hello"), message.data);
    EXPECT_EQ(0x11223344u, message.indexGroup);
    EXPECT_EQ(0x55667788u, message.indexOffset);
}

TEST_P(ServerTest, BringsAPublicationOfAnySizeToItsPublisherToo) {
    ServerProcess server;
    KypClient client(GetParam());
    ASSERT_EQ(0, client.subscribe("mine"));
    ASSERT_TRUE(client.wait_until_subscribed("mine", client));

    size_t count = 0;
    for (size_t size : {0u, 1u, 65536u, 5u << 20}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(0, client.publish("mine", pattern(size)));
        ASSERT_TRUE(client.wait_for_messages(++count));
        EXPECT_TRUE(pattern(size) == client.messages().back().data);
    }
}

TEST_P(ServerTest, DeliversTheBodyStraightBehindTheSecondHead) {
    ServerProcess server;
    KypClient publisher(other_transport());
    RawPeer subscriber = subscribe_raw(connect_raw(), "news", publisher);

    FrameParts const frame = take_apart(subscriber.receive_frame());

    ASSERT_TRUE(frame.whole);
    EXPECT_EQ(kPortPubSub, frame.port);
    EXPECT_EQ(1, frame.version);
    EXPECT_EQ(8, frame.cmd);
    EXPECT_EQ(0u, frame.error);
    EXPECT_EQ(hex(pubsub_body("pub", "news", text("first"))), hex(frame.rest));
}

TEST_P(ServerTest, KeepsTopicsApart) {
    ServerProcess server;
    KypClient publisher(GetParam());
    KypClient one(GetParam());
    KypClient two(other_transport());
    ASSERT_EQ(0, one.subscribe("one"));
    ASSERT_EQ(0, two.subscribe("two"));
    ASSERT_TRUE(one.wait_until_subscribed("one", publisher));
    ASSERT_TRUE(two.wait_until_subscribed("two", publisher));

    ASSERT_EQ(0, publisher.publish("one", text("1")));
    ASSERT_EQ(0, publisher.publish("two", text("2")));

    ASSERT_TRUE(one.wait_for_messages(1));
    ASSERT_TRUE(two.wait_for_messages(1));
    EXPECT_EQ("one", one.messages().front().topic);
    EXPECT_EQ("two", two.messages().front().topic);
}

TEST_P(ServerTest, StopsDeliveringAfterUnsubscribe) {
    ServerProcess server;
    KypClient client(GetParam());
    KypClient publisher(other_transport());
    ASSERT_EQ(0, client.subscribe("ends"));
    ASSERT_EQ(0, client.subscribe("stays"));
    ASSERT_TRUE(client.wait_until_subscribed("ends", publisher));
    ASSERT_TRUE(client.wait_until_subscribed("stays", publisher));
    RawPeer raw = subscribe_raw(connect_raw(), "ends", publisher);

    ASSERT_EQ(0, client.unsubscribe("ends"));
    ASSERT_TRUE(raw.send(unsubscribe_frame(2, "ends")));

    Bytes const late = text("nobody hears this");
    EXPECT_TRUE(eventually([&] {
        raw.receive(raw.waiting());
        size_t const before = client.message_count("ends", late);
        size_t const all = client.message_count();
        publisher.publish("ends", late);
        publisher.publish("stays", text("the client hears this"));
        return client.wait_for_messages(all + 1) && raw.waiting() == 0 &&
               client.message_count("ends", late) == before;
    }));
}

TEST_P(ServerTest, ServesItsClientsAgainAfterARestart) {
    auto server = std::make_unique<ServerProcess>();
    KypClient client(GetParam());
    KypClient publisher(other_transport());
    libkyp_reconnect_delay_set(client.handle(), 0);
    libkyp_reconnect_delay_set(publisher.handle(), 0);
    ASSERT_EQ(0, client.subscribe("news"));
    ASSERT_TRUE(client.wait_until_subscribed("news", publisher));
    ASSERT_EQ(0, client.exchange(kPortEcho, text("before")).status);

    server->kill();
    ASSERT_TRUE(eventually([&] {
        return client.exchange(kPortEcho, text("away"), 0, 0, std::chrono::milliseconds(300))
                   .status == KYP_ERR_DISCONNECTED;
    }));
    server = std::make_unique<ServerProcess>();

    EXPECT_TRUE(client.exchange_again(kPortEcho, text("after")));
    EXPECT_TRUE(client.wait_until_subscribed("news", publisher));
}

TEST_P(ServerTest, DropsWhatASlowSubscriberDoesNotTakeAndSaysSoOnce) {
    constexpr size_t kMessages = 48;
    // Room for two messages: a quick subscriber may have the last byte of one a moment before the
    // server has counted it as sent.
    ServerProcess server({"--max-waiting-bytes=2097152"});
    KypClient publisher(other_transport());
    KypClient quick(other_transport());
    ASSERT_EQ(0, quick.subscribe("much"));
    ASSERT_TRUE(quick.wait_until_subscribed("much", publisher));
    RawPeer slow = subscribe_raw(connect_raw(), "much", publisher);

    Bytes const big = pattern(512 * 1024);  // 24 MiB in all, more than kernel buffers take
    for (size_t i = 1; i <= kMessages; ++i) {
        ASSERT_EQ(0, publisher.publish("much", big));
        ASSERT_TRUE(eventually([&] { return quick.message_count("much", big) == i; }));
    }

    EXPECT_EQ(1, lines_with(server.process().errors(), "slow")) << server.process().errors();
    size_t taken = 0;
    Bytes data;
    do {
        ASSERT_EQ(0, publisher.publish("much", text("last")));
        FrameParts const frame = take_apart(slow.receive_frame());
        ASSERT_TRUE(frame.whole);
        data = take_body_apart(frame.rest).data;
        if (data == big) ++taken;
    } while (data != text("last"));
    EXPECT_GT(taken, 0u);
    EXPECT_LT(taken, kMessages);
}

TEST_P(ServerTest, LetsNobodyElseNoticeWhatABadPeerDoes) {
    ServerProcess server;
    KypClient bystander(other_transport());

    for (BadFrame const& row : bad_frames()) {
        SCOPED_TRACE(row.what);
        RawPeer orderly = connect_raw();
        RawPeer hasty = connect_raw();
        orderly.send(row.data);
        hasty.send(row.data);
        hasty.reset();
        orderly.shut_writing();
        EXPECT_TRUE(orderly.drain_until_closed());
        EXPECT_EQ(text("still here"), bystander.exchange(kPortEcho, text("still here")).payload);
    }
}

TEST_P(ServerTest, StopsCleanlyWithClientsAtWork) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        ServerProcess server;
        KypClient client(GetParam());
        KypClient subscriber(GetParam());
        RawPeer busy = connect_raw();
        ASSERT_EQ(0, subscriber.subscribe("news"));
        ASSERT_EQ(0, client.exchange(kPortEcho, text("AB")).status);
        busy.send_without_waiting(request_frame(kPortEcho, 9, 1, 0, 0, pattern(5 << 20)));

        server.stop(sig);

        EXPECT_TRUE(busy.drain_until_closed());
        EXPECT_FALSE(std::filesystem::exists("/var/tmp/kyp/kypserver"));
    }
}

// ---- identity

class ServerIdentityTest : public testing::Test {
protected:
    void SetUp() override {
        libkyp_init();
        ASSERT_TRUE(m_cable.ready());
    }

    SecondHost m_cable;  // gives this machine an address to make its id of

    _KypDeviceId remote_id() {
        _KypDeviceId id{};
        EXPECT_EQ(0, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &id));
        return id;
    }

    int assign(char const* id) { return libkyp_setRemoteKypDeviceId("127.0.0.1", id, 20000); }
};

TEST_F(ServerIdentityTest, TellsItsIdOverUdpAgainAndAgain) {
    ServerProcess server;
    _KypDeviceId const id = remote_id();

    EXPECT_NE(text_of(_KypDeviceId{}), text_of(id));
    for (int i = 0; i < 10; ++i) EXPECT_EQ(text_of(id), text_of(remote_id()));
}

TEST_F(ServerIdentityTest, IsReachedByTheIdThatItTold) {
    ServerProcess server;
    KypClient client(KypClient::TCP, remote_id());

    EXPECT_EQ(text("found"), client.exchange(kPortEcho, text("found")).payload);
}

TEST_F(ServerIdentityTest, ServesAClientOnAnotherHost) {
    ServerProcess server;

    m_cable.run([] {
        _KypDeviceId id{};
        ASSERT_EQ(0, libkyp_getRemoteKypDeviceId(SecondHost::kHere, 20000, &id));
        KypClient client(KypClient::TCP, id);
        EXPECT_EQ(text("from afar"), client.exchange(kPortEcho, text("from afar")).payload);
    });
}

TEST_F(ServerIdentityTest, RefusesAnotherIdUnlessToldOtherwise) {
    ServerProcess server;
    _KypDeviceId const before = remote_id();

    EXPECT_NE(0, assign("1.2.3.4.5.6"));
    EXPECT_EQ(text_of(before), text_of(remote_id()));
}

TEST_F(ServerIdentityTest, TakesAnotherIdWhenAllowedAndKeepsItOverARestart) {
    auto server = std::make_unique<ServerProcess>(std::vector<std::string>{"--allow-set-id"});

    EXPECT_EQ(0, assign("1.2.3.4.5.6"));
    EXPECT_EQ("01 02 03 04 05 06", text_of(remote_id()));
    server.reset();
    ServerProcess again;
    EXPECT_EQ("01 02 03 04 05 06", text_of(remote_id()));
}

TEST_F(ServerIdentityTest, AnswersAgainAfterBadDatagrams) {
    ServerProcess server;
    RawUdp peer;
    for (BadFrame const& row : bad_frames()) {
        if (row.data.size() < 60000) peer.send_to(38898, row.data);
    }
    peer.send_to(38898, pattern(60000));

    EXPECT_NE(text_of(_KypDeviceId{}), text_of(remote_id()));
}

// ---- the program

struct Refusal {
    std::vector<std::string> command;
    std::string says;  // the cause, in the one line that comes
};

// Expects the program to end at once with one line that names the cause, and not to say ready.
void expect_refusal(Refusal const& refusal, ChildProcess::Rights rights) {
    std::vector<std::string> command = {"kypserver"};
    command.insert(command.end(), refusal.command.begin(), refusal.command.end());
    ChildProcess server(command, rights);

    int const code = server.wait_exit();
    EXPECT_GT(code, 0);
    EXPECT_LT(code, 128);
    EXPECT_EQ(1, lines_with(server.errors(), "\n")) << server.errors();
    EXPECT_THAT(server.errors(), HasSubstr(refusal.says));
    EXPECT_THAT(server.output(), Not(HasSubstr("kypserver ready")));
}

TEST(ServerProgramTest, NamesAPortThatIsTaken) {
    RawListener other = RawListener::tcp(9999);
    expect_refusal({{}, "9999"}, ChildProcess::ALL_RIGHTS);
}

TEST(ServerProgramTest, NamesADatagramPortThatIsTaken) {
    RawUdp other(38898);
    expect_refusal({{}, "38898"}, ChildProcess::ALL_RIGHTS);
}

TEST(ServerProgramTest, NamesADirectoryThatCannotBeMade) {
    expect_refusal({{"--domain-path=/proc/none/socket"}, "/proc/none"}, ChildProcess::ALL_RIGHTS);
}

TEST(ServerProgramTest, NamesAPathThatIsNotItsOwn) {
    std::ofstream("/var/tmp/kyp/kypserver") << "somebody's";
    expect_refusal({{}, "/var/tmp/kyp/kypserver"}, ChildProcess::ALL_RIGHTS);
}

TEST(ServerProgramTest, RefusesToRunBesideAnotherServer) {
    ServerProcess first;
    expect_refusal({{}, "kypserver"}, ChildProcess::ALL_RIGHTS);

    KypClient client(KypClient::UNIX);
    EXPECT_EQ(text("AB"), client.exchange(kPortEcho, text("AB")).payload);
}

TEST(ServerProgramTest, TakesAPathThatADeadServerLeft) {
    ServerProcess first;
    first.kill();

    ServerProcess second;
    KypClient client(KypClient::UNIX);
    EXPECT_EQ(text("AB"), client.exchange(kPortEcho, text("AB")).payload);
}

TEST(ServerProgramTest, NamesADirectoryThatItMayNotUse) {
    std::filesystem::create_directory("/var/tmp/kyp/locked");
    chmod("/var/tmp/kyp/locked", 0555);
    expect_refusal({{"--domain-path=/var/tmp/kyp/locked/socket"}, "/var/tmp/kyp/locked"},
                   ChildProcess::WITHOUT_CAPABILITIES);
}

TEST(ServerProgramTest, NamesAPortThatItMayNotUse) {
    expect_refusal({{"--tcp-address=:80"}, "80"}, ChildProcess::WITHOUT_CAPABILITIES);
}

TEST(ServerProgramTest, NamesAnAddressThatIsNotOfThisMachine) {
    expect_refusal({{"--tcp-address=192.0.2.1"}, "192.0.2.1"}, ChildProcess::ALL_RIGHTS);
}

TEST(ServerProgramTest, RefusesAnOptionThatItDoesNotKnow) {
    ChildProcess server({"kypserver", "--no-such-option"});

    EXPECT_GT(server.wait_exit(), 0);
    EXPECT_THAT(server.errors(), HasSubstr("--no-such-option"));
}

TEST(ServerProgramTest, TellsItsOptions) {
    ChildProcess server({"kypserver", "--help"});

    EXPECT_EQ(0, server.wait_exit());
    for (char const* option : {"--tcp-address", "--domain-path", "--udp-address", "--workers",
                               "--loops", "--max-waiting-bytes", "--allow-set-id", "--version"}) {
        EXPECT_THAT(server.output(), HasSubstr(option));
    }
    EXPECT_EQ("", server.errors());
}

TEST(ServerProgramTest, TellsItsVersion) {
    ChildProcess server({"kypserver", "--version"});

    EXPECT_EQ(0, server.wait_exit());
    EXPECT_THAT(server.output(), HasSubstr("0.3.1"));
}

}  // namespace
