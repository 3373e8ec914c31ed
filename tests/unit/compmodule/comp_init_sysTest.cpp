#include "compmodule/comp_init_sys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/ThreadPool.h"
#include "kypcore/router/RouteManage.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RecordingConn.h"
#include "utils/Log.h"

namespace {

using ::libkyp::compmodule::CCmpSysInit;
using ::libkyp::compmodule::EchoMsgRouterCallBack;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char const* kConfig = "/opt/kyp/libkyp.ini";

void write_config(std::string const& content) {
    std::ofstream(kConfig) << content;
}

bool is_directory(char const* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

PortRegister const& echo_port() {
    return utility::instance<RouteManage>().m_ports[100];
}

std::vector<CEventLoop*> const& loops() {
    return utility::instance<CEventManage>().m_vecLoops;
}

class CompInitTest : public ::testing::Test {
protected:
    CompInitTest() { SetLogLevel(LOG_LEVEL_TRACE); }

    CCmpSysInit m_init;
};

// ---- start-up ----------------------------------------------------------------------------------

TEST_F(CompInitTest, BeginsClear) {
    EXPECT_EQ(0U, m_init.refCount);
    EXPECT_EQ(nullptr, m_init.iniFile);
}

TEST_F(CompInitTest, IsOneForTheProcess) {
    EXPECT_EQ(&utility::instance<CCmpSysInit>(), &utility::instance<CCmpSysInit>());
}

TEST_F(CompInitTest, StartFillsThePoolMakesDirectoriesReadsTheFileAndEchoes) {
    write_config("[drive0]\nloglevel=info\n");
    ASSERT_FALSE(is_directory("/var/tmp/kyp/cmp"));
    LogCapture log;

    EXPECT_EQ(0, m_init.Initialize());

    EXPECT_EQ(3342336UL, utility::instance<client_bufpool>().m_totalSize);
    EXPECT_TRUE(is_directory("/var/tmp/kyp"));
    EXPECT_TRUE(is_directory("/var/tmp/kyp/cmp"));
    EXPECT_EQ("info", m_init.iniFile->GetString("drive0", "loglevel", ""));
    EXPECT_EQ(1, log.count("INFO", "load config:/opt/kyp/libkyp.ini"));
    EXPECT_EQ(0, log.count_containing("fail"));
    EXPECT_EQ(reinterpret_cast<void (*)()>(EchoMsgRouterCallBack), echo_port().m_callback);
    EXPECT_EQ(1, echo_port().m_bUsed);
}

TEST_F(CompInitTest, ThePoolIsFilledBeforeTheFileIsRead) {
    LogCapture log;

    ASSERT_EQ(0, m_init.Initialize());

    EXPECT_LT(log.text().find("init memory pool"), log.text().find("load config"));
}

TEST_F(CompInitTest, AMissingFileIsLoggedAndLeavesAnEmptyConfiguration) {
    LogCapture log;

    EXPECT_EQ(0, m_init.Initialize());

    EXPECT_EQ(1, log.count("INFO", "load config:/opt/kyp/libkyp.ini"));
    EXPECT_EQ(1, log.count("ERROR", "load config:/opt/kyp/libkyp.ini fail"));
    ASSERT_NE(nullptr, m_init.iniFile);
    EXPECT_THAT(m_init.iniFile->sections, IsEmpty());
    EXPECT_EQ(1, echo_port().m_bUsed);
}

TEST_F(CompInitTest, ASecondStartOnlyCounts) {
    ASSERT_EQ(0, m_init.Initialize());
    utility::IniFile const* const first = m_init.iniFile.get();
    LogCapture log;

    EXPECT_EQ(0, m_init.Initialize());

    EXPECT_EQ("", log.text());
    EXPECT_EQ(first, m_init.iniFile.get());
    EXPECT_EQ(2U, m_init.refCount);
}

TEST_F(CompInitTest, EveryStarterFindsTheWorkDone) {
    write_config("[drive0]\nloglevel=info\n");
    LogCapture log;
    std::vector<int> results(8, 1);
    std::vector<std::thread> starters;

    for (int& result : results) {
        starters.emplace_back([this, &result] {
            result = m_init.Initialize();
            if (m_init.iniFile == nullptr || echo_port().m_bUsed == 0) result = -1;
        });
    }
    for (std::thread& starter : starters) starter.join();

    EXPECT_THAT(results, ::testing::Each(0));
    EXPECT_EQ(8U, m_init.refCount);
    EXPECT_EQ(1, log.count_containing("load config"));
}

TEST_F(CompInitTest, LoadingAgainReplacesTheConfiguration) {
    write_config("[drive0]\nloglevel=info\n");
    ASSERT_EQ(0, m_init.LoadConfigfile());
    std::shared_ptr<utility::IniFile> const first = m_init.iniFile;
    write_config("[drive0]\nsched_priority=1\n");

    EXPECT_EQ(0, m_init.LoadConfigfile());

    EXPECT_NE(first, m_init.iniFile);
    EXPECT_EQ("none", m_init.iniFile->GetString("drive0", "loglevel", "none"));
    EXPECT_EQ(1U, m_init.iniFile->GetUInt32("drive0", "sched_priority", 0));
}

TEST_F(CompInitTest, AFileThatIsGoneLeavesAnEmptyConfigurationBehind) {
    write_config("[drive0]\nloglevel=info\n");
    ASSERT_EQ(0, m_init.LoadConfigfile());
    ASSERT_EQ(0, remove(kConfig));

    EXPECT_EQ(-1, m_init.LoadConfigfile());

    ASSERT_NE(nullptr, m_init.iniFile);
    EXPECT_THAT(m_init.iniFile->sections, IsEmpty());
}

TEST_F(CompInitTest, StepsReportSuccessAlsoWhenTheirWorkWasDoneBefore) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(0, m_init.InitMemPool());
        EXPECT_EQ(0, m_init.InitDomainDir());
        EXPECT_EQ(0, m_init.InitRouter());
    }
}

