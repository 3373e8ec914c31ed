// A client connection without a transport: what it is told to send is kept as bytes, and a test
// answers by handing frames to process_frame().
#ifndef KYP_TESTS_UNIT_KYPCLIENT_FAKEPEERCONNECTION_H
#define KYP_TESTS_UNIT_KYPCLIENT_FAKEPEERCONNECTION_H

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "kypclient/KypPeerConn.h"
#include "kypcomm/KypStatus.h"
#include "support/FrameBytes.h"

constexpr int kWholeFrame = -100;

class FakePeerConnection : public IKypPeerConnection {
public:
    using IKypPeerConnection::IKypPeerConnection;

    int raw_send(char const* data, unsigned int len, int timeoutMs) override {
        Bytes frame(data, data + len);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_sent.push_back(frame);
            m_timeouts.push_back(timeoutMs);
        }
        if (m_sendErrno != 0) tlsErrno = m_sendErrno;
        if (m_onSend) m_onSend(frame);
        return m_sendResult == kWholeFrame ? static_cast<int>(len) : m_sendResult;
    }

    int raw_send(Frame& frame, int timeoutMs) override {
        return raw_send(reinterpret_cast<char const*>(frame.data()), frame.size(), timeoutMs);
    }

    int raw_recv(unsigned short*, char*, int, int) override { return 0; }

    int receive(Bytes frame) { return process_frame(frame.data(), static_cast<int>(frame.size())); }

    // The link takes no more than `result` says, and the sender's status becomes `status`.
    void fail_sends(int result, int status = 0) {
        m_sendResult = result;
        m_sendErrno = status;
    }

    KypResponse& slot(unsigned int invokeId) { return m_responses[invokeId % 500]; }

    std::mutex m_mutex;         // guards the next two
    std::vector<Bytes> m_sent;  // in the order of sending
    std::vector<int> m_timeouts;
    int m_sendResult = kWholeFrame;
    int m_sendErrno = 0;
    std::function<void(Bytes const&)> m_onSend;  // runs while the bytes are on their way
};

// What a port route was called with.
struct RouteCalls {
    struct Call {
        uint16_t port;
        Bytes data;
    };

    static void record(unsigned short port, char const* data, unsigned int len, void* ctx) {
        auto& calls = *static_cast<RouteCalls*>(ctx);
        std::lock_guard<std::mutex> lock(calls.m_mutex);
        calls.m_calls.push_back({port, Bytes(data, data + len)});
    }

    std::vector<Call> all() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    size_t count() { return all().size(); }

    std::mutex m_mutex;
    std::vector<Call> m_calls;
};

// What a subscription was called with.
struct TopicCalls {
    struct Call {
        uint32_t indexGroup;
        uint32_t indexOffset;
        std::string topic;
        Bytes data;
    };

    static void record(unsigned int group, unsigned int offset, char const* topic, char const* data,
                       unsigned int len, void* ctx) {
        auto& calls = *static_cast<TopicCalls*>(ctx);
        std::lock_guard<std::mutex> lock(calls.m_mutex);
        calls.m_calls.push_back({group, offset, topic, Bytes(data, data + len)});
    }

    std::vector<Call> all() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    size_t count() { return all().size(); }

    std::mutex m_mutex;
    std::vector<Call> m_calls;
};

// A request of the blocking way, with room for its answer. Its frame is built by fill().
struct BlockingRequest {
    explicit BlockingRequest(uint32_t capacity, uint16_t port = 200, uint16_t cmd = 9)
        : answer(capacity), request{true,     Frame(64, nullptr), _KypDeviceId{}, port, cmd,
                                    capacity, answer.data(),      &recvLen,       0,    0} {
        set_deadline(std::chrono::seconds(20));
    }
    ~BlockingRequest() { delete[] request.frame.rawData(); }
    BlockingRequest(BlockingRequest const&) = delete;
    BlockingRequest& operator=(BlockingRequest const&) = delete;

    void fill(Bytes const& payload, uint32_t indexGroup = 0, uint32_t indexOffset = 0) {
        request.frame.clear();
        if (!payload.empty()) {
            request.frame.prepend(payload.data(), static_cast<unsigned int>(payload.size()));
        }
        const Bytes address = address_head(indexGroup, indexOffset);
        request.frame.prepend(address.data(), static_cast<unsigned int>(address.size()));
    }

    void set_deadline(std::chrono::nanoseconds fromNow) {
        request.deadline = (std::chrono::steady_clock::now().time_since_epoch() + fromNow).count();
    }

    Bytes answer;
    uint32_t recvLen = 0xdead;
    KypRequest request;
};

#endif
