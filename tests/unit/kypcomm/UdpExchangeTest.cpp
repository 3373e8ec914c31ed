#include "kypcomm/UdpExchange.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <future>

#include "kypcomm/KypStatus.h"
#include "support/CallGate.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

namespace {

constexpr int kEarlierStatus = 4711;  // left by an earlier call; nothing here clears it
constexpr uint16_t kDevicePort = 38898;

int open_descriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    int found = 0;
    while (readdir(folder) != nullptr) ++found;
    closedir(folder);
    return found;
}

uint32_t invoke_id(Bytes const& request) {
    return take_apart(request).invokeId;
}

// A device that answers one request.
class UdpExchangeTest : public testing::Test {
protected:
    using Answer = std::function<Bytes(Bytes const& request)>;

    UdpExchangeTest() : m_device(kDevicePort) {
        m_req.indexGroup = htonl(0x1000);
        m_req.indexOffset = htonl(0x1001);
        tlsErrno = kEarlierStatus;
    }

    // One exchange of command 1 on port 101 with "AB" as payload.
    int exchange(Answer const& answer) {
        auto device = std::async(std::launch::async, [&] {
            RawDatagram const request = m_device.receive();
            m_request = request.data;
            m_device.send_to(request.port, answer(request.data));
        });
        char in[] = "AB";
        int const result =
            UdpSendRecv("127.0.0.1", 101, 1, m_req, in, 2, m_out, sizeof m_out, 10000);
        device.get();
        return result;
    }

    static Bytes good_answer(Bytes const& request) {
        return response_frame(101, 1, invoke_id(request), text("CD"));
    }

    RawUdp m_device;
    AoERequestHeader m_req = {};
    Bytes m_request;
    unsigned char m_out[8] = {};
};

TEST_F(UdpExchangeTest, ExchangesOneRequestForItsAnswer) {
    LogCapture log;

    EXPECT_EQ(0, exchange(good_answer));

    EXPECT_EQ(hex(request_frame(101, 1, invoke_id(m_request), 0x1000, 0x1001, text("AB"))),
              hex(m_request));
    EXPECT_EQ("43 44 00", hex(m_out, 3));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
    EXPECT_EQ(1, log.count("DEBUG", "CmdId:1 success,IdGroup:1000,IdOffset:1001"));
    EXPECT_EQ(0, log.count_containing("ERROR"));
}

TEST_F(UdpExchangeTest, RequestStandsOnTheWireByteForByte) {
    exchange(good_answer);

    std::string const id = hex(u32_be(invoke_id(m_request)));
    EXPECT_EQ("00 01 65 00 17 00 00 00 00 00 00 00 " + id +
                  " 00 01 00 00 00 00 00 10 00 00 00 10 01 41 42",
              hex(m_request));
}

// Tells by its exit code whether the ids of the first two exchanges are 0 and 1.
[[noreturn]] void exchange_twice(RawUdp& device) {
    AoERequestHeader req = {};
    bool right = true;
    for (uint32_t expected = 0; expected < 2; ++expected) {
        UdpSendRecv("127.0.0.1", 101, 1, req, nullptr, 0, nullptr, 0, 0);
        right = right && invoke_id(device.receive().data) == expected;
    }
    _exit(right ? 0 : 1);
}

