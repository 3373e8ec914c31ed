// One packet buffer: a heap block whose bytes stand at its end, so that protocol layers go in front
// of a payload without copying it. Also used as flat memory from rawData() on, with the caller
// keeping its own offsets (RecvBuf, PeerBuffer).
//
// Owns:     its block.
// Threads:  one owner at a time; no lock.
// Lifetime: on one free list of a bufpool, or with exactly one holder that puts it back.
#ifndef KYP_KYPCOMM_PBUF_PBUF_H
#define KYP_KYPCOMM_PBUF_PBUF_H

#include <cstdint>

#include "utils/Export.h"

class KYP_API pbuf {
public:
    // An empty buffer outside any pool. Throws std::bad_alloc.
    explicit pbuf(int capacity);
    ~pbuf();
    pbuf(pbuf const&) = delete;
    pbuf& operator=(pbuf const&) = delete;

    // Bytes in the block. A buffer from a pool may be smaller than the size asked for in two
    // classes: see take_pbuf().
    int capacity();

    // The start of the block.
    unsigned char* rawData();

    // The first valid byte; size() bytes follow, up to the end of the block.
    unsigned char* data();

    // Valid bytes.
    int size();

    // Room in front of the valid bytes.
    long freesize();

    // Drops the first `n` valid bytes, all of them if there are fewer.
    pbuf& remove(unsigned long n);

    // The same with an int count; drops nothing below 1. Returns 0.
    int pop_front(int n);

    // Drops all valid bytes. They stay in the block. Returns 0.
    int clear_pbuf();

    // Appends `p` behind the last object of this one's chain. Returns 0.
    int add_pbuf(pbuf* p);

    // Puts a copy of `len` bytes in front of the valid ones. A producer takes its buffer with head
    // room for all its headers; when there is too little the block is replaced by one that is `len`
    // bytes larger and the head room stays as it is. Throws std::bad_alloc with nothing changed.
    pbuf& prepend(const void* src, unsigned int len);

    bool m_pooled;          // true: goes back onto a free list; false: is destroyed on return
    int32_t m_capacity;     // bytes in the block
    unsigned char* m_raw;   // start of the block, from new[]
    unsigned char* m_data;  // first valid byte, m_raw <= m_data <= m_raw + m_capacity
    pbuf* m_next;           // next on a free list or chain, not owned
};

#endif
