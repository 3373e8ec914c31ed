// The program itself, spoken to in raw bytes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/RawPeer.h"

namespace {

using testing::HasSubstr;

constexpr char const* kPath = "/var/tmp/kyp/kypserver";

class KypserverTest : public testing::Test {
protected:
    ChildProcess& start(std::vector<std::string> options = {}) {
        options.insert(options.begin(), "kypserver");
        m_server = std::make_unique<ChildProcess>(options);
        EXPECT_TRUE(m_server->wait_for_output("kypserver ready")) << m_server->all_output();
        return *m_server;
    }

    // A round trip: what was sent before on `peer` has been taken from it.
    static bool echoes(RawPeer& peer, std::string const& payload = "AB") {
        Bytes const expected = response_frame(100, 9, 3, text(payload));
        peer.send(request_frame(100, 9, 3, 0, 0, text(payload)));
        return peer.receive(expected.size()) == expected;
    }

    std::unique_ptr<ChildProcess> m_server;
};

TEST_F(KypserverTest, SaysWhatItServes) {
    EXPECT_EQ(
        "kypserver ready: tcp 0.0.0.0:9999, domain /var/tmp/kyp/kypserver, udp 0.0.0.0:38898\n",
        start().output());
}

TEST_F(KypserverTest, ServesOnlyWhatItIsToldTo) {
    start({"--no-tcp", "--no-udp", "--domain-path", "/tmp/kyp"});

    EXPECT_EQ("kypserver ready: domain /tmp/kyp\n", m_server->output());
    RawPeer peer = RawPeer::connect_unix("/tmp/kyp");
    EXPECT_TRUE(echoes(peer));
}

TEST_F(KypserverTest, MakesItsUsualDirectory) {
    rmdir("/var/tmp/kyp");
    start();

    RawPeer peer = RawPeer::connect_unix(kPath);
    EXPECT_TRUE(echoes(peer));
}

TEST_F(KypserverTest, TheLocalSocketIsForOwnerAndGroup) {
    start();

    struct stat status;
    ASSERT_EQ(0, stat(kPath, &status));
    EXPECT_EQ(mode_t{S_IFSOCK | 0660}, status.st_mode);
}

TEST_F(KypserverTest, ASecondServerLeavesTheFirstAlone) {
    start();
    RawPeer before = RawPeer::connect_unix(kPath);

    ChildProcess second({"kypserver"});
    EXPECT_EQ(1, second.wait_exit());
    ChildProcess third({"kypserver", "--no-domain"});
    EXPECT_EQ(1, third.wait_exit());

    EXPECT_THAT(second.errors(), HasSubstr("/var/tmp/kyp/kypserver is served by another program"));
    EXPECT_THAT(third.errors(), HasSubstr("TCP 0.0.0.0:9999 is taken by another program"));
    RawPeer after = RawPeer::connect_unix(kPath);
    EXPECT_TRUE(echoes(before));
    EXPECT_TRUE(echoes(after));
}

TEST_F(KypserverTest, OfTwoThatStartAtOnceOneServes) {
    std::vector<std::unique_ptr<ChildProcess>> servers;
    for (int i = 0; i < 4; ++i) {
        servers.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{"kypserver"}));
    }

    int ready = 0;
    for (auto const& server : servers) {
        if (server->wait_for_output("kypserver ready")) ++ready;
    }
    EXPECT_EQ(1, ready);
    RawPeer peer = RawPeer::connect_unix(kPath);
    EXPECT_TRUE(echoes(peer));
}

TEST_F(KypserverTest, StartsAgainAfterADeath) {
    start();
    m_server->signal(SIGKILL);
    m_server->wait_exit();

    start();

    RawPeer peer = RawPeer::connect_unix(kPath);
    EXPECT_TRUE(echoes(peer));
}

TEST_F(KypserverTest, StartsAgainAtOnceAfterAStopWithClients) {
    start();
    RawPeer peer = RawPeer::connect_tcp(9999);
    ASSERT_TRUE(echoes(peer));
    m_server->signal(SIGTERM);
    ASSERT_EQ(0, m_server->wait_exit());

    start();

    RawPeer again = RawPeer::connect_tcp(9999);
    EXPECT_TRUE(echoes(again));
}

