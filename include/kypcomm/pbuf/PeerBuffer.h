// Parks the last response frame of a peer until its reader has taken it, over several calls if the
// reader's buffer is small.
//
// Owns:     its pbuf, from and to client_bufpool. The block stays between responses.
// Threads:  add_buff() on the receive thread, read_buf() on the one that waits for the response;
//           one lock. release_buff() takes none: its caller knows that no reader is active.
// Lifetime: a part of its connection.
#ifndef KYP_KYPCOMM_PBUF_PEERBUFFER_H
#define KYP_KYPCOMM_PBUF_PEERBUFFER_H

#include <cstdint>
#include <mutex>

#include "kypcomm/pbuf/pbuf.h"
#include "utils/Export.h"

class KYP_API PeerBuffer {
public:
    PeerBuffer();
    ~PeerBuffer();
    PeerBuffer(PeerBuffer const&) = delete;
    PeerBuffer& operator=(PeerBuffer const&) = delete;

    // Stores a copy of a whole frame of `length` bytes, to be read from `payloadOffset` on. Unread
    // bytes of an earlier one are lost. A frame of 16 MiB or more is not stored and leaves the
    // holder empty. Returns 0.
    int add_buff(unsigned char* frame, unsigned int payloadOffset, unsigned int length);

    // Copies the next bytes, at most `len`, to `dest` and the frame's port to `port` (may be null).
    // Returns their number; 0 with `port` untouched when all has been read.
    int read_buf(unsigned short* port, unsigned char* dest, unsigned int len);

    // Gives the block back and empties the holder. Returns 0.
    int release_buff();

    uint16_t m_port;     // the u16 at offset 2 of the frame
    uint32_t m_readPos;  // offset of the next byte to read
    uint32_t m_length;   // valid bytes in the block
    pbuf* m_pbuf;        // the block, or null
    std::mutex m_mutex;  // guards all of the above; the pool's is taken inside it
};

#endif
