#include "utils/RingBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

class RingBufferTest : public ::testing::Test {
protected:
    RingBufferTest() : m_rb(buffer_new(8)) {}
    ~RingBufferTest() override { buffer_free(m_rb); }

    int write(std::string const& text) {
        return buffer_write(m_rb, text.data(), static_cast<unsigned int>(text.size()));
    }

    std::string read(unsigned int len) {
        std::string text(len, '?');
        text.resize(buffer_read(m_rb, &text[0], len));
        return text;
    }

    unsigned int search(std::string const& separator) {
        return buffer_search(m_rb, separator.data(), static_cast<int>(separator.size()));
    }

    // Moves both counters of the empty ring to `count`.
    void start_at(uint32_t count) { m_rb->head = m_rb->tail = count; }

    ringbuffer_s* m_rb;
};

TEST_F(RingBufferTest, KeepsOneFromBeingAPowerOfTwo) {
    for (unsigned int const n : {2u, 4u, 1024u, 0x80000000u}) EXPECT_TRUE(is_power_of_two(n)) << n;
    for (unsigned int const n : {0u, 1u, 3u, 6u, 0x80000001u, 0xffffffffu}) {
        EXPECT_FALSE(is_power_of_two(n)) << n;
    }
}

TEST_F(RingBufferTest, RoundsUpToAPowerOfTwo) {
    struct Row {
        unsigned int n;
        unsigned int rounded;
    };
    constexpr Row kRows[] = {
        {0, 2},
        {1, 2},
        {2, 2},
        {3, 4},
        {4, 4},
        {5, 8},
        {1023, 1024},
        {1024, 1024},
        {1025, 2048},
        {0x40000001, 0x80000000},
        {0x80000000, 0x80000000},
        {0x80000001, 0},
        {0xffffffff, 0},
    };
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.n);
        EXPECT_EQ(row.rounded, roundup_power_of_two(row.n));
    }
}

TEST_F(RingBufferTest, ANewRingIsEmptyAndHasItsDataBehindTheRecord) {
    struct Row {
        unsigned int size;
        unsigned int capacity;
    };
    constexpr Row kRows[] = {{0, 2}, {1, 2}, {3, 4}, {8, 8}};
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.size);
        ringbuffer_s* const rb = buffer_new(row.size);
        ASSERT_NE(nullptr, rb);
        EXPECT_EQ(row.capacity, rb->size);
        EXPECT_EQ(0u, rb->head);
        EXPECT_EQ(0u, rb->tail);
        EXPECT_EQ(reinterpret_cast<unsigned char*>(rb + 1), rb->buffer);
        EXPECT_TRUE(rb_isempty(rb));
        buffer_free(rb);
    }
}

TEST_F(RingBufferTest, ASizeWithoutAPowerOfTwoGivesNoRing) {
    EXPECT_EQ(nullptr, buffer_new(0x80000001));
}

TEST_F(RingBufferTest, NoRingMayBeFreed) {
    buffer_free(nullptr);
}

TEST_F(RingBufferTest, CountsWhatIsStoredAndWhatFits) {
    write("abc");
    EXPECT_FALSE(rb_isempty(m_rb));
    EXPECT_FALSE(rb_isfull(m_rb));
    EXPECT_EQ(3u, rb_len(m_rb));
    EXPECT_EQ(3u, buffer_len(m_rb));
    EXPECT_EQ(5u, rb_remain(m_rb));
    EXPECT_EQ(5u, buffer_freesize(m_rb));

    write("defgh");
    EXPECT_TRUE(rb_isfull(m_rb));
    EXPECT_EQ(8u, rb_len(m_rb));
    EXPECT_EQ(0u, rb_remain(m_rb));
}

