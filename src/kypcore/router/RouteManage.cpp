#include "kypcore/router/RouteManage.h"

#include <algorithm>
#include <cstring>

#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/pbuf.h"
#include "kypcore/IConnection.h"
#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

template class utility::Singleton<RouteManage>;

namespace {

constexpr uint8_t kSvrRoute = 0;
constexpr uint8_t kCmpRoute = 1;
constexpr int kErrorResponseTimeoutMs = 1000;

bool is_port(unsigned int port) {
    return port >= kLowestPort && port <= kHighestPort;
}

// Takes `size` bytes off the front of a received message into `head`, which stays as it is when
// the message is shorter. Reading ends at the end of the message in any case.
void take_received(CMsgHeader* msg, void* head, int size) {
    RecvBuf& buf = msg->m_recvBuf;
    const int valid = buf.GetVaildSize();
    if (valid >= size) memcpy(head, buf.GetVaildData(), static_cast<size_t>(size));
    // Kept: the bytes of a head that is not there whole are lost, too.
    buf.m_begin += std::min(size, std::max(valid, 0));
}

// The same for a message in send mode. What the content lacks is read as zero.
void take_sendable(CMsgHeader* msg, void* head, int size) {
    pbuf* const buf = msg->getpBuf();
    if (buf == nullptr) return;
    // Kept: the buffer's capacity decides whether a head is there, and not its content.
    if (static_cast<int>(buf->capacity()) >= size) {
        const int valid = std::min(static_cast<int>(buf->size()), size);
        memset(head, 0, static_cast<size_t>(size));
        if (valid > 0) memcpy(head, buf->data(), static_cast<size_t>(valid));
    }
    buf->remove(static_cast<unsigned long>(size));
}

template <typename Head>
void take_head(CMsgHeader* msg, Head& head) {
    if (msg->m_enMode == MSG_MODE_RECV) take_received(msg, &head, sizeof(head));
    if (msg->m_enMode == MSG_MODE_SEND) take_sendable(msg, &head, sizeof(head));
}

_msg_request make_request(_KypHeader const& header, _AoEHeader const& aoe,
                          AoERequestHeader const& request, IConnection* conn) {
    _msg_request result = {};
    result.version = header.version;
    result.cmd = utils_ntohs(aoe.cmd);
    result.invokeId = utils_ntohl(aoe.invokeId);
    result.indexGroup = utils_ntohl(request.indexGroup);
    result.indexOffset = utils_ntohl(request.indexOffset);
    result.error = utils_ntohl(aoe.error);
    result.conn = conn;
    return result;
}

// The callback is the last field that registration sets and the first that dispatch reads: a port
// that is entered for the first time during traffic is seen whole or not at all.
using AnyRoute = void (*)();

AnyRoute callback_of(PortRegister const& entry) {
    return __atomic_load_n(&entry.m_callback, __ATOMIC_ACQUIRE);
}

void call_svr_route(PortRegister const& entry, unsigned char const* data, int size,
                    _msg_request const& request) {
    AnyRoute const callback = callback_of(entry);
    if (callback == nullptr) return;
    reinterpret_cast<KypSvrRoute>(callback)(entry.m_port, reinterpret_cast<char const*>(data),
                                            static_cast<unsigned int>(std::max(size, 0)), request,
                                            entry.m_ctx);
}

int add_route(RouteManage& routes, unsigned short port, uint8_t type, void (*callback)(),
              void* ctx) {
    if (!is_port(port)) {
        tlsErrno = KYP_ERR_PORT_RESERVED;
        return tlsErrno;
    }
    PortRegister& entry = routes.m_ports[port];
    if (entry.m_bUsed != 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "port:%d router is already register...", port);
        tlsErrno = KYP_ERR_ROUTE_REGISTERED;
        return tlsErrno;
    }
    entry.m_bUsed = 1;
    entry.m_port = port;
    entry.m_ctx = ctx;
    entry.m_type = type;
    __atomic_store_n(&entry.m_callback, callback, __ATOMIC_RELEASE);
    return 0;
}

}  // namespace

PortRegister::PortRegister()
    : m_type(kSvrRoute), m_bUsed(0), m_port(0), m_callback(nullptr), m_ctx(nullptr) {}

PortRegister::~PortRegister() = default;

RouteManage::RouteManage() = default;
RouteManage::~RouteManage() = default;

int RouteManage::addSvrPortRoute(unsigned short port, KypSvrRoute callback, void* ctx) {
    return add_route(*this, port, kSvrRoute, reinterpret_cast<void (*)()>(callback), ctx);
}

int RouteManage::addCmpPortRoute(unsigned short port, KypCmpRoute callback, void* ctx) {
    return add_route(*this, port, kCmpRoute, reinterpret_cast<void (*)()>(callback), ctx);
}

