#include "kypclient/IvshmGroup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kypclient/Ivshmclient.h"
#include "kypcomm/KypStatus.h"
#include "support/Eventually.h"
#include "support/FakeTopics.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr uint16_t kPort = 600;
constexpr int kMaxSize = 4096;

// Topics of group 0 as a client has them.
constexpr int kRead = 0;
constexpr int kWrite = 1;

// Takes what a route of one client is given.
class Route {
public:
    static void on_message(unsigned short, char const* data, unsigned int size, void* ctx) {
        auto* const self = static_cast<Route*>(ctx);
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_messages.emplace_back(data, data + size);
        }
        if (self->m_onMessage) self->m_onMessage();
    }

    std::vector<Bytes> messages() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

    std::function<void()> m_onMessage;

private:
    std::mutex m_mutex;
    std::vector<Bytes> m_messages;
};

class IvshmGroupTest : public ::testing::Test {
protected:
    IvshmGroupTest() : m_group(IvshmGroup::makeIvshmGroup(1, 0, kMaxSize)) { tlsErrno = 0; }

    ~IvshmGroupTest() override {
        m_topics.end_waits();
        if (m_group == nullptr) return;
        // A test may have left clients to the group.
        std::vector<CIvshmClient*> const clients(std::begin(m_group->m_arrClient),
                                                 std::end(m_group->m_arrClient));
        m_group->stop();
        for (CIvshmClient* client : clients) delete client;
        while (m_group->getRefCount() > 1) m_group->subRefCount();
        IvshmGroup::destoryIvshmGroup(m_group);
    }

    // Sets the handles, which the group itself never does.
    void set_handles() {
        m_group->m_hRead = m_topics.handle(kRead);
        m_group->m_hWrite = m_topics.handle(kWrite);
    }

    // The group takes what comes from now on.
    void serve() {
        set_handles();
        ASSERT_TRUE(m_group->init_ivshm_topic());
        ASSERT_EQ(0, m_group->start());
    }

    CIvshmClient* client_with(Route& route) {
        CIvshmClient* const client = m_group->makeIvshmClient();
        EXPECT_NE(nullptr, client);
        EXPECT_EQ(0, client->add_router(kPort, Route::on_message, &route));
        return client;
    }

    void take(Bytes message) {
        m_topics.put(kRead, std::move(message));
        ASSERT_TRUE(m_topics.wait_consumed(kRead));
    }

    FakeTopics m_topics;
    LogCapture m_log;
    IvshmGroup* m_group;
};

// A frame that awaits no answer at the client, and what its route is given of it.
Bytes frame(std::string const& payload) {
    return response_frame(kPort, 8, 0, text(payload));
}

// ---- making and releasing

TEST_F(IvshmGroupTest, StartsWithNothingOpen) {
    EXPECT_EQ(1, m_group->getRefCount());
    EXPECT_EQ(0, m_group->getIvshmIdx());
    EXPECT_EQ(kMaxSize, m_group->m_nMaxSize);
    EXPECT_EQ(1, m_group->m_enMode);
    EXPECT_FALSE(m_group->m_bInit);
    EXPECT_EQ(nullptr, m_group->m_hRead);
    EXPECT_EQ(nullptr, m_group->m_hWrite);
    EXPECT_EQ(m_group, IvshmGroup::m_arrIvshmGroup[0]);
    EXPECT_EQ(nullptr, IvshmGroup::m_arrIvshmGroup[1]);
    EXPECT_EQ(1, m_log.count("DEBUG", "create ivshm group,idx:0,maxsizebyte:4096"));
}

