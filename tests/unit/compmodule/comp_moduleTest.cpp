#include "compmodule/comp_module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "compmodule/business_data_layer.h"
#include "compmodule/comp_init_sys.h"
#include "compmodule/ivshm_svr_group.h"
#include "compmodule/net_channel.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/ivshm/IvshmExtFunDef.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/router/RouteManage.h"
#include "support/ComponentFrames.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

using libkyp::compmodule::CompConnectCallback;
using libkyp::compmodule::CompMessageCallback;
using libkyp::compmodule::CompModule;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kConstructed = 2;
constexpr uint32_t kConnected = 4;
constexpr uint32_t kRegistered = 8;
constexpr uint32_t kRoutePort = 16;
constexpr uint32_t kStarted = 32;

// What one call of a route was given.
struct RouteCall {
    unsigned short port;
    char const* place;
    Bytes data;
    _msg_request request;
    void* user;
};
std::vector<RouteCall> g_routeCalls;

void record_route(unsigned short port, char const* data, unsigned int size, _msg_request request,
                  void* user) {
    g_routeCalls.push_back({port, data, Bytes(data, data + size), request, user});
}

void other_route(unsigned short, char const*, unsigned int, _msg_request, void*) {}

// What one call of a topic's callback was given.
struct TopicCall {
    uint32_t indexGroup;
    uint32_t indexOffset;
    std::string topic;
    Bytes data;
    void* user;
};
std::vector<TopicCall> g_topicCalls;

void record_topic(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                  char const* data, unsigned int length, void* user) {
    g_topicCalls.push_back({indexGroup, indexOffset, topic, Bytes(data, data + length), user});
}

void other_topic(unsigned int, unsigned int, char const*, char const*, unsigned int, void*) {}

void unsubscribe_this(unsigned int, unsigned int, char const* topic, char const* data,
                      unsigned int length, void* module) {
    static_cast<CompModule*>(module)->unsubscribe(topic);
    record_topic(0, 0, topic, data, length, module);
}

// The clients that came and went, in order: "+5", "-5".
std::vector<std::string> g_clients;
void* g_clientsUser;

void record_coming(VirtualConn* conn, void* user) {
    g_clients.push_back("+" + std::to_string(conn->get_fd()));
    g_clientsUser = user;
}

void record_going(VirtualConn* conn, void* user) {
    g_clients.push_back("-" + std::to_string(conn->get_fd()));
    g_clientsUser = user;
}

int never_called(unsigned int, char const*, unsigned int, void*) {
    ADD_FAILURE() << "the registration callback was called";
    return 0;
}

// A frame as the receive thread holds it.
class Received {
public:
    explicit Received(Bytes const& frame) : m_buf(false) {
        auto const size = static_cast<int>(frame.size());
        m_block = utility::instance<client_bufpool>().get_one_buf(size + 8);
        m_buf.init_pbuf(m_block, 0);
        if (size > 0) memcpy(m_buf.m_end, frame.data(), frame.size());
        m_buf.AddBufSize(size);
    }

    char const* bytes() const { return reinterpret_cast<char const*>(m_block->rawData()); }

    RecvBuf m_buf;

private:
    pbuf* m_block;
};

// A component "cmp" whose receive thread does not run: the test calls what that would.
class CompModuleTest : public testing::Test {
protected:
    CompModuleTest() {
        g_routeCalls.clear();
        g_topicCalls.clear();
        g_clients.clear();
        g_clientsUser = nullptr;
        tlsErrno = 0;
        SetLogLevel(LOG_LEVEL_TRACE);
        make_module("cmp");
    }

    void make_module(char const* name, uint32_t drvParam0 = 0, uint32_t drvParam1 = 0) {
        tagCmpDrvInfo info = {drvParam0, drvParam1, ""};
        strncpy(info.name, name, sizeof info.name - 1);
        m_module = std::make_unique<CompModule>(&info, never_called, this);
    }

    // Gives the component its link, as if it had not yet been registered.
    void connect() {
        ASSERT_TRUE(m_module->netChannel->connect(0));
        ASSERT_TRUE(m_server.accept());
    }

    // The first `count` requests of `work` meet a server that answers them with `replies`.
    std::vector<Bytes> serve(std::vector<Bytes> const& replies, std::function<void()> work) {
        auto requests = std::async(std::launch::async, [this, replies] {
            if (!m_server.peer().connected()) m_server.accept();
            std::vector<Bytes> seen;
            for (Bytes const& reply : replies) seen.push_back(m_server.answer_with(reply));
            return seen;
        });
        work();
        return requests.get();
    }

    void deliver(Bytes const& frame) {
        Received received(frame);
        EXPECT_EQ(0, m_module->process_received_message(&received.m_buf));
    }

    void serve_port(uint16_t port) {
        ASSERT_EQ(0, m_routes.addSvrPortRoute(port, record_route, this));
    }

    void watch_clients() {
        CmpConnConfig* const config = m_module->getconfig();
        config->onConnect = record_coming;
        config->onDisconnect = record_going;
        config->userData = this;
    }

    // Whether the component has sent nothing since the last frame that was received.
    bool nothing_was_sent() {
        EXPECT_EQ(0, m_module->publish("end", 0, 0, "", 0));
        return take_apart(m_server.receive()).cmd == 8;
    }

    uint32_t state() const { return m_module->state; }

    FakeKypserver m_server;
    RouteManage& m_routes = utility::instance<RouteManage>();
    std::unique_ptr<CompModule> m_module;
};

// ---- construction and end

TEST_F(CompModuleTest, StartsConstructedAndWithoutALink) {
    EXPECT_EQ(kConstructed, state());
    EXPECT_FALSE(m_module->netChannel->isconnected());
    EXPECT_EQ(nullptr, m_module->ivshmGroup);
    EXPECT_TRUE(m_module->routePorts.empty());
    EXPECT_TRUE(m_module->connMap.empty());
    EXPECT_TRUE(m_module->subscribeMap.empty());
    for (VirtualConn& conn : m_module->connTable) {
        EXPECT_EQ(-1, conn.connIndex);
        EXPECT_EQ(0U, conn.generation);
    }
}

TEST_F(CompModuleTest, KeepsItsOwnDescription) {
    tagCmpDrvInfo info = {3, 4, "drive0"};
    CompModule module(&info, nullptr, nullptr);
    info = {};

    EXPECT_EQ(3U, module.drvInfo.drvParam0);
    EXPECT_EQ(4U, module.drvInfo.drvParam1);
    EXPECT_STREQ("drive0", module.drvInfo.name);
    EXPECT_EQ(&module.drvInfo, module.dataLayer->drvInfo);
    EXPECT_EQ(module.netChannel, module.dataLayer->channel);
    EXPECT_EQ("drive0", module.netChannel->name);
}

TEST_F(CompModuleTest, ANameWithoutAnEndLosesItsLastByte) {
    tagCmpDrvInfo info = {};
    memset(info.name, 'n', sizeof info.name);
    CompModule module(&info, nullptr, nullptr);

    EXPECT_EQ(std::string(31, 'n'), module.drvInfo.name);
    EXPECT_EQ(std::string(31, 'n'), module.conf.cmpName);
}

