#include "compmodule/comp_virtual_conn.h"

#include <cerrno>
#include <limits>
#include <memory>

#include "compmodule/net_channel.h"
#include "kypcomm/Frame.h"
#include "kypcomm/KypStatus.h"
#include "utils/Log.h"

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

// An answer carries no AoERequestHeader.
constexpr unsigned int kBodyHeads = sizeof(_AoEHeader) + sizeof(_KypforwardHeader);
constexpr unsigned int kHeads = sizeof(_KypHeader) + kBodyHeads;
constexpr int kLongestAnswer = std::numeric_limits<int>::max() - static_cast<int>(kHeads);

// 0, or why such an answer cannot be put into a frame.
int fault_of(char const* data, int length) {
    if (length < 0 || (length > 0 && data == nullptr)) return KYP_ERR_PARAM;
    return length > kLongestAnswer ? KYP_ERR_PACKET_TOO_LONG : KYP_OK;
}

// A whole frame. Its block is the caller's to delete.
Frame make_answer(_AoEHeader const& aoe, unsigned short port, int clientFd, char const* data,
                  unsigned int length) {
    _KypforwardHeader forward = {};
    forward.replyFd = static_cast<uint16_t>(clientFd);
    forward.replyInvoke = utils_ntohl(aoe.invokeId);
    const _KypHeader header = {0, kKypVersion, port, length + kBodyHeads};

    Frame frame(length + kHeads, nullptr);
    frame.prepend(data, length);
    frame.prepend(&forward, sizeof forward);
    frame.prepend(&aoe, sizeof aoe);
    frame.prepend(&header, sizeof header);
    return frame;
}

// True when all of it was written, else the reason is in tlsErrno.
bool write_frame(CNetChannel* channel, Frame const& frame, int timeoutMs) {
    if (channel == nullptr) {
        tlsErrno = KYP_ERR_NO_CHANNEL;
        return false;
    }
    auto* const bytes = reinterpret_cast<char const*>(frame.data());
    return channel->write(bytes, frame.size(), timeoutMs) == static_cast<int>(frame.size());
}

// The codes that an answering route knows.
int send_error(int status) {
    // Kept: a link that the channel found closed, 5, becomes a send error like a write that took
    // too long. 5 itself stands for what a channel without a link or a descriptor reports.
    return status == EPIPE || status == KYP_ERR_NO_CHANNEL ? KYP_ERR_DISCONNECTED : KYP_ERR_SEND;
}

}  // namespace

VirtualConn::VirtualConn() : VirtualConn(0, nullptr) {}

VirtualConn::VirtualConn(int fd, CNetChannel* netChannel)
    : connIndex(-1), clientFd(fd), generation(0), reserved(0), channel(netChannel) {}

VirtualConn::~VirtualConn() = default;

// Kept: ready-made bytes are not sent, and the sender hears 0 all the same; so it is with a pbuf,
// which stays the caller's.
int VirtualConn::send_message(char const*, int) {
    return 0;
}

int VirtualConn::send_message(_AoEHeader const& aoe, unsigned short port, char const* data,
                              int length, int timeout) {
    if (int const fault = fault_of(data, length); fault != KYP_OK) {
        KYP_LOG(LOG_LEVEL_ERROR, "send message fail,client fd:%d,data:%p,size:%d", get_fd(),
                static_cast<void const*>(data), length);
        tlsErrno = fault;
        return -1;
    }
    const Frame frame = make_answer(aoe, port, get_fd(), data, static_cast<unsigned int>(length));
    const std::unique_ptr<unsigned char[]> block(frame.rawData());
    if (!write_frame(channel.load(kRelaxed), frame, timeout)) {
        tlsErrno = send_error(tlsErrno);
        return -1;
    }
    KYP_LOG(LOG_LEVEL_TRACE, "replay client Msg,size:%d,InvokeId:%d,errorId:0x:%x", length,
            static_cast<int>(utils_ntohl(aoe.invokeId)), utils_ntohl(aoe.error));
    return length;
}

int VirtualConn::send_message(pbuf*, _AoEHeader const&) {
    return 0;
}

int VirtualConn::get_fd() {
    return clientFd.load(kRelaxed);
}

void VirtualConn::setVirtualConnInfo(int fd, CNetChannel* netChannel) {
    clientFd.store(fd, kRelaxed);
    channel.store(netChannel, kRelaxed);
}

void VirtualConn::Open(short index) {
    connIndex.store(index, kRelaxed);
    generation.fetch_add(1, kRelaxed);
}

int VirtualConn::Close() {
    // Kept: client and channel stay, so an answer that comes late is still sent.
    generation.fetch_add(1, kRelaxed);
    connIndex.store(-1, kRelaxed);
    return -1;
}

bool VirtualConn::IsOpen() {
    return connIndex.load(kRelaxed) >= 0;
}
