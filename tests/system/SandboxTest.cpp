#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/RawPeer.h"
#include "support/SecondHost.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

// Starts a shell in a sandbox inside this one.
std::vector<std::string> sandboxed(std::string const& script) {
    return {"kyp_sandbox", "/bin/sh", "-c", script};
}

bool is_empty(char const* folder) {
    return std::filesystem::is_directory(folder) && std::filesystem::is_empty(folder);
}

TEST(SandboxTest, GivesEmptyFoldersAtTheFixedPlaces) {
    EXPECT_TRUE(is_empty("/opt/kyp"));
    EXPECT_TRUE(is_empty("/var/tmp/kyp"));
    EXPECT_TRUE(is_empty("/dev/shm"));
}

TEST(SandboxTest, OffersATransportOnDemand) {
    std::string const show = "test -r /usr/lib/libivshmAPI.so && ls /usr/lib | wc -l";
    auto const entries = std::distance(std::filesystem::directory_iterator("/usr/lib"),
                                       std::filesystem::directory_iterator());
    setenv("KYP_SANDBOX_IVSHM", "/proc/self/exe", 1);
    ChildProcess with(sandboxed(show));
    unsetenv("KYP_SANDBOX_IVSHM");
    ChildProcess without(sandboxed(show));

    EXPECT_EQ(0, with.wait_exit()) << with.errors();
    EXPECT_NE(0, without.wait_exit());
    EXPECT_THAT(with.output(), EndsWith(std::to_string(entries + 1) + "\n"));
}

TEST(SandboxTest, SaysWhenTheTransportIsNotThere) {
    setenv("KYP_SANDBOX_IVSHM", "/no/such/library", 1);
    ChildProcess command(sandboxed("true"));

    EXPECT_EQ(125, command.wait_exit());
    EXPECT_THAT(command.errors(), HasSubstr("find the file that KYP_SANDBOX_IVSHM names"));
}

TEST(SandboxTest, IsUserZeroWithALoopbackThatIsUp) {
    EXPECT_EQ(0u, getuid());
    RawListener listener = RawListener::tcp(9999);

    EXPECT_TRUE(RawPeer::connect_tcp(9999).connected());
}

TEST(SandboxTest, HasNoOtherWayOut) {
    struct if_nameindex* const all = if_nameindex();
    std::string names;
    for (auto* at = all; at->if_index != 0; ++at) {
        ifreq request{};
        snprintf(request.ifr_name, sizeof request.ifr_name, "%s", at->if_name);
        int const fd = socket(AF_INET, SOCK_DGRAM, 0);
        if (ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0) {
            names += at->if_name;
        }
        close(fd);
    }
    if_freenameindex(all);

    EXPECT_EQ("lo", names);
}

TEST(SandboxTest, KeepsTwoCommandsApart) {
    std::ofstream("/opt/kyp/mine") << "1";
    RawListener mine = RawListener::tcp(9999);
    ChildProcess other(sandboxed("ls /opt/kyp; cat /proc/net/tcp"));

    EXPECT_EQ(0, other.wait_exit());
    EXPECT_EQ(std::string::npos, other.output().find("mine"));
    EXPECT_EQ(std::string::npos, other.output().find(":270F"));
}

TEST(SandboxTest, PassesTheExitCodeOn) {
    EXPECT_EQ(42, ChildProcess(sandboxed("exit 42")).wait_exit());
}

TEST(SandboxTest, DiesOfTheSignalThatKilledTheCommand) {
    EXPECT_EQ(128 + SIGSEGV, ChildProcess(sandboxed("kill -SEGV $$")).wait_exit());
}

TEST(SandboxTest, PassesASignalOnToTheCommand) {
    ChildProcess command(
        sandboxed("trap 'echo stopped; exit 5' TERM; echo ready; while :; do sleep 0.05; done"));
    ASSERT_TRUE(command.wait_for_output("ready"));

    command.signal(SIGTERM);

    EXPECT_EQ(5, command.wait_exit());
    EXPECT_EQ("ready\nstopped\n", command.output());
}

TEST(SandboxTest, SaysWhenTheCommandCannotBeRun) {
    ChildProcess command({"kyp_sandbox", "/no/such/program"});

    EXPECT_EQ(127, command.wait_exit());
    EXPECT_THAT(command.errors(),
                EndsWith("kyp_sandbox: cannot run /no/such/program: No such file or directory\n"));
}

// A pipe whose writing end the command and its children inherit: its reader sees the end once all
// of them are gone.
class SandboxLeftoversTest : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        if (GetParam() != std::string("root") && getenv("KYP_SANDBOX") == std::string("root")) {
            GTEST_SKIP() << "no user namespaces on this machine";
        }
        setenv("KYP_SANDBOX_ROAD", GetParam(), 1);
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        m_reader = fds[0];
        fcntl(m_reader, F_SETFL, O_NONBLOCK);
        fcntl(m_reader, F_SETFD, FD_CLOEXEC);
        m_writer = fds[1];
    }

    bool all_gone() {
        return eventually([this] {
            char byte;
            return read(m_reader, &byte, 1) == 0;
        });
    }

    void close_writer() { close(m_writer); }

