#include "compmodule/business_data_layer.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

#include "compmodule/net_channel.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/Socket.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/pbufbuilder.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcomm/protocol/CompRegisterPackage.h"
#include "kypcomm/protocol/Message.h"
#include "utils/Log.h"
#include "utils/comm.h"

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

constexpr int kConnectMs = 1000;
constexpr int kIoMs = 5000;
constexpr int kIdleSleepMs = 100;  // between two looks at a channel that is down
constexpr int kWaitMs = 300;       // bounds the time between two looks at stopFlag
constexpr double kReconnectSec = 3.0;

// Room for the heads and the fixed fields of every body.
constexpr uint64_t kHeadRoom = 77;

// A reply's heads; its body follows at once.
constexpr int kReplyHeadSize = sizeof(_KypHeader) + sizeof(_AoEHeader);

constexpr unsigned short kCmdRegister = 1;
constexpr unsigned short kCmdRoutePort = 3;

// Also of a record whose name has no end.
std::string name_of(tagCmpDrvInfo const& info) {
    return {info.name, strnlen(info.name, sizeof info.name)};
}

// The frame that read() left in `buf`, in a holder that gives it back to its pool.
void hold_frame(RecvBuf& holder, pbuf* buf, int size) {
    holder.init_pbuf(buf, 0);
    holder.AddBufSize(size);
}

// Whether a read of the next head would not wait: the head is there whole, or the link has ended.
bool is_head_there(int fd) {
    int bytes = 0;
    if (ioctl(fd, FIONREAD, &bytes) == -1 || bytes >= static_cast<int>(sizeof(_KypHeader))) {
        return true;
    }
    pollfd link = {fd, POLLRDHUP, 0};
    return poll(&link, 1, 0) != 0;
}

// Waits for the head of the next frame. False when `ms` have passed; true also when the link is
// gone, for the read that follows to say so.
bool wait_for_head(CNetChannel& channel, int ms) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        // A signal ends a single wait early.
        const bool hasBegun = channel.waiting(static_cast<int>(std::max<int64_t>(left, 0)));
        if (!channel.socket->isConnected()) return true;
        if (hasBegun && is_head_there(channel.socket->m_fd)) return true;
        if (left <= 0) return false;
        // A head that stops half-way would end every wait at once.
        if (hasBegun) CComm::Sleep(1);
    }
}

// A buffer with room for `size` bytes, or null with the fault in tlsErrno.
pbuf* take_send_buf(uint64_t size) {
    pbuf* const buf = take_pbuf(utility::instance<client_bufpool>(), static_cast<int>(size));
    if (buf == nullptr) tlsErrno = KYP_ERR_NO_MEMORY;
    return buf;
}

// Writes `buf` and gives it back to its pool.
int write_and_free(CNetChannel& channel, pbuf* buf) {
    const int sent = channel.write(buf, kIoMs);
    utility::instance<client_bufpool>().put_one_free(buf);
    return sent;
}

int exchange(BusinessDataLayer& layer, CompRegisterPackage request) {
    const int status = layer.register_package_send(&request);
    if (status != 0) return status;
    CompRegisterPackage reply;
    return layer.register_package_recv(&reply);
}

// Whether the layer reports the loss of a link whose read has ended in `status`.
// Kept: a frame with a bad port or length closes the link without a word, so the component is not
// registered again behind it.
bool is_reported(int status) {
    return status == KYP_ERR_DISCONNECTED || status == KYP_ERR_HEADER_LENGTH;
}

void receive_frame(BusinessDataLayer& layer) {
    pbuf* buf = nullptr;
    const int size = layer.channel->read(&buf, kIoMs);
    if (size != -1) {
        RecvBuf frame(false);
        hold_frame(frame, buf, size);
        if (layer.messageCallback != nullptr) layer.messageCallback(&frame, layer.messageArg);
        return;
    }
    // A write has met the dead link first. The channel still counts as connected, so nothing but
    // this would ever end it.
    const bool isLostToWriter = tlsErrno == KYP_ERR_NO_CHANNEL;
    if (isLostToWriter) layer.channel->disconnect();
    if (isLostToWriter || is_reported(tlsErrno)) {
        layer.connectCallback(KYP_ERR_DISCONNECTED, layer.connectArg);
    }
}

}  // namespace