// ---- event loops and the end -------------------------------------------------------------------

// The workers of a process cannot be started a second time.
class CompEventLoopTest : public CompInitTest {
protected:
    void SetUp() override {
        if (m_used) GTEST_SKIP() << "needs a process of its own";
        m_used = true;
    }

    ~CompEventLoopTest() override {
        (void)utility::instance<CEventManage>().uninit_event_loop();
        (void)utility::instance<CThreadPool>().stop();
    }

    static bool m_used;
};
bool CompEventLoopTest::m_used = false;

TEST_F(CompEventLoopTest, NothingInTheStartRunsThem) {
    ASSERT_EQ(0, m_init.Initialize());

    EXPECT_THAT(loops(), IsEmpty());
    EXPECT_THAT(utility::instance<CThreadPool>().m_vecThreads, IsEmpty());
}

TEST_F(CompEventLoopTest, ThreeLoopsAndFourWorkersStartOnce) {
    LogCapture log;

    EXPECT_EQ(0, m_init.InitEventLoop(0));
    EXPECT_EQ(0, m_init.InitEventLoop(0));

    EXPECT_THAT(loops(), SizeIs(3));
    EXPECT_EQ(1, log.count("DEBUG", "ThreadPool Start 4 Thread"));
    EXPECT_THAT(utility::instance<CThreadPool>().m_vecThreads, SizeIs(4));
}

// Where the process may not use a real-time priority, the refusal tells that it was asked for.
TEST_F(CompEventLoopTest, ThePriorityReachesTheLoops) {
    LogCapture log;

    ASSERT_EQ(0, m_init.InitEventLoop(10));

    ASSERT_THAT(loops(), SizeIs(3));
    for (CEventLoop const* loop : loops()) {
        if (loop->m_thread == 0) {
            EXPECT_EQ(3, log.count_containing("pthread_create realtime thread fail"));
            continue;
        }
        int policy = -1;
        sched_param param{};
        ASSERT_EQ(0, pthread_getschedparam(loop->m_thread, &policy, &param));
        EXPECT_EQ(SCHED_FIFO, policy);
        EXPECT_EQ(10, param.sched_priority);
    }
}

