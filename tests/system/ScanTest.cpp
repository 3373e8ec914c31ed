// The library's scan and kypserver: on two hosts, and both on one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libkyp/libkyp.h"
#include "support/Eventually.h"
#include "support/KypClient.h"
#include "support/SecondHost.h"
#include "support/ServerProcess.h"

namespace {

constexpr uint16_t kEchoPort = 100;

// What a scan has found so far.
class Finds {
public:
    static void add(_KypDevice device, void* user) {
        auto& finds = *static_cast<Finds*>(user);
        std::lock_guard<std::mutex> lock(finds.m_mutex);
        finds.m_devices.push_back(device);
    }

    // The latest device at `ip`; false while there is none.
    bool get(std::string const& ip, _KypDevice& found) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (_KypDevice const& device : m_devices) {
            if (ip != device.ipAddr) continue;
            found = device;
            return true;
        }
        return false;
    }

    // How many replies came.
    size_t count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_devices.size();
    }

private:
    std::mutex m_mutex;
    std::vector<_KypDevice> m_devices;  // guarded by m_mutex
};

class ScanTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_cable.ready()); }

    ~ScanTest() override {
        libkyp_stopKypScan();
        libkyp_destory();
    }

    // Scans from where it is called.
    void scan() {
        libkyp_init();
        libkyp_registerKypScanEvent(&Finds::add, &m_finds);
        libkyp_startKypScan();
    }

    SecondHost m_cable;
    // Never destroyed: a call of the callback may still be under way when a test ends.
    Finds& m_finds = *new Finds;
};

TEST_F(ScanTest, FindsTheServerOnTheOtherHostAndReachesItByItsId) {
    ServerProcess server;

    m_cable.run([this] {
        scan();
        _KypDevice device{};
        ASSERT_TRUE(eventually([&] { return m_finds.get(SecondHost::kHere, device); }));
        EXPECT_STREQ("10.77.0.1.1.1", device.kypDeviceId);
        EXPECT_EQ(17u, strlen(device.macAddr));
        EXPECT_EQ(12u, strlen(device.serialNo));
        EXPECT_STREQ("1", device.kypVersion);
        EXPECT_STREQ("0.3.1", device.rteVersion);
        EXPECT_STRNE("", device.velaosVersion);
        EXPECT_STRNE("", device.hostName);
        // Both roads bring it.
        EXPECT_TRUE(eventually([this] { return m_finds.count() >= 2; }));

        _KypDeviceId id{};
        libkyp_makeKypDeviceId(device.kypDeviceId, &id);
        KypClient client(KypClient::TCP, id);
        EXPECT_EQ(text("found"), client.exchange(kEchoPort, text("found")).payload);
    });
}

TEST_F(ScanTest, FindsAnIdThatIsNoAddress) {
    ServerProcess server({"--allow-set-id"});
    EXPECT_EQ(0, libkyp_setRemoteKypDeviceId("127.0.0.1", "1.2.3.4.5.6", 20000));

    m_cable.run([this] {
        scan();
        _KypDevice device{};
        ASSERT_TRUE(eventually([&] { return m_finds.get(SecondHost::kHere, device); }));
        EXPECT_STREQ("1.2.3.4.5.6", device.kypDeviceId);

        KypClient client(KypClient::TCP, {{1, 2, 3, 4, 5, 6}});
        EXPECT_EQ(text("found"), client.exchange(kEchoPort, text("found")).payload);
    });
}

TEST_F(ScanTest, FindsTheServerOfItsOwnMachine) {
    ServerProcess server;

    scan();

    _KypDevice device{};
    EXPECT_TRUE(eventually([&] { return m_finds.get(SecondHost::kHere, device); }));
    EXPECT_STREQ("10.77.0.1.1.1", device.kypDeviceId);
}

TEST_F(ScanTest, ScanOnTheServersMachineFindsAnotherDevice) {
    ServerProcess server;
    // A server on the second host lives as long as the thread that starts it.
    std::atomic<bool> isOver{false};
    std::thread holder([&] {
        m_cable.run([&] {
            ServerProcess other({"--no-domain"});
            while (!isOver) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        });
    });

    scan();

    _KypDevice device{};
    EXPECT_TRUE(eventually([&] { return m_finds.get(SecondHost::kThere, device); }));
    isOver = true;
    holder.join();
}

TEST_F(ScanTest, ServerWithoutScanIsNotFound) {
    ServerProcess server({"--no-scan"});

    m_cable.run([this] {
        // This one is found, so the scan has had its rounds.
        ServerProcess own({"--no-domain"});
        scan();
        _KypDevice device{};
        EXPECT_TRUE(eventually([&] { return m_finds.get(SecondHost::kThere, device); }));
        EXPECT_FALSE(m_finds.get(SecondHost::kHere, device));
    });
}

}  // namespace
