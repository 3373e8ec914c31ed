#include "kypcomm/UdpExchange.h"

#include <atomic>
#include <cstring>
#include <memory>

#include "kypcomm/Frame.h"
#include "kypcomm/KypPacket.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/UdpSocket.h"
#include "utils/Log.h"

namespace {

constexpr unsigned int kAnswerSize = 4096;

std::atomic<unsigned int> nextInvokeId{0};

_AoEHeader request_header(unsigned int invokeId, unsigned short cmd) {
    _AoEHeader aoe = {};
    aoe.invokeId = utils_htonl(invokeId);
    aoe.cmd = utils_htons(cmd);
    aoe.state = KYP_STATE_REQUEST;
    return aoe;
}

}  // namespace

int UdpSendRecv(char const* host, unsigned short port, unsigned short cmd, AoERequestHeader& req,
                void* in, unsigned int inLen, void* out, unsigned int outLen, int timeoutMs) {
    const unsigned int invokeId = nextInvokeId.fetch_add(1, std::memory_order_relaxed);
    _AoEHeader aoe = request_header(invokeId, cmd);
    const Frame frame = MakeKypRequestPacket(port, aoe, req, in, inLen, kKypVersion);
    const std::unique_ptr<unsigned char[]> block(frame.rawData());

    // Kept: the socket is not shut down; each exchange costs the process one descriptor.
    UdpSocket peer(host, kUdpPort, SOCKET_TYPE_DATAGRAM, false);
    if (peer.write(frame) == -1) {
        tlsErrno = KYP_ERR_SEND;
        return tlsErrno;
    }

    unsigned char answer[kAnswerSize] = {};
    const int received = peer.read(answer, kAnswerSize, timeoutMs);
    if (received == -1) {
        tlsErrno = KYP_ERR_RECV_TIMEOUT;
        return tlsErrno;
    }

    // Of a datagram shorter than its head the missing bytes count as zero.
    _KypHeader head;
    memcpy(&head, answer, sizeof head);
    const int headSize = static_cast<int>(sizeof head);
    if (received < headSize || static_cast<unsigned int>(received - headSize) != head.nMsgLen) {
        // Kept: tlsErrno stays as it was, here and below; only the result tells.
        KYP_LOG(LOG_LEVEL_ERROR, "kypHeader len:%d !=", static_cast<int>(head.nMsgLen));
        return KYP_ERR_HEADER_LENGTH;
    }

    const int result = ParseKypResponsePacket(answer + headSize, head.nMsgLen, aoe, out, outLen);
    if (result != 0) {
        // Kept: the two ids stand in each other's place; the answer's is printed as reqInvokeId.
        KYP_LOG(LOG_LEVEL_ERROR, "CmdId:%d fail result:0x%x,reqInvokeId:%d,resInvokeId:%d", cmd,
                static_cast<unsigned int>(result), static_cast<int>(utils_ntohl(aoe.invokeId)),
                static_cast<int>(invokeId));
        return result;
    }
    if (utils_ntohl(aoe.invokeId) != invokeId) return KYP_ERR_INVOKE_ID;

    KYP_LOG(LOG_LEVEL_DEBUG, "CmdId:%d success,IdGroup:%x,IdOffset:%x", cmd,
            utils_ntohl(req.indexGroup), utils_ntohl(req.indexOffset));
    return KYP_OK;
}
