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

}  // namespace
