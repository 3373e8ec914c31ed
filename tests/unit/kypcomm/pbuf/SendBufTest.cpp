#include "kypcomm/pbuf/SendBuf.h"

#include <gtest/gtest.h>

#include <memory>

#include "kypcomm/pbuf/pbufpool.h"
#include "support/FrameBytes.h"

namespace {

server_bufpool& server_pool() {
    return utility::instance<server_bufpool>();
}

TEST(SendBufTest, IsEmptyAtFirst) {
    SendBuf buf;

    EXPECT_EQ(nullptr, buf.GetVaildData());
    EXPECT_EQ(0, buf.GetVaildSize());
    EXPECT_EQ(0, buf.prepend("AB", 2));
    EXPECT_EQ(nullptr, buf.m_pbuf);
}

TEST(SendBufTest, ShowsAndExtendsTheBufferItHolds) {
    SendBuf buf;
    pbuf* const p = server_pool().get_one_buf(128);
    p->prepend("CD", 2);

    buf.init_pbuf(p);
    EXPECT_EQ(0, buf.prepend("AB", 2));

    EXPECT_EQ(p->data(), buf.GetVaildData());
    EXPECT_EQ(4, buf.GetVaildSize());
    EXPECT_EQ("41 42 43 44", hex(buf.GetVaildData(), 4));
}

TEST(SendBufTest, ExtendsNothingByNothing) {
    SendBuf buf;
    buf.init_pbuf(server_pool().get_one_buf(128));

    EXPECT_EQ(0, buf.prepend(nullptr, 0));
    EXPECT_EQ(0, buf.prepend("AB", -2));
    EXPECT_EQ(0, buf.GetVaildSize());
}

TEST(SendBufTest, GivesItsBufferToTheServersPool) {
    server_pool().set_mem_limit(1 << 20);
    pbuf* const p = server_pool().get_one_buf(128);
    auto buf = std::make_unique<SendBuf>();
    buf->init_pbuf(p);

    buf.reset();

    EXPECT_EQ(p, server_pool().m_freeLists[128]);
}

TEST(SendBufTest, GivesAClientsBufferToTheServersPoolToo) {
    auto& clientPool = utility::instance<client_bufpool>();
    clientPool.set_mem_limit(1 << 20);
    pbuf* const p = clientPool.get_one_buf(128);
    auto buf = std::make_unique<SendBuf>();
    buf->init_pbuf(p);

    buf.reset();

    EXPECT_EQ(p, server_pool().m_freeLists[128]);
    EXPECT_EQ(nullptr, clientPool.m_freeLists[128]);
}

TEST(SendBufTest, KeepsLeavingAnEarlierBufferToItsCaller) {
    SendBuf buf;
    pbuf* const earlier = server_pool().get_one_buf(128);
    buf.init_pbuf(earlier);

    buf.init_pbuf(server_pool().get_one_buf(128));

    EXPECT_EQ(128, earlier->freesize());
    server_pool().put_one_free(earlier);
}

}  // namespace
