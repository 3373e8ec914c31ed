// What a reply does, and what the operations of the scan do one by one; the scan as a whole,
// against a device on a second host, is in KypScanClientRoundsTest.
#include "kypclient/KypScanClient.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <thread>

#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/CScanAdapter.h"
#include "support/CallGate.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/NetInterface.h"
#include "support/RawPeer.h"
#include "support/RawScanDevice.h"
#include "utils/Log.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char const* kDeviceJson =
    R"({"device":{"kypDeviceId":"10.77.0.2.1.1","kypVersion":"1.0","rteVersion":"2.7",)"
    R"("serialNo":"001A2B3C4D5E","velaosVersion":"os 5","hostName":"press","sn":"S-17"},)"
    R"("frames":[{"frameIp":"10.77.0.2","frameMacAddr":"00:1a:2b:3c:4d:5e"}]})";

bool all_zero(void const* data, size_t size) {
    auto const* const begin = static_cast<char const*>(data);
    return std::all_of(begin, begin + size, [](char c) { return c == 0; });
}

std::string repeated(std::string const& part, int times) {
    std::string whole;
    for (int i = 0; i < times; ++i) whole += part;
    return whole;
}

class KypScanClientTest : public ::testing::Test {
protected:
    KypScanClientTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        m_from.sin_family = AF_INET;
        m_from.sin_port = htons(4711);
        inet_pton(AF_INET, "10.77.0.2", &m_from.sin_addr);
        m_client.registerKypSacnEvent(collect, &m_devices);
        m_client.startScan();
    }

    static void collect(_KypDevice device, void* user) {
        static_cast<std::vector<_KypDevice>*>(user)->push_back(device);
    }

    int notify(std::string json) {
        return m_client.notify(json.data(), static_cast<int>(json.size()), &m_from);
    }

    // The device that `json` is reported as; without one the test fails.
    _KypDevice device_of(std::string const& json) {
        m_devices.clear();
        EXPECT_EQ(0, notify(json)) << json;
        EXPECT_EQ(1u, m_devices.size()) << json;
        return m_devices.empty() ? _KypDevice{} : m_devices[0];
    }

    int parse_packet(Bytes packet) {
        return m_client.parseReplyPacket(reinterpret_cast<char*>(packet.data()),
                                         static_cast<int>(packet.size()), &m_from);
    }

    static std::map<std::string, std::string>& routes() {
        return utility::instance<CRouterTable>().m_table;
    }

    CKypScanClient m_client;
    std::vector<_KypDevice> m_devices;
    sockaddr_in m_from{};
};

// ---- a new object and its gate -----------------------------------------------------------------

TEST_F(KypScanClientTest, GateIsShutAndNobodyIsToldWhenMade) {
    CKypScanClient client;

    EXPECT_FALSE(client.m_stop);
    EXPECT_FALSE(client.m_scanning);
    EXPECT_EQ(nullptr, client.m_callback);
    EXPECT_FALSE(client.m_thread.joinable());
    EXPECT_THAT(client.m_adapters, IsEmpty());
}

TEST_F(KypScanClientTest, GateOpensAndShuts) {
    EXPECT_EQ(0, m_client.stopScan());
    EXPECT_FALSE(m_client.m_scanning);
    EXPECT_EQ(0, m_client.startScan());
    EXPECT_TRUE(m_client.m_scanning);
}

TEST_F(KypScanClientTest, CallbackAndItsArgumentAreStored) {
    int argument = 0;

    EXPECT_EQ(0, m_client.registerKypSacnEvent(collect, &argument));
    EXPECT_EQ(&collect, m_client.m_callback.load());
    EXPECT_EQ(&argument, m_client.m_userData.load());

    EXPECT_EQ(0, m_client.registerKypSacnEvent(nullptr, nullptr));
    EXPECT_EQ(nullptr, m_client.m_callback.load());
    EXPECT_EQ(nullptr, m_client.m_userData.load());
}

// ---- what becomes of a reply's text ------------------------------------------------------------

TEST_F(KypScanClientTest, EveryKeyGoesToItsField) {
    _KypDevice const device = device_of(kDeviceJson);

    EXPECT_STREQ("10.77.0.2", device.ipAddr);
    EXPECT_STREQ("00:1a:2b:3c:4d:5e", device.macAddr);
    EXPECT_STREQ("001A2B3C4D5E", device.serialNo);
    EXPECT_STREQ("S-17", device.sn);
    EXPECT_STREQ("10.77.0.2.1.1", device.kypDeviceId);
    EXPECT_STREQ("1.0", device.kypVersion);
    EXPECT_STREQ("2.7", device.rteVersion);
    EXPECT_STREQ("os 5", device.velaosVersion);
    EXPECT_STREQ("press", device.hostName);
    EXPECT_TRUE(all_zero(device.reserved, sizeof device.reserved));
}

