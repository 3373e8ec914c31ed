#include "kypclient/KypPeerConn.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kypcomm/KypPacket.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/pbufbuilder.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcomm/protocol/ReceivedTopic.h"
#include "utils/Log.h"

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kAnswerTime = kNanosecondsPerSecond;  // of the split way, until it is fetched
constexpr int64_t kLeastTimeLeft = 1000;                // nanoseconds; an answer with less is late
constexpr int kBlockingSendMs = 3000;
constexpr int kPubSubSendMs = 5000;
constexpr uint32_t kResponseHeads = sizeof(_KypHeader) + sizeof(_AoEHeader);
constexpr uint64_t kPubSubOverhead = 77;  // the heads, the body's own 35 bytes and the type

int64_t steady_now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Subscriptions are entered by callers and read by the receive thread. Their lock stands beside the
// object, whose layout has no room for it; connections that share one only wait for a map search.
std::mutex& topics_mutex(IKypPeerConnection const* conn) {
    static std::mutex s_mutexes[16];
    return s_mutexes[(reinterpret_cast<uintptr_t>(conn) >> 8) % 16];
}

void delete_request(KypRequest* request) {
    if (request == nullptr) return;
    delete[] request->frame.rawData();
    delete request;
}

int64_t time_left(int64_t deadline) {
    int64_t left = 0;
    if (__builtin_sub_overflow(deadline, steady_now(), &left)) return -kNanosecondsPerSecond;
    return left;
}

// What KypResponse::Notify does, for a caller that holds the slot's mutex already.
void notify_locked(KypResponse& slot, unsigned int code) {
    // All bits set is the mark of "none yet": a peer that answers so would keep its waiter for
    // ever. To the caller such a peer has not answered in time.
    slot.result = code == UINT32_MAX ? KYP_ERR_RECV_TIMEOUT : static_cast<int>(code);
    slot.cond.notify_all();
}

// One inbound frame with its heads taken apart. Of a frame that is shorter than its heads the
// missing bytes read as zero, and there is no payload.
struct Inbound {
    unsigned char* frame;
    uint32_t length;       // bytes at `frame`
    uint32_t bodyLen;      // bytes behind the _KypHeader that are really there
    uint32_t payloadSize;  // bytes behind the _AoEHeader that are really there
    _KypHeader kyp;
    _AoEHeader aoe;
};

Inbound take_apart(unsigned char* frame, int length) {
    Inbound in{};
    in.frame = frame;
    if (length <= 0) return in;
    in.length = static_cast<uint32_t>(length);
    std::memcpy(&in.kyp, frame, std::min<size_t>(in.length, sizeof(in.kyp)));
    if (in.length <= sizeof(in.kyp)) return in;

    in.bodyLen =
        std::min(uint32_t{in.kyp.nMsgLen}, static_cast<uint32_t>(in.length - sizeof(_KypHeader)));
    std::memcpy(&in.aoe, frame + sizeof(in.kyp), std::min<size_t>(in.bodyLen, sizeof(in.aoe)));
    if (in.bodyLen > sizeof(in.aoe)) {
        in.payloadSize = static_cast<uint32_t>(in.bodyLen - sizeof(in.aoe));
    }
    return in;
}

void copy_to_user(KypRequest& request, Inbound const& in) {
    const uint32_t n = std::min(in.payloadSize, request.capacity);
    if (static_cast<int32_t>(n) > 0 && request.buffer != nullptr) {
        std::memcpy(request.buffer, in.frame + kResponseHeads, n);
    }
    request.copied = n;
}

// Serves a claimed slot, whose mutex the caller holds: the owner can neither take its request back
// nor wake before all of it is in place.
int answer_locked(KypResponse& slot, Inbound const& in, PeerBuffer& peerBuffer) {
    KypRequest* const request = slot.request;
    if (request == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "request recv timeout");
        notify_locked(slot, KYP_ERR_RECV_TIMEOUT);
        return -1;
    }
    const int64_t remaining = time_left(request->deadline);
    if (remaining < kLeastTimeLeft) {
        KYP_LOG(LOG_LEVEL_ERROR, "invokid:%d,response is timeout,time usec:%d",
                static_cast<int>(utils_ntohl(in.aoe.invokeId)), static_cast<int>(remaining / 1000));
        notify_locked(slot, KYP_ERR_RECV_TIMEOUT);
        return -1;
    }
    if (request->recvLen != nullptr) *request->recvLen = in.payloadSize;
    if (request->copyToUser) {
        copy_to_user(*request, in);
    } else {
        peerBuffer.add_buff(in.frame, kResponseHeads, in.length);
    }
    notify_locked(slot, utils_ntohl(in.aoe.error));
    return 0;
}

}  // namespace

