#include "kypcomm/KypDeviceIdGenerator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "kypcomm/KypDeviceId.h"
#include "support/CallGate.h"
#include "support/LogCapture.h"
#include "support/NetInterface.h"

namespace {

constexpr char const* kFile = "/opt/kyp/kypdevice.xml";
constexpr char const* kMac = "00:1a:2b:3c:4d:5e";

using Adapters = std::unordered_map<std::string, _NetAdapterObj>;

std::string text_of(_KypDeviceId const& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

void write_file(std::string const& content) {
    std::ofstream file(kFile);
    file << content;
}

std::string read_file() {
    std::ifstream file(kFile);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_device_id(std::string const& id) {
    write_file("<kyp><deviceInfo deviceId=\"" + id + "\"></deviceInfo></kyp>");
}

Adapters adapters_of(std::initializer_list<std::pair<char const*, char const*>> list) {
    Adapters adapters;
    for (auto const& [name, ip] : list) adapters[name] = {kMac, name, ip};
    return adapters;
}

class KypDeviceIdGeneratorTest : public testing::Test {
protected:
    KypDeviceIdGeneratorTest() { unlink(kFile); }
    ~KypDeviceIdGeneratorTest() override { unlink(kFile); }

    CKypDeviceIdGenerator m_generator;
};

// ---- choosing from a list

TEST(LocalDeviceIdTest, OneAdapterGivesItsAddress) {
    _KypDeviceId id = {};

    EXPECT_EQ(0, KypGetLocalDeviceId(&id, adapters_of({{"eth0", "192.168.1.10"}})));
    EXPECT_EQ("192.168.1.10.1.1", text_of(id));
}

TEST(LocalDeviceIdTest, NowhereToPutTheIdIsAFault) {
    EXPECT_EQ(4097, KypGetLocalDeviceId(nullptr, adapters_of({{"eth0", "192.168.1.10"}})));
    EXPECT_EQ(4097, KypGetLocalDeviceId(nullptr, {}));
}

TEST(LocalDeviceIdTest, NoAdapterIsAFault) {
    _KypDeviceId id = make_KypDeviceId("9.9.9.9.9.9", nullptr);

    EXPECT_EQ(8194, KypGetLocalDeviceId(&id, {}));
    EXPECT_EQ("9.9.9.9.9.9", text_of(id));
}

TEST(LocalDeviceIdTest, AdapterWithoutAnAddressNeverGivesAnId) {
    _KypDeviceId id = make_KypDeviceId("9.9.9.9.9.9", nullptr);

    EXPECT_EQ(4097, KypGetLocalDeviceId(&id, adapters_of({{"eth0", ""}, {"eth1", ""}})));
    EXPECT_EQ("9.9.9.9.9.9", text_of(id));
    EXPECT_EQ(0, KypGetLocalDeviceId(&id, adapters_of({{"eth0", ""}, {"eth1", "10.0.0.1"}})));
    EXPECT_EQ("10.0.0.1.1.1", text_of(id));
}

TEST(LocalDeviceIdTest, VirtualBridgeCountsWhenItIsAlone) {
    _KypDeviceId id = {};

    EXPECT_EQ(0, KypGetLocalDeviceId(&id, adapters_of({{"virbr0", "192.168.122.1"}})));
    EXPECT_EQ("192.168.122.1.1.1", text_of(id));
}

TEST(LocalDeviceIdTest, VirtualBridgeDoesNotCountBesideAnother) {
    for (char const* bridge : {"virbr0", "VirBr0", "virbr0-nic"}) {
        SCOPED_TRACE(bridge);
        _KypDeviceId id = {};

        EXPECT_EQ(0, KypGetLocalDeviceId(
                         &id, adapters_of({{bridge, "192.168.122.1"}, {"eth0", "10.0.0.1"}})));
        EXPECT_EQ("10.0.0.1.1.1", text_of(id));
    }
}

TEST(LocalDeviceIdTest, VirtualBridgeBesideAnAdapterWithoutAnAddressGivesNoId) {
    _KypDeviceId id = {};

    EXPECT_EQ(4097,
              KypGetLocalDeviceId(&id, adapters_of({{"virbr0", "192.168.122.1"}, {"eth0", ""}})));
}

TEST(LocalDeviceIdTest, FirstInTheOrderOfTheMapWins) {
    Adapters const adapters =
        adapters_of({{"eth0", "10.0.0.1"}, {"eth1", "10.0.0.2"}, {"eth2", "10.0.0.3"}});
    _KypDeviceId id = {};

    EXPECT_EQ(0, KypGetLocalDeviceId(&id, adapters));
    EXPECT_EQ(adapters.begin()->second.ipAddr + ".1.1", text_of(id));
}

// ---- the generator

TEST_F(KypDeviceIdGeneratorTest, StartsUnloadedAndZero) {
    EXPECT_FALSE(m_generator.m_loaded);
    EXPECT_EQ("0.0.0.0.0.0", text_of(m_generator.m_deviceId));
    EXPECT_TRUE(m_generator.GetAdapterList().empty());
}

TEST_F(KypDeviceIdGeneratorTest, TakesTheIdFromTheFile) {
    write_device_id("1.2.3.4.5.6");
    LogCapture log;

    EXPECT_EQ(0, m_generator.LoadKypDeviceIdFromXml());
    EXPECT_TRUE(m_generator.m_loaded);
    EXPECT_EQ("1.2.3.4.5.6", text_of(m_generator.m_deviceId));
    EXPECT_EQ(1, log.count("DEBUG", "xml name:deviceInfo,deviceId:1.2.3.4.5.6"));
}

TEST_F(KypDeviceIdGeneratorTest, OtherChildrenOfTheFileAreSkipped) {
    write_file(
        "<?xml version=\"1.0\"?><!-- ours --><kyp><other deviceId=\"9.9.9.9.9.9\">x</other>"
        "<deviceInfo deviceId=\"1.2.3.4.5.6\"/><deviceInfo deviceId=\"7.7.7.7.7.7\"/></kyp>");

    EXPECT_EQ(0, m_generator.LoadKypDeviceIdFromXml());
    EXPECT_EQ("1.2.3.4.5.6", text_of(m_generator.m_deviceId));
}

TEST_F(KypDeviceIdGeneratorTest, MissingFileIsNormalAndQuiet) {
    LogCapture log;

    EXPECT_EQ(-1, m_generator.LoadKypDeviceIdFromXml());
    EXPECT_FALSE(m_generator.m_loaded);
    EXPECT_EQ("", log.text());
}

TEST_F(KypDeviceIdGeneratorTest, FileWithoutTheElementGivesNoId) {
    for (char const* content : {"", "<kyp/>", "<kyp></kyp>", "<kyp><other/></kyp>", "nonsense",
                                "<kyp><deviceinfo deviceId=\"1.2.3.4.5.6\"/></kyp>",
                                "<deviceInfo deviceId=\"1.2.3.4.5.6\"/>"}) {
        SCOPED_TRACE(content);
        write_file(content);

        EXPECT_EQ(-1, m_generator.LoadKypDeviceIdFromXml());
        EXPECT_FALSE(m_generator.m_loaded);
    }
}

TEST_F(KypDeviceIdGeneratorTest, FileThatTheReaderThrowsAtGivesNoId) {
    write_file("<kyp><deviceInfo deviceId='1.2.3.4.5.6'/></kyp>");

    EXPECT_EQ(-1, m_generator.LoadKypDeviceIdFromXml());
    EXPECT_FALSE(m_generator.m_loaded);
}

TEST_F(KypDeviceIdGeneratorTest, KeepsAMalformedIdAsAllZero) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();
    for (char const* content :
         {"<kyp><deviceInfo deviceId=\"1.2.3\"/></kyp>", "<kyp><deviceInfo deviceId=\"\"/></kyp>",
          "<kyp><deviceInfo/></kyp>"}) {
        SCOPED_TRACE(content);
        write_file(content);
        CKypDeviceIdGenerator generator;

        EXPECT_EQ("0.0.0.0.0.0", text_of(generator.GetLocalDeviceId()));
        EXPECT_TRUE(generator.m_loaded);
    }
}

TEST_F(KypDeviceIdGeneratorTest, FileWinsOverTheAddresses) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();
    write_device_id("1.2.3.4.5.6");

    EXPECT_EQ(0, m_generator.LoadDeviceId());
    EXPECT_EQ("1.2.3.4.5.6", text_of(m_generator.GetLocalDeviceId()));
    EXPECT_TRUE(m_generator.GetAdapterList().empty());
}

TEST_F(KypDeviceIdGeneratorTest, WithoutAFileTheAddressIsTaken) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();

