#include "kypcore/SocketConnection.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/ISocketServer.h"
#include "utils/Log.h"

namespace {

// Room for the heads that a forwarder puts in front of a message.
constexpr int kHeadRoom = 48;
constexpr int kHeads = static_cast<int>(sizeof(_KypHeader) + sizeof(_AoEHeader));

enum WriteInterest { WRITE_WANTED = 0, WRITE_NOT_WANTED = 1 };

// The caller holds m_sendMutex. A record without a loop fails as the kernel does for a closed
// descriptor.
int set_write_interest(CSocketConnection* conn, WriteInterest interest) {
    CEventLoop* const loop = conn->m_pEventLoop;
    if (loop == nullptr) {
        errno = EBADF;
        return -1;
    }
    return loop->epoll_oper_event(conn->m_fd, EPOLL_CTL_MOD, EPOLLOUT, interest, conn);
}

// The caller holds m_sendMutex.
void install(CSocketConnection* conn, CMsgHeader* msg) {
    conn->m_pSendMsg = msg;
    conn->m_nSendRest.store(static_cast<unsigned int>(msg->GetVaildSize()),
                            std::memory_order_relaxed);
    // The write handler reads the position without the lock and then the rest, the message and its
    // bytes.
    conn->m_pSendPos.store(msg->GetVaildData(), std::memory_order_release);
}

std::unique_ptr<CMsgHeader> make_message(CSocketConnection* conn, unsigned int invokeId) {
    auto msg = std::make_unique<CMsgHeader>(MSG_MODE_SEND, MSG_TYPE_STREAM);
    msg->m_pConn = conn;
    msg->m_nSequence = conn->iCurrsequence.load(std::memory_order_relaxed);
    msg->m_nInvokeId = invokeId;
    return msg;
}

// Kept: a message that cannot be sent is destroyed, and the sender hears 0 all the same.
int send_anyway(CSocketConnection* conn, std::unique_ptr<CMsgHeader> msg) {
    conn->addSendQueue(msg.release());
    return 0;
}

// A buffer for `size` bytes of data and `extra` more, or null with the reason logged.
pbuf* take_send_buf(char const* data, int size, int extra) {
    if (size < 0 || (size > 0 && data == nullptr)) {
        KYP_LOG(LOG_LEVEL_ERROR, "send message fail,data:%p,size:%d",
                static_cast<void const*>(data), size);
        tlsErrno = KYP_ERR_PARAM;
        return nullptr;
    }
    int total = 0;
    pbuf* const buf = __builtin_add_overflow(size, extra, &total)
                          ? nullptr
                          : take_pbuf(utility::instance<server_bufpool>(), total);
    if (buf == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "send message fail,size:%d is more than any buffer holds", size);
        tlsErrno = KYP_ERR_PACKET_TOO_LONG;
    }
    return buf;
}

}  // namespace

CSocketConnection::CSocketConnection()
    : m_readHandler(nullptr),
      m_writeHandler(nullptr),
      m_bSending(false),
      m_nRecvState(0),
      m_tRecycle(0),
      m_events(0),
      m_fd(-1),
      m_recvHeader{},
      m_nRecvRest(sizeof m_recvHeader),
      m_pRecvPos(reinterpret_cast<unsigned char*>(&m_recvHeader)),
      m_pRecvMsg(nullptr),
      m_nSendRest(0),
      m_pSendPos(nullptr),
      m_pSendMsg(nullptr),
      iCurrsequence(0),
      m_peerAddr{},
      m_pServer(nullptr),
      m_pEventLoop(nullptr),
      m_szPeerName{} {}

CSocketConnection::~CSocketConnection() {
    PutOneToFree();
}

int CSocketConnection::send_message(char const* data, int size) {
    pbuf* const buf = take_send_buf(data, size, kHeadRoom);
    if (buf == nullptr) return -1;

    auto msg = make_message(this, 0);
    msg->setpBuf(buf, kHeadRoom);
    if (size > 0) msg->prepend(data, size);
    return send_anyway(this, std::move(msg));
}

int CSocketConnection::send_message(_AoEHeader const& aoe, unsigned short port, char const* data,
                                    int size, int /*timeout*/) {
    pbuf* const buf = take_send_buf(data, size, kHeads + kHeadRoom);
    if (buf == nullptr) return -1;

    _KypHeader head{};
    head.version = kKypVersion;
    head.port = port;
    head.nMsgLen = static_cast<uint32_t>(size) + static_cast<uint32_t>(sizeof aoe);
    auto msg = make_message(this, utils_ntohl(aoe.invokeId));
    msg->setpBuf(buf, kHeadRoom);
    if (size > 0) msg->prepend(data, size);
    msg->prepend(&aoe, sizeof aoe);
    msg->prepend(&head, sizeof head);
    return send_anyway(this, std::move(msg));
}

