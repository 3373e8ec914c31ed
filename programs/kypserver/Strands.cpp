#include "kypserver/Strands.h"

#include <utility>

#include "kypcore/SocketConnection.h"
#include "kypserver/ComponentFrames.h"
#include "kypserver/FrameHandler.h"

namespace kypserver {

void CStrands::order(unsigned short port) {
    m_ordered.set(port);
}

// A received message has no other use for m_nInvokeId than to carry its place.
void CStrands::expect(CMsgHeader* msg, _KypHeader const& head) {
    if (head.port > kHighestPort || !m_ordered.test(head.port)) return;

    Strand& strand = m_strands.at(msg->m_pConn);
    std::lock_guard<std::mutex> lock(strand.mutex);
    msg->m_nInvokeId = strand.first + static_cast<uint32_t>(strand.places.size());
    strand.places.push_back({});
}

void CStrands::handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                      IFrameHandler& handler) {
    // Datagrams have no order that anybody could rely on.
    if (msg.m_enType == MSG_TYPE_DATAGRAM) return handler.handle(msg, head, aoe);

    Strand* const strand = m_strands.find(msg.m_pConn);
    if (strand == nullptr) return;
    uint32_t number = msg.m_nInvokeId;
    std::unique_lock<std::mutex> lock(strand->mutex);
    if (!strand->has(number)) return;
    if (number != strand->first || strand->isServed) {
        strand->places[number - strand->first] = {take_over(msg), head, aoe, &handler};
        return;
    }

    strand->isServed = true;
    lock.unlock();
    handler.handle(msg, head, aoe);
    lock.lock();
    Place following;
    while (strand->finish(number, following)) {
        number = following.msg->m_nInvokeId;
        lock.unlock();
        following.handler->handle(*following.msg, following.head, following.aoe);
        following.msg.reset();
        lock.lock();
    }
}

void CStrands::end(IConnection* conn) {
    Strand* const strand = m_strands.find(conn);
    if (strand == nullptr) return;

    CRing<Place> dropped;
    std::lock_guard<std::mutex> lock(strand->mutex);
    strand->first += static_cast<uint32_t>(strand->places.size());
    std::swap(dropped, strand->places);
}

size_t CStrands::waiting(IConnection* conn) const {
    Strand* const strand = m_strands.find(conn);
    if (strand == nullptr) return 0;

    std::lock_guard<std::mutex> lock(strand->mutex);
    return strand->places.size();
}

// The message at `number` has been served. Gives the following one if it has come already. The
// strand may have been emptied meanwhile; then `number` is no longer in it.
bool CStrands::Strand::finish(uint32_t number, Place& following) {
    if (has(number)) {
        places.pop_front();
        ++first;
    }
    isServed = !places.empty() && places.front().msg != nullptr;
    if (isServed) following = std::move(places.front());
    return isServed;
}

}  // namespace kypserver
