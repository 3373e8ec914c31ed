// Holds a pbuf that is being sent, in the buffer's own back-to-front form.
//
// Owns:     the pbuf, which goes back to server_bufpool.
// Threads:  the one that holds the message at the time.
// Lifetime: one pbuf for one holder; not copied.
#ifndef KYP_KYPCOMM_PBUF_SENDBUF_H
#define KYP_KYPCOMM_PBUF_SENDBUF_H

#include "kypcomm/pbuf/pbuf.h"
#include "utils/Export.h"

class KYP_API SendBuf {
public:
    // Empty.
    SendBuf();

    // Gives the pbuf back, if there is one.
    ~SendBuf();
    SendBuf(SendBuf const&) = delete;
    SendBuf& operator=(SendBuf const&) = delete;

    // Takes ownership of `p`. An earlier pbuf is not released: the caller has taken it before.
    void init_pbuf(pbuf* p);

    // The first valid byte, or null without a pbuf.
    unsigned char* GetVaildData();

    // Valid bytes, 0 without a pbuf.
    int GetVaildSize();

    // Puts `len` bytes in front of the valid ones; nothing without a pbuf. Returns 0.
    int prepend(const void* src, int len);

    pbuf* m_pbuf;  // owned, null while empty
};

#endif
