// Free lists of pbuf, one for each size class, filled once at start-up and never shrunk.
// server_bufpool holds the large classes for a server's side, client_bufpool the small ones for
// client and component processes.
//
// Owns:     the buffers on its lists; not those that are out with a holder.
// Threads:  any. One lock for lists and total, held for a push or a pop, or for the allocation of a
//           buffer that the lists cannot serve.
// Lifetime: the two pools are singletons and never destroyed. An empty pool works too: it allocates
//           what it hands out.
#ifndef KYP_KYPCOMM_PBUF_PBUFPOOL_H
#define KYP_KYPCOMM_PBUF_PBUFPOOL_H

#include <cstdint>
#include <map>
#include <mutex>

#include "kypcomm/pbuf/pbuf.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

// Each pool is destroyed under its own type, so the destructors take no slots.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class KYP_API bufpool {
public:
    bufpool();

    // Destroys the buffers on the lists.
    ~bufpool();
    bufpool(bufpool const&) = delete;
    bufpool& operator=(bufpool const&) = delete;

    // Sets the limit and fills the lists, once in a process for each class. Returns 0.
    virtual int init_bufpool() = 0;

    // The size class for `size` bytes, 0 for 16 MiB and above. 16384 and 32768 belong to the next
    // class up.
    virtual int get_cap(int size);

    // An empty buffer of the class of `size`, or null when there is no such class. Allocates, and
    // says so at INFO, when the list is empty; past the memory limit such a buffer is destroyed on
    // return instead of joining the list. The caller owns it and puts it back. In the classes 32768
    // and 65536 it can be smaller than `size`: who writes near that size uses take_pbuf().
    pbuf* get_one_buf(int size);

    // Takes a buffer back from its owner, null too. Returns 0.
    int put_one_free(pbuf* p);

    // Makes `count` buffers of `size` bytes the list of that class; 0 makes it empty. The buffers
    // of an earlier list are lost. Returns 0, or -1 with the reason logged.
    int make_buf_list(int size, int count);

    // Destroys all buffers on the lists and forgets the classes. Returns 0.
    int free_buf_list();

    // The total from which new buffers no longer join the pool. Returns 0.
    int set_mem_limit(unsigned long bytes);

    uint64_t m_memLimit;   // bytes; 0 until set. guarded by m_mutex
    uint64_t m_totalSize;  // bytes ever allocated, also of buffers destroyed. guarded by m_mutex
    std::map<int, pbuf*> m_freeLists;  // class to first buffer, null if none. guarded by m_mutex
    std::mutex m_mutex;                // no other lock is taken inside it
};

class KYP_API server_bufpool : public bufpool {
public:
    server_bufpool();
    ~server_bufpool();

    // 1 GiB limit, 170442752 bytes in lists up to 6 MiB. A server program calls it at its start.
    int init_bufpool() override;
    int get_cap(int size) override;
};

class KYP_API client_bufpool : public bufpool {
public:
    client_bufpool();
    ~client_bufpool();

    // 256 MiB limit, 3342336 bytes in lists up to 64 KiB. Part of a client's or component's
    // start-up.
    int init_bufpool() override;
    int get_cap(int size) override;
};

#pragma GCC diagnostic pop

extern template class KYP_API utility::Singleton<server_bufpool>;
extern template class KYP_API utility::Singleton<client_bufpool>;

// A buffer that really holds `size` bytes, or null when no class does: get_one_buf() for whoever
// writes near the size asked for. Buffers of 16384 and 32768 bytes come back to the list of the
// next class. There this finds them again, where get_one_buf() allocates anew for each request of
// their own size; and it passes over those that are too small for the class whose list they are on.
//
// An addition beside the pools' own operations, for this library and programs on these headers.
KYP_API pbuf* take_pbuf(bufpool& pool, int size);

#endif