TEST_F(KypserverTest, TurnsAwayWhoeverIsTooMany) {
    start({"--max-clients", "2"});
    RawPeer first = RawPeer::connect_tcp(9999);
    RawPeer second = RawPeer::connect_unix(kPath);
    ASSERT_TRUE(echoes(first));
    ASSERT_TRUE(echoes(second));

    RawPeer third = RawPeer::connect_tcp(9999);
    EXPECT_TRUE(third.expect_closed());
    EXPECT_TRUE(m_server->wait_for_output("a client is turned away"));

    EXPECT_TRUE(echoes(first));
    second.close();
    EXPECT_TRUE(eventually([] {
        RawPeer fourth = RawPeer::connect_tcp(9999);
        return echoes(fourth);
    }));
}

// For each kind of answer that a client can leave unread.
TEST_F(KypserverTest, EndsTheConnectionOfAClientThatDoesNotRead) {
    start({"--max-held-bytes", "4mb"});
    RawPeer bystander = RawPeer::connect_unix(kPath);
    struct Row {
        char const* what;
        uint16_t port;
        size_t size;
    };
    for (Row const& row : {Row{"large echoes", 100, 1 << 20}, Row{"small echoes", 100, 0},
                           Row{"refusals", 600, 0}, Row{"ports out of range", 5000, 0}}) {
        SCOPED_TRACE(row.what);
        // Not over TCP with small buffers: there the sending of a client that does not read can
        // come to rest on a busy machine before the bound is reached.
        RawPeer peer = RawPeer::connect_unix(kPath);
        Bytes frames = request_frame(row.port, 9, 3, 0, 0, pattern(row.size));
        while (frames.size() < 1 << 16) frames = join({frames, frames});

        for (size_t sent = 0; sent < size_t{64} << 20 && peer.send(frames);) sent += frames.size();

        EXPECT_TRUE(peer.drain_until_closed());
        EXPECT_TRUE(echoes(bystander));
    }
    EXPECT_TRUE(eventually([&] {
        std::string const said = m_server->errors();
        size_t count = 0;
        for (size_t at = 0; (at = said.find("--max-held-bytes", at)) != std::string::npos; ++at) {
            ++count;
        }
        return count == 4;
    })) << m_server->errors();
}

TEST_F(KypserverTest, AClientThatReadsMaySendWithoutEnd) {
    start({"--max-held-bytes", "64kb"});
    RawPeer peer = RawPeer::connect_unix(kPath);

    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(echoes(peer));
        peer.send(request_frame(5000, 9, 3, 0, 0, text("AB")));
        ASSERT_EQ(0x1014U, take_apart(peer.receive_frame()).error);
        peer.send(request_frame(600, 9, 3, 0, 0, text("AB")));
        ASSERT_EQ(0x1006U, take_apart(peer.receive_frame()).error);
        peer.send(request_frame(600, 8, 3, 0, 0, text("AB")));  // not answered
    }
}

TEST_F(KypserverTest, AnswersEveryDatagramToItsOwnSender) {
    start();
    std::vector<std::thread> askers;
    for (int asker = 0; asker < 8; ++asker) {
        askers.emplace_back([asker] {
            RawUdp udp;
            for (uint32_t i = 0; i < 50; ++i) {
                Bytes const payload = text(std::to_string(asker) + "/" + std::to_string(i));
                udp.send_to(38898, request_frame(100, 9, i, 0, 0, payload));
                EXPECT_EQ(hex(response_frame(100, 9, i, payload)), hex(udp.receive().data));
            }
        });
    }
    for (std::thread& asker : askers) asker.join();
}

TEST_F(KypserverTest, ADatagramMayPublishButNotSubscribe) {
    start();
    RawPeer subscriber = RawPeer::connect_tcp(9999);
    subscriber.send(subscribe_frame(1, "a"));
    ASSERT_TRUE(echoes(subscriber));
    RawUdp udp;

    udp.send_to(38898, subscribe_frame(1, "a"));
    ASSERT_TRUE(m_server->wait_for_output("it did not come on an open connection"));
    udp.send_to(38898, publish_frame(2, "a", text("x"), 5, 6));

    EXPECT_EQ(hex(delivery_frame(0, "a", text("x"), 5, 6)), hex(subscriber.receive_frame()));
}

