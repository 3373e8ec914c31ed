#include "kypclient/msgrouter/MsgRouter.h"

#include <gtest/gtest.h>

#include "../FakePeerConnection.h"
#include "kypcomm/KypStatus.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"

namespace {

class MsgRouterTest : public testing::Test {
protected:
    void SetUp() override { tlsErrno = 0; }

    int call(uint8_t version, uint16_t port, Bytes const& data) {
        const _KypHeader header{0, version, port, static_cast<uint32_t>(data.size())};
        return m_router.call(header, reinterpret_cast<char const*>(data.data()),
                             static_cast<unsigned int>(data.size()), nullptr);
    }

    int add(uint16_t port) {
        return m_router.addUserMessaggeRouter(port, RouteCalls::record, &m_calls);
    }

    CMsgRouter m_router;
    RouteCalls m_calls;
};

TEST_F(MsgRouterTest, AddedPortIsStoredWithFlagZero) {
    ASSERT_EQ(0, add(600));

    CMsgPort const& port = m_router.m_ports.at(600);
    EXPECT_EQ(0, port.m_flag);
    EXPECT_EQ(600, port.m_port);
    EXPECT_EQ(&m_calls, port.m_ctx);
    EXPECT_TRUE(port.m_callback == RouteCalls::record);
}

TEST_F(MsgRouterTest, ReservedPortsAreNotRefusedHere) {
    EXPECT_EQ(0, add(1));
    EXPECT_EQ(0, add(500));
    EXPECT_EQ(0, add(0));
    EXPECT_EQ(0, add(65535));
}

TEST_F(MsgRouterTest, SecondRouteForAPortIsRefused) {
    ASSERT_EQ(0, add(600));
    LogCapture log;

    EXPECT_EQ(0x1007, m_router.addUserMessaggeRouter(600, nullptr, nullptr));

    EXPECT_EQ(0x1007, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "port:600 router is already register..."));
    EXPECT_EQ(&m_calls, m_router.m_ports.at(600).m_ctx);
}

TEST_F(MsgRouterTest, RemovedPortMayBeAddedAgain) {
    ASSERT_EQ(0, add(600));

    EXPECT_EQ(0, m_router.delMessageRouter(600));
    EXPECT_EQ(0, add(600));
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(MsgRouterTest, KeepsTheCodeOfARegisteredPortForRemovingAMissingOne) {
    LogCapture log;

    EXPECT_EQ(0x1007, m_router.delMessageRouter(600));

    EXPECT_EQ(0x1007, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "port:600 router is not register..."));
}

TEST_F(MsgRouterTest, FrameForAPortWithoutARouteIsReported) {
    LogCapture log;

    EXPECT_EQ(0x1005, call(1, 601, Bytes(13)));

    EXPECT_EQ(0x1005, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "port:601 router is not register..."));
}

TEST_F(MsgRouterTest, VersionZeroHandsOverAllBehindTheFirstHead) {
    ASSERT_EQ(0, add(600));

    EXPECT_EQ(0, call(0, 600, bytes("01 02 03")));

    ASSERT_EQ(1u, m_calls.count());
    EXPECT_EQ(600, m_calls.m_calls[0].port);
    EXPECT_EQ("01 02 03", hex(m_calls.m_calls[0].data));
}

TEST_F(MsgRouterTest, VersionOneDropsTheSecondHeadAndHandsOverTheThird) {
    ASSERT_EQ(0, add(600));

    EXPECT_EQ(
        0, call(1, 600, join({aoe_head(0x1001, 9, 9, 0), address_head(0x10, 0x20), text("AB")})));

    ASSERT_EQ(1u, m_calls.count());
    EXPECT_EQ("00 00 00 10 00 00 00 20 41 42", hex(m_calls.m_calls[0].data));
}

TEST_F(MsgRouterTest, VersionOneFrameOfExactlyItsHeadHasNoData) {
    ASSERT_EQ(0, add(600));

    EXPECT_EQ(0, call(1, 600, Bytes(13)));

    ASSERT_EQ(1u, m_calls.count());
    EXPECT_TRUE(m_calls.m_calls[0].data.empty());
}

TEST_F(MsgRouterTest, VersionOneFrameShorterThanItsHeadIsRefused) {
    ASSERT_EQ(0, add(600));
    LogCapture log;
    tlsErrno = 5;

    EXPECT_EQ(0x100c, call(1, 600, Bytes(5)));
    EXPECT_EQ(0x100c, call(1, 600, Bytes(12)));

    EXPECT_EQ(1, log.count("ERROR", "kyp version 1,dataLen 5 < 13"));
    EXPECT_EQ(1, log.count("ERROR", "kyp version 1,dataLen 12 < 13"));
    EXPECT_EQ(0u, m_calls.count());
    EXPECT_EQ(5, tlsErrno);
}

TEST_F(MsgRouterTest, OtherVersionsAreDroppedInSilence) {
    ASSERT_EQ(0, add(600));
    LogCapture log;

    EXPECT_EQ(0, call(2, 600, Bytes(13)));
    EXPECT_EQ(0, call(255, 600, Bytes(13)));

    EXPECT_EQ(0u, m_calls.count());
    EXPECT_EQ("", log.text());
}

TEST_F(MsgRouterTest, RouteWithoutACallbackTakesFrames) {
    ASSERT_EQ(0, m_router.addUserMessaggeRouter(600, nullptr, nullptr));

    EXPECT_EQ(0, call(1, 600, Bytes(13)));
    EXPECT_EQ(0, call(0, 600, Bytes(13)));
}

TEST_F(MsgRouterTest, CallbackMayDeleteItsOwnRoute) {
    const auto deleteOwn = [](unsigned short port, char const*, unsigned int, void* ctx) {
        static_cast<CMsgRouter*>(ctx)->delMessageRouter(port);
    };
    ASSERT_EQ(0, m_router.addUserMessaggeRouter(600, deleteOwn, &m_router));

    EXPECT_EQ(0, call(1, 600, Bytes(13)));

    EXPECT_TRUE(m_router.m_ports.empty());
}

TEST_F(MsgRouterTest, CallbackMayAddARoute) {
    const auto addNext = [](unsigned short port, char const*, unsigned int, void* ctx) {
        static_cast<CMsgRouter*>(ctx)->addUserMessaggeRouter(static_cast<unsigned short>(port + 1),
                                                             nullptr, nullptr);
    };
    ASSERT_EQ(0, m_router.addUserMessaggeRouter(600, addNext, &m_router));

    EXPECT_EQ(0, call(1, 600, Bytes(13)));

    EXPECT_EQ(1u, m_router.m_ports.count(601));
}

}  // namespace