TEST_F(KypScanClientTest, FieldsAreZeroBehindTheirTexts) {
    _KypDevice const device = device_of(kDeviceJson);

    EXPECT_TRUE(all_zero(device.hostName + 5, sizeof device.hostName - 5));
    EXPECT_TRUE(all_zero(device.velaosVersion + 4, sizeof device.velaosVersion - 4));
    EXPECT_TRUE(all_zero(device.ipAddr + 9, sizeof device.ipAddr - 9));
}

TEST_F(KypScanClientTest, MissingKeysLeaveTheirFieldsEmpty) {
    _KypDevice const device = device_of(R"({"device":{"sn":"S-17"}})");

    EXPECT_STREQ("S-17", device.sn);
    EXPECT_STREQ("10.77.0.2", device.ipAddr);
    for (char const* field :
         {device.macAddr, device.serialNo, device.kypDeviceId, device.kypVersion, device.rteVersion,
          device.velaosVersion, device.hostName}) {
        EXPECT_STREQ("", field);
    }
}

TEST_F(KypScanClientTest, LongTextsAreCutToTheirFields) {
    struct Row {
        char const* key;
        size_t offset;
        size_t size;
    };
    for (Row const& row : {Row{"serialNo", offsetof(_KypDevice, serialNo), 32},
                           Row{"sn", offsetof(_KypDevice, sn), 32},
                           Row{"kypDeviceId", offsetof(_KypDevice, kypDeviceId), 32},
                           Row{"kypVersion", offsetof(_KypDevice, kypVersion), 32},
                           Row{"rteVersion", offsetof(_KypDevice, rteVersion), 32},
                           Row{"velaosVersion", offsetof(_KypDevice, velaosVersion), 256},
                           Row{"hostName", offsetof(_KypDevice, hostName), 32}}) {
        SCOPED_TRACE(row.key);
        for (size_t const length : {row.size - 2, row.size - 1, row.size, row.size + 400}) {
            _KypDevice const device = device_of(std::string(R"({"device":{")") + row.key + "\":\"" +
                                                std::string(length, 'x') + "\"}}");
            char const* const field = reinterpret_cast<char const*>(&device) + row.offset;

            EXPECT_EQ(std::string(std::min(length, row.size - 1), 'x'), field);
        }
    }
}

TEST_F(KypScanClientTest, LongHardwareAddressIsCut) {
    std::string const mac(40, 'm');

    _KypDevice const device =
        device_of(R"({"frames":[{"frameIp":"10.77.0.2","frameMacAddr":")" + mac + "\"}]}");

    EXPECT_EQ(std::string(31, 'm'), device.macAddr);
    EXPECT_STREQ("", device.serialNo);
}

TEST_F(KypScanClientTest, FirstFrameOfTheSendersAddressGivesTheHardwareAddress) {
    _KypDevice const device = device_of(R"({"frames":[{"frameIp":"10.77.0.9","frameMacAddr":"a"},)"
                                        R"({"frameIp":"10.77.0.2","frameMacAddr":"b"},)"
                                        R"({"frameIp":"10.77.0.2","frameMacAddr":"c"}]})");

    EXPECT_STREQ("b", device.macAddr);
}

TEST_F(KypScanClientTest, FramesBehindTheOneThatFitsAreNotRead) {
    _KypDevice const device =
        device_of(R"({"frames":[{"frameIp":"10.77.0.2","frameMacAddr":"b"},{"frameIp":5}]})");

    EXPECT_STREQ("b", device.macAddr);
}

TEST_F(KypScanClientTest, WithoutAFrameOfTheSendersAddressTheHardwareAddressStaysEmpty) {
    for (char const* frames :
         {"[]", R"([{"frameIp":"10.77.0.20","frameMacAddr":"a"}])", R"([{"frameMacAddr":"a"}])",
          R"([1,"x",null,[],{}])", "{}", "5", R"("text")", "true"}) {
        SCOPED_TRACE(frames);

        EXPECT_STREQ("", device_of(std::string(R"({"frames":)") + frames + "}").macAddr);
    }
}

