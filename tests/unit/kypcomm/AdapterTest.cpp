#include "kypcomm/Adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <set>

#include "support/CallGate.h"
#include "support/LogCapture.h"
#include "support/NetInterface.h"

namespace {

constexpr char const* kMac = "00:1a:2b:3c:4d:5e";
constexpr char const* kOtherMac = "02:00:00:00:00:07";

std::string ioctl_call(unsigned long request) {
    return "ioctl(" + std::to_string(request) + ")";
}

// What the sandbox brings along, loopback apart: nothing is expected, but tests count from there.
std::set<std::string> names() {
    std::set<std::string> found;
    for (auto const& entry : GetLocalNetAdaptersInfo()) found.insert(entry.first);
    return found;
}

class AdapterTest : public testing::Test {
protected:
    AdapterTest() : m_before(names()) {}

    // The names that came since the test began.
    std::set<std::string> new_names() {
        std::set<std::string> found = names();
        for (std::string const& name : m_before) found.erase(name);
        return found;
    }

    std::set<std::string> m_before;
};

TEST_F(AdapterTest, LoopbackIsNoAdapter) {
    EXPECT_EQ(0U, m_before.count("lo"));
}

TEST_F(AdapterTest, InterfaceThatIsUpShowsItsAddresses) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();
    LogCapture log;

    auto const adapters = GetLocalNetAdaptersInfo();

    ASSERT_EQ(1U, adapters.count("eth7"));
    _NetAdapterObj const& adapter = adapters.at("eth7");
    EXPECT_EQ(kMac, adapter.macAddr);
    EXPECT_EQ("eth7", adapter.adapterName);
    EXPECT_EQ("10.1.2.3", adapter.ipAddr);
    EXPECT_EQ(1, log.count("TRACE", "device eth7 mac:00:1a:2b:3c:4d:5e,ip:10.1.2.3"));
    EXPECT_EQ(0, log.count_containing("ERROR"));
}

TEST_F(AdapterTest, InterfaceThatIsDownHasAnEntryWithoutAnAddress) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3");
    LogCapture log;

    auto const adapters = GetLocalNetAdaptersInfo();

    ASSERT_EQ(1U, adapters.count("eth7"));
    EXPECT_EQ(kMac, adapters.at("eth7").macAddr);
    EXPECT_EQ("", adapters.at("eth7").ipAddr);
    EXPECT_EQ(1, log.count("TRACE", "ifram:eth7 is down"));
    EXPECT_EQ(0, log.count_containing("device eth7"));
}

TEST_F(AdapterTest, InterfaceWithoutAnAddressHasAQuietEntry) {
    NetInterface eth("eth7", kMac);
    eth.up();
    GetLocalNetAdaptersInfo();  // the first call of a process tells the serial
    LogCapture log;

    auto const adapters = GetLocalNetAdaptersInfo();

    ASSERT_EQ(1U, adapters.count("eth7"));
    EXPECT_EQ("", adapters.at("eth7").ipAddr);
    EXPECT_EQ(0, log.count_containing("eth7"));
}

TEST_F(AdapterTest, InterfaceWithTwoAddressesHasOneEntry) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").with_address("10.1.2.4").up();

    EXPECT_EQ(std::set<std::string>{"eth7"}, new_names());
}

TEST_F(AdapterTest, SomePrefixesAreNoAdaptersInAnyCase) {
    for (char const* name :
         {"docker0", "Docker0", "DOCKERx", "tap0", "Tap1", "LOCAL0", "lo7", "can0", "CAN01"}) {
        SCOPED_TRACE(name);
        NetInterface const skipped(name, kMac);
        LogCapture log;

        EXPECT_EQ(std::set<std::string>{}, new_names());
        EXPECT_EQ(0, log.count_containing(name));
    }
}

TEST_F(AdapterTest, NamesBesideThosePrefixesAreAdapters) {
    for (char const* name : {"can1", "dock0", "ta0", "l0", "xlo"}) {
        SCOPED_TRACE(name);
        NetInterface const kept(name, kMac);

        EXPECT_EQ(std::set<std::string>{name}, new_names());
    }
}

TEST_F(AdapterTest, LongestNameIsWhole) {
    NetInterface eth("abcdefghijk", kMac);  // 15 characters with the prefix of its far end
    eth.with_address("10.1.2.3").up();

    EXPECT_EQ("10.1.2.3", GetLocalNetAdaptersInfo()["abcdefghijk"].ipAddr);
}

