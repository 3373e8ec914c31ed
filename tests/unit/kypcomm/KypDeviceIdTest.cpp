#include "kypcomm/KypDeviceId.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/FrameBytes.h"

namespace {

std::string parsed(char const* text) {
    int error = 7;
    _KypDeviceId const id = make_KypDeviceId(text, &error);
    EXPECT_EQ(0, error);
    return hex(id.bytes, 6);
}

std::string parsed_ip(char const* ip) {
    int error = 7;
    _KypDeviceId const id = make_KypDeviceIdByHostIp(ip, &error);
    EXPECT_EQ(0, error);
    return hex(id.bytes, 6);
}

TEST(KypDeviceIdTest, SixNumbersAreSixBytes) {
    EXPECT_EQ("01 02 03 04 05 06", parsed("1.2.3.4.5.6"));
    EXPECT_EQ("C0 A8 01 0A 01 01", parsed("192.168.1.10.1.1"));
    EXPECT_EQ("FF FF FF FF FF FF", parsed("255.255.255.255.255.255"));
}

TEST(KypDeviceIdTest, KeepsBadTextAnAllZeroIdWithoutAnError) {
    for (char const* text : {"", "1", "1.2.3.4.5", "1.2.3.4.5.", "1.2.3.4.5.6.7", "1.2.3.4.5.6..",
                             "nonsense", static_cast<char const*>(nullptr)}) {
        SCOPED_TRACE(text != nullptr ? text : "null");

        EXPECT_EQ("00 00 00 00 00 00", parsed(text));
    }
}

TEST(KypDeviceIdTest, EachNumberKeepsItsLowEightBits) {
    EXPECT_EQ("01 02 03 04 05 00", parsed("1.2.3.4.5.256"));
    EXPECT_EQ("01 02 03 04 05 2C", parsed("1.2.3.4.5.300"));
    EXPECT_EQ("FF 02 03 04 05 06", parsed("-1.2.3.4.5.6"));
}

TEST(KypDeviceIdTest, LettersAndEmptyFieldsAreZero) {
    EXPECT_EQ("00 02 00 04 05 06", parsed("a.2..4.5.6x"));
    EXPECT_EQ("00 00 00 00 00 09", parsed(".....9"));
}

TEST(KypDeviceIdTest, DotAtTheEndAddsNoField) {
    EXPECT_EQ("01 02 03 04 05 06", parsed("1.2.3.4.5.6."));
}

TEST(KypDeviceIdTest, ErrorWordMayBeMissing) {
    EXPECT_EQ(6, make_KypDeviceId("1.2.3.4.5.6", nullptr).bytes[5]);
    EXPECT_EQ(1, make_KypDeviceIdByHostIp("1.2.3.4", nullptr).bytes[5]);
}

TEST(KypDeviceIdTest, HostAddressIsFollowedByOneAndOne) {
    EXPECT_EQ("0A 00 00 01 01 01", parsed_ip("10.0.0.1"));
    EXPECT_EQ("C0 A8 01 0A 01 01", parsed_ip("192.168.1.10"));
}

TEST(KypDeviceIdTest, BadHostAddressIsZeroBeforeOneAndOne) {
    for (char const* ip : {"", "10.0.0", "10.0.0.1.1", static_cast<char const*>(nullptr)}) {
        SCOPED_TRACE(ip != nullptr ? ip : "null");

        EXPECT_EQ("00 00 00 00 01 01", parsed_ip(ip));
    }
}

TEST(KypDeviceIdTest, StreamsAsSixDecimalNumbers) {
    std::ostringstream stream;

    stream << make_KypDeviceId("10.0.65.255.1.1", nullptr);

    EXPECT_EQ("10.0.65.255.1.1", stream.str());
}

TEST(KypDeviceIdTest, StreamingSwitchesTheStreamToDecimal) {
    std::ostringstream stream;

    stream << std::hex << make_KypDeviceId("16.17.18.19.20.21", nullptr) << " " << 255;

    EXPECT_EQ("16.17.18.19.20.21 255", stream.str());
}

TEST(KypDeviceIdTest, OrderIsByUnsignedBytesFromTheFirst) {
    auto const id = [](char const* text) { return make_KypDeviceId(text, nullptr); };

    EXPECT_TRUE(id("100.0.0.0.0.0") < id("200.0.0.0.0.0"));
    EXPECT_FALSE(id("200.0.0.0.0.0") < id("100.0.0.0.0.0"));
    EXPECT_TRUE(id("1.2.3.4.5.6") < id("1.2.3.4.5.7"));
    EXPECT_TRUE(id("1.9.9.9.9.9") < id("2.0.0.0.0.0"));
    EXPECT_FALSE(id("1.2.3.4.5.6") < id("1.2.3.4.5.6"));
}

TEST(KypDeviceIdTest, AddressOrderIsByIdThenByPort) {
    auto const address = [](char const* text, uint16_t port) {
        return _KypDeviceAddr{make_KypDeviceId(text, nullptr), port};
    };

    EXPECT_TRUE(address("1.1.1.1.1.1", 4096) < address("1.1.1.1.1.2", 1));
    EXPECT_FALSE(address("1.1.1.1.1.2", 1) < address("1.1.1.1.1.1", 4096));
    EXPECT_TRUE(address("1.1.1.1.1.1", 255) < address("1.1.1.1.1.1", 256));
    EXPECT_TRUE(address("1.1.1.1.1.1", 32767) < address("1.1.1.1.1.1", 32768));
    EXPECT_FALSE(address("1.1.1.1.1.1", 5) < address("1.1.1.1.1.1", 5));
}

}  // namespace
