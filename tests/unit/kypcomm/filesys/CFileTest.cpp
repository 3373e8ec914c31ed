#include "kypcomm/filesys/CFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "kypcomm/KypStatus.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

namespace fs = std::filesystem;

using ::testing::Each;

class CFileTest : public ::testing::Test {
protected:
    CFileTest() : m_dir(::testing::TempDir() + "CFileTest." + std::to_string(getpid())) {
        SetLogLevel(LOG_LEVEL_TRACE);
        fs::create_directory(m_dir);
        tlsErrno = KYP_OK;
    }
    ~CFileTest() override { fs::remove_all(m_dir); }

    std::string in_dir(std::string const& name) const { return m_dir + "/" + name; }

    std::string make_file(std::string const& content, std::string const& name = "file") {
        std::ofstream(in_dir(name), std::ios::binary) << content;
        return in_dir(name);
    }

    static std::string content_of(std::string const& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    static size_t open_descriptors() {
        auto const all = fs::directory_iterator("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    std::string m_dir;
    char m_buf[64] = {};
};

// ---- the object --------------------------------------------------------------------------------

TEST_F(CFileTest, NewObjectHasItsPathAndNothingElse) {
    std::string const path = make_file("ABC");

    CFile file(path.c_str());

    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(file.IsEof());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(0U, file.GetFileSizeByte());
    EXPECT_EQ(path, file.GetFileFullPath());
    EXPECT_EQ("", file.m_fileName);
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(CFileTest, PathIsZeroBehindItsEnd) {
    CFile file("a/b");

    EXPECT_EQ(0, std::memcmp(file.m_fullPath, "a/b", 3));
    EXPECT_THAT(std::string(file.m_fullPath + 3, sizeof(file.m_fullPath) - 3), Each('\0'));
}

TEST_F(CFileTest, PathOf255BytesFits) {
    LogCapture log;
    std::string const path(255, 'p');

    CFile file(path.c_str());

    EXPECT_EQ(path, file.GetFileFullPath());
    EXPECT_EQ('\0', file.m_fullPath[255]);
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(0, log.count_containing("too long"));
}

TEST_F(CFileTest, LongerPathIsCutAndReported) {
    for (size_t length : {256U, 300U, 100000U}) {
        SCOPED_TRACE(length);
        LogCapture log;
        tlsErrno = KYP_OK;
        std::string const path(length, 'p');

        CFile file(path.c_str());

        EXPECT_EQ(std::string(255, 'p'), file.GetFileFullPath());
        EXPECT_EQ('\0', file.m_fullPath[255]);
        EXPECT_EQ(KYP_ERR_INPUT_PARAM, tlsErrno);
        EXPECT_EQ(1, log.count("ERROR", "file path length:" + std::to_string(length) +
                                            " too long,cut to:" + std::string(255, 'p')));
    }
}

TEST_F(CFileTest, MissingPathIsAnEmptyOne) {
    CFile file(nullptr);

    EXPECT_EQ("", file.GetFileFullPath());
    EXPECT_EQ(KYP_ERR_OPEN_FILE, file.OpenFile());
}

TEST_F(CFileTest, EndOfTheObjectClosesItsFile) {
    std::string const path = make_file("ABC");
    size_t const before = open_descriptors();
    {
        CFile file(path.c_str());
        ASSERT_EQ(0, file.OpenFile());
        ASSERT_EQ(before + 1, open_descriptors());
    }

    EXPECT_EQ(before, open_descriptors());
}

// ---- opening -----------------------------------------------------------------------------------

TEST_F(CFileTest, OpeningFindsTheSizeAndStandsAtTheStart) {
    std::string const path = make_file("ABC");
    CFile file(path.c_str());
    LogCapture log;

    EXPECT_EQ(0, file.OpenFile());
    EXPECT_TRUE(file.IsOpen());
    EXPECT_FALSE(file.IsEof());
    EXPECT_NE(nullptr, file.m_stream);
    EXPECT_EQ(3U, file.GetFileSizeByte());
    EXPECT_EQ(1, log.count("DEBUG", "open File:" + path + " Success,file Size:3"));
    EXPECT_EQ(3, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_STREQ("ABC", m_buf);
}

TEST_F(CFileTest, EmptyFileOpensWithSizeZero) {
    CFile file(make_file("").c_str());

    EXPECT_EQ(0, file.OpenFile());
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(0U, file.GetFileSizeByte());
}

TEST_F(CFileTest, MissingFileIsReportedAndLeavesNothingOpen) {
    std::string const path = in_dir("none");
    CFile file(path.c_str());
    LogCapture log;

    EXPECT_EQ(12289, file.OpenFile());
    EXPECT_EQ(12289, tlsErrno);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(0U, file.GetFileSizeByte());
    EXPECT_EQ(1, log.count("ERROR", "fopen file:" + path + " fail,error:" + strerror(ENOENT)));
}

TEST_F(CFileTest, FailedOpenOfAnOpenedFileIsNoLongerOpen) {
    std::string const path = make_file("ABC");
    CFile file(path.c_str());
    ASSERT_EQ(0, file.OpenFile());
    fs::remove(path);

    EXPECT_EQ(KYP_ERR_OPEN_FILE, file.OpenFile());
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(nullptr, file.m_stream);
}

TEST_F(CFileTest, OpeningAgainReadsFromTheStartAndLosesNoDescriptor) {
    std::string const path = make_file("ABC");
    CFile file(path.c_str());
    ASSERT_EQ(0, file.OpenFile());
    ASSERT_EQ(2, file.ReadFileToBuffer(m_buf, 2));
    size_t const before = open_descriptors();

    EXPECT_EQ(0, file.OpenFile());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(3, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_STREQ("ABC", m_buf);
}

TEST_F(CFileTest, KeepsTheEndOfAnEarlierReading) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());
    ASSERT_EQ(3, file.ReadFileToBuffer(m_buf, 10));

    ASSERT_EQ(0, file.OpenFile());

    EXPECT_TRUE(file.IsEof());
}

TEST_F(CFileTest, KeepsOnly32BitsOfTheSize) {
    std::string const path = make_file("");
    // A hole: takes no room on the disk.
    if (truncate(path.c_str(), (int64_t{1} << 32) + 5) != 0) GTEST_SKIP() << "no large files here";
    CFile file(path.c_str());
    LogCapture log;

    EXPECT_EQ(0, file.OpenFile());
    EXPECT_EQ(5U, file.GetFileSizeByte());
    EXPECT_EQ(1, log.count("DEBUG", "open File:" + path + " Success,file Size:5"));
}

TEST_F(CFileTest, SizeOf2GiBIsWhole) {
    std::string const path = make_file("");
    if (truncate(path.c_str(), int64_t{1} << 31) != 0) GTEST_SKIP() << "no large files here";
    CFile file(path.c_str());

    EXPECT_EQ(0, file.OpenFile());
    EXPECT_EQ(2147483648U, file.GetFileSizeByte());
}

TEST_F(CFileTest, NewFileIsEmptyAndOpen) {
    std::string const path = make_file("was here");
    CFile file(path.c_str());
    LogCapture log;

    EXPECT_EQ(0, file.CreateNewFile());
    EXPECT_TRUE(file.IsOpen());
    EXPECT_NE(nullptr, file.m_stream);
    EXPECT_EQ(0U, file.GetFileSizeByte());
    EXPECT_EQ("", content_of(path));
    EXPECT_EQ("", log.text());
}

TEST_F(CFileTest, FileThatCannotBeMadeIsReported) {
    CFile file(in_dir("none/file").c_str());
    file.m_isOpen = true;
    LogCapture log;

    EXPECT_EQ(12288, file.CreateNewFile());
    EXPECT_EQ(12288, tlsErrno);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(1, log.count("ERROR", std::string("fopen file fail,error:") + strerror(ENOENT)));
}

TEST_F(CFileTest, MakingAFileAnewStartsItAnew) {
    std::string const path = in_dir("file");
    CFile file(path.c_str());
    ASSERT_EQ(0, file.CreateNewFile());
    ASSERT_EQ(5, file.WriteBufferToFile("first", 5));
    size_t const before = open_descriptors();

    EXPECT_EQ(0, file.CreateNewFile());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(2, file.WriteBufferToFile("2.", 2));
    file.CloseFile();
    EXPECT_EQ("2.", content_of(path));
}

// ---- closing -----------------------------------------------------------------------------------

TEST_F(CFileTest, ClosingTwiceIsHarmless) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());

    EXPECT_EQ(0, file.CloseFile());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(0, file.CloseFile());
}

TEST_F(CFileTest, ClosingWhatWasNeverOpenedIsHarmless) {
    CFile file(in_dir("none").c_str());

    EXPECT_EQ(0, file.CloseFile());
    EXPECT_FALSE(file.IsOpen());
}

TEST_F(CFileTest, KeepsSayingOpenOfAClosedFile) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());

