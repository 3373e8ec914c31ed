#include "compmodule/ivshm_svr_group.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/router/RouteManage.h"
#include "support/Eventually.h"
#include "support/FakeTopics.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr uint16_t kPort = 600;
constexpr int kMaxSize = 4096;

// Topics of group 0 as the server has them.
constexpr int kRead = 1;
constexpr int kWrite = 0;

// What one call of the route was given.
struct Call {
    uint16_t port;
    Bytes data;
    _msg_request request;
    std::thread::id thread;
};

class IvshmSvrGroupTest : public ::testing::Test {
protected:
    IvshmSvrGroupTest() : m_group(IvshmSvrGroup::makeIvshmGroup(0, kMaxSize)) {
        tlsErrno = 0;
        utility::instance<RouteManage>().addSvrPortRoute(kPort, on_request, this);
    }

    ~IvshmSvrGroupTest() override {
        m_topics.end_waits();
        m_group->stop();
        utility::instance<RouteManage>().delPortRoute(kPort);
        std::vector<std::unique_ptr<ivshm_conn>> conns(std::begin(m_group->m_arrConn),
                                                       std::end(m_group->m_arrConn));
        delete m_group;
    }

    // The group takes what comes from now on.
    void serve() {
        ASSERT_TRUE(m_group->init_ivshm_topic());
        ASSERT_EQ(0, m_group->start());
    }

    void take(Bytes message) {
        m_topics.put(kRead, std::move(message));
        ASSERT_TRUE(m_topics.wait_consumed(kRead));
    }

    std::vector<Call> calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    static void on_request(unsigned short port, char const* data, unsigned int size,
                           _msg_request request, void* ctx) {
        auto* const self = static_cast<IvshmSvrGroupTest*>(ctx);
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_calls.push_back(
                {port, Bytes(data, data + size), request, std::this_thread::get_id()});
        }
        if (self->m_onRequest) self->m_onRequest(self->m_calls.back());
    }

    // The answer of an echo.
    static void answer(Call const& call, int timeoutMs = 500) {
        const _AoEHeader aoe{0, utils_htonl(call.request.invokeId), utils_htons(call.request.cmd),
                             0, KYP_STATE_RESPONSE};
        EXPECT_EQ(0, call.request.conn->send_message(
                         aoe, call.port, reinterpret_cast<char const*>(call.data.data()),
                         static_cast<int>(call.data.size()), timeoutMs));
    }

    FakeTopics m_topics;
    LogCapture m_log;
    IvshmSvrGroup* m_group;
    std::function<void(Call const&)> m_onRequest;  // set before serve()
    std::mutex m_mutex;
    std::vector<Call> m_calls;  // guarded by m_mutex
};

Bytes request(uint32_t invokeId, std::string const& payload, uint16_t port = kPort) {
    return request_frame(port, 9, invokeId, 0x10, 0x20, text(payload));
}

// ---- making and releasing

TEST_F(IvshmSvrGroupTest, StartsWithOneReferenceAndNothingOpen) {
    EXPECT_EQ(1, m_group->getRefCount());
    EXPECT_EQ(0, m_group->getIvshmIdx());
    EXPECT_EQ(kMaxSize, m_group->m_nMaxSize);
    EXPECT_EQ(0, m_group->m_enMode);
    EXPECT_FALSE(m_group->m_bInit);
    EXPECT_EQ(nullptr, m_group->m_hRead);
    EXPECT_EQ(nullptr, m_group->m_hWrite);
    EXPECT_THAT(m_topics.opened(), IsEmpty());
    EXPECT_EQ(1, m_log.count("DEBUG", "create ivshm group idx:0,maxsizebyte:4096"));
}

