#include "compmodule/comp_module.h"

#include <algorithm>
#include <cstring>

#include "compmodule/business_data_layer.h"
#include "compmodule/comp_init_sys.h"
#include "compmodule/ivshm_svr_group.h"
#include "compmodule/net_channel.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/protocol/ReceivedTopic.h"
#include "kypcore/router/RouteManage.h"
#include "utils/Log.h"

namespace libkyp {
namespace compmodule {

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

constexpr uint32_t kConfigMode = 1;
constexpr uint32_t kEventLeave = 1;  // in a forward header: the client has gone

tagCmpDrvInfo terminated(tagCmpDrvInfo info) {
    info.name[sizeof(info.name) - 1] = '\0';
    return info;
}

void set_bits(CompModule& module, uint32_t bits) {
    module.state.fetch_or(bits, kRelaxed);
}

void clear_bits(CompModule& module, uint32_t bits) {
    module.state.fetch_and(~bits, kRelaxed);
}

bool has_bit(CompModule const& module, uint32_t bit) {
    return (module.state.load(kRelaxed) & bit) != 0;
}

// Takes a head off the front of `buf`. One that is not there whole leaves `head` as it is, and its
// bytes are lost.
template <typename Head>
void take_head(RecvBuf& buf, Head& head) {
    const int size = static_cast<int>(sizeof(head));
    const int valid = buf.GetVaildSize();
    if (valid >= size) memcpy(&head, buf.GetVaildData(), sizeof(head));
    buf.m_begin += std::min(size, std::max(valid, 0));
}

VirtualConn* find_client(CompModule const& module, int clientFd) {
    auto const entry = module.connMap.find(clientFd);
    return entry == module.connMap.end() ? nullptr : entry->second;
}

// Whether the application is to be told of its clients.
bool watches_clients(CompModule const& module) {
    return module.connConfig != nullptr && module.connConfig->onConnect != nullptr;
}

void client_left(CompModule& module, int clientFd, VirtualConn* conn) {
    // Kept: onConnect decides whether onDisconnect is called. One without the other is never
    // called, or called as the null that it is.
    if (watches_clients(module)) {
        module.connConfig->onDisconnect(conn, module.connConfig->userData);
    }
    KYP_LOG(LOG_LEVEL_TRACE, "client fd:%d disconnect %p", clientFd, static_cast<void*>(conn));
    (void)module.PutFreeConn(conn);
    module.connMap.erase(clientFd);
}

// A slot for a client that is seen for the first time, or null when there is none left.
VirtualConn* client_came(CompModule& module, int clientFd) {
    VirtualConn* const conn = module.GetFreeConn();
    if (conn == nullptr) return nullptr;

    conn->setVirtualConnInfo(clientFd, module.netChannel);
    module.connMap[clientFd] = conn;
    if (watches_clients(module)) module.connConfig->onConnect(conn, module.connConfig->userData);
    KYP_LOG(LOG_LEVEL_TRACE, "new virtual connection:%p,client fd:%d", static_cast<void*>(conn),
            clientFd);
    return conn;
}

// The table is full: the client is told and nothing else changes. One that leaves waits for no
// answer.
void refuse_client(CompModule& module, _KypforwardHeader const& forward, _KypHeader const& header,
                   _AoEHeader const& aoe) {
    const int clientFd = forward.clientFd;
    KYP_LOG(LOG_LEVEL_WARNING,
            "component:%s refuse client fd:%d,port:%d,all %d virtual connections in use,"
            "code:0x%x,%s",
            module.drvInfo.name, clientFd, static_cast<int>(header.port), kVirtualConns,
            static_cast<unsigned int>(KYP_ERR_CLIENT_LIMIT),
            LibkypGetErrorString(KYP_ERR_CLIENT_LIMIT));
    if (forward.event == kEventLeave) return;

    VirtualConn unlisted(clientFd, module.netChannel);
    utility::instance<RouteManage>().ErrorResponse(header, aoe, KYP_ERR_CLIENT_LIMIT,
                                                   static_cast<IConnection*>(&unlisted));
}

// One exchange about a port. A link that ends in it has ended for good: the receive thread finds no
// more than a channel without a link, so its end is told here, and the component is registered
// again behind the next connect.
int ask_for_port(CompModule& module, unsigned short port) {
    const bool wasConnected = module.netChannel->isconnected();
    const int result = module.dataLayer->register_route_port(port);
    const bool isLoss = result == KYP_ERR_DISCONNECTED || result == KYP_ERR_HEADER_LENGTH;
    if (isLoss && wasConnected && !module.netChannel->isconnected()) {
        (void)CompConnectCallback(KYP_ERR_DISCONNECTED, &module);
    }
    return result;
}

}  // namespace

CompModule::CompModule(tagCmpDrvInfo* info, KypCmpCallback callback, void* arg)
    : state(COMP_STATE_CONSTRUCTED),
      drvInfo(terminated(*info)),
      connConfig(new CmpConnConfig{kConfigMode, this, nullptr, nullptr, nullptr}),
      netChannel(new CNetChannel(drvInfo.name)),
      ivshmGroup(nullptr),
      dataLayer(new BusinessDataLayer(&drvInfo, netChannel)),
      registerArg(arg),
      // Kept: nothing ever calls it.
      registerCallback(callback) {
    conf.cmpName = drvInfo.name;
}

CompModule::~CompModule() {
    (void)stop();
    (void)uninit_comp_module();
    state.store(COMP_STATE_CONSTRUCTED, kRelaxed);
}

int CompModule::init_comp_module() {
    dataLayer->register_connect_callback(CompConnectCallback, this);
    dataLayer->register_message_callback(CompMessageCallback, this);
    (void)init_comp_config();
    if (!dataLayer->init_connect_channel()) {
        // A connect that fails may leave no status, and 0 would read as "registered".
        if (tlsErrno == KYP_OK) tlsErrno = KYP_ERR_SERVER_OFFLINE;
        return tlsErrno;
    }
    set_bits(*this, COMP_STATE_CONNECTED);
    const int result = dataLayer->register_component();
    if (result == KYP_OK) set_bits(*this, COMP_STATE_REGISTERED);
    return result;
}

int CompModule::init_comp_config() {
    // Without a configuration the defaults stand.
    (void)utility::instance<CCmpSysInit>().GetCmpConfigParam(&conf);
    return 0;
}

int CompModule::init_ivshm_channel() {
    if (!conf.ivshm_enable) return -1;
    ivshmGroup = IvshmSvrGroup::makeIvshmGroup(conf.ivshm_group, conf.ivshm_maxsize);
    if (ivshmGroup == nullptr) return -1;
    // Kept: a group whose topics cannot be opened stays with the module.
    if (!ivshmGroup->init_ivshm_topic()) return -1;
    (void)ivshmGroup->start();
    return 0;
}

int CompModule::uninit_comp_module() {
    delete dataLayer;
    dataLayer = nullptr;
    delete netChannel;
    netChannel = nullptr;
    delete connConfig;
    connConfig = nullptr;
    if (ivshmGroup != nullptr) IvshmSvrGroup::destoryIvshmGroup(ivshmGroup);
    return 0;
}

int CompModule::start() {
    if (dataLayer == nullptr) return 0;
    (void)dataLayer->start();
    // The thread looks at the bit behind its first attempt to connect, which it sleeps before.
    set_bits(*this, COMP_STATE_STARTED);
    return 0;
}

int CompModule::stop() {
    if (dataLayer != nullptr) (void)dataLayer->stop();
    clear_bits(*this, COMP_STATE_STARTED);
    if (ivshmGroup != nullptr) (void)ivshmGroup->stop();
    return 0;
}

CmpConnConfig* CompModule::getconfig() {
    return connConfig;
}

int CompModule::register_route_port(unsigned int port, KypSvrRoute callback, void* user) {
    const auto routePort = static_cast<unsigned short>(port);
    const int added = utility::instance<RouteManage>().addSvrPortRoute(routePort, callback, user);
    if (added != KYP_OK) return added;

    const int result = ask_for_port(*this, routePort);
    // Kept: a port that the server has given to somebody else keeps its route in this process, so
    // it cannot be asked for a second time.
    if (result == KYP_ERR_ROUTE_REGISTERED) return result;

    (void)cache_route_port(routePort);
    // The bit keeps the next reconnect from sending the ports, which one that failed waits for.
    if (result == KYP_OK) {
        set_bits(*this, COMP_STATE_ROUTE_PORT);
    } else {
        clear_bits(*this, COMP_STATE_ROUTE_PORT);
    }
    return result;
}

int CompModule::cache_route_port(unsigned short port) {
    if (std::find(routePorts.begin(), routePorts.end(), port) == routePorts.end()) {
        routePorts.push_back(port);
    }
    return 0;
}

int CompModule::publish(char const* topic, unsigned int indexGroup, unsigned int indexOffset,
                        char const* data, unsigned int length) {
    return dataLayer->publish(topic, indexGroup, indexOffset, data, length);
}

int CompModule::subscribe(char const* topic,
                          void (*callback)(unsigned int, unsigned int, char const*, char const*,
                                           unsigned int, void*),
                          void* user) {
    subscribeMap[topic] = {callback, user};
    return dataLayer->subscribe(topic);
}

int CompModule::unsubscribe(char const* topic) {
    if (subscribeMap.erase(topic) == 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "topic:%s no subscribe", topic);
        tlsErrno = KYP_ERR_TOPIC;
        return tlsErrno;
    }
    return dataLayer->unsubscribe(topic);
}

