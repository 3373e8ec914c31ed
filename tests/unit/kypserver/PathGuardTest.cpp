#include "kypserver/PathGuard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/RawPeer.h"

namespace kypserver {
namespace {

class PathGuardTest : public testing::Test {
protected:
    PathGuardTest() {
        char name[] = "/tmp/kypguardXXXXXX";
        m_directory = mkdtemp(name);
        m_path = m_directory + "/kypserver";
    }

    std::string m_directory;
    std::string m_path;
    CPathGuard m_guard;
};

TEST_F(PathGuardTest, TakesAFreePath) {
    EXPECT_EQ("", m_guard.take(m_path));
}

TEST_F(PathGuardTest, TakesThePathOfAServerThatHasDied) {
    {
        RawListener listener = RawListener::unix_path(m_path);
        ASSERT_TRUE(listener.listening());
    }
    ASSERT_EQ(0, access(m_path.c_str(), F_OK));

    EXPECT_EQ("", m_guard.take(m_path));
}

TEST_F(PathGuardTest, LeavesAPathWhereSomebodyListens) {
    RawListener listener = RawListener::unix_path(m_path);

    EXPECT_EQ(m_path + " is served by another program; stop it or choose another --domain-path",
              m_guard.take(m_path));
}

TEST_F(PathGuardTest, LeavesAPathThatAnotherGuardHolds) {
    auto other = std::make_unique<CPathGuard>();
    ASSERT_EQ("", other->take(m_path));

    EXPECT_EQ(m_path + " is served by another program; stop it or choose another --domain-path",
              m_guard.take(m_path));

    other.reset();
    CPathGuard third;
    EXPECT_EQ("", third.take(m_path));
}

TEST_F(PathGuardTest, LeavesAFileOfSomebodys) {
    std::ofstream(m_path) << "precious";

    EXPECT_EQ(m_path + " exists and is no socket; remove it or choose another --domain-path",
              m_guard.take(m_path));

    EXPECT_EQ(0, access(m_path.c_str(), F_OK));
}

TEST_F(PathGuardTest, SaysThatTheDirectoryIsNone) {
    std::ofstream(m_directory + "/file") << "x";

    EXPECT_EQ(m_directory + "/file is no directory; remove it or choose another --domain-path",
              m_guard.take(m_directory + "/file/kypserver"));
}

TEST_F(PathGuardTest, SaysThatTheDirectoryIsMissing) {
    EXPECT_EQ("cannot use the directory " + m_directory +
                  "/none: No such file or directory; make it, writable for this user, or choose "
                  "another --domain-path",
              m_guard.take(m_directory + "/none/kypserver"));
}

}  // namespace
}  // namespace kypserver