TEST_F(IvshmSvrGroupTest, RefusesAnIndexBeyondTheTwoGroups) {
    for (int const idx : {-1, 2, 7}) {
        SCOPED_TRACE(idx);
        tlsErrno = 0;
        EXPECT_EQ(nullptr, IvshmSvrGroup::makeIvshmGroup(idx, kMaxSize));
        EXPECT_EQ(0x101a, tlsErrno);
        EXPECT_EQ(1, m_log.count("ERROR", "ivshm group idx:" + std::to_string(idx) + " invaild"));
    }
}

TEST_F(IvshmSvrGroupTest, KeepsMakingANewGroupWithEachCall) {
    IvshmSvrGroup* const other = IvshmSvrGroup::makeIvshmGroup(0, 100);

    EXPECT_NE(m_group, other);
    EXPECT_EQ(1, other->getRefCount());
    EXPECT_EQ(1, m_group->getRefCount());
    EXPECT_EQ(nullptr, IvshmSvrGroup::m_arrIvshmGroup[0]);
    EXPECT_EQ(1, m_log.count("DEBUG", "create ivshm group idx:0,maxsizebyte:100"));
    delete other;
}

TEST_F(IvshmSvrGroupTest, TakesTheGroupThatStandsInTheArray) {
    IvshmSvrGroup::m_arrIvshmGroup[0] = m_group;
    m_log.clear();

    EXPECT_EQ(m_group, IvshmSvrGroup::makeIvshmGroup(0, 100));
    EXPECT_EQ(2, m_group->getRefCount());
    EXPECT_EQ("", m_log.text());
    IvshmSvrGroup::m_arrIvshmGroup[0] = nullptr;
}

TEST_F(IvshmSvrGroupTest, CountsReferences) {
    EXPECT_EQ(2, m_group->addRefCount());
    EXPECT_EQ(2, m_group->getRefCount());
    EXPECT_EQ(1, m_group->subRefCount());
    EXPECT_EQ(0, m_group->subRefCount());
}

TEST_F(IvshmSvrGroupTest, KeepsALiveGroupThatIsToBeDestroyed) {
    serve();

    IvshmSvrGroup::destoryIvshmGroup(m_group);

    EXPECT_EQ(0x2001, tlsErrno);
    EXPECT_EQ(1, m_group->getRefCount());
    EXPECT_THAT(m_topics.closed(), IsEmpty());
    take(shm_message(1, 9, request(1, "still here")));
    EXPECT_THAT(calls(), SizeIs(1));
}

TEST_F(IvshmSvrGroupTest, TouchesNothingWhenNothingIsToBeDestroyed) {
    tlsErrno = 77;
    m_log.clear();

    IvshmSvrGroup::destoryIvshmGroup(nullptr);

    EXPECT_EQ(77, tlsErrno);
    EXPECT_EQ("", m_log.text());
}

// ---- topics

TEST_F(IvshmSvrGroupTest, ReadsWhatItsClientsWrite) {
    EXPECT_TRUE(m_group->init_ivshm_topic());

    EXPECT_THAT(m_topics.opened(), ElementsAre(Pair(1, 0), Pair(0, 0)));
    EXPECT_EQ(m_topics.handle(1), m_group->m_hRead);
    EXPECT_EQ(m_topics.handle(0), m_group->m_hWrite);
    EXPECT_EQ(1, m_log.count("DEBUG", "init read topic:1,write topic:0"));
}

TEST_F(IvshmSvrGroupTest, HasThePairOfItsIndex) {
    IvshmSvrGroup* const second = IvshmSvrGroup::makeIvshmGroup(1, kMaxSize);

    EXPECT_TRUE(second->init_ivshm_topic());
    EXPECT_THAT(m_topics.opened(), ElementsAre(Pair(3, 0), Pair(2, 0)));
    EXPECT_EQ(1, m_log.count("DEBUG", "init read topic:3,write topic:2"));
    delete second;
}

TEST_F(IvshmSvrGroupTest, OpensItsTopicsOnce) {
    m_group->init_ivshm_topic();
    m_log.clear();

    EXPECT_TRUE(m_group->init_ivshm_topic());
    EXPECT_THAT(m_topics.opened(), SizeIs(2));
    EXPECT_EQ("", m_log.text());
}

