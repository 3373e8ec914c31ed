#include "kypcore/UdpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "utils/Log.h"

namespace {

constexpr int kMaxDatagram = 65507;
constexpr uint32_t kMsgLenLimit = 0xffe4;  // the first length that is too much
constexpr int kHeadRoom = 48;              // for the heads that a forwarder puts in front
constexpr int kHead = sizeof(_KypHeader);

// The head of a datagram; bytes that a short one lacks are zero.
_KypHeader read_head(unsigned char const* data, int size) {
    _KypHeader head{};
    memcpy(&head, data, static_cast<size_t>(std::min(size, kHead)));
    return head;
}

}  // namespace

UdpServer::UdpServer(char const* ip, unsigned short port)
    : m_pRecvBuf(nullptr), m_pSpareBuf(nullptr) {
    if (ip == nullptr) ip = "";
    m_listenSock = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
    if (m_listenSock == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "create udp server fail,error:%s", strerror(errno));
        return;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    // Kept: an ip that is no address leaves 0.0.0.0, every address of the machine.
    (void)inet_aton(ip, &addr.sin_addr);
    if (bind(m_listenSock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        // Kept: goes on, and says that it runs, with a socket that nobody can reach.
        KYP_LOG(LOG_LEVEL_ERROR, "bind error %s", strerror(errno));
    }
    KYP_LOG(LOG_LEVEL_INFO, "udp server is running ip = %s, port = %d", ip, port);
    m_pRecvBuf = take_pbuf(utility::instance<server_bufpool>(), kMaxDatagram);
    m_pSpareBuf = take_pbuf(utility::instance<server_bufpool>(), kMaxDatagram);
}

UdpServer::~UdpServer() {
    if (m_listenSock != -1) close(m_listenSock);
    utility::instance<server_bufpool>().put_one_free(m_pRecvBuf);
    utility::instance<server_bufpool>().put_one_free(m_pSpareBuf);
}

int UdpServer::sock_read_request_handler(CSocketConnection* conn) {
    if (m_pRecvBuf == nullptr) return -1;

    unsigned char* const data = m_pRecvBuf->rawData();
    socklen_t len = sizeof(sockaddr_in);
    ssize_t const count = recvfrom(conn->m_fd, data, static_cast<size_t>(m_pRecvBuf->capacity()), 0,
                                   reinterpret_cast<sockaddr*>(&conn->m_peerAddr), &len);
    if (count == -1) {
        if (errno != EAGAIN && errno != EINTR) {
            KYP_LOG(LOG_LEVEL_ERROR, "udp server recvfrom error %s", strerror(errno));
        }
        return -1;
    }
    int const received = static_cast<int>(count);
    _KypHeader const head = read_head(data, received);
    if (received < kHead || head.nMsgLen != static_cast<uint32_t>(received - kHead) ||
        head.nMsgLen >= kMsgLenLimit) {
        KYP_LOG(LOG_LEVEL_ERROR, "error message head format error,port:%d,msgLen:%d,recvlen:%d",
                head.port, static_cast<int>(head.nMsgLen), received);
        return -1;
    }

    pbuf* const buf = take_pbuf(utility::instance<server_bufpool>(), received + kHeadRoom);
    buf->prepend(data, static_cast<unsigned int>(received));
    auto msg = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_DATAGRAM);
    msg->m_pConn = conn;
    msg->m_nSequence = conn->iCurrsequence.load(std::memory_order_relaxed);
    // The datagram stands at the block's end, and that is where the message begins.
    msg->setpBuf(buf, static_cast<int>(buf->freesize()));
    msg->addRecvBufSize(received);
    utility::instance<CThreadPool>().putq(msg.release());
    return 0;
}

int UdpServer::sock_write_request_handler(CSocketConnection* conn) {
    unsigned char* const data = conn->m_pSendPos.load(std::memory_order_acquire);
    // Asked again although the message is gone: nothing below takes the socket out of the writable
    // set. The position comes first: it is stored last, so behind it the message can be seen.
    if (data == nullptr || conn->m_pSendMsg == nullptr) return 0;

    (void)sendproc(conn, data, conn->m_nSendRest);
    // Kept: m_bSending stays true and the socket in the writable set; the program's own write
    // handler goes on to triggerSendNextMsg().
    delete conn->m_pSendMsg;
    conn->m_pSendMsg = nullptr;
    conn->m_pSendPos.store(nullptr, std::memory_order_relaxed);
    return 0;
}

int UdpServer::sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) {
    // Kept: the peer is whoever sent the latest datagram, also when another one asked.
    ssize_t const sent =
        sendto(m_listenSock, data, size, 0, reinterpret_cast<sockaddr*>(&conn->m_peerAddr),
               sizeof(sockaddr_in));
    if (sent == -1) KYP_LOG(LOG_LEVEL_ERROR, "sendto error:%s", strerror(errno));
    return static_cast<int>(sent);
}
