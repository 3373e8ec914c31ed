// The client engine against the server core, both in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <set>
#include <thread>

#include "kypclient/KypPeerConn.h"
#include "kypclient/KypTcpclient.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "support/BadFrames.h"
#include "support/CoreServer.h"
#include "support/Eventually.h"
#include "support/KypClient.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr uint16_t kGatePort = 600;
constexpr uint16_t kCountPort = 601;

// A door that workers wait at.
class Gate {
public:
    void wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_opened.wait(lock, [this] { return m_open; });
    }

    void open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_opened.notify_all();
    }

    int waiting() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_waiting;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_open = false;
    int m_waiting = 0;
};

CSockConnPool& records() {
    return utility::instance<CSockConnPool>();
}

int queued_messages() {
    pthread_mutex_lock(&CThreadPool::m_pthreadMutex);
    int const count = utility::instance<CThreadPool>().m_nQueueCount;
    pthread_mutex_unlock(&CThreadPool::m_pthreadMutex);
    return count;
}

class CoreTest : public testing::TestWithParam<KypClient::Transport> {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_server.listen_tcp());
        ASSERT_TRUE(m_server.listen_unix());
    }

    RawPeer connect_raw() {
        return GetParam() == KypClient::TCP ? RawPeer::connect_tcp(9999)
                                            : RawPeer::connect_unix("/var/tmp/kyp/kypserver");
    }

    // A client class without the C interface around it.
    std::unique_ptr<CTcpclient> connect_client() {
        libkyp_init();
        bool const isDomain = GetParam() == KypClient::UNIX;
        auto client = std::make_unique<CTcpclient>(
            _KypDeviceId{}, isDomain ? "" : "ip=127.0.0.1;port=9999", isDomain);
        EXPECT_EQ(1, client->connect(20000));
        client->start();
        return client;
    }

    // Waits until the server has closed every connection but `count`.
    bool wait_for_connections(size_t count) {
        return eventually([&] { return m_server.connections().size() == count; });
    }

    CoreServer m_server;
};

INSTANTIATE_TEST_SUITE_P(Transports, CoreTest, testing::Values(KypClient::TCP, KypClient::UNIX),
                         [](auto const& transport) {
                             return transport.param == KypClient::TCP ? "Tcp" : "Unix";
                         });

