// A connection record that keeps what is queued on it. Its socket is real, so that a test sees when
// it is shut.
#ifndef KYP_TESTS_UNIT_KYPSERVER_FAKESOCKETCONN_H
#define KYP_TESTS_UNIT_KYPSERVER_FAKESOCKETCONN_H

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "support/FrameBytes.h"
#include "support/RawPeer.h"

class FakeSocketConn : public CSocketConnection {
public:
    FakeSocketConn() {
        int ends[2] = {-1, -1};
        (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        m_fd = ends[0];
        m_far = RawPeer(ends[1]);
    }
    ~FakeSocketConn() override { close(m_fd); }

    int addSendQueue(CMsgHeader* msg) override {
        unsigned char* const data = msg->GetVaildData();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.emplace_back(data, data + msg->GetVaildSize());
        m_queued.emplace_back(msg);
        return 0;
    }

    size_t count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent.size();
    }

    // The frame that was queued last; empty when there was none since the last call.
    Bytes last() {
        Bytes const frame = m_sent.size() > m_taken ? m_sent.back() : Bytes();
        m_taken = m_sent.size();
        return frame;
    }

    std::vector<Bytes> m_sent;
    std::vector<std::unique_ptr<CMsgHeader>> m_queued;
    RawPeer m_far;

private:
    std::mutex m_mutex;  // for tests with several threads
    size_t m_taken = 0;
};

// `frame` as a worker gives it to a cmp route: behind its first two heads, the rest in place.
inline std::unique_ptr<CMsgHeader> received(CSocketConnection* conn, Bytes const& frame,
                                            _KypHeader& head, _AoEHeader& aoe,
                                            EnMsgType type = MSG_TYPE_STREAM) {
    head = {};
    aoe = {};
    auto msg = std::make_unique<CMsgHeader>(MSG_MODE_RECV, type);
    msg->setpBuf(
        take_pbuf(utility::instance<server_bufpool>(), static_cast<int>(frame.size()) + 48), 48);
    memcpy(msg->GetVaildData(), frame.data(), frame.size());
    msg->addRecvBufSize(static_cast<int>(frame.size()));
    msg->m_pConn = conn;
    msg->m_nSequence = conn->iCurrsequence;
    if (frame.size() >= 8) memcpy(&head, frame.data(), 8);
    if (frame.size() >= 21) memcpy(&aoe, frame.data() + 8, 13);
    msg->m_recvBuf.m_begin += frame.size() >= 21 ? 21 : frame.size();
    return msg;
}

#endif
