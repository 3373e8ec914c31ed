#include "kypcomm/pbuf/PeerBuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/pbufpool.h"

namespace {

// A length beyond int would count as negative, and so as the smallest class.
pbuf* take_block(unsigned int length) {
    if (length > static_cast<unsigned int>(std::numeric_limits<int>::max())) return nullptr;
    return take_pbuf(utility::instance<client_bufpool>(), static_cast<int>(length));
}

uint16_t port_of(unsigned char const* frame, unsigned int length) {
    _KypHeader header{};
    memcpy(&header, frame, std::min<std::size_t>(length, sizeof(header)));
    return header.port;
}

}  // namespace

PeerBuffer::PeerBuffer() : m_port(0), m_readPos(0), m_length(0), m_pbuf(nullptr) {}

PeerBuffer::~PeerBuffer() {
    release_buff();
}

int PeerBuffer::add_buff(unsigned char* frame, unsigned int payloadOffset, unsigned int length) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_pbuf != nullptr && length > static_cast<unsigned int>(m_pbuf->capacity())) {
        release_buff();
    }
    if (m_pbuf == nullptr) m_pbuf = take_block(length);
    if (m_pbuf == nullptr) return 0;

    if (length != 0) memcpy(m_pbuf->rawData(), frame, length);
    m_port = port_of(m_pbuf->rawData(), length);
    m_length = length;
    m_readPos = payloadOffset;
    return 0;
}

int PeerBuffer::read_buf(unsigned short* port, unsigned char* dest, unsigned int len) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_readPos >= m_length) return 0;

    if (port != nullptr) *port = m_port;
    const unsigned int count = std::min(len, m_length - m_readPos);
    if (count != 0) memcpy(dest, m_pbuf->rawData() + m_readPos, count);
    m_readPos += count;
    return static_cast<int>(count);
}

int PeerBuffer::release_buff() {
    if (m_pbuf != nullptr) {
        utility::instance<client_bufpool>().put_one_free(m_pbuf);
        m_pbuf = nullptr;
    }
    m_readPos = 0;
    m_length = 0;
    m_port = 0;
    return 0;
}