IKypPeerConnection::IKypPeerConnection() : IKypPeerConnection(_KypDeviceId{}, std::string()) {}

IKypPeerConnection::IKypPeerConnection(_KypDeviceId id, std::string param)
    : m_reconnectEnabled(true),
      m_connEventCtx(nullptr),
      m_reconnectIntervalSec(2),
      m_invokeId(0),
      m_lastInvokeId(0),
      m_param(std::move(param)),
      m_pLatestRequest(nullptr),
      m_pLatestResponse(nullptr),
      m_connEvent(nullptr),
      m_deviceId(id) {
    add_router(kPortPubSub, libkypsubscribeMsgRouterCallBack, this);
}

IKypPeerConnection::~IKypPeerConnection() {
    m_connEvent = nullptr;
    m_connEventCtx = nullptr;
    for (KypResponse& slot : m_responses) slot.Release();
    IKypPeerConnection::stop();
    delete_request(m_pLatestRequest);
}

int IKypPeerConnection::start() {
    return 0;
}

int IKypPeerConnection::stop() {
    return 0;
}

int IKypPeerConnection::connect(int) {
    return 0;
}

int IKypPeerConnection::reconnect(int) {
    return 0;
}

bool IKypPeerConnection::isconnected() {
    return false;
}

void IKypPeerConnection::disconnect() {}

int IKypPeerConnection::send_request_packet(unsigned short port, _KypPayload payload,
                                            int timeoutMs) {
    const unsigned int id = GetInvokeId();
    m_lastInvokeId.store(id, std::memory_order_relaxed);
    _AoEHeader aoe{0, utils_htonl(id), utils_htons(payload.cmd), 0, KYP_STATE_REQUEST};
    AoERequestHeader req{utils_htonl(payload.indexGroup), utils_htonl(payload.indexOffset)};

    if (payload.cmd == KYP_CMD_SUBSCRIBE || payload.cmd == KYP_CMD_UNSUBSCRIBE ||
        payload.cmd == KYP_CMD_PUBLISH) {
        Frame frame =
            MakeKypRequestPacket(port, aoe, req, payload.data, payload.length, kKypVersion);
        const int sent = raw_send(frame, timeoutMs);
        delete[] frame.rawData();
        return sent;
    }

    // The block is 8 bytes short of the packet, so the last head makes it grow.
    auto* const request =
        new KypRequest{false,       Frame(payload.length + kResponseHeads, nullptr),
                       m_deviceId,  port,
                       payload.cmd, 0,
                       nullptr,     nullptr,
                       0,           0};
    // Before the old request goes: the receive thread reads it as long as it stands in its slot. An
    // answer that nobody fetched is dropped by this.
    if (m_pLatestResponse != nullptr) m_pLatestResponse->Release();
    m_pLatestResponse = nullptr;
    delete_request(std::exchange(m_pLatestRequest, request));
    MakeKypRequestPacketEx(request->frame, port, aoe, req, static_cast<char const*>(payload.data),
                           payload.length, kKypVersion);
    {
        // Held from occupying to awaiting: a late answer to the slot's former id must not be taken
        // for one to the new owner.
        std::lock_guard<std::mutex> lock(m_responses[id % kResponseSlots].mutex);
        m_pLatestResponse = GetFreeResponse(request, aoe);
        // Kept: sets no status, and neither does a link that took only a part in time.
        if (m_pLatestResponse == nullptr) return -1;
        // Kept: one second, whatever `timeoutMs` says; raw_recv() sets the caller's time.
        request->deadline = steady_now() + kAnswerTime;
        m_pLatestResponse->invokeId = id;
    }
    const int sent = raw_send(request->frame, timeoutMs);
    if (sent != static_cast<int>(request->frame.size())) {
        m_pLatestResponse->Release();
        m_pLatestResponse = nullptr;
        return -1;
    }
    return sent;
}

