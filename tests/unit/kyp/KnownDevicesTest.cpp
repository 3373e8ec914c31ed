#include "kyp/KnownDevices.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "kyp/Target.h"
#include "kyp/Values.h"

namespace {

using namespace kyptool;

class KnownDevicesTest : public testing::Test {
protected:
    KnownDevicesTest() { setenv("XDG_CACHE_HOME", "/tmp/cache", 1); }

    static std::string content() {
        std::ostringstream text;
        text << std::ifstream("/tmp/cache/kyp/devices").rdbuf();
        return text.str();
    }
};

TEST_F(KnownDevicesTest, NothingIsKnownAtFirst) {
    EXPECT_FALSE(known_address("1.2.3.4.5.6"));
    remember_devices({});
    EXPECT_FALSE(std::filesystem::exists("/tmp/cache"));
}

TEST_F(KnownDevicesTest, RemembersBesideWhatIsKnown) {
    remember_devices({{"1.2.3.4.5.6", "10.0.0.1"}, {"1.2.3.4.5.7", "10.0.0.2"}});
    remember_devices({{"1.2.3.4.5.6", "10.0.0.3"}});

    EXPECT_EQ("1.2.3.4.5.6 10.0.0.3\n1.2.3.4.5.7 10.0.0.2\n", content());
    EXPECT_EQ("10.0.0.3", known_address("1.2.3.4.5.6"));
    EXPECT_EQ("10.0.0.2", known_address("1.2.3.4.5.7"));
}

TEST_F(KnownDevicesTest, ReadsOnlyWhatIsWell) {
    std::filesystem::create_directories("/tmp/cache/kyp");
    std::ofstream("/tmp/cache/kyp/devices")
        << "1.2.3.4.5.6 nowhere\nx 10.0.0.1\n1.2.3.4.5.7 10.0.0.2";

    EXPECT_FALSE(known_address("1.2.3.4.5.6"));
    EXPECT_FALSE(known_address("x"));
    EXPECT_EQ("10.0.0.2", known_address("1.2.3.4.5.7"));
}

TEST_F(KnownDevicesTest, LivesWithoutAPlaceToWriteTo) {
    setenv("XDG_CACHE_HOME", "/proc/none", 1);
    remember_devices({{"1.2.3.4.5.6", "10.0.0.1"}});
    EXPECT_FALSE(known_address("1.2.3.4.5.6"));

    unsetenv("XDG_CACHE_HOME");
    unsetenv("HOME");
    remember_devices({{"1.2.3.4.5.6", "10.0.0.1"}});
    EXPECT_FALSE(known_address("1.2.3.4.5.6"));
}

TEST_F(KnownDevicesTest, TheHomeFolderDoesWithoutACacheFolder) {
    unsetenv("XDG_CACHE_HOME");
    setenv("HOME", "/tmp/home", 1);
    remember_devices({{"1.2.3.4.5.6", "10.0.0.1"}});

    EXPECT_TRUE(std::filesystem::exists("/tmp/home/.cache/kyp/devices"));
    EXPECT_EQ("10.0.0.1", known_address("1.2.3.4.5.6"));
}

TEST_F(KnownDevicesTest, AnIdAsTargetIsLookedForWhereItWasSeen) {
    remember_devices({{"1.2.3.4.5.6", "10.0.0.1"}});

    auto const target = parse_target("1.2.3.4.5.6");
    ASSERT_TRUE(target);
    EXPECT_EQ("10.0.0.1", target->host);
    EXPECT_EQ("1.2.3.4.5.6 at 10.0.0.1 (where a scan has seen it)", place_of(*target));
    EXPECT_EQ("10.9.9.9", parse_target("1.2.3.4.5.6@10.9.9.9")->host);
}

}  // namespace