TEST_F(CompModuleTest, TheSettingsStartAtTheirDefaults) {
    EXPECT_FALSE(m_module->conf.ivshm_enable);
    EXPECT_EQ(0x500000, m_module->conf.ivshm_maxsize);
    EXPECT_EQ(0, m_module->conf.ivshm_group);
    EXPECT_EQ(1, m_module->conf.loglevel);
    EXPECT_EQ(0U, m_module->conf.sched_priority);
    EXPECT_EQ("cmp", m_module->conf.cmpName);
}

TEST_F(CompModuleTest, TheClientRecordStartsWithoutCallbacks) {
    CmpConnConfig* const config = m_module->getconfig();

    ASSERT_EQ(m_module->connConfig, config);
    EXPECT_EQ(1U, config->mode);
    EXPECT_EQ(m_module.get(), config->owner);
    EXPECT_EQ(nullptr, config->onConnect);
    EXPECT_EQ(nullptr, config->onDisconnect);
    EXPECT_EQ(nullptr, config->userData);
}

TEST_F(CompModuleTest, KeepsTheRegistrationCallbackAndNeverCallsIt) {
    EXPECT_EQ(&never_called, m_module->registerCallback);
    EXPECT_EQ(this, m_module->registerArg);

    serve({verdict_frame(1), verdict_frame(3)}, [this] {
        EXPECT_EQ(0, m_module->init_comp_module());
        EXPECT_EQ(0, m_module->register_route_port(600, record_route, nullptr));
    });
    deliver(forward_frame(600, 9, 1, 5));
    EXPECT_EQ(1U, g_routeCalls.size());
}

TEST_F(CompModuleTest, EndsItsChannel) {
    connect();

    m_module.reset();
    EXPECT_TRUE(m_server.peer().expect_closed());
}

TEST_F(CompModuleTest, UninitFreesWhatBelongsToItAndIsNotTheEnd) {
    connect();

    EXPECT_EQ(0, m_module->uninit_comp_module());
    EXPECT_TRUE(m_server.peer().expect_closed());
    EXPECT_EQ(nullptr, m_module->dataLayer);
    EXPECT_EQ(nullptr, m_module->netChannel);
    EXPECT_EQ(nullptr, m_module->connConfig);
    EXPECT_EQ(nullptr, m_module->getconfig());
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(0, m_module->uninit_comp_module());
}

// ---- init_comp_module

TEST_F(CompModuleTest, InitConnectsAndRegisters) {
    make_module("drive0", 0x11, 0x22);
    LogCapture log;

    auto const requests =
        serve({verdict_frame(1)}, [this] { EXPECT_EQ(0, m_module->init_comp_module()); });
    EXPECT_THAT(requests, ElementsAre(register_frame(1, "drive0", 0x11, 0x22)));
    EXPECT_EQ(kConstructed | kConnected | kRegistered, state());
    EXPECT_EQ(1, log.count("DEBUG", "component:drive0 connect kypserver Success"));
}

TEST_F(CompModuleTest, InitAnswersWithTheServersRefusal) {
    serve({verdict_frame(1, KYP_ERR_COMPONENT_NAME_TAKEN)},
          [this] { EXPECT_EQ(KYP_ERR_COMPONENT_NAME_TAKEN, m_module->init_comp_module()); });
    EXPECT_EQ(KYP_ERR_COMPONENT_NAME_TAKEN, tlsErrno);
    EXPECT_EQ(kConstructed | kConnected, state());
}

TEST_F(CompModuleTest, InitWithoutAServerSaysThatItIsOffline) {
    m_server.kill();
    LogCapture log;

    EXPECT_EQ(KYP_ERR_SERVER_OFFLINE, m_module->init_comp_module());
    EXPECT_EQ(KYP_ERR_SERVER_OFFLINE, tlsErrno);
    EXPECT_EQ(kConstructed, state());
    EXPECT_EQ(1, log.count("DEBUG", "component:cmp connect timeout"));
}

TEST_F(CompModuleTest, InitWithoutAServerLeavesAStatusThatIsThere) {
    m_server.kill();
    tlsErrno = 77;

    EXPECT_EQ(77, m_module->init_comp_module());
    EXPECT_EQ(77, tlsErrno);
}

TEST_F(CompModuleTest, InitGoesOnWithoutAConfiguration) {
    serve({verdict_frame(1)}, [this] { EXPECT_EQ(0, m_module->init_comp_module()); });

    EXPECT_EQ(0, m_module->conf.ivshm_group);
    EXPECT_EQ(0x500000, m_module->conf.ivshm_maxsize);
    EXPECT_EQ(0, m_module->init_comp_config());
}

TEST_F(CompModuleTest, InitReadsTheSettingsOfTheComponent) {
    std::ofstream("/opt/kyp/libkyp.ini") << "[cmp]\nloglevel=warn\nivshm_enable=true\n"
                                            "ivshm_group=1\nsched_priority=40\n"
                                            "[ivshm]\ngroup1_maxsize=6000000\n";
    utility::instance<libkyp::compmodule::CCmpSysInit>().LoadConfigfile();

    serve({verdict_frame(1)}, [this] { EXPECT_EQ(0, m_module->init_comp_module()); });
    EXPECT_EQ(4, m_module->conf.loglevel);
    EXPECT_TRUE(m_module->conf.ivshm_enable);
    EXPECT_EQ(1, m_module->conf.ivshm_group);
    EXPECT_EQ(6000000, m_module->conf.ivshm_maxsize);
    EXPECT_EQ(40U, m_module->conf.sched_priority);
}

TEST_F(CompModuleTest, InitReadsTheSettingsAlsoWithoutAServer) {
    std::ofstream("/opt/kyp/libkyp.ini") << "[cmp]\nloglevel=warn\n";
    utility::instance<libkyp::compmodule::CCmpSysInit>().LoadConfigfile();
    m_server.kill();

    EXPECT_EQ(KYP_ERR_SERVER_OFFLINE, m_module->init_comp_module());
    EXPECT_EQ(4, m_module->conf.loglevel);
}

TEST_F(CompModuleTest, InitHandsTheModuleToItsCallbacks) {
    serve({verdict_frame(1)}, [this] { EXPECT_EQ(0, m_module->init_comp_module()); });

    EXPECT_EQ(&CompConnectCallback, m_module->dataLayer->connectCallback);
    EXPECT_EQ(&CompMessageCallback, m_module->dataLayer->messageCallback);
    EXPECT_EQ(m_module.get(), m_module->dataLayer->connectArg);
    EXPECT_EQ(m_module.get(), m_module->dataLayer->messageArg);
}

// ---- start and stop

TEST_F(CompModuleTest, StopBeforeStartReturnsAtOnce) {
    m_module->state = kConstructed | kStarted;

    EXPECT_EQ(0, m_module->stop());
    EXPECT_EQ(kConstructed, state());
}

TEST_F(CompModuleTest, StartSetsItsBitAndStartsTheThread) {
    ASSERT_EQ(0,
              m_module->dataLayer->register_connect_callback(CompConnectCallback, m_module.get()));
    LogCapture log;

    EXPECT_EQ(0, m_module->start());
    EXPECT_EQ(kConstructed | kStarted, state());
    EXPECT_TRUE(log.wait_for("start net thread"));
    m_module->dataLayer->stopFlag = true;
    m_module->dataLayer->netThread.join();
}

