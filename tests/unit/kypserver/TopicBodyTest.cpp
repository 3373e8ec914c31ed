#include "kypserver/TopicBody.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/FrameBytes.h"

namespace kypserver {
namespace {

// Reads from a block of exactly this size, so that the address sanitizer sees a byte too many.
bool read(Bytes const& bytes, TopicBody& body) {
    static std::unique_ptr<char[]> block;
    block = std::make_unique<char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block.get());
    return read_topic_body(block.get(), bytes.size(), body);
}

bool is_body(Bytes const& bytes) {
    TopicBody body;
    return read(bytes, body);
}

// A body whose lengths say what they want.
Bytes lying_body(uint64_t typeLen, uint64_t topicLen, uint64_t dataLen) {
    Bytes const honest = pubsub_body("pub", "a/b", text("DATA"), 5, 6);
    return join({u64_le(typeLen), u64_le(topicLen), u64_le(dataLen),
                 Bytes(honest.begin() + 24, honest.end())});
}

TEST(TopicBodyTest, ReadsTypeAndTopic) {
    TopicBody body;

    ASSERT_TRUE(read(bytes("03 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00"
                           "02 00 00 00 00 00 00 00"
                           "70 75 62 00 61 2F 62 00 41 42 00 05 00 00 00 06 00 00 00"),
                     body));

    EXPECT_EQ("pub", body.type);
    EXPECT_EQ("a/b", body.topic);
}

TEST(TopicBodyTest, TextsAndDataMayBeEmpty) {
    TopicBody body;

    ASSERT_TRUE(read(pubsub_body("", ""), body));

    EXPECT_EQ("", body.type);
    EXPECT_EQ("", body.topic);
}

TEST(TopicBodyTest, DataMayHoldNulBytes) {
    EXPECT_TRUE(is_body(pubsub_body("pub", "a", bytes("00 41 00"))));
}

TEST(TopicBodyTest, RefusesABodyCutAnywhere) {
    Bytes const whole = pubsub_body("pub", "a/b", text("DATA"), 5, 6);
    for (size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(size);

        EXPECT_FALSE(is_body(Bytes(whole.begin(), whole.begin() + static_cast<long>(size))));
    }
}

TEST(TopicBodyTest, RefusesBytesBehindTheBody) {
    EXPECT_FALSE(is_body(join({pubsub_body("pub", "a/b"), bytes("00")})));
}

TEST(TopicBodyTest, RefusesLengthsThatLeadOutside) {
    uint64_t const huge = ~uint64_t{0};
    EXPECT_TRUE(is_body(lying_body(3, 3, 4)));
    EXPECT_FALSE(is_body(lying_body(3, 3, 5)));
    EXPECT_FALSE(is_body(lying_body(3, 3, huge)));
    EXPECT_FALSE(is_body(lying_body(huge, 3, 4)));
    EXPECT_FALSE(is_body(lying_body(3, huge, 4)));
    EXPECT_FALSE(is_body(lying_body(huge, huge, huge)));
    // Sums that wrap to the right total.
    EXPECT_FALSE(is_body(lying_body(huge, 3, 8)));
    EXPECT_FALSE(is_body(lying_body(3, huge - 3, 11)));
}

TEST(TopicBodyTest, RefusesATextWithoutItsNulOrWithOneInside) {
    Bytes const whole = pubsub_body("pub", "a/b", text("DATA"));
    for (size_t nul : {27, 31, 36}) {
        SCOPED_TRACE(nul);
        Bytes damaged = whole;
        damaged[nul] = 'x';

        EXPECT_FALSE(is_body(damaged));
    }
    for (size_t letter : {25, 29}) {
        SCOPED_TRACE(letter);
        Bytes damaged = whole;
        damaged[letter] = 0;

        EXPECT_FALSE(is_body(damaged));
    }
}

}  // namespace
}  // namespace kypserver