TEST_F(IvshmSvrGroupTest, AsksOnlyForTheTopicThatItLacks) {
    m_topics.refuse_open(kWrite);
    auto const number =
        static_cast<unsigned int>(reinterpret_cast<uintptr_t>(m_topics.handle(kRead)));
    char line[128];
    snprintf(line, sizeof line, "init <rhandle:%x,topic:1>,<whandle:0,topic:0> fail", number);

    EXPECT_FALSE(m_group->init_ivshm_topic());
    EXPECT_EQ(1, m_log.count("ERROR", line));
    EXPECT_FALSE(m_group->m_bInit);
    EXPECT_FALSE(m_group->init_ivshm_topic());
    EXPECT_THAT(m_topics.opened(), ElementsAre(Pair(1, 0), Pair(0, 0), Pair(0, 0)));
}

TEST_F(IvshmSvrGroupTest, SaysWhichTopicsItLacks) {
    m_topics.refuse_open(kRead);
    m_topics.refuse_open(kWrite);

    EXPECT_FALSE(m_group->init_ivshm_topic());
    EXPECT_EQ(1, m_log.count("ERROR", "init <rhandle:0,topic:1>,<whandle:0,topic:0> fail"));
}

TEST_F(IvshmSvrGroupTest, UsesHandlesThatWereSetBefore) {
    m_group->m_hRead = m_topics.handle(40);
    m_group->m_hWrite = m_topics.handle(41);

    EXPECT_TRUE(m_group->init_ivshm_topic());
    EXPECT_THAT(m_topics.opened(), IsEmpty());
    EXPECT_EQ(m_topics.handle(40), m_group->m_hRead);
}

TEST_F(IvshmSvrGroupTest, KeepsCountingAsOpenAfterItsTopicsWereClosed) {
    m_group->init_ivshm_topic();

    m_group->uninit_ivshm_topic();

    EXPECT_THAT(m_topics.closed(), ElementsAre(kRead, kWrite));
    EXPECT_EQ(nullptr, m_group->m_hRead);
    EXPECT_EQ(nullptr, m_group->m_hWrite);
    EXPECT_TRUE(m_group->m_bInit);
    EXPECT_TRUE(m_group->init_ivshm_topic());
    EXPECT_EQ(nullptr, m_group->m_hRead);
}

TEST_F(IvshmSvrGroupTest, ClosesTheOneTopicThatItGot) {
    m_topics.refuse_open(kWrite);
    ASSERT_FALSE(m_group->init_ivshm_topic());

    m_group->uninit_ivshm_topic();

    EXPECT_THAT(m_topics.closed(), ElementsAre(kRead));
    EXPECT_EQ(nullptr, m_group->m_hRead);
    EXPECT_FALSE(m_group->m_bInit);
}

TEST_F(IvshmSvrGroupTest, ClosesNothingTwice) {
    m_group->init_ivshm_topic();
    m_group->uninit_ivshm_topic();

    m_group->uninit_ivshm_topic();

    EXPECT_THAT(m_topics.closed(), SizeIs(2));
}

// ---- receiving

TEST_F(IvshmSvrGroupTest, TakesARequestToItsRoute) {
    serve();

    take(shm_message(3, 4711, request(7, "hello")));

    ASSERT_THAT(calls(), SizeIs(1));
    const Call call = calls()[0];
    EXPECT_EQ(kPort, call.port);
    EXPECT_EQ(text("hello"), call.data);
    EXPECT_EQ(1, call.request.version);
    EXPECT_EQ(9, call.request.cmd);
    EXPECT_EQ(7u, uint32_t{call.request.invokeId});
    EXPECT_EQ(0x10u, uint32_t{call.request.indexGroup});
    EXPECT_EQ(0x20u, uint32_t{call.request.indexOffset});
    EXPECT_EQ(0u, uint32_t{call.request.error});
    EXPECT_EQ(3, call.request.conn->get_fd());
    EXPECT_EQ(1, m_log.count("TRACE", "recv ivshm frame,clientid:3,KypDataSize:34"));
}

