#include "kypclient/routetable/RouterTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

class RouterTableTest : public ::testing::Test {
protected:
    RouterTableTest() { SetLogLevel(LOG_LEVEL_TRACE); }

    CRouterTable m_table;
    _KypDeviceId m_device{{192, 168, 1, 7, 2, 3}};
};

TEST_F(RouterTableTest, DeviceWithoutAnEntryIsFoundAtItsFirstFourBytes) {
    LogCapture log;

    EXPECT_EQ("192.168.1.7", m_table.GetHostIpFromDeviceId(m_device));
    EXPECT_EQ(1, log.count("TRACE",
                           "KypDeviceId:192.168.1.7.2.3 not find router table,generate Host "
                           "Ip:192.168.1.7"));
}

TEST_F(RouterTableTest, BytesAreUnsignedNumbersInTheGeneratedHost) {
    _KypDeviceId device{{255, 128, 0, 200, 0, 0}};

    EXPECT_EQ("255.128.0.200", m_table.GetHostIpFromDeviceId(device));
}

TEST_F(RouterTableTest, EntryWinsOverTheBytesOfTheId) {
    ASSERT_EQ(0, m_table.AddDeviceId2RouterTable(m_device, "10.0.0.5"));
    LogCapture log;

    EXPECT_EQ("10.0.0.5", m_table.GetHostIpFromDeviceId(m_device));
    EXPECT_EQ(1, log.count("TRACE",
                           "from router table KypDeviceId:192.168.1.7.2.3 Get Host Ip:10.0.0.5"));
}

TEST_F(RouterTableTest, LastWriterWins) {
    EXPECT_EQ(0, m_table.AddDeviceId2RouterTable(m_device, "10.0.0.5"));
    EXPECT_EQ(0, m_table.AddDeviceId2RouterTable(m_device, "10.0.0.6"));

    EXPECT_EQ("10.0.0.6", m_table.GetHostIpFromDeviceId(m_device));
    EXPECT_EQ(1U, m_table.m_table.size());
}

TEST_F(RouterTableTest, AllSixBytesTellDevicesApart) {
    _KypDeviceId neighbour{{192, 168, 1, 7, 2, 4}};
    ASSERT_EQ(0, m_table.AddDeviceId2RouterTable(m_device, "10.0.0.5"));

    EXPECT_EQ("192.168.1.7", m_table.GetHostIpFromDeviceId(neighbour));
}

TEST_F(RouterTableTest, EntriesAreKeyedByTheTextOfTheId) {
    ASSERT_EQ(0, m_table.AddDeviceId2RouterTable(m_device, "10.0.0.5"));

    EXPECT_THAT(m_table.m_table,
                ::testing::ElementsAre(::testing::Pair("192.168.1.7.2.3", "10.0.0.5")));
}

TEST_F(RouterTableTest, ThreadsMayWriteAndReadAtOnce) {
    SetLogLevel(LOG_LEVEL_NOTICE);
    std::vector<std::thread> threads;
    for (uint8_t n = 0; n < 4; ++n) {
        threads.emplace_back([this, n] {
            _KypDeviceId own{{10, 0, 0, n, 1, 1}};
            _KypDeviceId foreign = m_device;
            for (int round = 0; round < 200; ++round) {
                m_table.AddDeviceId2RouterTable(own, "127.0.0.1");
                EXPECT_EQ("127.0.0.1", m_table.GetHostIpFromDeviceId(own));
                EXPECT_EQ("192.168.1.7", m_table.GetHostIpFromDeviceId(foreign));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(4U, m_table.m_table.size());
}

TEST(RouterTableSingletonTest, IsOneForTheProcess) {
    CRouterTable& table = utility::instance<CRouterTable>();

    EXPECT_EQ(&table, utility::Singleton<CRouterTable>::m_instance);
}

}  // namespace
