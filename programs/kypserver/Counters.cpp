#include "kypserver/Counters.h"

#include <cstring>

#include "kypcomm/KypWire.h"

namespace kypserver {

namespace {

void add(std::atomic<uint64_t>& counter, uint64_t n = 1) {
    counter.fetch_add(n, std::memory_order_relaxed);
}

uint64_t value(std::atomic<uint64_t> const& counter) {
    return counter.load(std::memory_order_relaxed);
}

}  // namespace

CCounters::CCounters()
    : m_accepted(0),
      m_received(0),
      m_receivedBytes(0),
      m_replies(0),
      m_replyBytes(0),
      m_others(0),
      m_otherBytes(0),
      m_published(0),
      m_otherErrors(0) {
    for (auto& counter : m_dropped) counter.store(0, std::memory_order_relaxed);
    for (Code& entry : m_codes) {
        entry.code.store(0, std::memory_order_relaxed);
        entry.count.store(0, std::memory_order_relaxed);
    }
}

void CCounters::accepted() {
    add(m_accepted);
}

void CCounters::received(size_t size) {
    add(m_received);
    add(m_receivedBytes, size);
}

void CCounters::sent(unsigned char const* frame, size_t size) {
    _AoEHeader aoe = {};
    if (size >= sizeof(_KypHeader) + sizeof aoe) {
        memcpy(&aoe, frame + sizeof(_KypHeader), sizeof aoe);
    }
    bool const isReply = aoe.state == KYP_STATE_RESPONSE;
    add(isReply ? m_replies : m_others);
    add(isReply ? m_replyBytes : m_otherBytes, size);
    if (isReply && aoe.error != 0) error(utils_ntohl(aoe.error));
}

void CCounters::published() {
    add(m_published);
}

void CCounters::dropped(Drop kind) {
    add(m_dropped[kind]);
}

CCounters::Snapshot CCounters::snapshot() const {
    Snapshot now;
    now.accepted = value(m_accepted);
    now.received = value(m_received);
    now.receivedBytes = value(m_receivedBytes);
    now.replies = value(m_replies);
    now.replyBytes = value(m_replyBytes);
    now.others = value(m_others);
    now.otherBytes = value(m_otherBytes);
    now.published = value(m_published);
    for (size_t i = 0; i < now.dropped.size(); ++i) now.dropped[i] = value(m_dropped[i]);
    for (Code const& entry : m_codes) {
        uint32_t const code = entry.code.load(std::memory_order_relaxed);
        if (code == 0) break;
        now.errors[code] = value(entry.count);
    }
    now.otherErrors = value(m_otherErrors);
    return now;
}

// Two threads that meet a new code at the same time end at the same entry, or the later one moves
// on to the next.
void CCounters::error(uint32_t code) {
    for (Code& entry : m_codes) {
        uint32_t known = entry.code.load(std::memory_order_relaxed);
        if (known == 0 && entry.code.compare_exchange_strong(known, code)) known = code;
        if (known == code) return add(entry.count);
    }
    add(m_otherErrors);
}

}  // namespace kypserver
