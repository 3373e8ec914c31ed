#include "kypserver/Spool.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "kypcomm/KypStatus.h"
#include "kypserver/Options.h"

namespace kypserver {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- names -------------------------------------------------------------------------------------

TEST(SpoolNameTest, NamesLoseTheirDirectories) {
    struct Row {
        std::string given;
        std::string name;
    };
    for (Row const& row :
         {Row{"image.bin", "image.bin"}, Row{"a/b/c.txt", "c.txt"}, Row{"/etc/passwd", "passwd"},
          Row{"../../etc/passwd", "passwd"}, Row{"..//..//x", "x"}, Row{"a\\b", "a\\b"},
          Row{".profile", ".profile"}, Row{"...", "..."}, Row{"..a", "..a"}, Row{" ", " "},
          Row{"-rf", "-rf"}, Row{"\xC3\xA4.txt", "\xC3\xA4.txt"}, Row{"\xFF", "\xFF"},
          Row{std::string(255, 'n'), std::string(255, 'n')},
          Row{std::string(300, 'd') + "/n", "n"}}) {
        EXPECT_EQ(row.name, spool_name(row.given)) << row.given;
    }
}

TEST(SpoolNameTest, WhatIsNoNameForAFileIsRefused) {
    for (std::string const& given :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("a/"),
          std::string("a/."), std::string("a/.."), std::string("../.."), std::string("a\0b", 3),
          std::string("\0", 1), std::string("..\0/x", 5), std::string("a\nb"),
          std::string("\x1b[2J"), std::string("a\x7f"), std::string("dir\n/name"),
          std::string(256, 'n'), std::string(".kypserver-part-0"),
          std::string("x/.kypserver-part-")}) {
        EXPECT_EQ("", spool_name(given)) << testing::PrintToString(given);
    }
}

// ---- the directory -----------------------------------------------------------------------------

class SpoolTest : public testing::Test {
protected:
    SpoolTest() : m_dir(testing::TempDir() + "SpoolTest." + std::to_string(getpid())) {
        fs::create_directory(m_dir);
    }
    ~SpoolTest() override { fs::remove_all(m_dir); }

