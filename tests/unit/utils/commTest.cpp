#include "utils/comm.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/LogCapture.h"

namespace {

// What the platform answers this thread while a test has something to say about it.
thread_local std::function<int(timespec const*, timespec*)> t_nanosleep;
thread_local std::function<ssize_t(char const*, char*, size_t)> t_readlink;
thread_local std::function<int(Dl_info*)> t_dladdr;

template <typename Function>
Function next_definition(char const* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int nanosleep(timespec const* time, timespec* rest) {
    if (t_nanosleep) return t_nanosleep(time, rest);
    return next_definition<int (*)(timespec const*, timespec*)>("nanosleep")(time, rest);
}

ssize_t readlink(char const* path, char* target, size_t size) noexcept {
    if (t_readlink) return t_readlink(path, target, size);
    return next_definition<ssize_t (*)(char const*, char*, size_t)>("readlink")(path, target, size);
}

int dladdr(void const* address, Dl_info* info) noexcept {
    if (t_dladdr) return t_dladdr(info);
    return next_definition<int (*)(void const*, Dl_info*)>("dladdr")(address, info);
}

namespace {

std::string path_of(std::string const& name) {
    return ::testing::TempDir() + "commTest." + std::to_string(getpid()) + "." + name;
}

// Stands in for nanosleep(): notes what is asked for and is interrupted with 40 ms left at first.
class SleepTest : public ::testing::Test {
protected:
    SleepTest() {
        t_nanosleep = [this](timespec const* time, timespec* rest) {
            m_asked.push_back(time->tv_sec * 1000000000L + time->tv_nsec);
            if (m_error == 0) return 0;
            *rest = {0, 40000000};
            errno = std::exchange(m_error, 0);
            return -1;
        };
    }
    ~SleepTest() override { t_nanosleep = nullptr; }

    int m_error = 0;            // of the next call
    std::vector<long> m_asked;  // in nanoseconds
};

TEST_F(SleepTest, LessThanOneMillisecondReturnsAtOnce) {
    CComm::Sleep(0);
    CComm::Sleep(-5);
    CComm::Sleep(INT_MIN);

    EXPECT_THAT(m_asked, ::testing::IsEmpty());
}

TEST_F(SleepTest, LastsAsLongAsAsked) {
    CComm::Sleep(1);
    CComm::Sleep(999);
    CComm::Sleep(1000);
    CComm::Sleep(2345);
    CComm::Sleep(INT_MAX);

    EXPECT_THAT(m_asked, ::testing::ElementsAre(1000000, 999000000, 1000000000, 2345000000,
                                                2147483647000000));
}

TEST_F(SleepTest, GoesOnWithTheRestBehindASignal) {
    m_error = EINTR;

    CComm::Sleep(100);

    EXPECT_THAT(m_asked, ::testing::ElementsAre(100000000, 40000000));
}

TEST_F(SleepTest, EndsOnAnyOtherError) {
    m_error = EINVAL;

    CComm::Sleep(100);

    EXPECT_THAT(m_asked, ::testing::ElementsAre(100000000));
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

TEST(CCommTest, AProcessPathThatFillsTheBufferIsRefused) {
    struct Row {
        ssize_t length;
        std::string path;
    };
    Row const rows[] = {{1023, std::string(1023, 'p')}, {1024, ""}, {-1, ""}};
    for (Row const& row : rows) {
        SCOPED_TRACE(row.length);
        t_readlink = [&row](char const* path, char* target, size_t size) {
            EXPECT_STREQ("/proc/self/exe", path);
            EXPECT_EQ(1024u, size);
            memset(target, 'p', size);
            return row.length;
        };
        EXPECT_EQ(row.path, CComm::GetProcessPath());
    }
    t_readlink = nullptr;
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

TEST(CCommTest, TheLibrarysDirectoryEndsAtTheLastSlash) {
    struct Row {
        char const* path;
        char const* directory;
    };
    constexpr Row kRows[] = {
        {"/opt/kyp/libkyp.so", "/opt/kyp"},
        {"./libkyp.so", "."},
        {"/libkyp.so", ""},
        {"libkyp.so", "libkyp.so"},
    };
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.path);
        t_dladdr = [&row](Dl_info* info) {
            info->dli_fname = row.path;
            return 1;
        };
        EXPECT_EQ(row.directory, CComm::GetCurrentDllPath());
    }
    t_dladdr = nullptr;
}

TEST(CCommTest, AnUnknownLibraryIsLogged) {
    LogCapture capture;
    t_dladdr = [](Dl_info*) { return 0; };

    EXPECT_EQ("", CComm::GetCurrentDllPath());

    t_dladdr = nullptr;
    EXPECT_EQ(1, capture.count("ERROR", "dladdr fail"));
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
    EXPECT_EQ("", CComm::GetFileMd5(::testing::TempDir().c_str()));
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