TEST_F(KypScanClientTest, NullFramesAreNotReported) {
    LogCapture log;

    EXPECT_EQ(-1, notify(R"({"device":{"kypDeviceId":"1.2.3.4.5.6"},"frames":null})"));

    EXPECT_THAT(m_devices, IsEmpty());
    EXPECT_THAT(routes(), IsEmpty());
    EXPECT_EQ("", log.text());
}

TEST_F(KypScanClientTest, DeviceThatIsNoObjectTellsNothing) {
    for (char const* value : {"null", "5", "[]", R"("text")", "{}"}) {
        SCOPED_TRACE(value);
        _KypDevice const device = device_of(std::string(R"({"device":)") + value + "}");

        EXPECT_STREQ("10.77.0.2", device.ipAddr);
        EXPECT_STREQ("", device.kypDeviceId);
    }
}

TEST_F(KypScanClientTest, KeepsReportingAReplyWithoutADevice) {
    _KypDevice const device = device_of(R"({"frames":[]})");

    EXPECT_STREQ("10.77.0.2", device.ipAddr);
    EXPECT_STREQ("", device.kypDeviceId);
    EXPECT_THAT(routes(), ElementsAre(std::pair<std::string const, std::string>("", "10.77.0.2")));
}

TEST_F(KypScanClientTest, TextBehindTheObjectIsNotLookedAt) {
    EXPECT_STREQ("S", device_of(R"({"device":{"sn":"S"}} and so on)").sn);
}

TEST_F(KypScanClientTest, TextEndsWithItsLength) {
    std::string packet = R"({"device":{"sn":"S"}})";
    auto const length = static_cast<int>(packet.size());
    packet += "\", garbage";

    EXPECT_EQ(0, m_client.notify(packet.data(), length, &m_from));
    EXPECT_EQ(-1, m_client.notify(packet.data(), length - 1, &m_from));
    EXPECT_EQ(1u, m_devices.size());
}

TEST_F(KypScanClientTest, WhatIsNoJsonObjectIsLoggedAndDropped) {
    for (char const* payload :
         {"", "   ", "hello", "[1]", "5", "null", "\"text\"", "{", R"({"device":)",
          R"({"device":{"sn":"a\"b"}})", R"({"a":1,})", R"({"device":{"sn":5}})",
          R"({"device":{"hostName":null}})", R"({"frames":{"a":1}})",
          R"({"frames":[{"frameIp":5,"frameMacAddr":"a"}]})",
          R"({"frames":[{"frameIp":"10.77.0.9","frameMacAddr":5}]})", "%s%n%d"}) {
        SCOPED_TRACE(payload);
        LogCapture log;

        EXPECT_EQ(-1, notify(payload));

        EXPECT_EQ(1, log.count("ERROR", std::string("not json:") + payload));
    }
    EXPECT_THAT(m_devices, IsEmpty());
    EXPECT_THAT(routes(), IsEmpty());
}

TEST_F(KypScanClientTest, KeepsDroppingAReplyForAFrameWithoutAHardwareAddress) {
    LogCapture log;

    EXPECT_EQ(-1, notify(R"({"frames":[{"frameIp":"10.77.0.9"}]})"));

    EXPECT_EQ(1, log.count("ERROR", R"(not json:{"frames":[{"frameIp":"10.77.0.9"}]})"));
    EXPECT_THAT(m_devices, IsEmpty());
}

TEST_F(KypScanClientTest, BadTextIsOneLineOfTheLog) {
    LogCapture log;

    notify("x\n2026-01-01 [libkyp,ERROR]:forged\x1b[31m\x7f");

    EXPECT_EQ(1, log.count("ERROR", "not json:x?2026-01-01 [libkyp,ERROR]:forged?[31m?"));
}

TEST_F(KypScanClientTest, BadTextIsLoggedUpToItsFirstNul) {
    LogCapture log;

    notify(std::string("ab\0cd", 5));

    EXPECT_EQ(1, log.count("ERROR", "not json:ab"));
}

TEST_F(KypScanClientTest, BytesBeyondTheTextAreNotLogged) {
    LogCapture log;
    char payload[] = "hello, world";

    EXPECT_EQ(-1, m_client.notify(payload, 5, &m_from));

    EXPECT_EQ(1, log.count("ERROR", "not json:hello"));
}

