#include "kypclient/KypCreateFactory.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>

#include "kypclient/IvshmGroup.h"
#include "kypclient/Ivshmclient.h"
#include "kypclient/KypPeerConn.h"
#include "kypclient/KypRequest.h"
#include "kypclient/KypTcpclient.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/KypConnInfo.h"
#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypLibInit.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "libkyp/libkyp.h"
#include "utils/Log.h"

template class utility::Singleton<CPeerConnMgr>;

namespace {

constexpr int kLowestConnectTimeoutMs = 100;
constexpr int kIvshmConnectTimeoutMs = 1000;

std::string id_text(_KypDeviceId const& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

// Connects once and starts the receive thread, which goes on trying when the peer did not answer.
IKypPeerConnection* launch(std::unique_ptr<IKypPeerConnection> client, int timeoutMs) {
    (void)client->connect(timeoutMs);
    (void)client->start();
    return client.release();
}

}  // namespace

CPeerConnMgr::CPeerConnMgr() = default;

CPeerConnMgr::~CPeerConnMgr() {
    ClearPeerConnection();
}

IKypPeerConnection* CPeerConnMgr::CreateFactoryConnection(int type, void* info, int infoSize,
                                                          int timeoutMs) {
    timeoutMs = std::max(timeoutMs, kLowestConnectTimeoutMs);

    IKypPeerConnection* conn = nullptr;
    switch (type) {
        case KYP_CONN_TCP:
            conn = CreateTcpClient(info, infoSize, timeoutMs);
            break;
        case KYP_CONN_NONE:
            tlsErrno = KYP_ERR_PROTOCOL;
            break;
        case KYP_CONN_DOMAIN:
        case KYP_CONN_DOMAIN_ALIAS:
            conn = CreateDomainClient(info, infoSize, timeoutMs);
            break;
        case KYP_CONN_IVSHM:
            conn = CreateIvshmClient(info, infoSize, timeoutMs);
            break;
        default:
            tlsErrno = KYP_ERR_CONN_TYPE;
            break;
    }
    AddPeerConnection(conn);
    return conn;
}

IKypPeerConnection* CPeerConnMgr::CreateTcpClient(void* info, int infoSize, int timeoutMs) {
    if (info == nullptr || infoSize != static_cast<int>(sizeof(KypTcpConnInfo))) {
        tlsErrno = KYP_ERR_PARAM;
        return nullptr;
    }
    KypTcpConnInfo tcp = *static_cast<KypTcpConnInfo*>(info);
    std::string const host = utility::instance<CRouterTable>().GetHostIpFromDeviceId(tcp.deviceId);
    std::string const param = "ip=" + host + ";port=" + std::to_string(kTcpPort);

    auto client = std::make_unique<CTcpclient>(tcp.deviceId, param, false);
    KYP_LOG(LOG_LEVEL_TRACE, "create tcp client <param:%s>", param.c_str());
    client->register_connevent(tcp.event, tcp.ctx);
    return launch(std::move(client), timeoutMs);
}

IKypPeerConnection* CPeerConnMgr::CreateDomainClient(void* info, int infoSize, int timeoutMs) {
    if (infoSize != static_cast<int>(sizeof(KypDomainConnInfo))) {
        tlsErrno = KYP_ERR_PARAM;
        return nullptr;
    }
    _KypDeviceId const id = utility::instance<CKypLibInit>().GetKypDeviceId();
    std::string const param = std::string("domain=") + kDomainPath;

    auto client = std::make_unique<CTcpclient>(id, param, true);
    KYP_LOG(LOG_LEVEL_TRACE, "create unix domain tcp client <param:%s>", param.c_str());
    // Kept: a domain connection has no connection callback, whatever its record holds. A missing
    // record has none either.
    if (info != nullptr) client->register_connevent(nullptr, nullptr);
    return launch(std::move(client), timeoutMs);
}

IKypPeerConnection* CPeerConnMgr::CreateIvshmClient(void* info, int infoSize, int) {
    if (info == nullptr || infoSize != static_cast<int>(sizeof(KypIvshmConnInfo))) {
        tlsErrno = KYP_ERR_PARAM;
        return nullptr;
    }
    KypIvshmConnInfo ivshm{};
    std::memcpy(&ivshm, info, sizeof(ivshm));
    IvshmGroup* const group =
        IvshmGroup::makeIvshmGroup(kIvshmClient, ivshm.groupIndex, ivshm.maxBytes);
    if (group == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "create ivshm group fail,idx:%d,maxbyte:%d", ivshm.groupIndex,
                ivshm.maxBytes);
        return nullptr;
    }
    if (!group->init_ivshm_topic()) {
        IvshmGroup::destoryIvshmGroup(group);
        return nullptr;
    }
    (void)group->start();
    CIvshmClient* const client = group->makeIvshmClient();
    if (client == nullptr) {
        IvshmGroup::destoryIvshmGroup(group);
        return nullptr;
    }
    client->register_connevent(ivshm.event, ivshm.ctx);
    // Kept: the caller's timeout does not count.
    if (client->connect(kIvshmConnectTimeoutMs) == 0) {
        group->destoryIvshmClient(client);
        return nullptr;
    }
    // Kept: releasing the connection gives its place back, but not its hold on the group, which
    // runs on to the end of the process.
    (void)client->start();
    return client;
}

void CPeerConnMgr::AddPeerConnection(IKypPeerConnection* conn) {
    if (conn == nullptr) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connections.insert(conn);
}

void CPeerConnMgr::DelPeerConnection(IKypPeerConnection* conn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_connections.count(conn) == 0) return;
    (void)conn->stop();
    delete conn;
    m_connections.erase(conn);
    // Kept: m_byDeviceId still names the connection, so one that was made for requests by device id
    // is not to be released by its handle.
}

IKypPeerConnection* CPeerConnMgr::GetPeerConnection(void* handle) {
    auto* const conn = static_cast<IKypPeerConnection*>(handle);
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connections.count(conn) == 0 ? nullptr : conn;
}

IKypPeerConnection* CPeerConnMgr::GetPeerConnection(_KypDeviceId& id) {
    std::string const key = id_text(id);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const entry = m_byDeviceId.find(key);
        if (entry != m_byDeviceId.end()) return entry->second;
    }
    // Connecting takes its time, so the lock is not held. Two threads that miss together make two
    // connections; both stay in the set and the later one serves from here on.
    auto* const conn = static_cast<IKypPeerConnection*>(libkyp_createInstance(&id, KYP_CONN_TCP));
    if (conn == nullptr) return nullptr;
    (void)conn->start();

    std::lock_guard<std::mutex> lock(m_mutex);
    m_byDeviceId[key] = conn;
    return conn;
}

void CPeerConnMgr::ClearPeerConnection() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (IKypPeerConnection* conn : m_connections) {
        (void)conn->stop();
        delete conn;
    }
    m_connections.clear();
    // Kept: m_byDeviceId is left alone here too; requests by device id end with this call.
}

int CPeerConnMgr::AddKypRequest(KypRequest* req) {
    if (req == nullptr) {
        tlsErrno = KYP_ERR_PARAM;
        return tlsErrno;
    }
    if (req->recvLen != nullptr) *req->recvLen = 0;
    IKypPeerConnection* conn = GetPeerConnection(req->deviceId);
    return conn == nullptr ? -1 : conn->AddKypRequest(req);
}
