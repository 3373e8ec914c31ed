// The C interface's device ids: made of text, asked for, assigned.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "LibkypFixture.h"
#include "kypclient/routetable/RouterTable.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;

// ---- text --------------------------------------------------------------------------------------

TEST_F(LibkypTest, DeviceIdIsMadeOfSixNumbers) {
    _KypDeviceId id{};

    EXPECT_EQ(0, libkyp_makeKypDeviceId("192.168.1.10.2.3", &id));
    EXPECT_THAT(id.bytes, ElementsAre(192, 168, 1, 10, 2, 3));
}

TEST_F(LibkypTest, BadTextMakesAZeroDeviceIdAndNoError) {
    for (char const* text : {"", "1.2.3.4.5", "1.2.3.4.5.6.7", static_cast<char const*>(nullptr)}) {
        SCOPED_TRACE(text == nullptr ? "null" : text);
        _KypDeviceId id{{9, 9, 9, 9, 9, 9}};

        EXPECT_EQ(0, libkyp_makeKypDeviceId(text, &id));
        EXPECT_THAT(id.bytes, Each(0));
    }
}

TEST_F(LibkypTest, DeviceIdNeedNotBeStored) {
    EXPECT_EQ(0, libkyp_makeKypDeviceId("1.2.3.4.5.6", nullptr));
}

TEST_F(LibkypTest, DeviceAddressIsMadeOfAnIdAndAPort) {
    _KypDeviceAddr address{};

    EXPECT_EQ(0, libkyp_makeKypDeviceAddr("1.2.3.4.5.6", 600, &address));
    EXPECT_THAT(address.deviceId.bytes, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(600, static_cast<uint16_t>(address.port));
}

TEST_F(LibkypTest, ZeroIsADeviceAddressLikeAnyOther) {
    _KypDeviceAddr address{{{9, 9, 9, 9, 9, 9}}, 9};

    EXPECT_EQ(0, libkyp_makeKypDeviceAddr("0.0.0.0.0.0", 600, &address));
    EXPECT_THAT(address.deviceId.bytes, Each(0));
    EXPECT_EQ(600, static_cast<uint16_t>(address.port));
}

TEST_F(LibkypTest, KeepsZeroAsTheResultOfABadDeviceAddress) {
    for (char const* text : {"", ".", "1.2.3.4.5", "1.2.3.4.5.", "1.2.3.4.5.6.7", "0.0.0.0.0",
                             "0.0.0.0.0.0.0", static_cast<char const*>(nullptr)}) {
        SCOPED_TRACE(text == nullptr ? "null" : text);
        _KypDeviceAddr address{{{9, 9, 9, 9, 9, 9}}, 9};

        EXPECT_EQ(0, libkyp_makeKypDeviceAddr(text, 600, &address));
        EXPECT_THAT(address.deviceId.bytes, Each(9));
        EXPECT_EQ(9, static_cast<uint16_t>(address.port));
    }
}

TEST_F(LibkypTest, DotBehindTheSixthFieldOpensNoSeventh) {
    _KypDeviceAddr address{};

    EXPECT_EQ(0, libkyp_makeKypDeviceAddr("1.2.3.4.5.6.", 600, &address));
    EXPECT_THAT(address.deviceId.bytes, ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(LibkypTest, DeviceAddressNeedNotBeStored) {
    EXPECT_EQ(0, libkyp_makeKypDeviceAddr("1.2.3.4.5.6", 600, nullptr));
}

// ---- a device's own id -------------------------------------------------------------------------

TEST_F(LibkypTest, LocalDeviceIdIsReachedThroughTheLoopback) {
    std::ofstream("/opt/kyp/kypdevice.xml")
        << "<kyp><deviceInfo deviceId=\"10.1.2.3.4.5\"></deviceInfo></kyp>";
    RawListener listener = RawListener::tcp(9999);
    LogCapture log;
    _KypDeviceId id{};

    EXPECT_EQ(0, libkyp_getLocalKypDeviceId(&id));
    EXPECT_THAT(id.bytes, ElementsAre(10, 1, 2, 3, 4, 5));
    EXPECT_EQ(1, log.count("DEBUG", "Get Local DeviceId:10.1.2.3.4.5"));
    ASSERT_NE(nullptr, libkyp_createInstance(&id, KYP_CONN_TCP));
    EXPECT_TRUE(listener.accept().connected());
}

TEST_F(LibkypTest, LocalDeviceIdNeedsAPlace) {
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_getLocalKypDeviceId(nullptr));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
}

// ---- another device's id -----------------------------------------------------------------------

// A device on UDP 38898 that answers one request.
class LibkypRemoteIdTest : public LibkypTest {
protected:
    ~LibkypRemoteIdTest() override { join(); }

    void answer(Bytes const& payload, uint32_t error = 0) {
        m_device = std::thread([this, payload, error] {
            RawDatagram const datagram = m_udp.receive();
            m_request = datagram.data;
            m_invokeId = take_apart(m_request).invokeId;
            m_udp.send_to(datagram.port, response_frame(101, 1, m_invokeId, payload, error));
        });
    }

    void join() {
        if (m_device.joinable()) m_device.join();
    }

    RawUdp m_udp{38898};
    std::thread m_device;
    Bytes m_request;  // what the device saw, once joined
    uint32_t m_invokeId = 0;
    _KypDeviceId m_id{{9, 9, 9, 9, 9, 9}};
};

TEST_F(LibkypRemoteIdTest, DeviceIsAskedForItsId) {
    answer(bytes("0A 00 00 05 01 02"));
    LogCapture log;

    EXPECT_EQ(0, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &m_id));
    EXPECT_THAT(m_id.bytes, ElementsAre(10, 0, 0, 5, 1, 2));
    EXPECT_EQ(1, log.count("DEBUG", "get remote:127.0.0.1 DeviceId:10.0.0.5.1.2"));
    join();
    EXPECT_EQ(request_frame(101, 1, m_invokeId, 0x1000, 0x1001), m_request);
}

TEST_F(LibkypRemoteIdTest, DeviceThatAnsweredIsReachedWhereItAnswered) {
    answer(bytes("0A 00 00 06 01 02"));
    RawListener listener = RawListener::tcp(9999);
    ASSERT_EQ(0, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &m_id));

    ASSERT_NE(nullptr, libkyp_createInstance(&m_id, KYP_CONN_TCP));
    EXPECT_TRUE(listener.accept().connected());
}

