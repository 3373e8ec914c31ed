// A byte ring in one block of memory. Its capacity is a power of two; the two counters run free and
// wrap at 2^32, and only their difference and their masked value are meant.
//
// Owns:     buffer_new() gives the block to its caller, buffer_free() takes it back.
// Threads:  no lock; one at a time.
// Lifetime: from buffer_new() to buffer_free().
#ifndef KYP_UTILS_RINGBUFFER_H
#define KYP_UTILS_RINGBUFFER_H

#include <cstdint>

#include "utils/Export.h"

struct ringbuffer_s {
    uint32_t size;          // capacity, a power of two
    uint32_t tail;          // written so far, never masked
    uint32_t head;          // read so far, never masked
    unsigned char* buffer;  // the data, directly behind the record
};

// True when exactly one bit of `n` is set and `n` is not 1.
KYP_API bool is_power_of_two(unsigned int n);

// `n` when it is a power of two by the test above, else the next one: 2 for 0 and 1. 0 when the
// next one does not fit.
KYP_API unsigned int roundup_power_of_two(unsigned int n);

// An empty ring for at least `size` bytes; null when there is no memory or no such power of two.
KYP_API ringbuffer_s* buffer_new(unsigned int size);

// Null is allowed.
KYP_API void buffer_free(ringbuffer_s* rb);

KYP_API bool rb_isempty(ringbuffer_s* rb);
KYP_API bool rb_isfull(ringbuffer_s* rb);

// Bytes stored, and bytes that still fit. The second pair is another name for the first.
KYP_API unsigned int rb_len(ringbuffer_s* rb);
KYP_API unsigned int rb_remain(ringbuffer_s* rb);
KYP_API unsigned int buffer_len(ringbuffer_s* rb);
KYP_API unsigned int buffer_freesize(ringbuffer_s* rb);

// Stores all `len` bytes and returns 0, or none and returns -1 when they do not fit.
KYP_API int buffer_write(ringbuffer_s* rb, const void* src, unsigned int len);

// Takes up to `len` bytes out, into `dest` or into nothing. Returns how many.
KYP_API unsigned int buffer_read(ringbuffer_s* rb, void* dest, unsigned int len);
KYP_API unsigned int buffer_drain(ringbuffer_s* rb, unsigned int len);

// How many bytes to read so that the first `sep` is the last of them; 0 when it is not there, when
// fewer than `sepLen` bytes are stored or when `sepLen` is negative.
//
// The search ends with 0, too, at the first place where `sep` would wrap around the end of the
// block and its part before the end differs, even if it stands further on.
KYP_API unsigned int buffer_search(ringbuffer_s* rb, const char* sep, int sepLen);

#endif
