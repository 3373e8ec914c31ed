#include <arpa/inet.h>
#include <dirent.h>

#include <atomic>
#include <fstream>
#include <mutex>

#include "LibkypFixture.h"
#include "kypclient/KypScanClient.h"
#include "kypclient/routetable/RouterTable.h"
#include "support/CallGate.h"
#include "support/RawScanDevice.h"
#include "support/SecondHost.h"

namespace {

constexpr char const* kJson =
    R"({"device":{"kypDeviceId":"1.2.3.4.5.6","hostName":"press"},)"
    R"("frames":[{"frameIp":"10.77.0.2","frameMacAddr":"00:1a:2b:3c:4d:5e"}]})";

CKypScanClient& scan_client() {
    return utility::instance<CKypScanClient>();
}

// Threads of this process under a name.
int threads_named(std::string const& name) {
    int count = 0;
    DIR* const tasks = opendir("/proc/self/task");
    while (dirent const* task = readdir(tasks)) {
        std::ifstream file(std::string("/proc/self/task/") + task->d_name + "/comm");
        std::string comm;
        if (std::getline(file, comm) && comm == name) ++count;
    }
    closedir(tasks);
    return count;
}

void count_device(_KypDevice device, void* user) {
    if (std::string("press") == device.hostName) ++*static_cast<std::atomic<int>*>(user);
}

class LibkypScanTest : public LibkypTest {
protected:
    ~LibkypScanTest() override { scan_client().stop(); }

    std::atomic<int> m_found{0};
};

TEST_F(LibkypScanTest, EntriesClearTheStatusAndReturnZero) {
    struct Row {
        char const* name;
        std::function<int()> call;
    };
    for (Row const& row :
         {Row{"register", [this] { return libkyp_registerKypScanEvent(count_device, &m_found); }},
          Row{"start", [] { return libkyp_startKypScan(); }},
          Row{"stop", [] { return libkyp_stopKypScan(); }}}) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_ERR_TOPIC;

        EXPECT_EQ(0, row.call());

        EXPECT_EQ(0, libkyp_get_errno());
    }
}

TEST_F(LibkypScanTest, EntriesReachTheClientOfTheProcess) {
    libkyp_registerKypScanEvent(count_device, &m_found);
    EXPECT_EQ(&count_device, scan_client().m_callback.load());
    EXPECT_EQ(&m_found, scan_client().m_userData.load());

    libkyp_startKypScan();
    EXPECT_TRUE(scan_client().m_scanning);
    libkyp_stopKypScan();
    EXPECT_FALSE(scan_client().m_scanning);
}

TEST_F(LibkypScanTest, InitStartsTheScanThreadOnce) {
    LogCapture log;

    ASSERT_EQ(0, libkyp_init());
    ASSERT_EQ(0, libkyp_init());

    EXPECT_TRUE(eventually([] { return threads_named("KypScan") == 1; }));
    EXPECT_EQ(1, log.count("INFO", "KypScan Thread Start"));
    EXPECT_FALSE(scan_client().m_scanning);
}

TEST_F(LibkypScanTest, ThreadAndGateOutliveDestory) {
    ASSERT_EQ(0, libkyp_init());
    libkyp_startKypScan();

    EXPECT_EQ(0, libkyp_destory());

    EXPECT_TRUE(scan_client().m_thread.joinable());
    EXPECT_TRUE(scan_client().m_scanning);
}

TEST_F(LibkypScanTest, NothingLeavesBeforeTheScanIsOpened) {
    SecondHost host;
    RawScanDevice device(host);
    if (!device.ready()) GTEST_SKIP() << "no second host";
    CallGate gate;
    scan_client().m_lastSend.m_nanoseconds = 0;

    ASSERT_EQ(0, libkyp_init());
    libkyp_registerKypScanEvent(count_device, &m_found);

    EXPECT_TRUE(eventually([&] { return gate.count("getifaddrs") >= 4; }));
    EXPECT_EQ(0, gate.count("sendto"));
    EXPECT_EQ(0, gate.count("bind"));
    EXPECT_EQ(ScanRequest::NONE, device.receive(std::chrono::milliseconds(0)).road);
}

TEST_F(LibkypScanTest, FindsADeviceAndTheWayToIt) {
    SecondHost host;
    RawScanDevice device(host);
    if (!device.ready()) GTEST_SKIP() << "no second host";
    ASSERT_EQ(0, libkyp_init());
    libkyp_registerKypScanEvent(count_device, &m_found);
    libkyp_startKypScan();

    device.answer(device.receive_by(ScanRequest::BROADCAST), scan_reply(3, kJson));

    ASSERT_TRUE(eventually([this] { return m_found > 0; }));
    _KypDeviceId id{};
    libkyp_makeKypDeviceId("1.2.3.4.5.6", &id);
    EXPECT_EQ("10.77.0.2", utility::instance<CRouterTable>().GetHostIpFromDeviceId(id));
    libkyp_stopKypScan();
}

}  // namespace