TEST_F(IvshmGroupTest, IsTheSameForThreeCallersAndGoesWithTheThird) {
    EXPECT_EQ(m_group, IvshmGroup::makeIvshmGroup(0, 0, 100));
    EXPECT_EQ(m_group, IvshmGroup::makeIvshmGroup(1, 0, 200));
    EXPECT_EQ(3, m_group->getRefCount());
    EXPECT_EQ(1, m_log.count_containing("create ivshm group"));

    IvshmGroup::destoryIvshmGroup(m_group);
    EXPECT_EQ(2, m_group->getRefCount());
    IvshmGroup::destoryIvshmGroup(m_group);
    EXPECT_EQ(1, m_group->getRefCount());
    EXPECT_EQ(0, m_log.count_containing("release"));
    IvshmGroup::destoryIvshmGroup(m_group);
    m_group = nullptr;

    EXPECT_EQ(nullptr, IvshmGroup::m_arrIvshmGroup[0]);
    EXPECT_EQ(1, m_log.count("INFO", "ivshm group idx:0 refcount==0 release object"));
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(IvshmGroupTest, KeepsSideAndSizeOfItsFirstCaller) {
    ASSERT_EQ(m_group, IvshmGroup::makeIvshmGroup(0, 0, 100));

    EXPECT_EQ(1, m_group->m_enMode);
    EXPECT_EQ(kMaxSize, m_group->m_nMaxSize);
}

TEST_F(IvshmGroupTest, IsNotReleasedByACountThatWasZeroBefore) {
    IvshmGroup group(1, 1, 100);

    IvshmGroup::destoryIvshmGroup(&group);

    EXPECT_EQ(-1, group.getRefCount());
    EXPECT_EQ(1, group.getIvshmIdx());
    EXPECT_EQ(0, m_log.count_containing("release"));
}

TEST_F(IvshmGroupTest, IsMadeAnewAfterItsEnd) {
    IvshmGroup::destoryIvshmGroup(m_group);

    m_group = IvshmGroup::makeIvshmGroup(1, 0, 100);

    EXPECT_EQ(1, m_group->getRefCount());
    EXPECT_EQ(100, m_group->m_nMaxSize);
}

TEST_F(IvshmGroupTest, RefusesAnIndexBeyondTheTwoGroups) {
    m_log.clear();
    for (int const idx : {-1, 2, 7}) {
        SCOPED_TRACE(idx);
        tlsErrno = 0;
        EXPECT_EQ(nullptr, IvshmGroup::makeIvshmGroup(1, idx, kMaxSize));
        EXPECT_EQ(0x101a, tlsErrno);
    }
    EXPECT_EQ("", m_log.text());
}

TEST_F(IvshmGroupTest, StandsBesideASecondOne) {
    IvshmGroup* const second = IvshmGroup::makeIvshmGroup(1, 1, 100);

    EXPECT_NE(m_group, second);
    EXPECT_EQ(1, second->getIvshmIdx());
    EXPECT_EQ(second, IvshmGroup::m_arrIvshmGroup[1]);
    IvshmGroup::destoryIvshmGroup(second);
    EXPECT_EQ(m_group, IvshmGroup::m_arrIvshmGroup[0]);
}

TEST_F(IvshmGroupTest, ReportsThatThereIsNothingToDestroy) {
    IvshmGroup::destoryIvshmGroup(nullptr);

    EXPECT_EQ(0x2001, tlsErrno);
}

TEST_F(IvshmGroupTest, CountsReferences) {
    EXPECT_EQ(2, m_group->addRefCount());
    EXPECT_EQ(1, m_group->subRefCount());
    EXPECT_EQ(1, m_group->getRefCount());
}

TEST_F(IvshmGroupTest, ClosesItsTopicsWhenItGoes) {
    serve();

    IvshmGroup::destoryIvshmGroup(m_group);
    m_group = nullptr;

    EXPECT_THAT(m_topics.closed(), ElementsAre(kRead, kWrite));
}

TEST_F(IvshmGroupTest, LeavesItsClientsWithoutAGroup) {
    CIvshmClient* const client = m_group->makeIvshmClient();

    IvshmGroup::destoryIvshmGroup(m_group);
    m_group = nullptr;

    EXPECT_EQ(nullptr, client->m_pGroup);
    EXPECT_EQ(-1, client->raw_send("x", 1, 100));
    EXPECT_EQ(0x2001, tlsErrno);
    delete client;
}

// ---- topics

TEST_F(IvshmGroupTest, KeepsTheHandlesOfItsTopicsNowhere) {
    tlsErrno = 77;

    EXPECT_FALSE(m_group->init_ivshm_topic());

    EXPECT_THAT(m_topics.opened(), ElementsAre(Pair(0, 1), Pair(1, 1)));
    EXPECT_EQ(nullptr, m_group->m_hRead);
    EXPECT_EQ(nullptr, m_group->m_hWrite);
    EXPECT_FALSE(m_group->m_bInit);
    EXPECT_EQ(1, m_log.count("ERROR", "init rhandle:0,whandle:0 fail"));
    EXPECT_EQ(77, tlsErrno);
    EXPECT_FALSE(m_group->init_ivshm_topic());
    EXPECT_THAT(m_topics.opened(), SizeIs(4));
    EXPECT_THAT(m_topics.closed(), IsEmpty());
}

TEST_F(IvshmGroupTest, UsesHandlesThatWereSetBefore) {
    set_handles();

    EXPECT_TRUE(m_group->init_ivshm_topic());
    EXPECT_TRUE(m_group->m_bInit);
    EXPECT_THAT(m_topics.opened(), IsEmpty());
    EXPECT_EQ(1, m_log.count("DEBUG", "init read topic:0,write topic:1"));
    m_log.clear();
    EXPECT_TRUE(m_group->init_ivshm_topic());
    EXPECT_EQ("", m_log.text());
}

TEST_F(IvshmGroupTest, AsksOnlyForTheTopicWhoseHandleIsMissing) {
    void* const handle = m_topics.handle(kRead);
    m_group->m_hRead = handle;
    char line[64];
    snprintf(line, sizeof line, "init rhandle:%x,whandle:0 fail",
             static_cast<unsigned int>(reinterpret_cast<uintptr_t>(handle)));

    EXPECT_FALSE(m_group->init_ivshm_topic());
    EXPECT_THAT(m_topics.opened(), ElementsAre(Pair(1, 1)));
    EXPECT_EQ(1, m_log.count("ERROR", line));
}

TEST_F(IvshmGroupTest, HasTheTopicsOfItsIndexAndSide) {
    struct Row {
        int mode;
        int idx;
        int read;
        int write;
    };
    for (Row const& row :
         {Row{1, 0, 0, 1}, Row{1, 1, 2, 3}, Row{0, 0, 1, 0}, Row{0, 1, 3, 2}, Row{5, 1, 3, 2}}) {
        SCOPED_TRACE(testing::Message() << row.mode << " " << row.idx);
        size_t const before = m_topics.opened().size();
        IvshmGroup group(row.mode, row.idx, 100);
        group.init_ivshm_topic();
        auto const opened = m_topics.opened();
        ASSERT_EQ(before + 2, opened.size());
        EXPECT_THAT(opened[before], Pair(row.read, row.mode));
        EXPECT_THAT(opened[before + 1], Pair(row.write, row.mode));
    }
}

TEST_F(IvshmGroupTest, ClosesItsTopicsOnce) {
    set_handles();
    m_group->init_ivshm_topic();

    m_group->uninit_ivshm_topic();
    m_group->uninit_ivshm_topic();

    EXPECT_THAT(m_topics.closed(), ElementsAre(kRead, kWrite));
    EXPECT_EQ(nullptr, m_group->m_hRead);
    EXPECT_EQ(nullptr, m_group->m_hWrite);
    EXPECT_FALSE(m_group->m_bInit);
}

TEST_F(IvshmGroupTest, ClosesNothingThatItDidNotOpen) {
    set_handles();

    m_group->uninit_ivshm_topic();

    EXPECT_THAT(m_topics.closed(), IsEmpty());
    EXPECT_NE(nullptr, m_group->m_hRead);
}

// ---- places and clients

TEST_F(IvshmGroupTest, GivesTheLowestClosedPlace) {
    EXPECT_EQ(1, m_group->openVClient());
    EXPECT_EQ(2, m_group->openVClient());
    EXPECT_EQ(3, m_group->openVClient());

    EXPECT_EQ(0, m_group->closeVClient(2));

    EXPECT_EQ(2, m_group->openVClient());
    EXPECT_EQ(4, m_group->openVClient());
}

TEST_F(IvshmGroupTest, ClosesOnlyPlacesThatAreOpen) {
    m_group->openVClient();

    for (int const id : {0, 2, 32, 33, 40, 65535}) {
        SCOPED_TRACE(id);
        tlsErrno = 0;
        EXPECT_EQ(0x101c, m_group->closeVClient(static_cast<unsigned short>(id)));
        EXPECT_EQ(0x101c, tlsErrno);
    }
    EXPECT_EQ(0, m_group->closeVClient(1));
    EXPECT_EQ(0x101c, m_group->closeVClient(1));
}

TEST_F(IvshmGroupTest, Has32ClientsAndNot33) {
    std::vector<CIvshmClient*> clients;
    for (int id = 1; id <= 32; ++id) {
        clients.push_back(m_group->makeIvshmClient());
        ASSERT_NE(nullptr, clients.back());
        EXPECT_EQ(id, clients.back()->m_clientId);
        EXPECT_EQ(m_group, clients.back()->m_pGroup);
        EXPECT_EQ(clients.back(), m_group->m_arrClient[id - 1]);
    }
    EXPECT_EQ(0, tlsErrno);

    EXPECT_EQ(nullptr, m_group->makeIvshmClient());
    EXPECT_EQ(0x101b, tlsErrno);
    EXPECT_EQ(0, m_group->openVClient());

    m_group->destoryIvshmClient(clients[20]);
    m_group->destoryIvshmClient(clients[6]);
    EXPECT_EQ(nullptr, m_group->m_arrClient[6]);
    CIvshmClient* const next = m_group->makeIvshmClient();
    EXPECT_EQ(7, next->m_clientId);
}

// Tells when it is deleted.
class WatchedClient : public CIvshmClient {
public:
    WatchedClient(IvshmGroup* group, unsigned short id, bool& gone)
        : CIvshmClient(group, id), m_gone(gone) {}
    ~WatchedClient() override { m_gone = true; }

private:
    bool& m_gone;
};

TEST_F(IvshmGroupTest, KeepsDestroyingAClientWhoseIdCannotBe) {
    for (int const id : {0, 33, 34, 40, 65535}) {
        SCOPED_TRACE(id);
        bool gone = false;
        tlsErrno = 0;
        m_group->destoryIvshmClient(
            new WatchedClient(m_group, static_cast<unsigned short>(id), gone));
        EXPECT_TRUE(gone);
        EXPECT_EQ(0x101c, tlsErrno);
    }
}

TEST_F(IvshmGroupTest, ReportsThatThereIsNoClientToDestroy) {
    m_group->destoryIvshmClient(nullptr);

    EXPECT_EQ(0x2001, tlsErrno);
}

TEST_F(IvshmGroupTest, ForgetsAClientThatWasDeletedByItself) {
    delete m_group->makeIvshmClient();

    EXPECT_EQ(nullptr, m_group->m_arrClient[0]);
    EXPECT_FALSE(m_group->m_arrVClient[0].IsOpen());
    EXPECT_EQ(0, tlsErrno);
}

// ---- the thread

TEST_F(IvshmGroupTest, StartsOneThread) {
    serve();
    auto const id = m_group->m_thread.get_id();

    EXPECT_EQ(0, m_group->start());

    EXPECT_EQ(id, m_group->m_thread.get_id());
}

TEST_F(IvshmGroupTest, StopsAndStartsAgain) {
    Route route;
    client_with(route);
    serve();
    EXPECT_EQ(0, m_group->stop());
    EXPECT_FALSE(m_group->m_thread.joinable());
    EXPECT_EQ(0, m_group->stop());

    EXPECT_EQ(0, m_group->start());
    take(shm_message(1, 1, frame("again")));

    EXPECT_THAT(route.messages(), SizeIs(1));
}

TEST_F(IvshmGroupTest, EndsItsThreadAtOnceWithoutTopics) {
    EXPECT_EQ(0, m_group->svc());
    EXPECT_EQ(0, m_group->start());
    EXPECT_EQ(0, m_group->stop());
    EXPECT_EQ(-1, m_topics.read_timeout());
}

TEST_F(IvshmGroupTest, WaitsQuietlyFor200Milliseconds) {
    serve();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));
    m_log.clear();

    m_topics.end_waits();
    m_group->stop();

    EXPECT_EQ(200, m_topics.read_timeout());
    EXPECT_EQ(kMaxSize + 1024u, m_topics.read_room());
    EXPECT_EQ("", m_log.text());
}