int RouteManage::delPortRoute(unsigned short port) {
    if (!is_port(port)) {
        tlsErrno = KYP_ERR_PORT_RESERVED;
        return tlsErrno;
    }
    // Kept: the route goes on being served until its port is registered anew.
    m_ports[port].m_bUsed = 0;
    return 0;
}

int RouteManage::call(CMsgHeader* msg) {
    _KypHeader header = {0, kKypVersion, 0, 0};
    _AoEHeader aoe = {};
    take_head(msg, header);
    take_head(msg, aoe);
    if (is_port(header.port)) return dataCallback(msg, header, aoe);

    tlsErrno = KYP_ERR_PORT_RANGE;
    ErrorResponse(header, aoe, KYP_ERR_PORT_RANGE, static_cast<IConnection*>(msg->m_pConn));
    return tlsErrno;
}

int RouteManage::dataCallback(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe) {
    if (!is_port(header.port)) {
        tlsErrno = KYP_ERR_PORT_RANGE;
        return tlsErrno;
    }
    KYP_LOG(LOG_LEVEL_TRACE,
            "KypHeader len:%d,port:%d,AoeHeader:error:%d,invokeId:%d,Cmd:%d,State:%d(0:REQ 1:RES)",
            static_cast<int>(header.nMsgLen), static_cast<int>(header.port),
            static_cast<int>(utils_ntohl(aoe.error)), static_cast<int>(utils_ntohl(aoe.invokeId)),
            static_cast<int>(utils_ntohs(aoe.cmd)), static_cast<int>(aoe.state));
    // Kept: the state is not asked, so a response reaches the route like a request.
    PortRegister& entry = m_ports[header.port];
    AnyRoute const callback = callback_of(entry);
    if (entry.m_type == kSvrRoute) {
        AoERequestHeader request = {};
        take_head(msg, request);
        return cbNotifyRequest(msg, header, aoe, request, entry);
    }
    if (callback != nullptr) {
        reinterpret_cast<KypCmpRoute>(callback)(msg, header, aoe, entry.m_ctx);
    }
    return 0;
}

int RouteManage::cbNotifyRequest(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe,
                                 AoERequestHeader& request, PortRegister& entry) {
    // Kept: a request for a port that nobody registered vanishes without an answer.
    call_svr_route(entry, msg->GetVaildData(), msg->GetVaildSize(),
                   make_request(header, aoe, request, msg->m_pConn));
    return 0;
}

int RouteManage::ErrorResponse(_KypHeader const& header, _AoEHeader const& aoe, unsigned int code,
                               void* conn) {
    if (conn == nullptr) return 0;  // came from nowhere: nobody waits

    _AoEHeader answer = {};
    answer.error = utils_htonl(code);
    answer.invokeId = aoe.invokeId;
    answer.cmd = aoe.cmd;
    answer.state = KYP_STATE_RESPONSE;
    static_cast<IConnection*>(conn)->send_message(answer, header.port, nullptr, 0,
                                                  kErrorResponseTimeoutMs);
    return 0;
}

int RouteManage::comp_datacallback(RecvBuf* buf, _KypHeader& header, _AoEHeader& aoe,
                                   AoERequestHeader& request, void* conn) {
    // Without a buffer there is no payload; a bad port is answered all the same.
    unsigned char* const data = buf != nullptr ? buf->GetVaildData() : nullptr;
    const int size = buf != nullptr ? buf->GetVaildSize() : 0;
    return comp_datacallback(data, size, header, aoe, request, conn);
}

int RouteManage::comp_datacallback(unsigned char* data, int size, _KypHeader& header,
                                   _AoEHeader& aoe, AoERequestHeader& request, void* conn) {
    if (!is_port(header.port)) {
        tlsErrno = KYP_ERR_PORT_RANGE;
        KYP_LOG(LOG_LEVEL_ERROR, "port error:%d", static_cast<int>(header.port));
        ErrorResponse(header, aoe, KYP_ERR_PORT_RANGE, conn);
        return tlsErrno;
    }
    KYP_LOG(LOG_LEVEL_TRACE, "port:%d,AoeHeader:error:%d,invokeId:%d,Cmd:%d",
            static_cast<int>(header.port), static_cast<int>(utils_ntohl(aoe.error)),
            static_cast<int>(utils_ntohl(aoe.invokeId)), static_cast<int>(utils_ntohs(aoe.cmd)));
    // Kept: calls the entry as a svr route whatever it was registered as.
    call_svr_route(m_ports[header.port], data, size,
                   make_request(header, aoe, request, static_cast<IConnection*>(conn)));
    return 0;
}