TEST_F(AdapterTest, UnlistableInterfacesGiveAnEmptyMap) {
    LogCapture log;
    CallGate gate;
    gate.fail("getifaddrs", ENOMEM);

    EXPECT_TRUE(GetLocalNetAdaptersInfo().empty());
    EXPECT_EQ(1, log.count("ERROR", "getifaddrs fail,Error:Cannot allocate memory"));
    EXPECT_EQ(0, gate.count("socket"));
}

TEST_F(AdapterTest, KeepsTheListOfInterfacesWhenThereIsNoDescriptor) {
    LogCapture log;
    CallGate gate;
    gate.fail("getifaddrs", 0);  // a list of nothing, so that the test itself loses no memory
    gate.fail("socket", EMFILE);

    EXPECT_TRUE(GetLocalNetAdaptersInfo().empty());
    EXPECT_EQ(1, log.count("ERROR", "Create Socket Error:Too many open files"));
    EXPECT_EQ(0, gate.count("freeifaddrs"));
}

TEST_F(AdapterTest, ListIsGivenBackAtTheEnd) {
    CallGate gate;

    GetLocalNetAdaptersInfo();

    EXPECT_EQ(1, gate.count("freeifaddrs"));
}

TEST_F(AdapterTest, InterfaceWithoutAHardwareAddressHasNoEntry) {
    NetInterface const eth("eth7", kMac);
    LogCapture log;
    CallGate gate;
    gate.fail(ioctl_call(SIOCGIFHWADDR), ENODEV, CallGate::kAlways);

    EXPECT_TRUE(GetLocalNetAdaptersInfo().empty());
    EXPECT_GE(log.count("ERROR", "ioctl SIOCGIFHWADDR: No such device"), 1);
    EXPECT_EQ(0, gate.count(ioctl_call(SIOCGIFFLAGS)));
}

TEST_F(AdapterTest, InterfaceWithoutReadableFlagsHasAnEntryWithoutAnAddress) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();
    LogCapture log;
    CallGate gate;
    gate.fail(ioctl_call(SIOCGIFFLAGS), ENODEV, CallGate::kAlways);

    auto const adapters = GetLocalNetAdaptersInfo();

    ASSERT_EQ(1U, adapters.count("eth7"));
    EXPECT_EQ("", adapters.at("eth7").ipAddr);
    EXPECT_GE(log.count("ERROR", "ioctl SIOCGIFFLAGS: No such device"), 1);
}

// The serial belongs to a process, so each of these looks at a fresh one that runs the test anew.
class RuntimeSerialDeathTest : public testing::Test {
protected:
    RuntimeSerialDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

[[noreturn]] void end_with(bool right) {
    _exit(right ? 0 : 1);
}

TEST_F(RuntimeSerialDeathTest, SerialIsTheFirstAddressInUpperCaseForGood) {
    EXPECT_EXIT(
        {
            LogCapture log;
            bool const empty = g_strCodesysSerailNo.empty();
            std::string const first = GetRuntimeSerial("00:1a:2b:3c:4d:5e", "eth0");
            std::string const second = GetRuntimeSerial("02:00:00:00:00:07", "eth1");
            end_with(empty && first == "001A2B3C4D5E" && second == first &&
                     g_strCodesysSerailNo == first &&
                     log.count("DEBUG", "runtime serial:001A2B3C4D5E from eth0") == 1 &&
                     log.count_containing("runtime serial") == 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(RuntimeSerialDeathTest, SerialAlsoComesFromAnInterfaceThatIsDown) {
    EXPECT_EXIT(
        {
            bool const none = names().empty();
            {
                NetInterface const down("eth8", kMac);
                GetLocalNetAdaptersInfo();
            }
            {
                NetInterface const other("eth9", kOtherMac);
                GetLocalNetAdaptersInfo();
            }
            // Where the sandbox has adapters of its own, theirs was first.
            end_with(!none || g_strCodesysSerailNo == "001A2B3C4D5E");
        },
        testing::ExitedWithCode(0), "");
}

TEST(IntToHexTest, HasAtLeastTwoUpperCaseDigits) {
    EXPECT_EQ("00", IntToHex(0));
    EXPECT_EQ("0A", IntToHex(10));
    EXPECT_EQ("FF", IntToHex(255));
    EXPECT_EQ("100", IntToHex(256));
    EXPECT_EQ("1000", IntToHex(4096));
    EXPECT_EQ("FFFFFFFF", IntToHex(-1));
    EXPECT_EQ("80000000", IntToHex(INT_MIN));
}

}  // namespace
