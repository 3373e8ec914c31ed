#include "kyp/Progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kyp/Table.h"

namespace {

using namespace kyptool;
using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr uint64_t kMiB = 1 << 20;

TEST(ProgressTest, TheLineTellsHowFarHowFastAndHowLong) {
    EXPECT_EQ("image.bin: 40%, 8.0 MiB of 20.0 MiB, 4.0 MiB/s, 0:03 left",
              progress_line("image.bin", 8 * kMiB, 20 * kMiB, 2s));
}

TEST(ProgressTest, NothingDoneSaysNothingOfTheEnd) {
    EXPECT_EQ("x: 0%, 0 B of 1.0 MiB, 0 B/s, -:-- left", progress_line("x", 0, kMiB, 2s));
    EXPECT_EQ("x: 0%, 0 B of 1.0 MiB, 0 B/s, -:-- left", progress_line("x", 0, kMiB, 0s));
}

TEST(ProgressTest, TheBarGrowsAndStaysInItsPlace) {
    std::string const none = progress_bar("image.bin", 0, 20 * kMiB, 0s, 120);
    std::string const half = progress_bar("image.bin", 10 * kMiB, 20 * kMiB, 2s, 120);
    std::string const all = progress_bar("image.bin", 20 * kMiB, 20 * kMiB, 4s, 120);

    EXPECT_THAT(none, HasSubstr("image.bin   0% [                    "));
    EXPECT_THAT(half, HasSubstr("image.bin  50% [===================>                    ]"));
    EXPECT_THAT(half, HasSubstr("10.0 MiB of 20.0 MiB"));
    EXPECT_THAT(half, HasSubstr("5.0 MiB/s  0:02 left"));
    EXPECT_THAT(all, HasSubstr("image.bin 100% [========================================]"));
    EXPECT_EQ(none.size(), half.size());
    EXPECT_EQ(half.size(), all.size());
}

TEST(ProgressTest, TheBarFitsIntoNarrowTerminals) {
    for (size_t width = 20; width < 130; ++width) {
        SCOPED_TRACE(width);
        std::string const bar = progress_bar("image.bin", 7 * kMiB, 20 * kMiB, 2s, width);
        EXPECT_LT(width_of(bar), width);
        EXPECT_THAT(bar, HasSubstr("35%"));
    }
}

}  // namespace