TEST_F(CompModuleTest, StartAndStopWithoutALayerDoNothing) {
    m_module->uninit_comp_module();

    EXPECT_EQ(0, m_module->start());
    EXPECT_EQ(kConstructed, state());
    EXPECT_EQ(0, m_module->stop());
}

// ---- shared memory

int g_topicHandle;
bool g_topicsOpen;

void* open_topic(TOPIC, MODE) {
    return g_topicsOpen ? &g_topicHandle : nullptr;
}
bool no_send(void*, unsigned long, void*, long) {
    return false;
}
bool no_message(void*, unsigned long*, void*, long) {
    std::this_thread::yield();
    return false;
}
void close_topic(void*) {}

class CompModuleIvshmTest : public CompModuleTest {
protected:
    CompModuleIvshmTest() {
        SetLogLevel(LOG_LEVEL_COMM + 1);
        auto& api = ExtIvshmApiDef::GetInstance();
        api.m_pfnInit = open_topic;
        api.m_pfnSend = no_send;
        api.m_pfnRecv = no_message;
        api.m_pfnUninit = close_topic;
        api.m_bLoaded = true;
        g_topicsOpen = true;
        m_module->conf.ivshm_enable = true;
        m_module->conf.ivshm_group = 1;
        m_module->conf.ivshm_maxsize = 4096;
    }
};

TEST_F(CompModuleIvshmTest, ThereIsNoGroupUnlessTheSettingsAskForOne) {
    m_module->conf.ivshm_enable = false;

    EXPECT_EQ(-1, m_module->init_ivshm_channel());
    EXPECT_EQ(nullptr, m_module->ivshmGroup);
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(CompModuleIvshmTest, AGroupIsMadeAndStarted) {
    ASSERT_EQ(0, m_module->init_ivshm_channel());
    ASSERT_NE(nullptr, m_module->ivshmGroup);
    EXPECT_EQ(1, m_module->ivshmGroup->getIvshmIdx());
    EXPECT_EQ(4096, m_module->ivshmGroup->m_nMaxSize);
    EXPECT_TRUE(m_module->ivshmGroup->m_thread.joinable());

    EXPECT_EQ(0, m_module->stop());
    EXPECT_FALSE(m_module->ivshmGroup->m_thread.joinable());
}

TEST_F(CompModuleIvshmTest, AGroupNumberThatDoesNotExistGivesNone) {
    m_module->conf.ivshm_group = 2;

    EXPECT_EQ(-1, m_module->init_ivshm_channel());
    EXPECT_EQ(nullptr, m_module->ivshmGroup);
    EXPECT_EQ(KYP_ERR_IVSHM_GROUP, tlsErrno);
}

TEST_F(CompModuleIvshmTest, KeepsAGroupWhoseTopicsCannotBeOpened) {
    g_topicsOpen = false;

    EXPECT_EQ(-1, m_module->init_ivshm_channel());
    ASSERT_NE(nullptr, m_module->ivshmGroup);
    EXPECT_FALSE(m_module->ivshmGroup->m_thread.joinable());
    EXPECT_EQ(0, m_module->stop());
}

TEST_F(CompModuleIvshmTest, KeepsTheGroupBehindTheModulesEnd) {
    ASSERT_EQ(0, m_module->init_ivshm_channel());
    IvshmSvrGroup* const group = m_module->ivshmGroup;

    m_module.reset();
    EXPECT_EQ(KYP_ERR_HANDLE, tlsErrno);
    EXPECT_EQ(1, group->getIvshmIdx());
    EXPECT_EQ(1, group->getRefCount());
    EXPECT_FALSE(group->m_thread.joinable());
}

TEST_F(CompModuleIvshmTest, TheEndWithoutAGroupLeavesTheStatus) {
    m_module.reset();

    EXPECT_EQ(0, tlsErrno);
}

// ---- route ports

TEST_F(CompModuleTest, ARegisteredPortIsCachedAndServed) {
    make_module("cmp", 0x11, 0x22);
    connect();

    auto const requests = serve({verdict_frame(3)}, [this] {
        EXPECT_EQ(0, m_module->register_route_port(600, record_route, this));
    });
    EXPECT_THAT(requests, ElementsAre(register_port_frame(1, "cmp", 600, 0x11, 0x22)));
    EXPECT_THAT(m_module->routePorts, ElementsAre(600));
    EXPECT_EQ(kConstructed | kRoutePort, state());
    deliver(forward_frame(600, 9, 1, 5));
    ASSERT_EQ(1U, g_routeCalls.size());
    EXPECT_EQ(this, g_routeCalls[0].user);
}

TEST_F(CompModuleTest, APortThatTheProcessServesAlreadyIsRefusedWithoutAFrame) {
    serve_port(600);
    connect();
    LogCapture log;

    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, m_module->register_route_port(600, other_route, nullptr));
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "port:600 router is already register..."));
    EXPECT_THAT(m_module->routePorts, IsEmpty());
    EXPECT_EQ(kConstructed, state());
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(CompModuleTest, APortOutsideTheTableIsRefusedWithoutAFrame) {
    connect();

    for (unsigned int const port : {0U, 4097U, 0xffffU, 0x10000U}) {
        SCOPED_TRACE(port);
        tlsErrno = 0;
        EXPECT_EQ(KYP_ERR_PORT_RESERVED, m_module->register_route_port(port, other_route, nullptr));
        EXPECT_EQ(KYP_ERR_PORT_RESERVED, tlsErrno);
    }
    EXPECT_THAT(m_module->routePorts, IsEmpty());
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(CompModuleTest, APortCountsWithItsLowSixteenBits) {
    connect();

    auto const requests = serve({verdict_frame(3)}, [this] {
        EXPECT_EQ(0, m_module->register_route_port(0x10000 + 600, record_route, nullptr));
    });
    EXPECT_THAT(requests, ElementsAre(register_port_frame(1, "cmp", 600)));
    EXPECT_THAT(m_module->routePorts, ElementsAre(600));
}

TEST_F(CompModuleTest, KeepsTheRouteOfAPortThatTheServerHasGivenAway) {
    connect();

    for (uint32_t const bit : {0U, kRoutePort}) {
        SCOPED_TRACE(bit);
        uint16_t const port = bit == 0 ? 600 : 601;
        m_module->state = kConstructed | bit;
        serve({verdict_frame(3, KYP_ERR_ROUTE_REGISTERED)}, [this, port] {
            EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED,
                      m_module->register_route_port(port, record_route, nullptr));
        });
        EXPECT_THAT(m_module->routePorts, IsEmpty());
        EXPECT_EQ(kConstructed | bit, state());
        g_routeCalls.clear();
        deliver(forward_frame(port, 9, 1, 5));
        EXPECT_EQ(1U, g_routeCalls.size());
        EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED,
                  m_module->register_route_port(port, record_route, nullptr));
    }
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(CompModuleTest, AnyOtherRefusalLeavesThePortForTheNextReconnect) {
    connect();
    m_module->state = kConstructed | kConnected | kRegistered | kRoutePort;

    serve({verdict_frame(3, KYP_ERR_COMPONENT_NOT_REGISTERED)}, [this] {
        EXPECT_EQ(KYP_ERR_COMPONENT_NOT_REGISTERED,
                  m_module->register_route_port(600, record_route, nullptr));
    });
    EXPECT_THAT(m_module->routePorts, ElementsAre(600));
    EXPECT_EQ(kConstructed | kConnected | kRegistered, state());
}

