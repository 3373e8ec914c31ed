#include "kypcomm/protocol/Message.h"

#include <gtest/gtest.h>

#include <utility>

#include "support/FrameBytes.h"

namespace {

std::string content(Message const& m) {
    return hex(m.data, m.length);
}

TEST(MessageTest, StartsWithoutBytes) {
    const Message m;

    EXPECT_EQ(0u, m.length);
    EXPECT_EQ(nullptr, m.data);
}

TEST(MessageTest, CopiesTheBlockItIsMadeFrom) {
    char block[] = "AB";

    const Message m(block, 2);
    block[0] = 'X';

    EXPECT_EQ(2u, m.length);
    EXPECT_EQ("41 42", content(m));
}

TEST(MessageTest, CopiesNothingFromNowhere) {
    const Message m(nullptr, 0);

    EXPECT_EQ(0u, m.length);
}

TEST(MessageTest, GivesEachCopyItsOwnBytes) {
    const Message first("AB", 2);

    Message second(first);
    Message third;
    third = second;
    second.data[0] = 'X';

    EXPECT_EQ("41 42", content(first));
    EXPECT_EQ("58 42", content(second));
    EXPECT_EQ("41 42", content(third));
}

TEST(MessageTest, MovesItsBytes) {
    Message first("AB", 2);
    unsigned char* const block = first.data;

    Message second(std::move(first));
    EXPECT_EQ(block, second.data);

    Message third("CDE", 3);
    third = std::move(second);
    EXPECT_EQ(block, third.data);
    EXPECT_EQ(2u, third.length);
}

}  // namespace
