// A bounded stock of equally sized raw blocks, for the class-level operator new and delete of
// records that come and go with every message.
//
//     static FreeList s_stock(sizeof(CMsgHeader), 256);
//     void* CMsgHeader::operator new(size_t size) { return s_stock.take(size); }
//     void CMsgHeader::operator delete(void* block, size_t size) { s_stock.give(block, size); }
//
// Owns:     the blocks given back, at most `maxBlocks`. Each comes singly from ::operator new and
//           goes back to ::operator delete, so a record made with plain `new` elsewhere may be
//           given here and a block taken here may be freed there.
// Threads:  take() and give() from any. Nobody waits: whoever finds the stock in use by another
//           thread goes to the heap, so a realtime thread never hangs on a slower one.
// Lifetime: constant-initialised and never destroyed: good before the first and behind the last
//           static object of the process.
//
// The address and thread sanitizers see every block's true life: under them it is the heap alone.
#ifndef KYP_UTILS_FREELIST_H
#define KYP_UTILS_FREELIST_H

#include <atomic>
#include <cstddef>
#include <new>

class FreeList {
public:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr bool kPassThrough = true;
#else
    static constexpr bool kPassThrough = false;
#endif

    // Keeps up to `maxBlocks` blocks of `blockSize` bytes; a smaller size than a pointer's keeps
    // none.
    constexpr FreeList(std::size_t blockSize, unsigned int maxBlocks)
        : m_blockSize(blockSize), m_maxBlocks(blockSize < sizeof(Node) ? 0 : maxBlocks) {}

    FreeList(FreeList const&) = delete;
    FreeList& operator=(FreeList const&) = delete;

    // A block of `size` bytes, its content undefined; another size than the stock's comes from the
    // heap. Throws std::bad_alloc, never returns null.
    void* take(std::size_t size) {
        if (Node* const node = size == m_blockSize ? pop() : nullptr) {
            node->~Node();
            return node;
        }
        return ::operator new(size);
    }

    // Takes back a block of `size` bytes, from here or from ::operator new; null is allowed.
    void give(void* block, std::size_t size) noexcept {
        if (block == nullptr) return;
        if (size != m_blockSize || !push(block)) ::operator delete(block);
    }

private:
    struct Node {
        Node* next;
    };

    Node* pop() {
        // The plain read spares an empty stock the lock; a stale answer costs one heap block.
        if (kPassThrough || m_count.load(std::memory_order_relaxed) == 0) return nullptr;
        if (m_busy.test_and_set(std::memory_order_acquire)) return nullptr;

        Node* const node = m_head;
        if (node != nullptr) {
            m_head = node->next;
            m_count.store(m_count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
        }
        m_busy.clear(std::memory_order_release);
        return node;
    }

    bool push(void* block) noexcept {
        if (kPassThrough || m_count.load(std::memory_order_relaxed) >= m_maxBlocks) return false;
        if (m_busy.test_and_set(std::memory_order_acquire)) return false;

        bool const room = m_count.load(std::memory_order_relaxed) < m_maxBlocks;
        if (room) {
            m_head = new (block) Node{m_head};
            m_count.store(m_count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        }
        m_busy.clear(std::memory_order_release);
        return room;
    }

    std::size_t const m_blockSize;
    unsigned int const m_maxBlocks;
    std::atomic<unsigned int> m_count{0};        // blocks in the chain; written under m_busy
    std::atomic_flag m_busy = ATOMIC_FLAG_INIT;  // held by whoever works on the chain
    Node* m_head = nullptr;                      // guarded by m_busy
};

#endif
