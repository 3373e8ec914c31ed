#include "kypcomm/Frame.h"

#include <cstring>
#include <limits>
#include <new>

namespace {

// An empty payload has no address worth looking at.
void copy_bytes(unsigned char* dest, void const* src, unsigned int len) {
    if (len != 0) memcpy(dest, src, len);
}

}  // namespace

Frame::Frame(unsigned int size, void const* init)
    : m_raw(new unsigned char[size]),
      m_data(m_raw + size),
      m_capacity(size),
      m_reserved(0),
      m_size(size) {
    if (init == nullptr) return;
    m_data = m_raw;
    copy_bytes(m_data, init, size);
}

unsigned int Frame::capacity() const {
    return m_capacity;
}

unsigned char* Frame::data() const {
    return m_data;
}

unsigned char* Frame::rawData() const {
    return m_raw;
}

unsigned int Frame::size() const {
    return m_capacity - static_cast<unsigned int>(m_data - m_raw);
}

Frame& Frame::prepend(void const* src, unsigned int len) {
    const auto headRoom = static_cast<unsigned int>(m_data - m_raw);
    if (len <= headRoom) {
        m_data -= len;
        copy_bytes(m_data, src, len);
        return *this;
    }

    if (len > std::numeric_limits<uint32_t>::max() - m_capacity) throw std::bad_alloc();
    // The head room is not used up: all of `len` is new, and the old bytes end at the new end.
    unsigned char* const block = new unsigned char[m_capacity + len];
    memcpy(block + headRoom + len, m_data, size());
    memcpy(block + headRoom, src, len);
    delete[] m_raw;
    m_raw = block;
    m_data = block + headRoom;
    m_capacity += len;
    m_size += len;
    return *this;
}

Frame& Frame::remove(unsigned int n) {
    m_data += n < size() ? n : size();
    return *this;
}

Frame& Frame::clear() {
    return remove(size());
}
