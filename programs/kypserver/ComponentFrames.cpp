#include "kypserver/ComponentFrames.h"

#include <cstring>

#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"

namespace kypserver {

namespace {

constexpr uint32_t kEventLeave = 1;

}  // namespace

std::unique_ptr<CMsgHeader> take_over(CMsgHeader& msg) {
    auto own = std::make_unique<CMsgHeader>(MSG_MODE_RECV, msg.m_enType);
    own->m_pConn = msg.m_pConn;
    own->m_nSequence = msg.m_nSequence;
    own->m_nInvokeId = msg.m_nInvokeId;
    own->m_recvBuf.m_begin = msg.m_recvBuf.m_begin;
    own->m_recvBuf.m_end = msg.m_recvBuf.m_end;
    own->m_recvBuf.m_pbuf = msg.pop_pBuf();
    return own;
}

bool has_address(CMsgHeader& msg) {
    return msg.GetVaildSize() >= static_cast<int>(sizeof(AoERequestHeader));
}

bool is_forwardable(_KypHeader const& head) {
    return head.nMsgLen <= kMaxMsgLen - sizeof(_KypforwardHeader);
}

std::unique_ptr<CMsgHeader> make_forwarded(CMsgHeader& msg, _KypHeader head, _AoEHeader const& aoe,
                                           uint16_t number) {
    AoERequestHeader address;
    memcpy(&address, msg.GetVaildData(), sizeof address);
    _KypforwardHeader forward = {};
    forward.clientFd = number;
    head.nMsgLen += static_cast<uint32_t>(sizeof forward);

    std::unique_ptr<CMsgHeader> made = take_over(msg);
    made->m_recvBuf.m_begin += sizeof address;
    made->prepend(&forward, sizeof forward);
    made->prepend(&address, sizeof address);
    made->prepend(&aoe, sizeof aoe);
    made->prepend(&head, sizeof head);
    return made;
}

bool read_forward_head(CMsgHeader& msg, _KypforwardHeader& forward) {
    if (msg.GetVaildSize() < static_cast<int>(sizeof forward)) return false;
    memcpy(&forward, msg.GetVaildData(), sizeof forward);
    return true;
}

std::unique_ptr<CMsgHeader> make_answer(CMsgHeader& msg, _KypHeader head, _AoEHeader const& aoe) {
    head.nMsgLen -= static_cast<uint32_t>(sizeof(_KypforwardHeader));

    std::unique_ptr<CMsgHeader> made = take_over(msg);
    made->m_recvBuf.m_begin += sizeof(_KypforwardHeader);
    made->prepend(&aoe, sizeof aoe);
    made->prepend(&head, sizeof head);
    return made;
}

void send_frame(CSocketConnection* conn, std::unique_ptr<CMsgHeader> frame) {
    frame->m_pConn = conn;
    frame->m_nSequence = conn->iCurrsequence.load(std::memory_order_relaxed);
    conn->addSendQueue(frame.release());
}

std::unique_ptr<CMsgHeader> make_leave(unsigned short port, uint16_t number) {
    _KypforwardHeader forward = {};
    forward.event = kEventLeave;
    forward.clientFd = number;
    AoERequestHeader const address = {};
    _AoEHeader aoe = {};
    aoe.cmd = utils_htons(KYP_CMD_PUBLISH);  // nobody awaits an answer
    _KypHeader head = {};
    head.version = kKypVersion;
    head.port = port;
    head.nMsgLen = sizeof aoe + sizeof address + sizeof forward;

    auto made = std::make_unique<CMsgHeader>(MSG_MODE_SEND, MSG_TYPE_STREAM);
    made->setpBuf(take_pbuf(utility::instance<server_bufpool>(),
                            static_cast<int>(sizeof head + head.nMsgLen)),
                  0);
    made->prepend(&forward, sizeof forward);
    made->prepend(&address, sizeof address);
    made->prepend(&aoe, sizeof aoe);
    made->prepend(&head, sizeof head);
    return made;
}

}  // namespace kypserver
