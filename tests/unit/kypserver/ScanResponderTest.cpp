#include "kypserver/ScanResponder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>

#include "kypcomm/KypDeviceIdGenerator.h"
#include "support/CallGate.h"
#include "support/Eventually.h"
#include "support/RawScanner.h"
#include "support/SecondHost.h"
#include "utils/Log.h"
#include "utils/json/Json.h"

namespace kypserver {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

// ---- how many replies leave
// ----------------------------------------------------------------------

TEST(ReplyLimitTest, LetsSoManyRepliesLeaveInASecond) {
    CReplyLimit limit(2, 2);

    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(1, 10));
    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(2, 10));
    EXPECT_EQ(CReplyLimit::FIRST_REFUSAL, limit.ask(3, 10));
    EXPECT_EQ(CReplyLimit::REFUSAL, limit.ask(3, 10));
}

TEST(ReplyLimitTest, OneSenderLeavesRoomForTheOthers) {
    CReplyLimit limit(10, 2);

    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(1, 10));
    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(1, 10));
    EXPECT_EQ(CReplyLimit::FIRST_REFUSAL, limit.ask(1, 10));
    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(2, 10));
    EXPECT_EQ(CReplyLimit::REFUSAL, limit.ask(1, 10));
}

TEST(ReplyLimitTest, EverySecondBeginsAnew) {
    CReplyLimit limit(1, 1);
    limit.ask(1, 10);
    limit.ask(1, 10);

    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(1, 11));
    EXPECT_EQ(CReplyLimit::FIRST_REFUSAL, limit.ask(1, 11));
    EXPECT_EQ(CReplyLimit::REPLY, limit.ask(1, 5));  // the clock was set back
}

// ---- against a scan on the second host
// -----------------------------------------------------------

std::string json_of(RawDatagram const& reply) {
    return reply.data.size() < 9 ? "" : as_text(Bytes(reply.data.begin() + 9, reply.data.end()));
}

class ScanResponderTest : public testing::Test {
protected:
    void SetUp() override {
        SetLogLevel(LOG_LEVEL_COMM);
        if (!m_host.ready() || !m_scanner.ready()) GTEST_SKIP() << "no second host";
    }

    // Starts and waits until the group is joined: a first request is answered.
    void start() {
        ASSERT_TRUE(m_responder.start());
        EXPECT_TRUE(answers([this] { m_scanner.multicast(scan_request(0)); }));
    }

    // Asks until a reply comes, and takes the others that are under way.
    bool answers(std::function<void()> const& ask) {
        bool const isAnswered = eventually([&] {
            ask();
            return m_scanner.receive(milliseconds(200)).port != 0;
        });
        while (m_scanner.receive(milliseconds(20)).port != 0) {
        }
        return isAnswered;
    }

    // True when what is sent before a good request brings nothing: the good one's reply comes
    // first, and alone.
    bool only_answers_good_one() {
        m_scanner.broadcast(scan_request(2));
        RawDatagram const first = m_scanner.receive();
        return first.data.size() > 9 && first.data[0] == 3 && first.port == 38896 &&
               m_scanner.receive(milliseconds(20)).port == 0;
    }

    SecondHost m_host;
    RawScanner m_scanner{m_host};
    CScanResponder m_responder;
};

TEST_F(ScanResponderTest, AnswersByMulticast) {
    start();
    auto const before = static_cast<uint32_t>(time(nullptr));

    m_scanner.multicast(scan_request(0));
    RawDatagram const reply = m_scanner.receive();

    EXPECT_EQ("10.77.0.1", reply.host);
    EXPECT_EQ(38897, reply.port);
    ASSERT_LT(9u, reply.data.size());
    EXPECT_GE(2048u, reply.data.size());
    EXPECT_EQ("01 00 00 00 00", hex(reply.data.data(), 5));
    uint32_t const stamp = uint32_t{reply.data[5]} << 24 | uint32_t{reply.data[6]} << 16 |
                           uint32_t{reply.data[7]} << 8 | uint32_t{reply.data[8]};
    EXPECT_LE(before, stamp);
}

TEST_F(ScanResponderTest, AnswersByBroadcast) {
    start();

    m_scanner.broadcast(scan_request(2));
    RawDatagram const reply = m_scanner.receive();

    EXPECT_EQ("10.77.0.1", reply.host);
    EXPECT_EQ(38896, reply.port);
    ASSERT_LT(9u, reply.data.size());
    EXPECT_EQ("03 00 00 00 00", hex(reply.data.data(), 5));
}

