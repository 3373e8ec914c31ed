#include "kypcomm/pbuf/CMsgHeader.h"

#include <cstring>

#include "utils/FreeList.h"

namespace {

// As many as wait in the queues of a busy server; what exceeds it comes from the heap.
FreeList g_stock(sizeof(CMsgHeader), 1024);

}  // namespace

CMsgHeader::CMsgHeader(EnMsgMode mode, EnMsgType type)
    : m_recvBuf(true),
      m_nInvokeId(0),
      m_enMode(mode),
      m_enType(type),
      m_pConn(nullptr),
      m_nSequence(0) {}

CMsgHeader::~CMsgHeader() = default;

void* CMsgHeader::operator new(std::size_t size) {
    return g_stock.take(size);
}

void CMsgHeader::operator delete(void* block, std::size_t size) {
    g_stock.give(block, size);
}

int CMsgHeader::setpBuf(pbuf* buf, int headroom) {
    if (m_enMode == MSG_MODE_RECV) {
        m_recvBuf.init_pbuf(buf, headroom);
    } else if (m_enMode == MSG_MODE_SEND) {
        m_sendBuf.init_pbuf(buf);
    }
    return 0;
}

pbuf* CMsgHeader::getpBuf() {
    if (m_enMode == MSG_MODE_RECV) return m_recvBuf.m_pbuf;
    if (m_enMode == MSG_MODE_SEND) return m_sendBuf.m_pbuf;
    return nullptr;
}

pbuf* CMsgHeader::pop_pBuf() {
    pbuf* const buf = getpBuf();
    if (m_enMode == MSG_MODE_RECV) {
        m_recvBuf.m_pbuf = nullptr;
        m_recvBuf.m_begin = m_recvBuf.m_end = nullptr;
    } else if (m_enMode == MSG_MODE_SEND) {
        m_sendBuf.m_pbuf = nullptr;
    }
    return buf;
}

unsigned char* CMsgHeader::GetVaildData() {
    if (m_enMode == MSG_MODE_RECV) return m_recvBuf.GetVaildData();
    if (m_enMode == MSG_MODE_SEND) return m_sendBuf.GetVaildData();
    return nullptr;
}

int CMsgHeader::GetVaildSize() {
    if (m_enMode == MSG_MODE_RECV) return m_recvBuf.GetVaildSize();
    if (m_enMode == MSG_MODE_SEND) return m_sendBuf.GetVaildSize();
    return 0;
}

int CMsgHeader::prepend(void const* src, int len) {
    if (m_enMode == MSG_MODE_RECV) return m_recvBuf.prepend(src, len);
    if (m_enMode == MSG_MODE_SEND) return m_sendBuf.prepend(src, len);
    return 0;
}

int CMsgHeader::addRecvBufSize(int n) {
    // Kept: the receive side counts in send mode and in any other mode too.
    m_recvBuf.AddBufSize(n);
    return 0;
}

int CMsgHeader::switch_sendbuf() {
    if (m_enMode != MSG_MODE_RECV || m_recvBuf.m_pbuf == nullptr) return 0;

    // A reader that has run past the end of a short frame leaves nothing to send.
    const int size = m_recvBuf.GetVaildSize() > 0 ? m_recvBuf.GetVaildSize() : 0;
    unsigned char* const valid = m_recvBuf.GetVaildData();
    pbuf* const buf = pop_pBuf();
    buf->m_data = buf->rawData() + buf->capacity() - size;
    memmove(buf->m_data, valid, static_cast<std::size_t>(size));
    m_sendBuf.init_pbuf(buf);
    m_enMode = MSG_MODE_SEND;
    return 0;
}