TEST_F(IvshmGroupTest, EndsWhenNoBufferHoldsItsLargestFrame) {
    set_handles();
    m_group->init_ivshm_topic();
    m_group->m_nMaxSize = INT32_MAX;

    EXPECT_EQ(0, m_group->svc());

    EXPECT_EQ(1, m_log.count("ERROR", "ivshm group has no buffer for frames of 2147483647 bytes"));
}

TEST_F(IvshmGroupTest, TakesANegativeLargestFrameAsNone) {
    m_group->m_nMaxSize = -5000;
    serve();

    ASSERT_TRUE(m_topics.wait_consumed(kRead));

    EXPECT_EQ(1024u, m_topics.read_room());
}

TEST_F(IvshmGroupTest, SurvivesTopicsThatAreClosedUnderIt) {
    serve();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));

    m_group->uninit_ivshm_topic();
    m_topics.end_waits();

    EXPECT_EQ(0, m_group->stop());
}

// ---- receiving

TEST_F(IvshmGroupTest, GivesAFrameToTheClientThatItNames) {
    Route first;
    Route second;
    client_with(first);
    client_with(second);
    serve();

    take(shm_message(2, 99, frame("for two")));
    take(shm_message(1, 99, frame("for one")));

    EXPECT_THAT(first.messages(), ElementsAre(text("for one")));
    EXPECT_THAT(second.messages(), ElementsAre(text("for two")));
    EXPECT_EQ(1, m_log.count("DEBUG", "recv ivshm clientid:2,kypsize:28"));
}