private:
    int m_reader = -1;
    int m_writer = -1;
};

TEST_P(SandboxLeftoversTest, EndsWhatTheCommandLeftBehind) {
    ChildProcess command(sandboxed("sleep 1000 & exit 3"));
    close_writer();

    EXPECT_EQ(3, command.wait_exit());
    EXPECT_TRUE(all_gone());
}

TEST_P(SandboxLeftoversTest, TakesTheCommandAlongWhenItIsKilled) {
    ChildProcess command(sandboxed("sleep 1000 & echo ready; sleep 1000"));
    close_writer();
    ASSERT_TRUE(command.wait_for_output("ready"));

    command.signal(SIGKILL);

    EXPECT_TRUE(all_gone());
}

INSTANTIATE_TEST_SUITE_P(Roads, SandboxLeftoversTest, testing::Values("user", "root"),
                         [](auto const& road) { return std::string(road.param); });

TEST(SandboxTest, TakesRootsRoadOneCommandAtATimeAndSaysSo) {
    std::filesystem::copy(program_path("kyp_sandbox"), "/opt/kyp/runner");
    int const lock = open("/opt/kyp/runner", O_RDONLY | O_CLOEXEC);
    unsetenv("KYP_SANDBOX");
    setenv("KYP_SANDBOX_ROAD", "root", 1);
    ChildProcess command({"/opt/kyp/runner", "/bin/sh", "-c", "echo ready; sleep 1000"});
    ASSERT_TRUE(command.wait_for_output("ready"));

    EXPECT_EQ("kyp_sandbox: no user namespaces (not tried); using root, one command at a time\n",
              command.errors());
    EXPECT_EQ(-1, flock(lock, LOCK_EX | LOCK_NB));
    command.signal(SIGKILL);
    EXPECT_TRUE(eventually([lock] { return flock(lock, LOCK_EX | LOCK_NB) == 0; }));
    close(lock);
}

TEST(SandboxTest, ShowsTheCommandThatLiesBelowAFolderOfItsOwn) {
    std::filesystem::create_directory("/var/tmp/build");
    std::filesystem::copy("/bin/true", "/var/tmp/build/command");
    std::filesystem::create_directory("/tmp/build");
    std::filesystem::copy("/bin/true", "/tmp/build/command");

    EXPECT_EQ(0, ChildProcess({"kyp_sandbox", "/var/tmp/build/command"}).wait_exit());
    EXPECT_EQ(0, ChildProcess({"kyp_sandbox", "/tmp/build/command"}).wait_exit());
}

TEST(SandboxTest, HidesWhatLiesBesideTheCommandsFolder) {
    std::filesystem::create_directory("/tmp/build");
    std::filesystem::copy("/bin/sh", "/tmp/build/sh");
    std::filesystem::create_directory("/tmp/other");
    std::string const look = "test -e /tmp/build/sh && test ! -e /tmp/other && touch /tmp/mine";

    EXPECT_EQ(0, ChildProcess({"kyp_sandbox", "/tmp/build/sh", "-c", look}).wait_exit());
    EXPECT_FALSE(std::filesystem::exists("/tmp/mine"));
}

TEST(SandboxTest, ReachesASecondHostAndBack) {
    SecondHost other;
    ASSERT_TRUE(other.ready());
    RawListener there;
    other.run([&] { there = RawListener::tcp(9999, "0.0.0.0"); });
    RawListener here = RawListener::tcp(9999, "0.0.0.0");

    RawPeer out = RawPeer::connect_tcp(9999, SecondHost::kThere);
    RawPeer back;
    other.run([&] { back = RawPeer::connect_tcp(9999, SecondHost::kHere); });

    EXPECT_TRUE(out.connected());
    EXPECT_TRUE(back.connected());
    EXPECT_TRUE(there.accept().connected());
    EXPECT_TRUE(here.accept().connected());
}

TEST(ChildProcessTest, WithoutCapabilitiesIsRefusedByAFolderWithoutRights) {
    std::filesystem::create_directory("/opt/kyp/locked");
    chmod("/opt/kyp/locked", 0);

    EXPECT_EQ(0, ChildProcess({"/bin/ls", "/opt/kyp/locked"}).wait_exit());
    EXPECT_NE(0, ChildProcess({"/bin/ls", "/opt/kyp/locked"}, ChildProcess::WITHOUT_CAPABILITIES)
                     .wait_exit());
}

}  // namespace
