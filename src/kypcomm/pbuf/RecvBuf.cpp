#include "kypcomm/pbuf/RecvBuf.h"

#include <cstring>

#include "kypcomm/pbuf/pbufpool.h"

RecvBuf::RecvBuf(bool isServer)
    : m_isServer(isServer), m_begin(nullptr), m_end(nullptr), m_pbuf(nullptr) {}

RecvBuf::~RecvBuf() {
    if (m_pbuf == nullptr) return;
    if (m_isServer) {
        utility::instance<server_bufpool>().put_one_free(m_pbuf);
    } else {
        utility::instance<client_bufpool>().put_one_free(m_pbuf);
    }
}

unsigned char* RecvBuf::init_pbuf(pbuf* p, int headRoom) {
    m_pbuf = p;
    m_begin = m_end = p->rawData() + headRoom;
    return m_begin;
}

void RecvBuf::AddBufSize(int n) {
    m_end += n;
}

unsigned char* RecvBuf::GetVaildData() {
    return m_begin;
}

int RecvBuf::GetVaildSize() {
    return static_cast<int>(m_end - m_begin);
}

int RecvBuf::GetBuffCapacity() {
    return m_pbuf->capacity();
}

// Kept: neither of the two looks at the ends of the block; the caller has left room.
int RecvBuf::prepend(const void* src, int len) {
    m_begin -= len;
    if (len != 0) memcpy(m_begin, src, static_cast<std::size_t>(len));
    return 0;
}

int RecvBuf::pushback(const void* src, int len) {
    if (len != 0) memcpy(m_end, src, static_cast<std::size_t>(len));
    m_end += len;
    return 0;
}