TEST_F(IvshmGroupTest, DropsAFrameOfAClientThatIsNotThere) {
    Route route;
    m_group->destoryIvshmClient(client_with(route));
    serve();

    take(shm_message(1, 1, frame("x")));
    take(shm_message(32, 1, frame("x")));

    EXPECT_THAT(route.messages(), IsEmpty());
    EXPECT_EQ(1, m_log.count("DEBUG", "recv ivshm clientid:1,kypsize:22"));
    EXPECT_EQ(1, m_log.count("DEBUG", "recv ivshm clientid:32,kypsize:22"));
}

TEST_F(IvshmGroupTest, DropsAMessageWithAnotherMagicAndGoesOn) {
    Route route;
    client_with(route);
    serve();

    take(join({shm_head(0x50594BFF, 1, 1, 22), frame("x")}));
    take(shm_message(1, 1, frame("good")));

    EXPECT_THAT(route.messages(), ElementsAre(text("good")));
    EXPECT_EQ(1, m_log.count("ERROR", "shmheader magic:50594bff error"));
}

TEST_F(IvshmGroupTest, DropsAMessageForAClientThatCannotBeAndGoesOn) {
    Route route;
    client_with(route);
    serve();
    struct Row {
        uint32_t id;
        char const* shown;
    };
    for (Row const& row : {Row{0, "0"}, Row{34, "22"}, Row{40, "28"}, Row{0xffff, "ffffffff"},
                           Row{0x8001, "ffff8001"}, Row{0x20000, "0"}}) {
        SCOPED_TRACE(row.shown);
        m_log.clear();
        take(shm_message(row.id, 1, frame("x")));
        EXPECT_EQ(
            1, m_log.count("ERROR", std::string("shmheader vclientid:") + row.shown + " exceeded"));
    }
    take(shm_message(1, 1, frame("good")));

    EXPECT_THAT(route.messages(), ElementsAre(text("good")));
}

