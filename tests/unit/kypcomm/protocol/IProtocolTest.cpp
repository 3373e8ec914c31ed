#include "kypcomm/protocol/IProtocol.h"

#include <gtest/gtest.h>

#include "kypcomm/protocol/CompRegisterPackage.h"

namespace {

TEST(IProtocolTest, ReadsAndWritesItsFields) {
    CompRegisterPackage package;
    IProtocol& protocol = package;

    protocol.setType(0x12);
    protocol.setCmdId(0x3456);
    protocol.setErrId(0x789abcde);

    EXPECT_EQ(0x12, protocol.type);
    EXPECT_EQ(0x3456, protocol.cmdId);
    EXPECT_EQ(0x789abcdeu, protocol.errId);
    EXPECT_EQ(0x12, protocol.getType());
    EXPECT_EQ(0x3456, protocol.getCmdId());
    EXPECT_EQ(0x789abcdeu, protocol.getErrId());
}

}  // namespace