TEST_F(CompModuleTest, APortOfALinkThatIsDownIsLeftForTheNextReconnect) {
    m_module->state = kConstructed | kRoutePort;
    LogCapture log;

    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->register_route_port(600, record_route, nullptr));
    EXPECT_THAT(m_module->routePorts, ElementsAre(600));
    EXPECT_EQ(kConstructed, state());
    EXPECT_EQ(KYP_ERR_ROUTE_REGISTERED, m_module->register_route_port(600, record_route, nullptr));
    EXPECT_THAT(m_module->routePorts, ElementsAre(600));
    EXPECT_EQ(0, log.count_containing("channel has been disconnected"));
}

TEST_F(CompModuleTest, ALinkThatEndsInsteadOfAnAnswerIsALostLink) {
    struct Row {
        Bytes sent;
        int status;
        unsigned short port;
    };
    for (Row const& row :
         {Row{{}, KYP_ERR_DISCONNECTED, 600}, Row{kyp_head(102, 30), KYP_ERR_HEADER_LENGTH, 601}}) {
        SCOPED_TRACE(row.port);
        connect();
        m_module->state = kConstructed | kConnected | kRegistered | kRoutePort;
        LogCapture log;
        auto server = std::async(std::launch::async, [this, &row] {
            m_server.receive();
            m_server.send(row.sent);
            m_server.peer().close();
        });

        EXPECT_EQ(row.status, m_module->register_route_port(row.port, record_route, nullptr));
        server.get();
        EXPECT_EQ(row.status, tlsErrno);
        EXPECT_EQ(kConstructed, state());
        EXPECT_EQ(row.port, m_module->routePorts.back());
        EXPECT_EQ(1,
                  log.count("ERROR", "component:cmp and kypserver channel has been disconnected"));
    }
}

TEST_F(CompModuleTest, AReplyWithABadPortEndsTheLinkWithoutAnEvent) {
    connect();
    m_module->state = kConstructed | kConnected | kRegistered;
    LogCapture log;

    serve({kyp_head(0, 0)}, [this] {
        EXPECT_EQ(KYP_ERR_PORT_RESERVED, m_module->register_route_port(600, record_route, nullptr));
    });
    EXPECT_EQ(kConstructed | kConnected | kRegistered, state());
    EXPECT_THAT(m_module->routePorts, ElementsAre(600));
    EXPECT_EQ(0, log.count_containing("channel has been disconnected"));
}

TEST_F(CompModuleTest, CachedPortsStandOnceAndInTheirOrder) {
    for (unsigned short const port : {700, 600, 700, 0, 600, 65535}) {
        EXPECT_EQ(0, m_module->cache_route_port(port));
    }
    EXPECT_THAT(m_module->routePorts, ElementsAre(700, 600, 0, 65535));
}

// ---- topics that the component names

TEST_F(CompModuleTest, PublishSendsTheTopicsWordsAndData) {
    connect();

    EXPECT_EQ(0, m_module->publish("limits", 0x10, 0x20, "A\0B", 3));
    EXPECT_EQ(hex(publish_frame(1, "limits", Bytes{'A', 0, 'B'}, 0x10, 0x20)),
              hex(m_server.receive()));
}

TEST_F(CompModuleTest, PublishWithoutALinkAnswersWithItsStatus) {
    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->publish("limits", 0, 0, "A", 1));
}

TEST_F(CompModuleTest, SubscribeTellsTheServerAndKeepsTheTopic) {
    connect();

    EXPECT_EQ(0, m_module->subscribe("limits", record_topic, this));
    EXPECT_EQ(hex(subscribe_frame(1, "limits")), hex(m_server.receive()));
    ASSERT_EQ(1U, m_module->subscribeMap.count("limits"));
    EXPECT_EQ(&record_topic, m_module->subscribeMap["limits"].callback);
    EXPECT_EQ(this, m_module->subscribeMap["limits"].user);
}

TEST_F(CompModuleTest, SubscribingAgainReplacesAndTellsTheServerAgain) {
    connect();
    EXPECT_EQ(0, m_module->subscribe("limits", other_topic, nullptr));

    EXPECT_EQ(0, m_module->subscribe("limits", record_topic, this));
    EXPECT_EQ(1U, m_module->subscribeMap.size());
    EXPECT_EQ(&record_topic, m_module->subscribeMap["limits"].callback);
    EXPECT_EQ(this, m_module->subscribeMap["limits"].user);
    EXPECT_EQ(hex(subscribe_frame(1, "limits")), hex(m_server.receive()));
    EXPECT_EQ(hex(subscribe_frame(2, "limits")), hex(m_server.receive()));
}

TEST_F(CompModuleTest, ASubscriptionStaysWhenTheLinkIsDown) {
    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->subscribe("limits", record_topic, this));
    EXPECT_EQ(1U, m_module->subscribeMap.count("limits"));
}

TEST_F(CompModuleTest, UnsubscribeTellsTheServerAndForgetsTheTopic) {
    connect();
    EXPECT_EQ(0, m_module->subscribe("limits", record_topic, this));
    m_server.receive();

    EXPECT_EQ(0, m_module->unsubscribe("limits"));
    EXPECT_EQ(hex(unsubscribe_frame(2, "limits")), hex(m_server.receive()));
    EXPECT_TRUE(m_module->subscribeMap.empty());
}

TEST_F(CompModuleTest, ATopicIsForgottenAlsoWhenTheLinkIsDown) {
    m_module->subscribe("limits", record_topic, this);

    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_module->unsubscribe("limits"));
    EXPECT_TRUE(m_module->subscribeMap.empty());
}

TEST_F(CompModuleTest, UnsubscribingAnUnknownTopicSendsNothing) {
    connect();
    LogCapture log;

    EXPECT_EQ(KYP_ERR_TOPIC, m_module->unsubscribe("limits"));
    EXPECT_EQ(KYP_ERR_TOPIC, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "topic:limits no subscribe"));
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(CompModuleTest, AMissingTopicThrowsAndChangesNothing) {
    connect();

    EXPECT_THROW(m_module->subscribe(nullptr, record_topic, this), std::logic_error);
    EXPECT_THROW(m_module->unsubscribe(nullptr), std::logic_error);
    EXPECT_THROW(m_module->publish(nullptr, 0, 0, "", 0), std::logic_error);
    EXPECT_TRUE(m_module->subscribeMap.empty());
    EXPECT_TRUE(nothing_was_sent());
}

// ---- topics that arrive

TEST_F(CompModuleTest, AMessageReachesItsTopicsCallback) {
    m_module->subscribe("limits", record_topic, this);
    m_module->subscribe("other", other_topic, nullptr);

    deliver(delivery_frame(1, "limits", Bytes{'A', 0, 'B'}, 0x10, 0x20));
    ASSERT_EQ(1U, g_topicCalls.size());
    EXPECT_EQ(0x10U, g_topicCalls[0].indexGroup);
    EXPECT_EQ(0x20U, g_topicCalls[0].indexOffset);
    EXPECT_EQ("limits", g_topicCalls[0].topic);
    EXPECT_EQ((Bytes{'A', 0, 'B'}), g_topicCalls[0].data);
    EXPECT_EQ(this, g_topicCalls[0].user);
}

