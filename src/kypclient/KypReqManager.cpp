#include "kypclient/KypReqManager.h"

#include "kypclient/KypPeerConn.h"
#include "libkyp/libkyp.h"

CKypReqManager::CKypReqManager() = default;

CKypReqManager::~CKypReqManager() = default;

IKypPeerConnection* CKypReqManager::GetConnection(_KypDeviceId& id) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const entry = m_connections.find(id);
        if (entry != m_connections.end()) return entry->second;
    }
    // Connecting takes its time, so the lock is not held. Two threads that miss together make two
    // connections, and the later one serves from here on.
    auto* const conn = static_cast<IKypPeerConnection*>(libkyp_createInstance(&id, KYP_CONN_TCP));
    if (conn == nullptr) return nullptr;
    (void)conn->start();

    std::lock_guard<std::mutex> lock(m_mutex);
    // Kept: the entry stays when the connection is released, and is then not to be used.
    m_connections[id] = conn;
    return conn;
}