TEST_F(KypserverTest, ASubscriberHearsEachPublisherInItsOrder) {
    constexpr uint32_t kMessages = 3000;
    start({"--workers", "16", "--max-waiting-bytes", "64mb"});
    RawPeer subscriber = RawPeer::connect_tcp(9999);
    subscriber.send(subscribe_frame(1, "a"));
    ASSERT_TRUE(echoes(subscriber));
    // Open until all has arrived: what waits at the end of a connection is dropped with it.
    std::vector<RawPeer> publishers;
    std::vector<std::thread> senders;
    publishers.push_back(RawPeer::connect_unix(kPath));
    for (int i = 0; i < 2; ++i) publishers.push_back(RawPeer::connect_tcp(9999));
    for (uint32_t who = 0; who < 3; ++who) {
        senders.emplace_back([&publishers, who] {
            Bytes all;
            for (uint32_t i = 0; i < kMessages; ++i) {
                Bytes const frame = publish_frame(i, "a", {}, who, i);
                all.insert(all.end(), frame.begin(), frame.end());
            }
            EXPECT_TRUE(publishers[who].send(all));
        });
    }

    uint32_t expected[3] = {};
    for (uint32_t i = 0; i < 3 * kMessages; ++i) {
        PubSubParts const body = take_body_apart(take_apart(subscriber.receive_frame()).rest);
        ASSERT_TRUE(body.whole);
        ASSERT_LT(body.indexGroup, 3U);
        ASSERT_EQ(expected[body.indexGroup]++, body.indexOffset);
    }
    for (std::thread& sender : senders) sender.join();
}

TEST_F(KypserverTest, SubscriptionsAndPublicationsOfOneConnectionKeepTheirOrder) {
    constexpr uint32_t kRounds = 500;
    start({"--workers", "16"});
    RawPeer peer = RawPeer::connect_unix(kPath);
    Bytes all;
    for (uint32_t i = 0; i < kRounds; ++i) {
        for (Bytes const& frame : {subscribe_frame(1, "a"), publish_frame(2, "a", {}, 1, i),
                                   unsubscribe_frame(3, "a"), publish_frame(4, "a", {}, 2, i)}) {
            all.insert(all.end(), frame.begin(), frame.end());
        }
    }
    std::thread sender([&] { EXPECT_TRUE(peer.send(all)); });

    for (uint32_t i = 0; i < kRounds; ++i) {
        PubSubParts const body = take_body_apart(take_apart(peer.receive_frame()).rest);
        ASSERT_TRUE(body.whole);
        ASSERT_EQ(1U, body.indexGroup);
        ASSERT_EQ(i, body.indexOffset);
    }
    sender.join();
    EXPECT_TRUE(echoes(peer));
}

TEST_F(KypserverTest, PublishesOnAfterASubscriberWasReset) {
    start();
    RawPeer stays = RawPeer::connect_tcp(9999);
    RawPeer leaves = RawPeer::connect_tcp(9999);
    for (RawPeer* peer : {&stays, &leaves}) {
        peer->send(subscribe_frame(1, "a"));
        ASSERT_TRUE(echoes(*peer));
    }
    RawPeer publisher = RawPeer::connect_tcp(9999);
    leaves.reset();

    for (int i = 0; i < 20; ++i) {
        publisher.send(publish_frame(2, "a", text("x")));
        ASSERT_EQ(hex(delivery_frame(0, "a", text("x"))), hex(stays.receive_frame()));
    }
}

TEST_F(KypserverTest, IsQuietUnlessAskedToTalk) {
    start();
    RawPeer peer = RawPeer::connect_tcp(9999);
    ASSERT_TRUE(echoes(peer));
    peer.close();
    RawPeer next = RawPeer::connect_tcp(9999);
    ASSERT_TRUE(echoes(next));
    EXPECT_THAT(m_server->output(), testing::Not(HasSubstr("libkyp")));
    m_server->signal(SIGTERM);
    m_server->wait_exit();

    start({"--verbose"});

    EXPECT_TRUE(m_server->wait_for_output("tcp server is running ip = 0.0.0.0, port = 9999"));
}

}  // namespace
