#include "kypserver/Connections.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "kypcore/ISocketServer.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/TcpDomainServer.h"

namespace kypserver {

namespace {

void conn_started(IConnection* conn, void* connections) {
    static_cast<CConnections*>(connections)->begin(conn);
}

void conn_closed(IConnection* conn, void* connections) {
    static_cast<CConnections*>(connections)->end(conn);
}

// A local peer may have no name; then its descriptor has to do. It may also have chosen one that
// would play with the terminal of whoever reads it.
std::string peer_name(IConnection* conn) {
    auto* const socketConn = dynamic_cast<CSocketConnection*>(conn);
    std::string name = socketConn != nullptr ? socketConn->m_szPeerName : "";
    for (char& c : name) {
        if (c < ' ' || c > '~') c = '?';
    }
    return name.empty() ? "local client " + std::to_string(conn->get_fd()) : name;
}

bool came_by_path(IConnection* conn) {
    auto* const socketConn = dynamic_cast<CSocketConnection*>(conn);
    return socketConn != nullptr &&
           dynamic_cast<TcpDomainserver*>(socketConn->m_pServer) != nullptr;
}

}  // namespace

CConnections::CConnections(size_t limit) : m_limit(limit) {
    ISocketServer::set_conn_start(conn_started, this);
    ISocketServer::set_conn_close(conn_closed, this);
}

CConnections::~CConnections() {
    ISocketServer::set_conn_start(nullptr, nullptr);
    ISocketServer::set_conn_close(nullptr, nullptr);
}

void CConnections::on_begin(std::function<void(IConnection*)> listener) {
    m_beginListeners.push_back(std::move(listener));
}

void CConnections::on_end(std::function<void(IConnection*)> listener) {
    m_endListeners.push_back(std::move(listener));
}

bool CConnections::has_room() const {
    return count() < m_limit;
}

bool CConnections::is_open(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_open.count(conn) != 0;
}

bool CConnections::is_local(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_open.find(conn);
    return found != m_open.end() && found->second.isLocal;
}

void CConnections::hang_up(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open.count(conn) != 0) (void)shutdown(conn->get_fd(), SHUT_RDWR);
}

bool CConnections::has_hung_up(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open.count(conn) == 0) return true;

    pollfd peer = {conn->get_fd(), POLLRDHUP, 0};
    return poll(&peer, 1, 0) == 1;
}

std::string CConnections::name(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_open.find(conn);
    return found != m_open.end() ? found->second.name : "a datagram";
}

size_t CConnections::count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_open.size();
}

void CConnections::begin(IConnection* conn) {
    Peer peer = {peer_name(conn), came_by_path(conn)};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open[conn] = std::move(peer);
    }
    for (auto const& listener : m_beginListeners) listener(conn);
}

void CConnections::end(IConnection* conn) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open.erase(conn);
    }
    for (auto const& listener : m_endListeners) listener(conn);
}

}  // namespace kypserver