int CompModule::process_received_message(RecvBuf* buf) {
    _KypHeader header = {0, kKypVersion, 0, 0};
    _AoEHeader aoe = {};
    take_head(*buf, header);
    take_head(*buf, aoe);
    if (header.port == kPortPubSub) {
        (void)process_subscribe_message(header, aoe, buf);
    } else {
        (void)process_route_message(header, aoe, buf);
    }
    return 0;
}

int CompModule::process_route_message(_KypHeader& header, _AoEHeader& aoe, RecvBuf* buf) {
    AoERequestHeader request = {};
    _KypforwardHeader forward = {};
    take_head(*buf, request);
    take_head(*buf, forward);

    const int clientFd = forward.clientFd;
    VirtualConn* conn = find_client(*this, clientFd);
    if (conn != nullptr && forward.event == kEventLeave) {
        client_left(*this, clientFd, conn);
        return 0;
    }
    if (conn != nullptr) {
        KYP_LOG(LOG_LEVEL_TRACE, "find virtual connection:%p,client fd:%d",
                static_cast<void*>(conn), clientFd);
    } else {
        // Kept: a client that leaves without having been here comes by that very frame, which then
        // goes to its port like any other.
        conn = client_came(*this, clientFd);
    }
    if (conn == nullptr) {
        refuse_client(*this, forward, header, aoe);
        return 0;
    }
    (void)utility::instance<RouteManage>().comp_datacallback(buf, header, aoe, request,
                                                             static_cast<IConnection*>(conn));
    return 0;
}

