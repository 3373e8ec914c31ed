// The command-line tool looking for devices: `kyp scan`, with a second host that the tests play.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>
#include <utility>

#include "ToolFixture.h"
#include "support/RawScanDevice.h"
#include "support/SecondHost.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

std::string device_json(std::string const& id, std::string const& host = "plc-west") {
    return R"({"device":{"kypDeviceId":")" + id + R"(","kypVersion":"0.3.1","rteVersion":"2.0",)" +
           R"("hostName":")" + host + R"(","velaosVersion":"os 1","serialNo":"S-1","sn":"x"},)" +
           R"("frames":[{"frameIp":"10.77.0.2","frameMacAddr":"02:00:00:00:00:09"}]})";
}

// A device on the second host: answers each request on both roads with the datagrams that `replies`
// makes.
class ScanDevice {
public:
    // Makes the datagrams for a reply with `command`.
    using Replies = std::function<std::vector<Bytes>(uint8_t command)>;

    ScanDevice(SecondHost const& host, Replies replies, std::unique_ptr<RawUdp> second = nullptr)
        : m_device(host), m_replies(std::move(replies)), m_second(std::move(second)) {
        EXPECT_TRUE(m_device.ready());
        m_thread = std::thread([this] {
            while (!m_stop) serve();
        });
    }

    ~ScanDevice() {
        m_stop = true;
        m_thread.join();
    }

    ScanDevice(ScanDevice const&) = delete;
    ScanDevice& operator=(ScanDevice const&) = delete;

private:
    void serve() {
        ScanRequest const request = m_device.receive(std::chrono::milliseconds(10));
        if (request.road == ScanRequest::NONE) return;
        for (Bytes const& reply : m_replies(request.road == ScanRequest::MULTICAST ? 1 : 3)) {
            m_device.answer(request, reply);
            if (m_second != nullptr) m_second->send_to(request.port, reply, request.host);
        }
    }

