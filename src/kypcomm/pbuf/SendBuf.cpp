#include "kypcomm/pbuf/SendBuf.h"

#include "kypcomm/pbuf/pbufpool.h"

SendBuf::SendBuf() : m_pbuf(nullptr) {}

SendBuf::~SendBuf() {
    if (m_pbuf != nullptr) utility::instance<server_bufpool>().put_one_free(m_pbuf);
}

void SendBuf::init_pbuf(pbuf* p) {
    // Kept: an earlier buffer is not given back; a caller that has not taken it loses it.
    m_pbuf = p;
}

unsigned char* SendBuf::GetVaildData() {
    return m_pbuf != nullptr ? m_pbuf->data() : nullptr;
}

int SendBuf::GetVaildSize() {
    return m_pbuf != nullptr ? m_pbuf->size() : 0;
}

int SendBuf::prepend(const void* src, int len) {
    if (m_pbuf != nullptr && len > 0) m_pbuf->prepend(src, static_cast<unsigned int>(len));
    return 0;
}