TEST_F(IvshmSvrGroupTest, CallsRoutesOnItsOwnThread) {
    serve();

    take(shm_message(1, 1, request(1, "a")));
    take(shm_message(2, 1, request(2, "b")));

    ASSERT_THAT(calls(), SizeIs(2));
    EXPECT_EQ(m_group->m_thread.get_id(), calls()[0].thread);
    EXPECT_EQ(m_group->m_thread.get_id(), calls()[1].thread);
}

TEST_F(IvshmSvrGroupTest, CallsARouteThatIsEnteredDuringTrafficWholeOrNotAtAll) {
    serve();
    std::atomic<bool> done{false};
    std::thread flood([&] {
        while (!done) {
            for (uint16_t port = 700; port < 720; ++port) {
                m_topics.put(kRead, shm_message(1, 1, request(1, "", port)));
            }
            m_topics.wait_consumed(kRead);
        }
    });

    for (uint16_t port = 700; port < 720; ++port) {
        utility::instance<RouteManage>().addSvrPortRoute(port, on_request, this);
    }
    EXPECT_TRUE(eventually([this] {
        auto const all = calls();
        return !all.empty() && all.back().port == 719;
    }));
    done = true;
    flood.join();
    for (uint16_t port = 700; port < 720; ++port) {
        utility::instance<RouteManage>().delPortRoute(port);
    }
}

TEST_F(IvshmSvrGroupTest, HasOneConnectionForEachClient) {
    serve();

    take(shm_message(1, 11, request(1, "")));
    take(shm_message(32, 12, request(2, "")));
    take(shm_message(1, 11, request(3, "")));

    ASSERT_THAT(calls(), SizeIs(3));
    EXPECT_NE(calls()[0].request.conn, calls()[1].request.conn);
    EXPECT_EQ(calls()[0].request.conn, calls()[2].request.conn);
    EXPECT_EQ(calls()[0].request.conn, m_group->m_arrConn[0]);
    EXPECT_EQ(calls()[1].request.conn, m_group->m_arrConn[31]);
    EXPECT_EQ(nullptr, m_group->m_arrConn[1]);
}

TEST_F(IvshmSvrGroupTest, AnswersAPortThatIsNone) {
    serve();

    take(shm_message(5, 0x01020304, request(7, "x", 0)));
    take(shm_message(5, 0x01020304, request(8, "x", 4097)));

    Bytes const head = bytes("50 59 4B FF 01 00 02 00 05 00 00 00 04 03 02 01 15 00 00 00");
    EXPECT_THAT(m_topics.sent(kWrite),
                ElementsAre(join({head, response_frame(0, 9, 7, {}, 0x1014)}),
                            join({head, response_frame(4097, 9, 8, {}, 0x1014)})));
    EXPECT_EQ(1, m_log.count("ERROR", "port error:0"));
    EXPECT_EQ(1, m_log.count("ERROR", "port error:4097"));
    EXPECT_EQ(1000, m_topics.send_timeout());
}

TEST_F(IvshmSvrGroupTest, DropsAMessageWithAnotherMagic) {
    serve();

    take(join({shm_head(0xFF4B5951, 1, 1, 29), request(1, "")}));
    take(join({shm_head(0, 1, 1, 29), request(1, "")}));
    take(shm_message(1, 1, request(2, "good")));

    EXPECT_THAT(calls(), SizeIs(1));
    EXPECT_EQ(1, m_log.count("ERROR", "shmheader magic:ff4b5951 error"));
    EXPECT_EQ(1, m_log.count("ERROR", "shmheader magic:0 error"));
}

