#include "libkyp/libkypCmp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "LibkypCmpFixture.h"
#include "utils/comm.h"

namespace {

using ::libkyp::compmodule::CCmpSysInit;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

void no_route(unsigned short, char const*, unsigned int, _msg_request, void*) {}

void no_topic(unsigned int, unsigned int, char const*, char const*, unsigned int, void*) {}

// ---- start -------------------------------------------------------------------------------------

class LibkypCmpInitTest : public ::testing::Test {
protected:
    LibkypCmpInitTest() { SetLogLevel(LOG_LEVEL_TRACE); }

    static CCmpSysInit& start_up() { return utility::instance<CCmpSysInit>(); }
};

TEST_F(LibkypCmpInitTest, EachCallLogsTheVersion) {
    LogCapture log;

    EXPECT_EQ(0, libkypcmp_init());
    EXPECT_EQ(0, libkypcmp_init());

    EXPECT_EQ(2, log.count("NOTICE", "libkypcomp Version 0.3.1"));
    EXPECT_EQ(2, log.count("NOTICE", "libkypcomp Compile Time:" + CComm::GetCompileTime()));
}

TEST_F(LibkypCmpInitTest, LogsTheVersionByTheThresholdThatStandsThen) {
    SetLogLevel(LOG_LEVEL_COMM);
    LogCapture log;

    ASSERT_EQ(0, libkypcmp_init());

    EXPECT_EQ(0, log.count_containing("libkypcomp"));
}

TEST_F(LibkypCmpInitTest, KeepsTheThresholdAtDebugWhateverTheFileSays) {
    std::ofstream("/opt/kyp/libkyp.ini") << "[drive0]\nloglevel=error\n";
    ASSERT_EQ(0, libkypcmp_init());
    LogCapture log;

    KYP_LOG(LOG_LEVEL_TRACE, "below the threshold");
    KYP_LOG(LOG_LEVEL_DEBUG, "at the threshold");

    EXPECT_EQ(0, log.count("TRACE", "below the threshold"));
    EXPECT_EQ(1, log.count("DEBUG", "at the threshold"));
}

TEST_F(LibkypCmpInitTest, ClearsTheStatusEachTime) {
    for (int round = 0; round < 2; ++round) {
        tlsErrno = KYP_ERR_TOPIC;
        ASSERT_EQ(0, libkypcmp_init());
        EXPECT_EQ(0, libkypcmp_get_errno());
    }
}

TEST_F(LibkypCmpInitTest, EachCallCountsAsAUser) {
    uint32_t const before = start_up().refCount;

    ASSERT_EQ(0, libkypcmp_init());
    ASSERT_EQ(0, libkypcmp_init());

    EXPECT_EQ(before + 2, start_up().refCount);
    struct stat status {};
    EXPECT_EQ(0, stat("/var/tmp/kyp/cmp", &status));
    EXPECT_NE(nullptr, start_up().iniFile);
}

// ---- status ------------------------------------------------------------------------------------

TEST_F(LibkypCmpTest, StatusIsThatOfTheCallingThread) {
    tlsErrno = KYP_ERR_HANDLE;
    int elsewhere = -1;

    std::thread([&elsewhere] { elsewhere = libkypcmp_get_errno(); }).join();

    EXPECT_EQ(0, elsewhere);
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, StatusHasAText) {
    EXPECT_STREQ("port 1~500 system reserved", libkypcmp_strerror(0x1012));
    EXPECT_STREQ("invaild handler", libkypcmp_strerror(0x2001));
    EXPECT_STREQ("invaild input param", libkypcmp_strerror(0x2004));
    EXPECT_STREQ("same component name already register,kypserver refuse register",
                 libkypcmp_strerror(0x4003));
    EXPECT_STREQ("component name is illegal", libkypcmp_strerror(0x4005));
    EXPECT_STREQ("kyp server is offline", libkypcmp_strerror(0x4007));
    EXPECT_STREQ("Unknown error code", libkypcmp_strerror(0x4008));
}

TEST_F(LibkypCmpTest, AskingForTheStatusLeavesIt) {
    tlsErrno = KYP_ERR_TOPIC;

    (void)libkypcmp_strerror(5);

    EXPECT_EQ(KYP_ERR_TOPIC, libkypcmp_get_errno());
    EXPECT_EQ(KYP_ERR_TOPIC, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, AnUnknownHandleIsReportedAndNotFollowed) {
    struct Row {
        char const* name;
        std::function<int(void*)> call;
    };
    for (Row const& row :
         {Row{"addrouter", [](void* h) { return libkypcmp_addrouter(h, 501, no_route, nullptr); }},
          Row{"loop_start", [](void* h) { return libkypcmp_loop_start(h); }},
          Row{"loop_stop", [](void* h) { return libkypcmp_loop_stop(h); }},
          Row{"publish", [](void* h) { return libkypcmp_publish(h, 0, 0, "t", "", 0); }},
          Row{"subscribe", [](void* h) { return libkypcmp_subscribe(h, "t", no_topic, nullptr); }},
          Row{"unsubscribe", [](void* h) { return libkypcmp_unsubscribe(h, "t"); }},
          Row{"destory", [](void* h) { return libkypcmp_destory(h); }},
          Row{"getconfig", [](void* h) {
                  EXPECT_EQ(nullptr, libkypcmp_getconfig(h));
                  return libkypcmp_get_errno();
              }}}) {
        SCOPED_TRACE(row.name);
        for (void* handle : {unknown_handle(), static_cast<void*>(nullptr)}) {
            tlsErrno = KYP_OK;
            EXPECT_EQ(KYP_ERR_HANDLE, row.call(handle));
            EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_get_errno());
        }
    }
}

TEST_F(LibkypCmpTest, EntriesClearTheStatusOfAnEarlierCall) {
    void* const handle = register_named("drive0");
    ASSERT_NE(nullptr, handle);
    struct Row {
        char const* name;
        std::function<void()> call;
    };
    for (Row const& row :
         {Row{"getconfig", [&] { (void)libkypcmp_getconfig(handle); }},
          Row{"loop_stop", [&] { (void)libkypcmp_loop_stop(handle); }},
          Row{"register", [&] { (void)libkypcmp_register(nullptr, nullptr, nullptr, &m_err); }},
          Row{"loop_start", [&] { (void)libkypcmp_loop_start(handle); }}}) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_ERR_TOPIC;

        row.call();

        EXPECT_EQ(0, libkypcmp_get_errno());
    }
}