TEST_F(KypScanClientTest, NoLengthIsNoText) {
    LogCapture log;
    char payload[] = "{}";

    EXPECT_EQ(-1, m_client.notify(payload, 0, &m_from));
    EXPECT_EQ(-1, m_client.notify(payload, -1, &m_from));
    EXPECT_EQ(-1, m_client.notify(payload, INT_MIN, &m_from));

    EXPECT_EQ(3, log.count("ERROR", "not json:"));
}

TEST_F(KypScanClientTest, DeepNestingHurtsNobody) {
    int const deepest = 2039;
    for (std::string const& payload :
         {repeated("[", deepest), repeated("{\"\":", deepest / 4), repeated("[{\"\":", deepest / 5),
          R"({"device":)" + repeated("[", deepest - 10)}) {
        EXPECT_EQ(-1, notify(payload));
    }
    int const half = 1000;
    std::string const nest = repeated("[", half) + repeated("]", half);
    EXPECT_STREQ("S", device_of(R"({"device":{"sn":"S"},"x":)" + nest + "}").sn);
    EXPECT_STREQ("", device_of(R"({"device":)" + nest + "}").sn);
    EXPECT_STREQ("", device_of(R"({"frames":)" + nest + "}").macAddr);
}

// ---- who is told -------------------------------------------------------------------------------

TEST_F(KypScanClientTest, ConnectionsToAFoundIdGoToItsAddress) {
    EXPECT_EQ(0, notify(R"({"device":{"kypDeviceId":"1.2.3.4.5.6"}})"));

    _KypDeviceId id{{1, 2, 3, 4, 5, 6}};
    EXPECT_EQ("10.77.0.2", utility::instance<CRouterTable>().GetHostIpFromDeviceId(id));
}

TEST_F(KypScanClientTest, LastAddressOfAnIdCounts) {
    notify(R"({"device":{"kypDeviceId":"1.2.3.4.5.6"}})");
    inet_pton(AF_INET, "10.77.0.3", &m_from.sin_addr);

    notify(R"({"device":{"kypDeviceId":"1.2.3.4.5.6"}})");

    EXPECT_THAT(routes(),
                ElementsAre(std::pair<std::string const, std::string>("1.2.3.4.5.6", "10.77.0.3")));
}

TEST_F(KypScanClientTest, DeviceIsEnteredBeforeItIsReported) {
    bool isEntered = false;
    m_client.registerKypSacnEvent(
        [](_KypDevice device, void* user) {
            *static_cast<bool*>(user) = routes().count(device.kypDeviceId) == 1;
        },
        &isEntered);

    notify(kDeviceJson);

    EXPECT_TRUE(isEntered);
}

TEST_F(KypScanClientTest, WithoutACallbackNothingIsEntered) {
    m_client.registerKypSacnEvent(nullptr, &m_devices);

    EXPECT_EQ(0, notify(kDeviceJson));

    EXPECT_THAT(routes(), IsEmpty());
}

TEST_F(KypScanClientTest, WithTheGateShutNothingIsReportedOrEntered) {
    m_client.stopScan();

    EXPECT_EQ(0, notify(kDeviceJson));

    EXPECT_THAT(m_devices, IsEmpty());
    EXPECT_THAT(routes(), IsEmpty());
}

TEST_F(KypScanClientTest, CallbackMayShutTheGateAndRegisterAnother) {
    m_client.registerKypSacnEvent(
        [](_KypDevice, void* user) {
            auto& client = *static_cast<CKypScanClient*>(user);
            client.registerKypSacnEvent(nullptr, nullptr);
            client.stopScan();
        },
        &m_client);

    EXPECT_EQ(0, notify(kDeviceJson));

    EXPECT_FALSE(m_client.m_scanning);
    EXPECT_EQ(nullptr, m_client.m_callback.load());
}

// Two callbacks that each know their own argument.
int g_argumentOfA = 0;
int g_argumentOfB = 0;
std::atomic<int> g_strangers{0};

void only_with_a(_KypDevice, void* user) {
    if (user != &g_argumentOfA) ++g_strangers;
}

void only_with_b(_KypDevice, void* user) {
    if (user != &g_argumentOfB) ++g_strangers;
}

TEST_F(KypScanClientTest, CallbackIsNeverCalledWithAnothersArgument) {
    std::atomic<bool> isOver{false};
    m_client.registerKypSacnEvent(only_with_a, &g_argumentOfA);
    std::thread registrar([&] {
        while (!isOver) {
            m_client.registerKypSacnEvent(only_with_b, &g_argumentOfB);
            m_client.registerKypSacnEvent(only_with_a, &g_argumentOfA);
        }
    });

    for (int i = 0; i < 2000; ++i) notify(R"({"device":{}})");
    isOver = true;
    registrar.join();

    EXPECT_EQ(0, g_strangers);
}

