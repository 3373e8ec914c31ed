#include "kypcomm/ivshm/VClient.h"

VClient::VClient() : m_id(0) {}

VClient::~VClient() = default;

unsigned short VClient::Open(unsigned short id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_id.store(id, std::memory_order_relaxed);
    return id;
}

void VClient::Close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_id.store(0, std::memory_order_relaxed);
}

bool VClient::IsOpen() {
    return m_id.load(std::memory_order_relaxed) != 0;
}