// ---- registration ------------------------------------------------------------------------------

TEST_F(LibkypCmpTest, KeepsTheStatusAtZeroWithoutAnInfo) {
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(nullptr, libkypcmp_register(nullptr, nullptr, nullptr, &m_err));

    EXPECT_EQ(KYP_ERR_INPUT_PARAM, m_err);
    EXPECT_EQ(0, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, ABadNameIsRefused) {
    for (std::string const& name :
         {std::string(), std::string("a b"), std::string(" a"), std::string("a\n"),
          std::string("a.b"), std::string("a/b"), std::string("a%d"), std::string("dr\xc3\xa4ht"),
          std::string("["), std::string("`"), std::string("{"), std::string("@"), std::string(":"),
          std::string(32, 'a')}) {
        SCOPED_TRACE(name);
        LogCapture log;
        tlsErrno = KYP_OK;

        EXPECT_EQ(nullptr, register_named(name));

        EXPECT_EQ(KYP_ERR_COMPONENT_NAME, m_err);
        EXPECT_EQ(KYP_ERR_COMPONENT_NAME, libkypcmp_get_errno());
        EXPECT_EQ("", log.text());
    }
    EXPECT_THAT(manager().m_modules, IsEmpty());
}

TEST_F(LibkypCmpTest, AGoodNameIsAccepted) {
    for (std::string const& name : {std::string("drive-0_A"), std::string("a"), std::string("Z"),
                                    std::string("0"), std::string("9"), std::string("_"),
                                    std::string("-"), std::string("z-A"), std::string(31, 'a')}) {
        SCOPED_TRACE(name);

        void* const handle = register_named(name);

        ASSERT_NE(nullptr, handle);
        EXPECT_EQ(name, module(handle).drvInfo.name);
    }
}

TEST_F(LibkypCmpTest, WithoutAServerAComponentComesAndIsNotRegistered) {
    tlsErrno = KYP_OK;

    void* const handle = register_named("drive0");

    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(KYP_ERR_SERVER_OFFLINE, m_err);
    EXPECT_EQ(KYP_ERR_SERVER_OFFLINE, libkypcmp_get_errno());
    EXPECT_EQ(handle, manager().GetCmpServerFromHandler(handle));
}

TEST_F(LibkypCmpTest, KeepsCallbackAndArgumentWithoutUsingThem) {
    tagCmpDrvInfo info = named("drive0");
    auto const callback = [](unsigned int, char const*, unsigned int, void* called) -> int {
        *static_cast<bool*>(called) = true;
        return 0;
    };
    bool called = false;

    void* const handle = libkypcmp_register(&info, callback, &called, &m_err);

    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(&called, module(handle).registerArg);
    EXPECT_EQ(static_cast<KypCmpCallback>(callback), module(handle).registerCallback);
    EXPECT_FALSE(called);
}

TEST_F(LibkypCmpLinkTest, ARegistrationGoesOutWithNameAndWords) {
    tagCmpDrvInfo info = named("drive0", 0x11, 0x22);
    void* handle = nullptr;
    m_err = -1;
    tlsErrno = KYP_ERR_TOPIC;

    Bytes const request = served(
        verdict_frame(1), [&] { handle = libkypcmp_register(&info, nullptr, nullptr, &m_err); });

    EXPECT_EQ(
        "00 01 66 00 2C 00 00 00 "                 // port 102, 44 bytes follow
        "00 00 00 00 00 00 00 01 00 09 00 00 00 "  // id 1, command 9
        "00 00 00 00 00 00 00 00 "
        "00 01 00 00 00 00 00 06 00 11 00 00 00 22 00 00 00 64 72 69 76 65 30",
        hex(request));
    EXPECT_NE(nullptr, handle);
    EXPECT_EQ(0, m_err);
    EXPECT_EQ(0, libkypcmp_get_errno());
}

TEST_F(LibkypCmpLinkTest, AMissingConfigurationIsNoObstacle) {
    (void)remove("/opt/kyp/libkyp.ini");
    LogCapture log;
    ASSERT_EQ(-1, utility::instance<CCmpSysInit>().LoadConfigfile());

    EXPECT_NE(nullptr, registered("drive0"));

    EXPECT_EQ(0, m_err);
    EXPECT_EQ(1, log.count("ERROR", "load config:/opt/kyp/libkyp.ini fail"));
    EXPECT_EQ(1, log.count_containing("cmp:drive0,loglevel:debug"));
    EXPECT_EQ(1, log.count("DEBUG", "component drive0 register cmd:1 success"));
}

TEST_F(LibkypCmpLinkTest, SharedMemoryThatIsNotThereIsNoObstacle) {
    std::ofstream("/opt/kyp/libkyp.ini") << "[drive0]\nivshm_enable=true\nivshm_group=7\n";
    ASSERT_EQ(0, utility::instance<CCmpSysInit>().LoadConfigfile());

    EXPECT_NE(nullptr, registered("drive0"));

    EXPECT_EQ(0, m_err);
}

TEST_F(LibkypCmpLinkTest, ATakenNameIsRefusedAndTheFirstComponentStaysInService) {
    void* const first = registered("drive0");
    ASSERT_NE(nullptr, first);
    RawPeer firstPeer = std::move(m_server->peer());
    LogCapture log;
    void* second = first;

    served(verdict_frame(1, 0x4003), [&] { second = register_named("drive0"); });

    EXPECT_EQ(nullptr, second);
    EXPECT_EQ(KYP_ERR_COMPONENT_NAME_TAKEN, m_err);
    EXPECT_EQ(KYP_ERR_COMPONENT_NAME_TAKEN, libkypcmp_get_errno());
    EXPECT_EQ(1, log.count("ERROR",
                           "component drive0 register cmd:1 fail,error:same component name already "
                           "register,kypserver refuse register,code:16387"));
    EXPECT_TRUE(m_server->peer().expect_closed());
    EXPECT_THAT(manager().m_modules, SizeIs(1));

    EXPECT_EQ(0, libkypcmp_publish(first, 1, 2, "topic", "x", 1));
    EXPECT_EQ(hex(publish_frame(2, "topic", text("x"), 1, 2)), hex(firstPeer.receive_frame()));
}

TEST_F(LibkypCmpLinkTest, KeepsAComponentThatIsRefusedForAnythingButItsName) {
    void* handle = nullptr;

    served(verdict_frame(1, 0x4001), [&] { handle = register_named("drive0"); });

    EXPECT_NE(nullptr, handle);
    EXPECT_EQ(0x4001, m_err);
}

TEST_F(LibkypCmpLinkTest, AServerThatClosesInsteadOfAnsweringLeavesAComponent) {
    void* handle = nullptr;
    std::thread server([&] {
        m_server->accept();
        m_server->receive();
        m_server->peer().close();
    });

    handle = register_named("drive0");
    server.join();

    EXPECT_NE(nullptr, handle);
    EXPECT_EQ(KYP_ERR_DISCONNECTED, m_err);
}

TEST_F(LibkypCmpLinkTest, AServerThatDoesNotAnswerLeavesAComponent) {
    void* const handle = register_named("drive0");

    EXPECT_NE(nullptr, handle);
    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, m_err);
    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkypcmp_get_errno());
}

