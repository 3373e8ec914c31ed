#include "libkyp/libkyp.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <sstream>
#include <string>

#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypPeerConn.h"
#include "kypclient/KypScanClient.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypLibInit.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/UdpExchange.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "utils/Log.h"
#include "utils/comm.h"

namespace {

constexpr int kDefaultConnectTimeoutMs = 1500;
constexpr int kLowestReconnectTimeoutMs = 50;
constexpr size_t kAnswerSize = 1024;
constexpr int kDeviceIdFields = 6;

std::once_flag g_initOnce;

CPeerConnMgr& manager() {
    return utility::instance<CPeerConnMgr>();
}

// The connection behind `handle`, or null with the status set.
IKypPeerConnection* find_connection(void* handle) {
    IKypPeerConnection* conn = manager().GetPeerConnection(handle);
    if (conn == nullptr) tlsErrno = KYP_ERR_HANDLE;
    return conn;
}

int refuse(int status) {
    tlsErrno = status;
    return status;
}

_KypPayload make_payload(uint16_t cmd, unsigned int indexGroup, unsigned int indexOffset,
                         void const* data, unsigned int len) {
    _KypPayload payload{};
    payload.cmd = cmd;
    payload.indexGroup = indexGroup;
    payload.indexOffset = indexOffset;
    payload.length = len;
    payload.data = const_cast<void*>(data);  // only ever read
    return payload;
}

AoERequestHeader make_request_header(uint32_t indexGroup, uint32_t indexOffset) {
    AoERequestHeader header{};
    header.indexGroup = utils_htonl(indexGroup);
    header.indexOffset = utils_htonl(indexOffset);
    return header;
}

std::string id_text(_KypDeviceId const& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

// Counts the fields as the parser reads them: a dot at the end opens none.
bool has_device_id_fields(char const* text) {
    std::istringstream stream(text);
    std::string field;
    int fields = 0;
    while (fields <= kDeviceIdFields && std::getline(stream, field, '.')) ++fields;
    return fields == kDeviceIdFields;
}

void route_device(_KypDeviceId const& id, char const* host) {
    (void)utility::instance<CRouterTable>().AddDeviceId2RouterTable(id, host);
}

void start_library() {
    KYP_LOG(LOG_LEVEL_NOTICE, "libkyp Version %d.%d.%d", KYP_VERSION_MAJOR, KYP_VERSION_MINOR,
            KYP_VERSION_PATCH);
    KYP_LOG(LOG_LEVEL_NOTICE, "libkyp Compile Time:%s", CComm::GetCompileTime().c_str());
    tlsErrno = KYP_OK;
    SetLogLevel(LOG_LEVEL_DEBUG);
    (void)utility::instance<client_bufpool>().init_bufpool();
    (void)utility::instance<CKypLibInit>();  // its constructor determines the device id
    (void)utility::instance<CKypScanClient>().start();
}

}  // namespace

int libkyp_version(int* major, int* minor, int* patch) {
    tlsErrno = KYP_OK;
    *major = KYP_VERSION_MAJOR;
    *minor = KYP_VERSION_MINOR;
    *patch = KYP_VERSION_PATCH;
    return 0;
}

int libkyp_get_errno() {
    return tlsErrno;
}

char const* libkyp_strerror(int code) {
    return LibkypGetErrorString(code);
}

int libkyp_init() {
    // Kept: does nothing behind libkyp_destory either; the pool then allocates as it is asked.
    std::call_once(g_initOnce, start_library);
    return 0;
}

int libkyp_destory() {
    tlsErrno = KYP_OK;
    manager().ClearPeerConnection();
    (void)utility::instance<client_bufpool>().free_buf_list();
    return 0;
}

void* libkyp_createInstanceEx(_KypDeviceId* id, int connType, int timeoutMs, KypConnEvent event,
                              void* ctx) {
    tlsErrno = KYP_OK;
    switch (connType) {
        case KYP_CONN_TCP: {
            if (id == nullptr) {
                tlsErrno = KYP_ERR_PARAM;
                return nullptr;
            }
            KypTcpConnInfo info{*id, event, ctx};
            return manager().CreateFactoryConnection(connType, &info, sizeof(info), timeoutMs);
        }
        case KYP_CONN_DOMAIN:
        case KYP_CONN_DOMAIN_ALIAS: {
            KypDomainConnInfo info{event, ctx};
            return manager().CreateFactoryConnection(connType, &info, sizeof(info), timeoutMs);
        }
        case KYP_CONN_IVSHM:
            tlsErrno = KYP_ERR_PROTOCOL;
            return nullptr;
        case KYP_CONN_NONE:
            tlsErrno = KYP_ERR_PROTOCOL;
            // Kept: callers see "unknown conntype" here, as for a number that means nothing.
            [[fallthrough]];
        default:
            tlsErrno = KYP_ERR_CONN_TYPE;
            return nullptr;
    }
}

void* libkyp_createInstance(_KypDeviceId* id, int connType) {
    return libkyp_createInstanceEx(id, connType, kDefaultConnectTimeoutMs, nullptr, nullptr);
}

void* libkyp_createInstanceV2(int connType, void* info, int infoSize, int timeoutMs) {
    // Kept: the status of an earlier call still stands after a success.
    return manager().CreateFactoryConnection(connType, info, infoSize, timeoutMs);
}

int libkyp_releaseInstance(void* handle) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = manager().GetPeerConnection(handle);
    if (conn != nullptr) manager().DelPeerConnection(conn);
    // Kept: reports an unknown handle also when the connection was released; callers expect it.
    return refuse(KYP_ERR_HANDLE);
}

