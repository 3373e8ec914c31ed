#include "kypserver/SendLedger.h"

#include <utility>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/ComponentFrames.h"
#include "kypserver/Connections.h"
#include "utils/Log.h"

namespace kypserver {

namespace {

// Null for more than any buffer holds.
std::unique_ptr<CMsgHeader> make_frame(_KypHeader const& head, _AoEHeader const& aoe,
                                       char const* data, size_t size) {
    size_t const total = sizeof head + sizeof aoe + size;
    pbuf* const buf = take_pbuf(utility::instance<server_bufpool>(), static_cast<int>(total));
    if (buf == nullptr) return nullptr;

    if (size > 0) buf->prepend(data, static_cast<unsigned int>(size));
    buf->prepend(&aoe, sizeof aoe);
    buf->prepend(&head, sizeof head);
    auto frame = std::make_unique<CMsgHeader>(MSG_MODE_SEND, MSG_TYPE_STREAM);
    frame->setpBuf(buf, 0);
    return frame;
}

// A buffer that is filled from the back can go any way; another one needs the queue of a socket.
void send(IConnection* conn, std::unique_ptr<CMsgHeader> frame) {
    if (frame->m_enMode == MSG_MODE_SEND) {
        conn->send_message(frame->pop_pBuf(), {});
        return;
    }
    send_frame(static_cast<CSocketConnection*>(conn), std::move(frame));
}

}  // namespace

size_t CSendLedger::cost(CMsgHeader& frame, Kind kind) {
    auto const size = static_cast<size_t>(frame.GetVaildSize());
    return kind == REQUEST ? size + kPerRequest : size;
}

CSendLedger::Link::Link() = default;
CSendLedger::Link::~Link() = default;

CSendLedger::CSendLedger(CConnections const& connections, size_t maxTopicBytes,
                         size_t maxRequestBytes)
    : m_connections(connections),
      m_most{maxTopicBytes, maxRequestBytes},
      m_dropped(0),
      m_frames(0),
      m_lastTicket(0) {}

CSendLedger::Offer CSendLedger::offer(IConnection* conn, _KypHeader const& head,
                                      _AoEHeader const& aoe, char const* data, size_t size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Link& link = m_links[conn];
    if (!has_room(link, TOPIC, sizeof head + sizeof aoe + size)) return drop(link, TOPIC);

    std::unique_ptr<CMsgHeader> frame = make_frame(head, aoe, data, size);
    // Larger than any frame that a peer can have sent.
    if (frame == nullptr) return drop(link, TOPIC);
    queue(conn, link, TOPIC, std::move(frame));
    return QUEUED;
}

CSendLedger::Offer CSendLedger::offer(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Link& link = m_links[conn];
    if (!has_room(link, REQUEST, cost(*frame, REQUEST))) return drop(link, REQUEST);

    queue(conn, link, REQUEST, std::move(frame));
    return QUEUED;
}

void CSendLedger::push(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    queue(conn, m_links[conn], REQUEST, std::move(frame));
}

uint32_t CSendLedger::hold(IConnection* conn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (++m_lastTicket == 0) ++m_lastTicket;
    m_links[conn].hold = m_lastTicket;
    return m_lastTicket;
}

void CSendLedger::release(IConnection* conn, uint32_t ticket) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_links.find(conn);
    if (found == m_links.end() || found->second.hold != ticket) return;

    Link& link = found->second;
    link.hold = 0;
    for (std::unique_ptr<CMsgHeader>& frame : link.kept) send(conn, std::move(frame));
    link.kept.clear();
}

bool CSendLedger::left(IConnection* conn, pbuf const* buf) {
    if (m_frames.load(std::memory_order_relaxed) == 0) return false;

    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_links.find(conn);
    if (found == m_links.end()) return false;
    Link& link = found->second;
    if (link.frames.empty() || link.frames.front().buf != buf) return false;

    Kind const kind = link.frames.front().kind;
    Lane& lane = link.lanes[kind];
    lane.waiting -= link.frames.front().size;
    link.frames.pop_front();
    m_frames.fetch_sub(1, std::memory_order_relaxed);
    if (lane.dropped > 0 && lane.waiting <= m_most[kind] / 2) {
        KYP_LOG(LOG_LEVEL_INFO, "client:%s reads again,%lu messages were dropped",
                m_connections.name(conn).c_str(), static_cast<unsigned long>(lane.dropped));
        lane.dropped = 0;
    }
    return true;
}

void CSendLedger::closed(IConnection* conn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_links.find(conn);
    if (found == m_links.end()) return;

    m_frames.fetch_sub(found->second.frames.size(), std::memory_order_relaxed);
    m_links.erase(found);
}

size_t CSendLedger::waiting(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_links.find(conn);
    if (found == m_links.end()) return 0;
    return found->second.lanes[TOPIC].waiting + found->second.lanes[REQUEST].waiting;
}

size_t CSendLedger::waiting() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t sum = 0;
    for (auto const& [conn, link] : m_links) {
        sum += link.lanes[TOPIC].waiting + link.lanes[REQUEST].waiting;
    }
    return sum;
}

uint64_t CSendLedger::dropped() const {
    return m_dropped.load(std::memory_order_relaxed);
}

// The caller holds m_mutex.
bool CSendLedger::has_room(Link const& link, Kind kind, size_t size) const {
    bool const isSent = !link.frames.empty() && link.frames.front().kind == kind;
    size_t const behind = link.lanes[kind].waiting - (isSent ? link.frames.front().size : 0);
    return behind == 0 || behind + size <= m_most[kind];
}

// The caller holds m_mutex.
void CSendLedger::queue(IConnection* conn, Link& link, Kind kind,
                        std::unique_ptr<CMsgHeader> frame) {
    // Noted before it is queued, since it may have left when it is.
    link.frames.push_back({frame->getpBuf(), cost(*frame, kind), kind});
    link.lanes[kind].waiting += link.frames.back().size;
    m_frames.fetch_add(1, std::memory_order_relaxed);
    if (link.hold == 0) return send(conn, std::move(frame));
    link.kept.push_back(std::move(frame));
}

// The caller holds m_mutex.
CSendLedger::Offer CSendLedger::drop(Link& link, Kind kind) {
    m_dropped.fetch_add(1, std::memory_order_relaxed);
    return ++link.lanes[kind].dropped == 1 ? DROPPED_FIRST : DROPPED;
}

}  // namespace kypserver