    file.CloseFile();

    EXPECT_TRUE(file.IsOpen());
}

TEST_F(CFileTest, KeepsAFailedCloseSilent) {
    CFile file("/dev/full");
    ASSERT_EQ(0, file.CreateNewFile());
    ASSERT_EQ(3, file.WriteBufferToFile("ABC", 3));
    LogCapture log;

    EXPECT_EQ(0, file.CloseFile());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ("", log.text());
}

// ---- names -------------------------------------------------------------------------------------

TEST_F(CFileTest, NameIsWhatStandsBehindTheLastSlash) {
    struct Row {
        char const* path;
        std::string name;
    };
    for (Row const& row : {Row{"/a/b/c.txt", "c.txt"}, Row{"c.txt", "c.txt"},
                           Row{"/c.txt", "c.txt"}, Row{"a/c.txt", "c.txt"}, Row{"a//c", "c"},
                           Row{"/a/b/", ""}, Row{"/", ""}, Row{"", ""}, Row{"a\\b", "a\\b"}}) {
        SCOPED_TRACE(row.path);
        CFile file(row.path);
        LogCapture log;

        EXPECT_EQ(row.name, file.GetFileName());
        EXPECT_EQ(row.name, file.m_fileName);
        EXPECT_EQ(1, log.count("DEBUG", "fileName:" + row.name));
    }
}