TEST_F(IvshmGroupTest, KeepsId33InsideTheBoundAndDropsItsFrames) {
    std::vector<std::unique_ptr<Route>> routes;
    for (int i = 0; i < 32; ++i) {
        routes.push_back(std::make_unique<Route>());
        client_with(*routes.back());
    }
    serve();

    take(shm_message(33, 1, frame("x")));

    EXPECT_EQ(0, m_log.count_containing("exceeded"));
    EXPECT_EQ(1, m_log.count("DEBUG", "recv ivshm clientid:33,kypsize:22"));
    for (auto const& route : routes) EXPECT_THAT(route->messages(), IsEmpty());
}

TEST_F(IvshmGroupTest, KeepsToTheLow16BitsOfAClientId) {
    Route route;
    client_with(route);
    serve();

    take(shm_message(0x00050001, 1, frame("low")));

    EXPECT_THAT(route.messages(), ElementsAre(text("low")));
}

TEST_F(IvshmGroupTest, DropsAMessageThatIsShorterThanItsHeader) {
    Route route;
    client_with(route);
    serve();
    Bytes const whole = shm_message(1, 1, frame("whole"));

    for (size_t length = 0; length < 20; ++length) {
        SCOPED_TRACE(length);
        m_log.clear();
        take(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
        EXPECT_EQ(1, m_log.count_containing("dropped"));
        EXPECT_EQ(0, m_log.count_containing("recv ivshm"));
    }
    EXPECT_THAT(route.messages(), IsEmpty());
}

TEST_F(IvshmGroupTest, ReadsNothingBeyondAFrameThatEndsEarly) {
    Route route;
    client_with(route);
    serve();
    Bytes const whole = shm_message(1, 1, frame("whole"));

    for (size_t length = 20; length < whole.size(); ++length) {
        take(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
    }
    take(whole);

    // The route is given what has come behind the heads.
    std::string const payload = "whole";
    ASSERT_THAT(route.messages(), SizeIs(testing::Ge(payload.size())));
    for (Bytes const& message : route.messages()) {
        EXPECT_EQ(payload.substr(0, message.size()), as_text(message));
    }
    EXPECT_EQ(payload, as_text(route.messages().back()));
}

TEST_F(IvshmGroupTest, OnlyLogsTheSizeThatAHeaderTells) {
    Route route;
    client_with(route);
    serve();

    take(join({shm_head(0xFF4B5950, 1, 1, 0), frame("shorter")}));
    take(join({shm_head(0xFF4B5950, 1, 1, 0xffffffff), frame("longer")}));

    EXPECT_THAT(route.messages(), ElementsAre(text("shorter"), text("longer")));
    EXPECT_EQ(1, m_log.count("DEBUG", "recv ivshm clientid:1,kypsize:0"));
    EXPECT_EQ(1, m_log.count("DEBUG", "recv ivshm clientid:1,kypsize:-1"));
}

TEST_F(IvshmGroupTest, FollowsNoFrameLengthBeyondTheBytesThatCame) {
    Route route;
    client_with(route);
    serve();

    take(shm_message(1, 1, join({kyp_head(kPort, 0xffffffff), aoe_head(0, 0, 8, 1), text("abc")})));

    EXPECT_THAT(route.messages(), ElementsAre(text("abc")));
}

TEST_F(IvshmGroupTest, DropsAMessageThatIsSaidToBeLargerThanTheBuffer) {
    Route route;
    client_with(route);
    serve();

    m_topics.put_with_length(kRead, shm_message(1, 1, frame("x")), kMaxSize + 1025);
    ASSERT_TRUE(m_topics.wait_consumed(kRead));

    EXPECT_THAT(route.messages(), IsEmpty());
    EXPECT_EQ(1, m_log.count_containing("ivshm message of 5121 bytes dropped"));
}

TEST_F(IvshmGroupTest, TakesFramesUpToTheLargestAndALittleMore) {
    Route route;
    client_with(route);
    serve();
    for (int const size : {kMaxSize, kMaxSize + 1, kMaxSize + 1004}) {
        SCOPED_TRACE(size);
        Bytes const payload = pattern(static_cast<size_t>(size) - 21);
        take(shm_message(1, 1, response_frame(kPort, 8, 0, payload)));
        EXPECT_EQ(payload, route.messages().back());
    }
}

TEST_F(IvshmGroupTest, LetsARouteSend) {
    Route route;
    CIvshmClient* const client = client_with(route);
    route.m_onMessage = [client] { client->raw_send("thanks", 6, 100); };
    serve();

    take(shm_message(1, 1, frame("x")));

    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(text("thanks")));
}

// ---- sending

TEST_F(IvshmGroupTest, SendsNothingWithoutAnOpenTopic) {
    char data[4] = {};

    EXPECT_FALSE(m_group->raw_send(data, sizeof data, 100));
    EXPECT_EQ(0x101d, tlsErrno);
    EXPECT_EQ(1, m_log.count("ERROR", "invaild send handle"));
    EXPECT_EQ(-1, m_topics.send_timeout());
}

TEST_F(IvshmGroupTest, KeepsReportingAFailureForWhatItSent) {
    set_handles();
    char data[4] = {'a', 'b', 'c', 'd'};

    EXPECT_FALSE(m_group->raw_send(data, sizeof data, 150));
    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(text("abcd")));
    EXPECT_EQ(150, m_topics.send_timeout());

    m_topics.refuse_send();
    tlsErrno = 0;
    EXPECT_FALSE(m_group->raw_send(data, sizeof data, 150));
    EXPECT_EQ(0x101e, tlsErrno);
}

