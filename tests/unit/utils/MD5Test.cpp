#include "utils/MD5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr char kZeros[] = "00000000000000000000000000000000";
constexpr char kOfAbc[] = "900150983cd24fb0d6963f7d28e17f72";

std::string hash(std::string text) {
    MD5 md5;
    md5.GenerateMD5(reinterpret_cast<unsigned char*>(&text[0]), static_cast<int>(text.size()));
    return md5.ToString();
}

TEST(MD5Test, HashesTheKnownTexts) {
    struct Row {
        char const* text;
        char const* digest;
    };
    constexpr Row kRows[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", kOfAbc},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(row.digest, hash(row.text));
    }
}

TEST(MD5Test, PadsEveryLengthAroundABlock) {
    struct Row {
        size_t length;
        char const* digest;
    };
    constexpr Row kRows[] = {
        {55, "04364420e25c512fd958a70738aa8f72"},   {56, "668a72d5ba17f08e62dabcafad6db14b"},
        {57, "693037871c4a9d3d8685018905cb530a"},   {63, "7dc2ca208106a2f703567bdff99d8981"},
        {64, "c1bb4f81d892b2d57947682aeb252456"},   {65, "1bc932052302d074bdec39795fe00cf6"},
        {119, "ab347a5f68c8a443cfcddc633f12c24f"},  {120, "fb98667f98096de92620b64f46e1c5b5"},
        {121, "e8bb0ccd83750100b37f4831cd5d7ee2"},  {128, "d69cb61a6ee87200676eb0d4b90edbcb"},
        {1000, "398533d48111e9f664b1f64cb10c4b63"},
    };
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.length);
        EXPECT_EQ(row.digest, hash(std::string(row.length, 'x')));
    }
}

TEST(MD5Test, PiecesOfAnySizeGiveTheSameHash) {
    std::string text(1000, 'x');
    for (size_t const piece : {1u, 7u, 63u, 64u, 65u, 500u}) {
        SCOPED_TRACE(piece);
        MD5 md5;
        MD5::md5_context context;
        md5.md5_starts(&context);
        for (size_t at = 0; at < text.size(); at += piece) {
            auto* const bytes = reinterpret_cast<unsigned char*>(&text[at]);
            md5.md5_update(&context, bytes, std::min(piece, text.size() - at));
        }
        md5.md5_finish(&context, md5.m_digest);

        EXPECT_EQ("398533d48111e9f664b1f64cb10c4b63", md5.ToString());
    }
}

TEST(MD5Test, ANewDigestIsAllZero) {
    EXPECT_EQ(kZeros, MD5().ToString());
}

TEST(MD5Test, AnEmptyTextGivesAnAllZeroDigest) {
    unsigned char const zeros[16] = {};
    MD5 md5("");

    EXPECT_EQ(0, memcmp(zeros, md5.m_digest, 16));
    EXPECT_EQ(kZeros, md5.ToString());
    EXPECT_EQ(kZeros, MD5(static_cast<char const*>(nullptr)).ToString());
}

TEST(MD5Test, AWrittenDigestReadsBack) {
    EXPECT_EQ(kOfAbc, MD5(kOfAbc).ToString());
}

TEST(MD5Test, KeepsUpperCaseDigitsFromBeingRead) {
    EXPECT_EQ("001090090000000000000000000a0a0f",
              MD5("FF109009000000000000000000aFaF0f").ToString());
}

TEST(MD5Test, AShortTextFillsTheFrontOnly) {
    EXPECT_EQ("ab0c0000000000000000000000000000", MD5("abc").ToString());
}

TEST(MD5Test, ALongTextIsReadUpTo32Characters) {
    EXPECT_EQ(kOfAbc, MD5((std::string(kOfAbc) + "ff").c_str()).ToString());
}

TEST(MD5Test, CopiesSixteenBytes) {
    unsigned long digest[2] = {0x0706050403020100, 0x0f0e0d0c0b0a0908};

    EXPECT_EQ("000102030405060708090a0b0c0d0e0f", MD5(digest).ToString());
}

TEST(MD5Test, PlusIsTheExclusiveOr) {
    MD5 left("0f0f0000000000000000000000000001");
    MD5 right("ff00000000000000000000000000ff01");

    EXPECT_EQ("f00f000000000000000000000000ff00", (left + right).ToString());
    EXPECT_EQ(kZeros, (left + left).ToString());
}

TEST(MD5Test, ComparesAllSixteenBytes) {
    MD5 digest(kOfAbc);

    EXPECT_TRUE(digest == MD5(kOfAbc));
    EXPECT_FALSE(digest == MD5("900150983cd24fb0d6963f7d28e17f73"));
    EXPECT_FALSE(digest == MD5("800150983cd24fb0d6963f7d28e17f72"));
}

TEST(HttoiTest, ReadsLowerCaseHexUpToTheFirstOtherCharacter) {
    EXPECT_EQ(255, _httoi("0Xff"));
    EXPECT_EQ(0x1a, _httoi("1ag2"));
    EXPECT_EQ(0x7fffffff, _httoi("7fffffff"));
    EXPECT_EQ(-1, _httoi("ffffffff"));
    EXPECT_EQ(0, _httoi(""));
    EXPECT_EQ(0, _httoi("0X"));
}

TEST(HttoiTest, KeepsTheUsualPrefixAndUpperCaseFromCounting) {
    EXPECT_EQ(0, _httoi("FF"));
    EXPECT_EQ(0, _httoi("0xff"));
    EXPECT_EQ(10, _httoi("aF"));
}

}  // namespace
