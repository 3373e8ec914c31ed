#include "kypclient/msgrouter/MsgRouter.h"

#include "kypcomm/KypStatus.h"
#include "utils/Log.h"

CMsgPort::CMsgPort() : m_flag(0), m_port(0), m_ctx(nullptr), m_callback(nullptr) {}
CMsgPort::~CMsgPort() = default;

CMsgRouter::CMsgRouter() = default;

CMsgRouter::~CMsgRouter() = default;

int CMsgRouter::addUserMessaggeRouter(unsigned short port,
                                      void (*cb)(unsigned short, char const*, unsigned int, void*),
                                      void* ctx) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ports.emplace(port, CMsgPort{0, port, ctx, cb}).second) {
        KYP_LOG(LOG_LEVEL_ERROR, "port:%d router is already register...", port);
        tlsErrno = KYP_ERR_ROUTE_REGISTERED;
        return tlsErrno;
    }
    return 0;
}

int CMsgRouter::delMessageRouter(unsigned short port) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ports.erase(port) == 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "port:%d router is not register...", port);
        // Kept: a missing route is reported with the code of a route that is there already.
        tlsErrno = KYP_ERR_ROUTE_REGISTERED;
        return tlsErrno;
    }
    return 0;
}

int CMsgRouter::call(_KypHeader const& header, char const* data, unsigned int len, void*) {
    CMsgPort port;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_ports.find(header.port);
        if (found == m_ports.end()) {
            KYP_LOG(LOG_LEVEL_ERROR, "port:%d router is not register...", header.port);
            tlsErrno = KYP_ERR_PORT;
            return tlsErrno;
        }
        port = found->second;
    }
    switch (header.version) {
        case 0:
            return callProtocolV0(port, data, len);
        case kKypVersion:
            return callProtocolV1(port, data, len);
        default:
            return 0;
    }
}

int CMsgRouter::callProtocolV0(CMsgPort const& port, char const* data, unsigned int len) {
    return dataCallback(port, data, len);
}

int CMsgRouter::callProtocolV1(CMsgPort const& port, char const* data, unsigned int len) {
    if (len < sizeof(_AoEHeader)) {
        KYP_LOG(LOG_LEVEL_ERROR, "kyp version 1,dataLen %d < %d", static_cast<int>(len),
                static_cast<int>(sizeof(_AoEHeader)));
        return KYP_ERR_PACKET_TOO_SHORT;
    }
    // The head is dropped unseen: a route learns neither the invoke id nor the status.
    return dataCallback(port, data + sizeof(_AoEHeader),
                        len - static_cast<unsigned int>(sizeof(_AoEHeader)));
}

int CMsgRouter::dataCallback(CMsgPort const& port, char const* data, unsigned int len) {
    if (port.m_callback != nullptr) port.m_callback(port.m_port, data, len, port.m_ctx);
    return 0;
}