unsigned int IKypPeerConnection::GetInvokeId() {
    uint32_t id = 0;
    do {
        id = m_invokeId.fetch_add(1);
    } while (id == 0);
    return id;
}

int IKypPeerConnection::MakeKypRequestHeaderTobuf(pbuf* buf, unsigned short port,
                                                  unsigned short cmd, unsigned int indexGroup,
                                                  unsigned int indexOffset) {
    const unsigned int id = GetInvokeId();
    m_lastInvokeId.store(id, std::memory_order_relaxed);
    addAoeRequestHeaderTobuf(buf, {utils_htonl(indexGroup), utils_htonl(indexOffset)});
    addAoeHeaderTobuf(buf, {0, utils_htonl(id), utils_htons(cmd), 0, KYP_STATE_REQUEST});
    addKypHeaderTobuf(buf, port, kKypVersion);
    return 0;
}

KypResponse* IKypPeerConnection::GetFreeResponse(KypRequest* req, _AoEHeader const& aoe) {
    KypResponse& slot = m_responses[utils_ntohl(aoe.invokeId) % kResponseSlots];
    KypRequest* nobody = nullptr;
    if (!slot.request.compare_exchange_strong(nobody, req)) {
        KYP_LOG(LOG_LEVEL_ERROR, "response KypRequest is already in use");
        return nullptr;
    }
    return &slot;
}

KypResponse* IKypPeerConnection::GetPendingResponse(unsigned int invokeId) {
    KypResponse& slot = m_responses[invokeId % kResponseSlots];
    uint32_t awaited = invokeId;
    // Kept: an answer with id 0, which is never given out, matches slot 0 while that awaits nothing
    // and is reported as late instead of reaching a route.
    return slot.invokeId.compare_exchange_strong(awaited, 0) ? &slot : nullptr;
}

KypResponse* IKypPeerConnection::WriteKypRequest(KypRequest* req) {
    const unsigned int id = GetInvokeId();
    const _AoEHeader aoe{0, utils_htonl(id), utils_htons(req->cmd), 0, KYP_STATE_REQUEST};
    req->frame.prepend(&aoe, sizeof(aoe));
    const _KypHeader header{0, kKypVersion, req->port, req->frame.size()};
    req->frame.prepend(&header, sizeof(header));

    KypResponse* slot = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_responses[id % kResponseSlots].mutex);
        slot = GetFreeResponse(req, aoe);
        if (slot == nullptr) return nullptr;
        slot->invokeId = id;
    }
    if (raw_send(req->frame, kBlockingSendMs) != static_cast<int>(req->frame.size())) {
        slot->Release();
        return nullptr;
    }
    return slot;
}

int IKypPeerConnection::AddKypRequest(KypRequest* req) {
    KypResponse* const slot = WriteKypRequest(req);
    if (slot == nullptr) return -1;
    const int result = slot->Wait();
    slot->Release();
    tlsErrno = result;
    return result;
}

int IKypPeerConnection::process_frame(unsigned char* frame, int length) {
    const Inbound in = take_apart(frame, length);
    const unsigned int id = utils_ntohl(in.aoe.invokeId);
    KYP_LOG(LOG_LEVEL_TRACE,
            "received a Frame,version:%d,port:%d,Frame size:%d,PayLoad Size:%d,InvokeId:%d",
            in.kyp.version, in.kyp.port, static_cast<int>(in.kyp.nMsgLen + sizeof(_KypHeader)),
            static_cast<int>(in.kyp.nMsgLen - sizeof(_AoEHeader)), static_cast<int>(id));

    if (utils_ntohs(in.aoe.cmd) != KYP_CMD_PUBLISH) {
        std::lock_guard<std::mutex> lock(m_responses[id % kResponseSlots].mutex);
        KypResponse* const slot = GetPendingResponse(id);
        if (slot != nullptr) return answer_locked(*slot, in, m_peerBuffer);
    }
    m_router.call(in.kyp, reinterpret_cast<char const*>(frame + sizeof(_KypHeader)), in.bodyLen,
                  this);
    return 0;
}

void IKypPeerConnection::register_connevent(void (*cb)(_KypDeviceId*, void*, int), void* ctx) {
    m_connEvent = cb;
    m_connEventCtx = ctx;
}

