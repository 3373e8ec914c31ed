// One request and its answer over UDP, without a connection.
//
// Owns:    nothing; the caller's blocks are read and written during the call only.
// Threads: any, several at once. A call waits on the caller's thread.
#ifndef KYP_KYPCOMM_UDPEXCHANGE_H
#define KYP_KYPCOMM_UDPEXCHANGE_H

#include "kypcomm/KypWire.h"
#include "utils/Export.h"

// Sends one request to UDP port 38898 of `host` and waits up to `timeoutMs` for one datagram.
//
// port    the logical port in the frame
// req     in network order
// in      `inLen` bytes of payload; may be null with 0
// out     receives the answer's payload, cut to `outLen`; how much came is not told
//
// Returns 0, the peer's status, or a code of its own: 0x1011 not sent and 0x1008 no answer in time,
// both also in tlsErrno; 0x1010 the frame does not fit its datagram, 0x100c it is too short, 0x1013
// it answers another request, with tlsErrno untouched. There is no second try, and a stray datagram
// ends the exchange. Each call costs the process one descriptor. Any thread.
KYP_API int UdpSendRecv(char const* host, unsigned short port, unsigned short cmd,
                        AoERequestHeader& req, void* in, unsigned int inLen, void* out,
                        unsigned int outLen, int timeoutMs);

#endif