TEST_F(RingBufferTest, WritesAllOrNothing) {
    ASSERT_EQ(0, write("abcd"));

    EXPECT_EQ(-1, write("efghi"));
    EXPECT_EQ(4u, rb_len(m_rb));
    EXPECT_EQ(0, write("efgh"));
    EXPECT_EQ(-1, write("x"));
    EXPECT_EQ(0, write(""));

    EXPECT_EQ("abcdefgh", read(8));
}

TEST_F(RingBufferTest, ReadsWhatIsThereWhenMoreIsAskedFor) {
    write("abc");

    EXPECT_EQ("ab", read(2));
    EXPECT_EQ("c", read(5));
    EXPECT_EQ("", read(5));
}

TEST_F(RingBufferTest, WrapsAroundTheEndOfTheBlock) {
    start_at(6);

    EXPECT_EQ(0, write("abcde"));

    EXPECT_EQ(0, memcmp(m_rb->buffer + 6, "ab", 2));
    EXPECT_EQ(0, memcmp(m_rb->buffer, "cde", 3));
    EXPECT_EQ("abcde", read(8));
    EXPECT_EQ(11u, m_rb->head);
}

TEST_F(RingBufferTest, TheCountersWrapAt32Bits) {
    start_at(0xfffffffe);

    EXPECT_EQ(0, write("abcdefgh"));
    EXPECT_EQ(6u, m_rb->tail);
    EXPECT_TRUE(rb_isfull(m_rb));
    EXPECT_EQ(-1, write("x"));
    EXPECT_EQ(4u, search("d"));

    EXPECT_EQ("abcdefgh", read(9));
    EXPECT_TRUE(rb_isempty(m_rb));
}

TEST_F(RingBufferTest, DrainDropsUpToWhatIsThere) {
    write("abcdef");

    EXPECT_EQ(2u, buffer_drain(m_rb, 2));
    EXPECT_EQ("c", read(1));
    EXPECT_EQ(3u, buffer_drain(m_rb, 100));
    EXPECT_EQ(0u, buffer_drain(m_rb, 1));
}

TEST_F(RingBufferTest, SearchCountsUpToAndWithTheSeparator) {
    write("ab\r\ncd");

    EXPECT_EQ(4u, search("\r\n"));
    EXPECT_EQ(1u, search("a"));
    EXPECT_EQ(6u, search("cd"));
    EXPECT_EQ(6u, search("ab\r\ncd"));
    EXPECT_EQ(0u, search("\n\r"));
    EXPECT_EQ(6u, rb_len(m_rb));
}

TEST_F(RingBufferTest, SearchFindsASeparatorThatWraps) {
    start_at(5);
    write("ab\r\nc");

    EXPECT_EQ(4u, search("\r\n"));
}

TEST_F(RingBufferTest, SearchGoesOnWhereOnlyTheWrappedPartDiffers) {
    start_at(5);
    write("ab\rx\r\n");

    EXPECT_EQ(6u, search("\r\n"));
}

TEST_F(RingBufferTest, KeepsTheSearchFromPassingAPlaceThatWouldWrap) {
    start_at(5);
    write("abcd\r\n");

    EXPECT_EQ(0u, search("\r\n"));
}

TEST_F(RingBufferTest, SearchEndsWithTheStoredBytes) {
    write("abcdef");
    buffer_drain(m_rb, 6);
    start_at(0);
    write("ab");

    EXPECT_EQ(0u, search("c"));
    EXPECT_EQ(0u, search("bc"));
    EXPECT_EQ(2u, search("b"));
}

TEST_F(RingBufferTest, ASeparatorLongerThanWhatIsStoredIsNotThere) {
    EXPECT_EQ(0u, search("a"));

    write("ab");
    EXPECT_EQ(0u, search("abc"));
    EXPECT_EQ(0u, search("abcdefghijklmnop"));
}

TEST_F(RingBufferTest, AnEmptySeparatorGivesZero) {
    write("ab");

    EXPECT_EQ(0u, buffer_search(m_rb, "", 0));
    EXPECT_EQ(0u, buffer_search(m_rb, "a", -1));
}

}  // namespace
