#include "kypcomm/KypDLL.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "support/LogCapture.h"

namespace {

constexpr char kLibrary[] = "libm.so.6";
constexpr char kStranger[] = "libthread_db.so.1";  // nothing in this process uses it

bool is_loaded(char const* library) {
    void* const handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) return false;
    dlclose(handle);
    return true;
}

TEST(KypDLLTest, IsClosedAtFirst) {
    KYP_DLL dll;

    EXPECT_FALSE(dll.isopen());
    EXPECT_EQ(nullptr, dll.m_handle);
}

TEST(KypDLLTest, GivesTheSymbolsOfAnOpenLibrary) {
    KYP_DLL dll;

    ASSERT_TRUE(dll.open(kLibrary));

    EXPECT_TRUE(dll.isopen());
    auto* const cosine = reinterpret_cast<double (*)(double)>(dll.symbol("cos"));
    ASSERT_NE(nullptr, cosine);
    EXPECT_EQ(1.0, cosine(0.0));
}

TEST(KypDLLTest, AMissingLibraryIsLogged) {
    LogCapture capture;
    KYP_DLL dll;

    EXPECT_FALSE(dll.open("/no/such.so"));

    EXPECT_FALSE(dll.isopen());
    EXPECT_EQ(1, capture.count("ERROR",
                               "Failed to load library:/no/such.so,error:/no/such.so: cannot open "
                               "shared object file: No such file or directory"));
}

TEST(KypDLLTest, AMissingSymbolIsLogged) {
    LogCapture capture;
    KYP_DLL dll;
    ASSERT_TRUE(dll.open(kLibrary));

    EXPECT_EQ(nullptr, dll.symbol("no_such_symbol"));

    EXPECT_EQ(1, capture.count_containing("Failed to find symbol:no_such_symbol,error:"));
    EXPECT_EQ(1, capture.count_containing("[libkyp,ERROR,"));
    EXPECT_EQ(1, capture.count_containing("undefined symbol: no_such_symbol"));
}

TEST(KypDLLTest, NoLibraryMeansNoSymbol) {
    LogCapture capture;
    KYP_DLL dll;

    EXPECT_EQ(nullptr, dll.symbol("cos"));

    EXPECT_EQ(1, capture.count("ERROR", "Library NOT Load,handle is nullptr"));
}

TEST(KypDLLTest, CloseForgetsTheLibrary) {
    KYP_DLL dll;
    ASSERT_TRUE(dll.open(kLibrary));

    EXPECT_EQ(0, dll.close());

    EXPECT_FALSE(dll.isopen());
    EXPECT_EQ(0, dll.close());
}

TEST(KypDLLTest, CloseUnloadsTheLibrary) {
    KYP_DLL dll;
    ASSERT_FALSE(is_loaded(kStranger));
    ASSERT_TRUE(dll.open(kStranger));
    ASSERT_TRUE(is_loaded(kStranger));

    dll.close();

    EXPECT_FALSE(is_loaded(kStranger));
}

TEST(KypDLLTest, TheDestructorUnloadsTheLibrary) {
    {
        KYP_DLL dll;
        ASSERT_TRUE(dll.open(kStranger));
    }

    EXPECT_FALSE(is_loaded(kStranger));
}

TEST(KypDLLTest, AClosedLibraryCanBeOpenedAgain) {
    KYP_DLL dll;
    ASSERT_TRUE(dll.open(kLibrary));
    dll.close();

    EXPECT_TRUE(dll.open(kLibrary));
}

TEST(KypDLLTest, AFailedOpenLeavesNothingOpen) {
    KYP_DLL dll;
    ASSERT_TRUE(dll.open(kLibrary));

    EXPECT_FALSE(dll.open("/no/such.so"));

    EXPECT_FALSE(dll.isopen());
}

}  // namespace
