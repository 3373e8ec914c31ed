#include "utils/IniFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace {

using utility::IniFile;
using Tokens = std::vector<std::string>;

class IniFileTest : public ::testing::Test {
protected:
    IniFileTest()
        : m_path(::testing::TempDir() + "IniFileTest." + std::to_string(getpid()) + ".ini"),
          m_ini(m_path) {}
    ~IniFileTest() override { std::filesystem::remove(m_path); }

    void load(std::string const& content) {
        std::ofstream(m_path, std::ios::binary | std::ios::trunc) << content;
        ASSERT_TRUE(m_ini.Load());
    }

    // Makes `value` the value of key "k" in section "s".
    void load_value(std::string const& value) { load("[s]\nk=" + value + "\n"); }

    std::string text(std::string const& section, std::string const& key) {
        return m_ini.GetString(section, key, "missing");
    }

    std::string m_path;
    IniFile m_ini;
};

TEST_F(IniFileTest, ConstructionStoresThePathAndReadsNothing) {
    load("[s]\nk=1\n");
    IniFile const other(m_path);

    EXPECT_EQ(m_path, other.fileName);
    EXPECT_TRUE(other.sections.empty());
}

TEST_F(IniFileTest, AMissingFileLeavesEveryDefault) {
    EXPECT_FALSE(m_ini.Load());

    EXPECT_EQ("missing", text("s", "k"));
    EXPECT_EQ(-1, m_ini.GetInt16("s", "k", -1));
    EXPECT_EQ(2, m_ini.GetUInt16("s", "k", 2));
    EXPECT_EQ(-3, m_ini.GetInt32("s", "k", -3));
    EXPECT_EQ(4u, m_ini.GetUInt32("s", "k", 4));
    EXPECT_TRUE(m_ini.GetBool("s", "k", true));
    EXPECT_EQ(1.5f, m_ini.GetFloat("s", "k", 1.5f));
    EXPECT_EQ(Tokens(), m_ini.GetStringList("s", "k"));
}

TEST_F(IniFileTest, AMissingKeyGivesTheDefault) {
    load("[s]\nk=1\n");

    EXPECT_EQ("missing", text("s", "other"));
    EXPECT_EQ(5, m_ini.GetInt32("s", "other", 5));
    EXPECT_EQ(5, m_ini.GetInt32("other", "k", 5));
    EXPECT_TRUE(m_ini.GetBool("s", "other", true));
    EXPECT_EQ(1u, m_ini.sections.size());
}

TEST_F(IniFileTest, AFolderLoadsAsAnEmptyFile) {
    IniFile folder(::testing::TempDir());

    EXPECT_TRUE(folder.Load());
    EXPECT_TRUE(folder.sections.empty());
}

TEST_F(IniFileTest, ReadsSectionsAndKeys) {
    load("[one]\na=1\nb = two words \n\n[two]\na=3");

    EXPECT_EQ("1", text("one", "a"));
    EXPECT_EQ("two words", text("one", "b"));
    EXPECT_EQ("3", text("two", "a"));
    EXPECT_EQ("missing", text("two", "b"));
    EXPECT_EQ(2u, m_ini.sections.size());
}

TEST_F(IniFileTest, NamesAreComparedByBytes) {
    load("[S]\nK=1\n");

    EXPECT_EQ("1", text("S", "K"));
    EXPECT_EQ("missing", text("s", "K"));
    EXPECT_EQ("missing", text("S", "k"));
}

TEST_F(IniFileTest, StripsCarriageReturnsAndBlanks) {
    load("\t[s] \r\n \vk\t=\f1 \r\n");

    EXPECT_EQ("1", text("s", "k"));
}

TEST_F(IniFileTest, BlocksOfOneSectionMerge) {
    load("[sec]\na=1\nb=1\n[other]\na=9\n[ sec ]\nb=2\nc=3\n");

    EXPECT_EQ("1", text("sec", "a"));
    EXPECT_EQ("2", text("sec", "b"));
    EXPECT_EQ("3", text("sec", "c"));
    EXPECT_EQ(2u, m_ini.sections.size());
}

TEST_F(IniFileTest, ASectionWithoutKeysIsThereAndEmpty) {
    load("[s]\n");

    ASSERT_EQ(1u, m_ini.sections.count("s"));
    EXPECT_TRUE(m_ini.sections["s"]->empty());
}

TEST_F(IniFileTest, TheLaterValueOfAKeyStays) {
    load("[s]\nk=1\nk=2\n");

    EXPECT_EQ("2", text("s", "k"));
}