    EXPECT_EQ(0, m_generator.LoadDeviceId());
    EXPECT_TRUE(m_generator.m_loaded);
    EXPECT_EQ("10.1.2.3.1.1", text_of(m_generator.GetLocalDeviceId()));
    EXPECT_EQ(-1, access(kFile, F_OK));
}

TEST_F(KypDeviceIdGeneratorTest, KeepsReportingFailureWhenAnAdapterGaveTheId) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();

    EXPECT_EQ(-1, m_generator.LoadKypDeviceIdFromNetAdapters());
    EXPECT_TRUE(m_generator.m_loaded);
    EXPECT_EQ("10.1.2.3.1.1", text_of(m_generator.m_deviceId));
}

TEST_F(KypDeviceIdGeneratorTest, AdaptersWithoutAnAddressAreLogged) {
    NetInterface const eth("eth7", kMac);
    LogCapture log;

    EXPECT_EQ(-1, m_generator.LoadKypDeviceIdFromNetAdapters());
    EXPECT_FALSE(m_generator.m_loaded);
    EXPECT_EQ(1, log.count("ERROR", "Get KypDeviceId fail,error:invaild Kyp Device Id"));
}

TEST_F(KypDeviceIdGeneratorTest, NoAdapterAtAllIsQuiet) {
    LogCapture log;
    CallGate gate;
    gate.fail("getifaddrs", 0);

    EXPECT_EQ(-1, m_generator.LoadKypDeviceIdFromNetAdapters());
    EXPECT_FALSE(m_generator.m_loaded);
    EXPECT_EQ("", log.text());
}

