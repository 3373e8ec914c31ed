#include "kyp/Samples.h"

#include <gtest/gtest.h>

namespace {

using namespace kyptool;
using namespace std::chrono_literals;

TEST(SamplesTest, NothingIsZero) {
    Summary const summary = CSamples().summary();

    EXPECT_EQ(0, summary.min);
    EXPECT_EQ(0, summary.median);
    EXPECT_EQ(0, summary.p99);
    EXPECT_EQ(0, summary.max);
}

TEST(SamplesTest, OneSampleIsAllOfIt) {
    CSamples samples;
    samples.add(1500us);
    Summary const summary = samples.summary();

    EXPECT_DOUBLE_EQ(1.5, summary.min);
    EXPECT_DOUBLE_EQ(1.5, summary.median);
    EXPECT_DOUBLE_EQ(1.5, summary.p99);
    EXPECT_DOUBLE_EQ(1.5, summary.max);
}

TEST(SamplesTest, PercentilesAreSamples) {
    CSamples samples;
    for (int i = 200; i > 0; --i) samples.add(std::chrono::milliseconds(i));
    Summary const summary = samples.summary();

    EXPECT_DOUBLE_EQ(1, summary.min);
    EXPECT_DOUBLE_EQ(100, summary.median);
    EXPECT_DOUBLE_EQ(198, summary.p99);
    EXPECT_DOUBLE_EQ(200, summary.max);
}

TEST(SamplesTest, TakesTheSamplesOfOthers) {
    CSamples one;
    CSamples two;
    one.add(1ms);
    two.add(3ms);
    one.add(two);

    EXPECT_EQ(2u, one.count());
    EXPECT_DOUBLE_EQ(3, one.summary().max);
}

TEST(SamplesTest, RoundsInJson) {
    CSamples samples;
    samples.add(1234567ns);
    Json object;
    add_summary(object, samples.summary());

    EXPECT_EQ(R"({"min_ms":1.235,"median_ms":1.235,"p99_ms":1.235,"max_ms":1.235})", object.dump());
}

}  // namespace
