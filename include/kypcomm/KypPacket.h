// Builds whole packets into a Frame and takes their headers apart again.
//
// Owns:    nothing; the block of a built frame is the caller's.
// Threads: any. None of these logs or sets tlsErrno.
// Errors:  a builder throws std::bad_alloc and nothing else. A parser answers
//          KYP_ERR_PACKET_TOO_SHORT.
#ifndef KYP_KYPCOMM_KYPPACKET_H
#define KYP_KYPCOMM_KYPPACKET_H

#include "kypcomm/Frame.h"
#include "kypcomm/KypWire.h"
#include "utils/Export.h"

// A request of `len` payload bytes and 29 header bytes, nMsgLen `len` + 21. Takes the words in host
// order and writes them in network order; error, reserved and state are 0. The caller deletes the
// frame's rawData().
KYP_API Frame MakeKypRequestPacket(unsigned short port, unsigned short cmd, unsigned int invokeId,
                                   unsigned int indexGroup, unsigned int indexOffset, void* data,
                                   unsigned int len, unsigned char version);

// The same with both records copied as they stand: their words are in network order already.
KYP_API Frame MakeKypRequestPacket(unsigned short port, _AoEHeader& aoe, AoERequestHeader& req,
                                   void* data, unsigned int len, unsigned char version);
KYP_API Frame MakeKypRequestPacket(unsigned short port, _AoEHeader& aoe, AoERequestHeader& req,
                                   char const* data, unsigned int len, unsigned char version);

// The same in front of what `frame` holds, which grows when its head room is too small. Returns 0.
KYP_API int MakeKypRequestPacketEx(Frame& frame, unsigned short port, _AoEHeader& aoe,
                                   AoERequestHeader& req, char const* data, unsigned int len,
                                   unsigned char version);

// A response of `len` payload bytes and 21 header bytes, nMsgLen `len` + 13. `aoe` is copied as it
// stands. The caller deletes the frame's rawData().
KYP_API Frame MakeKypResponsePacket(unsigned short port, _AoEHeader& aoe, void const* data,
                                    unsigned int len, unsigned char version);

// Copies a header from `cursor` as it stands, moves `cursor` behind it, takes its size from
// `remaining` and stores it through `consumed` (which may be null). Returns 0, or
// KYP_ERR_PACKET_TOO_SHORT with nothing changed.
KYP_API int ParseProtocolAoeHeader(_AoEHeader& header, char const*& cursor, unsigned int& remaining,
                                   unsigned int* consumed);
KYP_API int ParseProtocolAoeRequestHeader(AoERequestHeader& header, char const*& cursor,
                                          unsigned int& remaining, unsigned int* consumed);

// The same, but 8 bytes are enough for its 13: see the source for what a caller then sees.
KYP_API int ParseProtocolKypforwardHeader(_KypforwardHeader& header, char const*& cursor,
                                          unsigned int& remaining, unsigned int* consumed);

// Takes a response apart from behind its _KypHeader: `len` bytes at `buf`. `aoe` receives the
// header in network order. `outLen` is the room at `out` on entry and the bytes copied there on
// return; a longer payload is cut without a word. Returns 0, KYP_ERR_PACKET_TOO_SHORT below 13
// bytes, or the peer's own status, with nothing copied.
KYP_API int ParseKypResponsePacket(void* buf, unsigned int len, _AoEHeader& aoe, void* out,
                                   unsigned int& outLen);

#endif