void IKypPeerConnection::set_reconnect_event(int intervalSec, bool enabled) {
    m_reconnectIntervalSec.store(intervalSec, std::memory_order_relaxed);
    m_reconnectEnabled.store(enabled, std::memory_order_relaxed);
}

int IKypPeerConnection::add_router(int port,
                                   void (*cb)(unsigned short, char const*, unsigned int, void*),
                                   void* ctx) {
    return m_router.addUserMessaggeRouter(static_cast<unsigned short>(port), cb, ctx);
}

int IKypPeerConnection::del_router(int port) {
    return m_router.delMessageRouter(static_cast<unsigned short>(port));
}

int IKypPeerConnection::publish(char const* topic, _KypPayload payload) {
    return SendPubSubMsg("pub", topic, payload);
}

int IKypPeerConnection::subscribe(char const* topic,
                                  void (*cb)(unsigned int, unsigned int, char const*, char const*,
                                             unsigned int, void*),
                                  void* ctx) {
    std::string name(topic);
    {
        std::lock_guard<std::mutex> lock(topics_mutex(this));
        m_topics[std::move(name)] = {cb, ctx};
    }
    return SendPubSubMsg("sub", topic, {KYP_CMD_SUBSCRIBE, 0, 0, 0, nullptr});
}

int IKypPeerConnection::unsubscribe(char const* topic) {
    const std::string name(topic);
    size_t erased = 0;
    {
        std::lock_guard<std::mutex> lock(topics_mutex(this));
        erased = m_topics.erase(name);
    }
    if (erased == 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "topic:%s no subscribe", topic);
        tlsErrno = KYP_ERR_TOPIC;
        return tlsErrno;
    }
    return SendPubSubMsg("unsub", topic, {KYP_CMD_UNSUBSCRIBE, 0, 0, 0, nullptr});
}

int IKypPeerConnection::SendPubSubMsg(char const* type, char const* topic, _KypPayload payload) {
    if (topic == nullptr) throw std::logic_error("the topic is null");

    // In 64 bits, so that a length near 4 GiB does not pass as a small or negative one.
    const uint64_t size = payload.length + kPubSubOverhead + std::strlen(topic);
    if (size > kMaxMsgLen) {
        tlsErrno = KYP_ERR_PACKET_TOO_LONG;
        return tlsErrno;
    }
    auto& pool = utility::instance<client_bufpool>();
    pbuf* const buf = take_pbuf(pool, static_cast<int>(size));
    addPubSubMsgTobuf(buf, type, topic, payload.indexGroup, payload.indexOffset,
                      static_cast<char const*>(payload.data), payload.length);
    MakeKypRequestHeaderTobuf(buf, kPortPubSub, payload.cmd, payload.indexGroup,
                              payload.indexOffset);
    const int sent = raw_send(reinterpret_cast<char const*>(buf->data()),
                              static_cast<unsigned int>(buf->size()), kPubSubSendMs);
    pool.put_one_free(buf);
    // Kept: any byte on its way counts as sent, and a link that took none without a fault gives
    // back whatever status the thread had before.
    return sent < 1 ? tlsErrno : 0;
}

std::map<std::string, _libkypSubscribelCallBack> IKypPeerConnection::GetSubscribeTopics() {
    std::lock_guard<std::mutex> lock(topics_mutex(this));
    return m_topics;
}

int IKypPeerConnection::filter(char const* data, unsigned int len) {
    ReceivedTopic const message(data, len);

    _libkypSubscribelCallBack target{nullptr, nullptr};
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(topics_mutex(this));
        const auto found = m_topics.find(message->topic);
        known = found != m_topics.end();
        if (known) target = found->second;
    }
    if (!known) {
        KYP_LOG(LOG_LEVEL_ERROR, "unknow topic:%s", message->topic.c_str());
        return 0;
    }
    if (target.callback != nullptr) {
        target.callback(message->indexGroup, message->indexOffset, message->topic.c_str(),
                        message->data.data(), static_cast<unsigned int>(message->data.size()),
                        target.user);
    }
    return 0;
}

void libkypsubscribeMsgRouterCallBack(unsigned short, char const* data, unsigned int len,
                                      void* ctx) {
    KYP_LOG(LOG_LEVEL_TRACE, "libkyp recv subscribe message,TotalSize:%d", static_cast<int>(len));
    static_cast<IKypPeerConnection*>(ctx)->filter(data, len);
}
