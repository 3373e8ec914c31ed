// Holds a pbuf that is being received into: flat memory, written forward behind a head room that
// the caller chooses.
//
// Owns:     the pbuf, which goes back to server_bufpool or client_bufpool as told at construction.
// Threads:  the one that holds the message at the time.
// Lifetime: one pbuf for one holder; not copied.
//
// Nothing keeps the view inside the block: the caller compares with GetBuffCapacity() before it
// reads into the end, and leaves head room for what it will prepend.
#ifndef KYP_KYPCOMM_PBUF_RECVBUF_H
#define KYP_KYPCOMM_PBUF_RECVBUF_H

#include "kypcomm/pbuf/pbuf.h"
#include "utils/Export.h"

class KYP_API RecvBuf {
public:
    // Empty. `isServer` chooses the pool.
    explicit RecvBuf(bool isServer);

    // Gives the pbuf back, if there is one.
    ~RecvBuf();
    RecvBuf(RecvBuf const&) = delete;
    RecvBuf& operator=(RecvBuf const&) = delete;

    // Takes ownership of `p`, with an empty view `headRoom` bytes into its block. An earlier pbuf
    // is not released. Returns the begin of the view.
    unsigned char* init_pbuf(pbuf* p, int headRoom);

    // `n` bytes were written to m_end.
    void AddBufSize(int n);

    // The first valid byte.
    unsigned char* GetVaildData();

    // Valid bytes. Below zero when a reader has moved m_begin past m_end.
    int GetVaildSize();

    // Bytes in the whole block. There is a pbuf.
    int GetBuffCapacity();

    // Puts `len` bytes in front of the view, which has that much head room. Returns 0.
    int prepend(const void* src, int len);

    // Puts `len` bytes behind the view, which has that much room. Returns 0.
    int pushback(const void* src, int len);

    bool m_isServer;         // true: server_bufpool, false: client_bufpool
    unsigned char* m_begin;  // first valid byte
    unsigned char* m_end;    // one past the last valid byte
    pbuf* m_pbuf;            // owned, null until init_pbuf()
};

#endif
