#include "kypcore/TcpDomainServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "AcceptRoad.h"
#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

std::atomic<bool> TcpDomainserver::m_bAccept4{true};

namespace {

constexpr int kBacklog = 500;

}  // namespace

TcpDomainserver::TcpDomainserver(char const* path) {
    if (path == nullptr) path = "";
    m_listenSock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (m_listenSock == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "unixdomain::server :socket():%s", strerror(errno));
        return;
    }
    // Kept: takes the path also from a server that is still running and from a file of any kind.
    unlink(path);
    m_strPath = path;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    // A path that fills the field has no closing NUL there; the kernel knows the length.
    memcpy(addr.sun_path, path, strnlen(path, sizeof addr.sun_path));
    if (bind(m_listenSock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "unixdomain bind error:%s,path:%s", strerror(errno), path);
        return;
    }
    if (listen(m_listenSock, kBacklog) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "unixdomain listen error:%s", strerror(errno));
        return;
    }
    setnonblocking(m_listenSock);
    KYP_LOG(LOG_LEVEL_INFO, "tcp domain server is runing,domain path:%s", path);
}

TcpDomainserver::~TcpDomainserver() {
    unlink(m_strPath.c_str());
    if (m_listenSock != -1) close(m_listenSock);
}

int TcpDomainserver::sock_event_accept(CSocketConnection* listenConn) {
    sockaddr_un addr{};
    int const fd =
        accept_peer(listenConn->m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr, m_bAccept4);
    if (fd == -1) return -1;

    CSocketConnection* const conn = make_connection(this, fd, m_bAccept4);
    if (conn == nullptr) return -1;

    // Bounded on the reading side as well: a peer's path may fill its field without a NUL.
    constexpr int kNameLen = sizeof conn->m_szPeerName - 1;
    snprintf(conn->m_szPeerName, sizeof conn->m_szPeerName, "%.*s", kNameLen, addr.sun_path);
    if (start_connection(this, conn, fd) == -1) return -1;

    // Kept: the line names the listening socket, which has no name.
    KYP_LOG(LOG_LEVEL_DEBUG, "new domain tcp connection:%s Success,fd:%d", listenConn->m_szPeerName,
            fd);
    return 0;
}
