#include "utils/comm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "support/LogCapture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::string path_of(std::string const& name) {
    return ::testing::TempDir() + "commTest." + std::to_string(getpid()) + "." + name;
}

TEST(CCommTest, SleepReturnsAtOnceForLessThanOneMillisecond) {
    auto const start = steady_clock::now();

    CComm::Sleep(0);
    CComm::Sleep(-5);
    CComm::Sleep(INT_MIN);

    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(30));
}

TEST(CCommTest, SleepLastsAsLongAsAsked) {
    auto const start = steady_clock::now();

    CComm::Sleep(1);

    EXPECT_GE(steady_clock::now() - start, milliseconds(1));
}

TEST(CCommTest, SleepGoesOnBehindASignal) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    itimerval every = {{0, 2000}, {0, 2000}};
    itimerval const never = {};
    setitimer(ITIMER_REAL, &every, nullptr);
    auto const start = steady_clock::now();

    CComm::Sleep(30);

    EXPECT_GE(steady_clock::now() - start, milliseconds(30));
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(CCommTest, TheCurrentTimeIsLocalWithMilliseconds) {
    auto const shown = [] {
        timeval now = {};
        gettimeofday(&now, nullptr);
        char date[64];
        tm local = {};
        strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", localtime_r(&now.tv_sec, &local));
        char text[80];
        snprintf(text, sizeof text, "%s.%03d", date, static_cast<int>(now.tv_usec / 1000));
        return std::string(text);
    };

    std::string const before = shown();
    std::string const now = CComm::GetCurrentTimeMs();
    std::string const after = shown();

    EXPECT_EQ(23u, now.size());
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(CCommTest, KnowsItsProcess) {
    EXPECT_EQ(getpid(), CComm::GetProcessId());
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe").string(), CComm::GetProcessPath());
}

TEST(CCommTest, TheProcessNameIsTheLastPieceOfItsPathAndIsKept) {
    char* const name = CComm::GetProcessName();

    EXPECT_STREQ("unit_utils", name);
    EXPECT_EQ(name, CComm::GetProcessName());
}

TEST(CCommTest, TheProcessNameMayBeAskedForByManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] { EXPECT_STREQ("unit_utils", CComm::GetProcessName()); });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST(CCommTest, TheLibrarysDirectoryHasNoSlashAtItsEnd) {
    std::string const directory = CComm::GetCurrentDllPath();

    ASSERT_FALSE(directory.empty());
    EXPECT_NE('/', directory.back());
    EXPECT_TRUE(std::filesystem::exists(directory + "/libkyp.so.0"));
}

class EnvironmentTest : public ::testing::Test {
protected:
    EnvironmentTest() : m_path(getenv("PATH") == nullptr ? "" : getenv("PATH")) {}
    ~EnvironmentTest() override { setenv("PATH", m_path.c_str(), 1); }

    std::string m_path;
};

TEST_F(EnvironmentTest, KeepsASemicolonInFrontOfAnAddedPath) {
    setenv("PATH", "/bin:/usr/bin", 1);

    EXPECT_EQ(0, CComm::AddEvnPath("/opt/kyp"));

    EXPECT_STREQ("/bin:/usr/bin;/opt/kyp", getenv("PATH"));
}

TEST_F(EnvironmentTest, AnUnsetPathCountsAsEmpty) {
    unsetenv("PATH");

    EXPECT_EQ(0, CComm::AddEvnPath("/opt/kyp"));

    EXPECT_STREQ(";/opt/kyp", getenv("PATH"));
}

TEST(CCommTest, HashesBytesAndTexts) {
    unsigned char abc[] = {'a', 'b', 'c'};

    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", CComm::GetMd5(abc, 3));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", CComm::GetMd5("abc"));
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", CComm::GetMd5(std::string()));
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", CComm::GetMd5(abc, 0));
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", CComm::GetMd5(abc, -1));
}

TEST(CCommTest, HashesATextWithANulInside) {
    EXPECT_EQ("70350f6027bce3713f6b76473084309b", CComm::GetMd5(std::string("a\0b", 3)));
}

TEST(CCommTest, HashesAFile) {
    std::string const path = path_of("file");
    std::ofstream(path) << "message digest";

    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", CComm::GetFileMd5(path.c_str()));

    std::filesystem::remove(path);
}

TEST(CCommTest, HashesAnEmptyFile) {
    std::string const path = path_of("empty");
    std::ofstream{path};

    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", CComm::GetFileMd5(path.c_str()));

    std::filesystem::remove(path);
}

TEST(CCommTest, AFileThatCannotBeReadHasNoHash) {
    EXPECT_EQ("", CComm::GetFileMd5("/no/such/file"));
    EXPECT_EQ("", CComm::GetFileMd5(nullptr));
}

TEST(CCommTest, TheCompileTimeIsADateAndATime) {
    unsigned int year = 0;
    unsigned char month = 0;
    unsigned char day = 0;
    GetCompileDate(&year, &month, &day);
    char date[32];
    snprintf(date, sizeof date, "%04u-%02d-%02d ", year, month, day);

    std::string const text = CComm::GetCompileTime();

    ASSERT_EQ(19u, text.size());
    EXPECT_EQ(':', text[13]);
    EXPECT_EQ(':', text[16]);
    EXPECT_THAT(text, ::testing::StartsWith(date));
}

TEST(CCommTest, TheCompileDateIsInRange) {
    unsigned int year = 0;
    unsigned char month = 0;
    unsigned char day = 0;

    GetCompileDate(&year, &month, &day);

    EXPECT_GE(year, 2024u);
    EXPECT_LE(year, 2100u);
    EXPECT_GE(month, 1);
    EXPECT_LE(month, 12);
    EXPECT_GE(day, 1);
    EXPECT_LE(day, 31);
}

TEST(CCommTest, DumpsBytesAsHex) {
    char const data[] = {0x00, 0x5a, static_cast<char>(0xff), 0x0a};

    EXPECT_EQ("0x00 0x5a 0xff 0x0a", CComm::HexDumpBuf(data, 4));
    EXPECT_EQ("0x00", CComm::HexDumpBuf(data, 1));
    EXPECT_EQ("", CComm::HexDumpBuf(data, 0));
    EXPECT_EQ("", CComm::HexDumpBuf(data, -1));
}

TEST(CCommTest, DumpsNumbersInMemoryOrder) {
    EXPECT_EQ("0x00 0x00 0x80 0x3f", CComm::HexDumpBuf(1.0f));
    EXPECT_EQ("0x34 0x12", CComm::HexDumpBuf(static_cast<short>(0x1234)));
    EXPECT_EQ("0xff 0xff", CComm::HexDumpBuf(static_cast<short>(-1)));
}

TEST(CCommTest, DumpsBitsInTwoGroups) {
    EXPECT_EQ("0101 0011 ", CComm::BitDumpBuf(0x53));
    EXPECT_EQ("0000 0000 ", CComm::BitDumpBuf(0));
    EXPECT_EQ("1000 0001 ", CComm::BitDumpBuf(static_cast<char>(0x81)));
}

TEST(SsrcTest, NeverHasTheTopBitSet) {
    unsigned int all = 0;
    for (int i = 0; i < 1000; ++i) all |= utils_generateSSRC();

    EXPECT_EQ(0x7fffffffu, all);
}

TEST(SsrcTest, DiffersFromCallToCall) {
    std::set<unsigned int> seen;
    for (int i = 0; i < 100; ++i) seen.insert(utils_generateSSRC());

    EXPECT_GT(seen.size(), 95u);
}

}  // namespace
