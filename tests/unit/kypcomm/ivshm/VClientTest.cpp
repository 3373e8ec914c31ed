#include "kypcomm/ivshm/VClient.h"

#include <gtest/gtest.h>

namespace {

TEST(VClientTest, IsClosedAtFirst) {
    VClient client;

    EXPECT_FALSE(client.IsOpen());
    EXPECT_EQ(0, client.m_id);
}

TEST(VClientTest, OpensUnderAnIdAndGivesItBack) {
    VClient client;

    EXPECT_EQ(32, client.Open(32));
    EXPECT_TRUE(client.IsOpen());
    EXPECT_EQ(32, client.m_id);
}

TEST(VClientTest, ClosesAndOpensAgain) {
    VClient client;
    client.Open(7);

    client.Close();

    EXPECT_FALSE(client.IsOpen());
    EXPECT_EQ(0, client.m_id);
    EXPECT_EQ(8, client.Open(8));
}

}  // namespace