TEST_F(IvshmSvrGroupTest, DropsAMessageOfAClientThatCannotBe) {
    serve();
    struct Row {
        uint32_t id;
        char const* shown;
    };
    for (Row const& row : {Row{0, "0"}, Row{34, "22"}, Row{40, "28"}, Row{0xffff, "ffffffff"},
                           Row{0x8000, "ffff8000"}, Row{0x10000, "0"}}) {
        SCOPED_TRACE(row.shown);
        m_log.clear();
        take(shm_message(row.id, 1, request(1, "")));
        EXPECT_EQ(
            1, m_log.count("ERROR", std::string("shmheader vclientid:") + row.shown + " exceeded"));
    }
    EXPECT_THAT(calls(), IsEmpty());

    take(shm_message(32, 1, request(2, "good")));
    EXPECT_THAT(calls(), SizeIs(1));
}

TEST_F(IvshmSvrGroupTest, KeepsId33InsideTheBoundAndDropsItsFrames) {
    serve();

    take(shm_message(33, 1, request(1, "")));

    EXPECT_EQ(0, m_log.count_containing("exceeded"));
    EXPECT_EQ(1, m_log.count("TRACE", "recv ivshm frame,clientid:33,KypDataSize:29"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(m_topics.sent(kWrite), IsEmpty());
}

TEST_F(IvshmSvrGroupTest, KeepsToTheLow16BitsOfAClientId) {
    m_onRequest = [](Call const& call) { answer(call); };
    serve();

    take(shm_message(0x00050006, 1, request(1, "")));

    ASSERT_THAT(calls(), SizeIs(1));
    EXPECT_EQ(6, calls()[0].request.conn->get_fd());
    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(shm_message(6, 1, response_frame(kPort, 9, 1))));
}

TEST_F(IvshmSvrGroupTest, DropsAMessageThatIsShorterThanItsHeads) {
    serve();
    Bytes const whole = shm_message(1, 1, request(1, ""));
    ASSERT_THAT(whole, SizeIs(49));

    for (size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        m_log.clear();
        take(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
        EXPECT_EQ(1, m_log.count_containing("dropped"));
    }
    EXPECT_THAT(calls(), IsEmpty());

    take(whole);
    EXPECT_THAT(calls(), SizeIs(1));
}

TEST_F(IvshmSvrGroupTest, FollowsNoLengthBeyondTheBytesThatCame) {
    serve();
    struct Row {
        char const* what;
        uint32_t msgLen;    // of the _KypHeader, 21 and the payload when it is right
        uint32_t dataSize;  // of the ShmHeader, 33 when it is right
        int served;         // bytes of payload, -1 when the message is dropped
    };
    for (Row const& row :
         {Row{"right", 25, 33, 4}, Row{"frame one shorter", 24, 33, 3},
          Row{"frame without payload", 21, 33, 0}, Row{"frame shorter than its heads", 20, 33, -1},
          Row{"frame without a body", 0, 33, -1}, Row{"frame one longer", 26, 33, -1},
          Row{"frame as long as can be said", 0xffffffff, 33, -1},
          Row{"frame that is negative as an int", 0x80000000, 33, -1},
          Row{"data one longer", 25, 34, -1},
          Row{"data as long as can be said", 25, 0xffffffff, -1}, Row{"data shorter", 25, 0, 4}}) {
        SCOPED_TRACE(row.what);
        m_log.clear();
        size_t const before = calls().size();
        take(join({shm_head(0xFF4B5950, 2, 1, row.dataSize), kyp_head(kPort, row.msgLen),
                   aoe_head(0, 1, 9, 0), address_head(0, 0), text("abcd")}));
        if (row.served < 0) {
            EXPECT_EQ(before, calls().size());
            EXPECT_EQ(1, m_log.count_containing("dropped"));
        } else {
            ASSERT_EQ(before + 1, calls().size());
            EXPECT_THAT(calls().back().data, SizeIs(static_cast<size_t>(row.served)));
        }
    }
}

TEST_F(IvshmSvrGroupTest, MakesNoConnectionForAMessageThatItDrops) {
    serve();

    take(join({shm_head(0xFF4B5950, 2, 1, 29), kyp_head(kPort, 999), Bytes(21)}));

    EXPECT_EQ(nullptr, m_group->m_arrConn[1]);
}

TEST_F(IvshmSvrGroupTest, DropsAMessageThatIsSaidToBeLargerThanTheBuffer) {
    serve();

    m_topics.put_with_length(kRead, shm_message(1, 1, request(1, "")), kMaxSize + 1025);
    ASSERT_TRUE(m_topics.wait_consumed(kRead));

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(1, m_log.count_containing("ivshm message of 5121 bytes dropped"));
}

TEST_F(IvshmSvrGroupTest, TakesFramesUpToTheLargestAndALittleMore) {
    serve();
    for (int const size : {kMaxSize, kMaxSize + 1, kMaxSize + 1004}) {
        SCOPED_TRACE(size);
        Bytes const payload = pattern(static_cast<size_t>(size) - 29);
        take(shm_message(1, 1, request_frame(kPort, 9, 1, 0, 0, payload)));
        EXPECT_EQ(payload, calls().back().data);
    }
    EXPECT_THAT(calls(), SizeIs(3));
    EXPECT_EQ(kMaxSize + 1024u, m_topics.read_room());
}

TEST_F(IvshmSvrGroupTest, KeepsLoggingEachWaitThatBroughtNothing) {
    serve();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));
    EXPECT_EQ(2000, m_topics.read_timeout());

    m_topics.end_waits();

    EXPECT_TRUE(m_log.wait_for("ivshm read buffer timeout"));
    EXPECT_LE(1, m_log.count("ERROR", "ivshm read buffer timeout"));
}