int libkyp_reconnect_delay_set(void* handle, int intervalSec) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    if (conn == nullptr) return KYP_ERR_HANDLE;
    conn->set_reconnect_event(intervalSec, true);
    return 0;
}

int libkyp_reconnect(void* handle, int timeoutMs) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    // Kept: an unknown handle gives what a failed attempt gives; only the status tells them apart.
    if (conn == nullptr) return 0;
    return conn->reconnect(std::max(timeoutMs, kLowestReconnectTimeoutMs));
}

int libkyp_loop_start(void* handle) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    return conn == nullptr ? KYP_ERR_HANDLE : conn->start();
}

int libkyp_loop_stop(void* handle) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    return conn == nullptr ? KYP_ERR_HANDLE : conn->stop();
}

int libkyp_sync_send(void* handle, unsigned short port, unsigned int indexGroup,
                     unsigned int indexOffset, void* data, unsigned int len, int timeoutMs) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    if (conn == nullptr) return -1;
    if (data == nullptr && len > 0) {
        tlsErrno = KYP_ERR_INPUT_PARAM;
        return -1;
    }
    return conn->send_request_packet(
        port, make_payload(KYP_CMD_READ_WRITE, indexGroup, indexOffset, data, len), timeoutMs);
}

int libkyp_sync_recv(void* handle, unsigned short* port, char* buf, int len, int timeoutMs) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    if (conn == nullptr) return -1;
    if (len < 0 || (buf == nullptr && len > 0)) {
        tlsErrno = KYP_ERR_INPUT_PARAM;
        return -1;
    }
    unsigned short unwanted = 0;
    return conn->raw_recv(port == nullptr ? &unwanted : port, buf, len, timeoutMs);
}

int libkyp__registerRouterEvent(void* handle, unsigned short port, KypRouteCallback cb, void* ctx) {
    tlsErrno = KYP_OK;
    if (port <= kHighestReservedPort) return refuse(KYP_ERR_PORT_RESERVED);
    IKypPeerConnection* conn = find_connection(handle);
    return conn == nullptr ? KYP_ERR_HANDLE : conn->add_router(port, cb, ctx);
}

int libkyp__unregisterRouterEvent(void* handle, unsigned short port) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    // Kept: takes away any route, the connection's own one of port 103 too.
    return conn == nullptr ? KYP_ERR_HANDLE : conn->del_router(port);
}

int libkyp_publish(void* handle, unsigned int indexGroup, unsigned int indexOffset,
                   char const* topic, char const* data, unsigned int len) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    if (conn == nullptr) return KYP_ERR_HANDLE;
    if (data == nullptr && len > 0) return refuse(KYP_ERR_INPUT_PARAM);
    return conn->publish(topic, make_payload(KYP_CMD_PUBLISH, indexGroup, indexOffset, data, len));
}