TEST_F(CompModuleTest, AMessageWithoutDataReachesItsTopicsCallback) {
    m_module->subscribe("limits", record_topic, this);

    deliver(delivery_frame(1, "limits", {}));
    ASSERT_EQ(1U, g_topicCalls.size());
    EXPECT_EQ(Bytes{}, g_topicCalls[0].data);
}

TEST_F(CompModuleTest, AMessageHasNothingOfTheOneBefore) {
    m_module->subscribe("limits", record_topic, this);
    deliver(delivery_frame(1, "limits", Bytes(100, 'A'), 0x10, 0x20));

    Bytes body = pubsub_body("pub", "limits", text("B"));
    body.resize(24 + 4 + 7);  // ends behind the topic
    deliver(response_frame(103, 8, 1, body));
    ASSERT_EQ(2U, g_topicCalls.size());
    EXPECT_EQ(Bytes{}, g_topicCalls[1].data);
    EXPECT_EQ(0U, g_topicCalls[1].indexGroup);
    EXPECT_EQ(0U, g_topicCalls[1].indexOffset);
}

TEST_F(CompModuleTest, AMessageIsOfNoClient) {
    m_module->subscribe("limits", record_topic, this);
    watch_clients();

    deliver(delivery_frame(1, "limits", {}));
    EXPECT_TRUE(m_module->connMap.empty());
    EXPECT_THAT(g_clients, IsEmpty());
}

TEST_F(CompModuleTest, KeepsDeliveringMessagesOfAnyType) {
    m_module->subscribe("limits", record_topic, this);

    for (char const* type : {"sub", "unsub", "", "else"}) {
        deliver(response_frame(103, 8, 1, pubsub_body(type, "limits", text(type))));
    }
    EXPECT_EQ(4U, g_topicCalls.size());
}

TEST_F(CompModuleTest, AMessageOfAnUnknownTopicIsLogged) {
    LogCapture log;

    deliver(delivery_frame(1, "limits", text("AB")));
    EXPECT_EQ(1, log.count("ERROR", "unknow topic:limits"));
}

TEST_F(CompModuleTest, AMessageOfATopicThatWasUnsubscribedCallsNothing) {
    m_module->subscribe("limits", record_topic, this);
    m_module->unsubscribe("limits");
    LogCapture log;

    deliver(delivery_frame(1, "limits", text("AB")));
    EXPECT_EQ(1, log.count("ERROR", "unknow topic:limits"));
    EXPECT_THAT(g_topicCalls, IsEmpty());
}

TEST_F(CompModuleTest, ATopicsCallbackMayEndItsSubscription) {
    m_module->subscribe("limits", unsubscribe_this, m_module.get());

    deliver(delivery_frame(1, "limits", text("AB")));
    EXPECT_TRUE(m_module->subscribeMap.empty());
    ASSERT_EQ(1U, g_topicCalls.size());
    EXPECT_EQ("limits", g_topicCalls[0].topic);
    EXPECT_EQ(text("AB"), g_topicCalls[0].data);
}

TEST_F(CompModuleTest, ATopicWithoutACallbackSwallowsItsMessages) {
    m_module->subscribe("limits", nullptr, nullptr);
    LogCapture log;

    deliver(delivery_frame(1, "limits", text("AB")));
    EXPECT_EQ(0, log.count_containing("unknow topic"));
}

TEST_F(CompModuleTest, AMessageWithoutABodyIsOfTheUnnamedTopic) {
    LogCapture log;

    deliver(response_frame(103, 8, 1));
    EXPECT_EQ(1, log.count("ERROR", "unknow topic:"));
    deliver(kyp_head(103, 0));
    EXPECT_EQ(2, log.count("ERROR", "unknow topic:"));
}

// ---- requests

TEST_F(CompModuleTest, ARequestReachesItsRouteWithAllThatItSays) {
    serve_port(600);

    deliver(forward_frame(600, 4, 0x0a0b0c0d, 5, text("AB"), 0, 0x11121314, 0x21222324));
    ASSERT_EQ(1U, g_routeCalls.size());
    RouteCall const& call = g_routeCalls[0];
    EXPECT_EQ(600, call.port);
    EXPECT_EQ(text("AB"), call.data);
    EXPECT_EQ(this, call.user);
    EXPECT_EQ(1, call.request.version);
    EXPECT_EQ(4, call.request.cmd);
    EXPECT_EQ(0x0a0b0c0dU, call.request.invokeId);
    EXPECT_EQ(0x11121314U, call.request.indexGroup);
    EXPECT_EQ(0x21222324U, call.request.indexOffset);
    EXPECT_EQ(0U, call.request.error);
    EXPECT_EQ(&m_module->connTable[0], call.request.conn);
}

TEST_F(CompModuleTest, TheClientStandsAtTheForwardHeadsByteFive) {
    serve_port(600);
    Bytes const payload = bytes("FF 00 00 00 00 04 03 FF FF FF FF FF FF 41 42");

    deliver(request_frame(600, 9, 1, 0, 0, payload));
    ASSERT_EQ(1U, g_routeCalls.size());
    EXPECT_EQ(0x0304, g_routeCalls[0].request.conn->get_fd());
    EXPECT_EQ(text("AB"), g_routeCalls[0].data);
}

TEST_F(CompModuleTest, TheEventStandsAtTheForwardHeadsByteOne) {
    serve_port(600);
    deliver(forward_frame(600, 9, 1, 5));
    Bytes const leave = bytes("FF 01 00 00 00 05 00 FF FF FF FF FF FF");

    deliver(request_frame(600, 9, 1, 0, 0, leave));
    EXPECT_TRUE(m_module->connMap.empty());
}

TEST_F(CompModuleTest, ThePayloadIsHandedOnInPlace) {
    serve_port(600);
    Received received(forward_frame(600, 9, 1, 5, text("AB")));

    EXPECT_EQ(0, m_module->process_received_message(&received.m_buf));
    ASSERT_EQ(1U, g_routeCalls.size());
    EXPECT_EQ(received.bytes() + 42, g_routeCalls[0].place);
}

TEST_F(CompModuleTest, AnAnswerGoesToTheClientThatAsked) {
    serve_port(600);
    connect();
    deliver(forward_frame(600, 9, 7, 5));
    deliver(forward_frame(600, 9, 8, 6));

    for (RouteCall const& call : g_routeCalls) {
        _AoEHeader const aoe = {0, utils_htonl(call.request.invokeId),
                                utils_htons(call.request.cmd), 0, 1};
        EXPECT_EQ(2, call.request.conn->send_message(aoe, call.port, "CD", 2, 1000));
    }
    EXPECT_EQ(hex(answer_frame(600, 9, 7, 5, text("CD"))), hex(m_server.receive()));
    EXPECT_EQ(hex(answer_frame(600, 9, 8, 6, text("CD"))), hex(m_server.receive()));
}