TEST_F(IvshmSvrGroupTest, SurvivesTopicsThatAreClosedUnderIt) {
    serve();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));

    m_group->uninit_ivshm_topic();
    m_topics.end_waits();

    EXPECT_TRUE(m_log.wait_for("ivshm read buffer timeout"));
    EXPECT_EQ(0, m_group->stop());
}

TEST_F(IvshmSvrGroupTest, KeepsTheProcessIdOfAClientsFirstFrame) {
    m_onRequest = [](Call const& call) { answer(call); };
    serve();

    take(shm_message(4, 100, request(1, "")));
    take(shm_message(4, 200, request(2, "")));

    EXPECT_EQ(100, m_group->m_arrConn[3]->m_processId);
    EXPECT_THAT(m_topics.sent(kWrite),
                ElementsAre(shm_message(4, 100, response_frame(kPort, 9, 1)),
                            shm_message(4, 100, response_frame(kPort, 9, 2))));
}

// ---- answering

TEST_F(IvshmSvrGroupTest, AnswersTheClientThatAsked) {
    m_onRequest = [](Call const& call) { answer(call); };
    serve();

    take(shm_message(3, 0x11223344, request(7, "AB", kPort)));

    EXPECT_THAT(m_topics.sent(kWrite),
                ElementsAre(bytes("50 59 4B FF 01 00 02 00 03 00 00 00 44 33 22 11 17 00 00 00 "
                                  "00 01 58 02 0F 00 00 00 "
                                  "00 00 00 00 00 00 00 07 00 09 00 00 01 41 42")));
    EXPECT_EQ(500, m_topics.send_timeout());
}

TEST_F(IvshmSvrGroupTest, AnswersLaterFromAnotherThread) {
    serve();
    take(shm_message(9, 1, request(1, "later")));
    ASSERT_THAT(calls(), SizeIs(1));

    std::thread([this] { answer(calls()[0]); }).join();

    EXPECT_THAT(m_topics.sent(kWrite),
                ElementsAre(shm_message(9, 1, response_frame(kPort, 9, 1, text("later")))));
}