BusinessDataLayer::BusinessDataLayer(tagCmpDrvInfo* info, CNetChannel* netChannel)
    : stopFlag(false),
      registered(false),
      lastInvokeId(0),
      invokeId(0),
      channel(netChannel),
      drvInfo(info),
      connectArg(nullptr),
      messageArg(nullptr),
      connectCallback(nullptr),
      messageCallback(nullptr) {}

BusinessDataLayer::~BusinessDataLayer() {
    stop();
}

int BusinessDataLayer::start() {
    stopFlag.store(false, kRelaxed);
    if (!netThread.joinable()) netThread = std::thread(&BusinessDataLayer::svc, this);
    return 0;
}

int BusinessDataLayer::stop() {
    // Kept: 0 as in start(), and nothing else sets the flag: a thread that runs is waited for as
    // long as the process lives.
    stopFlag.store(false, kRelaxed);
    if (!netThread.joinable()) return 0;
    // A callback would wait for its own thread; that is no shorter.
    while (netThread.get_id() == std::this_thread::get_id()) CComm::Sleep(kIoMs);
    netThread.join();
    return 0;
}

int BusinessDataLayer::svc() {
    KYP_LOG(LOG_LEVEL_DEBUG, "start net thread");
    while (!stopFlag.load(kRelaxed)) {
        if (!channel->isconnected()) {
            CComm::Sleep(kIdleSleepMs);
            reconect_channel();
            continue;
        }
        // A link that is lost without anything to read is looked at too.
        if (!channel->waiting(kWaitMs) && channel->socket->isConnected()) continue;
        receive_frame(*this);
    }
    return 0;
}

int BusinessDataLayer::register_connect_callback(int (*callback)(int, void*), void* arg) {
    connectCallback = callback;
    connectArg = arg;
    return 0;
}

int BusinessDataLayer::register_message_callback(int (*callback)(RecvBuf*, void*), void* arg) {
    messageCallback = callback;
    messageArg = arg;
    return 0;
}

bool BusinessDataLayer::init_connect_channel() {
    const bool connected = channel->connect(kConnectMs);
    // Kept: no test for a null callback; a layer without one ends the process here.
    connectCallback(connected ? KYP_CONNECT_SUCCESS : KYP_ERR_CONNECT_TIMEOUT, connectArg);
    return connected;
}

int BusinessDataLayer::reconect_channel() {
    if (!(reconnectTimer.getElapsedSecond() > kReconnectSec)) return 0;
    reconnectTimer.update();
    KYP_LOG(LOG_LEVEL_DEBUG, "component:%s trigger reconnect", name_of(*drvInfo).c_str());
    return init_connect_channel() ? 1 : 0;
}

int BusinessDataLayer::register_component() {
    tlsErrno = 0;
    if (!channel->isconnected()) {
        tlsErrno = KYP_ERR_SERVER_OFFLINE;
        return tlsErrno;
    }
    const int status =
        exchange(*this, CompRegisterPackage(0, kCmdRegister, 0, name_of(*drvInfo).c_str(),
                                            drvInfo->drvParam0, drvInfo->drvParam1, 0));
    if (status == 0) registered.store(true, kRelaxed);
    return status;
}

// Kept: a channel that is down shows as the write's 5, not as 0x4007.
int BusinessDataLayer::register_route_port(unsigned short port) {
    tlsErrno = 0;
    return exchange(*this, CompRegisterPackage(0, kCmdRoutePort, 0, name_of(*drvInfo).c_str(),
                                               drvInfo->drvParam0, drvInfo->drvParam1, port));
}

int BusinessDataLayer::register_package_send(CompRegisterPackage* pkg) {
    const Message body = pkg->serialization();
    pbuf* const buf = take_send_buf(body.length + kHeadRoom);
    if (buf == nullptr) return tlsErrno;
    addPayloadData(buf, body.data, static_cast<unsigned int>(body.length));
    add_commkypheader_buf(buf, kPortRegister, KYP_CMD_READ_WRITE, 0, 0);
    if (write_and_free(*channel, buf) > 0) return 0;

    KYP_LOG(LOG_LEVEL_ERROR, "component:%s send register cmd:%d fail:%s", name_of(*drvInfo).c_str(),
            pkg->cmdId, strerror(errno));
    return tlsErrno;
}

