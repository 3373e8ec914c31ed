#include "support/FakeTopics.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "kypcomm/ivshm/IvshmExtFunDef.h"

namespace {

constexpr auto kDeadline = std::chrono::seconds(10);
FakeTopics* g_topics = nullptr;

}  // namespace

FakeTopics::FakeTopics() {
    g_topics = this;
    auto& api = ExtIvshmApiDef::GetInstance();
    api.m_pfnInit = init;
    api.m_pfnSend = send;
    api.m_pfnRecv = recv;
    api.m_pfnUninit = uninit;
    api.m_bLoaded = true;
}

FakeTopics::~FakeTopics() {
    ExtIvshmApiDef::GetInstance().m_bLoaded = false;
    g_topics = nullptr;
}

void* FakeTopics::handle(int topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return &topic_at(topic);
}

void FakeTopics::refuse_open(int topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_refused.insert(topic);
}

void FakeTopics::refuse_send() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_refuseSend = true;
}

void FakeTopics::put(int topic, Bytes message) {
    const unsigned long length = message.size();
    put_with_length(topic, std::move(message), length);
}

void FakeTopics::put_with_length(int topic, Bytes message, unsigned long length) {
    std::lock_guard<std::mutex> lock(m_mutex);
    topic_at(topic).waiting.emplace_back(std::move(message), length);
    m_changed.notify_all();
}

bool FakeTopics::wait_consumed(int topic) {
    std::unique_lock<std::mutex> lock(m_mutex);
    Topic& at = topic_at(topic);
    return m_changed.wait_for(lock, kDeadline, [&] { return at.waiting.empty() && at.readerIdle; });
}

std::vector<Bytes> FakeTopics::sent(int topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return topic_at(topic).sent;
}

std::vector<Bytes> FakeTopics::wait_sent(int topic, size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    Topic& at = topic_at(topic);
    m_changed.wait_for(lock, kDeadline, [&] { return at.sent.size() >= count; });
    return at.sent;
}

void FakeTopics::end_waits() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_endWaits = true;
    m_changed.notify_all();
}

std::vector<std::pair<int, int>> FakeTopics::opened() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_opened;
}

std::vector<int> FakeTopics::closed() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
}

long FakeTopics::read_timeout() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_readTimeout;
}

unsigned long FakeTopics::read_room() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_readRoom;
}

long FakeTopics::send_timeout() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sendTimeout;
}

int FakeTopics::most_sends_at_once() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_mostSends;
}

FakeTopics::Topic& FakeTopics::topic_at(int number) {
    Topic& topic = m_topics[number];
    topic.number = number;
    return topic;
}

void* FakeTopics::init(int topic, int mode) {
    std::lock_guard<std::mutex> lock(g_topics->m_mutex);
    g_topics->m_opened.emplace_back(topic, mode);
    return g_topics->m_refused.count(topic) != 0 ? nullptr : &g_topics->topic_at(topic);
}

bool FakeTopics::send(void* handle, unsigned long size, void* data, long timeoutMs) {
    // Counted ahead of the lock, where senders that come together meet.
    const int underWay = ++g_topics->m_sendsUnderWay;
    std::lock_guard<std::mutex> lock(g_topics->m_mutex);
    g_topics->m_mostSends = std::max(g_topics->m_mostSends, underWay);
    g_topics->m_sendTimeout = timeoutMs;
    if (!g_topics->m_refuseSend) {
        auto const* const bytes = static_cast<uint8_t const*>(data);
        static_cast<Topic*>(handle)->sent.emplace_back(bytes, bytes + size);
        g_topics->m_changed.notify_all();
    }
    --g_topics->m_sendsUnderWay;
    return !g_topics->m_refuseSend;
}

bool FakeTopics::recv(void* handle, unsigned long* size, void* data, long timeoutMs) {
    auto& self = *g_topics;
    auto& topic = *static_cast<Topic*>(handle);
    std::unique_lock<std::mutex> lock(self.m_mutex);
    self.m_readTimeout = timeoutMs;
    self.m_readRoom = *size;
    topic.readerIdle = true;
    self.m_changed.notify_all();
    self.m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return !topic.waiting.empty() || self.m_endWaits; });
    if (topic.waiting.empty()) return false;

    topic.readerIdle = false;
    auto const [message, length] = std::move(topic.waiting.front());
    topic.waiting.pop_front();
    if (!message.empty()) memcpy(data, message.data(), std::min(*size, message.size()));
    *size = length;
    return true;
}

void FakeTopics::uninit(void* handle) {
    std::lock_guard<std::mutex> lock(g_topics->m_mutex);
    g_topics->m_closed.push_back(static_cast<Topic*>(handle)->number);
}

Bytes shm_message(uint32_t clientId, uint32_t processId, Bytes const& frame) {
    const auto size = static_cast<uint32_t>(frame.size());
    return join({shm_head(0xFF4B5950, clientId, processId, size), frame});
}

Bytes shm_head(uint32_t magic, uint32_t clientId, uint32_t processId, uint32_t dataSize) {
    return join({u32_le(magic), bytes("01 00 02 00"), u32_le(clientId), u32_le(processId),
                 u32_le(dataSize)});
}
