// Counts what waits in the library's send queues, and with that bounds what a peer who does not
// read can make the server hold.
//
// The library's queues have no limit and tell nobody how long they are. The ledger remembers every
// frame that it has put into one, in order; the endpoint tells it when a frame has left.
//
// Owns:     its own lists only; a frame belongs to the library from the moment of queueing.
// Threads:  offer() and closed() from any; left() on the loop thread that has sent the frame. The
//           lock spans the queueing, so that list and queue have one order; it is outside the
//           library's locks.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_SENDLEDGER_H
#define KYP_PROGRAMS_KYPSERVER_SENDLEDGER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kypcomm/KypWire.h"
#include "kypserver/Ring.h"

class CMsgHeader;
class CSocketConnection;
class IConnection;
class pbuf;

namespace kypserver {

class CConnections;

class CSendLedger {
public:
    // Counted for each request beside its bytes, for what it costs to keep one.
    static constexpr size_t kPerRequest = 512;

    // At most `maxTopicBytes` of topic messages and `maxRequestBytes` of requests wait for one
    // connection, or one of each if that is larger. The first frame does not count: it is being
    // sent, and a peer that has answered it already may still find it here.
    CSendLedger(CConnections const& connections, size_t maxTopicBytes, size_t maxRequestBytes);

    enum Offer {
        QUEUED,
        DROPPED_FIRST,  // too much waits already, which is news
        DROPPED,        // the same, in a burst that has begun before
    };

    // Queues a topic message of `head`, `aoe` and `size` bytes of `data` on `conn`, which cannot
    // close meanwhile, or drops it. A burst of drops is over when half of what may wait has left.
    Offer offer(IConnection* conn, _KypHeader const& head, _AoEHeader const& aoe, char const* data,
                size_t size);

    // The same for a request, a whole frame that is ready to be queued.
    Offer offer(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame);

    // Queues a request that must not be dropped, however much waits.
    void push(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame);

    // From now on frames for `conn` are kept here in their order, and count as waiting, until
    // release() with the ticket that this returns; a later hold() makes the ticket void.
    uint32_t hold(IConnection* conn);
    void release(IConnection* conn, uint32_t ticket);

    // The frame in `buf` has left towards `conn` whole. Returns false when it was queued by
    // somebody else.
    bool left(IConnection* conn, pbuf const* buf);

    // Forgets what waits for `conn`, which is closing.
    void closed(IConnection* conn);

    // What has been queued for `conn` and has not left, the frame being sent included.
    size_t waiting(IConnection* conn) const;
    size_t waiting() const;    // for all connections
    uint64_t dropped() const;  // frames of all connections since the start

private:
    enum Kind { TOPIC, REQUEST };
    struct Frame {
        pbuf const* buf;  // known by its address; not owned and never followed
        size_t size;      // as it counts
        Kind kind;
    };
    struct Lane {
        size_t waiting = 0;    // of one kind in `frames`, with the first
        uint64_t dropped = 0;  // frames of the present burst, 0 outside one
    };
    struct Link {
        Link();
        ~Link();

        CRing<Frame> frames;  // in the order of the connection's queue, then those kept here
        Lane lanes[2];        // by Kind
        uint32_t hold = 0;    // the ticket of hold(), 0 while frames go their way
        std::vector<std::unique_ptr<CMsgHeader>> kept;
    };

    static size_t cost(CMsgHeader& frame, Kind kind);
    bool has_room(Link const& link, Kind kind, size_t size) const;
    void queue(IConnection* conn, Link& link, Kind kind, std::unique_ptr<CMsgHeader> frame);
    Offer drop(Link& link, Kind kind);

    CConnections const& m_connections;
    size_t const m_most[2];  // bytes that may wait, by Kind
    std::atomic<uint64_t> m_dropped;
    std::atomic<size_t> m_frames;  // in all links; spares left() the lock while there are none
    mutable std::mutex m_mutex;    // guards what follows
    std::unordered_map<IConnection*, Link> m_links;
    uint32_t m_lastTicket;
};

}  // namespace kypserver

#endif
