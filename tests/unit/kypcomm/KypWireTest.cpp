#include "kypcomm/KypWire.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace {

TEST(KypWireTest, SwapsTheBytesOfWordsBothWays) {
    EXPECT_EQ(0x04030201u, utils_htonl(0x01020304u));
    EXPECT_EQ(0x01020304u, utils_ntohl(0x04030201u));
    EXPECT_EQ(0x0201u, utils_htons(0x0102u));
    EXPECT_EQ(0x0102u, utils_ntohs(0x0201u));
}

TEST(KypWireTest, LaysTheHeadsOutWithoutGaps) {
    EXPECT_EQ(2u, offsetof(_KypHeader, port));
    EXPECT_EQ(4u, offsetof(_KypHeader, nMsgLen));
    EXPECT_EQ(4u, offsetof(_AoEHeader, invokeId));
    EXPECT_EQ(8u, offsetof(_AoEHeader, cmd));
    EXPECT_EQ(10u, offsetof(_AoEHeader, reserved));
    EXPECT_EQ(12u, offsetof(_AoEHeader, state));
    EXPECT_EQ(4u, offsetof(AoERequestHeader, indexOffset));
    EXPECT_EQ(1u, offsetof(_KypforwardHeader, event));
    EXPECT_EQ(5u, offsetof(_KypforwardHeader, clientFd));
    EXPECT_EQ(7u, offsetof(_KypforwardHeader, replyFd));
    EXPECT_EQ(9u, offsetof(_KypforwardHeader, replyInvoke));
    EXPECT_EQ(2u, offsetof(_KypPayload, indexGroup));
    EXPECT_EQ(14u, offsetof(_KypPayload, data));
    EXPECT_EQ(8u, sizeof(_KypDeviceAddr));
}

TEST(KypWireTest, FixesTheNumbersThatPeersKnow) {
    EXPECT_EQ(1, kKypVersion);
    EXPECT_EQ(1, KYP_CMD_READ_DEVICE_ID);
    EXPECT_EQ(2, KYP_CMD_READ);
    EXPECT_EQ(4, KYP_CMD_WRITE);
    EXPECT_EQ(5, KYP_CMD_SET_DEVICE_ID);
    EXPECT_EQ(6, KYP_CMD_SUBSCRIBE);
    EXPECT_EQ(7, KYP_CMD_UNSUBSCRIBE);
    EXPECT_EQ(8, KYP_CMD_PUBLISH);
    EXPECT_EQ(9, KYP_CMD_READ_WRITE);
    EXPECT_EQ(0, KYP_STATE_REQUEST);
    EXPECT_EQ(1, KYP_STATE_RESPONSE);
    EXPECT_EQ(100, kPortEcho);
    EXPECT_EQ(101, kPortDeviceId);
    EXPECT_EQ(102, kPortRegister);
    EXPECT_EQ(103, kPortPubSub);
    EXPECT_EQ(1, kLowestPort);
    EXPECT_EQ(4096, kHighestPort);
    EXPECT_EQ(500, kHighestReservedPort);
    EXPECT_EQ(6291455u, kMaxMsgLen);
    EXPECT_EQ(0x1000u, kReadIdGroup);
    EXPECT_EQ(0x1001u, kReadIdOffset);
    EXPECT_EQ(0x1001u, kSetIdGroup);
    EXPECT_EQ(0x1002u, kSetIdOffset);
    EXPECT_EQ(9999, kTcpPort);
    EXPECT_EQ(38898, kUdpPort);
    EXPECT_STREQ("/var/tmp/kyp/kypserver", kDomainPath);
}

}  // namespace