TEST_F(IvshmSvrGroupTest, KeepsSilentWhenAFrameOrABufferIsToBeSent) {
    ASSERT_TRUE(m_group->init_ivshm_topic());
    ivshm_conn conn(m_group, 1, 1);
    Bytes const frame = response_frame(kPort, 9, 1);
    pbuf buf(64);

    EXPECT_EQ(0, conn.send_message(reinterpret_cast<char const*>(frame.data()),
                                   static_cast<int>(frame.size())));
    EXPECT_EQ(0, conn.send_message(&buf, _AoEHeader{}));
    EXPECT_THAT(m_topics.sent(kWrite), IsEmpty());
}

TEST_F(IvshmSvrGroupTest, KeepsReportingAReplyAsSentThatWasNot) {
    ASSERT_TRUE(m_group->init_ivshm_topic());
    ivshm_conn conn(m_group, 1, 1);
    m_topics.refuse_send();

    EXPECT_EQ(0, conn.send_message(_AoEHeader{}, kPort, "abc", 3, 250));
    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_EQ(250, m_topics.send_timeout());
    EXPECT_EQ(1, m_log.count_containing("ivshm group idx:0 send of 44 bytes fail,timeout:250 ms"));
}

TEST_F(IvshmSvrGroupTest, SendsNoPayloadWhereThereIsNone) {
    ASSERT_TRUE(m_group->init_ivshm_topic());
    ivshm_conn conn(m_group, 1, 1);

    EXPECT_EQ(0, conn.send_message(_AoEHeader{}, kPort, nullptr, 0, 100));
    EXPECT_EQ(0, conn.send_message(_AoEHeader{}, kPort, nullptr, 9, 100));
    EXPECT_EQ(0, conn.send_message(_AoEHeader{}, kPort, "abc", -1, 100));

    Bytes const empty = shm_message(1, 1, join({kyp_head(kPort, 13), Bytes(13)}));
    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(empty, empty, empty));
}

TEST_F(IvshmSvrGroupTest, SendsNothingWithoutAnOpenTopic) {
    char data[4] = {};

    EXPECT_FALSE(m_group->raw_send(data, sizeof data, 100));
    EXPECT_EQ(0x101d, tlsErrno);
    EXPECT_EQ(-1, m_topics.send_timeout());
}

TEST_F(IvshmSvrGroupTest, TellsWhetherAMessageWasSent) {
    ASSERT_TRUE(m_group->init_ivshm_topic());
    char data[4] = {'a', 'b', 'c', 'd'};

    EXPECT_TRUE(m_group->raw_send(data, sizeof data, 100));
    EXPECT_EQ(0, tlsErrno);
    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(text("abcd")));
    m_topics.refuse_send();
    EXPECT_FALSE(m_group->raw_send(data, sizeof data, 100));
    EXPECT_EQ(0x101e, tlsErrno);
}

TEST_F(IvshmSvrGroupTest, SendsNothingOfANegativeSize) {
    ASSERT_TRUE(m_group->init_ivshm_topic());
    char data[4] = {};

    EXPECT_FALSE(m_group->raw_send(data, -1, 100));

    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_EQ(-1, m_topics.send_timeout());
}

TEST_F(IvshmSvrGroupTest, LeavesConnectionsThatAnswerIntoTheVoidWhenItEnds) {
    auto* const group = new IvshmSvrGroup(0, 1, kMaxSize);
    group->m_arrConn[0] = new ivshm_conn(group, 1, 1);
    std::unique_ptr<ivshm_conn> const conn(group->m_arrConn[0]);

    delete group;

    EXPECT_EQ(0, conn->send_message(_AoEHeader{}, kPort, "late", 4, 100));
    EXPECT_EQ(0x2001, tlsErrno);
    EXPECT_EQ(1, conn->get_fd());
}

// ---- the thread

