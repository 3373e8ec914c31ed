#include "kypserver/SendLedger.h"

#include "kypcomm/pbuf/pbuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/IConnection.h"
#include "kypserver/Connections.h"
#include "utils/Log.h"

namespace kypserver {

namespace {

pbuf* make_frame(_KypHeader const& head, _AoEHeader const& aoe, char const* data, size_t size) {
    size_t const total = sizeof head + sizeof aoe + size;
    pbuf* const buf = take_pbuf(utility::instance<server_bufpool>(), static_cast<int>(total));
    if (buf == nullptr) return nullptr;

    if (size > 0) buf->prepend(data, static_cast<unsigned int>(size));
    buf->prepend(&aoe, sizeof aoe);
    buf->prepend(&head, sizeof head);
    return buf;
}

}  // namespace

CSendLedger::CSendLedger(CConnections const& connections, size_t maxWaitingBytes)
    : m_connections(connections), m_maxWaitingBytes(maxWaitingBytes), m_dropped(0), m_frames(0) {}

CSendLedger::Offer CSendLedger::offer(IConnection* conn, _KypHeader const& head,
                                      _AoEHeader const& aoe, char const* data, size_t size) {
    size_t const total = sizeof head + sizeof aoe + size;
    std::lock_guard<std::mutex> lock(m_mutex);
    Link& link = m_links[conn];
    size_t const behind = link.frames.empty() ? 0 : link.waiting - link.frames.front().size;
    if (behind > 0 && behind + total > m_maxWaitingBytes) return drop(link);

    pbuf* const buf = make_frame(head, aoe, data, size);
    if (buf == nullptr) return drop(link);  // larger than any frame that a peer can have sent

    // Noted before it is queued, since it may have left when send_message() returns.
    link.frames.push_back({buf, total});
    link.waiting += total;
    m_frames.fetch_add(1, std::memory_order_relaxed);
    conn->send_message(buf, aoe);
    return QUEUED;
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

uint64_t CSendLedger::dropped() const {
    return m_dropped.load(std::memory_order_relaxed);
}

// The caller holds m_mutex.
CSendLedger::Offer CSendLedger::drop(Link& link) {
    m_dropped.fetch_add(1, std::memory_order_relaxed);
    return ++link.dropped == 1 ? DROPPED_FIRST : DROPPED;
}

}  // namespace kypserver
