#include "utils/CCodingConv.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

TEST(CCodingConvTest, AsciiStaysAsItIs) {
    EXPECT_EQ("kyp 0.3.1~", CCodingConv::AnsiToUtf8("kyp 0.3.1~", 10));
}

TEST(CCodingConvTest, ConvertsNoMoreThanTheLength) {
    EXPECT_EQ("kyp", CCodingConv::AnsiToUtf8("kypserver", 3));
    EXPECT_EQ("", CCodingConv::AnsiToUtf8("kypserver", 0));
}

TEST(CCodingConvTest, EachCallIsLogged) {
    LogCapture capture;

    CCodingConv::AnsiToUtf8("kypserver", 3);

    EXPECT_EQ(1, capture.count("DEBUG", "buf:kypserver,len:3"));
}

TEST(CCodingConvTest, BytesOutsideAsciiFail) {
    LogCapture capture;

    EXPECT_EQ("", CCodingConv::AnsiToUtf8("a\xe4", 2));

    EXPECT_EQ(1, capture.count("ERROR", std::string("iconv:") + strerror(EILSEQ)));
}

TEST(CCodingConvTest, ANegativeLengthFailsAsTooLarge) {
    LogCapture capture;

    EXPECT_EQ("", CCodingConv::AnsiToUtf8("a", -1));

    EXPECT_EQ(1, capture.count("ERROR", std::string("malloc size:-4 fail,") + strerror(ENOMEM)));
}

}  // namespace
