#include "kypcomm/KypLibInit.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypDeviceIdGenerator.h"
#include "libkyp/libkyp.h"
#include "support/CallGate.h"

namespace {

constexpr char const* kFile = "/opt/kyp/kypdevice.xml";

std::string text_of(_KypDeviceId const& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

void write_device_id(std::string const& id) {
    std::ofstream file(kFile);
    file << "<kyp><deviceInfo deviceId=\"" << id << "\"></deviceInfo></kyp>";
}

// The process-wide generator with a state of the test's own.
class KypLibInitTest : public testing::Test {
protected:
    KypLibInitTest() : m_instance(&utility::instance<CKypDeviceIdGenerator>()) {
        unlink(kFile);
        utility::Singleton<CKypDeviceIdGenerator>::m_instance = &m_generator;
    }
    ~KypLibInitTest() override {
        utility::Singleton<CKypDeviceIdGenerator>::m_instance = m_instance;
        unlink(kFile);
    }

    CKypDeviceIdGenerator m_generator;
    CKypDeviceIdGenerator* m_instance;
};

TEST_F(KypLibInitTest, ConstructionDeterminesTheId) {
    write_device_id("1.2.3.4.5.6");

    CKypLibInit init;

    EXPECT_TRUE(m_generator.m_loaded);
    EXPECT_EQ("1.2.3.4.5.6", text_of(init.GetKypDeviceId()));
    EXPECT_EQ("1.2.3.4.5.6", init.GetKypDeviceIdString());
}

TEST_F(KypLibInitTest, InitReadsTheFileAgain) {
    write_device_id("1.2.3.4.5.6");
    CKypLibInit init;
    write_device_id("6.5.4.3.2.1");

    EXPECT_EQ(0, init.InitKypClient());
    EXPECT_EQ("6.5.4.3.2.1", init.GetKypDeviceIdString());
}

TEST_F(KypLibInitTest, InitWithoutAnyIdIsStillNoFailure) {
    CallGate gate;
    gate.fail("getifaddrs", 0, CallGate::kAlways);
    CKypLibInit init;

    EXPECT_EQ(0, init.InitKypClient());
    EXPECT_EQ("0.0.0.0.0.0", init.GetKypDeviceIdString());
}

TEST_F(KypLibInitTest, WithoutAGeneratorThereIsNoId) {
    utility::Singleton<CKypDeviceIdGenerator>::m_instance = nullptr;
    CKypLibInit init;

    EXPECT_EQ(-1, init.InitKypClient());
    EXPECT_EQ("0.0.0.0.0.0", text_of(init.GetKypDeviceId()));
    EXPECT_EQ("0.0.0.0.0.0", init.GetKypDeviceIdString());
}

TEST_F(KypLibInitTest, ProgramAndLibraryShareOneObject) {
    _KypDeviceId id = {};

    ASSERT_EQ(0, libkyp_getLocalKypDeviceId(&id));  // makes the library's

    CKypLibInit* const made = utility::Singleton<CKypLibInit>::m_instance;
    EXPECT_NE(nullptr, made);
    EXPECT_EQ(made, &utility::instance<CKypLibInit>());
}

}  // namespace