TEST_F(IvshmSvrGroupTest, StartsAgainAfterAStop) {
    serve();
    take(shm_message(1, 1, request(1, "")));
    m_topics.put(kRead, Bytes(1));  // wakes the thread, so that it sees the stop
    EXPECT_EQ(0, m_group->stop());
    EXPECT_EQ(0, m_group->stop());

    EXPECT_EQ(0, m_group->start());
    take(shm_message(1, 1, request(2, "")));

    EXPECT_THAT(calls(), SizeIs(2));
}

TEST_F(IvshmSvrGroupTest, KeepsItsBufferWhenItsThreadEnds) {
    auto& pool = utility::instance<client_bufpool>();
    ASSERT_EQ(0, pool.make_buf_list(8192, 1));
    serve();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));
    m_topics.end_waits();

    m_group->stop();

    EXPECT_EQ(nullptr, pool.m_freeLists[8192]);
    pool.free_buf_list();
}

TEST_F(IvshmSvrGroupTest, EndsWhenNoBufferHoldsItsLargestFrame) {
    for (int const size : {16 << 20, INT32_MAX}) {
        SCOPED_TRACE(size);
        m_log.clear();
        m_group->m_nMaxSize = size;
        EXPECT_EQ(0, m_group->svc());
        EXPECT_EQ(1, m_log.count("ERROR", "ivshm group idx:0 has no buffer for frames of " +
                                              std::to_string(size) + " bytes"));
    }
}

TEST_F(IvshmSvrGroupTest, TakesANegativeLargestFrameAsNone) {
    m_group->m_nMaxSize = -5000;
    serve();

    take(shm_message(1, 1, request(1, "small")));

    EXPECT_EQ(1024u, m_topics.read_room());
    EXPECT_THAT(calls(), SizeIs(1));
}

using IvshmSvrGroupDeathTest = IvshmSvrGroupTest;

TEST_F(IvshmSvrGroupDeathTest, KeepsEndingTheProcessWhenItIsStartedTwice) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            serve();
            m_group->start();
        },
        "");
}

// ---- many at once

TEST_F(IvshmSvrGroupTest, Serves32ClientsAtOnceWithAnswersFromManyThreads) {
    constexpr uint32_t kClients = 32;
    constexpr uint32_t kRequests = 40;
    serve();
    std::vector<std::thread> clients;
    for (uint32_t id = 1; id <= kClients; ++id) {
        clients.emplace_back([this, id] {
            for (uint32_t n = 0; n < kRequests; ++n) {
                Bytes const payload = pattern((id * 37 + n * 101) % 3000);
                m_topics.put(kRead,
                             shm_message(id, 1000 + id,
                                         request_frame(kPort, 9, id << 16 | n, id, n, payload)));
            }
        });
    }
    for (std::thread& client : clients) client.join();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));
    std::vector<Call> const all = calls();
    ASSERT_THAT(all, SizeIs(kClients * kRequests));

    std::vector<std::thread> workers;
    for (size_t first = 0; first < 4; ++first) {
        workers.emplace_back([&all, first] {
            for (size_t i = first; i < all.size(); i += 4) answer(all[i]);
        });
    }
    for (std::thread& worker : workers) worker.join();

    std::vector<Bytes> expected;
    for (uint32_t id = 1; id <= kClients; ++id) {
        for (uint32_t n = 0; n < kRequests; ++n) {
            Bytes const payload = pattern((id * 37 + n * 101) % 3000);
            expected.push_back(
                shm_message(id, 1000 + id, response_frame(kPort, 9, id << 16 | n, payload)));
        }
    }
    std::vector<Bytes> sent = m_topics.sent(kWrite);
    std::sort(expected.begin(), expected.end());
    std::sort(sent.begin(), sent.end());
    EXPECT_EQ(expected, sent);
    EXPECT_EQ(1, m_topics.most_sends_at_once());
}

}  // namespace
