// One frame, inbound or outbound, with the buffer that holds it and the connection that it belongs
// to: the unit of work of the server core.
//
// Owns:     its pbuf, through the side that m_enMode selects. Not its connection.
// Threads:  one owner at a time: the read handler, the thread pool's queue, a worker, or the
//           connection's send queue.
// Lifetime: from the first header byte to the last byte handled or sent. Messages come and go with
//           every frame, so their memory is kept for the next.
#ifndef KYP_KYPCOMM_PBUF_CMSGHEADER_H
#define KYP_KYPCOMM_PBUF_CMSGHEADER_H

#include <cstddef>
#include <cstdint>

#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/SendBuf.h"
#include "utils/Export.h"

class CSocketConnection;

// Which side of a message is valid. A whole int, so that any other value is a value too.
enum EnMsgMode : int {
    MSG_MODE_RECV = 0,
    MSG_MODE_SEND = 1,
};

enum EnMsgType : int {
    MSG_TYPE_STREAM = 0,    // TCP and Unix-domain frames
    MSG_TYPE_DATAGRAM = 1,  // UDP
};

class KYP_API CMsgHeader {
public:
    // Without buffer or connection.
    CMsgHeader(EnMsgMode mode, EnMsgType type);

    // Gives the buffers back.
    ~CMsgHeader();

    // From a stock of blocks, so the steady state allocates nothing for a message.
    static void* operator new(std::size_t size);
    static void operator delete(void* block, std::size_t size);

    CMsgHeader(CMsgHeader const&) = delete;
    CMsgHeader& operator=(CMsgHeader const&) = delete;

    // The operations below touch the side that the mode selects; with any other mode value they do
    // nothing and yield 0 or null.

    // Takes ownership of `buf`. `headroom` counts in receive mode only. Returns 0.
    int setpBuf(pbuf* buf, int headroom);

    // The buffer, still owned here, or null.
    pbuf* getpBuf();

    // The same with ownership passing to the caller; the message is empty then.
    pbuf* pop_pBuf();

    // The first valid byte and their number.
    unsigned char* GetVaildData();
    int GetVaildSize();

    // Puts `len` bytes in front of the valid ones, which have that much head room. Returns 0.
    int prepend(void const* src, int len);

    // `n` bytes were written behind the valid ones of the receive side, in any mode. Returns 0.
    int addRecvBufSize(int n);

    // Makes a received message one that can be sent, in the same buffer: the valid bytes move to
    // its end, so all the rest is head room. Nothing happens without a received buffer. Returns 0.
    int switch_sendbuf();

    SendBuf m_sendBuf;           // valid in send mode
    RecvBuf m_recvBuf;           // valid in receive mode; of the server's pool
    unsigned int m_nInvokeId;    // host-order invoke id of a reply, 0 otherwise
    EnMsgMode m_enMode;          // which side is valid
    EnMsgType m_enType;          // kind of transport
    CSocketConnection* m_pConn;  // connection of the message, not owned
    uint64_t m_nSequence;        // m_pConn's iCurrsequence when the message was stamped
};

#endif