// ---- heads -------------------------------------------------------------------------------------

TEST_F(KypScanClientTest, RequestIsCommandZeroStatusAndTheTime) {
    for (int const command : {0, 2, 255}) {
        SCOPED_TRACE(command);
        auto const before = static_cast<uint32_t>(time(nullptr));
        _KypScanCommand const head =
            m_client.packetKypScanReqInfo(static_cast<unsigned char>(command));
        auto const after = static_cast<uint32_t>(time(nullptr));

        auto const* const raw = reinterpret_cast<uint8_t const*>(&head);
        EXPECT_EQ(command, raw[0]);
        EXPECT_EQ("00 00 00 00", hex(raw + 1, 4));
        uint32_t const stamp = uint32_t{raw[5]} << 24 | uint32_t{raw[6]} << 16 |
                               uint32_t{raw[7]} << 8 | uint32_t{raw[8]};
        EXPECT_LE(before, stamp);
        EXPECT_GE(after, stamp);
    }
}

TEST_F(KypScanClientTest, RepliesOfBothRoadsAreReported) {
    EXPECT_EQ(0, parse_packet(scan_reply(1, kDeviceJson)));
    EXPECT_EQ(0, parse_packet(scan_reply(3, kDeviceJson)));

    EXPECT_EQ(2u, m_devices.size());
}

TEST_F(KypScanClientTest, WhatIsNoReplyIsDroppedWithoutParsing) {
    for (int const command : {0, 2, 4, 5, 17, 128, 255}) {
        SCOPED_TRACE(command);
        LogCapture log;

        EXPECT_EQ(0, parse_packet(scan_reply(static_cast<uint8_t>(command), "no json")));
        EXPECT_EQ(0, parse_packet(scan_reply(static_cast<uint8_t>(command), kDeviceJson)));

        EXPECT_EQ("", log.text());
    }
    EXPECT_THAT(m_devices, IsEmpty());
}

TEST_F(KypScanClientTest, ReplyWithAStatusIsDropped) {
    LogCapture log;
    for (uint32_t const status : {0x1u, 0x100u, 0x10000u, 0x1000000u, 0xffffffffu}) {
        SCOPED_TRACE(status);

        EXPECT_EQ(0, parse_packet(scan_reply(1, kDeviceJson, status)));
        EXPECT_EQ(0, parse_packet(scan_reply(3, "no json", status)));
    }
    EXPECT_THAT(m_devices, IsEmpty());
    EXPECT_EQ("", log.text());
}

TEST_F(KypScanClientTest, StatusReachesTheFilterInHostOrder) {
    _KypScanCommand head{KYP_SCAN_MULTICAST_REPLY, 1, 0};
    std::string json = kDeviceJson;
    auto const length = static_cast<int>(json.size());

    EXPECT_EQ(0, m_client.dealScanMessage(&head, json.data(), length, &m_from));
    EXPECT_THAT(m_devices, IsEmpty());

    head.status = 0;
    EXPECT_EQ(0, m_client.dealScanMessage(&head, json.data(), length, &m_from));
    EXPECT_EQ(1u, m_devices.size());
}

TEST_F(KypScanClientTest, HeadAloneIsAReplyWithoutText) {
    LogCapture log;

    EXPECT_EQ(0, parse_packet(scan_reply(1, "")));

    EXPECT_EQ(1, log.count("ERROR", "not json:"));
}

TEST_F(KypScanClientTest, LessThanAHeadIsNoReply) {
    LogCapture log;
    for (size_t size = 0; size < 9; ++size) {
        EXPECT_EQ(0, parse_packet(Bytes(size, 1)));
    }
    EXPECT_EQ("", log.text());
}

// ---- reading a datagram ------------------------------------------------------------------------

// Datagrams that reach a socket of this machine.
class KypScanClientDatagramTest : public KypScanClientTest {
protected:
    KypScanClientDatagramTest() {
        m_fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(m_fd, reinterpret_cast<sockaddr*>(&address), size);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
    }

    ~KypScanClientDatagramTest() override { close(m_fd); }

    // What reading the datagram returns.
    int read(Bytes const& datagram) {
        EXPECT_TRUE(m_sender.send_to(m_port, datagram));
        return m_client.sockReadEvt(m_fd);
    }