TEST_F(ScanResponderTest, ReplyTellsTheDeviceAndItsInterface) {
    std::ofstream("/opt/kyp/kypdevice.xml")
        << R"(<kyp><deviceInfo deviceId="1.2.3.4.5.6"></deviceInfo></kyp>)";
    start();

    m_scanner.broadcast(scan_request(2));
    libkyp::json::Json reply;
    reply.parse(json_of(m_scanner.receive()));

    EXPECT_EQ("1.2.3.4.5.6", reply.get("device").get("kypDeviceId").asString());
    EXPECT_EQ("0.3.1", reply.get("device").get("rteVersion").asString());
    EXPECT_EQ(host_name().substr(0, 31), reply.get("device").get("hostName").asString());
    EXPECT_EQ(12u, reply.get("device").get("serialNo").asString().size());
    ASSERT_EQ(1u, reply.get("frames").size());
    EXPECT_EQ("10.77.0.1", reply.get("frames").get(0).get("frameIp").asString());
    EXPECT_EQ(17u, reply.get("frames").get(0).get("frameMacAddr").asString().size());
}

TEST_F(ScanResponderTest, ReplyTellsAnIdThatWasSetMeanwhile) {
    start();

    utility::instance<CKypDeviceIdGenerator>().SetLocalDeviceId({{9, 8, 7, 6, 5, 4}});

    m_scanner.broadcast(scan_request(2));
    EXPECT_THAT(json_of(m_scanner.receive()), HasSubstr(R"("kypDeviceId":"9.8.7.6.5.4")"));
}

TEST_F(ScanResponderTest, WhatIsNotExactlyARequestIsNotAnswered) {
    start();
    Bytes withStatus = scan_request(2);
    withStatus[4] = 1;
    for (Bytes const& bad :
         {Bytes{}, bytes("02"), bytes("02 00 00 00 00 00 00 00"),
          bytes("02 00 00 00 00 00 00 00 00 00"), join({scan_request(2), pattern(2000)}),
          scan_request(0), scan_request(1), scan_request(3), scan_request(4), scan_request(255),
          withStatus}) {
        m_scanner.broadcast(bad);
    }
    for (int const command : {1, 2, 3, 4, 255}) {
        m_scanner.multicast(scan_request(static_cast<uint8_t>(command)));
    }

    EXPECT_TRUE(only_answers_good_one());
}

TEST_F(ScanResponderTest, DatagramsOfEveryLengthHurtNobody) {
    start();
    Bytes const noise = pattern(2048);
    for (size_t size = 0; size <= noise.size(); ++size) {
        Bytes data(noise.begin(), noise.begin() + static_cast<long>(size));
        if (!data.empty()) data[0] = 2;
        if (size == 9) data[1] = 1;  // a status: no request
        ASSERT_TRUE(m_scanner.broadcast(data)) << size;
    }

    EXPECT_TRUE(answers([this] { m_scanner.broadcast(scan_request(2)); }));
}

TEST_F(ScanResponderTest, RequestToTheAddressOfTheDeviceIsNotAnswered) {
    start();

    m_scanner.send_to(SecondHost::kHere, 38896, scan_request(2));
    m_scanner.send_to(SecondHost::kHere, 38897, scan_request(0));

    EXPECT_TRUE(only_answers_good_one());
}

TEST_F(ScanResponderTest, OneSenderGetsSoManyRepliesASecond) {
    start();
    testing::internal::CaptureStderr();
    time_t const begin = time(nullptr);
    for (int i = 0; i < 60; ++i) m_scanner.broadcast(scan_request(2));

    unsigned int replies = 0;
    while (m_scanner.receive(milliseconds(200)).port != 0) ++replies;
    auto const seconds = static_cast<unsigned int>(time(nullptr) - begin) + 1;

    EXPECT_LE(1u, replies);
    EXPECT_GE(CScanResponder::kRepliesPerSender * seconds, replies);
    m_responder.stop();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("too many scan requests, the last from 10.77.0.2: not all are answered"));
}

