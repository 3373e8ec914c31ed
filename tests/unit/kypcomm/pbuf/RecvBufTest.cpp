#include "kypcomm/pbuf/RecvBuf.h"

#include <gtest/gtest.h>

#include <cstring>

#include "kypcomm/pbuf/pbufpool.h"
#include "support/FrameBytes.h"

namespace {

server_bufpool& server_pool() {
    return utility::instance<server_bufpool>();
}

client_bufpool& client_pool() {
    return utility::instance<client_bufpool>();
}

TEST(RecvBufTest, HasNoBufferAtFirst) {
    RecvBuf buf(true);

    EXPECT_EQ(nullptr, buf.GetVaildData());
    EXPECT_EQ(0, buf.GetVaildSize());
    EXPECT_EQ(nullptr, buf.m_pbuf);
}

TEST(RecvBufTest, TouchesNoPoolWithoutABuffer) {
    const size_t before = server_pool().m_freeLists.size() + client_pool().m_freeLists.size();

    {
        RecvBuf server(true);
        RecvBuf client(false);
    }

    EXPECT_EQ(before, server_pool().m_freeLists.size() + client_pool().m_freeLists.size());
}

TEST(RecvBufTest, StartsBehindItsHeadRoom) {
    RecvBuf buf(true);
    pbuf* const p = server_pool().get_one_buf(128);

    EXPECT_EQ(p->rawData() + 64, buf.init_pbuf(p, 64));

    EXPECT_EQ(p->rawData() + 64, buf.GetVaildData());
    EXPECT_EQ(0, buf.GetVaildSize());
    EXPECT_EQ(128, buf.GetBuffCapacity());
}

TEST(RecvBufTest, PrependsAllOfItsHeadRoom) {
    RecvBuf buf(true);
    pbuf* const p = server_pool().get_one_buf(128);
    buf.init_pbuf(p, 64);

    EXPECT_EQ(0, buf.prepend(pattern(64).data(), 64));

    EXPECT_EQ(p->rawData(), buf.GetVaildData());
    EXPECT_EQ(hex(pattern(64)), hex(buf.GetVaildData(), 64));
}

TEST(RecvBufTest, GrowsForwardAndBackward) {
    RecvBuf buf(true);
    buf.init_pbuf(server_pool().get_one_buf(128), 64);

    memcpy(buf.m_end, "CD", 2);
    buf.AddBufSize(2);
    EXPECT_EQ(0, buf.pushback("EF", 2));
    EXPECT_EQ(0, buf.prepend("AB", 2));

    EXPECT_EQ(6, buf.GetVaildSize());
    EXPECT_EQ("41 42 43 44 45 46", hex(buf.GetVaildData(), 6));
}

TEST(RecvBufTest, GrowsByNothingFromNowhere) {
    RecvBuf buf(true);
    buf.init_pbuf(server_pool().get_one_buf(128), 64);

    EXPECT_EQ(0, buf.pushback(nullptr, 0));
    EXPECT_EQ(0, buf.prepend(nullptr, 0));
    EXPECT_EQ(0, buf.GetVaildSize());
}

TEST(RecvBufTest, LeavesTheBuffersOwnMarkAlone) {
    RecvBuf buf(true);
    pbuf* const p = server_pool().get_one_buf(128);
    buf.init_pbuf(p, 0);

    buf.pushback("AB", 2);

    EXPECT_EQ(0, p->size());
}

TEST(RecvBufTest, KeepsNoWatchOnTheEndsOfItsBlock) {
    RecvBuf buf(true);
    pbuf* const p = server_pool().get_one_buf(256);
    buf.init_pbuf(p, 128);
    p->m_capacity = 128;  // the upper half stands for what lies behind a block

    buf.pushback("AB", 2);

    EXPECT_EQ(2, buf.GetVaildSize());
    EXPECT_EQ(128, buf.GetBuffCapacity());
    buf.AddBufSize(200);
    EXPECT_EQ(202, buf.GetVaildSize());
    p->m_capacity = 256;
}

TEST(RecvBufTest, GivesItsBufferToThePoolOfItsSide) {
    server_pool().set_mem_limit(1 << 20);
    client_pool().set_mem_limit(1 << 20);
    pbuf* const serverBuf = server_pool().get_one_buf(128);
    pbuf* const clientBuf = client_pool().get_one_buf(128);

    {
        RecvBuf server(true);
        RecvBuf client(false);
        server.init_pbuf(serverBuf, 0);
        client.init_pbuf(clientBuf, 0);
    }

    EXPECT_EQ(serverBuf, server_pool().m_freeLists[128]);
    EXPECT_EQ(clientBuf, client_pool().m_freeLists[128]);
}

}  // namespace
