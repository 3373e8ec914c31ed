#include "support/KypClient.h"

#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "support/Eventually.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

char const* const kProbe = "\x01probe";

// What an answer of the split way is given to arrive before it is asked for.
constexpr std::chrono::seconds kParkingTime{1};

// A request that went into a dying link is not answered; how long to wait before the next.
constexpr milliseconds kPatience{300};

constexpr int kConnectMs = 5000;
constexpr size_t kRoom = 6 << 20;

}  // namespace

KypClient::KypClient(Transport transport, _KypDeviceId id) : m_room(kRoom) {
    libkyp_init();
    m_handle = libkyp_createInstanceEx(&id, transport == TCP ? KYP_CONN_TCP : KYP_CONN_DOMAIN,
                                       kConnectMs, on_event, this);
}

KypClient::~KypClient() {
    libkyp_releaseInstance(m_handle);
}

void* KypClient::handle() const {
    return m_handle;
}

KypClient::Answer KypClient::exchange(uint16_t port, Bytes const& payload, uint32_t indexGroup,
                                      uint32_t indexOffset, milliseconds deadline) {
    // A machine under load may hold this thread up for longer than an answer is kept; that says
    // nothing about the library, so the request is sent again.
    for (;;) {
        bool heldUp = false;
        Answer answer = exchange_once(port, payload, indexGroup, indexOffset, deadline, &heldUp);
        if (answer.status != KYP_ERR_RECV_TIMEOUT || !heldUp) return answer;
    }
}

KypClient::Answer KypClient::exchange_once(uint16_t port, Bytes const& payload, uint32_t indexGroup,
                                           uint32_t indexOffset, milliseconds deadline,
                                           bool* heldUp) {
    int const timeoutMs = static_cast<int>(deadline.count());
    auto const start = Clock::now();
    Answer answer;
    auto* const data = const_cast<uint8_t*>(payload.data());
    if (libkyp_sync_send(m_handle, port, indexGroup, indexOffset, data,
                         static_cast<unsigned>(payload.size()), timeoutMs) < 0) {
        answer.status = libkyp_get_errno();
        return answer;
    }
    int const n = libkyp_sync_recv(m_handle, &answer.port, m_room.data(),
                                   static_cast<int>(m_room.size()), timeoutMs);
    answer.status = libkyp_get_errno();
    // Neither a late answer, which takes the whole deadline, nor one that was refused in time.
    auto const took = Clock::now() - start;
    *heldUp = took >= kParkingTime && took < deadline;
    if (n > 0) answer.payload.assign(m_room.begin(), m_room.begin() + n);
    return answer;
}

bool KypClient::exchange_again(uint16_t port, Bytes const& payload, milliseconds deadline) {
    auto const comesBack = [&] {
        Answer const answer = exchange(port, payload, 0, 0, kPatience);
        return answer.status == 0 && answer.payload == payload;
    };
    return eventually(comesBack, deadline);
}

bool KypClient::wait_until_subscribed(std::string const& topic, KypClient& publisher,
                                      milliseconds deadline) {
    auto const arrived = [&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (std::string const& probe : m_probes) {
            if (probe == topic) return true;
        }
        return false;
    };
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_probes.clear();
    }
    return eventually([&] { return publisher.publish(topic, text(kProbe)) == 0 && arrived(); },
                      deadline);
}

int KypClient::publish(std::string const& topic, Bytes const& data, uint32_t indexGroup,
                       uint32_t indexOffset) {
    return libkyp_publish(m_handle, indexGroup, indexOffset, topic.c_str(),
                          reinterpret_cast<char const*>(data.data()),
                          static_cast<unsigned>(data.size()));
}

int KypClient::subscribe(std::string const& topic) {
    return libkyp_subscribe(m_handle, topic.c_str(), on_message, this);
}

int KypClient::unsubscribe(std::string const& topic) {
    return libkyp_unsubscribe(m_handle, topic.c_str());
}

std::vector<KypClient::Message> KypClient::messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

size_t KypClient::message_count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages.size();
}

size_t KypClient::message_count(std::string const& topic, Bytes const& data) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t count = 0;
    for (Message const& message : m_messages) {
        if (message.topic == topic && message.data == data) ++count;
    }
    return count;
}

bool KypClient::wait_for_messages(size_t count, milliseconds deadline) const {
    return eventually([&] { return message_count() >= count; }, deadline);
}

std::vector<int> KypClient::events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

bool KypClient::wait_for_events(std::vector<int> const& expected, milliseconds deadline) const {
    return eventually([&] { return events() == expected; }, deadline);
}

void KypClient::on_event(_KypDeviceId*, void* self, int event) {
    auto* const client = static_cast<KypClient*>(self);
    std::lock_guard<std::mutex> lock(client->m_mutex);
    client->m_events.push_back(event);
}

void KypClient::on_message(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                           char const* data, unsigned int len, void* self) {
    auto* const client = static_cast<KypClient*>(self);
    std::lock_guard<std::mutex> lock(client->m_mutex);
    Bytes const bytesOfData(data, data + len);
    if (bytesOfData == text(kProbe)) {
        client->m_probes.push_back(topic);
    } else {
        client->m_messages.push_back({indexGroup, indexOffset, topic, bytesOfData});
    }
}
