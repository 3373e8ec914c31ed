// Keeps what comes on one connection in its order, whatever the number of workers.
//
// The library's workers take messages in turn and finish them as they can. The loop thread of a
// connection sees its frames in order, so it gives each one that matters its place in the
// connection's strand as soon as the head is there. A worker that gets a message whose turn has not
// come leaves it in its place and goes on with other work; the worker that finishes the one before
// takes it from there. So nobody waits, and a strand is served by one worker at a time.
//
// Owns:     the messages that wait for their turn.
// Threads:  order() before the loops start, expect() on the connection's loop thread, the rest on
//           any. A strand's lock is never held while a message is served.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_STRANDS_H
#define KYP_PROGRAMS_KYPSERVER_STRANDS_H

#include <bitset>
#include <cstdint>
#include <memory>
#include <mutex>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypserver/ByConnection.h"
#include "kypserver/Ring.h"

namespace kypserver {

class IFrameHandler;

class CStrands {
public:
    // Frames for `port` are kept in order, among each other and with those of all ordered ports.
    void order(unsigned short port);

    // `msg` is being received and has its head: if its port is ordered it gets its place.
    void expect(CMsgHeader* msg, _KypHeader const& head);

    // Has `handler` take `msg` when its turn has come, on this worker or on another; `msg` may be
    // empty when this returns. A message of a connection that has ended is dropped.
    void handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                IFrameHandler& handler);

    // Drops what waits for its turn: `conn` is closing.
    void end(IConnection* conn);

    // Messages of `conn` that have a place and are not served yet.
    size_t waiting(IConnection* conn) const;

private:
    // One place. Empty until a worker has brought its message too early.
    struct Place {
        std::unique_ptr<CMsgHeader> msg;
        _KypHeader head = {};
        _AoEHeader aoe = {};
        IFrameHandler* handler = nullptr;
    };

    struct Strand {
        std::mutex mutex;  // guards the rest
        CRing<Place> places;
        uint32_t first = 0;     // the number of the first place; the others follow
        bool isServed = false;  // a worker is at it

        bool has(uint32_t number) const { return number - first < places.size(); }
        bool finish(uint32_t number, Place& following);
    };

    std::bitset<kHighestPort + 1> m_ordered;
    CByConnection<Strand> m_strands;
};

}  // namespace kypserver

#endif
