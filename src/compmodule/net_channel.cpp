#include "compmodule/net_channel.h"

#include <cstring>

#include "kypcomm/DomainTcpSocket.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/StreamLink.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "utils/Log.h"

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr int kConnectMs = 1000;
constexpr int kHeadSize = sizeof(_KypHeader);

// A fault is left in tlsErrno.
bool read_header(CNetChannel& channel, _KypHeader& header) {
    // Kept: a server that stops inside a header holds the reader until it goes on or closes.
    const int n = channel.socket->readn(reinterpret_cast<unsigned char*>(&header), sizeof(header));
    if (n == kHeadSize) return is_header_valid(header);

    if (n == 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "netchannel:%s disconnect", channel.name.c_str());
        tlsErrno = KYP_ERR_DISCONNECTED;
        return false;
    }
    KYP_LOG(LOG_LEVEL_ERROR,
            "netchannel:%s Received not a complete package,recv:%d!=%d sizeof(KypHeader)",
            channel.name.c_str(), n, kHeadSize);
    tlsErrno = KYP_ERR_HEADER_LENGTH;
    return false;
}

// A buffer with the whole frame at its start, or null with the fault in tlsErrno.
pbuf* read_frame(CNetChannel& channel, int timeoutMs) {
    _KypHeader header{};
    if (!read_header(channel, header)) return nullptr;

    const int bodyLen = static_cast<int>(header.nMsgLen);
    auto& pool = utility::instance<client_bufpool>();
    pbuf* const buf = take_pbuf(pool, bodyLen + kHeadSize);
    if (buf == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "netchannel:%s no buffer for a frame,nMsgLen:%d",
                channel.name.c_str(), bodyLen);
        tlsErrno = KYP_ERR_NO_MEMORY;
        return nullptr;
    }
    unsigned char* const raw = buf->rawData();
    std::memcpy(raw, &header, sizeof(header));
    // A read of no bytes would count as a server that has closed.
    const int n =
        bodyLen == 0 ? 0 : channel.socket->readn(raw + sizeof(header), bodyLen, timeoutMs);
    if (n == bodyLen) return buf;

    KYP_LOG(LOG_LEVEL_ERROR,
            "netchannel:%s Received not a complete package,recv:%d!=%d KypHeader nMsgLen",
            channel.name.c_str(), n, bodyLen);
    tlsErrno = KYP_ERR_HEADER_LENGTH;
    pool.put_one_free(buf);
    return nullptr;
}

bool has_link(CNetChannel const& channel) {
    return channel.socket != nullptr && channel.socket->isConnected();
}

}  // namespace

CNetChannel::CNetChannel(char const* componentName)
    : connected(false),
      name(componentName),
      socket(std::make_shared<DomainTcpSocket>(kDomainPath, 0, SOCKET_TYPE_STREAM, true)) {}

CNetChannel::~CNetChannel() {
    disconnect();
}

// Kept: the timeout is not looked at; the socket is always given the same one.
bool CNetChannel::connect(int /*timeoutMs*/) {
    if (socket != nullptr) connected.store(socket->Connect(kConnectMs), kRelaxed);
    return connected.load(kRelaxed);
}

void CNetChannel::disconnect() {
    if (socket == nullptr) return;
    close_link(*socket, writeMutex);
    connected.store(false, kRelaxed);
}

bool CNetChannel::isconnected() {
    return connected.load(kRelaxed);
}

int CNetChannel::write(char const* data, unsigned int len, int timeoutMs) {
    if (!has_link(*this)) {
        tlsErrno = KYP_ERR_DISCONNECTED;
        return -1;
    }
    std::lock_guard<std::mutex> lock(writeMutex);
    // Again: the link may have gone while others had their turn.
    if (!socket->isConnected()) {
        tlsErrno = KYP_ERR_DISCONNECTED;
        return -1;
    }
    // Kept: a lost link that a write meets stays open, and isconnected() true, until the next read.
    const int sent = socket->write(data, len, timeoutMs);
    if (sent == -1) return -1;
    if (static_cast<unsigned int>(sent) != len) {
        // Kept: a part of the frame may be on its way, and the next write follows behind it.
        tlsErrno = KYP_ERR_SEND_TIMEOUT;
        return -1;
    }
    return sent;
}

int CNetChannel::write(pbuf* buf, int timeoutMs) {
    return write(reinterpret_cast<char const*>(buf->data()), static_cast<unsigned int>(buf->size()),
                 timeoutMs);
}

int CNetChannel::read(pbuf** out, int timeoutMs) {
    if (!has_link(*this)) {
        // Kept: a write in the same place leaves 5, and isconnected() stays as it was.
        tlsErrno = KYP_ERR_NO_CHANNEL;
        return -1;
    }
    pbuf* const buf = read_frame(*this, timeoutMs);
    if (buf == nullptr) {
        // None of the faults leaves a way to find the next frame.
        close_link(*socket, writeMutex);
        socket->setConnectStatus(false);
        connected.store(false, kRelaxed);
        return -1;
    }
    _KypHeader header;
    std::memcpy(&header, buf->rawData(), sizeof(header));
    *out = buf;
    return static_cast<int>(header.nMsgLen) + kHeadSize;
}

bool CNetChannel::waiting(int ms) {
    return socket->Select(ms);
}