TEST_F(LibkypCmpTest, TheRecordOfClientCallbacksIsTheComponentsOwn) {
    void* const handle = register_named("drive0");

    CmpConnConfig* const config = libkypcmp_getconfig(handle);

    ASSERT_NE(nullptr, config);
    EXPECT_EQ(1U, config->mode);
    EXPECT_EQ(handle, config->owner);
    EXPECT_EQ(nullptr, config->onConnect);
    EXPECT_EQ(nullptr, config->onDisconnect);
    EXPECT_EQ(nullptr, config->userData);
    EXPECT_EQ(config, libkypcmp_getconfig(handle));
}

// ---- end ---------------------------------------------------------------------------------------

TEST_F(LibkypCmpLinkTest, AStopBeforeAnyStartReturns) {
    void* const handle = registered("drive0");

    EXPECT_EQ(0, libkypcmp_loop_stop(handle));
    EXPECT_EQ(0, libkypcmp_get_errno());
}

TEST_F(LibkypCmpLinkTest, DestroyingClosesTheLinkAndVoidsTheHandle) {
    void* const handle = registered("drive0");
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkypcmp_destory(handle));

    EXPECT_TRUE(m_server->peer().expect_closed());
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_loop_start(handle));
    EXPECT_EQ(nullptr, libkypcmp_getconfig(handle));
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_destory(handle));
}

