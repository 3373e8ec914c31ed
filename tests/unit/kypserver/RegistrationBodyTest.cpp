#include "kypserver/RegistrationBody.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/FakeComponent.h"

namespace kypserver {
namespace {

// Reads from a block of exactly this size, so that a read beyond it is found.
unsigned int read(Bytes const& data, RegistrationBody& body) {
    auto const exact = std::make_unique<char[]>(data.size());
    std::copy(data.begin(), data.end(), exact.get());
    unsigned int const status = read_registration(exact.get(), data.size(), body);
    // The name is a view into the block, which ends here.
    static std::string name;
    name = body.name;
    body.name = name;
    return status;
}

TEST(RegistrationBodyTest, ReadsAComponent) {
    RegistrationBody body;

    EXPECT_EQ(0U, read(bytes("00 01 00 00 00 00 00 05 00 11 00 00 00 22 00 00 00"
                             " 6D 6F 74 6F 72"),
                       body));

    EXPECT_EQ(0, body.type);
    EXPECT_EQ(1, body.cmdId);
    EXPECT_EQ(0x11U, body.drvParam0);
    EXPECT_EQ(0x22U, body.drvParam1);
    EXPECT_EQ("motor", body.name);
    EXPECT_EQ(0U, body.routePort);
}

TEST(RegistrationBodyTest, ReadsAPort) {
    RegistrationBody body;

    EXPECT_EQ(0U, read(registration_body(3, "motor", 600), body));
    EXPECT_EQ(3, body.cmdId);
    EXPECT_EQ("motor", body.name);
    EXPECT_EQ(600U, body.routePort);
}

TEST(RegistrationBodyTest, CommandsThreeAndFourCarryAPort) {
    for (uint16_t cmdId : {3, 4, 0x1003, 0x1004}) {
        SCOPED_TRACE(cmdId);
        RegistrationBody body;
        EXPECT_EQ(0U, read(registration_body(cmdId, "m", 600), body));
        EXPECT_EQ(600U, body.routePort);
    }
    for (uint16_t cmdId : {0, 2, 5, 0x1001, 0x2003}) {
        SCOPED_TRACE(cmdId);
        RegistrationBody body;
        EXPECT_EQ(0U, read(registration_body(cmdId, "m", 600), body));
        EXPECT_EQ(0U, body.routePort);
    }
}

TEST(RegistrationBodyTest, TellsEveryLengthButTheRightOne) {
    for (uint16_t cmdId : {1, 3}) {
        Bytes const whole = registration_body(cmdId, "motor", 600);
        for (size_t size = 0; size < whole.size(); ++size) {
            SCOPED_TRACE(size);
            RegistrationBody body;
            Bytes const cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
            EXPECT_EQ(0x100cU, read(cut, body));
        }
        RegistrationBody body;
        EXPECT_EQ(0x1004U, read(join({whole, {0}}), body));
    }
}

TEST(RegistrationBodyTest, ANameThatReachesOutsideIsNoName) {
    for (uint16_t nameLen : {6, 255, 0x7fff, 0xffff}) {
        SCOPED_TRACE(nameLen);
        Bytes data = registration_body(1, "motor");
        data[7] = static_cast<uint8_t>(nameLen & 0xff);
        data[8] = static_cast<uint8_t>(nameLen >> 8);
        RegistrationBody body;

        EXPECT_EQ(0x100cU, read(data, body));
        EXPECT_EQ("", body.name);
    }
}

TEST(RegistrationBodyTest, NamesAreLettersDigitsUnderscoreAndHyphen) {
    for (char const* name : {"a", "Z", "0", "_", "-", "drive-0_A"})
        EXPECT_TRUE(is_component_name(name));
    for (char const* name : {"", "a b", "a.b", "a/b", "\xc3\xa4", "a\n", "@", "[", "`", "{", ":"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(is_component_name(name));
    }
    EXPECT_FALSE(is_component_name(std::string("a\0b", 3)));
    EXPECT_TRUE(is_component_name(std::string(255, 'a')));
    EXPECT_FALSE(is_component_name(std::string(256, 'a')));
}

}  // namespace
}  // namespace kypserver
