#include "utils/FreeList.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

namespace {

thread_local int t_made = 0;   // blocks that this thread took from the heap
thread_local int t_freed = 0;  // and gave back to it

}  // namespace

void* operator new(std::size_t size) {
    ++t_made;
    if (void* const block = malloc(size == 0 ? 1 : size)) return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    if (block != nullptr) ++t_freed;
    free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace {

constexpr size_t kSize = 48;
constexpr bool kKeeps = !FreeList::kPassThrough;

class FreeListTest : public ::testing::Test {
protected:
    FreeListTest() : m_list(kSize, 2) {}
    ~FreeListTest() override {
        // What the list still holds goes back to the heap, block by block.
        for (void* const block : {m_list.take(kSize), m_list.take(kSize)}) operator delete(block);
    }

    void start_counting() { t_made = t_freed = 0; }

    FreeList m_list;
};

TEST_F(FreeListTest, ABlockGivenBackIsHandedOutAgain) {
    void* const block = m_list.take(kSize);
    start_counting();

    m_list.give(block, kSize);
    void* const again = m_list.take(kSize);

    EXPECT_EQ(kKeeps ? 0 : 1, t_made);
    EXPECT_EQ(kKeeps ? 0 : 1, t_freed);
    EXPECT_TRUE(block == again || !kKeeps);
    m_list.give(again, kSize);
}

TEST_F(FreeListTest, KeepsNoMoreThanItsBound) {
    void* const blocks[] = {m_list.take(kSize), m_list.take(kSize), m_list.take(kSize)};
    start_counting();

    for (void* const block : blocks) m_list.give(block, kSize);

    EXPECT_EQ(kKeeps ? 1 : 3, t_freed);
}

TEST_F(FreeListTest, AnEmptyListGoesToTheHeap) {
    start_counting();

    void* const block = m_list.take(kSize);

    EXPECT_EQ(1, t_made);
    operator delete(block);
}

TEST_F(FreeListTest, TakesABlockFromPlainNew) {
    void* const plain = operator new(kSize);
    start_counting();

    m_list.give(plain, kSize);
    void* const taken = m_list.take(kSize);

    EXPECT_EQ(kKeeps ? 0 : 1, t_made);
    operator delete(taken);
    EXPECT_EQ(kKeeps ? 1 : 2, t_freed);
}

TEST_F(FreeListTest, AnotherSizePassesThrough) {
    start_counting();

    m_list.give(m_list.take(kSize + 8), kSize + 8);
    m_list.give(m_list.take(kSize - 8), kSize - 8);

    EXPECT_EQ(2, t_made);
    EXPECT_EQ(2, t_freed);
}

TEST_F(FreeListTest, NothingMayBeGiven) {
    start_counting();

    m_list.give(nullptr, kSize);

    EXPECT_EQ(0, t_freed);
}

TEST_F(FreeListTest, BlocksTooSmallForALinkPassThrough) {
    FreeList tiny(1, 8);
    void* const block = tiny.take(1);
    start_counting();

    tiny.give(block, 1);

    EXPECT_EQ(1, t_freed);
}

TEST_F(FreeListTest, ABlockHasOneOwnerAtATimeAmongManyThreads) {
    static FreeList s_list(kSize, 16);
    std::atomic<bool> shared{false};

    std::vector<std::thread> threads;
    for (int t = 1; t <= 4; ++t) {
        threads.emplace_back([t, &shared] {
            unsigned char mine[kSize];
            memset(mine, t, sizeof mine);
            for (int i = 0; i < 20000; ++i) {
                void* const block = s_list.take(kSize);
                memcpy(block, mine, sizeof mine);
                if (i % 16 == 0) std::this_thread::yield();
                if (memcmp(block, mine, sizeof mine) != 0) shared = true;
                s_list.give(block, kSize);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_FALSE(shared);
}

}  // namespace