TEST_F(ScanResponderTest, InterfaceThatComesLaterIsTakenIn) {
    ASSERT_EQ(0, system("ip link set kyp0 down"));
    ASSERT_TRUE(m_responder.start());

    ASSERT_EQ(0, system("ip link set kyp0 up"));

    EXPECT_TRUE(answers([this] { m_scanner.multicast(scan_request(0)); }));
    EXPECT_TRUE(answers([this] { m_scanner.broadcast(scan_request(2)); }));
}

TEST_F(ScanResponderTest, InterfaceWithANewAddressAnswersFromThere) {
    start();
    ASSERT_EQ(0, system("ip addr flush dev kyp0 && "
                        "ip addr add 10.77.0.7/24 broadcast + dev kyp0"));

    RawDatagram reply;
    EXPECT_TRUE(eventually([&] {
        m_scanner.broadcast(scan_request(2));
        reply = m_scanner.receive(milliseconds(200));
        return reply.host == "10.77.0.7";
    }));
    EXPECT_THAT(json_of(reply), HasSubstr(R"("frameIp":"10.77.0.7")"));
    EXPECT_TRUE(answers([this] { m_scanner.multicast(scan_request(0)); }));
}

TEST_F(ScanResponderTest, InterfaceWithoutAnAddressDoesNotAnswer) {
    start();
    ASSERT_EQ(0, system("ip addr flush dev kyp0"));

    // A look at the interfaces later nothing comes any more.
    EXPECT_TRUE(eventually([&] {
        m_scanner.broadcast(scan_request(2));
        return m_scanner.receive(milliseconds(200)).port == 0;
    }));
}

TEST_F(ScanResponderTest, AnswersOverACableBetweenUnlikeAddresses) {
    ASSERT_EQ(0, system("ip addr flush dev kyp0 && ip addr add 192.168.9.1/24 dev kyp0"));
    ASSERT_TRUE(m_responder.start());

    EXPECT_TRUE(answers([this] { m_scanner.broadcast(scan_request(2)); }));
}

TEST_F(ScanResponderTest, StopEndsIt) {
    start();

    m_responder.stop();
    m_responder.stop();

    m_scanner.broadcast(scan_request(2));
    EXPECT_EQ(0, m_scanner.receive(milliseconds(50)).port);
}

// ---- sockets that cannot be opened
// ---------------------------------------------------------------

TEST_F(ScanResponderTest, RoadThatIsTakenIsReportedAndTheOtherServes) {
    CallGate gate;
    gate.fail("bind", EADDRINUSE);
    testing::internal::CaptureStderr();

    EXPECT_TRUE(m_responder.start());

    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("scan requests to 239.255.0.3 port 38897 are not answered: Address "
                          "already in use; end the program that holds the port, or start with "
                          "--no-scan\n"));
    EXPECT_TRUE(answers([this] { m_scanner.broadcast(scan_request(2)); }));
}

TEST_F(ScanResponderTest, WithoutAnyRoadItDoesNotStart) {
    CallGate gate;
    gate.fail("bind", EADDRINUSE, 2);
    testing::internal::CaptureStderr();

    EXPECT_FALSE(m_responder.start());

    std::string const said = testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr("scan requests to 239.255.0.3 port 38897 are not answered"));
    EXPECT_THAT(said, HasSubstr("scan requests to 255.255.255.255 port 38896 are not answered"));
    m_responder.stop();
}

TEST_F(ScanResponderTest, GroupThatCannotBeJoinedIsToldOnceAndTriedAgain) {
    CallGate gate;
    gate.fail("setsockopt(0,35,", ENOBUFS, 2);
    testing::internal::CaptureStderr();
    ASSERT_TRUE(m_responder.start());

    EXPECT_TRUE(answers([this] { m_scanner.multicast(scan_request(0)); }));

    m_responder.stop();
    std::string const said = testing::internal::GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr("scan requests by multicast are not answered on kyp0: No buffer "
                                "space available"));
    EXPECT_EQ(said.find("by multicast"), said.rfind("by multicast"));
}

TEST_F(ScanResponderTest, TwoOnOneMachineBothAnswer) {
    CScanResponder second;
    start();
    ASSERT_TRUE(second.start());

    EXPECT_TRUE(eventually([this] {
        m_scanner.broadcast(scan_request(2));
        return m_scanner.receive(milliseconds(200)).port != 0 &&
               m_scanner.receive(milliseconds(200)).port != 0;
    }));
}

}  // namespace
}  // namespace kypserver
