#include "kypserver/Strands.h"

#include <utility>

#include "kypcore/SocketConnection.h"
#include "kypserver/ComponentFrames.h"
#include "kypserver/FrameHandler.h"

namespace kypserver {

namespace {

constexpr size_t kFirstPlaces = 8;

}  // namespace

void CStrands::order(unsigned short port) {
    m_ordered.set(port);
}

// A received message has no other use for m_nInvokeId than to carry its place.
void CStrands::expect(CMsgHeader* msg, _KypHeader const& head) {
    if (head.port > kHighestPort || !m_ordered.test(head.port)) return;

    Strand& strand = m_strands.at(msg->m_pConn);
    std::lock_guard<std::mutex> lock(strand.mutex);
    if (strand.next - strand.first == strand.ring.size()) strand.grow();
    msg->m_nInvokeId = strand.next++;
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
        strand->place(number) = {take_over(msg), head, aoe, &handler};
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

    std::vector<Place> dropped;
    std::lock_guard<std::mutex> lock(strand->mutex);
    dropped.swap(strand->ring);
    strand->first = strand->next;
}

size_t CStrands::waiting(IConnection* conn) const {
    Strand* const strand = m_strands.find(conn);
    if (strand == nullptr) return 0;

    std::lock_guard<std::mutex> lock(strand->mutex);
    return strand->next - strand->first;
}

void CStrands::Strand::grow() {
    std::vector<Place> larger(ring.empty() ? kFirstPlaces : 2 * ring.size());
    for (uint32_t number = first; number != next; ++number) {
        larger[number & (larger.size() - 1)] = std::move(place(number));
    }
    ring.swap(larger);
}

// The message at `number` has been served. Gives the following one if it has come already. The
// strand may have been emptied meanwhile; then `number` is no longer in it.
bool CStrands::Strand::finish(uint32_t number, Place& following) {
    if (has(number)) first = number + 1;
    isServed = first != next && place(first).msg != nullptr;
    if (isServed) following = std::move(place(first));
    return isServed;
}

}  // namespace kypserver