TEST_F(IniFileTest, AValueMayHoldEqualsSigns) {
    load("[s]\na = b = c\n[x=1\n");

    EXPECT_EQ("b = c", text("s", "a"));
    EXPECT_EQ("1", text("s", "[x"));
}

TEST_F(IniFileTest, AnEmptyKeyOrACommentSetsNothing) {
    load("[s]\n#a=1\n;a=1\n  # a=1\n=1\n \t=1\na#b=1\n");

    EXPECT_EQ(1u, m_ini.sections["s"]->size());
    EXPECT_EQ("1", text("s", "a#b"));
}

TEST_F(IniFileTest, OtherLinesAreSkipped) {
    load("[s]\nno key\n[]\n[\n]\n\n[open\nk=1\n");

    EXPECT_EQ(1u, m_ini.sections.size());
    EXPECT_EQ(1u, m_ini.sections["s"]->size());
    EXPECT_EQ("1", text("s", "k"));
}

TEST_F(IniFileTest, KeepsACommentBehindAValueAsItsPart) {
    load("[s]\na=1 # one\n");

    EXPECT_EQ("1 # one", text("s", "a"));
}

TEST_F(IniFileTest, ALineInBracketsIsASectionAlsoWithAnEqualsSign) {
    load("[a=b]\nk=1\n");

    EXPECT_EQ("1", text("a=b", "k"));
}

TEST_F(IniFileTest, AKeyInFrontOfTheFirstSectionIsLoggedAndLeftOut) {
    LogCapture capture;

    load("#c=1\nk=1\n[s]\na=2\n");

    EXPECT_EQ(1, capture.count("WARNING",
                               "ini file:" + m_path + ",key:k stands before the first section"));
    EXPECT_EQ(1, capture.count_containing("stands before"));
    EXPECT_EQ("2", text("s", "a"));
    EXPECT_EQ(1u, m_ini.sections.size());
}

TEST_F(IniFileTest, LoadAddsToWhatIsThere) {
    load("[s]\na=1\nb=1\n");
    load("[s]\nb=2\n[t]\nc=3\n");

    EXPECT_EQ("1", text("s", "a"));
    EXPECT_EQ("2", text("s", "b"));
    EXPECT_EQ("3", text("t", "c"));
}

TEST_F(IniFileTest, ASecondLoadBeginsWithoutASection) {
    load("[s]\na=1\n");
    LogCapture capture;
    load("a=2\n");

    EXPECT_EQ("1", text("s", "a"));
    EXPECT_EQ(1, capture.count_containing("stands before the first section"));
}

TEST_F(IniFileTest, KeepsAnEmptyValueInPlaceOfEveryDefault) {
    load_value("");

    EXPECT_EQ("", text("s", "k"));
    EXPECT_EQ(0, m_ini.GetInt16("s", "k", 5));
    EXPECT_EQ(0, m_ini.GetUInt16("s", "k", 5));
    EXPECT_EQ(0, m_ini.GetInt32("s", "k", 5));
    EXPECT_EQ(0u, m_ini.GetUInt32("s", "k", 5));
    EXPECT_FALSE(m_ini.GetBool("s", "k", true));
    EXPECT_EQ(0.0f, m_ini.GetFloat("s", "k", 5));
    EXPECT_EQ(Tokens(), m_ini.GetStringList("s", "k"));
}

TEST_F(IniFileTest, IgnoresTextBehindANumber) {
    load_value("12abc");

    EXPECT_EQ(12, m_ini.GetInt16("s", "k", 5));
    EXPECT_EQ(12, m_ini.GetUInt16("s", "k", 5));
    EXPECT_EQ(12, m_ini.GetInt32("s", "k", 5));
    EXPECT_EQ(12u, m_ini.GetUInt32("s", "k", 5));
}

TEST_F(IniFileTest, KeepsZeroForAValueThatIsNoNumber) {
    load_value("abc");

    EXPECT_EQ(0, m_ini.GetInt16("s", "k", 5));
    EXPECT_EQ(0, m_ini.GetUInt16("s", "k", 5));
    EXPECT_EQ(0, m_ini.GetInt32("s", "k", 5));
    EXPECT_EQ(0u, m_ini.GetUInt32("s", "k", 5));
    EXPECT_EQ(0.0f, m_ini.GetFloat("s", "k", 5));
}

TEST_F(IniFileTest, ANumberOutOfRangeGivesTheLimit) {
    load("[s]\nhigh=99999999999\nlow=-99999999999\n");

    EXPECT_EQ(std::numeric_limits<short>::max(), m_ini.GetInt16("s", "high", 0));
    EXPECT_EQ(std::numeric_limits<short>::min(), m_ini.GetInt16("s", "low", 0));
    EXPECT_EQ(std::numeric_limits<unsigned short>::max(), m_ini.GetUInt16("s", "high", 0));
    EXPECT_EQ(std::numeric_limits<int>::max(), m_ini.GetInt32("s", "high", 0));
    EXPECT_EQ(std::numeric_limits<int>::min(), m_ini.GetInt32("s", "low", 0));
    EXPECT_EQ(std::numeric_limits<unsigned int>::max(), m_ini.GetUInt32("s", "high", 0));
}

