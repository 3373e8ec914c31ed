#include "topics/Deliveries.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "common/Sockets.h"

namespace {

int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

void write_stamp(std::vector<char>& payload, int64_t stamp) {
    memcpy(payload.data(), &stamp, sizeof stamp);
}

}  // namespace

Deliveries::Deliveries(std::size_t subscribers, std::size_t timed) : m_subscribers(subscribers) {
    for (Subscriber& subscriber : m_subscribers) subscriber.times.reserve(timed);
}

void Deliveries::stamp(std::vector<char>& payload) {
    write_stamp(payload, now());
}

void Deliveries::stamp_as_probe(std::vector<char>& payload) {
    write_stamp(payload, 0);
}

void Deliveries::arrived(std::size_t number, char const* payload) {
    Subscriber& subscriber = m_subscribers[number];
    int64_t published = 0;
    memcpy(&published, payload, sizeof published);
    if (published == 0) {
        subscriber.isThere = true;
        return;
    }
    if (m_keepTimes && subscriber.times.size() < subscriber.times.capacity()) {
        subscriber.times.push_back(now() - published);
    }
    if (++m_count < m_awaited) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_reached.notify_one();
}

bool Deliveries::all_are_there() const {
    return std::all_of(m_subscribers.begin(), m_subscribers.end(),
                       [](Subscriber const& subscriber) { return subscriber.isThere.load(); });
}

void Deliveries::wait_for(uint64_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_awaited = count;
    if (!m_reached.wait_for(lock, std::chrono::seconds(5), [&] { return m_count >= count; })) {
        fail("a message was not delivered");
    }
    m_awaited = UINT64_MAX;
}

Samples Deliveries::times() const {
    Samples all;
    for (Subscriber const& subscriber : m_subscribers) {
        for (int64_t const time : subscriber.times) all.add(time);
    }
    return all;
}