    RawUdp m_sender;
    int m_fd = -1;
    uint16_t m_port = 0;
};

TEST_F(KypScanClientDatagramTest, ReplyIsReportedWithItsSender) {
    EXPECT_EQ(0, read(scan_reply(1, kDeviceJson)));

    ASSERT_EQ(1u, m_devices.size());
    EXPECT_STREQ("127.0.0.1", m_devices[0].ipAddr);
    EXPECT_STREQ("", m_devices[0].macAddr);
    EXPECT_STREQ("press", m_devices[0].hostName);
}

TEST_F(KypScanClientDatagramTest, OneDatagramIsReadAtATime) {
    m_sender.send_to(m_port, scan_reply(1, kDeviceJson));
    m_sender.send_to(m_port, scan_reply(1, kDeviceJson));

    EXPECT_EQ(0, m_client.sockReadEvt(m_fd));
    EXPECT_EQ(1u, m_devices.size());
}

TEST_F(KypScanClientDatagramTest, ReadingNothingFailsAndDoesNotWait) {
    EXPECT_EQ(-1, m_client.sockReadEvt(m_fd));
    EXPECT_EQ(-1, m_client.sockReadEvt(-1));
}

TEST_F(KypScanClientDatagramTest, EightBytesAreIgnoredAndNineAreAReplyWithoutText) {
    LogCapture log;

    EXPECT_EQ(-1, read(bytes("01 00 00 00 00 00 00 00")));
    EXPECT_EQ("", log.text());

    EXPECT_EQ(0, read(bytes("01 00 00 00 00 00 00 00 00")));
    EXPECT_EQ(1, log.count("ERROR", "not json:"));
}

TEST_F(KypScanClientDatagramTest, LongestReplyIsReadWhole) {
    std::string const start = R"({"device":{"sn":"S"},"x":")";
    std::string const json = start + std::string(2039 - start.size() - 2, 'x') + "\"}";

    EXPECT_EQ(0, read(scan_reply(3, json)));

    EXPECT_EQ(1u, m_devices.size());
}

TEST_F(KypScanClientDatagramTest, LongerReplyLosesItsEnd) {
    LogCapture log;
    std::string const start = R"({"device":{"sn":"S"},"x":")";
    std::string const json = start + std::string(2040 - start.size() - 2, 'x') + "\"}";

    EXPECT_EQ(0, read(scan_reply(3, json)));

    EXPECT_THAT(m_devices, IsEmpty());
    EXPECT_EQ(1, log.count("ERROR", "not json:" + json.substr(0, 2039)));
}

TEST_F(KypScanClientDatagramTest, DatagramsOfEveryLengthHurtNobody) {
    SetLogLevel(LOG_LEVEL_COMM);
    Bytes const noise = pattern(2048);
    for (size_t size = 0; size <= noise.size(); ++size) {
        Bytes datagram(noise.begin(), noise.begin() + static_cast<long>(size));
        ASSERT_EQ(size < 9 ? -1 : 0, read(datagram)) << size;
        if (size < 9) continue;
        // The same again as a reply, and as one that is cut somewhere.
        Bytes const reply = scan_reply(1, std::string(size - 9, '['));
        ASSERT_EQ(0, read(reply)) << size;
    }
    Bytes const whole = scan_reply(1, kDeviceJson);
    for (size_t size = 9; size < whole.size(); ++size) {
        ASSERT_EQ(0, read(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)))) << size;
    }
    EXPECT_THAT(m_devices, IsEmpty());
}

TEST_F(KypScanClientDatagramTest, EveryByteValueInATextHurtsNobody) {
    SetLogLevel(LOG_LEVEL_COMM);
    std::string const json = kDeviceJson;
    for (int value = 0; value < 256; ++value) {
        std::string broken = json;
        broken[static_cast<size_t>(value) % json.size()] = static_cast<char>(value);
        ASSERT_EQ(0, read(scan_reply(1, broken)));
    }
}

// ---- sending -----------------------------------------------------------------------------------

TEST_F(KypScanClientDatagramTest, OneDatagramGivesTheBytesSent) {
    RawUdp receiver;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(receiver.port());

    EXPECT_EQ(5, m_client.sendScanReqPacket(m_fd, "hello", 5, &to));
    EXPECT_EQ("hello", as_text(receiver.receive().data));
}

