// What takes a whole message from a worker: the frame of one logical port, its first two heads
// read.
//
// Threads:  handle() runs on every worker at once, for one connection's ordered ports one after the
//           other (CStrands).
// Lifetime: outlives the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_FRAMEHANDLER_H
#define KYP_PROGRAMS_KYPSERVER_FRAMEHANDLER_H

#include "kypcomm/KypWire.h"

class CMsgHeader;

namespace kypserver {

class IFrameHandler {
public:
    virtual ~IFrameHandler() = default;

    // `msg` stands behind `head` and `aoe`. It is the caller's; its buffer may be taken out. Must
    // not wait for another peer.
    virtual void handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe) = 0;
};

}  // namespace kypserver

#endif
