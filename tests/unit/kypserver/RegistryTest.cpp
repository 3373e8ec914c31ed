#include "kypserver/Registry.h"

#include <gtest/gtest.h>

#include "FakeSocketConn.h"

namespace kypserver {
namespace {

class RegistryTest : public testing::Test {
protected:
    CRegistry m_registry;
    FakeSocketConn m_motor;
    FakeSocketConn m_drive;
};

TEST_F(RegistryTest, KnowsAComponentByItsChannelAndItsName) {
    EXPECT_EQ(0U, m_registry.add(&m_motor, {"motor", 1, 2, {}}));

    ASSERT_NE(nullptr, m_registry.find(&m_motor));
    EXPECT_EQ("motor", m_registry.find(&m_motor)->name);
    EXPECT_EQ(1U, m_registry.find(&m_motor)->drvParam0);
    EXPECT_EQ(2U, m_registry.find(&m_motor)->drvParam1);
    EXPECT_EQ(&m_motor, m_registry.channel_of("motor"));
    EXPECT_EQ(nullptr, m_registry.find(&m_drive));
    EXPECT_EQ(nullptr, m_registry.channel_of("drive"));
    EXPECT_EQ(1U, m_registry.count());
}

TEST_F(RegistryTest, AnIllegalNameIsRefused) {
    EXPECT_EQ(0x4005U, m_registry.add(&m_motor, {"a b", 0, 0, {}}));
    EXPECT_EQ(0x4005U, m_registry.add(&m_motor, {"", 0, 0, {}}));
    EXPECT_EQ(0U, m_registry.count());
}

TEST_F(RegistryTest, ANameIsTakenOnce) {
    m_registry.add(&m_motor, {"motor", 0, 0, {}});

    EXPECT_EQ(0x4003U, m_registry.add(&m_drive, {"motor", 0, 0, {}}));

    EXPECT_EQ(&m_motor, m_registry.channel_of("motor"));
    EXPECT_EQ(0U, m_registry.add(&m_drive, {"Motor", 0, 0, {}}));
}

TEST_F(RegistryTest, AChannelIsOfOneComponent) {
    m_registry.add(&m_motor, {"motor", 1, 2, {}});
    m_registry.add_port(&m_motor, "motor", 600);

    EXPECT_EQ(0U, m_registry.add(&m_motor, {"motor", 3, 4, {}}));
    EXPECT_EQ(0x1018U, m_registry.add(&m_motor, {"other", 0, 0, {}}));

    EXPECT_EQ(&m_motor, m_registry.channel_of(600));
    EXPECT_EQ(nullptr, m_registry.channel_of("other"));
}

TEST_F(RegistryTest, APortIsServedByOneComponent) {
    m_registry.add(&m_motor, {"motor", 0, 0, {}});
    m_registry.add(&m_drive, {"drive", 0, 0, {}});

    EXPECT_EQ(0U, m_registry.add_port(&m_motor, "motor", 600));
    EXPECT_EQ(0x1007U, m_registry.add_port(&m_drive, "drive", 600));
    EXPECT_EQ(0U, m_registry.add_port(&m_motor, "motor", 600));

    EXPECT_EQ(&m_motor, m_registry.channel_of(600));
    EXPECT_EQ(1U, m_registry.find(&m_motor)->ports.size());
}

TEST_F(RegistryTest, PortsFrom501To4096MayBeServed) {
    m_registry.add(&m_motor, {"motor", 0, 0, {}});

    for (uint32_t port : {0U, 1U, 100U, 500U, 4097U, 65535U, 65536U + 600U, 0xffffffffU}) {
        SCOPED_TRACE(port);
        EXPECT_EQ(0x1012U, m_registry.add_port(&m_motor, "motor", port));
    }
    EXPECT_EQ(0U, m_registry.add_port(&m_motor, "motor", 501));
    EXPECT_EQ(0U, m_registry.add_port(&m_motor, "motor", 4096));
}

TEST_F(RegistryTest, APortOfTheServersOwnIsTaken) {
    m_registry.add(&m_motor, {"motor", 0, 0, {}});
    m_registry.reserve(600);
    m_registry.reserve(5000);  // no port at all

    EXPECT_EQ(0x1007U, m_registry.add_port(&m_motor, "motor", 600));
    EXPECT_EQ(0U, m_registry.add_port(&m_motor, "motor", 601));
}

TEST_F(RegistryTest, APortNeedsItsComponent) {
    EXPECT_EQ(0x4001U, m_registry.add_port(&m_motor, "motor", 600));
    m_registry.add(&m_motor, {"motor", 0, 0, {}});
    EXPECT_EQ(0x4001U, m_registry.add_port(&m_motor, "drive", 600));
    EXPECT_EQ(0x4001U, m_registry.add_port(&m_drive, "motor", 600));
    EXPECT_EQ(nullptr, m_registry.channel_of(600));
}

TEST_F(RegistryTest, NameAndPortsAreFreeBehindTheirComponent) {
    m_registry.add(&m_motor, {"motor", 0, 0, {}});
    m_registry.add_port(&m_motor, "motor", 600);

    EXPECT_TRUE(m_registry.remove(&m_motor));
    EXPECT_FALSE(m_registry.remove(&m_motor));

    EXPECT_EQ(nullptr, m_registry.channel_of(600));
    EXPECT_EQ(0U, m_registry.add(&m_drive, {"motor", 0, 0, {}}));
    EXPECT_EQ(0U, m_registry.add_port(&m_drive, "motor", 600));
}

TEST_F(RegistryTest, TellsAPortThatWasServedFromOneThatNeverWas) {
    m_registry.add(&m_motor, {"motor", 0, 0, {}});
    m_registry.add_port(&m_motor, "motor", 600);
    m_registry.remove(&m_motor);

    EXPECT_EQ(0x4004U, m_registry.reason(600));
    EXPECT_EQ(0x1006U, m_registry.reason(601));
    EXPECT_EQ(0x1006U, m_registry.reason(70000));
}

}  // namespace
}  // namespace kypserver