TEST_F(KypScanClientDatagramTest, WithoutASocketNothingIsSentOrLogged) {
    LogCapture log;
    CallGate gate;
    sockaddr_in to{};

    EXPECT_EQ(-1, m_client.sendScanReqPacket(-1, "hello", 5, &to));

    EXPECT_EQ(0, gate.count("sendto"));
    EXPECT_EQ("", log.text());
}

TEST_F(KypScanClientDatagramTest, FailedSendIsLogged) {
    LogCapture log;
    CallGate gate;
    gate.fail("sendto", ENETUNREACH);
    sockaddr_in to{};

    EXPECT_EQ(-1, m_client.sendScanReqPacket(m_fd, "hello", 5, &to));

    EXPECT_EQ(1, log.count("ERROR", "send kyp search packet fail"));
}

// ---- adapters and rounds -----------------------------------------------------------------------

constexpr char const* kMac = "00:1a:2b:3c:4d:5e";
constexpr char const* kOtherMac = "00:1a:2b:3c:4d:5f";
using AdapterMap = std::unordered_map<std::string, _NetAdapterObj>;

std::string bound_to(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return inet_ntoa(address.sin_addr);
}

class KypScanClientAdapterTest : public KypScanClientTest {
protected:
    KypScanClientAdapterTest() : m_eth("eth7", kMac) {
        m_eth.with_address("10.1.2.3").with_address("10.1.2.4").up();
    }

    ~KypScanClientAdapterTest() override { m_client.stop(); }

    void update(std::string const& ip, std::string const& mac = kMac) {
        EXPECT_EQ(0, m_client.UpdateScanAdapter({{"eth7", {mac, "eth7", ip}}}));
    }

    CScanAdapter& first() { return *m_client.m_adapters.front(); }

    NetInterface m_eth;
};

TEST_F(KypScanClientAdapterTest, InterfacesAreListedAsTheyAre) {
    AdapterMap const list = m_client.GetLocalAdapterList();

    ASSERT_EQ(1u, list.count("eth7"));
    EXPECT_EQ(kMac, list.at("eth7").macAddr);
    EXPECT_EQ("10.1.2.3", list.at("eth7").ipAddr);
}

TEST_F(KypScanClientAdapterTest, InterfaceWithAnAddressGetsItsSockets) {
    update("10.1.2.3");

    ASSERT_EQ(1u, m_client.m_adapters.size());
    EXPECT_EQ("eth7", first().GetAdapterName());
    EXPECT_EQ(kMac, first().m_macAddr);
    EXPECT_TRUE(first().m_useBroadcast);
    EXPECT_EQ("10.1.2.3", bound_to(first().GetMutilScanSocket()));
    EXPECT_EQ("10.1.2.3", bound_to(first().GetBroadScanSocket()));
}

TEST_F(KypScanClientAdapterTest, InterfaceWithoutAnAddressGetsNone) {
    update("");

    EXPECT_THAT(m_client.m_adapters, IsEmpty());
}

TEST_F(KypScanClientAdapterTest, SameAddressLeavesTheSocketsAlone) {
    update("10.1.2.3");
    CallGate gate;

    update("10.1.2.3");

    EXPECT_THAT(gate.calls(), IsEmpty());
    EXPECT_EQ(1u, m_client.m_adapters.size());
}

TEST_F(KypScanClientAdapterTest, OtherAddressMovesTheSockets) {
    update("10.1.2.3");

    update("10.1.2.4");

    ASSERT_EQ(1u, m_client.m_adapters.size());
    EXPECT_EQ("10.1.2.4", bound_to(first().GetMutilScanSocket()));
    EXPECT_EQ("10.1.2.4", bound_to(first().GetBroadScanSocket()));
}

TEST_F(KypScanClientAdapterTest, InterfaceThatGoesKeepsItsSockets) {
    update("10.1.2.3");
    int const fd = first().GetMutilScanSocket();

    EXPECT_EQ(0, m_client.UpdateScanAdapter({}));
    update("");

    ASSERT_EQ(1u, m_client.m_adapters.size());
    EXPECT_EQ(fd, first().GetMutilScanSocket());
    EXPECT_EQ("10.1.2.3", bound_to(fd));
}

TEST_F(KypScanClientAdapterTest, OtherHardwareAddressIsAnotherAdapterBehindTheFirst) {
    update("10.1.2.3");

    update("10.1.2.4", kOtherMac);

    ASSERT_EQ(2u, m_client.m_adapters.size());
    EXPECT_EQ(kMac, first().m_macAddr);
    EXPECT_EQ("10.1.2.3", bound_to(first().GetMutilScanSocket()));
    EXPECT_EQ(kOtherMac, m_client.m_adapters.back()->m_macAddr);
    EXPECT_EQ("10.1.2.4", bound_to(m_client.m_adapters.back()->GetMutilScanSocket()));
}

