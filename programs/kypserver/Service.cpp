#include "kypserver/Service.h"

#include <algorithm>
#include <cstring>
#include "kypcomm/KypStatus.h"

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/HeldBytes.h"

namespace kypserver {

namespace {

constexpr int kAnswerTimeoutMs = 1000;

}  // namespace

Request read_request(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                     CHeldBytes& held) {
    AoERequestHeader address = {};
    int const size = msg.GetVaildSize();
    int const addressSize = sizeof address;
    if (size >= addressSize) memcpy(&address, msg.GetVaildData(), sizeof address);

    Request request = {};
    request.port = head.port;
    request.data = reinterpret_cast<char const*>(msg.GetVaildData()) + std::min(size, addressSize);
    request.size = static_cast<unsigned int>(std::max(size - addressSize, 0));
    request.head.version = head.version;
    request.head.cmd = utils_ntohs(aoe.cmd);
    request.head.invokeId = utils_ntohl(aoe.invokeId);
    request.head.indexGroup = utils_ntohl(address.indexGroup);
    request.head.indexOffset = utils_ntohl(address.indexOffset);
    request.head.error = utils_ntohl(aoe.error);
    request.head.conn = msg.m_pConn;
    request.held = &held;
    request.state = aoe.state;
    return request;
}

bool is_one_way(unsigned int cmd) {
    return cmd == KYP_CMD_SUBSCRIBE || cmd == KYP_CMD_UNSUBSCRIBE || cmd == KYP_CMD_PUBLISH;
}

unsigned int address_fault(Request const& request, uint32_t group, uint32_t offset, size_t size) {
    if (request.head.indexGroup != group) return KYP_ERR_INDEX_GROUP;
    if (request.head.indexOffset != offset) return KYP_ERR_INDEX_OFFSET;
    if (request.size != size) return KYP_ERR_PACKET_LENGTH;
    return KYP_OK;
}

void answer(Request const& request, unsigned int status, void const* data, int size) {
    _AoEHeader aoe = {};
    aoe.error = utils_htonl(status);
    aoe.invokeId = utils_htonl(request.head.invokeId);
    aoe.cmd = utils_htons(request.head.cmd);
    aoe.state = KYP_STATE_RESPONSE;
    // Before it is queued, since it may have left when send_message() returns.
    if (request.held != nullptr) {
        request.held->answering(request.head.conn, static_cast<size_t>(size));
    }
    request.head.conn->send_message(aoe, request.port, static_cast<char const*>(data), size,
                                    kAnswerTimeoutMs);
}

}  // namespace kypserver