TEST_F(CFileTest, NameIsSoughtOnce) {
    CFile file("/a/b/c.txt");
    ASSERT_EQ("c.txt", file.GetFileName());
    LogCapture log;
    file.m_fullPath[6] = 'X';

    EXPECT_EQ("c.txt", file.GetFileName());
    EXPECT_EQ("", log.text());
}

TEST_F(CFileTest, EmptyNameIsSoughtEachTime) {
    CFile file("/a/b/");
    LogCapture log;

    EXPECT_EQ("", file.GetFileName());
    EXPECT_EQ("", file.GetFileName());
    EXPECT_EQ(2, log.count("DEBUG", "fileName:"));
}

// ---- reading -----------------------------------------------------------------------------------

TEST_F(CFileTest, ShortFileEndsWithItsFirstRead) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());
    LogCapture log;

    EXPECT_EQ(3, file.ReadFileToBuffer(m_buf, 10));
    EXPECT_STREQ("ABC", m_buf);
    EXPECT_TRUE(file.IsEof());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(1, log.count("DEBUG", "file read EOF end,buff Size:10,read Size:3"));
}

TEST_F(CFileTest, ReadBehindTheEndIsReported) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());
    ASSERT_EQ(3, file.ReadFileToBuffer(m_buf, 10));
    LogCapture log;

    EXPECT_EQ(0, file.ReadFileToBuffer(m_buf, 10));
    EXPECT_EQ(12293, tlsErrno);
    EXPECT_EQ("", log.text());
}

TEST_F(CFileTest, EndOfAFileThatFitsIsNoticedByTheNextRead) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());
    LogCapture log;

    EXPECT_EQ(3, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_FALSE(file.IsEof());
    EXPECT_EQ("", log.text());
    EXPECT_EQ(0, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_TRUE(file.IsEof());
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(1, log.count("DEBUG", "file read EOF end,buff Size:3,read Size:0"));
}

TEST_F(CFileTest, BytesPassAsTheyAre) {
    std::string all;
    for (int value = 0; value < 256; ++value) all.push_back(static_cast<char>(value));
    CFile file(make_file(all).c_str());
    ASSERT_EQ(0, file.OpenFile());
    std::string read(256, '\0');

    EXPECT_EQ(256, file.ReadFileToBuffer(&read[0], 256));
    EXPECT_EQ(all, read);
}

TEST_F(CFileTest, ReadWithoutAFileIsReported) {
    CFile file(make_file("ABC").c_str());

    EXPECT_EQ(0, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_EQ(12293, tlsErrno);
    EXPECT_FALSE(file.IsEof());
}

TEST_F(CFileTest, KeepsAFailedReadAsTheEndOfTheFile) {
    // A directory opens like a file and cannot be read.
    CFile file(m_dir.c_str());
    ASSERT_EQ(0, file.OpenFile());
    LogCapture log;

    EXPECT_EQ(0, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_EQ(12291, tlsErrno);
    EXPECT_TRUE(file.IsEof());
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(1, log.count("ERROR", std::string("file read size:0 error:") + strerror(EISDIR)));
}

TEST_F(CFileTest, FileThatIsWrittenCannotBeRead) {
    CFile file(in_dir("file").c_str());
    ASSERT_EQ(0, file.CreateNewFile());
    LogCapture log;

    EXPECT_EQ(0, file.ReadFileToBuffer(m_buf, 3));
    EXPECT_EQ(KYP_ERR_READ_FILE, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", std::string("file read size:0 error:") + strerror(EBADF)));
}

TEST_F(CFileTest, ReadOfNothingDoesNothing) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());

    EXPECT_EQ(0, file.ReadFileToBuffer(nullptr, 0));
    EXPECT_FALSE(file.IsEof());
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(3, file.ReadFileToBuffer(m_buf, 3));
}

TEST_F(CFileTest, BadReadIsRefusedAndLosesNothing) {
    CFile file(make_file("ABC").c_str());
    ASSERT_EQ(0, file.OpenFile());

    EXPECT_EQ(0, file.ReadFileToBuffer(m_buf, -1));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, tlsErrno);
    tlsErrno = KYP_OK;
    EXPECT_EQ(0, file.ReadFileToBuffer(nullptr, 3));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, tlsErrno);
    EXPECT_FALSE(file.IsEof());
    EXPECT_EQ(3, file.ReadFileToBuffer(m_buf, 3));
}

