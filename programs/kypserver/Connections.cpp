#include "kypserver/Connections.h"

#include <utility>

#include "kypcore/ISocketServer.h"
#include "kypcore/SocketConnection.h"

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

std::string CConnections::name(IConnection* conn) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_open.find(conn);
    return found != m_open.end() ? found->second : "a datagram";
}

size_t CConnections::count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_open.size();
}

void CConnections::begin(IConnection* conn) {
    std::string name = peer_name(conn);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open[conn] = std::move(name);
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
