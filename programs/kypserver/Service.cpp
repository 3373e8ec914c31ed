#include "kypserver/Service.h"

#include "kypcomm/KypStatus.h"
#include "kypcore/IConnection.h"
#include "kypserver/HeldBytes.h"

namespace kypserver {

namespace {

constexpr int kAnswerTimeoutMs = 1000;

}  // namespace

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
