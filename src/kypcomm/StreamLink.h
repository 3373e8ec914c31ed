// What every client of a stream of frames does with its link, besides reading and writing it.
#ifndef KYP_SRC_KYPCOMM_STREAMLINK_H
#define KYP_SRC_KYPCOMM_STREAMLINK_H

#include <mutex>

#include "kypcomm/KypWire.h"

class Socket;

// Whether the port and the length of a received head can be those of a frame. If not, the reason is
// logged and left in tlsErrno: KYP_ERR_PORT_RESERVED or KYP_ERR_PACKET_TOO_LONG.
bool is_header_valid(_KypHeader const& header);

// Closes the link when no writer is on it: a descriptor that is closed under a writer may be a
// stranger's by its next send. A writer that waits for room is woken first. Writers hold `writers`
// for the time of a write and take it again to see that the link is gone.
void close_link(Socket& socket, std::mutex& writers);

#endif
