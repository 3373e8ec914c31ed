#include "kypserver/StreamEndpoint.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypserver/ServerLog.h"

namespace kypserver {

namespace {

constexpr unsigned char kBodyBegins = 2;  // CSocketConnection::m_nRecvState

}  // namespace

void turn_away(int listenSock) {
    int const fd = accept4(listenSock, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd == -1) return;

    close(fd);
    report("a client is turned away: there are as many as may be (--max-clients)");
}

void report_overload(std::string const& client) {
    report(
        "the connection of %s is closed: it has as many requests under way and answers unread as "
        "may be (--max-held-bytes)",
        client.c_str());
}

bool has_head(CSocketConnection* conn) {
    return conn->m_nRecvState >= kBodyBegins;
}

void drop_messages(CSocketConnection* conn) {
    std::lock_guard<std::mutex> lock(conn->m_sendMutex);
    conn->clearMsgQueue();
    delete conn->m_pRecvMsg;
    conn->m_pRecvMsg = nullptr;
    // A write event of the same round still comes and finds nothing to send.
    conn->m_pSendPos = nullptr;
    conn->m_nSendRest = 0;
    delete conn->m_pSendMsg;
    conn->m_pSendMsg = nullptr;
}

void count_as_left(CSocketConnection* conn, Traffic const& traffic) {
    // The message is this thread's until the write handler has destroyed it.
    CMsgHeader* const msg = conn->m_pSendMsg;
    auto const size = static_cast<size_t>(msg->GetVaildSize());
    traffic.counters.sent(msg->GetVaildData(), size);
    if (traffic.ledger.left(conn, msg->getpBuf())) return;

    _KypHeader head;
    memcpy(&head, msg->GetVaildData(), sizeof head);
    traffic.held.left(conn, head.port, size);
}

}  // namespace kypserver
