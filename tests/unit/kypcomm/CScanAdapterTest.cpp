#include "kypcomm/CScanAdapter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "support/CallGate.h"
#include "support/LogCapture.h"
#include "support/NetInterface.h"

namespace {

constexpr char const* kMac = "00:1a:2b:3c:4d:5e";
constexpr char const* kIp = "10.1.2.3";

// setsockopt calls, as the gate writes them.
constexpr char const* kReuse = "setsockopt(1,2,";
constexpr char const* kBroadcast = "setsockopt(1,6,";
constexpr char const* kTtl = "setsockopt(0,33,";
constexpr char const* kLoop = "setsockopt(0,34,";
constexpr char const* kJoin = "setsockopt(0,35,";

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// "10.1.2.3:38897"
std::string bound_to(int fd) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
    return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

int int_option(int fd, int level, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &size));
    return value;
}

// Whether the interface is in the group 239.255.0.3, as the kernel lists it.
bool is_joined(std::string const& interface) {
    std::ifstream list("/proc/net/igmp");
    bool here = false;
    for (std::string line; std::getline(list, line);) {
        if (line[0] != '\t') here = line.find(interface) != std::string::npos;
        if (here && line.find("0300FFEF") != std::string::npos) return true;
    }
    return false;
}

class CScanAdapterTest : public testing::Test {
protected:
    CScanAdapterTest() : m_eth("eth7", kMac), m_adapter(kMac, "eth7", true) {
        m_eth.with_address(kIp).with_address("10.1.2.4").up();
    }

    NetInterface m_eth;
    CScanAdapter m_adapter;
};

TEST_F(CScanAdapterTest, OpensNothingWhenMade) {
    EXPECT_EQ(-1, m_adapter.GetMutilScanSocket());
    EXPECT_EQ(-1, m_adapter.GetBroadScanSocket());
    EXPECT_EQ("eth7", m_adapter.GetAdapterName());
    EXPECT_EQ("", m_adapter.m_ipAddr);
    EXPECT_TRUE(m_adapter.m_useBroadcast);
}

TEST_F(CScanAdapterTest, IsTheAdapterOfItsHardwareAddressByteForByte) {
    EXPECT_TRUE(m_adapter.IsEqualAdapter("00:1a:2b:3c:4d:5e"));
    EXPECT_FALSE(m_adapter.IsEqualAdapter("00:1A:2B:3C:4D:5E"));
    EXPECT_FALSE(m_adapter.IsEqualAdapter("00:1a:2b:3c:4d:5f"));
    EXPECT_FALSE(m_adapter.IsEqualAdapter(""));
}

