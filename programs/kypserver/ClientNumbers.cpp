#include "kypserver/ClientNumbers.h"

namespace kypserver {

namespace {

constexpr size_t kNumbers = 65536;

}  // namespace

CClientNumbers::CClientNumbers() : m_numbers(kNumbers), m_last(0) {}

uint16_t CClientNumbers::take(CSocketConnection* client, time_t now, bool* wasResting) {
    uint16_t found = 0;
    for (size_t i = 1; i < kNumbers; ++i) {
        // Behind the last one and round the end, past 0.
        auto const number = static_cast<uint16_t>((m_last + i - 1) % (kNumbers - 1) + 1);
        Number const& entry = m_numbers[number];
        if (entry.owner != nullptr) continue;
        if (!entry.isResting) {
            found = number;
            break;
        }
        if (now - entry.since < kLongestRest) continue;
        if (found == 0 || entry.since < m_numbers[found].since) found = number;
    }
    if (found == 0) return 0;

    *wasResting = m_numbers[found].isResting;
    m_numbers[found] = {client, false, 0};
    m_last = found;
    return found;
}

CSocketConnection* CClientNumbers::owner(uint16_t number) const {
    return m_numbers[number].owner;
}

void CClientNumbers::rest(uint16_t number, time_t now) {
    m_numbers[number] = {nullptr, true, now};
}

void CClientNumbers::release(uint16_t number) {
    m_numbers[number] = {};
}

}  // namespace kypserver
