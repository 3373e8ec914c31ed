// A heap block that is filled from its end, so that headers go in front of a payload without
// moving it. The pooled relative is pbuf.
//
// Owns:     nothing by itself: there is no destructor. Whoever holds a frame at last deletes
//           rawData() with array delete, once.
// Threads:  one at a time.
// Lifetime: handed on by value from the builders; never kept twice.
#ifndef KYP_KYPCOMM_FRAME_H
#define KYP_KYPCOMM_FRAME_H

#include <cstdint>

#include "utils/Export.h"

class KYP_API Frame {
public:
    // Allocates `size` bytes. Without `init` the frame is empty and all of it is head room; with
    // `init` it is full of `size` bytes copied from there.
    Frame(unsigned int size, void const* init);

    // Bytes in the block, valid or not.
    unsigned int capacity() const;

    // The first valid byte; size() bytes follow, up to the end of the block.
    unsigned char* data() const;

    // The start of the block: what the last holder deletes.
    unsigned char* rawData() const;

    // Valid bytes.
    unsigned int size() const;

    // Puts a copy of `len` bytes in front of the valid ones. When they do not fit the head room the
    // block is replaced by one that is `len` bytes larger and the head room stays as it is.
    // Throws std::bad_alloc, with the frame unchanged, also beyond 4 GiB.
    Frame& prepend(void const* src, unsigned int len);

    // Drops the first `n` valid bytes, all of them if there are fewer.
    Frame& remove(unsigned int n);

    // Drops all valid bytes.
    Frame& clear();

    unsigned char* m_raw;   // start of the block, from new[]
    unsigned char* m_data;  // first valid byte, m_raw <= m_data <= m_raw + m_capacity
    uint32_t m_capacity;    // bytes in the block
    uint32_t m_reserved;    // 0
    uint32_t m_size;        // m_capacity at construction and after every growth
};

#endif
