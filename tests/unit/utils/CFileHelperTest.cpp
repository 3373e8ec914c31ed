#include "utils/CFileHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

class CFileHelperTest : public ::testing::Test {
protected:
    CFileHelperTest()
        : m_dir(::testing::TempDir() + "CFileHelperTest." + std::to_string(getpid())) {
        fs::create_directory(m_dir);
    }
    ~CFileHelperTest() override { fs::remove_all(m_dir); }

    std::string in_dir(char const* name) const { return m_dir + "/" + name; }

    static unsigned int mode_of(std::string const& path) {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777u : 0u;
    }

    std::string m_dir;
};

TEST_F(CFileHelperTest, FindsFilesAndDirectories) {
    std::ofstream(in_dir("file")) << "x";

    EXPECT_TRUE(CFileHelper::IsFileExist(in_dir("file").c_str()));
    EXPECT_TRUE(CFileHelper::IsFileExist(m_dir.c_str()));
    EXPECT_FALSE(CFileHelper::IsFileExist(in_dir("none").c_str()));
    EXPECT_FALSE(CFileHelper::IsFileExist(""));
    EXPECT_FALSE(CFileHelper::IsFileExist(nullptr));
}

TEST_F(CFileHelperTest, MakesAFileForItsOwnerAlone) {
    std::string const path = in_dir("file");

    EXPECT_TRUE(CFileHelper::CreateGeneralFile(path.c_str()));

    EXPECT_EQ(0600u, mode_of(path));
    EXPECT_EQ(0u, fs::file_size(path));
}

TEST_F(CFileHelperTest, EmptiesAFileThatIsThere) {
    std::string const path = in_dir("file");
    std::ofstream(path) << "content";

    EXPECT_TRUE(CFileHelper::CreateGeneralFile(path.c_str()));

    EXPECT_EQ(0u, fs::file_size(path));
}

TEST_F(CFileHelperTest, MakesNoFileWithoutADirectory) {
    EXPECT_FALSE(CFileHelper::CreateGeneralFile(in_dir("none/file").c_str()));
    EXPECT_FALSE(CFileHelper::CreateGeneralFile(m_dir.c_str()));
    EXPECT_FALSE(CFileHelper::CreateGeneralFile(nullptr));
}

TEST_F(CFileHelperTest, MakesADirectoryThatAllMayRead) {
    mode_t const before = umask(0);

    EXPECT_TRUE(CFileHelper::CreateDir(in_dir("dir").c_str()));

    EXPECT_EQ(0755u, mode_of(in_dir("dir")));
    umask(before);
}

TEST_F(CFileHelperTest, AnExistingDirectoryGivesFalseAndIsLeftAlone) {
    ASSERT_TRUE(CFileHelper::CreateDir(in_dir("dir/").c_str()));
    std::ofstream(in_dir("dir/file")) << "x";

    EXPECT_FALSE(CFileHelper::CreateDir(in_dir("dir/").c_str()));

    EXPECT_TRUE(fs::exists(in_dir("dir/file")));
}

TEST_F(CFileHelperTest, MakesOneLevelOnly) {
    EXPECT_FALSE(CFileHelper::CreateDir(in_dir("a/b").c_str()));
    EXPECT_FALSE(fs::exists(in_dir("a")));
    EXPECT_FALSE(CFileHelper::CreateDir(nullptr));
}

}  // namespace
