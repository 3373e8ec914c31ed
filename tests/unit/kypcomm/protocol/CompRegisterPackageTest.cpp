#include "kypcomm/protocol/CompRegisterPackage.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FrameBytes.h"

namespace {

// A reply with a 3-byte name and a port.
char const kBody[] =
    "11 "
    "03 10 "
    "44 33 22 11 "
    "03 00 "
    "88 77 66 55 "
    "CC BB AA 99 "
    "61 62 63 "
    "04 03 02 01";

std::string serialized(CompRegisterPackage package) {
    const Message m = package.serialization();
    return hex(m.data, m.length);
}

// Fields that show what was left alone.
CompRegisterPackage read(Bytes const& body) {
    CompRegisterPackage package(0xe1, 0xe2e2, 0xe3e3e3e3, "marked", 0xe4e4e4e4, 0xe5e5e5e5,
                                0xe6e6e6e6);
    EXPECT_EQ(0, package.deserialization(Message(body.data(), body.size())));
    return package;
}

Bytes first(size_t count) {
    Bytes body = bytes(kBody);
    body.resize(count);
    return body;
}

TEST(CompRegisterPackageTest, WritesARegistrationOfAName) {
    const CompRegisterPackage package(0, 1, 0, "motor", 0x11, 0x22, 0);

    EXPECT_EQ(5, package.nameLen);
    EXPECT_EQ(
        "00 01 00 00 00 00 00 05 00 11 00 00 00 22 00 00 00 "
        "6D 6F 74 6F 72",
        serialized(package));
}

TEST(CompRegisterPackageTest, WritesARegistrationOfAPort) {
    const CompRegisterPackage package(0, 3, 0, "motor", 0x11, 0x22, 600);

    EXPECT_EQ(
        "00 03 00 00 00 00 00 05 00 11 00 00 00 22 00 00 00 "
        "6D 6F 74 6F 72 58 02 00 00",
        serialized(package));
}

TEST(CompRegisterPackageTest, CarriesThePortForFourCommandsOnly) {
    struct {
        unsigned short cmdId;
        uint64_t size;
    } const rows[] = {{0, 22},      {1, 22},      {2, 22},      {3, 26},
                      {4, 26},      {5, 22},      {7, 22},      {0x1001, 22},
                      {0x1003, 26}, {0x1004, 26}, {0x1005, 22}, {0x2003, 22}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.cmdId);
        CompRegisterPackage package(0, row.cmdId, 0, "motor", 0, 0, 600);
        EXPECT_EQ(row.size, package.serialization().length);
    }
}

TEST(CompRegisterPackageTest, RefusesToBeMadeWithoutAName) {
    char const* volatile missing = nullptr;

    EXPECT_THROW(CompRegisterPackage(0, 1, 0, missing, 0, 0, 0), std::logic_error);
}

TEST(CompRegisterPackageTest, KeepsCuttingTheLengthOfALongNameToSixteenBits) {
    CompRegisterPackage package(0, 1, 0, std::string(65538, 'n').c_str(), 0, 0, 0);

    EXPECT_EQ(2, package.nameLen);
    EXPECT_EQ(19u, package.serialization().length);
}

TEST(CompRegisterPackageTest, WritesZeroForBytesThatItsNameDoesNotHave) {
    CompRegisterPackage package(0, 1, 0, "ab", 0, 0, 0);
    package.nameLen = 4;

    EXPECT_EQ("00 01 00 00 00 00 00 04 00 00 00 00 00 00 00 00 00 61 62 00 00",
              serialized(package));
}

TEST(CompRegisterPackageTest, StartsWithoutNameAndNumbers) {
    const CompRegisterPackage package;

    EXPECT_EQ("", package.name);
    EXPECT_EQ(0, package.nameLen);
    EXPECT_EQ(0u, package.errId);
    EXPECT_EQ(0u, package.routePort);
}

TEST(CompRegisterPackageTest, ReadsAWholeBody) {
    const CompRegisterPackage package = read(bytes(kBody));

    EXPECT_EQ(0x11, package.type);
    EXPECT_EQ(0x1003, package.cmdId);
    EXPECT_EQ(0x11223344u, package.errId);
    EXPECT_EQ(3, package.nameLen);
    EXPECT_EQ(0x55667788u, package.drvParam0);
    EXPECT_EQ(0x99aabbccu, package.drvParam1);
    EXPECT_EQ("abc", package.name);
    EXPECT_EQ(0x01020304u, package.routePort);
}

TEST(CompRegisterPackageTest, ReadsWhatItWrites) {
    CompRegisterPackage sent(1, 4, 2, "motor", 3, 4, 5);

    CompRegisterPackage package;
    package.deserialization(sent.serialization());

    EXPECT_EQ(serialized(sent), serialized(package));
}

