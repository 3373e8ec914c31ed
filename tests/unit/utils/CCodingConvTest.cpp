#include "utils/CCodingConv.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

bool s_refuseConversion = false;  // iconv_open() fails
int s_openConversions = 0;        // opened and not closed again

template <typename Function>
Function next_definition(char const* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

iconv_t iconv_open(char const* to, char const* from) {
    if (s_refuseConversion) {
        errno = EMFILE;
        return reinterpret_cast<iconv_t>(-1);
    }
    iconv_t const descriptor = next_definition<decltype(&iconv_open)>("iconv_open")(to, from);
    if (descriptor != reinterpret_cast<iconv_t>(-1)) ++s_openConversions;
    return descriptor;
}

int iconv_close(iconv_t descriptor) {
    --s_openConversions;
    return next_definition<decltype(&iconv_close)>("iconv_close")(descriptor);
}

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

TEST(CCodingConvTest, ARefusedConversionIsLogged) {
    LogCapture capture;
    s_refuseConversion = true;

    EXPECT_EQ("", CCodingConv::AnsiToUtf8("a", 1));

    s_refuseConversion = false;
    EXPECT_EQ(1, capture.count("DEBUG", "buf:a,len:1"));
    EXPECT_EQ(1, capture.count("ERROR", std::string("iconv_open fail,") + strerror(EMFILE)));
}

TEST(CCodingConvTest, EveryRoadClosesTheDescriptor) {
    s_openConversions = 0;

    CCodingConv::AnsiToUtf8("a", 1);
    EXPECT_EQ(0, s_openConversions);
    CCodingConv::AnsiToUtf8("\xe4", 1);
    EXPECT_EQ(0, s_openConversions);
    CCodingConv::AnsiToUtf8("a", -1);
    EXPECT_EQ(0, s_openConversions);
}

}  // namespace
