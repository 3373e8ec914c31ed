#include "libkyp/libkyp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "LibkypFixture.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "utils/comm.h"

namespace {

using ::testing::IsEmpty;

// ---- version and status ------------------------------------------------------------------------

TEST_F(LibkypTest, VersionIsZeroThreeOne) {
    int major = -1;
    int minor = -1;
    int patch = -1;

    EXPECT_EQ(0, libkyp_version(&major, &minor, &patch));
    EXPECT_EQ(0, major);
    EXPECT_EQ(3, minor);
    EXPECT_EQ(1, patch);
}

TEST_F(LibkypTest, StatusIsThatOfTheCallingThread) {
    tlsErrno = KYP_ERR_HANDLE;
    int elsewhere = -1;

    std::thread([&elsewhere] { elsewhere = libkyp_get_errno(); }).join();

    EXPECT_EQ(0, elsewhere);
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
}

TEST_F(LibkypTest, StatusHasAText) {
    EXPECT_STREQ("No Error", libkyp_strerror(0));
    EXPECT_STREQ("connection pending", libkyp_strerror(2));
    EXPECT_STREQ("invaild handler", libkyp_strerror(0x2001));
    EXPECT_STREQ("Unknown error code", libkyp_strerror(0x3007));
    EXPECT_STREQ("Unknown error code", libkyp_strerror(-1));
}

TEST_F(LibkypTest, AskingForTheStatusLeavesIt) {
    tlsErrno = KYP_ERR_HANDLE;

    (void)libkyp_strerror(5);

    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_get_errno());
}

TEST_F(LibkypTest, EntriesClearTheStatusOfAnEarlierCall) {
    int n = 0;
    _KypDeviceId id{};
    _KypDeviceAddr address{};
    struct Row {
        char const* name;
        std::function<void()> call;
    };
    for (Row const& row :
         {Row{"version", [&] { libkyp_version(&n, &n, &n); }},
          Row{"destory", [&] { libkyp_destory(); }},
          Row{"createInstanceEx",
              [&] { libkyp_createInstanceEx(nullptr, KYP_CONN_DOMAIN, 100, nullptr, nullptr); }},
          Row{"createInstance", [&] { libkyp_createInstance(&m_loopback, 2); }},
          Row{"makeKypDeviceId", [&] { libkyp_makeKypDeviceId("1", &id); }},
          Row{"makeKypDeviceAddr", [&] { libkyp_makeKypDeviceAddr("1", 1, &address); }},
          Row{"getLocalKypDeviceId", [&] { libkyp_getLocalKypDeviceId(&id); }}}) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_ERR_TOPIC;

        row.call();

        EXPECT_EQ(0, libkyp_get_errno());
    }
}

// ---- start and end -----------------------------------------------------------------------------

// The start happens once per process: each of these tests wants a process of its own.
class LibkypInitTest : public LibkypTest {
protected:
    void SetUp() override {
        if (m_started) GTEST_SKIP() << "the library was started in this process already";
        m_started = true;
    }

    static bool m_started;
};
bool LibkypInitTest::m_started = false;

TEST_F(LibkypInitTest, LogsTheVersionOnce) {
    LogCapture log;

    EXPECT_EQ(0, libkyp_init());
    EXPECT_EQ(0, libkyp_init());

    EXPECT_EQ(1, log.count("NOTICE", "libkyp Version 0.3.1"));
    EXPECT_EQ(1, log.count("NOTICE", "libkyp Compile Time:" + CComm::GetCompileTime()));
}

TEST_F(LibkypInitTest, LogsTheVersionByTheThresholdThatStandsThen) {
    SetLogLevel(LOG_LEVEL_COMM);
    LogCapture log;

    ASSERT_EQ(0, libkyp_init());

    EXPECT_EQ(0, log.count_containing("libkyp Version"));
}

TEST_F(LibkypInitTest, SetsTheThresholdToDebug) {
    ASSERT_EQ(0, libkyp_init());
    LogCapture log;

    KYP_LOG(LOG_LEVEL_TRACE, "below the threshold");
    KYP_LOG(LOG_LEVEL_DEBUG, "at the threshold");

    EXPECT_EQ(0, log.count("TRACE", "below the threshold"));
    EXPECT_EQ(1, log.count("DEBUG", "at the threshold"));
}

TEST_F(LibkypInitTest, ClearsTheStatusTheFirstTimeOnly) {
    tlsErrno = KYP_ERR_TOPIC;
    ASSERT_EQ(0, libkyp_init());
    EXPECT_EQ(0, libkyp_get_errno());
    tlsErrno = KYP_ERR_TOPIC;

    ASSERT_EQ(0, libkyp_init());

    EXPECT_EQ(KYP_ERR_TOPIC, libkyp_get_errno());
}

TEST_F(LibkypInitTest, FillsTheClientPool) {
    LogCapture log;

    ASSERT_EQ(0, libkyp_init());

    EXPECT_EQ(3342336UL, utility::instance<client_bufpool>().m_totalSize);
    EXPECT_EQ(1, log.count("NOTICE", "kyp client init memory pool total Size:3264.00kb,3.19Mb"));
}

TEST_F(LibkypInitTest, DeterminesTheLocalDeviceId) {
    std::ofstream("/opt/kyp/kypdevice.xml")
        << "<kyp><deviceInfo deviceId=\"10.1.2.3.4.5\"></deviceInfo></kyp>";
    LogCapture log;

    ASSERT_EQ(0, libkyp_init());

    EXPECT_EQ(1, log.count("DEBUG", "xml name:deviceInfo,deviceId:10.1.2.3.4.5"));
}

TEST_F(LibkypInitTest, KeepsThePoolThatDestoryFreedEmptyBehindASecondInit) {
    ASSERT_EQ(0, libkyp_init());
    LogCapture log;

    EXPECT_EQ(0, libkyp_destory());
    EXPECT_EQ(0, libkyp_init());

    EXPECT_THAT(utility::instance<client_bufpool>().m_freeLists, IsEmpty());
    EXPECT_EQ(1, log.count("DEBUG", "free mem:128 byte size:256"));
    EXPECT_EQ(0, log.count_containing("libkyp Version"));
}

TEST_F(LibkypTest, DestoryEndsEveryConnection) {
    RawListener listener = RawListener::tcp(9999);
    void* handle = libkyp_createInstance(&m_loopback, KYP_CONN_TCP);
    RawPeer peer = listener.accept();
    ASSERT_NE(nullptr, handle);

    EXPECT_EQ(0, libkyp_destory());

    EXPECT_TRUE(peer.expect_closed());
    EXPECT_THAT(manager().m_connections, IsEmpty());
    EXPECT_EQ(KYP_ERR_HANDLE, libkyp_loop_start(handle));
}

TEST_F(LibkypTest, ConnectionsMayBeMadeAfterDestory) {
    RawListener listener = RawListener::tcp(9999);
    ASSERT_EQ(0, libkyp_destory());

    EXPECT_NE(nullptr, libkyp_createInstance(&m_loopback, KYP_CONN_TCP));
    EXPECT_TRUE(listener.accept().connected());
}

}  // namespace