TEST(CompRegisterPackageTest, ReadsAsFarAsTheBodyGoes) {
    struct {
        size_t size;
        int fields;  // how many of the eight are read
    } const rows[] = {{0, 0},  {1, 1},  {2, 2},  {3, 2},  {4, 3},  {7, 3},
                      {8, 4},  {9, 4},  {10, 5}, {13, 5}, {14, 6}, {17, 6},
                      {18, 6}, {19, 6}, {20, 7}, {21, 8}, {24, 8}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.size);
        const CompRegisterPackage package = read(first(row.size));
        EXPECT_EQ(row.fields < 1, package.type == 0xe1);
        EXPECT_EQ(row.fields < 2, package.cmdId == 0xe2e2);
        EXPECT_EQ(row.fields < 3, package.errId == 0xe3e3e3e3);
        EXPECT_EQ(row.fields < 4, package.nameLen == 6);
        EXPECT_EQ(row.fields < 5, package.drvParam0 == 0xe4e4e4e4);
        EXPECT_EQ(row.fields < 6, package.drvParam1 == 0xe5e5e5e5);
        EXPECT_EQ(row.fields < 7, package.name == "marked");
        EXPECT_EQ(row.fields < 8, package.routePort == 0xe6e6e6e6);
    }
}

TEST(CompRegisterPackageTest, ReadsTheMissingBytesOfACutFieldAsZero) {
    EXPECT_EQ(0x0003, read(first(2)).cmdId);
    EXPECT_EQ(0x00000044u, read(first(4)).errId);
    EXPECT_EQ(0x0003, read(first(8)).nameLen);
    EXPECT_EQ(0x00667788u, read(first(12)).drvParam0);
    EXPECT_EQ(0x000000ccu, read(first(14)).drvParam1);
    EXPECT_EQ(0x00020304u, read(first(23)).routePort);
}

TEST(CompRegisterPackageTest, LeavesThePortOfABodyThatEndsBehindTheName) {
    const CompRegisterPackage package = read(first(20));

    EXPECT_EQ("abc", package.name);
    EXPECT_EQ(0xe6e6e6e6u, package.routePort);
}

TEST(CompRegisterPackageTest, KeepsTheNameThatStoodBeforeABodyWithoutOne) {
    Bytes body = first(17);
    body[7] = 0;

    const CompRegisterPackage package = read(body);

    EXPECT_EQ(0, package.nameLen);
    EXPECT_EQ("marked", package.name);
}

TEST(CompRegisterPackageTest, KeepsReadingTheLengthAs32BitsWithASign) {
    struct {
        uint64_t length;
        int fields;
    } const rows[] = {{0x80000000, 2}, {0xffffffff, 2}, {0x100000000, 0}, {0x100000001, 1}};
    const Bytes body = bytes(kBody);
    for (auto const& row : rows) {
        SCOPED_TRACE(row.length);
        Message m(body.data(), body.size());
        m.length = row.length;
        CompRegisterPackage package(0xe1, 0xe2e2, 0xe3e3e3e3, "marked", 0, 0, 0);

        EXPECT_EQ(0, package.deserialization(m));

        EXPECT_EQ(row.fields < 1, package.type == 0xe1);
        EXPECT_EQ(row.fields < 2, package.cmdId == 0xe2e2);
        EXPECT_EQ(0xe3e3e3e3u, package.errId);
    }
}

TEST(CompRegisterPackageTest, KeepsReadingAPortWhateverTheCommand) {
    Bytes body = bytes(kBody);
    body[1] = 1;
    body[2] = 0;

    EXPECT_EQ(0x01020304u, read(body).routePort);
}

TEST(CompRegisterPackageTest, DoesNotFollowANameThatReachesPastTheBody) {
    for (int const declared : {8, 9, 0x7fff, 0xffff}) {
        SCOPED_TRACE(declared);
        Bytes body = bytes(kBody);
        body[7] = static_cast<uint8_t>(declared);
        body[8] = static_cast<uint8_t>(declared >> 8);

        const CompRegisterPackage package = read(body);

        EXPECT_EQ(declared, package.nameLen);
        EXPECT_EQ("marked", package.name);
        EXPECT_EQ(0xe6e6e6e6u, package.routePort);
    }
}

TEST(CompRegisterPackageTest, TakesANameUpToTheLastByte) {
    Bytes body = bytes(kBody);
    body[7] = 7;

    const CompRegisterPackage package = read(body);

    EXPECT_EQ("abc\x04\x03\x02\x01", package.name);
    EXPECT_EQ(0xe6e6e6e6u, package.routePort);
}

}  // namespace