// One request of the blocking way, which takes the answer straight into `answer`.
int ask(CTcpclient& client, uint16_t port, Bytes const& payload, Bytes* answer) {
    uint32_t received = 0;
    answer->assign(payload.size() + 16, 0);
    int64_t const now =
        std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    KypRequest request{true,
                       Frame(static_cast<unsigned>(payload.size() + 29), nullptr),
                       _KypDeviceId{},
                       port,
                       KYP_CMD_READ_WRITE,
                       static_cast<uint32_t>(answer->size()),
                       answer->data(),
                       &received,
                       0,
                       now + 60'000'000'000};
    Bytes const address = address_head(1, 2);
    request.frame.prepend(payload.data(), static_cast<unsigned>(payload.size()));
    request.frame.prepend(address.data(), 8);
    int const result = client.AddKypRequest(&request);
    delete[] request.frame.rawData();
    answer->resize(std::min<size_t>(received, answer->size()));
    return result;
}

// The same, again and again while the slot of its id is held by a thread that has not run for 500
// ids. False on any other failure.
bool ask_until_sent(CTcpclient& client, uint16_t port, Bytes const& payload, Bytes* answer) {
    int result;
    do {
        result = ask(client, port, payload, answer);
    } while (result == -1 && client.isconnected());
    return result == 0;
}

TEST_P(CoreTest, EchoesPayloadsOfAnySize) {
    KypClient client(GetParam());

    for (size_t size : {0u, 1u, 32u, 1024u, 8192u, 65536u, 5u << 20}) {
        SCOPED_TRACE(size);
        KypClient::Answer const answer = client.exchange(kPortEcho, pattern(size));
        EXPECT_EQ(0, answer.status);
        // An answer without payload leaves the caller's port as it was.
        EXPECT_EQ(size == 0 ? 0 : kPortEcho, answer.port);
        EXPECT_TRUE(pattern(size) == answer.payload);
    }
}

TEST_P(CoreTest, KeepsAnsweringPastTheEndOfTheRing) {
    KypClient client(GetParam());

    for (uint32_t i = 0; i < 1100; ++i) {
        KypClient::Answer const answer = client.exchange(kPortEcho, u32_be(i));
        ASSERT_EQ(0, answer.status) << i;
        ASSERT_EQ(u32_be(i), answer.payload);
    }
}

TEST_P(CoreTest, KeepsAnsweringPastTheLargestInvokeId) {
    KypClient client(GetParam());
    auto* const connection = static_cast<IKypPeerConnection*>(client.handle());
    connection->m_invokeId = 0xfffffffe;

    for (uint32_t id : {0xfffffffeu, 0xffffffffu, 1u, 2u}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(u32_be(id), client.exchange(kPortEcho, u32_be(id)).payload);
        EXPECT_EQ(id, connection->m_lastInvokeId);
    }
}

TEST_P(CoreTest, GivesSixtyFourThreadsOnOneConnectionTheirOwnAnswers) {
    std::unique_ptr<CTcpclient> const client = connect_client();
    std::atomic<int> right{0};

    std::vector<std::thread> threads;
    for (uint32_t number = 0; number < 64; ++number) {
        threads.emplace_back([&, number] {
            for (uint32_t round = 0; round < 25; ++round) {
                Bytes const mine = join({u32_be(number), u32_be(round), pattern(number * 37)});
                Bytes answer;
                if (ask_until_sent(*client, kPortEcho, mine, &answer) && answer == mine) ++right;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(64 * 25, right);
}

TEST_P(CoreTest, LetsTheSplitWayRunBesideTheBlockingOne) {
    KypClient split(GetParam());
    std::unique_ptr<CTcpclient> const blocking = connect_client();
    std::atomic<bool> stop{false};
    std::thread other([&] {
        Bytes answer;
        while (!stop) EXPECT_TRUE(ask_until_sent(*blocking, kPortEcho, text("blocking"), &answer));
    });

    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(text("split"), split.exchange(kPortEcho, text("split")).payload);
    }
    stop = true;
    other.join();
}

TEST_P(CoreTest, HandsThePeersErrorToTheCaller) {
    m_server.serve(kCountPort, [](_msg_request const& request, uint16_t port, Bytes const& data) {
        CoreServer::answer(request, port, data, KYP_ERR_COMMAND);
    });
    KypClient client(GetParam());

    EXPECT_EQ(KYP_ERR_COMMAND, client.exchange(kCountPort, text("AB")).status);
}

TEST_P(CoreTest, HandsARouteTheWordsOfTheRequest) {
    m_server.serve(kCountPort, [](_msg_request const& request, uint16_t port, Bytes const& data) {
        Bytes const seen = join({{request.version},
                                 u16_be(request.cmd),
                                 u32_be(request.indexGroup),
                                 u32_be(request.indexOffset),
                                 u32_be(request.error),
                                 data});
        CoreServer::answer(request, port, seen);
    });
    KypClient client(GetParam());

    EXPECT_EQ("01 00 09 11 22 33 44 55 66 77 88 00 00 00 00 41",
              hex(client.exchange(kCountPort, text("A"), 0x11223344, 0x55667788).payload));
}

TEST_P(CoreTest, TakesAFrameInPiecesOfOneByte) {
    RawPeer peer = connect_raw();

    for (uint8_t byte : request_frame(kPortEcho, 9, 7, 0, 0, text("pieces"))) {
        ASSERT_TRUE(peer.send({byte}));
    }

    EXPECT_EQ(hex(response_frame(kPortEcho, 9, 7, text("pieces"))), hex(peer.receive_frame()));
}

TEST_P(CoreTest, TakesManyFramesInOnePiece) {
    RawPeer peer = connect_raw();
    Bytes all;
    std::vector<Bytes> expected, got;
    for (uint32_t id = 1; id <= 50; ++id) {
        all = join({all, request_frame(kPortEcho, 9, id, 0, 0, u32_be(id))});
        expected.push_back(response_frame(kPortEcho, 9, id, u32_be(id)));
    }

    ASSERT_TRUE(peer.send(all));

    for (uint32_t id = 1; id <= 50; ++id) got.push_back(peer.receive_frame());
    EXPECT_THAT(got, testing::UnorderedElementsAreArray(expected));
}

TEST_P(CoreTest, AnswersAPortOutOfRangeWithItsCode) {
    RawPeer peer = connect_raw();

    ASSERT_TRUE(peer.send(request_frame(5000, 9, 7, 0, 0, text("AB"))));

    EXPECT_EQ(
        "00 01 88 13 0D 00 00 00 "
        "00 00 10 14 00 00 00 07 00 09 00 00 01",
        hex(peer.receive_frame()));
}

TEST_P(CoreTest, KeepsSilentOnAPortThatNobodyServes) {
    RawPeer peer = connect_raw();

    ASSERT_TRUE(peer.send(request_frame(CoreServer::kUnservedPort, 9, 7, 0, 0, text("AB"))));
    ASSERT_TRUE(peer.send(request_frame(kPortEcho, 9, 8, 0, 0, text("CD"))));

    EXPECT_EQ(hex(response_frame(kPortEcho, 9, 8, text("CD"))), hex(peer.receive_frame()));
}

TEST_P(CoreTest, LetsNobodyElseNoticeWhatABadPeerDoes) {
    KypClient bystander(GetParam());

    for (BadFrame const& row : bad_frames()) {
        SCOPED_TRACE(row.what);
        RawPeer orderly = connect_raw();
        RawPeer hasty = connect_raw();
        // The server may close before it has read all of the noise.
        orderly.send(row.data);
        hasty.send(row.data);
        hasty.reset();
        orderly.shut_writing();
        EXPECT_TRUE(orderly.drain_until_closed());
        EXPECT_EQ(text("still here"), bystander.exchange(kPortEcho, text("still here")).payload);
    }
    EXPECT_TRUE(wait_for_connections(1));
}

TEST_P(CoreTest, ServesOthersWhileOnePeerDoesNotRead) {
    constexpr int kAnswers = 32;
    RawPeer slow = connect_raw();
    Bytes const big = pattern(512 * 1024);  // more in all than kernel buffers take
    for (uint32_t id = 1; id <= kAnswers; ++id) {
        ASSERT_TRUE(slow.send(request_frame(kPortEcho, 9, id, 0, 0, big)));
    }

    KypClient quick(GetParam());
    EXPECT_EQ(text("quick"), quick.exchange(kPortEcho, text("quick")).payload);

    std::set<uint32_t> ids;
    for (int i = 0; i < kAnswers; ++i) {
        FrameParts const answer = take_apart(slow.receive_frame());
        ASSERT_TRUE(answer.whole);
        EXPECT_TRUE(answer.rest == big);
        ids.insert(answer.invokeId);
    }
    EXPECT_EQ(static_cast<size_t>(kAnswers), ids.size());
}

TEST_P(CoreTest, DropsAMessageWhoseConnectionHasClosed) {
    Gate gate;
    std::atomic<int> served{0};
    m_server.serve(kGatePort, [&](_msg_request const& request, uint16_t port, Bytes const& data) {
        gate.wait();
        CoreServer::answer(request, port, data);
    });
    m_server.serve(kCountPort, [&](_msg_request const& request, uint16_t port, Bytes const& data) {
        ++served;
        CoreServer::answer(request, port, data);
    });
    RawPeer patient = connect_raw();
    for (uint32_t id = 1; id <= 4; ++id) patient.send(request_frame(kGatePort, 9, id, 0, 0));
    ASSERT_TRUE(eventually([&] { return gate.waiting() == 4; }));
    LogCapture log;

    RawPeer gone = connect_raw();
    gone.send(request_frame(kCountPort, 9, 1, 0, 0));
    ASSERT_TRUE(eventually([] { return queued_messages() == 1; }));
    gone.close();
    ASSERT_TRUE(wait_for_connections(1));
    gate.open();

    for (int i = 0; i < 4; ++i) EXPECT_TRUE(take_apart(patient.receive_frame()).whole);
    patient.send(request_frame(kCountPort, 9, 5, 0, 0));
    EXPECT_TRUE(take_apart(patient.receive_frame()).whole);
    EXPECT_EQ(1, served);
    EXPECT_TRUE(log.wait_for("!=msg currsequence:"));
}

TEST_P(CoreTest, LosesALateAnswerToAConnectionThatHasClosed) {
    std::atomic<IConnection*> asked{nullptr};
    _msg_request late{};
    m_server.serve(kCountPort, [&](_msg_request const& request, uint16_t, Bytes const&) {
        late = request;
        asked = request.conn;
    });
    RawPeer gone = connect_raw();
    gone.send(request_frame(kCountPort, 9, 1, 0, 0));
    ASSERT_TRUE(eventually([&] { return asked != nullptr; }));
    gone.close();
    ASSERT_TRUE(wait_for_connections(0));

    CoreServer::answer(late, kCountPort, text("late"));

    KypClient client(GetParam());
    EXPECT_EQ(text("AB"), client.exchange(kPortEcho, text("AB")).payload);
}

TEST_P(CoreTest, UsesRecordsAgainAfterTheirDelay) {
    records().m_nRecyDelay = 0;
    int const before = records().m_nTotal;

    for (int round = 0; round < 4; ++round) {
        std::vector<RawPeer> peers;
        for (uint32_t id = 0; id < 10; ++id) {
            peers.push_back(connect_raw());
            peers.back().send(request_frame(kPortEcho, 9, id, 0, 0, u32_be(id)));
            ASSERT_EQ(hex(response_frame(kPortEcho, 9, id, u32_be(id))),
                      hex(peers.back().receive_frame()));
        }
        peers.clear();
        ASSERT_TRUE(wait_for_connections(0));
        ASSERT_TRUE(eventually([] { return records().m_nRecy == 0; }));
    }

    EXPECT_EQ(before, records().m_nTotal);
}

TEST_P(CoreTest, UsesNoRecordAgainBeforeItsDelay) {
    int const ready = records().m_nFree;

    for (int i = 0; i < ready + 5; ++i) {
        connect_raw().close();
        ASSERT_TRUE(eventually([&] { return records().m_nRecy == i + 1; }));
    }

    EXPECT_EQ(0, records().m_nFree);
    EXPECT_EQ(ready + 5, records().m_nRecy);
}

TEST_P(CoreTest, ConnectsAgainAndRenewsItsSubscriptions) {
    std::mutex mutex;
    std::vector<std::string> subscribed;
    m_server.serve(kPortPubSub, [&](_msg_request const&, uint16_t, Bytes const& data) {
        PubSubParts const body = take_body_apart(data);
        std::lock_guard<std::mutex> lock(mutex);
        subscribed.push_back(body.type + " " + body.topic);
    });
    auto const heard = [&](size_t count) {
        std::lock_guard<std::mutex> lock(mutex);
        return subscribed.size() == count;
    };
    KypClient client(GetParam());
    libkyp_reconnect_delay_set(client.handle(), 0);
    ASSERT_EQ(0, client.subscribe("a"));
    ASSERT_EQ(0, client.subscribe("b"));
    ASSERT_TRUE(eventually([&] { return heard(2); }));

    m_server.drop_connections();

    ASSERT_TRUE(eventually([&] { return heard(4); }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_THAT(subscribed, UnorderedElementsAre("sub a", "sub b", "sub a", "sub b"));
}

TEST_P(CoreTest, AnswersAgainAfterTheLinkWasLost) {
    KypClient client(GetParam());
    ASSERT_EQ(0, client.exchange(kPortEcho, text("before")).status);
    libkyp_reconnect_delay_set(client.handle(), 0);

    m_server.drop_connections();

    EXPECT_TRUE(client.exchange_again(kPortEcho, text("after")));
    EXPECT_TRUE(client.exchange_again(kPortEcho, text("and again")));
}

class CoreTcpTest : public CoreTest {};
INSTANTIATE_TEST_SUITE_P(Tcp, CoreTcpTest, testing::Values(KypClient::TCP),
                         [](auto const&) { return "Tcp"; });

TEST_P(CoreTcpTest, TellsOfALostLinkAndOfTheNextOne) {
    KypClient client(KypClient::TCP);
    libkyp_reconnect_delay_set(client.handle(), 0);
    EXPECT_THAT(client.events(), ElementsAre(2, 1));
    ASSERT_TRUE(wait_for_connections(1));

    m_server.drop_connections();

    EXPECT_TRUE(client.wait_for_events({2, 1, 5, 2, 1}));
}

// The receive thread's status stays at 5 once a link was lost, and 5 ends the link behind any
// frame.
TEST_P(CoreTcpTest, KeepsGivingTheLinkUpAfterEveryAnswerOnceItWasLost) {
    KypClient client(KypClient::TCP);
    libkyp_reconnect_delay_set(client.handle(), 0);
    ASSERT_TRUE(wait_for_connections(1));
    m_server.drop_connections();
    ASSERT_TRUE(client.wait_for_events({2, 1, 5, 2, 1}));

    EXPECT_EQ(text("AB"), client.exchange(kPortEcho, text("AB")).payload);
    EXPECT_TRUE(client.wait_for_events({2, 1, 5, 2, 1, 5, 2, 1}));
    EXPECT_EQ(text("CD"), client.exchange(kPortEcho, text("CD")).payload);
    EXPECT_TRUE(client.wait_for_events({2, 1, 5, 2, 1, 5, 2, 1, 5, 2, 1}));
}

TEST_P(CoreTcpTest, FindsADeviceByTheIdThatAnsweredOverUdp) {
    ASSERT_TRUE(m_server.listen_udp());
    m_server.serve(kPortDeviceId, [](_msg_request const& request, uint16_t port, Bytes const&) {
        CoreServer::answer(request, port, bytes("0A 00 00 07 01 02"));
    });
    libkyp_init();
    _KypDeviceId id{};

    ASSERT_EQ(0, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &id));
    EXPECT_EQ("0A 00 00 07 01 02", hex(id.bytes, sizeof id.bytes));
    KypClient client(KypClient::TCP, id);
    EXPECT_EQ(text("found"), client.exchange(kPortEcho, text("found")).payload);
}

TEST_P(CoreTcpTest, AnswersOneDatagramAfterTheOther) {
    ASSERT_TRUE(m_server.listen_udp());
    RawUdp peer;

    for (uint32_t id = 1; id <= 20; ++id) {
        ASSERT_TRUE(peer.send_to(38898, request_frame(kPortEcho, 9, id, 0, 0, u32_be(id))));
        ASSERT_EQ(hex(response_frame(kPortEcho, 9, id, u32_be(id))), hex(peer.receive().data));
    }
}

TEST_P(CoreTcpTest, DropsBadDatagramsAndAnswersTheNextGoodOne) {
    ASSERT_TRUE(m_server.listen_udp());
    RawUdp peer;
    for (Bytes const& bad :
         {bytes("00 01 64 00 00 00 00"), kyp_head(kPortEcho, 1), kyp_head(kPortEcho, 0xffffffff),
          join({kyp_head(kPortEcho, 0xfffffff8), pattern(40)}), pattern(60000)}) {
        ASSERT_TRUE(peer.send_to(38898, bad));
    }

    ASSERT_TRUE(peer.send_to(38898, request_frame(kPortEcho, 9, 7, 0, 0, text("good"))));

    EXPECT_EQ(hex(response_frame(kPortEcho, 9, 7, text("good"))), hex(peer.receive().data));
}

}  // namespace