TEST_F(CScanAdapterTest, FirstAddressOpensBothSockets) {
    LogCapture log;

    EXPECT_EQ(0, m_adapter.UpdateAdapterIpAddr(kIp));

    int const multi = m_adapter.GetMutilScanSocket();
    int const broad = m_adapter.GetBroadScanSocket();
    EXPECT_EQ("10.1.2.3:38897", bound_to(multi));
    EXPECT_EQ(1, int_option(multi, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(10, int_option(multi, IPPROTO_IP, IP_MULTICAST_TTL));
    EXPECT_EQ(0, int_option(multi, IPPROTO_IP, IP_MULTICAST_LOOP));
    EXPECT_TRUE(is_joined("eth7"));
    EXPECT_EQ(0U, bound_to(broad).find("10.1.2.3:"));
    EXPECT_NE("10.1.2.3:0", bound_to(broad));
    EXPECT_EQ(1, int_option(broad, SOL_SOCKET, SO_BROADCAST));
    EXPECT_EQ(1, log.count("TRACE", "iframe:eth7,IP:10.1.2.3,Join Scan"));
    EXPECT_EQ(0, log.count_containing("ERROR"));
}

TEST_F(CScanAdapterTest, OptionsAreSetInOrder) {
    CallGate gate;

    m_adapter.UpdateAdapterIpAddr(kIp);

    EXPECT_EQ((std::vector<std::string>{"socket(2,2,0)", "setsockopt(1,2,4)", "setsockopt(0,33,4)",
                                        "setsockopt(0,34,1)", "bind(16)", "setsockopt(0,35,8)",
                                        "socket(2,2,0)", "setsockopt(1,6,4)", "bind(16)"}),
              gate.calls());
}

TEST_F(CScanAdapterTest, WithoutBroadcastOnlyTheGroupIsJoined) {
    CScanAdapter adapter(kMac, "eth7", false);

    EXPECT_EQ(0, adapter.UpdateAdapterIpAddr(kIp));
    EXPECT_NE(-1, adapter.GetMutilScanSocket());
    EXPECT_EQ(-1, adapter.GetBroadScanSocket());
}

TEST_F(CScanAdapterTest, PresentAddressOpensAndClosesNothing) {
    m_adapter.UpdateAdapterIpAddr(kIp);
    int const multi = m_adapter.GetMutilScanSocket();
    int const broad = m_adapter.GetBroadScanSocket();
    CallGate gate;

    EXPECT_EQ(0, m_adapter.UpdateAdapterIpAddr(kIp));
    EXPECT_TRUE(gate.calls().empty());
    EXPECT_EQ(multi, m_adapter.GetMutilScanSocket());
    EXPECT_EQ(broad, m_adapter.GetBroadScanSocket());
    EXPECT_TRUE(is_open(multi));
    EXPECT_TRUE(is_open(broad));
}

TEST_F(CScanAdapterTest, EmptyAddressOfANewAdapterOpensNothing) {
    CallGate gate;

    EXPECT_EQ(0, m_adapter.UpdateAdapterIpAddr(""));
    EXPECT_TRUE(gate.calls().empty());
}

TEST_F(CScanAdapterTest, OtherAddressMovesBothSockets) {
    m_adapter.UpdateAdapterIpAddr(kIp);

    EXPECT_EQ(0, m_adapter.UpdateAdapterIpAddr("10.1.2.4"));
    EXPECT_EQ("10.1.2.4:38897", bound_to(m_adapter.GetMutilScanSocket()));
    EXPECT_EQ(0U, bound_to(m_adapter.GetBroadScanSocket()).find("10.1.2.4:"));
    EXPECT_EQ("10.1.2.4", m_adapter.m_ipAddr);
}

TEST_F(CScanAdapterTest, ForeignAddressLeavesTheAdapterWithoutTheGroup) {
    LogCapture log;

    EXPECT_EQ(0, m_adapter.UpdateAdapterIpAddr("10.9.9.9"));
    EXPECT_EQ(-1, m_adapter.GetMutilScanSocket());
    EXPECT_EQ(
        1, log.count("ERROR", "ip:10.9.9.9 bind port:38897 error,Cannot assign requested address"));
    EXPECT_EQ(1, log.count("ERROR", "bind failed.ip=[10.9.9.9]"));
}

TEST_F(CScanAdapterTest, KeepsTheBroadcastSocketThatCouldNotBeBound) {
    m_adapter.m_ipAddr = "10.9.9.9";

    EXPECT_EQ(-1, m_adapter.AddSocket2BroadcastSock());
    EXPECT_TRUE(is_open(m_adapter.GetBroadScanSocket()));
}

TEST_F(CScanAdapterTest, KeepsABroadcastSocketOpenThatNobodyKnows) {
    LogCapture log;
    CallGate gate;
    gate.fail(kBroadcast, EACCES);
    int const lowest = dup(0);
    close(lowest);

    EXPECT_EQ(-1, m_adapter.AddSocket2BroadcastSock());
    EXPECT_EQ(-1, m_adapter.GetBroadScanSocket());
    EXPECT_EQ(1, log.count("ERROR", "broadcast setsockopt fail"));
    EXPECT_TRUE(is_open(lowest));
    close(lowest);
}

TEST_F(CScanAdapterTest, BroadcastSocketThatCannotBeMadeIsReported) {
    LogCapture log;
    CallGate gate;
    gate.fail("socket", EMFILE);

    EXPECT_EQ(-1, m_adapter.AddSocket2BroadcastSock());
    EXPECT_EQ(-1, m_adapter.GetBroadScanSocket());
    EXPECT_EQ(1, log.count("ERROR", "create socket fail!"));
}

TEST_F(CScanAdapterTest, ScanSocketThatCannotBeMadeIsReported) {
    LogCapture log;
    CallGate gate;
    gate.fail("socket", EMFILE);

    EXPECT_EQ(-1, m_adapter.AddSockt2MutilCast());
    EXPECT_EQ(-1, m_adapter.GetMutilScanSocket());
    EXPECT_EQ(1, log.count("ERROR", "iframe:eth7 create socket fail,error,Too many open files"));
}

TEST_F(CScanAdapterTest, FailuresOfTheScanSocketCloseIt) {
    struct Row {
        char const* call;
        char const* message;
    };
    Row const rows[] = {
        {kReuse, "setsockopt SO_REUSEADDR error,No such device"},
        {"bind", "ip:10.1.2.3 bind port:38897 error,No such device"},
        {kJoin, "setsockopt IP_ADD_MEMBERSHIP error,No such device"},
    };
    m_adapter.m_ipAddr = kIp;
    for (Row const& row : rows) {
        SCOPED_TRACE(row.call);
        LogCapture log;
        CallGate gate;
        gate.fail(row.call, ENODEV);
        int const lowest = dup(0);
        close(lowest);

        EXPECT_EQ(-1, m_adapter.AddSockt2MutilCast());
        EXPECT_EQ(-1, m_adapter.GetMutilScanSocket());
        EXPECT_EQ(1, log.count("ERROR", row.message));
        EXPECT_EQ(1, log.count_containing("ERROR"));
        EXPECT_FALSE(is_open(lowest));
        EXPECT_EQ(row.call, gate.calls().back().substr(0, std::string(row.call).size()));
    }
}

TEST_F(CScanAdapterTest, KeepsGoingOnWithTheClosedNumberAfterTheTtl) {
    m_adapter.m_ipAddr = kIp;
    LogCapture log;
    CallGate gate;
    gate.fail(kTtl, ENODEV);

    EXPECT_EQ(-1, m_adapter.AddSockt2MutilCast());
    EXPECT_EQ(-1, m_adapter.GetMutilScanSocket());
    EXPECT_EQ(1, log.count("ERROR", "setsockopt  IP_MULTICAST_TTL error,No such device"));
    EXPECT_EQ(1, log.count("ERROR", "setsockopt IP_MULTICAST_LOOP error,Bad file descriptor"));
    EXPECT_EQ(1, log.count("ERROR", "ip:10.1.2.3 bind port:38897 error,Bad file descriptor"));
}

TEST_F(CScanAdapterTest, KeepsGoingOnWithTheClosedNumberAfterTheLoop) {
    m_adapter.m_ipAddr = kIp;
    LogCapture log;
    CallGate gate;
    gate.fail(kLoop, ENODEV);

    EXPECT_EQ(-1, m_adapter.AddSockt2MutilCast());
    EXPECT_EQ(1, log.count("ERROR", "setsockopt IP_MULTICAST_LOOP error,No such device"));
    EXPECT_EQ(1, log.count("ERROR", "ip:10.1.2.3 bind port:38897 error,Bad file descriptor"));
}

TEST_F(CScanAdapterTest, ReleaseClosesWhatIsOpen) {
    m_adapter.UpdateAdapterIpAddr(kIp);
    int const multi = m_adapter.GetMutilScanSocket();
    int const broad = m_adapter.GetBroadScanSocket();

    m_adapter.ReleaseSocket();

    EXPECT_EQ(-1, m_adapter.GetMutilScanSocket());
    EXPECT_EQ(-1, m_adapter.GetBroadScanSocket());
    EXPECT_FALSE(is_open(multi));
    EXPECT_FALSE(is_open(broad));
    m_adapter.ReleaseSocket();
}

TEST_F(CScanAdapterTest, DestructorReleases) {
    int multi = -1;
    int broad = -1;
    {
        CScanAdapter adapter(kMac, "eth7", true);
        adapter.UpdateAdapterIpAddr(kIp);
        multi = adapter.GetMutilScanSocket();
        broad = adapter.GetBroadScanSocket();
    }

    EXPECT_FALSE(is_open(multi));
    EXPECT_FALSE(is_open(broad));
}

}  // namespace
