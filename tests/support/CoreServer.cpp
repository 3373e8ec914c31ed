#include "support/CoreServer.h"

#include <sys/socket.h>

#include <utility>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/TcpDomainServer.h"
#include "kypcore/TcpServer.h"
#include "kypcore/ThreadPool.h"
#include "kypcore/UdpServer.h"
#include "utils/Singleton.h"

namespace {

constexpr int kLoops = 3;
constexpr int kWorkers = 4;
constexpr int kRecords = 16;

// The datagram server with what a program has to add so that it can answer more than once.
class AnsweringUdpServer : public UdpServer {
public:
    using UdpServer::UdpServer;

    int sock_read_request_handler(CSocketConnection* conn) override {
        if (conn->m_pEventLoop == nullptr) {
            conn->m_writeHandler = &ISocketServer::sock_write_request_handler;
            conn->SetEventLoop(utility::instance<CEventManage>().m_vecLoops.front());
        }
        return UdpServer::sock_read_request_handler(conn);
    }

    int sock_write_request_handler(CSocketConnection* conn) override {
        // Stored last when a message is installed: behind it the message can be seen.
        if (conn->m_pSendPos.load(std::memory_order_acquire) != nullptr) {
            UdpServer::sock_write_request_handler(conn);
            conn->m_pSendPos = nullptr;
            conn->m_nSendRest = 0;
        }
        return conn->triggerSendNextMsg();
    }
};

// Accepted connections live on every loop but the first, which has the datagrams.
bool is_accepted(CSocketConnection const& conn) {
    CEventLoop* const loop = conn.m_pEventLoop;
    return conn.m_fd >= 0 && loop != nullptr &&
           loop != utility::instance<CEventManage>().m_vecLoops.front();
}

}  // namespace

CoreServer::CoreServer() {
    serve(kPortEcho, [](_msg_request const& request, uint16_t port, Bytes const& data) {
        answer(request, port, data);
    });
    // The table takes no lock, so all of it is written before there is another thread.
    for (uint16_t port = kLowestPort; port < kUnservedPort; ++port) {
        utility::instance<RouteManage>().addSvrPortRoute(port, call_route, this);
    }
    utility::instance<server_bufpool>().init_bufpool();
    utility::instance<CSockConnPool>().init_connections(kRecords);
    utility::instance<CEventManage>().init_event_loop(kLoops, 0);
    utility::instance<CThreadPool>().start(kWorkers);
}

// Nobody puts messages in when the workers stop, and the loops are still there for their answers.
CoreServer::~CoreServer() {
    CEventManage& loops = utility::instance<CEventManage>();
    for (CEventLoop* loop : loops.m_vecLoops) loop->m_bStop = true;  // all in one round
    for (CEventLoop* loop : loops.m_vecLoops) loop->event_stop();
    utility::instance<CThreadPool>().stop();
    loops.uninit_event_loop();
}

bool CoreServer::listen_tcp(uint16_t port) {
    return watch(std::make_unique<TcpServer>("127.0.0.1", port), true);
}

bool CoreServer::listen_unix(std::string const& path) {
    return watch(std::make_unique<TcpDomainserver>(path.c_str()), true);
}

bool CoreServer::listen_udp(uint16_t port) {
    return watch(std::make_unique<AnsweringUdpServer>("127.0.0.1", port), false);
}

bool CoreServer::watch(std::unique_ptr<ISocketServer> server, bool isStream) {
    auto const handler =
        isStream ? &ISocketServer::sock_event_accept : &ISocketServer::sock_read_request_handler;
    m_servers.push_back(std::move(server));
    return utility::instance<CEventManage>().add_listen_event(m_servers.back().get(), handler) == 0;
}

void CoreServer::serve(uint16_t port, Route route) {
    std::lock_guard<std::mutex> lock(m_routeMutex);
    m_routes[port] = std::move(route);
}

CoreServer::Route CoreServer::route(uint16_t port) {
    std::lock_guard<std::mutex> lock(m_routeMutex);
    auto const found = m_routes.find(port);
    return found != m_routes.end() ? found->second : Route();
}

void CoreServer::call_route(unsigned short port, char const* data, unsigned int size,
                            _msg_request request, void* self) {
    Route const route = static_cast<CoreServer*>(self)->route(port);
    if (route) route(request, port, Bytes(data, data + size));
}

void CoreServer::answer(_msg_request const& request, uint16_t port, Bytes const& payload,
                        uint32_t error) {
    _AoEHeader aoe{};
    aoe.error = utils_htonl(error);
    aoe.invokeId = utils_htonl(request.invokeId);
    aoe.cmd = utils_htons(request.cmd);
    aoe.state = KYP_STATE_RESPONSE;
    request.conn->send_message(aoe, port, reinterpret_cast<char const*>(payload.data()),
                               static_cast<int>(payload.size()), 1000);
}

std::vector<CSocketConnection*> CoreServer::connections() {
    CSockConnPool& pool = utility::instance<CSockConnPool>();
    std::lock_guard<std::mutex> lock(pool.m_connMutex);
    std::vector<CSocketConnection*> open;
    for (CSocketConnection* conn : pool.m_listAll) {
        if (is_accepted(*conn)) open.push_back(conn);
    }
    return open;
}

void CoreServer::drop_connections() {
    for (CSocketConnection* conn : connections()) {
        // Under this lock the descriptor cannot become somebody else's.
        std::lock_guard<std::mutex> lock(conn->m_sendMutex);
        if (conn->m_fd >= 0) shutdown(conn->m_fd, SHUT_RDWR);
    }
}
