#include "kypcore/ISocketServer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "utils/Log.h"

void (*ISocketServer::m_pfnConnStart)(IConnection*, void*) = nullptr;
void* ISocketServer::m_lpConnStartCtx = nullptr;
void (*ISocketServer::m_pfnConnClose)(IConnection*, void*) = nullptr;
void* ISocketServer::m_lpConnCloseCtx = nullptr;

namespace {

constexpr int kMaxFrame = 0x600000;  // bytes behind the head
constexpr int kHeadRoom = 48;        // for the heads that an answer or a forwarder puts in front
constexpr int kHead = sizeof(_KypHeader);
constexpr int kSocketBuffer = 262144;

enum RecvState : unsigned char { HEAD_BEGINS = 0, IN_HEAD = 1, BODY_BEGINS = 2, IN_BODY = 3 };

void wait_for_head(CSocketConnection* conn) {
    conn->m_nRecvState = HEAD_BEGINS;
    conn->m_pRecvPos = reinterpret_cast<unsigned char*>(&conn->m_recvHeader);
    conn->m_nRecvRest = kHead;
}

// What the next read asks for: the rest of the piece, but never more than its block has room for.
// A negative length runs into a read of 0 bytes by this, which ends the connection.
unsigned int bytes_to_ask_for(CSocketConnection* conn) {
    if (conn->m_pRecvMsg == nullptr) return conn->m_nRecvRest;

    pbuf* const buf = conn->m_pRecvMsg->getpBuf();
    auto const room = static_cast<size_t>(buf->rawData() + buf->capacity() - conn->m_pRecvPos);
    return static_cast<unsigned int>(std::min<size_t>(conn->m_nRecvRest, room));
}

// Asked under the lock: a worker may be installing a message that does have bytes.
bool sends_an_empty_message(CSocketConnection* conn) {
    std::lock_guard<std::mutex> lock(conn->m_sendMutex);
    return conn->m_pSendMsg != nullptr && conn->m_nSendRest.load(std::memory_order_relaxed) == 0;
}

void advance(CSocketConnection* conn, unsigned int count) {
    conn->m_pRecvPos += count;
    conn->m_nRecvRest -= count;
}

}  // namespace

ISocketServer::ISocketServer() : m_listenSock(-1) {}

ISocketServer::~ISocketServer() = default;

int ISocketServer::sock_event_accept(CSocketConnection* /*listenConn*/) {
    return 0;
}

// One read for each time the socket is ready; level triggering brings the rest. A frame that is
// there whole takes two.
int ISocketServer::sock_read_request_handler(CSocketConnection* conn) {
    int const received = recvproc(conn, conn->m_pRecvPos, bytes_to_ask_for(conn));
    if (received < 1) return -1;

    auto const count = static_cast<unsigned int>(received);
    bool const complete = count == conn->m_nRecvRest;
    switch (conn->m_nRecvState) {
        case HEAD_BEGINS:
        case IN_HEAD:
            if (complete) {
                sock_wait_request_handler_proc_p1(conn);
                return 0;
            }
            advance(conn, count);
            conn->m_nRecvState = IN_HEAD;
            return 0;
        case BODY_BEGINS:
        case IN_BODY:
            conn->m_pRecvMsg->addRecvBufSize(received);
            if (complete) {
                sock_wait_request_handler_proc_plast(conn);
                return 0;
            }
            advance(conn, count);
            conn->m_nRecvState = IN_BODY;
            return 0;
        default:
            return 0;
    }
}

int ISocketServer::sock_write_request_handler(CSocketConnection* conn) {
    unsigned char* const data = conn->m_pSendPos.load(std::memory_order_acquire);
    unsigned int const rest = conn->m_nSendRest.load(std::memory_order_relaxed);
    int const sent = sendproc(conn, data, rest);
    // A message without bytes leaves at once: waiting for it would hold up the queue for ever.
    bool const empty = sent == 0 && rest == 0 && sends_an_empty_message(conn);
    // Kept: a broken link is neither logged nor closed here and is tried again with each event; the
    // read side finds it.
    if (sent < 1 && !empty) return 0;

    auto const count = static_cast<unsigned int>(sent);
    if (count < rest) {
        conn->m_pSendPos.store(data + count, std::memory_order_relaxed);
        conn->m_nSendRest.store(rest - count, std::memory_order_relaxed);
        return 0;
    }

    delete conn->m_pSendMsg;
    conn->m_pSendMsg = nullptr;
    conn->m_nSendRest.store(0, std::memory_order_relaxed);
    conn->m_pSendPos.store(nullptr, std::memory_order_relaxed);
    conn->triggerSendNextMsg();
    return 0;
}

