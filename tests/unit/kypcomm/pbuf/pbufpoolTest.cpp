#include "kypcomm/pbuf/pbufpool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <thread>

#include "support/LogCapture.h"

namespace {

constexpr int kMiB = 1048576;

int length(bufpool& pool, int cls) {
    int count = 0;
    for (pbuf* buf = pool.m_freeLists[cls]; buf != nullptr; buf = buf->m_next) ++count;
    return count;
}

class PoolTest : public testing::Test {
protected:
    PoolTest() { m_pool.set_mem_limit(64UL * kMiB); }

    // Takes and gives back, so that one buffer of the class has been through a holder's hands.
    void round_trip(int size) { m_pool.put_one_free(m_pool.get_one_buf(size)); }

    client_bufpool m_pool;
};

TEST_F(PoolTest, SortsSizesIntoClasses) {
    struct {
        int size;
        int cls;
    } const rows[] = {
        {std::numeric_limits<int>::min(), 128},
        {-1, 128},
        {0, 128},
        {1, 128},
        {128, 128},
        {129, 256},
        {256, 256},
        {257, 512},
        {512, 512},
        {513, 1024},
        {1024, 1024},
        {1025, 2048},
        {2048, 2048},
        {2049, 4096},
        {4096, 4096},
        {4097, 8192},
        {8192, 8192},
        {8193, 16384},
        {16383, 16384},
        {16385, 32768},
        {32767, 32768},
        {32769, 65536},
        {65536, 65536},
        {65537, 131072},
        {131072, 131072},
        {131073, 262144},
        {262144, 262144},
        {262145, kMiB},
        {524288, kMiB},
        {kMiB, kMiB},
        {kMiB + 1, 2 * kMiB},
        {2 * kMiB, 2 * kMiB},
        {2 * kMiB + 1, 3 * kMiB},
        {3 * kMiB, 3 * kMiB},
        {4 * kMiB, 4 * kMiB},
        {5 * kMiB, 5 * kMiB},
        {6 * kMiB, 6 * kMiB},
        {7 * kMiB, 7 * kMiB},
        {8 * kMiB, 8 * kMiB},
        {9 * kMiB, 9 * kMiB},
        {10 * kMiB, 10 * kMiB},
        {11 * kMiB, 11 * kMiB},
        {12 * kMiB, 12 * kMiB},
        {13 * kMiB, 13 * kMiB},
        {14 * kMiB, 14 * kMiB},
        {15 * kMiB, 15 * kMiB},
        {15 * kMiB + 1, 16 * kMiB},
        {16 * kMiB - 1, 16 * kMiB},
        {16 * kMiB, 0},
        {16 * kMiB + 1, 0},
        {std::numeric_limits<int>::max(), 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.size);
        EXPECT_EQ(row.cls, m_pool.get_cap(row.size));
    }
}

TEST_F(PoolTest, KeepsPuttingTheExactSizesOfTwoClassesIntoTheNext) {
    EXPECT_EQ(32768, m_pool.get_cap(16384));
    EXPECT_EQ(65536, m_pool.get_cap(32768));
}

TEST_F(PoolTest, SortsAlikeInAllPools) {
    server_bufpool server;

    EXPECT_EQ(32768, server.get_cap(16384));
    EXPECT_EQ(32768, m_pool.bufpool::get_cap(16384));
}

TEST_F(PoolTest, StartsEmptyAndServesAllTheSame) {
    client_bufpool pool;
    EXPECT_EQ(0u, pool.m_memLimit);
    EXPECT_EQ(0u, pool.m_totalSize);
    EXPECT_TRUE(pool.m_freeLists.empty());

    pbuf* const buf = pool.get_one_buf(100);

    ASSERT_NE(nullptr, buf);
    EXPECT_EQ(128, buf->capacity());
    EXPECT_EQ(0, buf->size());
    EXPECT_EQ(128, buf->freesize());
    pool.put_one_free(buf);
}

TEST_F(PoolTest, SaysSoForEachBufferThatItAllocates) {
    LogCapture log;

    pbuf* const first = m_pool.get_one_buf(1000);
    pbuf* const second = m_pool.get_one_buf(1000);

    EXPECT_EQ(2, log.count("INFO", "pool not enough memory,new buf:1024 byte"));
    EXPECT_EQ(2048u, m_pool.m_totalSize);
    m_pool.put_one_free(first);
    m_pool.put_one_free(second);
}

TEST_F(PoolTest, HandsOutTheLastReturnedFirstAndWithoutAWord) {
    pbuf* const first = m_pool.get_one_buf(1000);
    pbuf* const second = m_pool.get_one_buf(1000);
    m_pool.put_one_free(first);
    m_pool.put_one_free(second);
    LogCapture log;

    EXPECT_EQ(second, m_pool.get_one_buf(1024));
    EXPECT_EQ(first, m_pool.get_one_buf(513));
    EXPECT_EQ("", log.text());
    EXPECT_EQ(2048u, m_pool.m_totalSize);
    EXPECT_EQ(nullptr, first->m_next);
    EXPECT_EQ(nullptr, second->m_next);
    m_pool.put_one_free(first);
    m_pool.put_one_free(second);
}

TEST_F(PoolTest, HandsOutAUsedBufferAsEmpty) {
    pbuf* const buf = m_pool.get_one_buf(128);
    buf->prepend("1234", 4);

    m_pool.put_one_free(buf);

    ASSERT_EQ(buf, m_pool.get_one_buf(128));
    EXPECT_EQ(0, buf->size());
    EXPECT_EQ(0, memcmp(buf->rawData() + 124, "1234", 4));
    m_pool.put_one_free(buf);
}

TEST_F(PoolTest, LetsABufferJoinOnlyBelowTheLimit) {
    m_pool.set_mem_limit(257);

    pbuf* const below = m_pool.get_one_buf(256);
    pbuf* const above = m_pool.get_one_buf(1);

    EXPECT_TRUE(below->m_pooled);
    EXPECT_FALSE(above->m_pooled);
    m_pool.put_one_free(below);
    m_pool.put_one_free(above);
    EXPECT_EQ(1, length(m_pool, 256));
    EXPECT_EQ(0, length(m_pool, 128));
    EXPECT_EQ(384u, m_pool.m_totalSize);
}

TEST_F(PoolTest, KeepsItsTotalWhenABufferIsDestroyed) {
    m_pool.set_mem_limit(128);
    round_trip(128);
    LogCapture log;

    round_trip(128);

    EXPECT_EQ(1, log.count("INFO", "pool not enough memory,new buf:128 byte"));
    EXPECT_EQ(256u, m_pool.m_totalSize);
    EXPECT_EQ(0, length(m_pool, 128));
}

TEST_F(PoolTest, CountsTheLimitItselfAsReached) {
    m_pool.set_mem_limit(128);

    pbuf* const buf = m_pool.get_one_buf(128);

    EXPECT_FALSE(buf->m_pooled);
    m_pool.put_one_free(buf);
}

TEST_F(PoolTest, HasNothingForSixteenMebibytes) {
    LogCapture log;

    EXPECT_EQ(nullptr, m_pool.get_one_buf(16 * kMiB));
    EXPECT_EQ(nullptr, take_pbuf(m_pool, 16 * kMiB));
    EXPECT_EQ("", log.text());
    EXPECT_TRUE(m_pool.m_freeLists.empty());
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// A pool with classes of its own: tens of bytes, and none from 100 on.
class TensPool : public bufpool {
public:
    int init_bufpool() override { return 0; }
    int get_cap(int size) override { return size < 100 ? (size + 9) / 10 * 10 : 0; }
};

#pragma GCC diagnostic pop

TEST_F(PoolTest, AsksTheClassOfThePoolAtHand) {
    TensPool pool;
    pool.set_mem_limit(1 << 20);

    EXPECT_EQ(nullptr, pool.get_one_buf(100));
    pbuf* const buf = pool.get_one_buf(11);

    EXPECT_EQ(20, buf->capacity());
    pool.put_one_free(buf);
    EXPECT_EQ(buf, pool.m_freeLists[20]);
    EXPECT_EQ(1u, pool.m_freeLists.size());
}

TEST_F(PoolTest, TakesNothingBackWithoutComplaint) {
    EXPECT_EQ(0, m_pool.put_one_free(nullptr));
}

TEST_F(PoolTest, KeepsPuttingTwoCapacitiesOntoTheNextList) {
    round_trip(16383);
    EXPECT_EQ(0, length(m_pool, 16384));
    EXPECT_EQ(1, length(m_pool, 32768));

    m_pool.free_buf_list();
    round_trip(32767);
    EXPECT_EQ(0, length(m_pool, 32768));
    EXPECT_EQ(1, length(m_pool, 65536));
}

TEST_F(PoolTest, KeepsHandingOutASmallerBufferAfterSuchARoundTrip) {
    round_trip(16383);
    pbuf* const small = m_pool.get_one_buf(32767);
    EXPECT_EQ(16384, small->capacity());
    m_pool.put_one_free(small);

    m_pool.free_buf_list();
    round_trip(32767);
    pbuf* const middle = m_pool.get_one_buf(65536);
    EXPECT_EQ(32768, middle->capacity());
    m_pool.put_one_free(middle);
}

TEST_F(PoolTest, KeepsABufferOfSixteenMebibytesOutOfReach) {
    round_trip(16 * kMiB - 1);

    EXPECT_EQ(1, length(m_pool, 0));
    EXPECT_EQ(0, length(m_pool, 16 * kMiB));
}

class TakeTest : public testing::TestWithParam<int> {
protected:
    TakeTest() {
        m_pool.set_mem_limit(64UL * kMiB);
        pbuf* const small = m_pool.get_one_buf(16383);
        pbuf* const middle = m_pool.get_one_buf(32767);
        m_pool.put_one_free(small);
        m_pool.put_one_free(middle);
    }

    client_bufpool m_pool;
};

TEST_P(TakeTest, FindsABufferThatHoldsTheSize) {
    pbuf* const buf = take_pbuf(m_pool, GetParam());

    ASSERT_NE(nullptr, buf);
    EXPECT_GE(buf->capacity(), GetParam());
    EXPECT_EQ(nullptr, buf->m_next);
    EXPECT_EQ(0, buf->size());
    m_pool.put_one_free(buf);
}

TEST_P(TakeTest, AllocatesNothingOnceItHasSettled) {
    m_pool.put_one_free(take_pbuf(m_pool, GetParam()));
    const uint64_t settled = m_pool.m_totalSize;

    for (int i = 0; i < 100; ++i) m_pool.put_one_free(take_pbuf(m_pool, GetParam()));

    EXPECT_EQ(settled, m_pool.m_totalSize);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TakeTest,
                         testing::Values(-1, 1, 8192, 8193, 16383, 16384, 16385, 32767, 32768,
                                         32769, 65536, 65537));

TEST_F(PoolTest, FindsItsOwnBuffersWhereTheyCameBack) {
    for (int const size : {8193, 16384, 20000}) {
        SCOPED_TRACE(size);
        client_bufpool pool;
        pool.set_mem_limit(64UL * kMiB);
        pbuf* const buf = take_pbuf(pool, size);
        pool.put_one_free(buf);

        pbuf* const again = take_pbuf(pool, size);

        EXPECT_EQ(buf, again);
        pool.put_one_free(again);
    }
}

TEST_F(PoolTest, MakesAList) {
    EXPECT_EQ(0, m_pool.make_buf_list(256, 3));

    ASSERT_EQ(3, length(m_pool, 256));
    EXPECT_EQ(768u, m_pool.m_totalSize);
    for (pbuf* buf = m_pool.m_freeLists[256]; buf != nullptr; buf = buf->m_next) {
        EXPECT_TRUE(buf->m_pooled);
        EXPECT_EQ(256, buf->capacity());
    }
}

TEST_F(PoolTest, MakesAnEmptyList) {
    EXPECT_EQ(0, m_pool.make_buf_list(256, 0));

    ASSERT_EQ(1u, m_pool.m_freeLists.count(256));
    EXPECT_EQ(nullptr, m_pool.m_freeLists[256]);
    EXPECT_EQ(0u, m_pool.m_totalSize);
}

TEST_F(PoolTest, ReportsAListThatCannotBeMade) {
    LogCapture log;

    EXPECT_EQ(-1, m_pool.make_buf_list(256, -1));

    EXPECT_EQ(1, log.count("ERROR", "new io_buf 256 error"));
    EXPECT_EQ(0u, m_pool.m_totalSize);
}

TEST_F(PoolTest, KeepsNothingOfAnEarlierListOfTheClass) {
    m_pool.make_buf_list(256, 1);
    pbuf* const earlier = m_pool.m_freeLists[256];

    m_pool.make_buf_list(256, 2);

    EXPECT_EQ(2, length(m_pool, 256));
    EXPECT_EQ(768u, m_pool.m_totalSize);
    delete earlier;
}

TEST_F(PoolTest, KeepsCountingAListIn32Bits) {
    EXPECT_EQ(0, m_pool.make_buf_list(1 << 30, 2));

    EXPECT_EQ(0xffffffff80000000u, m_pool.m_totalSize);
}

TEST_F(PoolTest, FreesItsListsInAscendingOrder) {
    m_pool.make_buf_list(512, 1);
    m_pool.make_buf_list(128, 2);
    m_pool.make_buf_list(256, 0);
    LogCapture log;

    EXPECT_EQ(0, m_pool.free_buf_list());

    EXPECT_EQ(1, log.count("DEBUG", "free mem:128 byte size:2"));
    EXPECT_EQ(1, log.count("DEBUG", "free mem:256 byte size:0"));
    EXPECT_EQ(1, log.count("DEBUG", "free mem:512 byte size:1"));
    EXPECT_LT(log.text().find("mem:128"), log.text().find("mem:256"));
    EXPECT_LT(log.text().find("mem:256"), log.text().find("mem:512"));
    EXPECT_TRUE(m_pool.m_freeLists.empty());
    EXPECT_EQ(768u, m_pool.m_totalSize);
}

TEST_F(PoolTest, LeavesBuffersThatAreOutAlone) {
    pbuf* const out = m_pool.get_one_buf(128);

    m_pool.free_buf_list();

    out->prepend("1234", 4);
    EXPECT_EQ(4, out->size());
    m_pool.put_one_free(out);
    EXPECT_EQ(1, length(m_pool, 128));
}

TEST_F(PoolTest, FreesItsListsWhenItEnds) {
    LogCapture log;
    {
        server_bufpool pool;
        pool.make_buf_list(128, 2);
    }

    EXPECT_EQ(1, log.count("DEBUG", "free mem:128 byte size:2"));
}

TEST_F(PoolTest, ServesManyThreadsWithoutLosingABuffer) {
    m_pool.make_buf_list(1024, 8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < 300; ++i) {
                pbuf* const one = m_pool.get_one_buf(1000);
                pbuf* const two = take_pbuf(m_pool, 20000);
                one->prepend("1234", 4);
                memset(two->rawData(), i, 20000);
                m_pool.put_one_free(two);
                m_pool.put_one_free(one);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(8, length(m_pool, 1024));
    EXPECT_EQ(m_pool.m_totalSize, 8192u + 32768u * static_cast<unsigned>(length(m_pool, 65536)));
}

struct ListRow {
    int cls;
    int count;
};

template <size_t N>
void expect_lists(bufpool& pool, ListRow const (&rows)[N]) {
    EXPECT_EQ(N, pool.m_freeLists.size());
    for (ListRow const& row : rows) {
        SCOPED_TRACE(row.cls);
        ASSERT_EQ(1u, pool.m_freeLists.count(row.cls));
        EXPECT_EQ(row.count, length(pool, row.cls));
        pbuf* const head = pool.m_freeLists[row.cls];
        EXPECT_EQ(row.count == 0, head == nullptr);
        if (head != nullptr) {
            EXPECT_EQ(row.cls, head->capacity());
        }
    }
}

TEST(PoolInitTest, FillsTheServersPoolOnce) {
    LogCapture log;
    auto& pool = utility::instance<server_bufpool>();

    EXPECT_EQ(0, pool.init_bufpool());
    EXPECT_EQ(0, pool.init_bufpool());

    EXPECT_EQ(1,
              log.count("NOTICE", "kyp server init memory pool total Size:166448.00kb,162.55Mb"));
    EXPECT_EQ(170442752u, pool.m_totalSize);
    EXPECT_EQ(1073741824u, pool.m_memLimit);
    expect_lists(pool, {{128, 1024},
                        {256, 1024},
                        {512, 1024},
                        {1024, 512},
                        {2048, 512},
                        {4096, 300},
                        {8192, 200},
                        {16384, 100},
                        {32768, 100},
                        {65536, 100},
                        {131072, 100},
                        {262144, 100},
                        {1048576, 15},
                        {2097152, 10},
                        {3145728, 8},
                        {4194304, 5},
                        {6291456, 5}});
}

TEST(PoolInitTest, FillsOnePoolOfEachKindInAProcess) {
    client_bufpool client;
    server_bufpool server;
    client.init_bufpool();
    server.init_bufpool();
    client_bufpool laterClient;
    server_bufpool laterServer;
    LogCapture log;

    EXPECT_EQ(0, laterClient.init_bufpool());
    EXPECT_EQ(0, laterServer.init_bufpool());

    EXPECT_EQ(3342336u, client.m_totalSize);
    EXPECT_EQ(170442752u, server.m_totalSize);
    EXPECT_TRUE(laterClient.m_freeLists.empty());
    EXPECT_TRUE(laterServer.m_freeLists.empty());
    EXPECT_EQ(0u, laterClient.m_memLimit);
    EXPECT_EQ(0u, laterServer.m_memLimit);
    EXPECT_EQ("", log.text());
}

TEST(PoolInitTest, FillsTheClientsPoolOnce) {
    LogCapture log;
    auto& pool = utility::instance<client_bufpool>();

    EXPECT_EQ(0, pool.init_bufpool());
    EXPECT_EQ(0, pool.init_bufpool());

    EXPECT_EQ(1, log.count("NOTICE", "kyp client init memory pool total Size:3264.00kb,3.19Mb"));
    EXPECT_EQ(3342336u, pool.m_totalSize);
    EXPECT_EQ(268435456u, pool.m_memLimit);
    expect_lists(pool, {{128, 256},
                        {256, 128},
                        {512, 128},
                        {1024, 128},
                        {2048, 128},
                        {4096, 128},
                        {8192, 128},
                        {16384, 16},
                        {32768, 10},
                        {65536, 10},
                        {131072, 0},
                        {262144, 0},
                        {1048576, 0},
                        {2097152, 0},
                        {3145728, 0},
                        {4194304, 0},
                        {6291456, 0}});
}

}  // namespace
