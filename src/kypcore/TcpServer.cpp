#include "kypcore/TcpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "AcceptRoad.h"
#include "kypcomm/KeepAlive.h"
#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

std::atomic<bool> TcpServer::m_bAccept4{true};

namespace {

constexpr int kBacklog = 500;

bool set_option(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

}  // namespace

TcpServer::TcpServer(char const* ip, unsigned short port) : m_port(0) {
    if (ip == nullptr) ip = "";
    m_listenSock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (m_listenSock == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "tcp::server :socket():%s", strerror(errno));
        return;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    // Kept: an ip that is no address leaves 0.0.0.0, every address of the machine.
    (void)inet_aton(ip, &addr.sin_addr);
    if (!set_option(m_listenSock, SOL_SOCKET, SO_REUSEADDR, 1)) {
        KYP_LOG(LOG_LEVEL_ERROR, "set socketopt reuse error:%s", strerror(errno));
    }
    if (!set_option(m_listenSock, SOL_SOCKET, SO_REUSEPORT, 1)) {
        int const error = errno;
        KYP_LOG(LOG_LEVEL_ERROR, "socket set sock reuser port error: errno=%d errstr=%s", error,
                strerror(error));
    }
    if (bind(m_listenSock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "bind error:%s", strerror(errno));
        return;
    }
    if (listen(m_listenSock, kBacklog) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "listen error:%s", strerror(errno));
        return;
    }
    m_port = port;
    m_strIp = ip;
    setnonblocking(m_listenSock);
    KYP_LOG(LOG_LEVEL_INFO, "tcp server is running ip = %s, port = %d", ip, port);
}

TcpServer::~TcpServer() {
    if (m_listenSock != -1) close(m_listenSock);
}

int TcpServer::sock_event_accept(CSocketConnection* listenConn) {
    sockaddr_in addr{};
    int const fd =
        accept_peer(listenConn->m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr, m_bAccept4);
    if (fd == -1) return -1;

    CSocketConnection* const conn = make_connection(this, fd, m_bAccept4);
    if (conn == nullptr) return -1;

    snprintf(conn->m_szPeerName, sizeof conn->m_szPeerName, "%s:%d", inet_ntoa(addr.sin_addr),
             ntohs(addr.sin_port));
    if (start_connection(this, conn, fd) == -1) return -1;

    KYP_LOG(LOG_LEVEL_DEBUG, "new tcp connection:%s Success,fd:%d", conn->m_szPeerName, fd);
    return 0;
}

int TcpServer::set_sock_opt(int fd) {
    ISocketServer::set_sock_opt(fd);
    (void)set_sock_keepalive(fd);
    return 0;
}

int TcpServer::set_sock_keepalive(int fd) {
    return set_keep_alive(fd) ? 1 : 0;
}
