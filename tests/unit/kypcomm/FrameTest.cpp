#include "kypcomm/Frame.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>
#include <type_traits>

#include "support/FrameBytes.h"

namespace {

// The last holder deletes the block; a frame that ends does not.
static_assert(std::is_trivially_destructible_v<Frame>, "frames are handed on by value");

class FrameTest : public testing::Test {
protected:
    ~FrameTest() override { delete[] m_frame.rawData(); }

    void make(unsigned int size, void const* init = nullptr) {
        delete[] m_frame.rawData();
        m_frame = Frame(size, init);
    }

    std::string content() const { return hex(m_frame.data(), m_frame.size()); }
    long head_room() const { return m_frame.data() - m_frame.rawData(); }

    Frame m_frame{16, nullptr};
};

TEST_F(FrameTest, StartsEmptyWithAllOfItHeadRoom) {
    EXPECT_EQ(0u, m_frame.size());
    EXPECT_EQ(16u, m_frame.capacity());
    EXPECT_EQ(m_frame.rawData() + 16, m_frame.data());
}

TEST_F(FrameTest, StartsFullWithTheBytesItIsGiven) {
    make(4, "ABCD");

    EXPECT_EQ(4u, m_frame.size());
    EXPECT_EQ(m_frame.rawData(), m_frame.data());
    EXPECT_EQ("41 42 43 44", content());
}

TEST_F(FrameTest, StartsWithItsSizeInBothCounters) {
    EXPECT_EQ(16u, m_frame.m_capacity);
    EXPECT_EQ(0u, m_frame.m_reserved);
    EXPECT_EQ(16u, m_frame.m_size);
}

TEST_F(FrameTest, PrependsIntoTheHeadRoom) {
    m_frame.prepend("5678", 4);

    EXPECT_EQ(4u, m_frame.size());
    EXPECT_EQ(m_frame.rawData() + 12, m_frame.data());

    m_frame.prepend("34", 2).prepend("12", 2);

    EXPECT_EQ("31 32 33 34 35 36 37 38", content());
}

TEST_F(FrameTest, PrependsAsMuchAsTheHeadRoomWithoutGrowing) {
    m_frame.prepend(pattern(16).data(), 16);

    EXPECT_EQ(16u, m_frame.capacity());
    EXPECT_EQ(0, head_room());
}

TEST_F(FrameTest, GrowsByTheWholePieceAndKeepsItsHeadRoom) {
    m_frame.prepend(pattern(12).data(), 12);

    m_frame.prepend("ABCDEFGHIJ", 10);

    EXPECT_EQ(26u, m_frame.capacity());
    EXPECT_EQ(22u, m_frame.size());
    EXPECT_EQ(4, head_room());
    EXPECT_EQ(26u, m_frame.m_size);
    EXPECT_EQ(hex(join({text("ABCDEFGHIJ"), pattern(12)})), content());
}

TEST_F(FrameTest, GrowsByOneByteMoreThanItsHeadRoom) {
    m_frame.prepend(pattern(17).data(), 17);

    EXPECT_EQ(33u, m_frame.capacity());
    EXPECT_EQ(16, head_room());
    EXPECT_EQ(hex(pattern(17)), content());
}

TEST_F(FrameTest, GrowsFromAPieceOfItself) {
    make(4, "ABCD");

    m_frame.prepend(m_frame.data() + 1, 3);

    EXPECT_EQ("42 43 44 41 42 43 44", content());
}

TEST_F(FrameTest, PrependsNothingFromNowhere) {
    m_frame.prepend(nullptr, 0);

    EXPECT_EQ(0u, m_frame.size());
}

TEST_F(FrameTest, RefusesToGrowPastItsCounter) {
    make(8, "12345678");

    EXPECT_THROW(m_frame.prepend("", std::numeric_limits<unsigned int>::max() - 7), std::bad_alloc);
    EXPECT_EQ("31 32 33 34 35 36 37 38", content());
}

TEST_F(FrameTest, RemovesFromTheFront) {
    make(4, "ABCD");

    EXPECT_EQ(&m_frame, &m_frame.remove(3));
    EXPECT_EQ("44", content());
}

TEST_F(FrameTest, RemovesNoMoreThanThereIs) {
    make(4, "ABCD");

    m_frame.remove(5);

    EXPECT_EQ(0u, m_frame.size());
    EXPECT_EQ(m_frame.rawData() + 4, m_frame.data());

    m_frame.remove(std::numeric_limits<unsigned int>::max());

    EXPECT_EQ(m_frame.rawData() + 4, m_frame.data());
}

TEST_F(FrameTest, ClearDropsAllAndKeepsTheBlock) {
    make(4, "ABCD");

    EXPECT_EQ(&m_frame, &m_frame.clear());
    EXPECT_EQ(0u, m_frame.size());
    EXPECT_EQ(4u, m_frame.capacity());
}

}  // namespace