TEST_F(LibkypCmpLinkTest, TheEndDestroysEveryComponentAndTakesAUserAway) {
    void* const first = registered("drive0");
    RawPeer firstPeer = std::move(m_server->peer());
    void* const second = registered("drive1");
    ASSERT_EQ(0, libkypcmp_init());
    uint32_t const users = utility::instance<CCmpSysInit>().refCount;
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkypcmp_finit());

    EXPECT_EQ(KYP_ERR_TOPIC, libkypcmp_get_errno());
    EXPECT_EQ(users - 1, utility::instance<CCmpSysInit>().refCount);
    EXPECT_TRUE(firstPeer.expect_closed());
    EXPECT_TRUE(m_server->peer().expect_closed());
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_destory(first));
    EXPECT_EQ(KYP_ERR_HANDLE, libkypcmp_destory(second));
}

TEST_F(LibkypCmpLinkTest, ComponentsMayBeMadeBehindTheEnd) {
    ASSERT_EQ(0, libkypcmp_init());
    ASSERT_EQ(0, libkypcmp_finit());

    EXPECT_NE(nullptr, registered("drive0"));
    EXPECT_EQ(0, m_err);
}

// The three calls that wait for a started component. Each has a thread of its own here, which a way
// into the component that applications do not have brings back in the end.
class LibkypCmpStopTest : public LibkypCmpLinkTest {
protected:
    void expect_endless(std::function<void(void*)> const& stop) {
        void* const handle = registered("drive0");
        ASSERT_NE(nullptr, handle);
        m_stopFlag = &module(handle).dataLayer->stopFlag;
        ASSERT_EQ(0, add_served_router(handle, 610, wait_at_gate, this));
        ASSERT_EQ(0, add_served_router(handle, 611, end_thread_from_within, this));
        ASSERT_EQ(0, libkypcmp_loop_start(handle));

        // While the receive thread is held in a callback, what the stop does to it shows.
        ASSERT_TRUE(m_server->send(forward_frame(610, 9, 1, 5)));
        ASSERT_TRUE(eventually([&] { return m_atGate.load(); }));
        *m_stopFlag = true;
        std::atomic<bool> returned{false};
        std::thread stopper([&] {
            stop(handle);
            returned = true;
        });
        EXPECT_TRUE(eventually([&] { return !*m_stopFlag; }));
        m_gateOpen = true;

        expect_echoes(20);
        EXPECT_FALSE(returned);
        ASSERT_TRUE(m_server->send(forward_frame(611, 9, 1, 5)));
        stopper.join();
    }

private:
    static void wait_at_gate(unsigned short, char const*, unsigned int, _msg_request, void* self) {
        auto& test = *static_cast<LibkypCmpStopTest*>(self);
        test.m_atGate = true;
        EXPECT_TRUE(eventually([&] { return test.m_gateOpen.load(); }));
    }