TEST_F(CompModuleTest, AFrameShorterThanItsHeadsHasZerosAndNoPayload) {
    serve_port(600);
    Bytes const whole = forward_frame(600, 4, 0x0a, 5, {}, 0, 0x0b, 0x0c);
    struct Row {
        size_t size;  // bytes of the frame that are there
        uint32_t invokeId;
        uint32_t indexGroup;
        int client;
    };
    for (Row const row :
         {Row{8, 0, 0, 0}, Row{20, 0, 0, 0}, Row{21, 0x0a, 0, 0}, Row{28, 0x0a, 0, 0},
          Row{29, 0x0a, 0x0b, 0}, Row{41, 0x0a, 0x0b, 0}, Row{42, 0x0a, 0x0b, 5}}) {
        SCOPED_TRACE(row.size);
        g_routeCalls.clear();

        deliver(Bytes(whole.begin(), whole.begin() + static_cast<long>(row.size)));
        ASSERT_EQ(1U, g_routeCalls.size());
        EXPECT_EQ(row.invokeId, g_routeCalls[0].request.invokeId);
        EXPECT_EQ(row.indexGroup, g_routeCalls[0].request.indexGroup);
        EXPECT_EQ(row.client, g_routeCalls[0].request.conn->get_fd());
        EXPECT_EQ(Bytes{}, g_routeCalls[0].data);
    }
}

TEST_F(CompModuleTest, AFrameShorterThanItsFirstHeadIsARequestForPortZero) {
    connect();

    for (size_t const size : {0, 7}) {
        SCOPED_TRACE(size);
        LogCapture log;
        deliver(Bytes(size, 0xff));
        EXPECT_EQ(1, log.count("ERROR", "port error:0"));
        EXPECT_EQ(hex(answer_frame(0, 0, 0, 0, {}, KYP_ERR_PORT_RANGE)), hex(m_server.receive()));
    }
}

TEST_F(CompModuleTest, APortOutsideTheTableIsAnswered) {
    connect();

    deliver(forward_frame(4097, 9, 7, 5, text("AB")));
    EXPECT_EQ(hex(answer_frame(4097, 9, 7, 5, {}, KYP_ERR_PORT_RANGE)), hex(m_server.receive()));
}

TEST_F(CompModuleTest, ProcessingTheRestOfAFrameReturnsZero) {
    serve_port(600);
    _KypHeader header = {0, 1, 600, 0};
    _AoEHeader aoe = {};
    Bytes const whole = forward_frame(600, 9, 1, 5, text("AB"));
    Received received(Bytes(whole.begin() + 21, whole.end()));

    EXPECT_EQ(0, m_module->process_route_message(header, aoe, &received.m_buf));
    ASSERT_EQ(1U, g_routeCalls.size());
    EXPECT_EQ(text("AB"), g_routeCalls[0].data);

    m_module->subscribe("limits", record_topic, this);
    Received body(pubsub_body("pub", "limits", text("AB")));
    EXPECT_EQ(0, m_module->process_subscribe_message(header, aoe, &body.m_buf));
    EXPECT_EQ(1U, g_topicCalls.size());
}

TEST_F(CompModuleTest, TheMessageCallbackDeliversToItsModule) {
    serve_port(600);
    Received received(forward_frame(600, 9, 1, 5));

    EXPECT_EQ(0, CompMessageCallback(&received.m_buf, m_module.get()));
    EXPECT_EQ(1U, g_routeCalls.size());
}

// ---- clients that come and go

std::string address_of(VirtualConn& conn) {
    char text[32];
    snprintf(text, sizeof text, "%p", static_cast<void*>(&conn));
    return text;
}

TEST_F(CompModuleTest, AClientComesWithItsFirstRequestAndIsFoundWithTheNext) {
    serve_port(600);
    watch_clients();
    LogCapture log;

    deliver(forward_frame(600, 9, 1, 5));
    deliver(forward_frame(600, 9, 2, 5));
    VirtualConn& slot = m_module->connTable[0];
    EXPECT_THAT(g_clients, ElementsAre("+5"));
    EXPECT_EQ(this, g_clientsUser);
    EXPECT_EQ(&slot, m_module->connMap.at(5));
    EXPECT_EQ(0, slot.connIndex);
    EXPECT_EQ(5, slot.clientFd);
    EXPECT_EQ(1U, slot.generation);
    EXPECT_EQ(m_module->netChannel, slot.channel);
    EXPECT_EQ(1, log.count("TRACE", "new virtual connection:" + address_of(slot) + ",client fd:5"));
    EXPECT_EQ(1,
              log.count("TRACE", "find virtual connection:" + address_of(slot) + ",client fd:5"));
    EXPECT_EQ(2, log.count_containing("virtual connection:"));
}

TEST_F(CompModuleTest, AClientIsKnownToTheApplicationBeforeItsRequestIs) {
    static std::vector<std::string> s_order;
    s_order.clear();
    ASSERT_EQ(0, m_routes.addSvrPortRoute(
                     600,
                     [](unsigned short, char const*, unsigned int, _msg_request, void*) {
                         s_order.push_back("request");
                     },
                     nullptr));
    watch_clients();
    static LogCapture* s_log;
    static CompModule* s_module;
    LogCapture log;
    s_log = &log;
    s_module = m_module.get();
    m_module->getconfig()->onConnect = [](VirtualConn* conn, void*) {
        EXPECT_TRUE(conn->IsOpen());
        EXPECT_EQ(conn, s_module->connMap.at(5));
        EXPECT_EQ(0, s_log->count_containing("new virtual connection"));
        s_order.push_back("client");
    };

    deliver(forward_frame(600, 9, 1, 5));
    EXPECT_THAT(s_order, ElementsAre("client", "request"));
    EXPECT_EQ(1, log.count_containing("new virtual connection"));
}

TEST_F(CompModuleTest, AClientThatLeavesFreesItsSlotAndItsFrameEndsThere) {
    serve_port(600);
    watch_clients();
    deliver(forward_frame(600, 9, 1, 5));
    g_routeCalls.clear();
    LogCapture log;

    deliver(leave_frame(600, 5));
    VirtualConn& slot = m_module->connTable[0];
    EXPECT_THAT(g_clients, ElementsAre("+5", "-5"));
    EXPECT_EQ(this, g_clientsUser);
    EXPECT_THAT(g_routeCalls, IsEmpty());
    EXPECT_TRUE(m_module->connMap.empty());
    EXPECT_FALSE(slot.IsOpen());
    EXPECT_EQ(2U, slot.generation);
    EXPECT_EQ(1, log.count("TRACE", "client fd:5 disconnect " + address_of(slot)));
}

TEST_F(CompModuleTest, AClientIsStillThereWhenItsEndIsTold) {
    serve_port(600);
    watch_clients();
    static CompModule* s_module;
    s_module = m_module.get();
    static LogCapture* s_log;
    LogCapture log;
    s_log = &log;
    m_module->getconfig()->onDisconnect = [](VirtualConn* conn, void*) {
        EXPECT_TRUE(conn->IsOpen());
        EXPECT_EQ(1U, s_module->connMap.count(5));
        EXPECT_EQ(0, s_log->count_containing("client fd:5 disconnect"));
        g_clients.push_back("told");
    };
    deliver(forward_frame(600, 9, 1, 5));

    deliver(leave_frame(600, 5));
    EXPECT_THAT(g_clients, ElementsAre("+5", "told"));
}