TEST(UdpExchangeDeathTest, InvokeIdsOfAProcessBeginAtZero) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";

    // The device is made in the fresh process: it runs this test from its start.
    EXPECT_EXIT(
        {
            RawUdp device(kDevicePort);
            exchange_twice(device);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(UdpExchangeTest, EachExchangeHasTheNextInvokeId) {
    exchange(good_answer);
    uint32_t const first = invoke_id(m_request);

    exchange(good_answer);

    EXPECT_EQ(first + 1, invoke_id(m_request));
}

TEST_F(UdpExchangeTest, UnsendableRequestIsReported) {
    LogCapture log;
    CallGate gate;
    gate.fail("sendto", ENETUNREACH);

    EXPECT_EQ(0x1011, UdpSendRecv("127.0.0.1", 101, 1, m_req, nullptr, 0, nullptr, 0, 10000));
    EXPECT_EQ(0x1011, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "write frame failed with error:101"));
}

TEST_F(UdpExchangeTest, SocketThatCannotBeMadeCountsAsUnsendable) {
    LogCapture log;
    CallGate gate;
    gate.fail("socket", EMFILE);

    EXPECT_EQ(0x1011, UdpSendRecv("127.0.0.1", 101, 1, m_req, nullptr, 0, nullptr, 0, 10000));
    EXPECT_EQ(0x1011, tlsErrno);
}

TEST_F(UdpExchangeTest, SilentDeviceIsATimeout) {
    EXPECT_EQ(0x1008, UdpSendRecv("127.0.0.1", 101, 1, m_req, nullptr, 0, nullptr, 0, 1));
    EXPECT_EQ(0x1008, tlsErrno);
}

TEST_F(UdpExchangeTest, KeepsTheStatusWhenTheLengthOfAnAnswerDoesNotFit) {
    for (int const difference : {-1, 1}) {
        SCOPED_TRACE(difference);
        LogCapture log;

        EXPECT_EQ(0x1010, exchange([&](Bytes const& request) {
                      Bytes const body = join({aoe_head(0, invoke_id(request), 1, 1), text("CD")});
                      return join({kyp_head(101, static_cast<uint32_t>(15 + difference)), body});
                  }));
        EXPECT_EQ(kEarlierStatus, tlsErrno);
        EXPECT_EQ(1,
                  log.count("ERROR", "kypHeader len:" + std::to_string(15 + difference) + " !="));
        EXPECT_EQ("00 00", hex(m_out, 2));
    }
}

TEST_F(UdpExchangeTest, AnswerShorterThanItsHeadIsRefused) {
    for (size_t length = 0; length < 8; ++length) {
        SCOPED_TRACE(length);

        EXPECT_EQ(0x1010, exchange([&](Bytes const&) { return Bytes(length, 0xff); }));
        EXPECT_EQ(kEarlierStatus, tlsErrno);
    }
}

TEST_F(UdpExchangeTest, AnswerWithoutItsSecondHeadIsTooShort) {
    LogCapture log;

    EXPECT_EQ(0x100c, exchange([](Bytes const&) {
                  return join({kyp_head(101, 12), Bytes(12, 0x11)});
              }));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
    std::string const id = std::to_string(invoke_id(m_request));
    EXPECT_EQ(1, log.count("ERROR",
                           "CmdId:1 fail result:0x100c,reqInvokeId:" + id + ",resInvokeId:" + id));
}

TEST_F(UdpExchangeTest, AnswerOfTheHeadAloneIsTooShort) {
    EXPECT_EQ(0x100c, exchange([](Bytes const&) { return kyp_head(101, 0); }));
}

TEST_F(UdpExchangeTest, KeepsTheInvokeIdsOfAFailureInEachOthersPlace) {
    LogCapture log;

    EXPECT_EQ(0x1006, exchange([](Bytes const&) {
                  return response_frame(101, 1, 4711, text("CD"), 0x1006);
              }));
    EXPECT_EQ(1, log.count("ERROR", "CmdId:1 fail result:0x1006,reqInvokeId:4711,resInvokeId:" +
                                        std::to_string(invoke_id(m_request))));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
    EXPECT_EQ("00 00", hex(m_out, 2));
}

TEST_F(UdpExchangeTest, AnswerToAnotherRequestEndsTheExchange) {
    LogCapture log;

    EXPECT_EQ(0x1013, exchange([](Bytes const& request) {
                  return response_frame(101, 1, invoke_id(request) + 1, text("CD"));
              }));
    EXPECT_EQ(kEarlierStatus, tlsErrno);
    EXPECT_EQ(0, log.count_containing("CmdId"));
    EXPECT_EQ("43 44 00", hex(m_out, 3));  // the payload is there all the same
}

TEST_F(UdpExchangeTest, LongerAnswerIsCutToTheCallersRoom) {
    EXPECT_EQ(0, exchange([](Bytes const& request) {
                  return response_frame(101, 1, invoke_id(request), text("0123456789"));
              }));
    EXPECT_EQ("30 31 32 33 34 35 36 37", hex(m_out, 8));
}

TEST_F(UdpExchangeTest, AnswerThatFillsTheBufferPasses) {
    EXPECT_EQ(0, exchange([](Bytes const& request) {
                  return response_frame(101, 1, invoke_id(request), pattern(4096 - 21));
              }));
}

TEST_F(UdpExchangeTest, AnswerLongerThanTheBufferIsRefused) {
    EXPECT_EQ(0x1010, exchange([](Bytes const& request) {
                  return response_frame(101, 1, invoke_id(request), pattern(4096 - 20));
              }));
}

TEST_F(UdpExchangeTest, KeepsOneDescriptorOpenForEachExchange) {
    int const before = open_descriptors();

    exchange(good_answer);
    exchange(good_answer);
    UdpSendRecv("127.0.0.1", 101, 1, m_req, nullptr, 0, nullptr, 0, 1);

    EXPECT_EQ(before + 3, open_descriptors());
}

}  // namespace