    std::string in_dir(std::string const& name) const { return m_dir + "/" + name; }

    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (auto const& entry : fs::directory_iterator(m_dir)) {
            all.push_back(entry.path().filename());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    static std::string content_of(std::string const& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::unique_ptr<CIncomingFile> begin() {
        std::unique_ptr<CIncomingFile> file;
        EXPECT_EQ(KYP_OK, m_spool.begin(file));
        return file;
    }

    std::string m_dir;
    CSpool m_spool;
};

TEST_F(SpoolTest, FileIsHiddenUntilItIsPublished) {
    ASSERT_EQ("", m_spool.open(m_dir));
    auto const file = begin();
    EXPECT_EQ(KYP_OK, file->write("AB", 2));
    EXPECT_EQ(KYP_OK, file->write("C\0D", 3));
    EXPECT_THAT(names(), ElementsAre(".kypserver-part-0"));
    EXPECT_EQ(KYP_OK, file->sync());

    EXPECT_EQ(KYP_OK, file->publish("name"));

    EXPECT_THAT(names(), ElementsAre("name"));
    EXPECT_EQ(std::string("ABC\0D", 5), content_of(in_dir("name")));
}

TEST_F(SpoolTest, FileIsNotForEverybody) {
    ASSERT_EQ("", m_spool.open(m_dir));
    mode_t const before = umask(0);
    begin()->publish("name");
    umask(before);

    struct stat status = {};
    ASSERT_EQ(0, stat(in_dir("name").c_str(), &status));
    EXPECT_EQ(0640U, status.st_mode & 0777U);
}

TEST_F(SpoolTest, FileThatIsNotPublishedIsRemoved) {
    ASSERT_EQ("", m_spool.open(m_dir));
    {
        auto const file = begin();
        file->write("AB", 2);
        ASSERT_EQ(1U, names().size());
    }

    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(SpoolTest, PublishedFileReplacesTheOneOfThatName) {
    ASSERT_EQ("", m_spool.open(m_dir));
    std::ofstream(in_dir("name")) << "old and long";
    auto const file = begin();
    file->write("new", 3);

    EXPECT_EQ(KYP_OK, file->publish("name"));

    EXPECT_EQ("new", content_of(in_dir("name")));
}

TEST_F(SpoolTest, LinkIsReplacedAndNotFollowed) {
    ASSERT_EQ("", m_spool.open(m_dir));
    std::string const outside = m_dir + ".outside";
    std::ofstream(outside) << "outside";
    fs::create_symlink(outside, in_dir("name"));
    auto const file = begin();
    file->write("new", 3);

    EXPECT_EQ(KYP_OK, file->publish("name"));

    EXPECT_EQ("outside", content_of(outside));
    EXPECT_FALSE(fs::is_symlink(in_dir("name")));
    EXPECT_EQ("new", content_of(in_dir("name")));
    fs::remove(outside);
}

TEST_F(SpoolTest, DirectoryOfThatNameIsLeftAlone) {
    ASSERT_EQ("", m_spool.open(m_dir));
    fs::create_directory(in_dir("name"));
    {
        auto const file = begin();
        EXPECT_EQ(KYP_ERR_CREATE_FILE, file->publish("name"));
    }

    EXPECT_THAT(names(), ElementsAre("name"));
    EXPECT_TRUE(fs::is_directory(in_dir("name")));
}

TEST_F(SpoolTest, LinkInPlaceOfAHiddenFileIsNotFollowed) {
    ASSERT_EQ("", m_spool.open(m_dir));
    std::string const outside = m_dir + ".outside";
    fs::create_symlink(outside, in_dir(".kypserver-part-0"));
    auto const file = begin();
    file->write("AB", 2);

    EXPECT_EQ(KYP_OK, file->publish("name"));

    EXPECT_FALSE(fs::exists(outside));
    EXPECT_EQ("AB", content_of(in_dir("name")));
}

TEST_F(SpoolTest, HiddenFilesOfAnEarlierServerAreRemovedAndNothingElse) {
    std::ofstream(in_dir(".kypserver-part-7")) << "half";
    std::ofstream(in_dir(".other")) << "x";
    std::ofstream(in_dir("kept")) << "x";

    ASSERT_EQ("", m_spool.open(m_dir));

    EXPECT_THAT(names(), ElementsAre(".other", "kept"));
}

TEST_F(SpoolTest, SecondServerIsKeptOut) {
    ASSERT_EQ("", m_spool.open(m_dir));
    CSpool second;

    EXPECT_EQ(m_dir + " is used by another server; choose another --spool-dir", second.open(m_dir));
}

TEST_F(SpoolTest, MissingDirectoryIsNotMade) {
    EXPECT_EQ("cannot use the directory " + in_dir("none") +
                  ": No such file or directory; make it, writable for this user, or choose another "
                  "--spool-dir",
              m_spool.open(in_dir("none")));
    EXPECT_FALSE(fs::exists(in_dir("none")));
}

TEST_F(SpoolTest, FileIsNoDirectory) {
    std::ofstream(in_dir("file")) << "x";

    EXPECT_THAT(m_spool.open(in_dir("file")), HasSubstr("Not a directory"));
}

TEST_F(SpoolTest, UsualDirectoryIsMade) {
    EXPECT_EQ("", m_spool.open(kUsualSpool));

    struct stat status = {};
    ASSERT_EQ(0, stat(kUsualSpool, &status));
    EXPECT_EQ(mode_t{S_IFDIR | 0750}, status.st_mode);
}

TEST_F(SpoolTest, TellsItsRoom) {
    ASSERT_EQ("", m_spool.open(m_dir));

    EXPECT_LT(0U, m_spool.room());
}

TEST_F(SpoolTest, RemovedDirectoryTakesNoMoreFiles) {
    ASSERT_EQ("", m_spool.open(m_dir));
    fs::remove_all(m_dir);
    std::unique_ptr<CIncomingFile> file;

    testing::internal::CaptureStderr();
    EXPECT_EQ(KYP_ERR_CREATE_FILE, m_spool.begin(file));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("a file cannot be made: No such file or directory"));
    EXPECT_EQ(nullptr, file);
}

TEST_F(SpoolTest, LimitOfTheSystemIsAFailedWrite) {
    ASSERT_EQ("", m_spool.open(m_dir));
    auto const file = begin();
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit const limit = {4, before.rlim_max};
    auto* const handler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    testing::internal::CaptureStderr();

    int const status = file->write("12345678", 8);

    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, handler);
    (void)testing::internal::GetCapturedStderr();  // cut by the limit, too
    EXPECT_EQ(KYP_ERR_WRITE_FILE, status);
}

TEST_F(SpoolTest, FullDiskHasAStatusOfItsOwn) {
    CIncomingFile file(-1, open("/dev/full", O_WRONLY | O_CLOEXEC), "");
    testing::internal::CaptureStderr();

    EXPECT_EQ(KYP_ERR_DISK_FULL, file.write("AB", 2));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("a file cannot be written: No space left on device"));
}

TEST_F(SpoolTest, LargeFilesAreWrittenWhole) {
    ASSERT_EQ("", m_spool.open(m_dir));
    std::string const block(700000, 'x');
    auto const file = begin();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(KYP_OK, file->write(block.data(), block.size()));
    EXPECT_EQ(KYP_OK, file->sync());
    EXPECT_EQ(KYP_OK, file->publish("large"));

    EXPECT_EQ(4 * block.size(), fs::file_size(in_dir("large")));
}

}  // namespace
}  // namespace kypserver