TEST_F(KypDeviceIdGeneratorTest, AddressThatComesLateIsFoundByTheNextCall) {
    NetInterface eth("eth7", kMac);
    eth.up();
    ASSERT_EQ("0.0.0.0.0.0", text_of(m_generator.GetLocalDeviceId()));
    ASSERT_FALSE(m_generator.m_loaded);
    eth.with_address("10.1.2.3");

    EXPECT_EQ("10.1.2.3.1.1", text_of(m_generator.GetLocalDeviceId()));
}

TEST_F(KypDeviceIdGeneratorTest, LoadedIdOutlivesItsAddress) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();
    m_generator.GetLocalDeviceId();
    eth.without_address().with_address("10.1.2.4");

    EXPECT_EQ("10.1.2.3.1.1", text_of(m_generator.GetLocalDeviceId()));
}

TEST_F(KypDeviceIdGeneratorTest, AdapterListIsReplacedByALaterOne) {
    int before = 0;
    {
        NetInterface const eth("eth7", kMac);
        before = m_generator.LoadLocalNetAdaptersInfo();
    }
    NetInterface const first("eth8", kMac);
    NetInterface const second("eth9", kMac);

    EXPECT_EQ(before + 1, m_generator.LoadLocalNetAdaptersInfo());
    Adapters const adapters = m_generator.GetAdapterList();
    EXPECT_EQ(static_cast<size_t>(before + 1), adapters.size());
    EXPECT_EQ(0U, adapters.count("eth7"));
}

TEST_F(KypDeviceIdGeneratorTest, EmptyListLeavesTheOldOne) {
    NetInterface const eth("eth7", kMac);
    m_generator.LoadLocalNetAdaptersInfo();
    CallGate gate;
    gate.fail("getifaddrs", ENOMEM);

    EXPECT_EQ(0, m_generator.LoadLocalNetAdaptersInfo());
    EXPECT_EQ(1U, m_generator.GetAdapterList().count("eth7"));
}

TEST_F(KypDeviceIdGeneratorTest, SetIdIsKeptInTheFile) {
    LogCapture log;

    EXPECT_EQ(0, m_generator.SetLocalDeviceId(make_KypDeviceId("1.2.3.4.5.6", nullptr)));
    EXPECT_EQ("1.2.3.4.5.6", text_of(m_generator.m_deviceId));
    EXPECT_EQ("<kyp><deviceInfo deviceId=\"1.2.3.4.5.6\"></deviceInfo></kyp>", read_file());
    EXPECT_EQ(1, log.count("DEBUG", "set deviceId:1.2.3.4.5.6 success"));
}

TEST_F(KypDeviceIdGeneratorTest, SetIdIsThereAfterARestart) {
    m_generator.SetLocalDeviceId(make_KypDeviceId("1.2.3.4.5.6", nullptr));
    CKypDeviceIdGenerator restarted;

    EXPECT_EQ("1.2.3.4.5.6", text_of(restarted.GetLocalDeviceId()));
}

TEST_F(KypDeviceIdGeneratorTest, SetIdChangesALoadedOne) {
    write_device_id("1.1.1.1.1.1");
    m_generator.GetLocalDeviceId();

    m_generator.SetLocalDeviceId(make_KypDeviceId("1.2.3.4.5.6", nullptr));

    EXPECT_EQ("1.2.3.4.5.6", text_of(m_generator.GetLocalDeviceId()));
}

TEST_F(KypDeviceIdGeneratorTest, KeepsUnloadedAfterAnIdWasSet) {
    m_generator.SetLocalDeviceId(make_KypDeviceId("1.2.3.4.5.6", nullptr));
    EXPECT_FALSE(m_generator.m_loaded);
    write_device_id("6.5.4.3.2.1");

    EXPECT_EQ("6.5.4.3.2.1", text_of(m_generator.GetLocalDeviceId()));
}

TEST_F(KypDeviceIdGeneratorTest, KeepsReportingSuccessWhenTheFileCannotBeWritten) {
    ASSERT_EQ(0, mkdir(kFile, 0700));
    LogCapture log;

    EXPECT_EQ(0, m_generator.SetLocalDeviceId(make_KypDeviceId("1.2.3.4.5.6", nullptr)));
    EXPECT_EQ(1, log.count("DEBUG", "set deviceId:1.2.3.4.5.6 success"));
    EXPECT_EQ(1, log.count("ERROR",
                           "fstream open file:/opt/kyp/kypdevice.xml fail,error:Is a directory"));
    rmdir(kFile);
}

TEST_F(KypDeviceIdGeneratorTest, ManyThreadsFindOneId) {
    NetInterface eth("eth7", kMac);
    eth.with_address("10.1.2.3").up();
    LogCapture log;
    std::atomic<int> right{0};
    std::vector<std::thread> threads;

    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this, &right] {
            bool const found = text_of(m_generator.GetLocalDeviceId()) == "10.1.2.3.1.1";
            m_generator.LoadLocalNetAdaptersInfo();
            if (found && m_generator.GetAdapterList().count("eth7") == 1) ++right;
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(8, right);
}

}  // namespace