TEST_F(IvshmGroupTest, SendsNothingOfANegativeSize) {
    set_handles();
    char data[4] = {};

    EXPECT_FALSE(m_group->raw_send(data, -1, 150));

    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_EQ(-1, m_topics.send_timeout());
}

// ---- many at once

TEST_F(IvshmGroupTest, Serves32ClientsAtOnce) {
    constexpr uint32_t kEach = 30;
    std::vector<std::unique_ptr<Route>> routes;
    std::vector<CIvshmClient*> clients;
    for (int i = 0; i < 32; ++i) {
        routes.push_back(std::make_unique<Route>());
        clients.push_back(client_with(*routes.back()));
    }
    serve();
    std::vector<std::thread> threads;
    for (uint32_t id = 1; id <= 32; ++id) {
        threads.emplace_back([&, id] {
            for (uint32_t n = 0; n < kEach; ++n) {
                m_topics.put(kRead,
                             shm_message(id, 1, response_frame(kPort, 8, 0, u32_le(id << 16 | n))));
                Frame request(4, nullptr);
                uint32_t const mine = id << 16 | n;
                request.prepend(&mine, sizeof mine);
                EXPECT_EQ(-1, clients[id - 1]->raw_send(request, 1000));
                delete[] request.rawData();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(m_topics.wait_consumed(kRead));

    auto const process = static_cast<uint32_t>(getpid());
    std::vector<Bytes> const sent = m_topics.sent(kWrite);
    EXPECT_THAT(sent, SizeIs(32 * kEach));
    EXPECT_EQ(1, m_topics.most_sends_at_once());
    for (uint32_t id = 1; id <= 32; ++id) {
        std::vector<Bytes> expected;
        for (uint32_t n = 0; n < kEach; ++n) {
            expected.push_back(u32_le(id << 16 | n));
            EXPECT_THAT(sent, Contains(shm_message(id, process, expected.back())));
        }
        EXPECT_EQ(expected, routes[id - 1]->messages());
    }
}

TEST_F(IvshmGroupTest, StopsUnderAFlood) {
    Route route;
    client_with(route);
    set_handles();
    m_group->init_ivshm_topic();
    std::atomic<bool> done{false};
    std::thread flood([&] {
        while (!done) {
            m_topics.put(kRead, shm_message(1, 1, frame("x")));
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 100; ++round) {
        m_group->start();
        size_t const before = route.messages().size();
        ASSERT_TRUE(eventually([&] { return route.messages().size() > before; }));
        m_group->stop();
    }
    done = true;
    flood.join();
}

TEST_F(IvshmGroupTest, LosesAndMakesClientsUnderAFlood) {
    serve();
    std::atomic<bool> done{false};
    std::thread flood([&] {
        for (uint32_t n = 0; !done; ++n) {
            m_topics.put(kRead, shm_message(n % 3 + 1, 1, frame("x")));
            if (n % 64 == 0) m_topics.wait_consumed(kRead);
        }
    });
    for (int round = 0; round < 300; ++round) {
        CIvshmClient* const first = m_group->makeIvshmClient();
        CIvshmClient* const second = m_group->makeIvshmClient();
        m_group->destoryIvshmClient(first);
        delete second;
    }
    done = true;
    flood.join();
    EXPECT_THAT(m_group->m_arrClient, Each(nullptr));
}

// The thread ends behind the class mutex, so a callback may ask for it until then.
TEST_F(IvshmGroupTest, LetsARouteMakeAGroupWhileItsOwnGoes) {
    Route route;
    std::atomic<bool> inRoute{false};
    std::atomic<bool> going{false};
    IvshmGroup* other = nullptr;
    route.m_onMessage = [&] {
        inRoute = true;
        EXPECT_TRUE(eventually([&] { return going.load(); }));
        other = IvshmGroup::makeIvshmGroup(1, 1, 100);
    };
    CIvshmClient* const client = client_with(route);
    serve();
    m_topics.put(kRead, shm_message(1, 1, frame("x")));
    ASSERT_TRUE(eventually([&] { return inRoute.load(); }));

    std::thread destroyer([this] { IvshmGroup::destoryIvshmGroup(m_group); });
    EXPECT_TRUE(m_log.wait_for("refcount==0 release object"));
    going = true;
    destroyer.join();
    m_group = nullptr;

    EXPECT_NE(nullptr, other);
    IvshmGroup::destoryIvshmGroup(other);
    delete client;
}

TEST_F(IvshmGroupTest, IsMadeAndReleasedByManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            for (int round = 0; round < 25; ++round) {
                IvshmGroup* const group = IvshmGroup::makeIvshmGroup(1, 1, 100);
                group->start();
                CIvshmClient* const client = group->makeIvshmClient();
                EXPECT_NE(nullptr, client);
                group->destoryIvshmClient(client);
                IvshmGroup::destoryIvshmGroup(group);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(nullptr, IvshmGroup::m_arrIvshmGroup[1]);
}

}  // namespace
