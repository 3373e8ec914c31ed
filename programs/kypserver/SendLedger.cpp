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

CSendLedger::Link::Link() = default;
CSendLedger::Link::~Link() = default;

CSendLedger::CSendLedger(CConnections const& connections, size_t maxWaitingBytes)
    : m_connections(connections),
      m_maxWaitingBytes(maxWaitingBytes),
      m_dropped(0),
      m_frames(0),
      m_lastTicket(0) {}

CSendLedger::Offer CSendLedger::offer(IConnection* conn, _KypHeader const& head,
                                      _AoEHeader const& aoe, char const* data, size_t size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Link& link = m_links[conn];
    if (!has_room(link, sizeof head + sizeof aoe + size)) return drop(link);

    std::unique_ptr<CMsgHeader> frame = make_frame(head, aoe, data, size);
    if (frame == nullptr) return drop(link);  // larger than any frame that a peer can have sent
    queue(conn, link, std::move(frame));
    return QUEUED;
}

CSendLedger::Offer CSendLedger::offer(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Link& link = m_links[conn];
    if (!has_room(link, static_cast<size_t>(frame->GetVaildSize()))) return drop(link);

    queue(conn, link, std::move(frame));
    return QUEUED;
}

void CSendLedger::push(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    queue(conn, m_links[conn], std::move(frame));
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

    link.waiting -= link.frames.front().size;
    link.frames.pop_front();
    m_frames.fetch_sub(1, std::memory_order_relaxed);
    if (link.dropped > 0 && link.waiting <= m_maxWaitingBytes / 2) {
        KYP_LOG(LOG_LEVEL_INFO, "client:%s reads again,%lu messages were dropped",
                m_connections.name(conn).c_str(), static_cast<unsigned long>(link.dropped));
        link.dropped = 0;
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
    return found != m_links.end() ? found->second.waiting : 0;
}

size_t CSendLedger::waiting() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t sum = 0;
    for (auto const& [conn, link] : m_links) sum += link.waiting;
    return sum;
}

uint64_t CSendLedger::dropped() const {
    return m_dropped.load(std::memory_order_relaxed);
}

// The caller holds m_mutex.
bool CSendLedger::has_room(Link const& link, size_t size) const {
    size_t const behind = link.frames.empty() ? 0 : link.waiting - link.frames.front().size;
    return behind == 0 || behind + size <= m_maxWaitingBytes;
}

// The caller holds m_mutex.
void CSendLedger::queue(IConnection* conn, Link& link, std::unique_ptr<CMsgHeader> frame) {
    // Noted before it is queued, since it may have left when it is.
    link.frames.push_back({frame->getpBuf(), static_cast<size_t>(frame->GetVaildSize())});
    link.waiting += link.frames.back().size;
    m_frames.fetch_add(1, std::memory_order_relaxed);
    if (link.hold == 0) return send(conn, std::move(frame));
    link.kept.push_back(std::move(frame));
}

// The caller holds m_mutex.
CSendLedger::Offer CSendLedger::drop(Link& link) {
    m_dropped.fetch_add(1, std::memory_order_relaxed);
    return ++link.dropped == 1 ? DROPPED_FIRST : DROPPED;
}

}  // namespace kypserver