TEST_F(KypScanClientAdapterTest, KeepsOneAdapterForInterfacesOfOneHardwareAddress) {
    AdapterMap const list{{"eth7", {kMac, "eth7", "10.1.2.3"}},
                          {"eth7.5", {kMac, "eth7.5", "10.1.2.4"}}};
    for (char const* pass : {"first", "second"}) {
        SCOPED_TRACE(pass);
        CallGate gate;

        EXPECT_EQ(0, m_client.UpdateScanAdapter(list));

        EXPECT_EQ(1u, m_client.m_adapters.size());
        // Two sockets at one address, then two at the other.
        EXPECT_EQ(4, gate.count("bind"));
    }
}

TEST_F(KypScanClientAdapterTest, SocketBeyondTheSelectableOnesIsReported) {
    LogCapture log;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1100) GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors";
    limit.rlim_cur = 1100;
    setrlimit(RLIMIT_NOFILE, &limit);
    while (dup(0) < 1023) {
    }

    update("10.1.2.3");

    EXPECT_EQ(1, log.count("ERROR",
                           "scan socket 1024 of iframe:eth7 is beyond 1023,its replies are not "
                           "read"));
    EXPECT_EQ(1, log.count_containing("scan socket 1025 "));
    update("10.1.2.3");
    EXPECT_EQ(2, log.count_containing("its replies are not read"));
}

// Far enough in the past, or the future, for a round to be due whatever the machine's load.
constexpr int64_t kHourNs = 3600LL * 1000000000;

TEST_F(KypScanClientAdapterTest, RoundIsTwoRequestsOnEachAdapter) {
    update("10.1.2.3");
    m_client.m_lastSend.m_nanoseconds -= kHourNs;
    CallGate gate;

    EXPECT_EQ(0, m_client.sendScanReqPacket());

    EXPECT_THAT(gate.calls(), ElementsAre("sendto(9,64,16)", "sendto(9,64,16)"));
}

TEST_F(KypScanClientAdapterTest, SecondRoundWaits) {
    update("10.1.2.3");
    m_client.m_lastSend.m_nanoseconds -= kHourNs;
    m_client.sendScanReqPacket();
    CallGate gate;

    // A second has passed only when this thread was kept from running for that long.
    EXPECT_EQ(0, m_client.sendScanReqPacket());

    bool const isDue = m_client.m_lastSend.getElapsedTimeInMilliSec() >= 1000;
    EXPECT_TRUE(gate.count("sendto") == 0 || isDue);
}

TEST_F(KypScanClientAdapterTest, KeepsWaitingAfterTheClockWasSetBack) {
    update("10.1.2.3");
    m_client.m_lastSend.m_nanoseconds += kHourNs;
    CallGate gate;

    EXPECT_EQ(0, m_client.sendScanReqPacket());

    EXPECT_EQ(0, gate.count("sendto"));
}

TEST_F(KypScanClientAdapterTest, FailedSendDoesNotEndTheRound) {
    update("10.1.2.3");
    m_client.m_lastSend.m_nanoseconds -= kHourNs;
    LogCapture log;
    CallGate gate;
    gate.fail("sendto", ENETUNREACH);

    EXPECT_EQ(0, m_client.sendScanReqPacket());

    EXPECT_EQ(2, gate.count("sendto"));
    EXPECT_EQ(1, log.count("ERROR", "send kyp search packet fail"));
}

TEST_F(KypScanClientAdapterTest, AdapterWithoutASocketIsPassedOver) {
    CallGate gate;
    gate.fail("bind(16)", EADDRINUSE);
    update("10.1.2.3");
    ASSERT_EQ(-1, first().GetMutilScanSocket());
    m_client.m_lastSend.m_nanoseconds -= kHourNs;
    LogCapture log;

    EXPECT_EQ(0, m_client.sendScanReqPacket());

    EXPECT_EQ(1, gate.count("sendto"));
    EXPECT_EQ("", log.text());
}

TEST_F(KypScanClientAdapterTest, StopClosesEverySocket) {
    update("10.1.2.3");

    EXPECT_EQ(0, m_client.stop());

    EXPECT_THAT(m_client.m_adapters, IsEmpty());
}

}  // namespace