TEST_F(LibkypRemoteIdTest, RestOfAShortAnswerIsZero) {
    answer(bytes("0A 00"));

    EXPECT_EQ(0, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &m_id));
    EXPECT_THAT(m_id.bytes, ElementsAre(10, 0, 0, 0, 0, 0));
}

TEST_F(LibkypRemoteIdTest, SilentDeviceIsReportedAndTheIdIsUntouched) {
    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkyp_getRemoteKypDeviceId("127.0.0.1", 10, &m_id));
    EXPECT_EQ(KYP_ERR_RECV_TIMEOUT, libkyp_get_errno());
    EXPECT_THAT(m_id.bytes, Each(9));
}

TEST_F(LibkypRemoteIdTest, DevicesErrorIsReportedWithoutAStatus) {
    answer({}, KYP_ERR_COMMAND);

    EXPECT_EQ(KYP_ERR_COMMAND, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &m_id));
    EXPECT_EQ(0, libkyp_get_errno());
    EXPECT_THAT(m_id.bytes, Each(9));
}

TEST_F(LibkypRemoteIdTest, AskingClearsTheStatusOfAnEarlierCall) {
    answer(bytes("0A 00 00 05 01 02"));
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkyp_getRemoteKypDeviceId("127.0.0.1", 20000, &m_id));
    EXPECT_EQ(0, libkyp_get_errno());
}

TEST_F(LibkypRemoteIdTest, AssigningClearsTheStatusOfAnEarlierCall) {
    answer({});
    tlsErrno = KYP_ERR_TOPIC;

    EXPECT_EQ(0, libkyp_setRemoteKypDeviceId("127.0.0.1", "10.0.0.9.1.2", 20000));
    EXPECT_EQ(0, libkyp_get_errno());
}

TEST_F(LibkypRemoteIdTest, MissingArgumentsDoNotTouchTheNetwork) {
    struct Row {
        char const* name;
        std::function<int()> call;
    };
    for (Row const& row :
         {Row{"get, no place",
              [] { return libkyp_getRemoteKypDeviceId("127.0.0.1", 10, nullptr); }},
          Row{"get, no host", [this] { return libkyp_getRemoteKypDeviceId(nullptr, 10, &m_id); }},
          Row{"set, no host",
              [] { return libkyp_setRemoteKypDeviceId(nullptr, "1.2.3.4.5.6", 10); }},
          Row{"set, no text",
              [] { return libkyp_setRemoteKypDeviceId("127.0.0.1", nullptr, 10); }}}) {
        SCOPED_TRACE(row.name);
        tlsErrno = KYP_OK;

        EXPECT_EQ(KYP_ERR_INPUT_PARAM, row.call());
        EXPECT_EQ(KYP_ERR_INPUT_PARAM, libkyp_get_errno());
    }
    EXPECT_EQ(0, m_udp.receive(std::chrono::milliseconds(0)).port);
}

TEST_F(LibkypRemoteIdTest, DeviceIsGivenAnIdAndReachedUnderIt) {
    answer({});
    RawListener listener = RawListener::tcp(9999);

    EXPECT_EQ(0, libkyp_setRemoteKypDeviceId("127.0.0.1", "10.0.0.7.1.2", 20000));
    join();
    EXPECT_EQ(request_frame(101, 5, m_invokeId, 0x1001, 0x1002, bytes("0A 00 00 07 01 02")),
              m_request);
    _KypDeviceId id{{10, 0, 0, 7, 1, 2}};
    ASSERT_NE(nullptr, libkyp_createInstance(&id, KYP_CONN_TCP));
    EXPECT_TRUE(listener.accept().connected());
}

TEST_F(LibkypRemoteIdTest, RefusedAssignmentIsReportedAndNotRouted) {
    answer({}, KYP_ERR_UNSUPPORTED_CALL);
    _KypDeviceId id{{10, 0, 0, 8, 1, 2}};

    EXPECT_EQ(KYP_ERR_UNSUPPORTED_CALL,
              libkyp_setRemoteKypDeviceId("127.0.0.1", "10.0.0.8.1.2", 20000));
    EXPECT_EQ("10.0.0.8", utility::instance<CRouterTable>().GetHostIpFromDeviceId(id));
}

TEST_F(LibkypRemoteIdTest, KeepsBadTextAsTheAssignedIdZero) {
    answer({});

    EXPECT_EQ(0, libkyp_setRemoteKypDeviceId("127.0.0.1", "10.0.0", 20000));
    join();
    EXPECT_EQ(request_frame(101, 5, m_invokeId, 0x1001, 0x1002, bytes("00 00 00 00 00 00")),
              m_request);
}

}  // namespace