TEST_F(CompEventLoopTest, OnlyTheLastUserStopsThem) {
    ASSERT_EQ(0, m_init.Initialize());
    ASSERT_EQ(0, m_init.Initialize());
    ASSERT_EQ(0, m_init.InitEventLoop(0));

    EXPECT_EQ(0, m_init.UnInitialize());
    EXPECT_THAT(loops(), SizeIs(3));
    EXPECT_FALSE(CThreadPool::m_shutdown);

    EXPECT_EQ(0, m_init.UnInitialize());
    EXPECT_THAT(loops(), IsEmpty());
    EXPECT_TRUE(CThreadPool::m_shutdown);
    EXPECT_THAT(utility::instance<CThreadPool>().m_vecThreads, IsEmpty());
}

TEST_F(CompEventLoopTest, KeepsStoppingTheWorkersThatItNeverStarted) {
    ASSERT_EQ(0, m_init.Initialize());
    LogCapture log;

    EXPECT_EQ(0, m_init.UnInitialize());

    EXPECT_EQ(1, log.count("INFO", "work threads stop success"));
    EXPECT_TRUE(CThreadPool::m_shutdown);
}

TEST_F(CompEventLoopTest, KeepsANewStartBehindTheLastUserFromDoingAnything) {
    write_config("[drive0]\nloglevel=info\n");
    ASSERT_EQ(0, m_init.Initialize());
    ASSERT_EQ(0, m_init.InitEventLoop(0));
    ASSERT_EQ(0, m_init.UnInitialize());
    write_config("[drive0]\nloglevel=error\n");
    LogCapture log;

    EXPECT_EQ(0, m_init.Initialize());
    EXPECT_EQ(0, m_init.InitEventLoop(0));

    EXPECT_EQ("", log.text());
    EXPECT_EQ(1U, m_init.refCount);
    EXPECT_EQ("info", m_init.iniFile->GetString("drive0", "loglevel", ""));
    EXPECT_EQ(1, echo_port().m_bUsed);
    EXPECT_THAT(loops(), IsEmpty());
    EXPECT_THAT(utility::instance<CThreadPool>().m_vecThreads, IsEmpty());
}

// ---- settings ----------------------------------------------------------------------------------

class CompSettingsTest : public CompInitTest {
protected:
    CompSettingsTest() { m_conf.cmpName = "drive0"; }

    int read_settings(std::string const& content) {
        write_config(content);
        (void)m_init.LoadConfigfile();
        return m_init.GetCmpConfigParam(&m_conf);
    }

    _CmpSysParamConf m_conf;
};

TEST_F(CompSettingsTest, ComeFromTheComponentsSectionAndThatOfSharedMemory) {
    ASSERT_EQ(0, read_settings("[drive1]\nloglevel=error\n"
                               "[drive0]\nloglevel=info\nivshm_enable=true\nivshm_group=2\n"
                               "sched_priority=40\n"
                               "[ivshm]\ngroup1_maxsize=1\ngroup2_maxsize=6000000\n"));

    EXPECT_EQ(LOG_LEVEL_INFO, m_conf.loglevel);
    EXPECT_TRUE(m_conf.ivshm_enable);
    EXPECT_EQ(2, m_conf.ivshm_group);
    EXPECT_EQ(6000000, m_conf.ivshm_maxsize);
    EXPECT_EQ(40U, m_conf.sched_priority);
    EXPECT_EQ("drive0", m_conf.cmpName);
}