    RawScanDevice m_device;
    Replies m_replies;
    std::unique_ptr<RawUdp> m_second;  // where each reply is sent from as well
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class ToolScanTest : public ToolTest {
protected:
    ToolScanTest() { EXPECT_TRUE(m_host.ready()); }

    // Has `ip` change this host.
    static void ip(std::string const& words) {
        EXPECT_EQ(0, system(("PATH=$PATH:/usr/sbin:/sbin; ip " + words).c_str())) << words;
    }

    SecondHost m_host;
};

TEST_F(ToolScanTest, PrintsATableOfWhatItFinds) {
    ScanDevice const device(m_host, [](uint8_t command) {
        return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6"))};
    });

    Ended const ended = kyp({"scan", "-c", "1", "-d", "60"});

    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ(
        "DEVICE ID    ADDRESS    HARDWARE ADDRESS   HOST      KYP    RUNTIME  SYSTEM  SERIAL\n"
        "1.2.3.4.5.6  10.77.0.2  02:00:00:00:00:09  plc-west  0.3.1  2.0      os 1    S-1\n",
        ended.out);
    EXPECT_EQ("", ended.err);
}

TEST_F(ToolScanTest, GivesProgramsOneObjectADevice) {
    ScanDevice const device(m_host, [](uint8_t command) {
        return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6"))};
    });

    Json const found = json_of(kyp({"scan", "-c", "1", "-d", "60", "--json"}));

    EXPECT_EQ("1.2.3.4.5.6", found["id"]);
    EXPECT_EQ("10.77.0.2", found["address"]);
    EXPECT_EQ("02:00:00:00:00:09", found["mac"]);
    EXPECT_EQ("plc-west", found["host"]);
}

TEST_F(ToolScanTest, ADeviceIsReachedByTheIdThatTheScanFound) {
    ScanDevice const device(m_host, [](uint8_t command) {
        return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6"))};
    });
    m_host.run([this] { m_listener = RawListener::tcp(9999, SecondHost::kThere); });
    ASSERT_EQ(0, kyp({"scan", "-c", "1", "-d", "60"}).code);

    auto const child = start({"read", "600", "-t", "1.2.3.4.5.6"});
    accept();
    answer(next_request(), text("hello"));

    Ended const ended = end_of(child);
    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ("hello\n", ended.out);
}

TEST_F(ToolScanTest, FindsAServerAndSpeaksToItByItsId) {
    start_server();

    m_host.run([] {
        EXPECT_THAT(kyp({"scan", "-c", "1", "-d", "60"}).out,
                    HasSubstr("\n10.77.0.1.1.1  10.77.0.1"));
        EXPECT_EQ("10.77.0.1.1.1\n", kyp({"id", "10.77.0.1.1.1"}).out);
        EXPECT_EQ("hello\n", kyp({"call", "100", "hello", "-t", "10.77.0.1.1.1"}).out);
        EXPECT_EQ(0, kyp({"ping", "10.77.0.1.1.1", "-c", "1"}).code);
    });
}

TEST_F(ToolScanTest, NobodyThereIsAFailureThatNamesWhereItAsked) {
    Ended const ended = kyp({"scan", "-d", "1100ms"});

    EXPECT_EQ(3, ended.code);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ("kyp: no device has replied on kyp0 10.77.0.1; --explain tells more\n", ended.err);
}

// What `kyp scan --explain` tells when it is stopped behind its second round: the replies to the
// first one have been read then.
class ToolExplainTest : public ToolScanTest {
protected:
    Ended explain(ScanDevice::Replies replies, Words const& more = {}) {
        std::atomic<int> asked{0};
        ScanDevice const device(m_host, [&](uint8_t command) {
            ++asked;
            return replies(command);
        });
        Words words = {"scan", "--explain", "-d", "600"};
        words.insert(words.end(), more.begin(), more.end());
        auto const child = start(words);
        EXPECT_TRUE(eventually([&asked] { return asked >= 4; }, std::chrono::seconds(30)));
        child->signal(SIGINT);
        return end_of(child);
    }
};

TEST_F(ToolExplainTest, TellsWhatWasSentAndWhatBecameOfEachReply) {
    Ended const ended = explain([](uint8_t command) {
        return std::vector<Bytes>{
            scan_reply(command, device_json("1.2.3.4.5.6")),
            scan_reply(command, "nonsense"),
            scan_reply(command, "[]"),
            scan_reply(command, R"({"frames":null})"),
            scan_reply(command, R"({"device":{"kypDeviceId":5}})"),
            scan_reply(command, "{}", KYP_ERR_DISK_FULL),
            scan_reply(static_cast<uint8_t>(command - 1), ""),
            scan_reply(9, ""),
            text("12345678"),
            scan_reply(command, std::string(2100, ' ')),
        };
    });

    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_THAT(ended.out, HasSubstr("1.2.3.4.5.6  10.77.0.2"));
    EXPECT_THAT(ended.out, HasSubstr("\nkyp0, 10.77.0.1, "));
    EXPECT_THAT(ended.out, ContainsRegex("\n  multicast to 239.255.0.3:38897: sent [0-9]+ times "
                                         "from port 38897\n"));
    EXPECT_THAT(ended.out,
                ContainsRegex("\n  broadcast to 255.255.255.255:38896: sent [0-9]+ times "
                              "from port [0-9]+\n"));
    EXPECT_THAT(ended.out, HasSubstr("\nlo: not asked, loopback\n"));
    struct Row {
        char const* fate;
        char const* verdict;
    };
    Row const rows[] = {
        {"came back", "device 1.2.3.4.5.6"},
        {"dropped", "its text is no JSON"},
        {"dropped", "its text is no JSON object"},
        {"dropped", "its \"frames\" is null"},
        {"dropped", "a value in its JSON is of another kind than it should be"},
        {"dropped", "a reply with status disk is full .0x2009."},
        {"dropped", "a request and no reply"},
        {"dropped", "command 9 is no reply"},
        {"dropped", "shorter than the 9 bytes of a head"},
        {"dropped", "its text is no JSON .its first 2048 bytes were read."},
    };
    for (char const* road : {"multicast", "broadcast"}) {
        for (Row const& row : rows) {
            EXPECT_THAT(ended.out,
                        ContainsRegex("\n  " + std::string(row.fate) + " [0-9]+ times?, by " +
                                      road + " from 10.77.0.2:38896: " + row.verdict + "\n"));
        }
    }
}

TEST_F(ToolExplainTest, TellsProgramsToo) {
    Ended const ended =
        explain([](uint8_t command) { return std::vector<Bytes>{scan_reply(command, "nonsense")}; },
                {"--json"});

    EXPECT_EQ(3, ended.code);
    Json const interfaces = json_of(ended)["interfaces"];
    ASSERT_EQ(2u, interfaces.size());
    EXPECT_EQ("kyp0", interfaces[0]["name"]);
    EXPECT_LE(2, interfaces[0]["sent"][0]["count"]);
    ASSERT_EQ(2u, interfaces[0]["came"].size());
    EXPECT_EQ(false, interfaces[0]["came"][0]["taken"]);
    EXPECT_EQ("its text is no JSON", interfaces[0]["came"][0]["verdict"]);
    EXPECT_EQ("loopback", interfaces[1]["reason"]);
}

TEST_F(ToolScanTest, ExplainsWhyAnInterfaceIsNotAsked) {
    ip("link add bare type veth peer name down");
    ip("link set bare up");
    ip("link add tap7 type veth peer name twin");
    ip("link set twin up");
    ip("addr add 10.78.0.1/24 dev twin");
    for (std::string const name : {"kyp0", "twin"}) {
        ip("link set " + name + " address 02:00:00:00:00:77");
    }

    Ended const ended = kyp({"scan", "--explain", "-d", "900ms"});

    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.out, HasSubstr("\nbare: not asked, no IPv4 address\n"));
    EXPECT_THAT(ended.out, HasSubstr("\ndown: not asked, down\n"));
    EXPECT_THAT(ended.out, HasSubstr("\ntap7: not asked, interfaces of this kind are left out\n"));
    // One of the two that share it is the one that was asked.
    EXPECT_THAT(ended.out,
                HasSubstr(": not asked, shares its hardware address with another interface\n"));
}