TEST_F(IniFileTest, ReadsNegativeNumbers) {
    load_value("-7");

    EXPECT_EQ(-7, m_ini.GetInt16("s", "k", 0));
    EXPECT_EQ(-7, m_ini.GetInt32("s", "k", 0));
    EXPECT_EQ(-7.0f, m_ini.GetFloat("s", "k", 0));
}

TEST_F(IniFileTest, TrueInAnyCaseAndOneAreTrue) {
    load("[s]\na=true\nb=TRUE\nc=True\nd=1\n");

    for (char const* key : {"a", "b", "c", "d"}) EXPECT_TRUE(m_ini.GetBool("s", key, false));
}

TEST_F(IniFileTest, KeepsEveryOtherTextFalseWhateverTheDefault) {
    load("[s]\na=yes\nb=on\nc=2\nd=true x\ne=false\nf=01\n");

    for (char const* key : {"a", "b", "c", "d", "e", "f"}) {
        EXPECT_FALSE(m_ini.GetBool("s", key, true));
    }
}

TEST_F(IniFileTest, ReadsFloats) {
    load("[s]\na=1.25\nb=-2e3x\n");

    EXPECT_EQ(1.25f, m_ini.GetFloat("s", "a", 0));
    EXPECT_EQ(-2000.0f, m_ini.GetFloat("s", "b", 0));
}

TEST_F(IniFileTest, KeepsSixDigitsOfAFloatsDefault) {
    EXPECT_EQ(3.14159f, m_ini.GetFloat("s", "k", 3.14159265f));
    EXPECT_EQ(1.23457e8f, m_ini.GetFloat("s", "k", 123456789.0f));
}

TEST_F(IniFileTest, SplitsAListAtCommasBlanksAndTabs) {
    load_value("a, b\tc");
    EXPECT_EQ((Tokens{"a", "b", "c"}), m_ini.GetStringList("s", "k"));
    load_value("a , \t,b");
    EXPECT_EQ((Tokens{"a", "b"}), m_ini.GetStringList("s", "k"));
    load_value("single");
    EXPECT_EQ((Tokens{"single"}), m_ini.GetStringList("s", "k"));
}

TEST_F(IniFileTest, KeepsAnEmptyFirstTokenBeforeASeparatorAndNoneBehindTheLast) {
    load_value(",a");
    EXPECT_EQ((Tokens{"", "a"}), m_ini.GetStringList("s", "k"));
    load_value("a,");
    EXPECT_EQ((Tokens{"a"}), m_ini.GetStringList("s", "k"));
    load_value(", ,");
    EXPECT_EQ((Tokens{""}), m_ini.GetStringList("s", "k"));
}

TEST_F(IniFileTest, TrimsWhiteSpace) {
    EXPECT_EQ("a b \r", m_ini.trimLeft(" \t\n\v\f\ra b \r"));
    EXPECT_EQ(" \ta b", m_ini.trimRight(" \ta b \t\n\v\f\r"));
    EXPECT_EQ("a b", m_ini.trim(" \ta b \r\n"));
    EXPECT_EQ("", m_ini.trim(" \t\n"));
    EXPECT_EQ("", m_ini.trimLeft(""));
    EXPECT_EQ("", m_ini.trimRight(""));
    EXPECT_EQ("\xa0\xff", m_ini.trim(" \xa0\xff "));
}

TEST_F(IniFileTest, TellsASectionLine) {
    std::string name;

    EXPECT_TRUE(m_ini.isSection(" [ a b ]\r", name));
    EXPECT_EQ("a b", name);
    EXPECT_TRUE(m_ini.isSection("[x]", name));
    EXPECT_EQ("x", name);
    EXPECT_TRUE(m_ini.isSection("[[y]]", name));
    EXPECT_EQ("[y]", name);
    EXPECT_TRUE(m_ini.isSection("[ ]", name));
    EXPECT_EQ("", name);
    EXPECT_FALSE(m_ini.isSection("[]", name));
    EXPECT_FALSE(m_ini.isSection("", name));
    EXPECT_FALSE(m_ini.isSection("[a", name));
    EXPECT_FALSE(m_ini.isSection("a]", name));
    EXPECT_FALSE(m_ini.isSection("[a] ; comment", name));
}

}  // namespace