TEST_F(CompSettingsTest, AComponentWithoutASectionGetsTheDefaults) {
    m_conf.loglevel = 99;
    m_conf.ivshm_enable = true;
    m_conf.ivshm_group = 99;
    m_conf.sched_priority = 99;

    ASSERT_EQ(0, read_settings("[drive1]\nloglevel=error\nivshm_enable=true\n"));

    EXPECT_EQ(LOG_LEVEL_DEBUG, m_conf.loglevel);
    EXPECT_FALSE(m_conf.ivshm_enable);
    EXPECT_EQ(-1, m_conf.ivshm_group);
    EXPECT_EQ(0U, m_conf.sched_priority);
}

TEST_F(CompSettingsTest, LogLevelsAreReadWithoutRegardToCase) {
    struct Row {
        char const* written;
        int level;
    };
    for (Row const& row :
         {Row{"trace", 0}, Row{"debug", 1}, Row{"info", 2}, Row{"warn", 4}, Row{"error", 8},
          Row{"critical", 16}, Row{"notice", 32}, Row{"TRACE", 0}, Row{"Info", 2}, Row{"ERROR", 8},
          Row{"fatal", 1}, Row{"warning", 1}, Row{"2", 1}, Row{"", 1}, Row{"traces", 1}}) {
        SCOPED_TRACE(row.written);
        m_conf.loglevel = 99;

        ASSERT_EQ(0, read_settings(std::string("[drive0]\nloglevel=") + row.written + "\n"));

        EXPECT_EQ(row.level, m_conf.loglevel);
    }
}

TEST_F(CompSettingsTest, SharedMemoryWithoutASizeGetsTheDefault) {
    ASSERT_EQ(0, read_settings("[drive0]\nivshm_enable=1\nivshm_group=1\n"));

    EXPECT_EQ(5248000, m_conf.ivshm_maxsize);
}

TEST_F(CompSettingsTest, KeepsAskingForGroupMinusOneWhenNoGroupIsNamed) {
    ASSERT_EQ(0, read_settings("[drive0]\nivshm_enable=true\n[ivshm]\ngroup-1_maxsize=77\n"));
    EXPECT_EQ(-1, m_conf.ivshm_group);
    EXPECT_EQ(77, m_conf.ivshm_maxsize);

    ASSERT_EQ(0, read_settings("[drive0]\nivshm_enable=true\n[ivshm]\ngroup0_maxsize=77\n"));
    EXPECT_EQ(5248000, m_conf.ivshm_maxsize);
}

TEST_F(CompSettingsTest, KeepsTheSizeAsItWasWithoutSharedMemory) {
    ASSERT_EQ(0, read_settings("[drive0]\nivshm_group=2\n[ivshm]\ngroup2_maxsize=6000000\n"));

    EXPECT_EQ(2, m_conf.ivshm_group);
    EXPECT_EQ(0x500000, m_conf.ivshm_maxsize);
}

TEST_F(CompSettingsTest, TheWidestGroupNumberHasItsKey) {
    ASSERT_EQ(0, read_settings("[drive0]\nivshm_enable=true\nivshm_group=-2147483648\n"
                               "[ivshm]\ngroup-2147483648_maxsize=5\n"));

    EXPECT_EQ(5, m_conf.ivshm_maxsize);
}

TEST_F(CompSettingsTest, KeepsLevelAndPriorityUnapplied) {
    int policy = -1;
    sched_param before{};
    ASSERT_EQ(0, pthread_getschedparam(pthread_self(), &policy, &before));

    ASSERT_EQ(0, read_settings("[drive0]\nloglevel=error\nsched_priority=40\n"));

    LogCapture log;
    KYP_LOG(LOG_LEVEL_DEBUG, "still shown");
    EXPECT_EQ(1, log.count("DEBUG", "still shown"));
    sched_param after{};
    ASSERT_EQ(0, pthread_getschedparam(pthread_self(), &policy, &after));
    EXPECT_EQ(before.sched_priority, after.sched_priority);
    EXPECT_EQ(SCHED_OTHER, policy);
}