    static void end_thread_from_within(unsigned short, char const*, unsigned int, _msg_request,
                                       void* self) {
        *static_cast<LibkypCmpStopTest*>(self)->m_stopFlag = true;
    }

    void expect_echoes(uint32_t count) {
        for (uint32_t id = 1; id <= count; ++id) {
            EXPECT_TRUE(m_server->send(forward_frame(100, 9, id, 5, text("echo"))));
            EXPECT_EQ(hex(answer_frame(100, 9, id, 5, text("echo"))), hex(m_server->receive()));
        }
    }

    std::atomic<bool>* m_stopFlag = nullptr;  // the component's
    std::atomic<bool> m_atGate{false};
    std::atomic<bool> m_gateOpen{false};
};

TEST_F(LibkypCmpStopTest, KeepsAStopOfAStartedComponentFromReturning) {
    expect_endless([](void* handle) { EXPECT_EQ(0, libkypcmp_loop_stop(handle)); });
}

TEST_F(LibkypCmpStopTest, KeepsTheDestructionOfAStartedComponentFromReturning) {
    expect_endless([](void* handle) { EXPECT_EQ(0, libkypcmp_destory(handle)); });
}

TEST_F(LibkypCmpStopTest, KeepsTheEndWithAStartedComponentFromReturning) {
    ASSERT_EQ(0, libkypcmp_init());
    expect_endless([](void*) { EXPECT_EQ(0, libkypcmp_finit()); });
}

// How an application ends instead: it leaves its process.
using LibkypCmpDeathTest = LibkypCmpTest;

TEST_F(LibkypCmpDeathTest, AProcessLeavesItsStartedComponentByExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto const serve_and = [this](void (*leave)(int)) {
        void* const handle = register_named("drive0");
        if (libkypcmp_loop_start(handle) == 0) leave(7);
    };

    EXPECT_EXIT(serve_and(exit), ::testing::ExitedWithCode(7), "");
    EXPECT_EXIT(serve_and(_exit), ::testing::ExitedWithCode(7), "");
}

}  // namespace