int CompModule::process_subscribe_message(_KypHeader&, _AoEHeader&, RecvBuf* buf) {
    ReceivedTopic const message(buf->GetVaildData(),
                                static_cast<uint64_t>(std::max(buf->GetVaildSize(), 0)));
    // Kept: the type is not asked, so whatever comes for a topic is delivered.
    auto const entry = subscribeMap.find(message->topic);
    if (entry == subscribeMap.end()) {
        KYP_LOG(LOG_LEVEL_ERROR, "unknow topic:%s", message->topic.c_str());
        return 0;
    }
    // A copy: the callback may end the subscription.
    const _libkypSubscribelCallBack target = entry->second;
    if (target.callback == nullptr) return 0;
    target.callback(message->indexGroup, message->indexOffset, message->topic.c_str(),
                    message->data.data(), static_cast<unsigned int>(message->data.size()),
                    target.user);
    return 0;
}

VirtualConn* CompModule::GetFreeConn() {
    for (int i = 0; i < kVirtualConns; ++i) {
        if (connTable[i].IsOpen()) continue;
        connTable[i].Open(static_cast<short>(i));
        return &connTable[i];
    }
    return nullptr;
}

int CompModule::PutFreeConn(VirtualConn* conn) {
    return conn->Close();
}

int CompModule::disconnect_event() {
    clear_bits(*this, COMP_STATE_CONNECTED | COMP_STATE_REGISTERED | COMP_STATE_ROUTE_PORT);
    set_bits(*this, COMP_STATE_CONSTRUCTED);
    // Kept: clients stay in their slots across a lost link; each is freed by its own leave event.
    return 0;
}

int CompModule::reconnect_event() {
    set_bits(*this, COMP_STATE_CONNECTED);
    if (!has_bit(*this, COMP_STATE_STARTED)) return 0;

    // Kept: neither bit is set here again, so each later reconnect registers anew. One that follows
    // a frame with a bad port or length finds them set, since that link ended without an event: the
    // component and its ports stay unknown to the server.
    if (!has_bit(*this, COMP_STATE_REGISTERED)) {
        const int result = dataLayer->register_component();
        if (result != KYP_OK) return result;
    }
    if (!has_bit(*this, COMP_STATE_ROUTE_PORT)) {
        for (unsigned short const port : routePorts) (void)dataLayer->register_route_port(port);
    }
    // A copy: each subscribe() enters its topic again.
    auto const topics = subscribeMap;
    for (auto const& [topic, target] : topics) {
        (void)subscribe(topic.c_str(), target.callback, target.user);
    }
    return 0;
}

int CompConnectCallback(int code, void* module) {
    auto& component = *static_cast<CompModule*>(module);
    char const* const name = component.drvInfo.name;
    switch (code) {
        case KYP_ERR_DISCONNECTED:
            KYP_LOG(LOG_LEVEL_ERROR, "component:%s and kypserver channel has been disconnected",
                    name);
            (void)component.disconnect_event();
            break;
        case KYP_ERR_CONNECT_TIMEOUT:
            KYP_LOG(LOG_LEVEL_DEBUG, "component:%s connect timeout", name);
            break;
        case KYP_CONNECT_SUCCESS:
            KYP_LOG(LOG_LEVEL_DEBUG, "component:%s connect kypserver Success", name);
            // Kept: a server that refuses the name now is heard of no further; the component stays
            // connected and unregistered.
            (void)component.reconnect_event();
            break;
        default:
            break;
    }
    return 0;
}

int CompMessageCallback(RecvBuf* buf, void* module) {
    (void)static_cast<CompModule*>(module)->process_received_message(buf);
    return 0;
}

}  // namespace compmodule
}  // namespace libkyp
