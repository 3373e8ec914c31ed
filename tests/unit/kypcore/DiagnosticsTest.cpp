#include "kypcore/Diagnostics.h"

#include <gtest/gtest.h>

namespace {

TEST(DiagnosticsTest, BeginsWithNothing) {
    CDiagnostics diagnostics;

    EXPECT_EQ(nullptr, diagnostics.m_pDiagnostics);
}

TEST(DiagnosticsTest, ResetForgetsThePointer) {
    CDiagnostics diagnostics;
    diagnostics.m_pDiagnostics = &diagnostics;

    diagnostics.reset();
    EXPECT_EQ(nullptr, diagnostics.m_pDiagnostics);
}

TEST(DiagnosticsTest, IsAsLargeAsOnePointer) {
    EXPECT_EQ(sizeof(void*), sizeof(CDiagnostics));
}

}  // namespace