TEST_F(ToolScanTest, ExplainsASocketThatCouldNotBeOpened) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(38897);
    inet_pton(AF_INET, SecondHost::kHere, &address.sin_addr);
    int const selfish = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // shares its port with none
    ASSERT_EQ(0, bind(selfish, reinterpret_cast<sockaddr*>(&address), sizeof address));

    Ended const ended = kyp({"scan", "--explain", "-d", "900ms"});

    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.out, HasSubstr("\n  multicast to 239.255.0.3:38897: no socket could be "
                                     "opened, -v tells why\n"));
    EXPECT_THAT(ended.out, HasSubstr("\n  broadcast to 255.255.255.255:38896: sent 1 time from "));
    EXPECT_THAT(ended.out, HasSubstr("\n  nothing came back\n"));
    close(selfish);
}

TEST_F(ToolScanTest, ExplainsARequestThatCouldNotBeSent) {
    std::atomic<int> asked{0};
    ScanDevice const device(m_host, [&asked](uint8_t) {
        ++asked;
        return std::vector<Bytes>{};
    });
    auto const child = start({"-v", "scan", "--explain", "-d", "600"});
    ASSERT_TRUE(eventually([&] { return asked >= 2; }, std::chrono::seconds(30)));

    ip("addr flush dev kyp0");
    ASSERT_TRUE(child->wait_for_output("send kyp search packet fail"));
    child->signal(SIGINT);

    Ended const ended = end_of(child);
    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.out, ContainsRegex(", failed [0-9]+ times?: Network is unreachable\n"));
}

TEST_F(ToolScanTest, CtrlCShowsWhatWasFoundSoFar) {
    std::atomic<int> asked{0};
    ScanDevice const device(m_host, [&asked](uint8_t command) {
        ++asked;
        return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6"))};
    });
    for (bool const explain : {false, true}) {
        SCOPED_TRACE(explain);
        asked = 0;
        Words words = {"scan", "-d", "600"};
        if (explain) words.push_back("--explain");
        auto const child = start(words);
        // Whoever asks a second time has read what the first time brought.
        ASSERT_TRUE(eventually([&] { return asked >= 4; }, std::chrono::seconds(30)));

        child->signal(SIGINT);

        Ended const ended = end_of(child);
        EXPECT_EQ(0, ended.code);
        EXPECT_THAT(ended.out, HasSubstr("1.2.3.4.5.6  10.77.0.2"));
    }
}

TEST_F(ToolScanTest, ForeignTextDoesNotMoveTheTerminal) {
    ScanDevice const device(m_host, [](uint8_t command) {
        return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6", "\x1b[2J"))};
    });

    Ended const ended = kyp({"scan", "-c", "1", "-d", "60"});

    EXPECT_THAT(ended.out, AllOf(HasSubstr("\\x1b[2J"), Not(HasSubstr("\x1b"))));
}

TEST_F(ToolScanTest, AnIdThatADeviceClaimsBesideAnotherIsRememberedToo) {
    ScanDevice const device(m_host, [](uint8_t command) {
        return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6")),
                                  scan_reply(command, device_json("1.2.3.4.5.7"))};
    });
    ASSERT_EQ(0, kyp({"scan", "-c", "2", "-d", "60"}).code);

    Ended const ended = kyp({"call", "100", "-t", "1.2.3.4.5.7"});

    EXPECT_EQ(3, ended.code);
    EXPECT_EQ(
        "kyp: 1.2.3.4.5.7 at 10.77.0.2 (where a scan has seen it) cannot be reached: connect "
        "timeout (0x6)\n",
        ended.err);
}

TEST_F(ToolScanTest, AnIdThatTwoDevicesClaimIsNobodys) {
    std::unique_ptr<RawUdp> second;
    m_host.run([&second] {
        ASSERT_EQ(0, system("PATH=$PATH:/usr/sbin:/sbin; ip addr add 10.77.0.3/24 dev kyp0"));
        second = std::make_unique<RawUdp>(0, "10.77.0.3");
    });
    ScanDevice const device(
        m_host,
        [](uint8_t command) {
            return std::vector<Bytes>{scan_reply(command, device_json("1.2.3.4.5.6"))};
        },
        std::move(second));

    Ended const ended = kyp({"scan", "-c", "2", "-d", "60"});

    EXPECT_EQ(0, ended.code);
    EXPECT_THAT(ended.out, AllOf(HasSubstr("10.77.0.2"), HasSubstr("10.77.0.3")));
    EXPECT_EQ(
        "kyp: two devices say that they are 1.2.3.4.5.6; name the one that you mean by its "
        "address\n",
        ended.err);
    EXPECT_EQ("kyp: 1.2.3.4.5.6 cannot be reached: connect timeout (0x6)\n",
              kyp_as_it_is({"call", "100", "-t", "1.2.3.4.5.6", "--timeout", "0.1"}).err);
}

}  // namespace