TEST_F(CompModuleTest, EveryOtherEventIsARequest) {
    serve_port(600);

    for (uint32_t const event : {0U, 2U, 0x100U, 0x01000000U, 0xffffffffU}) {
        SCOPED_TRACE(event);
        g_routeCalls.clear();
        deliver(forward_frame(600, 9, 1, 5, text("AB"), event));
        EXPECT_EQ(1U, g_routeCalls.size());
    }
    EXPECT_EQ(1U, m_module->connMap.size());
}

TEST_F(CompModuleTest, KeepsTakingALeaveEventOfAnUnknownClientForItsComing) {
    serve_port(600);
    watch_clients();

    deliver(leave_frame(600, 5));
    EXPECT_THAT(g_clients, ElementsAre("+5"));
    EXPECT_EQ(1U, m_module->connMap.count(5));
    EXPECT_EQ(1U, g_routeCalls.size());
}

TEST_F(CompModuleTest, ClientsAreServedWithoutCallbacksAndWithoutARecord) {
    serve_port(600);

    deliver(forward_frame(600, 9, 1, 5));
    deliver(leave_frame(600, 5));
    delete m_module->connConfig;
    m_module->connConfig = nullptr;
    deliver(forward_frame(600, 9, 1, 6));
    deliver(leave_frame(600, 6));
    EXPECT_EQ(2U, g_routeCalls.size());
    EXPECT_TRUE(m_module->connMap.empty());
}

TEST_F(CompModuleTest, KeepsQuietAboutLeavingClientsUnlessComingOnesAreWatched) {
    serve_port(600);
    watch_clients();
    m_module->getconfig()->onConnect = nullptr;

    deliver(forward_frame(600, 9, 1, 5));
    deliver(leave_frame(600, 5));
    EXPECT_THAT(g_clients, IsEmpty());
    EXPECT_TRUE(m_module->connMap.empty());
}

using CompModuleDeathTest = CompModuleTest;

TEST_F(CompModuleDeathTest, KeepsCallingAMissingDisconnectCallbackWhenConnectsAreWatched) {
    serve_port(600);
    watch_clients();
    m_module->getconfig()->onDisconnect = nullptr;
    deliver(forward_frame(600, 9, 1, 5));
    EXPECT_THAT(g_clients, ElementsAre("+5"));

    EXPECT_DEATH(deliver(leave_frame(600, 5)), "");
}

TEST_F(CompModuleTest, SlotsAreTakenFromTheLowestOn) {
    serve_port(600);
    for (uint16_t client = 10; client < 14; ++client) deliver(forward_frame(600, 9, 1, client));
    deliver(leave_frame(600, 12));
    deliver(leave_frame(600, 11));

    deliver(forward_frame(600, 9, 1, 20));
    deliver(forward_frame(600, 9, 1, 21));
    deliver(forward_frame(600, 9, 1, 22));
    EXPECT_EQ(1, m_module->connMap.at(20)->connIndex);
    EXPECT_EQ(2, m_module->connMap.at(21)->connIndex);
    EXPECT_EQ(4, m_module->connMap.at(22)->connIndex);
}

TEST_F(CompModuleTest, FreeSlotsAreHandedOutOpenUntilThereIsNone) {
    for (int i = 0; i < 500; ++i) {
        VirtualConn* const conn = m_module->GetFreeConn();
        ASSERT_EQ(&m_module->connTable[i], conn);
        EXPECT_EQ(i, conn->connIndex);
    }
    EXPECT_EQ(nullptr, m_module->GetFreeConn());

    EXPECT_EQ(-1, m_module->PutFreeConn(&m_module->connTable[123]));
    EXPECT_EQ(&m_module->connTable[123], m_module->GetFreeConn());
}

// Five hundred clients have come.
class FullCompModuleTest : public CompModuleTest {
protected:
    FullCompModuleTest() {
        SetLogLevel(LOG_LEVEL_DEBUG);
        serve_port(600);
        watch_clients();
        connect();
        for (uint16_t client = 1; client <= 500; ++client) {
            deliver(forward_frame(600, 9, 1, client));
        }
    }
};

TEST_F(FullCompModuleTest, TheFiveHundredthClientHasASlot) {
    EXPECT_EQ(500U, g_routeCalls.size());
    EXPECT_EQ(500U, m_module->connMap.size());
    EXPECT_EQ(&m_module->connTable[499], m_module->connMap.at(500));
}

TEST_F(FullCompModuleTest, TheNextClientIsRefusedAndNothingElseChanges) {
    g_routeCalls.clear();
    g_clients.clear();
    LogCapture log;

    deliver(forward_frame(600, 4, 7, 501, text("AB")));
    EXPECT_EQ(hex(answer_frame(600, 4, 7, 501, {}, KYP_ERR_CLIENT_LIMIT)), hex(m_server.receive()));
    EXPECT_EQ(1, log.count("WARNING",
                           "component:cmp refuse client fd:501,port:600,all 500 virtual "
                           "connections in use,code:0x101b,client num exceeded"));
    EXPECT_THAT(g_routeCalls, IsEmpty());
    EXPECT_THAT(g_clients, IsEmpty());
    EXPECT_EQ(500U, m_module->connMap.size());
    for (int i = 0; i < 500; ++i) EXPECT_EQ(1U, m_module->connTable[i].generation);

    deliver(forward_frame(600, 9, 2, 500));
    EXPECT_EQ(1U, g_routeCalls.size());
}