int BusinessDataLayer::register_package_recv(CompRegisterPackage* pkg) {
    if (!wait_for_head(*channel, kIoMs)) {
        tlsErrno = KYP_ERR_RECV_TIMEOUT;
        return tlsErrno;
    }
    pbuf* buf = nullptr;
    const int size = channel->read(&buf, kIoMs);
    if (size == -1) return tlsErrno;

    RecvBuf frame(false);
    hold_frame(frame, buf, size);
    if (size < kReplyHeadSize) {
        tlsErrno = KYP_ERR_PACKET_TOO_SHORT;
        return tlsErrno;
    }
    // Kept: neither head is looked at; any frame that comes first is taken for the reply.
    pkg->deserialization(Message(frame.GetVaildData() + kReplyHeadSize,
                                 static_cast<uint64_t>(size - kReplyHeadSize)));

    tlsErrno = static_cast<int>(pkg->errId);
    if (tlsErrno == 0) {
        KYP_LOG(LOG_LEVEL_DEBUG, "component %s register cmd:%d success", name_of(*drvInfo).c_str(),
                pkg->cmdId);
    } else {
        KYP_LOG(LOG_LEVEL_ERROR, "component %s register cmd:%d fail,error:%s,code:%d",
                name_of(*drvInfo).c_str(), pkg->cmdId, LibkypGetErrorString(tlsErrno), tlsErrno);
    }
    return tlsErrno;
}

unsigned int BusinessDataLayer::get_invokeId() {
    uint32_t id = 0;
    while (id == 0) id = invokeId.fetch_add(1, kRelaxed);
    return id;
}

int BusinessDataLayer::add_commkypheader_buf(pbuf* buf, unsigned short port, unsigned short cmd,
                                             unsigned int indexGroup, unsigned int indexOffset) {
    const uint32_t id = get_invokeId();
    lastInvokeId.store(id, kRelaxed);
    addAoeRequestHeaderTobuf(buf, {utils_htonl(indexGroup), utils_htonl(indexOffset)});
    addAoeHeaderTobuf(buf, {0, utils_htonl(id), utils_htons(cmd), 0, KYP_STATE_REQUEST});
    addKypHeaderTobuf(buf, port, kKypVersion);
    return 0;
}

int BusinessDataLayer::write_pubsub_msg(char const* type, char const* topic, _KypPayload payload) {
    if (topic == nullptr) throw std::logic_error("the topic is null");

    // In 64 bits, so that a length near 4 GiB does not pass as a small or negative one.
    const uint64_t size = payload.length + kHeadRoom + strlen(topic);
    if (size > kMaxMsgLen) {
        tlsErrno = KYP_ERR_PACKET_TOO_LONG;
        return tlsErrno;
    }
    pbuf* const buf = take_send_buf(size);
    if (buf == nullptr) return tlsErrno;
    addPubSubMsgTobuf(buf, type, topic, payload.indexGroup, payload.indexOffset,
                      static_cast<char const*>(payload.data), payload.length);
    add_commkypheader_buf(buf, kPortPubSub, payload.cmd, payload.indexGroup, payload.indexOffset);
    if (write_and_free(*channel, buf) != -1) return 0;

    KYP_LOG(LOG_LEVEL_ERROR, "channel write fail,err:%d,msg:%s", tlsErrno,
            LibkypGetErrorString(tlsErrno));
    return tlsErrno;
}

int BusinessDataLayer::publish(char const* topic, unsigned int indexGroup, unsigned int indexOffset,
                               char const* data, unsigned int length) {
    return write_pubsub_msg(
        "pub", topic, {KYP_CMD_PUBLISH, indexGroup, indexOffset, length, const_cast<char*>(data)});
}

int BusinessDataLayer::subscribe(char const* topic) {
    return write_pubsub_msg("sub", topic, {KYP_CMD_SUBSCRIBE, 0, 0, 0, nullptr});
}

int BusinessDataLayer::unsubscribe(char const* topic) {
    return write_pubsub_msg("unsub", topic, {KYP_CMD_UNSUBSCRIBE, 0, 0, 0, nullptr});
}