// ---- writing -----------------------------------------------------------------------------------

TEST_F(CFileTest, BlocksAreWrittenOneBehindTheOther) {
    std::string const path = in_dir("file");
    CFile file(path.c_str());
    ASSERT_EQ(0, file.CreateNewFile());

    EXPECT_EQ(3, file.WriteBufferToFile("A\0B", 3));
    EXPECT_EQ(2, file.WriteBufferToFile("CD", 2));
    EXPECT_EQ(0, file.CloseFile());
    EXPECT_EQ(std::string("A\0BCD", 5), content_of(path));
    EXPECT_EQ(0, tlsErrno);
    EXPECT_FALSE(file.IsEof());
}

TEST_F(CFileTest, WriteWithoutAFileIsReported) {
    CFile file(in_dir("file").c_str());

    EXPECT_EQ(0, file.WriteBufferToFile("ABC", 3));
    EXPECT_EQ(12293, tlsErrno);
}

TEST_F(CFileTest, KeepsTheWordReadInTheLineOfAFailedWrite) {
    CFile file("/dev/full");
    ASSERT_EQ(0, file.CreateNewFile());
    std::string const data(1 << 20, 'x');
    LogCapture log;

    EXPECT_EQ(0, file.WriteBufferToFile(data.data(), static_cast<int>(data.size())));
    EXPECT_EQ(12292, tlsErrno);
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_TRUE(file.IsOpen());
    EXPECT_FALSE(file.IsEof());
    EXPECT_EQ(1, log.count("ERROR", std::string("file read error:") + strerror(ENOSPC)));
}

TEST_F(CFileTest, PartOfAFailedWriteIsCounted) {
    std::string const path = in_dir("file");
    CFile file(path.c_str());
    ASSERT_EQ(0, file.CreateNewFile());
    std::string const data(1 << 20, 'x');
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    rlimit const limit{65536, before.rlim_max};
    auto* const handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));

    int const count = file.WriteBufferToFile(data.data(), static_cast<int>(data.size()));

    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, handler);
    EXPECT_EQ(65536, count);
    EXPECT_EQ(KYP_ERR_WRITE_FILE, tlsErrno);
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ(65536U, content_of(path).size());
}

TEST_F(CFileTest, FileThatIsReadCannotBeWritten) {
    std::string const path = make_file("ABC");
    CFile file(path.c_str());
    ASSERT_EQ(0, file.OpenFile());

    EXPECT_EQ(0, file.WriteBufferToFile("XYZ", 3));
    EXPECT_EQ(KYP_ERR_WRITE_FILE, tlsErrno);
    EXPECT_EQ(nullptr, file.m_stream);
    EXPECT_EQ("ABC", content_of(path));
}

TEST_F(CFileTest, WriteOfNothingDoesNothing) {
    CFile file(in_dir("file").c_str());
    ASSERT_EQ(0, file.CreateNewFile());

    EXPECT_EQ(0, file.WriteBufferToFile(nullptr, 0));
    EXPECT_NE(nullptr, file.m_stream);
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(CFileTest, BadWriteIsRefusedAndTheFileStaysOpen) {
    CFile file(in_dir("file").c_str());
    ASSERT_EQ(0, file.CreateNewFile());

    EXPECT_EQ(0, file.WriteBufferToFile("ABC", -1));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, tlsErrno);
    tlsErrno = KYP_OK;
    EXPECT_EQ(0, file.WriteBufferToFile(nullptr, 3));
    EXPECT_EQ(KYP_ERR_INPUT_PARAM, tlsErrno);
    EXPECT_EQ(3, file.WriteBufferToFile("ABC", 3));
}

}  // namespace
