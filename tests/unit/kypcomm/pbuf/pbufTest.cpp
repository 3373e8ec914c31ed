#include "kypcomm/pbuf/pbuf.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>

#include "kypcomm/pbuf/pbufpool.h"
#include "support/FrameBytes.h"

namespace {

std::string content(pbuf& buf) {
    return hex(buf.data(), static_cast<size_t>(buf.size()));
}

TEST(PbufTest, StartsEmptyOutsideAnyPool) {
    pbuf buf(128);

    EXPECT_EQ(128, buf.capacity());
    EXPECT_EQ(0, buf.size());
    EXPECT_EQ(128, buf.freesize());
    EXPECT_EQ(buf.rawData() + 128, buf.data());
    EXPECT_FALSE(buf.m_pooled);
    EXPECT_EQ(nullptr, buf.m_next);
}

TEST(PbufTest, PrependsIntoTheHeadRoom) {
    pbuf buf(8);

    EXPECT_EQ(&buf, &buf.prepend("5678", 4));
    buf.prepend("1234", 4);

    EXPECT_EQ("31 32 33 34 35 36 37 38", content(buf));
    EXPECT_EQ(0, buf.freesize());
    EXPECT_EQ(8, buf.capacity());
}

TEST(PbufTest, PrependsNothingFromNowhere) {
    pbuf buf(8);

    buf.prepend(nullptr, 0);

    EXPECT_EQ(0, buf.size());
}

TEST(PbufTest, GrowsByTheWholePieceAndHandsOutWhatItHolds) {
    pbuf buf(16);
    buf.prepend(pattern(12).data(), 12);

    buf.prepend("ABCDEFGHIJ", 10);

    EXPECT_EQ(26, buf.capacity());
    EXPECT_EQ(hex(join({text("ABCDEFGHIJ"), pattern(12)})), hex(buf.data(), 22));
}

TEST(PbufTest, StaysUsableAfterGrowing) {
    pbuf buf(16);
    buf.prepend(pattern(12).data(), 12);
    buf.prepend("ABCDEFGHIJ", 10);

    EXPECT_EQ(22, buf.size());
    EXPECT_EQ(4, buf.freesize());

    buf.remove(10);

    EXPECT_EQ(hex(pattern(12)), content(buf));
}

TEST(PbufTest, KeepsMovingToAnotherBlockAndOutOfThePoolWhenItGrows) {
    client_bufpool pool;
    pool.set_mem_limit(1 << 20);
    pbuf* const buf = pool.get_one_buf(128);
    ASSERT_TRUE(buf->m_pooled);
    const unsigned char* const before = buf->rawData();

    buf->prepend(pattern(150).data(), 150);

    EXPECT_NE(before, buf->rawData());
    EXPECT_EQ(0, pool.put_one_free(buf));

    EXPECT_EQ(nullptr, pool.m_freeLists[128]);
    EXPECT_EQ(0u, pool.m_freeLists.count(512));
}

TEST(PbufTest, RefusesToGrowPastItsCounter) {
    pbuf buf(8);
    buf.prepend("1234", 4);

    EXPECT_THROW(buf.prepend("", static_cast<unsigned int>(std::numeric_limits<int>::max()) - 7),
                 std::bad_alloc);
    EXPECT_THROW(buf.prepend("", std::numeric_limits<unsigned int>::max()), std::bad_alloc);
    EXPECT_EQ("31 32 33 34", content(buf));
}

TEST(PbufTest, RemovesFromTheFrontAndNoMoreThanThereIs) {
    pbuf buf(8);
    buf.prepend("1234", 4);

    EXPECT_EQ(&buf, &buf.remove(2));
    EXPECT_EQ("33 34", content(buf));

    buf.remove(std::numeric_limits<unsigned long>::max());

    EXPECT_EQ(0, buf.size());
    EXPECT_EQ(buf.rawData() + 8, buf.data());
}

TEST(PbufTest, PopsFromTheFrontAndNoMoreThanThereIs) {
    pbuf buf(8);
    buf.prepend("1234", 4);

    EXPECT_EQ(0, buf.pop_front(1));
    EXPECT_EQ("32 33 34", content(buf));

    EXPECT_EQ(0, buf.pop_front(-1));
    EXPECT_EQ("32 33 34", content(buf));

    EXPECT_EQ(0, buf.pop_front(4));
    EXPECT_EQ(0, buf.size());
    EXPECT_EQ(buf.rawData() + 8, buf.data());
}

TEST(PbufTest, ClearsItsContentAndLeavesTheBytes) {
    pbuf buf(8);
    buf.prepend("1234", 4);

    EXPECT_EQ(0, buf.clear_pbuf());
    EXPECT_EQ(0, buf.size());
    EXPECT_EQ("31 32 33 34", hex(buf.rawData() + 4, 4));
}

TEST(PbufTest, AppendsAtTheTailOfItsChain) {
    pbuf first(8);
    pbuf second(8);
    pbuf third(8);

    EXPECT_EQ(0, first.add_pbuf(&second));
    EXPECT_EQ(&second, first.m_next);

    EXPECT_EQ(0, first.add_pbuf(&third));
    EXPECT_EQ(&second, first.m_next);
    EXPECT_EQ(&third, second.m_next);
    EXPECT_EQ(nullptr, third.m_next);
}

}  // namespace