int ISocketServer::sock_close_connection(CSocketConnection* conn) {
    if (m_pfnConnClose != nullptr) m_pfnConnClose(conn, m_lpConnCloseCtx);
    utility::instance<CSockConnPool>().close_connections(conn);
    return 0;
}

int ISocketServer::set_sock_opt(int fd) {
    int const on = 1;
    int const size = kSocketBuffer;
    // Each is a wish: a local socket has no delay to switch off.
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    return 0;
}

int ISocketServer::sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) {
    // Without a signal: a peer that closes while its answer leaves would otherwise end the process.
    ssize_t const sent = send(conn->m_fd.load(std::memory_order_relaxed), data, size, MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<int>(sent);
    return errno == EAGAIN ? -1 : -2;
}

int ISocketServer::get_listen_sock() {
    return m_listenSock;
}

int ISocketServer::setnonblocking(int fd) {
    // Kept: the flags begin from the result of clearing them, so all others of the descriptor go.
    int const flags = fcntl(fd, F_SETFL, 0);
    (void)fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    return 0;
}

int ISocketServer::recvproc(CSocketConnection* conn, unsigned char* buffer, unsigned int size) {
    int const fd = conn->m_fd.load(std::memory_order_relaxed);
    ssize_t const received = recv(fd, buffer, size, 0);
    if (received > 0) return static_cast<int>(received);

    if (received == 0) {
        KYP_LOG(LOG_LEVEL_WARNING, "client:%s request disconnect fd:%d", conn->m_szPeerName, fd);
        sock_close_connection(conn);
        return 0;
    }
    int const error = errno;
    if (error == EINTR || error == EAGAIN) return -1;
    if (error == ECONNABORTED || error == ECONNRESET || error == ENOTCONN) {
        KYP_LOG(LOG_LEVEL_WARNING, "client:%s connection abort(%s),fd:%d", conn->m_szPeerName,
                strerror(error), fd);
    }
    sock_close_connection(conn);
    return -1;
}

int ISocketServer::sock_wait_request_handler_proc_p1(CSocketConnection* conn) {
    int const length = static_cast<int>(conn->m_recvHeader.nMsgLen);
    if (length > kMaxFrame) {
        KYP_LOG(LOG_LEVEL_ERROR, "client:%s,recv invaild packet,size:%d>limit len close conn",
                conn->m_szPeerName, length);
        wait_for_head(conn);
        sock_close_connection(conn);
        return 0;
    }

    // Kept: a length of 0 or below is taken as it is; the next read then asks for 0 bytes or what
    // the block has room for, and the connection ends as if the peer had closed it.
    pbuf* const buf = take_pbuf(utility::instance<server_bufpool>(), length + kHeadRoom + kHead);
    auto msg = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM);
    msg->setpBuf(buf, kHeadRoom);
    msg->m_pConn = conn;
    msg->m_nSequence = conn->iCurrsequence.load(std::memory_order_relaxed);
    memcpy(msg->GetVaildData(), &conn->m_recvHeader, kHead);
    msg->addRecvBufSize(kHead);

    conn->m_pRecvPos = msg->GetVaildData() + kHead;
    conn->m_nRecvRest = static_cast<unsigned int>(length);
    conn->m_nRecvState = BODY_BEGINS;
    conn->m_pRecvMsg = msg.release();
    return 0;
}

int ISocketServer::sock_wait_request_handler_proc_plast(CSocketConnection* conn) {
    utility::instance<CThreadPool>().putq(conn->m_pRecvMsg);
    conn->m_pRecvMsg = nullptr;
    wait_for_head(conn);
    return 0;
}

void ISocketServer::set_conn_start(void (*hook)(IConnection*, void*), void* ctx) {
    m_pfnConnStart = hook;
    m_lpConnStartCtx = ctx;
}

void ISocketServer::set_conn_close(void (*hook)(IConnection*, void*), void* ctx) {
    m_pfnConnClose = hook;
    m_lpConnCloseCtx = ctx;
}
