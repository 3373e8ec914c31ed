#include "kypserver/UdpEndpoint.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/ServerLog.h"

namespace kypserver {

namespace {

constexpr size_t kHeads = sizeof(_KypHeader) + sizeof(_AoEHeader);
constexpr size_t kInvokeId = sizeof(_KypHeader) + offsetof(_AoEHeader, invokeId);
constexpr int kHeadRoom = 48;

std::string text_of(sockaddr_in const& address) {
    char host[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}

// Responses are no requests: two servers that answer each other would not come to an end.
bool is_request(unsigned char const* data, size_t size) {
    if (size < kHeads) return false;
    _KypHeader head;
    _AoEHeader aoe;
    memcpy(&head, data, sizeof head);
    memcpy(&aoe, data + sizeof head, sizeof aoe);
    return head.nMsgLen == size - sizeof head && aoe.state == KYP_STATE_REQUEST;
}

}  // namespace

CUdpEndpoint::CUdpEndpoint(CHeldBytes& held, CCounters& counters, char const* ip,
                           unsigned short port)
    : UdpServer(ip, port), m_held(held), m_counters(counters), m_peers(kPeers), m_nextId(0) {}

int CUdpEndpoint::sock_read_request_handler(CSocketConnection* conn) {
    make_answerable(conn);
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    ssize_t const received = recvfrom(get_listen_sock(), m_pRecvBuf->rawData(),
                                      static_cast<size_t>(m_pRecvBuf->capacity()), 0,
                                      reinterpret_cast<sockaddr*>(&sender), &length);
    if (received == -1) {
        if (errno != EAGAIN && errno != EINTR) report("recvfrom fails: %s", strerror(errno));
        return -1;
    }
    if (!is_request(m_pRecvBuf->rawData(), static_cast<size_t>(received))) {
        m_counters.dropped(CCounters::DROP_DATAGRAM);
        report("a datagram of %zd bytes from %s is dropped: it is no whole request", received,
               text_of(sender).c_str());
        return -1;
    }
    _KypHeader head;
    memcpy(&head, m_pRecvBuf->rawData(), sizeof head);
    if (!m_held.take(conn, head)) {
        m_counters.dropped(CCounters::DROP_DATAGRAM);
        report("a datagram from %s is dropped: as many wait as may (--max-held-bytes)",
               text_of(sender).c_str());
        return -1;
    }
    m_counters.received(static_cast<size_t>(received));
    put_to_workers(conn, sender, static_cast<size_t>(received));
    return 0;
}

int CUdpEndpoint::sock_write_request_handler(CSocketConnection* conn) {
    // The position is stored last when a message is installed; behind it the message can be seen.
    // Without one there is nothing to go on from, and a message that comes now is left alone.
    if (conn->m_pSendPos.load(std::memory_order_acquire) == nullptr) return 0;

    UdpServer::sock_write_request_handler(conn);
    conn->m_pSendPos = nullptr;
    conn->m_nSendRest = 0;
    return conn->triggerSendNextMsg();
}

int CUdpEndpoint::sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) {
    if (size < kHeads) return -1;
    _KypHeader head;
    memcpy(&head, data, sizeof head);
    m_held.left(conn, head.port, size);  // it has one chance, whatever becomes of it
    uint32_t id;
    memcpy(&id, data + kInvokeId, sizeof id);
    id = utils_ntohl(id);
    Peer const& peer = m_peers[id % kPeers];
    if (!peer.used || peer.id != id) {
        m_counters.dropped(CCounters::DROP_REPLY);
        report("an answer to a datagram is dropped: its request is too long ago");
        return -1;
    }

    memcpy(data + kInvokeId, &peer.senderId, sizeof peer.senderId);
    ssize_t const sent =
        sendto(get_listen_sock(), data, size, 0, reinterpret_cast<sockaddr const*>(&peer.address),
               sizeof peer.address);
    if (sent == -1) {
        report("an answer of %u bytes to %s cannot be sent: %s", size,
               text_of(peer.address).c_str(), strerror(errno));
    } else {
        m_counters.sent(data, size);
    }
    return static_cast<int>(sent);
}

// Registration sets the read handler alone. No answer can be under way before the first request,
// so the loop's own thread sets the rest when that has come.
void CUdpEndpoint::make_answerable(CSocketConnection* conn) {
    if (conn->m_writeHandler != nullptr) return;
    conn->m_writeHandler = &ISocketServer::sock_write_request_handler;
    conn->SetEventLoop(utility::instance<CEventManage>().m_vecLoops.front());
}

uint32_t CUdpEndpoint::remember(sockaddr_in const& sender, uint32_t senderId) {
    uint32_t const id = m_nextId++;
    Peer& peer = m_peers[id % kPeers];
    peer.id = id;
    peer.senderId = senderId;
    peer.address = sender;
    peer.used = true;
    return id;
}

void CUdpEndpoint::put_to_workers(CSocketConnection* conn, sockaddr_in const& sender, size_t size) {
    unsigned char* const frame = m_pRecvBuf->rawData();
    uint32_t senderId;
    memcpy(&senderId, frame + kInvokeId, sizeof senderId);
    uint32_t const ownId = utils_htonl(remember(sender, senderId));
    memcpy(frame + kInvokeId, &ownId, sizeof ownId);

    pbuf* const buf =
        take_pbuf(utility::instance<server_bufpool>(), static_cast<int>(size) + kHeadRoom);
    auto* const msg = new CMsgHeader(MSG_MODE_RECV, MSG_TYPE_DATAGRAM);
    msg->setpBuf(buf, kHeadRoom);
    memcpy(msg->GetVaildData(), frame, size);
    msg->addRecvBufSize(static_cast<int>(size));
    msg->m_pConn = conn;
    msg->m_nSequence = conn->iCurrsequence;
    utility::instance<CThreadPool>().putq(msg);
}

}  // namespace kypserver