TEST_F(CompSettingsTest, AreLoggedWithTheLevelAsItIsWritten) {
    LogCapture log;

    ASSERT_EQ(0, read_settings("[drive0]\nloglevel=Fatal\nivshm_enable=TRUE\nivshm_group=1\n"
                               "sched_priority=40\n[ivshm]\ngroup1_maxsize=4096\n"));

    EXPECT_EQ(1, log.count("INFO",
                           "cmp:drive0,loglevel:Fatal,sched_priority:40,"
                           "<<ivshm_enable:1,group:1,maxsize:4096>>"));
}

TEST_F(CompSettingsTest, DefaultsAreLoggedLikeSettings) {
    LogCapture log;

    ASSERT_EQ(0, read_settings(""));

    EXPECT_EQ(1, log.count("INFO",
                           "cmp:drive0,loglevel:debug,sched_priority:0,"
                           "<<ivshm_enable:0,group:-1,maxsize:5242880>>"));
}

TEST_F(CompSettingsTest, AreRefusedWithoutARecord) {
    ASSERT_EQ(0, m_init.Initialize());

    EXPECT_EQ(-1, m_init.GetCmpConfigParam(nullptr));
}

TEST_F(CompSettingsTest, AreRefusedBeforeTheStart) {
    m_conf.loglevel = 99;

    EXPECT_EQ(-1, m_init.GetCmpConfigParam(&m_conf));

    EXPECT_EQ(99, m_conf.loglevel);
}

// ---- the echo ----------------------------------------------------------------------------------

TEST(CompEchoTest, AnswersWithTheRequestsDataCommandIdAndError) {
    RecordingConn conn;
    _msg_request const request = {1, 9, 0x01020304, 5, 6, 0x2001, &conn};

    EchoMsgRouterCallBack(100, "AB", 2, request, nullptr);

    ASSERT_THAT(conn.m_answers, SizeIs(1));
    EXPECT_EQ("00 00 20 01 01 02 03 04 00 09 00 00 01", hex(conn.m_answers[0].aoe));
    EXPECT_EQ(100, conn.m_answers[0].port);
    EXPECT_EQ("AB", as_text(conn.m_answers[0].data));
    EXPECT_EQ(1000, conn.m_answers[0].timeoutMs);
}

TEST(CompEchoTest, AnswersAnEmptyRequest) {
    RecordingConn conn;

    EchoMsgRouterCallBack(100, nullptr, 0, {1, 2, 3, 0, 0, 0, &conn}, nullptr);

    ASSERT_THAT(conn.m_answers, SizeIs(1));
    EXPECT_THAT(conn.m_answers[0].data, IsEmpty());
}

TEST(CompEchoTest, LeavesARequestFromNowhereAlone) {
    EchoMsgRouterCallBack(100, "AB", 2, {1, 9, 3, 0, 0, 0, nullptr}, nullptr);
}

TEST_F(CompInitTest, Port100EchoesFromTheStart) {
    ASSERT_EQ(0, m_init.Initialize());
    RecordingConn conn;
    _KypHeader header = {0, 1, 100, 0};
    _AoEHeader aoe = {0, utils_htonl(7), utils_htons(9), 0, 0};
    AoERequestHeader address = {};
    Bytes payload = text("hello");

    EXPECT_EQ(0, utility::instance<RouteManage>().comp_datacallback(
                     payload.data(), static_cast<int>(payload.size()), header, aoe, address,
                     static_cast<IConnection*>(&conn)));

    ASSERT_THAT(conn.m_answers, SizeIs(1));
    EXPECT_EQ("00 00 00 00 00 00 00 07 00 09 00 00 01", hex(conn.m_answers[0].aoe));
    EXPECT_EQ("hello", as_text(conn.m_answers[0].data));
}

}  // namespace
