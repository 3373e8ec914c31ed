#include "kypserver/HeldBytes.h"

namespace kypserver {

namespace {

constexpr size_t kRequestHeads = sizeof(_AoEHeader) + sizeof(AoERequestHeader);
constexpr size_t kAnswerHeads = sizeof(_KypHeader) + sizeof(_AoEHeader);

int64_t cost(size_t bytes) {
    return static_cast<int64_t>(bytes + CHeldBytes::kPerMessage);
}

// As a route sees it: a frame that is too short for the heads has none.
size_t payload_of(_KypHeader const& head) {
    auto const length = static_cast<int32_t>(head.nMsgLen);
    auto const heads = static_cast<int32_t>(kRequestHeads);
    return length > heads ? static_cast<size_t>(length - heads) : 0;
}

bool can_have_service(unsigned short port) {
    return port >= kLowestPort && port <= kHighestPort;
}

}  // namespace

CHeldBytes::CHeldBytes(size_t limit) : m_limit(limit) {}

void CHeldBytes::begin(IConnection* conn) {
    Account& own = m_accounts.at(conn);
    own.held.store(0, std::memory_order_relaxed);
    own.portless.clear();
}

bool CHeldBytes::take(IConnection* conn, _KypHeader const& head) {
    Account& own = m_accounts.at(conn);
    size_t const payload = payload_of(head);
    int64_t const held = own.held.load(std::memory_order_relaxed);
    if (held > 0 && held + cost(payload) > static_cast<int64_t>(m_limit)) return false;

    if (!can_have_service(head.port)) own.portless.push_back(payload);
    own.held.fetch_add(cost(payload), std::memory_order_relaxed);
    return true;
}

void CHeldBytes::served(IConnection* conn, size_t payload) {
    add(conn, -cost(payload));
}

void CHeldBytes::answering(IConnection* conn, size_t payload) {
    add(conn, cost(kAnswerHeads + payload));
}

bool CHeldBytes::has_room(IConnection* conn, size_t payload) const {
    size_t const now = held(conn);
    return now == 0 || now + kAnswerHeads + payload + kPerMessage <= m_limit;
}

void CHeldBytes::left(IConnection* conn, unsigned short port, size_t size) {
    if (can_have_service(port)) return add(conn, -cost(size));

    Account* const own = m_accounts.find(conn);
    if (own == nullptr || own->portless.empty()) return;
    // Workers may have answered in another order; in the end the sum is right.
    own->held.fetch_sub(cost(own->portless.front()), std::memory_order_relaxed);
    own->portless.pop_front();
}

size_t CHeldBytes::held(IConnection* conn) const {
    Account const* const own = m_accounts.find(conn);
    int64_t const held = own != nullptr ? own->held.load(std::memory_order_relaxed) : 0;
    return held > 0 ? static_cast<size_t>(held) : 0;
}

size_t CHeldBytes::held() const {
    size_t sum = 0;
    m_accounts.for_each([&sum](Account const& account) {
        int64_t const held = account.held.load(std::memory_order_relaxed);
        if (held > 0) sum += static_cast<size_t>(held);
    });
    return sum;
}

void CHeldBytes::add(IConnection* conn, int64_t bytes) {
    Account* const own = m_accounts.find(conn);
    if (own != nullptr) own->held.fetch_add(bytes, std::memory_order_relaxed);
}

}  // namespace kypserver