TEST_F(FullCompModuleTest, ARefusedClientThatLeavesHearsNothing) {
    LogCapture log;

    deliver(leave_frame(600, 501));
    EXPECT_EQ(1, log.count_containing("refuse client fd:501,"));
    EXPECT_EQ(500U, m_module->connMap.size());
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(FullCompModuleTest, AClientThatLeavesMakesRoomForAnother) {
    deliver(leave_frame(600, 17));
    g_clients.clear();

    deliver(forward_frame(600, 9, 1, 501));
    EXPECT_THAT(g_clients, ElementsAre("+501"));
    EXPECT_EQ(&m_module->connTable[16], m_module->connMap.at(501));
    EXPECT_EQ(501U, g_routeCalls.size());
}

TEST_F(CompModuleTest, KeepsALateAnswerGoingToWhomeverTheSlotServes) {
    serve_port(600);
    connect();
    deliver(forward_frame(600, 9, 7, 5));
    IConnection* const conn = g_routeCalls[0].request.conn;
    _AoEHeader const aoe = {0, utils_htonl(7), utils_htons(9), 0, 1};
    deliver(leave_frame(600, 5));

    EXPECT_EQ(2, conn->send_message(aoe, 600, "CD", 2, 1000));
    EXPECT_EQ(hex(answer_frame(600, 9, 7, 5, text("CD"))), hex(m_server.receive()));
    deliver(forward_frame(600, 9, 1, 6));
    EXPECT_EQ(2, conn->send_message(aoe, 600, "CD", 2, 1000));
    EXPECT_EQ(hex(answer_frame(600, 9, 7, 6, text("CD"))), hex(m_server.receive()));
}

// ---- the link's events

TEST_F(CompModuleTest, TheConnectCallbackLogsAndActsByItsCode) {
    struct Row {
        int code;
        char const* level;
        char const* text;
        uint32_t state;
    };
    constexpr uint32_t kBefore = kConstructed | kRegistered | kRoutePort;
    for (Row const row :
         {Row{5, "ERROR", "component:cmp and kypserver channel has been disconnected",
              kConstructed},
          Row{6, "DEBUG", "component:cmp connect timeout", kBefore},
          Row{1, "DEBUG", "component:cmp connect kypserver Success", kBefore | kConnected}}) {
        SCOPED_TRACE(row.code);
        m_module->state = kBefore;
        LogCapture log;

        EXPECT_EQ(0, CompConnectCallback(row.code, m_module.get()));
        EXPECT_EQ(1, log.count(row.level, row.text));
        EXPECT_EQ(row.state, state());
    }
}

TEST_F(CompModuleTest, TheConnectCallbackIgnoresEveryOtherCode) {
    LogCapture log;

    for (int const code : {0, 2, 3, 4, 7, 9, 10, -1, 0x1010}) {
        EXPECT_EQ(0, CompConnectCallback(code, m_module.get()));
    }
    EXPECT_EQ("", log.text());
    EXPECT_EQ(kConstructed, state());
}

TEST_F(CompModuleTest, ALostLinkClearsThreeBits) {
    m_module->state = kConnected | kRegistered | kRoutePort | kStarted;

    EXPECT_EQ(0, m_module->disconnect_event());
    EXPECT_EQ(kConstructed | kStarted, state());
}

TEST_F(CompModuleTest, KeepsItsClientsAcrossALostLink) {
    serve_port(600);
    deliver(forward_frame(600, 9, 1, 5));

    m_module->disconnect_event();
    EXPECT_EQ(1U, m_module->connMap.count(5));
    EXPECT_TRUE(m_module->connTable[0].IsOpen());
}

TEST_F(CompModuleTest, ANewLinkBeforeTheStartSetsItsBitAndSendsNothing) {
    m_module->cache_route_port(600);
    m_module->subscribe("limits", record_topic, this);
    connect();

    EXPECT_EQ(0, m_module->reconnect_event());
    EXPECT_EQ(kConstructed | kConnected, state());
    EXPECT_TRUE(nothing_was_sent());
}

// A component that is as if started, with two ports, two topics and a new link.
class ReconnectedCompModuleTest : public CompModuleTest {
protected:
    ReconnectedCompModuleTest() {
        m_module->cache_route_port(700);
        m_module->cache_route_port(600);
        m_module->subscribe("b", record_topic, this);
        m_module->subscribe("a", record_topic, this);
        connect();
        // The two subscriptions have used numbers up.
        m_module->dataLayer->invokeId = 1;
    }

    // What the component sends on the new link, which the server answers with `verdicts`.
    std::vector<Bytes> reconnect(uint32_t bits, std::vector<Bytes> const& verdicts, int result) {
        m_module->state = bits;
        auto frames = serve(verdicts, [&] { EXPECT_EQ(result, m_module->reconnect_event()); });
        EXPECT_EQ(0, m_module->publish("end", 0, 0, "", 0));
        for (;;) {
            Bytes const frame = m_server.receive();
            if (take_apart(frame).cmd == 8 || frame.empty()) return frames;
            frames.push_back(frame);
        }
    }
};

TEST_F(ReconnectedCompModuleTest, RegistersItselfItsPortsAndItsTopicsInThisOrder) {
    auto const frames = reconnect(kConstructed | kStarted,
                                  {verdict_frame(1), verdict_frame(3), verdict_frame(3)}, 0);

    EXPECT_THAT(frames, ElementsAre(register_frame(1, "cmp"), register_port_frame(2, "cmp", 700),
                                    register_port_frame(3, "cmp", 600), subscribe_frame(4, "a"),
                                    subscribe_frame(5, "b")));
}

TEST_F(ReconnectedCompModuleTest, KeepsTheBitsOfRegistrationAndPortsClear) {
    reconnect(kConstructed | kStarted, {verdict_frame(1), verdict_frame(3), verdict_frame(3)}, 0);

    EXPECT_EQ(kConstructed | kConnected | kStarted, state());
}

TEST_F(ReconnectedCompModuleTest, StaysUnregisteredAndQuietWhenTheServerRefuses) {
    auto const frames =
        reconnect(kConstructed | kStarted, {verdict_frame(1, KYP_ERR_COMPONENT_NAME_TAKEN)},
                  KYP_ERR_COMPONENT_NAME_TAKEN);

    EXPECT_THAT(frames, ElementsAre(register_frame(1, "cmp")));
    EXPECT_EQ(kConstructed | kConnected | kStarted, state());
}

TEST_F(ReconnectedCompModuleTest, KeepsTheRefusalOfANameToItself) {
    m_module->state = kConstructed | kStarted;

    serve({verdict_frame(1, KYP_ERR_COMPONENT_NAME_TAKEN)},
          [this] { EXPECT_EQ(0, CompConnectCallback(1, m_module.get())); });
    EXPECT_TRUE(m_module->netChannel->isconnected());
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(ReconnectedCompModuleTest, APortThatTheServerRefusesDoesNotHoldUpTheRest) {
    auto const frames = reconnect(
        kConstructed | kStarted,
        {verdict_frame(1), verdict_frame(3, KYP_ERR_ROUTE_REGISTERED), verdict_frame(3)}, 0);

    EXPECT_EQ(5U, frames.size());
    EXPECT_THAT(m_module->routePorts, ElementsAre(700, 600));
}

TEST_F(ReconnectedCompModuleTest, KeepsSilentAboutARegistrationWhoseBitIsSet) {
    auto const frames =
        reconnect(kConstructed | kStarted | kRegistered, {verdict_frame(3), verdict_frame(3)}, 0);

    EXPECT_THAT(frames,
                ElementsAre(register_port_frame(1, "cmp", 700), register_port_frame(2, "cmp", 600),
                            subscribe_frame(3, "a"), subscribe_frame(4, "b")));
}

TEST_F(ReconnectedCompModuleTest, KeepsSilentAboutPortsWhoseBitIsSet) {
    auto const frames = reconnect(kConstructed | kStarted | kRoutePort, {verdict_frame(1)}, 0);

    EXPECT_THAT(frames, ElementsAre(register_frame(1, "cmp"), subscribe_frame(2, "a"),
                                    subscribe_frame(3, "b")));
}

TEST_F(ReconnectedCompModuleTest, SendsTheTopicsAlsoWhenBothBitsAreSet) {
    auto const frames = reconnect(kConstructed | kStarted | kRegistered | kRoutePort, {}, 0);

    EXPECT_THAT(frames, ElementsAre(subscribe_frame(1, "a"), subscribe_frame(2, "b")));
    EXPECT_EQ(kConstructed | kConnected | kStarted | kRegistered | kRoutePort, state());
}

TEST_F(ReconnectedCompModuleTest, KeepsTheCallbacksOfItsTopics) {
    reconnect(kConstructed | kStarted | kRegistered | kRoutePort, {}, 0);

    deliver(delivery_frame(1, "b", text("AB")));
    ASSERT_EQ(1U, g_topicCalls.size());
    EXPECT_EQ(this, g_topicCalls[0].user);
}

}  // namespace
