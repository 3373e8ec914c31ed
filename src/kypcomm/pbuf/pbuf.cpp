#include "kypcomm/pbuf/pbuf.h"

#include <cstring>
#include <limits>
#include <new>

pbuf::pbuf(int capacity)
    : m_pooled(false),
      m_capacity(capacity),
      m_raw(new unsigned char[static_cast<std::size_t>(capacity)]),
      m_data(m_raw + capacity),
      m_next(nullptr) {}

pbuf::~pbuf() {
    delete[] m_raw;
}

int pbuf::capacity() {
    return m_capacity;
}

unsigned char* pbuf::rawData() {
    return m_raw;
}

unsigned char* pbuf::data() {
    return m_data;
}

int pbuf::size() {
    return static_cast<int>(m_raw + m_capacity - m_data);
}

long pbuf::freesize() {
    return m_data - m_raw;
}

pbuf& pbuf::remove(unsigned long n) {
    const auto valid = static_cast<unsigned long>(m_raw + m_capacity - m_data);
    m_data += n < valid ? n : valid;
    return *this;
}

int pbuf::pop_front(int n) {
    if (n > 0) remove(static_cast<unsigned long>(n));
    return 0;
}

int pbuf::clear_pbuf() {
    return pop_front(m_capacity);
}

int pbuf::add_pbuf(pbuf* p) {
    pbuf* last = this;
    while (last->m_next != nullptr) last = last->m_next;
    last->m_next = p;
    return 0;
}

pbuf& pbuf::prepend(const void* src, unsigned int len) {
    const long headRoom = freesize();
    if (len <= headRoom) {
        m_data -= len;
        if (len != 0) memcpy(m_data, src, len);
        return *this;
    }

    if (len > static_cast<unsigned int>(std::numeric_limits<int32_t>::max() - m_capacity)) {
        throw std::bad_alloc();
    }
    const int32_t capacity = m_capacity + static_cast<int32_t>(len);
    unsigned char* const block = new unsigned char[static_cast<std::size_t>(capacity)];
    memcpy(block + headRoom + len, m_data, static_cast<std::size_t>(size()));
    memcpy(block + headRoom, src, len);
    // Kept: the content moves, so what rawData() and data() gave before is dead. The block no
    // longer has the capacity of a class, so the pool destroys the buffer on return.
    delete[] m_raw;
    m_pooled = false;
    m_raw = block;
    m_data = block + headRoom;
    m_capacity = capacity;
    return *this;
}