int CSocketConnection::send_message(pbuf* buf, _AoEHeader const& aoe) {
    if (buf == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "send message fail,no buffer");
        tlsErrno = KYP_ERR_PARAM;
        return -1;
    }

    auto msg = make_message(this, utils_ntohl(aoe.invokeId));
    msg->setpBuf(buf, 0);
    return send_anyway(this, std::move(msg));
}

int CSocketConnection::get_fd() {
    return m_fd.load(std::memory_order_relaxed);
}

int CSocketConnection::addSendQueue(CMsgHeader* msg) {
    std::lock_guard<std::mutex> lock(m_sendMutex);
    if (!m_sendQueue.empty() || m_bSending.load(std::memory_order_relaxed)) {
        m_sendQueue.push_back(msg);
        return 0;
    }

    install(this, msg);
    m_bSending.store(true, std::memory_order_relaxed);
    if (set_write_interest(this, WRITE_WANTED) == 0) return 0;

    int const error = errno;
    m_bSending.store(false, std::memory_order_relaxed);
    m_pSendPos.store(nullptr, std::memory_order_relaxed);
    m_pSendMsg = nullptr;
    m_nSendRest.store(0, std::memory_order_relaxed);
    delete msg;
    KYP_LOG(LOG_LEVEL_ERROR, "ServerSendQueueThread epoll_oper_event fail(%s)", strerror(error));
    return -1;
}

void CSocketConnection::SetSockServer(ISocketServer* server) {
    m_pServer = server;
}

void CSocketConnection::SetEventLoop(CEventLoop* loop) {
    m_pEventLoop.store(loop, std::memory_order_relaxed);
}

void CSocketConnection::GetOneToUse() {
    // A late reply of the record's previous peer may be in addSendQueue at this moment.
    std::lock_guard<std::mutex> lock(m_sendMutex);
    iCurrsequence.fetch_add(1, std::memory_order_relaxed);
    m_events.store(0, std::memory_order_relaxed);
    m_fd.store(-1, std::memory_order_relaxed);
    m_pRecvPos = reinterpret_cast<unsigned char*>(&m_recvHeader);
    m_nRecvRest = sizeof m_recvHeader;
    m_pRecvMsg = nullptr;
    m_nRecvState = 0;
    m_nSendRest.store(0, std::memory_order_relaxed);
    m_pSendPos.store(nullptr, std::memory_order_relaxed);
    m_pSendMsg = nullptr;
    m_bSending.store(false, std::memory_order_relaxed);
    m_pServer = nullptr;
    memset(m_szPeerName, 0, sizeof m_szPeerName);
}

void CSocketConnection::PutOneToFree() {
    std::lock_guard<std::mutex> lock(m_sendMutex);
    iCurrsequence.fetch_add(1, std::memory_order_relaxed);
    delete m_pRecvMsg;
    m_pRecvMsg = nullptr;
    delete m_pSendMsg;
    m_pSendMsg = nullptr;
    m_bSending.store(false, std::memory_order_relaxed);
    m_pEventLoop.store(nullptr, std::memory_order_relaxed);
    memset(m_szPeerName, 0, sizeof m_szPeerName);
    clearMsgQueue();
}

void CSocketConnection::clearMsgQueue() {
    for (CMsgHeader* msg : m_sendQueue) delete msg;
    m_sendQueue.clear();
}

int CSocketConnection::triggerSendNextMsg() {
    std::lock_guard<std::mutex> lock(m_sendMutex);
    if (!m_sendQueue.empty()) {
        install(this, m_sendQueue.front());
        m_sendQueue.pop_front();
        return 0;
    }

    m_bSending.store(false, std::memory_order_relaxed);
    if (set_write_interest(this, WRITE_NOT_WANTED) != 0) {
        int const error = errno;
        KYP_LOG(LOG_LEVEL_ERROR, "client:%s delete write event fail,error:%d,%s", m_szPeerName,
                error, strerror(error));
    }
    return 0;
}

int CSocketConnection::sendproc(unsigned char* data, unsigned int size) {
    if (m_pServer == nullptr) return 0;
    return m_pServer->sendproc(this, data, size);
}
