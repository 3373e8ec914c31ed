#include "AcceptRoad.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "kypcore/EventLoop.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

namespace {

void log_accept_error(int error) {
    switch (error) {
        case EINTR:
            KYP_LOG(LOG_LEVEL_ERROR, "accept errno = EINTR %s", strerror(error));
            return;
        case EAGAIN:
            KYP_LOG(LOG_LEVEL_ERROR, "accept errno = EAGAIN");
            return;
        case EMFILE:
            KYP_LOG(LOG_LEVEL_ERROR, "accept errno = EMFILE");
            return;
        default:
            KYP_LOG(LOG_LEVEL_ERROR, "accept error:%s", strerror(error));
    }
}

// Under the send lock: whoever knows the connection from the start hook may send at this moment,
// and its change of the event mask would take the place of this one.
int register_connection(CSocketConnection* conn, int fd) {
    CEventLoop* const loop = utility::instance<CEventManage>().get_event_loop();
    std::lock_guard<std::mutex> lock(conn->m_sendMutex);
    conn->SetEventLoop(loop);
    if (loop == nullptr) return -1;
    return loop->epoll_oper_event(fd, EPOLL_CTL_ADD, EPOLLIN | EPOLLRDHUP, 0, conn);
}

}  // namespace

int accept_peer(int listenFd, sockaddr* addr, socklen_t size, std::atomic<bool>& accept4Works) {
    int fd = -1;
    if (accept4Works.load(std::memory_order_relaxed)) {
        socklen_t len = size;
        fd = accept4(listenFd, addr, &len, SOCK_NONBLOCK);
        if (fd == -1 && errno == ENOSYS) accept4Works.store(false, std::memory_order_relaxed);
    }
    if (!accept4Works.load(std::memory_order_relaxed)) {
        socklen_t len = size;
        fd = accept(listenFd, addr, &len);
    }
    if (fd == -1) log_accept_error(errno);
    return fd;
}

CSocketConnection* make_connection(ISocketServer* server, int fd, bool nonBlocking) {
    CSocketConnection* const conn = utility::instance<CSockConnPool>().get_connection(fd);
    if (conn == nullptr) {
        close(fd);
        return nullptr;
    }
    server->set_sock_opt(fd);
    if (!nonBlocking) server->setnonblocking(fd);
    return conn;
}

int start_connection(ISocketServer* server, CSocketConnection* conn, int fd) {
    conn->m_readHandler = &ISocketServer::sock_read_request_handler;
    conn->m_writeHandler = &ISocketServer::sock_write_request_handler;
    conn->SetSockServer(server);
    // Before the registration, so that no read overtakes the hook.
    if (ISocketServer::m_pfnConnStart != nullptr) {
        ISocketServer::m_pfnConnStart(conn, ISocketServer::m_lpConnStartCtx);
    }
    if (register_connection(conn, fd) == 0) return 0;

    server->sock_close_connection(conn);
    return -1;
}