int libkyp_subscribe(void* handle, char const* topic, KypTopicCallback cb, void* ctx) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    return conn == nullptr ? KYP_ERR_HANDLE : conn->subscribe(topic, cb, ctx);
}

int libkyp_unsubscribe(void* handle, char const* topic) {
    tlsErrno = KYP_OK;
    IKypPeerConnection* conn = find_connection(handle);
    return conn == nullptr ? KYP_ERR_HANDLE : conn->unsubscribe(topic);
}

int libkyp_makeKypDeviceId(char const* text, _KypDeviceId* out) {
    tlsErrno = KYP_OK;
    int error = KYP_OK;
    _KypDeviceId const id = make_KypDeviceId(text == nullptr ? "" : text, &error);
    if (out != nullptr) *out = id;
    return error;
}

int libkyp_makeKypDeviceAddr(char const* text, unsigned short port, _KypDeviceAddr* out) {
    tlsErrno = KYP_OK;
    if (text == nullptr) text = "";
    int error = KYP_OK;
    _KypDeviceId const id = make_KypDeviceId(text, &error);
    if (error != KYP_OK) return error;
    // Kept: bad text reports 0 like good text; an untouched `out` is the only sign.
    if (out == nullptr || !has_device_id_fields(text)) return error;
    out->deviceId = id;
    out->port = port;
    return error;
}

int libkyp_getRemoteKypDeviceId(char const* host, int timeoutMs, _KypDeviceId* out) {
    tlsErrno = KYP_OK;
    if (out == nullptr || host == nullptr) return refuse(KYP_ERR_INPUT_PARAM);

    AoERequestHeader request = make_request_header(kReadIdGroup, kReadIdOffset);
    char answer[kAnswerSize] = {};
    int const status = UdpSendRecv(host, kPortDeviceId, KYP_CMD_READ_DEVICE_ID, request, nullptr, 0,
                                   answer, sizeof(answer), timeoutMs);
    if (status != KYP_OK) return status;

    // An answer shorter than an id leaves the rest of it zero.
    std::memcpy(out, answer, sizeof(*out));
    KYP_LOG(LOG_LEVEL_DEBUG, "get remote:%s DeviceId:%s", host, id_text(*out).c_str());
    route_device(*out, host);
    return 0;
}

int libkyp_setRemoteKypDeviceId(char const* host, char const* deviceIdText, int timeoutMs) {
    tlsErrno = KYP_OK;
    if (host == nullptr || deviceIdText == nullptr) return refuse(KYP_ERR_INPUT_PARAM);

    int error = KYP_OK;
    // Kept: bad text is the id 0.0.0.0.0.0 and is assigned as such.
    _KypDeviceId id = make_KypDeviceId(deviceIdText, &error);
    if (error != KYP_OK) return refuse(error);

    AoERequestHeader request = make_request_header(kSetIdGroup, kSetIdOffset);
    int const status = UdpSendRecv(host, kPortDeviceId, KYP_CMD_SET_DEVICE_ID, request, &id,
                                   sizeof(id), nullptr, 0, timeoutMs);
    if (status != KYP_OK) return status;
    route_device(id, host);
    return 0;
}

int libkyp_getLocalKypDeviceId(_KypDeviceId* out) {
    tlsErrno = KYP_OK;
    if (out == nullptr) return refuse(KYP_ERR_INPUT_PARAM);

    CKypLibInit& identity = utility::instance<CKypLibInit>();
    *out = identity.GetKypDeviceId();
    route_device(*out, "127.0.0.1");
    KYP_LOG(LOG_LEVEL_DEBUG, "Get Local DeviceId:%s", identity.GetKypDeviceIdString().c_str());
    return 0;
}

int libkyp_registerKypScanEvent(KypScanCallback cb, void* user) {
    tlsErrno = KYP_OK;
    return utility::instance<CKypScanClient>().registerKypSacnEvent(cb, user);
}

int libkyp_startKypScan() {
    tlsErrno = KYP_OK;
    return utility::instance<CKypScanClient>().startScan();
}

int libkyp_stopKypScan() {
    tlsErrno = KYP_OK;
    return utility::instance<CKypScanClient>().stopScan();
}
